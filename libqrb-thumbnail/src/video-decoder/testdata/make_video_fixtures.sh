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
# One key frame, then ten seconds of others: the tests blank its pictures to make a stream
# that never gives one.
$FF -f lavfi -i "$(fade 64x64 25 10)" -c:v libx264 -preset ultrafast -g 1000 \
    -pix_fmt yuv420p "$OUT/fade_h264_64x64_10s_one_key.mkv"
# Two seconds of access-unit delimiters with the pictures taken out: it opens, has a duration
# and packets, and never gives a picture.
$FF -f lavfi -i "$(fade 64x64 25 2)" -c:v libx264 -preset ultrafast -g 5 -x264-params aud=1 \
    -pix_fmt yuv420p -bsf:v "filter_units=remove_types=1|5" "$OUT/no_pictures_h264_64x64_2s.mp4"
# An elementary stream without a container: no duration.
$FF -i "$OUT/fade_h264_320x240_3s.mp4" -c copy -bsf:v h264_mp4toannexb -f h264 \
    "$OUT/fade_h264_320x240_3s.h264"
# Sound only.
$FF -f lavfi -i "sine=frequency=440:duration=2" -c:a aac -b:a 64k "$OUT/tone_aac_2s.m4a"

touch "$OUT/stamp"
