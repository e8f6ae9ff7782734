#!/bin/sh
# Makes the HEIF, AVIF, WebP, GIF and TIFF pictures the picture tests read, with the tools a
# user has (ImageMagick, heif-enc, cwebp, img2webp, exiftool, vips), into OUT_DIR (the build
# tree), once. Each picture is 640 x 480 in four quadrants, red top left, green top right, blue
# bottom left, white bottom right, unless its name says otherwise:
#
#   *_alpha.*         the same with alpha 255 top left, 128 top right, 0 bottom left, 255
#                     bottom right (GIF: transparent where alpha is under half)
#   *_orient6.*       stored as the quadrants, with orientation 6 (turn clockwise) recorded
#   quad_thumb.heic   with a 200 x 150 thumbnail
#   quad_10bit.heic   10 bits a sample
#   quad_anim.*       two frames, the quadrants first, then all blue
#   quad_offset.gif   the quadrants as a 640 x 480 frame at (80, 60) on an 800 x 600 canvas
#   quad_pyramid.tif  reduced-resolution pages (320 x 240 down to 40 x 30) after the picture
#   quad_subifd.tif   the same pages as SubIFDs of the picture
#   quad_pages.tif    the quadrants, then pages marked reduced that do not show them: black
#                     320 x 240, a red square 100 x 100 (another picture's shape), blue 160 x 120
#   large_4000x3000.heic  12 megapixels, the size of a phone photo
#   black_12000x12000.tif  grey, deflate, strips of 128 rows
#   black_8000x8000_one_strip.tif  RGB, deflate, the whole picture one strip of 192 MiB
set -eu

if [ $# -ne 1 ]; then
    echo "usage: $0 OUT_DIR" >&2
    exit 2
fi
OUT=$1
mkdir -p "$OUT"
T=$(mktemp -d)
trap 'rm -rf "$T"' EXIT INT TERM

# quadrants WIDTH HEIGHT OUTPUT (8-bit RGB; palette PNGs upset the AV1 encoder)
quadrants() {
    w=$1 h=$2
    x=$((w / 2)) y=$((h / 2))
    convert -size "${w}x$h" xc:white \
        -fill red -draw "rectangle 0,0 $((x - 1)),$((y - 1))" \
        -fill lime -draw "rectangle $x,0 $((w - 1)),$((y - 1))" \
        -fill blue -draw "rectangle 0,$y $((x - 1)),$((h - 1))" "$3"
}

quadrants 640 480 PNG24:"$T/quad.png"
quadrants 640 480 PNG48:"$T/quad16.png"
convert "$T/quad.png" -alpha set -channel A \
    -fx "j < 240 ? (i < 320 ? 1 : 128/255) : (i < 320 ? 0 : 1)" PNG32:"$T/quad_alpha.png"
convert -size 640x480 xc:blue PNG24:"$T/blue.png"

# HEIF and AVIF
heif-enc -q 90 "$T/quad.png" -o "$T/quad.heic"
heif-enc -q 90 -t 200 "$T/quad.png" -o "$T/quad_thumb.heic"
heif-enc -q 90 "$T/quad_alpha.png" -o "$T/quad_alpha.heic"
heif-enc -q 90 -b 10 "$T/quad16.png" -o "$T/quad_10bit.heic"
heif-enc -A -q 90 "$T/quad.png" -o "$T/quad.avif"
heif-enc -A -q 90 "$T/quad_alpha.png" -o "$T/quad_alpha.avif"

# WebP
cwebp -quiet -q 90 "$T/quad.png" -o "$T/quad.webp"
cwebp -quiet -lossless "$T/quad.png" -o "$T/quad_lossless.webp"
cwebp -quiet -exact -lossless "$T/quad_alpha.png" -o "$T/quad_alpha.webp"
cwebp -quiet -exact -q 90 "$T/quad_alpha.png" -o "$T/quad_lossy_alpha.webp"
cp "$T/quad.webp" "$T/quad_orient6.webp"
exiftool -q -overwrite_original -Orientation=6 -n "$T/quad_orient6.webp"
img2webp -q 90 "$T/quad.png" "$T/blue.png" -o "$T/quad_anim.webp" >/dev/null 2>&1

# GIF
convert "$T/quad.png" "$T/quad.gif"
convert "$T/quad.png" -interlace GIF "$T/quad_interlaced.gif"
convert "$T/quad_alpha.png" "$T/quad_alpha.gif"
convert -delay 10 "$T/quad.png" "$T/blue.png" "$T/quad_anim.gif"
convert "$T/quad.png" -repage 800x600+80+60 "$T/quad_offset.gif"

# TIFF
convert "$T/quad.png" -compress none "$T/quad.tif"
convert "$T/quad.png" -compress lzw "$T/quad_lzw.tif"
convert "$T/quad.png" -compress zip -define tiff:tile-geometry=128x128 "$T/quad_tiled.tif"
convert "$T/quad.png" -compress jpeg -quality 92 "$T/quad_jpeg.tif"
convert "$T/quad16.png" -compress zip "$T/quad_16bit.tif"
convert "$T/quad.png" -colorspace CMYK -compress lzw "$T/quad_cmyk.tif"
convert "$T/quad_alpha.png" -compress lzw "$T/quad_alpha.tif"
convert "$T/quad.png" -orient RightTop "$T/quad_orient6.tif"
vips tiffsave "$T/quad.png" "$T/quad_pyramid.tif" --pyramid --tile --tile-width 64 --tile-height 64
vips tiffsave "$T/quad.png" "$T/quad_subifd.tif" --pyramid --tile --subifd
convert "$T/quad.png" -size 320x240 xc:black -size 100x100 xc:red -size 160x120 xc:blue \
    -type TrueColor -compress none "$T/quad_pages.tif"
tiffset -d 0 -s 254 0 "$T/quad_pages.tif"
for d in 1 2 3; do tiffset -d "$d" -s 254 1 "$T/quad_pages.tif"; done
vips black "$T/black_12000x12000.tif[compression=deflate]" 12000 12000
vips black "$T/black_rgb.tif[compression=deflate]" 8000 8000 --bands 3
tiffcp -c zip -r 8000 "$T/black_rgb.tif" "$T/black_8000x8000_one_strip.tif"
rm "$T/black_rgb.tif"

# A phone photo's size.
quadrants 4000 3000 PNG24:"$T/large.png"
heif-enc -q 80 "$T/large.png" -o "$T/large_4000x3000.heic"

rm "$T"/*.png
mv "$T"/* "$OUT"/
touch "$OUT/stamp"
