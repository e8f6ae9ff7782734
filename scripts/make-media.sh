#!/bin/sh
# Makes the local sample media the demo and the installed-layout test use, with Debian's
# ImageMagick, exiftool and ffmpeg: pictures in every orientation with and without EXIF
# thumbnails, PNG, BMP, HEIF, AVIF, WebP (heif-enc, cwebp), GIF, TIFF, songs with ID3v2.3,
# ID3v2.2 and WMA covers (and one without) and with covers in FLAC, M4A, Ogg Vorbis and Opus,
# videos in several codecs and containers, a recording with its key frames, a content package.
#
#   scripts/make-media.sh BUILD_DIR MEDIA_DIR RECORDINGS_DIR WORK_DIR
#
# The recording's key frames are handed over by the build's stand-in recorder and the package is
# written by the build's package writer; either is skipped with a message when not built.
set -eu

if [ $# -ne 4 ]; then
    echo "usage: $0 BUILD_DIR MEDIA_DIR RECORDINGS_DIR WORK_DIR" >&2
    exit 2
fi
BUILD=$(cd "$1" && pwd)
MEDIA=$2
RECORDINGS=$3
WORK=$4
mkdir -p "$MEDIA" "$RECORDINGS" "$WORK"
for program in convert exiftool ffmpeg; do
    if ! command -v "$program" >/dev/null 2>&1; then
        echo "make-media: $program is missing; scripts/install-deps.sh installs it" >&2
        exit 1
    fi
done

# An upright picture whose top, left and right are told apart at a glance: a red block at the
# top left, a white arrow pointing up, a yellow disc at the bottom right.
convert -size 640x480 gradient:'#1e3c72-#2a5298' \
    -fill '#e74c3c' -draw 'rectangle 24,24 224,124' \
    -fill white -draw 'polygon 320,60 390,210 250,210' -draw 'rectangle 300,210 340,400' \
    -fill '#f1c40f' -draw 'circle 540,380 600,380' \
    "$WORK/upright.png"

# For EXIF orientation N, the stored pixels are the upright picture turned by the inverse of
# what a viewer applies for N, so every file looks the same once oriented.
stored_transform() {
    case $1 in
        1) echo "" ;;
        2) echo "-flop" ;;
        3) echo "-rotate 180" ;;
        4) echo "-flip" ;;
        5) echo "-transpose" ;;
        6) echo "-rotate 270" ;;
        7) echo "-transverse" ;;
        8) echo "-rotate 90" ;;
    esac
}

ARGS=$WORK/exiftool.args
: > "$ARGS"
for n in 1 2 3 4 5 6 7 8; do
    # shellcheck disable=SC2046
    convert "$WORK/upright.png" $(stored_transform "$n") -strip -quality 90 \
        "$MEDIA/orientation-$n.jpg"
    # The embedded thumbnail is stored the way the picture is, turned like it.
    convert "$MEDIA/orientation-$n.jpg" -resize 160x160 -strip -quality 80 "$WORK/thumb-$n.jpg"
    cp "$MEDIA/orientation-$n.jpg" "$MEDIA/orientation-$n-exif-thumbnail.jpg"
    printf -- '-overwrite_original\n-n\n-Orientation=%s\n%s\n-execute\n' \
        "$n" "$MEDIA/orientation-$n.jpg" >> "$ARGS"
    printf -- '-overwrite_original\n-n\n-Orientation=%s\n-ThumbnailImage<=%s\n%s\n-execute\n' \
        "$n" "$WORK/thumb-$n.jpg" "$MEDIA/orientation-$n-exif-thumbnail.jpg" >> "$ARGS"
done
# One exiftool process for all sixteen files: starting Perl dominates otherwise.
exiftool -q -q -@ "$ARGS" >/dev/null

convert "$WORK/upright.png" -resize 400x300 "$MEDIA/picture.png"
convert "$WORK/upright.png" -resize 400x300 "BMP3:$MEDIA/picture.bmp"

# What phones and the web store today: HEIF and AVIF, WebP, an animated GIF (its first frame is
# shown), a TIFF. heif-enc wants 8-bit RGB (the AV1 encoder refuses palette pictures).
convert "$WORK/upright.png" -resize 400x300 PNG24:"$WORK/modern.png"
if command -v heif-enc >/dev/null 2>&1; then
    heif-enc -q 80 "$WORK/modern.png" -o "$MEDIA/picture.heic"
    heif-enc -A -q 80 "$WORK/modern.png" -o "$MEDIA/picture.avif"
else
    echo "make-media: heif-enc is missing; the HEIF and AVIF pictures are skipped"
fi
if command -v cwebp >/dev/null 2>&1; then
    cwebp -quiet -q 85 "$WORK/modern.png" -o "$MEDIA/picture.webp"
else
    echo "make-media: cwebp is missing; the WebP picture is skipped"
fi
convert -delay 50 "$WORK/modern.png" \( "$WORK/modern.png" -negate \) -loop 0 \
    "$MEDIA/animation.gif"
