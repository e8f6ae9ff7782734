#!/bin/sh
# Makes the songs with cover art the cover tests read, with ffmpeg and ImageMagick, into OUT_DIR
# (the build tree), once. Half a second of a tone each:
#
#   cover.jpg, back.png, large.jpg  the pictures put into the songs: a 300 x 200 JPEG of four
#                   quadrants (red, green / blue, white), a 300 x 200 blue PNG, and the four
#                   quadrants at 1000 x 1000 with noise, longer than an ID3 cover may be (over
#                   512 KiB)
#   song.flac       FLAC with cover.jpg as its front cover (a PICTURE block)
#   two_covers.flac FLAC with back.png as the back cover first, then cover.jpg as the front
#   large.flac      FLAC with large.jpg
#   song.m4a        AAC in MP4 with cover.jpg ("covr")
#   song.ogg        Vorbis with cover.jpg in a METADATA_BLOCK_PICTURE comment
#   song.opus       Opus, likewise
#   plain.flac, plain.m4a  without a picture
#   plain.wv        WavPack without tags (the tests add an APE tag)
set -eu

if [ $# -ne 1 ]; then
    echo "usage: $0 OUT_DIR" >&2
    exit 2
fi
OUT=$1
mkdir -p "$OUT"
T=$(mktemp -d)
trap 'rm -rf "$T"' EXIT INT TERM

convert -size 300x200 xc:white -fill red -draw "rectangle 0,0 149,99" \
    -fill lime -draw "rectangle 150,0 299,99" -fill blue -draw "rectangle 0,100 149,199" \
    -quality 95 "$T/cover.jpg"
convert -size 300x200 xc:blue PNG24:"$T/back.png"
convert -size 1000x1000 xc:white -fill red -draw "rectangle 0,0 499,499" \
    -fill lime -draw "rectangle 500,0 999,499" -fill blue -draw "rectangle 0,500 499,999" \
    -attenuate 1.5 +noise Uniform -quality 100 "$T/large.jpg"

tone() { ffmpeg -v error -nostdin -f lavfi -i sine=frequency=440:duration=0.5 "$@"; }

tone -i "$T/cover.jpg" -map 0 -map 1 -c:v copy -disposition:v attached_pic \
    -metadata:s:v comment="Cover (front)" "$T/song.flac"
tone -i "$T/back.png" -i "$T/cover.jpg" -map 0 -map 1 -map 2 -c:v copy \
    -disposition:v attached_pic -metadata:s:v:0 comment="Cover (back)" \
    -metadata:s:v:1 comment="Cover (front)" "$T/two_covers.flac"
tone -i "$T/large.jpg" -map 0 -map 1 -c:v copy -disposition:v attached_pic "$T/large.flac"
tone -i "$T/cover.jpg" -map 0 -map 1 -c:a aac -c:v copy -disposition:v attached_pic "$T/song.m4a"

# Ogg carries pictures as a FLAC picture record, base64-encoded in a comment, which ffmpeg
# writes as any other comment.
be32() {
    n=$1
    # shellcheck disable=SC2059
    printf "$(printf '\\%03o\\%03o\\%03o\\%03o' $((n >> 24 & 255)) $((n >> 16 & 255)) \
        $((n >> 8 & 255)) $((n & 255)))"
}
{
    be32 3 && be32 10 && printf 'image/jpeg' && be32 0 && be32 300 && be32 200 && be32 24 &&
        be32 0 && be32 "$(stat -c %s "$T/cover.jpg")" && cat "$T/cover.jpg"
} >"$T/picture.bin"
PICTURE=$(base64 -w0 "$T/picture.bin")
tone -c:a libvorbis -metadata METADATA_BLOCK_PICTURE="$PICTURE" "$T/song.ogg"
tone -c:a libopus -metadata METADATA_BLOCK_PICTURE="$PICTURE" "$T/song.opus"

tone "$T/plain.flac"
tone -c:a aac "$T/plain.m4a"
tone -c:a wavpack "$T/plain.wv"

rm "$T/picture.bin"
mv "$T"/* "$OUT"/
touch "$OUT/stamp"
