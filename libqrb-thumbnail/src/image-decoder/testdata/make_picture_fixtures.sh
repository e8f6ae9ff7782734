#!/bin/sh
# Makes the JPEG and PNG pictures the picture tests read, with Debian's ImageMagick, into OUT_DIR
# (the build tree), once. The large ones are progressive JPEGs as ImageMagick writes them with
# "-interlace JPEG -quality 92", in one of the common chroma subsamplings, of four quadrants:
# red top left, green top right, blue bottom left, white bottom right, so that a thumbnail
# shows whether it was decoded and placed right.
#
#   progressive_444_4000x3000.jpg   12 megapixels, 4:4:4
#   progressive_422_6000x4000.jpg   24 megapixels, 4:2:2
#   progressive_420_6000x4000.jpg   24 megapixels, 4:2:0
#   progressive_444_8688x5792.jpg   50 megapixels, 4:4:4 (a 50-megapixel camera's size)
#   colour_rgb.jpg    48 x 32 of rgb(200, 40, 40), baseline
#   colour_grey.jpg   48 x 32 of grey 92, one component, progressive
#   colour_ycck.jpg   rgb(200, 40, 40) in CMYK, which ImageMagick stores as YCCK with Adobe's
#                     inverted samples: C, M, Y, K read back as 255, 51, 52, 200
#   stored_40x30.png  8-bit RGB with uncompressed deflate blocks (data as long as the pixels)
#   checker_4000x3000.png (and _interlaced, Adam7)  12 megapixels: a one-pixel checkerboard
#                     top left (its mean is mid grey), red top right, white bottom right,
#                     green bottom left
#   strip_10000x8.png, large_8000x6000.png  8-bit RGB of a few flat colours
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

convert -size 48x32 xc:'rgb(200,40,40)' -quality 90 "$OUT/colour_rgb.jpg"
convert -size 48x32 xc:'gray(92)' -type Grayscale -interlace JPEG -quality 90 "$OUT/colour_grey.jpg"
convert -size 48x32 xc:'rgb(200,40,40)' -colorspace CMYK -quality 90 "$OUT/colour_ycck.jpg"

# PNG files without date chunks, fast to write.
png() {
    convert "$@" -strip -define png:compression-level="${LEVEL:-1}" "PNG24:$OUT/$NAME"
}
LEVEL=0 NAME=stored_40x30.png png -size 40x30 gradient:
for interlace in None PNG; do
    NAME=checker_4000x3000.png
    [ "$interlace" = PNG ] && NAME=checker_4000x3000_interlaced.png
    NAME=$NAME png -size 4000x3000 xc:black -fill red -draw "rectangle 2000,0 3999,1499" \
        -fill white -draw "rectangle 2000,1500 3999,2999" \
        -fill lime -draw "rectangle 0,1500 1999,2999" \
        -tile pattern:gray50 -draw "rectangle 0,0 1999,1499" -interlace "$interlace"
done
NAME=strip_10000x8.png png -size 10000x8 xc:'rgb(255,255,64)' \
    -fill 'rgb(0,0,64)' -draw "rectangle 5000,4 9999,7"
NAME=large_8000x6000.png png -size 8000x6000 xc:'rgb(255,255,64)' \
    -fill 'rgb(0,0,64)' -draw "rectangle 4000,3000 7999,5999"
touch "$OUT/stamp"
