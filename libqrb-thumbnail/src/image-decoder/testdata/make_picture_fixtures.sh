#!/bin/sh
# Makes the large pictures the picture tests read, with Debian's ImageMagick, into OUT_DIR (the
# build tree), once. Each is a progressive JPEG as ImageMagick writes one with
# "-interlace JPEG -quality 92", in one of the common chroma subsamplings, of four quadrants:
# red top left, green top right, blue bottom left, white bottom right, so that a thumbnail
# shows whether it was decoded and placed right.
#
#   progressive_444_4000x3000.jpg   12 megapixels, 4:4:4
#   progressive_422_6000x4000.jpg   24 megapixels, 4:2:2
#   progressive_420_6000x4000.jpg   24 megapixels, 4:2:0
#   progressive_444_8688x5792.jpg   50 megapixels, 4:4:4 (a 50-megapixel camera's size)
set -eu

if [ $# -ne 1 ]; then
    echo "usage: $0 OUT_DIR" >&2
    exit 2
fi
OUT=$1
mkdir -p "$OUT"

# quadrants WIDTH HEIGHT SAMPLING NAME
quadrants() {
    w=$1 h=$2
    x=$((w / 2)) y=$((h / 2))
    convert -size "${w}x$h" xc:white \
        -fill red -draw "rectangle 0,0 $((x - 1)),$((y - 1))" \
        -fill lime -draw "rectangle $x,0 $((w - 1)),$((y - 1))" \
        -fill blue -draw "rectangle 0,$y $((x - 1)),$((h - 1))" \
        -sampling-factor "$3" -interlace JPEG -quality 92 "$OUT/$4.tmp.jpg"
    mv "$OUT/$4.tmp.jpg" "$OUT/$4.jpg"
}

quadrants 4000 3000 1x1 progressive_444_4000x3000
quadrants 6000 4000 2x1 progressive_422_6000x4000
quadrants 6000 4000 2x2 progressive_420_6000x4000
quadrants 8688 5792 1x1 progressive_444_8688x5792
touch "$OUT/stamp"