convert "$WORK/modern.png" -compress lzw "$MEDIA/picture.tif"

# Cover art, square as album covers are.
convert -size 300x300 gradient:'#ff9966-#ff5e62' -fill white \
    -draw 'circle 150,150 150,60' -fill '#ff5e62' -draw 'circle 150,150 150,130' \
    "$WORK/cover.jpg"

FFMPEG="ffmpeg -hide_banner -loglevel error -nostdin -y"
$FFMPEG -f lavfi -i "sine=frequency=440:duration=2" -i "$WORK/cover.jpg" \
    -map 0:a -map 1:v -c:a libmp3lame -b:a 64k -c:v copy -id3v2_version 3 \
    -metadata title="Demo song" -metadata artist="qrb-thumb demo" \
    -metadata:s:v title="Album cover" -metadata:s:v comment="Cover (front)" \
    "$MEDIA/song-with-cover.mp3"
$FFMPEG -f lavfi -i "sine=frequency=330:duration=2" -c:a libmp3lame -b:a 64k -id3v2_version 3 \
    -metadata title="No cover" "$MEDIA/song-without-cover.mp3"

# Covers in the containers music shops and rippers use: FLAC and M4A through ffmpeg's attached
# pictures; Ogg Vorbis and Opus as a METADATA_BLOCK_PICTURE comment (a FLAC picture record in
# base64), which ffmpeg writes as any other comment, after the byte helpers below.
$FFMPEG -f lavfi -i "sine=frequency=494:duration=2" -i "$WORK/cover.jpg" -map 0:a -map 1:v \
    -c:v copy -disposition:v attached_pic -metadata:s:v comment="Cover (front)" \
    "$MEDIA/song-with-cover.flac"
$FFMPEG -f lavfi -i "sine=frequency=587:duration=2" -i "$WORK/cover.jpg" -map 0:a -map 1:v \
    -c:a aac -b:a 64k -c:v copy -disposition:v attached_pic "$MEDIA/song-with-cover.m4a"

