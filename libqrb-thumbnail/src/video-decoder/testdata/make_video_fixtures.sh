#!/bin/sh
# Makes the small videos the video tests read, with Debian's ffmpeg, into OUT_DIR (the build
# tree). Each is a few seconds of a white picture faded in from black, so that a frame's
# brightness tells the moment it was taken from (255 x t / duration); codecs, containers, sizes
# and key-frame spacing vary as the names say. The tests derive their broken files from these.
set -eu

if [ $# -ne 1 ]; then
    echo "usage: $0 OUT_DIR" >&2
    exit 2
fi
OUT=$1
mkdir -p "$OUT"
FF="ffmpeg -hide_banner -loglevel error -nostdin -y"
X265="-x265-params log-level=error"

# fade SIZE RATE SECONDS: the faded-in picture as a lavfi source.
fade() {
    echo "color=c=white:s=$1:r=$2:d=$3,fade=t=in:st=0:d=$3"
}

# Key frames every 0.2 s: every position lands close to one.
$FF -f lavfi -i "$(fade 320x240 25 3)" -c:v libx264 -preset ultrafast -g 5 -pix_fmt yuv420p \
    "$OUT/fade_h264_320x240_3s.mp4"
$FF -f lavfi -i "$(fade 320x240 25 3)" -c:v libx265 -preset ultrafast \
    $X265:keyint=5:min-keyint=5 -pix_fmt yuv420p "$OUT/fade_hevc_320x240_3s.mkv"
$FF -f lavfi -i "$(fade 320x240 25 3)" -c:v mpeg2video -g 5 -q:v 4 "$OUT/fade_mpeg2_320x240_3s.ts"
$FF -f lavfi -i "$(fade 320x240 25 3)" -c:v mpeg4 -g 5 -q:v 4 "$OUT/fade_mpeg4_320x240_3s.avi"
# B-frames (the decoder holds pictures back), in a transport stream as a recorder writes it.
$FF -f lavfi -i "$(fade 640x360 25 3)" -c:v libx264 -preset veryfast -bf 2 -g 10 \
    -pix_fmt yuv420p "$OUT/fade_h264_640x360_3s_bframes.ts"
# Interlaced H.264 and MPEG-2, as broadcast: the recorder's key frames are cut from these.
$FF -f lavfi -i "$(fade 720x576 25 2)" -c:v libx264 -preset veryfast -bf 2 -g 12 \
    -x264-params interlaced=1:tff=1 -pix_fmt yuv420p "$OUT/fade_h264_720x576i_2s.ts"
$FF -f lavfi -i "$(fade 720x576 25 2)" -c:v mpeg2video -g 12 -bf 2 -q:v 4 \
    -flags +ilme+ildct -top 1 "$OUT/fade_mpeg2_720x576i_2s.ts"
# 1080p with a red bar over the left tenth: a crop to another shape must cut it away.
$FF -f lavfi -i "$(fade 1920x1080 10 2),drawbox=x=0:y=0:w=192:h=1080:color=red:t=fill" \
    -c:v libx264 -preset ultrafast -g 5 -pix_fmt yuv420p "$OUT/bar_h264_1920x1080_2s.mp4"
# 4K (3840 x 2160) and nearly 4K (3840 x 2000), short, at 5 pictures a second, a key frame
# every 0.6 s and otherwise alike.
$FF -f lavfi -i "$(fade 3840x2160 5 2)" -c:v libx264 -preset ultrafast -g 3 -pix_fmt yuv420p \
    "$OUT/fade_h264_3840x2160_2s.mkv"
$FF -f lavfi -i "$(fade 3840x2000 5 2)" -c:v libx264 -preset ultrafast -g 3 -pix_fmt yuv420p \
    "$OUT/fade_h264_3840x2000_2s.mkv"
# 4K HEVC with open GOPs: each key picture lists references for the pictures leading it.
$FF -f lavfi -i "$(fade 3840x2160 5 2)" -c:v libx265 -preset ultrafast \
    $X265:keyint=3:min-keyint=3:open-gop=1:bframes=2:scenecut=0 -pix_fmt yuv420p \
    "$OUT/fade_hevc_3840x2160_2s_open_gop.mkv"
# One key frame, then ten seconds of others, with the pictures taken out (access-unit delimiters
# left under the key flags): every position decodes until its attempts run out.
$FF -f lavfi -i "$(fade 64x64 25 10)" -c:v libx264 -preset ultrafast -g 1000 -x264-params aud=1 \
    -pix_fmt yuv420p -bsf:v "filter_units=remove_types=1|5" "$OUT/no_pictures_h264_64x64_10s_one_key.nut"
# Two seconds of access-unit delimiters with the pictures taken out: it opens, has a duration
# and packets, and never gives a picture.
$FF -f lavfi -i "$(fade 64x64 25 2)" -c:v libx264 -preset ultrafast -g 5 -x264-params aud=1 \
    -pix_fmt yuv420p -bsf:v "filter_units=remove_types=1|5" "$OUT/no_pictures_h264_64x64_2s.mp4"
# An elementary stream without a container: no duration.
$FF -i "$OUT/fade_h264_320x240_3s.mp4" -c copy -bsf:v h264_mp4toannexb -f h264 \
    "$OUT/fade_h264_320x240_3s.h264"
# Single key frame in a short transport stream; an open GOP (HEVC, CRA key frames whose
# leading pictures refer back past them) in a transport stream; and a Matroska file written to a
# pipe, so that it states no duration. Each position must still give its picture.
$FF -f lavfi -i "$(fade 320x240 25 3)" -c:v libx264 -preset ultrafast -g 1000 -pix_fmt yuv420p \
    "$OUT/fade_h264_320x240_3s_one_key.ts"
$FF -f lavfi -i "$(fade 320x240 25 6)" -c:v libx265 -preset ultrafast \
    $X265:keyint=50:min-keyint=50:open-gop=1:bframes=4:scenecut=0 -pix_fmt yuv420p \
    "$OUT/fade_hevc_320x240_6s_open_gop.ts"
$FF -f lavfi -i "$(fade 320x240 25 3)" -c:v libx264 -preset ultrafast -g 10 -pix_fmt yuv420p \
    -f matroska - > "$OUT/fade_h264_320x240_3s_no_duration.mkv"

# Colour: three patches (RGB 200,40,80 / 30,190,61 / 60,80,220) coded with one matrix and range
# and tagged so, at a size whose usual matrix is the other one; and untagged at an SD and an HD
# size (whose usual matrices they are coded with).
patches() {  # SIZE of one patch
    echo "color=c=0xC82850:s=$1:r=5:d=1[a];color=c=0x1EBE3D:s=$1:r=5:d=1[b];color=c=0x3C50DC:s=$1:r=5:d=1[c];[a][b][c]hstack=3,format=gbrp"
}
colour() {  # NAME PATCH_SIZE SCALE_MATRIX RANGE [tags...]
    name=$1 size=$2 matrix=$3 range=$4
    shift 4
    $FF -f lavfi -i "$(patches "$size")" -vf "scale=out_color_matrix=$matrix:out_range=$range,format=yuv420p" \
        -c:v libx264 -preset ultrafast "$@" "$OUT/$name"
}
colour patches_bt601_tv_1280x720.mp4 428x720 bt601 tv -colorspace smpte170m -color_primaries smpte170m -color_trc smpte170m -color_range tv
colour patches_bt601_pc_1280x720.mp4 428x720 bt601 pc -colorspace smpte170m -color_primaries smpte170m -color_trc smpte170m -color_range pc
colour patches_bt709_tv_640x360.mp4 214x360 bt709 tv -colorspace bt709 -color_primaries bt709 -color_trc bt709 -color_range tv
colour patches_bt709_pc_640x360.mp4 214x360 bt709 pc -colorspace bt709 -color_primaries bt709 -color_trc bt709 -color_range pc
colour patches_bt2020_tv_640x360.mkv 214x360 bt2020 tv -colorspace bt2020nc -color_primaries bt2020 -color_trc bt2020-10 -color_range tv
colour patches_bt2020_pc_640x360.mkv 214x360 bt2020 pc -colorspace bt2020nc -color_primaries bt2020 -color_trc bt2020-10 -color_range pc
colour patches_untagged_640x360.mp4 214x360 bt601 tv
colour patches_untagged_1280x720.mp4 428x720 bt709 tv

# HDR: SMPTE bars made into PQ and HLG pictures with their white at HDR reference white
# (203 cd/m2), 10-bit HEVC; one PQ file also states its mastering display and light levels.
hdr() {  # NAME TRANSFER [x265 params]
    $FF -f lavfi -i "smptebars=s=320x180:r=5:d=1" \
        -vf "format=gbrp,zscale=tin=bt709:min=gbr:pin=bt709:rin=full:t=$2:m=bt2020nc:p=bt2020:r=tv:npl=203,format=yuv420p10le" \
        -c:v libx265 -preset ultrafast -pix_fmt yuv420p10le \
        $X265:colorprim=bt2020:transfer=$2:colormatrix=bt2020nc${3:-} "$OUT/$1"
}
hdr bars_pq_320x180.mkv smpte2084
hdr bars_hlg_320x180.mkv arib-std-b67
hdr bars_pq_mastered_320x180.mkv smpte2084 ":master-display=G(13250,34500)B(7500,3000)R(34000,16000)WP(15635,16450)L(10000000,1):max-cll=1000,400"

# Geometry. Four quadrants (red, green / blue, white): the tests give copies display matrices.
$FF -f lavfi -i "color=red:s=160x120:r=5:d=1[a];color=lime:s=160x120:r=5:d=1[b];color=blue:s=160x120:r=5:d=1[c];color=white:s=160x120:r=5:d=1[d];[a][b]hstack[t];[c][d]hstack[u];[t][u]vstack" \
    -c:v libx264 -preset ultrafast -pix_fmt yuv420p "$OUT/quadrants_h264_320x240.mp4"
# Anamorphic PAL: 720 x 576 stored, shown 16:9 (64:45) and 4:3 (16:15), a white square in the
# middle as shown (stored narrower).
$FF -f lavfi -i "color=black:s=720x576:r=5:d=1,drawbox=x=325:y=238:w=70:h=100:color=white:t=fill,setsar=64/45" \
    -c:v libx264 -preset ultrafast -pix_fmt yuv420p "$OUT/square_h264_720x576_sar64x45.mp4"
$FF -f lavfi -i "color=black:s=720x576:r=5:d=1,drawbox=x=313:y=238:w=94:h=100:color=white:t=fill,setsar=16/15" \
    -c:v mpeg2video -q:v 2 "$OUT/square_mpeg2_720x576_sar16x15.ts"
# Interlaced broadcast: a white bar crossing the picture fast, the two fields of each picture
# taken 1/50 s apart, coded field-wise in H.264 and MPEG-2.
BAR="color=black:s=720x576:r=50:d=1,format=gray,geq=lum='if(between(X\,mod(T*800\,640)\,mod(T*800\,640)+40)\,235\,16)',format=yuv420p,tinterlace=interleave_top,setfield=tff"
$FF -f lavfi -i "$BAR" -c:v libx264 -preset ultrafast -x264-params interlaced=1:tff=1 \
    -pix_fmt yuv420p "$OUT/moving_bar_h264_720x576i.ts"
$FF -f lavfi -i "$BAR" -c:v mpeg2video -q:v 2 -flags +ilme+ildct -top 1 \
    "$OUT/moving_bar_mpeg2_720x576i.ts"

# Sound only.
$FF -f lavfi -i "sine=frequency=440:duration=2" -c:a aac -b:a 64k "$OUT/tone_aac_2s.m4a"

touch "$OUT/stamp"
