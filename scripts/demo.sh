#!/bin/sh
# make demo: makes sample media with Debian's ImageMagick, exiftool and ffmpeg, runs qrb-thumb
# on all of it and writes a contact sheet to demo-out/index.html.
#
# Inputs that fail are reported, not fatal: kinds whose getters are not built yet answer with
# status -1, and the summary says so. The demo fails when making the media fails or when the
# tool does not end normally (a crash, a bad command line).
set -eu

if [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
REPO=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "$1" && pwd)
TOOL=$BUILD/tools/qrb-thumb/qrb-thumb
OUT=$REPO/demo-out
MEDIA=$OUT/media
WORK=$OUT/work

for program in convert exiftool ffmpeg; do
    if ! command -v "$program" >/dev/null 2>&1; then
        echo "demo: $program is missing; scripts/install-deps.sh installs it" >&2
        exit 1
    fi
done
if [ ! -x "$TOOL" ]; then
    echo "demo: $TOOL is not built" >&2
    exit 1
fi

rm -rf "$OUT"
mkdir -p "$MEDIA" "$WORK" "$OUT/root" "$OUT/thumbs"
# Every fixed path of the library lands under this folder instead of the device's.
QRB_ROOT=$OUT/root
export QRB_ROOT

# The video getter opens the media-framework plug-ins at run time; use the build's when it
# has made them.
find "$BUILD" -name 'libgst*ffmpeg*.so' -not -path '*testdata*' | while read -r plugin; do
    mkdir -p "$QRB_ROOT/usr/lib/gstreamer-1.0"
    cp "$plugin" "$QRB_ROOT/usr/lib/gstreamer-1.0/"
done

echo "demo: making sample media in $MEDIA"

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
$FFMPEG -f lavfi -i "testsrc=duration=4:size=640x360:rate=25" \
    -c:v libx264 -preset ultrafast -pix_fmt yuv420p -g 25 "$MEDIA/clip.mp4"

count=$(find "$MEDIA" -type f | wc -l)
echo "demo: $count files made; asking qrb-thumb for thumbnails"

# Not "set -e" here: failed inputs end the tool with 1, which the demo reports.
status=0
"$TOOL" -s 320x240 -n 3 -o "$OUT/thumbs" --sheet "$OUT/index.html" "$MEDIA"/* || status=$?
case $status in
    0)
        echo "demo: every input has its thumbnail" ;;
    1)
        echo "demo: some inputs failed (kinds whose getters are not built yet answer with status -1)" ;;
    *)
        echo "demo: qrb-thumb ended abnormally (status $status)" >&2
        exit 1 ;;
esac
echo "demo: contact sheet: $OUT/index.html"