# Byte helpers for the two tags written by hand below: a number as N little-endian or
# big-endian bytes, an ID3 synchsafe size, ASCII as zero-terminated UTF-16LE, hex as bytes.
byte() { printf "\\$(printf '%03o' "$1")"; }
le() {
    v=$1 n=$2
    while [ "$n" -gt 0 ]; do byte $((v & 255)); v=$((v >> 8)); n=$((n - 1)); done
}
be() {
    n=$2
    while [ "$n" -gt 0 ]; do n=$((n - 1)); byte $((($1 >> (8 * n)) & 255)); done
}
synchsafe() {
    byte $((($1 >> 21) & 127)); byte $((($1 >> 14) & 127)); byte $((($1 >> 7) & 127)); byte $(($1 & 127))
}
utf16() {
    s=$1
    while [ -n "$s" ]; do
        c=${s%"${s#?}"}
        s=${s#?}
        printf '%s' "$c"; byte 0
    done
    byte 0; byte 0
}
hexbytes() { for h in "$@"; do byte $((0x$h)); done; }
filesize() { wc -c < "$1" | tr -d ' '; }

{
    be 3 4; be 10 4; printf 'image/jpeg'; be 0 4; be 300 4; be 300 4; be 24 4; be 0 4
    be "$(filesize "$WORK/cover.jpg")" 4; cat "$WORK/cover.jpg"
} > "$WORK/cover.flacpicture"
picture=$(base64 -w 0 "$WORK/cover.flacpicture")
$FFMPEG -f lavfi -i "sine=frequency=659:duration=2" -c:a libvorbis \
    -metadata METADATA_BLOCK_PICTURE="$picture" "$MEDIA/song-with-cover.ogg"
$FFMPEG -f lavfi -i "sine=frequency=698:duration=2" -c:a libopus -b:a 48k \
    -metadata METADATA_BLOCK_PICTURE="$picture" "$MEDIA/song-with-cover.opus"

# An ID3v2.2 tag (which ffmpeg no longer writes) with a PIC frame in front of untagged audio.
convert -size 300x300 gradient:'#11998e-#38ef7d' -fill white \
    -draw 'polygon 150,50 250,250 50,250' -fill '#11998e' -draw 'circle 150,185 150,160' \
    "$WORK/cover-v22.jpg"
$FFMPEG -f lavfi -i "sine=frequency=392:duration=2" -c:a libmp3lame -b:a 64k -id3v2_version 0 \
    -write_xing 0 "$WORK/untagged.mp3"
picture=$(filesize "$WORK/cover-v22.jpg")
frame=$((6 + picture))  # text encoding, "JPG", picture type, empty description, picture
{
    printf 'ID3'; byte 2; byte 0; byte 0; synchsafe $((6 + frame))
    printf 'PIC'; be "$frame" 3
    byte 0; printf 'JPG'; byte 3; byte 0
    cat "$WORK/cover-v22.jpg"
    cat "$WORK/untagged.mp3"
} > "$MEDIA/song-id3v22-cover.mp3"

# A WMA song whose header carries a "WM/Picture". The library takes attribute values of 256
# bytes at most, so the cover is an 8 x 6 bitmap (198 bytes); the object holding it is put in
# front of the header objects ffmpeg wrote, and the header's size and object count grow to
# match. (od reads the header's numbers in host order: a little-endian host, as ASF is.)
$FFMPEG -f lavfi -i "sine=frequency=523:duration=2" -c:a wmav2 -b:a 64k \
    -metadata title="WMA demo song" "$WORK/plain.wma"
convert -size 8x6 xc:'#6a3093' -fill '#a044ff' -draw 'rectangle 4,0 7,5' \
    -fill '#f1c40f' -draw 'rectangle 3,2 4,3' -type truecolor "BMP3:$WORK/cover-wma.bmp"
picture=$(filesize "$WORK/cover-wma.bmp")
value=$((1 + 4 + 20 + 2 + picture))  # type, size, "image/bmp", empty description, picture
descriptor=$((2 + 22 + 2 + 2 + value))
object=$((24 + 2 + descriptor))
{
    hexbytes 40 A4 D0 D2 07 E3 D2 11 97 F0 00 A0 C9 5E A8 50  # Extended Content Description
    le "$object" 8; le 1 2
    le 22 2; utf16 "WM/Picture"; le 1 2; le "$value" 2
    byte 3; le "$picture" 4; utf16 "image/bmp"; utf16 ""
    cat "$WORK/cover-wma.bmp"
} > "$WORK/wm-picture.obj"
header_size=$(od -An -t u8 -j 16 -N 8 "$WORK/plain.wma" | tr -d ' ')
objects=$(od -An -t u4 -j 24 -N 4 "$WORK/plain.wma" | tr -d ' ')
{
    head -c 16 "$WORK/plain.wma"
    le $((header_size + object)) 8
    le $((objects + 1)) 4
    tail -c +29 "$WORK/plain.wma" | head -c 2
    cat "$WORK/wm-picture.obj"
    tail -c +31 "$WORK/plain.wma"
} > "$MEDIA/song-wma-cover.wma"
$FFMPEG -f lavfi -i "testsrc=duration=4:size=640x360:rate=25" \
    -c:v libx264 -preset ultrafast -pix_fmt yuv420p -g 25 "$MEDIA/clip.mp4"
# More videos: other codecs and containers, pictures that change over time (a moving test
# pattern, a clock), so that the frames taken along each one differ.
$FFMPEG -f lavfi -i "testsrc2=duration=6:size=1280x720:rate=25" \
    -c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=25 -pix_fmt yuv420p \
    "$MEDIA/clip-hevc.mkv"
$FFMPEG -f lavfi -i "mandelbrot=size=720x576:rate=25" -t 6 \
    -c:v mpeg2video -q:v 4 -g 12 "$MEDIA/clip-mpeg2.mpg"
$FFMPEG -f lavfi -i "color=c=0x202840:s=640x360:d=8:r=25" \
    -vf "drawtext=text='%{pts\\:hms}':fontsize=72:fontcolor=white:x=(w-tw)/2:y=(h-th)/2" \
    -c:v mpeg4 -q:v 3 -g 25 "$MEDIA/clock-mpeg4.avi" 2>/dev/null ||
    echo "make-media: no font for drawtext; the clock video is skipped"

# A recording as the television's recorder leaves it: a transport stream named ".srf", and
# beside it the ".mta" file with the thumbnails of key frames, which the recorder hands to
# set_pvr_key_frame as it records (qrb-pvr-record stands in for the recorder here). Kept in a
# folder of its own: the ".mta" file is no input for the tool.
$FFMPEG -f lavfi -i "testsrc2=duration=8:size=720x576:rate=25" \
    -f lavfi -i "sine=frequency=660:duration=8" \
    -c:v mpeg2video -q:v 4 -g 25 -c:a mp2 -b:a 128k -f mpegts "$RECORDINGS/news.srf"
RECORDER=$BUILD/platform/linux/pvr-recorder/qrb-pvr-record
if [ -x "$RECORDER" ]; then
    "$RECORDER" "$RECORDINGS/news.srf" 3 320 240
else
    echo "make-media: $RECORDER is not built; the recording has no thumbnails"
fi


# A content package: an ISO base media file whose table of contents names its descriptive
# metadata, which names the poster stored inside the package. The tool sends ".uvu" files to
# the package getter, which shows the poster. The package is written with the tests' box writer.
PACKAGER=$BUILD/testing/qrb-make-scsa-package
if [ -x "$PACKAGER" ]; then
    convert -size 400x600 gradient:'#141e30-#243b55' \
        -fill '#f39c12' -draw 'polygon 200,90 340,380 60,380' \
        -fill '#ecf0f1' -draw 'circle 200,470 200,430' -quality 90 "$WORK/package-poster.jpg"
    "$PACKAGER" "$MEDIA/feature.uvu" "$WORK/package-poster.jpg" "Sample Feature"
else
    echo "make-media: $PACKAGER is not built; the content package is skipped"
fi

