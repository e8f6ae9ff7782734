#!/bin/sh
# Cover thumbnails per second for MP3 files with a 500 x 500 cover: qrb-thumb on all of them in
# one process, beside ffmpeg copying the same attached pictures out of the same files
# (`-an -c:v copy`, one process per file, as a script would run it), in one run. Writes the
# figures under their own heading in bench/RESULTS.md, keeping the other sections.
#   bench/music.sh BUILD_DIR [FILES]
set -eu

if [ $# -lt 1 ]; then
    echo "usage: $0 BUILD_DIR [FILES]" >&2
    exit 2
fi
REPO=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "$1" && pwd)
FILES=${2:-300}
TOOL=$BUILD/tools/qrb-thumb/qrb-thumb
RESULTS=$REPO/bench/RESULTS.md
. "$REPO/bench/common.sh"
HEADING="## Music cover thumbnails"

require convert ffmpeg /usr/bin/time
if [ ! -x "$TOOL" ]; then
    echo "bench: $TOOL is not built" >&2
    exit 1
fi

SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/qrb-bench-music-XXXXXX")
trap 'rm -rf "$SCRATCH"' EXIT INT TERM
QRB_ROOT=$SCRATCH/root
QRB_LOG_LEVEL=7
export QRB_ROOT QRB_LOG_LEVEL
mkdir -p "$QRB_ROOT" "$SCRATCH/songs"

# Eight different covers in eight songs with ID3v2.3 tags, made once (bench/common.sh) and
# shared with bench/local.sh; the corpus cycles through them under distinct names.
load=$(cut -d' ' -f1-3 /proc/loadavg)
CORPUS=$BUILD/bench-music-corpus
make_music_corpus "$CORPUS"
echo "bench: copying $FILES songs with 500 x 500 covers"
n=0
while [ "$n" -lt "$FILES" ]; do
    cp "$CORPUS/song-$((n % 8 + 1)).mp3" "$SCRATCH/songs/song-$n.mp3"
    n=$((n + 1))
done
cover_kib=$(($(cat "$CORPUS"/cover-*.jpg | wc -c) / 8 / 1024))

# Ours: one process, every song requested at once, 160 x 160 thumbnails written as PNG.
echo "bench: qrb-thumb on $FILES songs"
measure ours "$FILES" - sh -c '"$0" -k music -s 160x160 -o "$1/out" "$1"/songs/*.mp3 \
    > "$1/out.log"' "$TOOL" "$SCRATCH"

# ffmpeg: the attached picture copied out of each song, one process per song.
echo "bench: ffmpeg -an -c:v copy on the same $FILES songs"
measure ffmpeg "$FILES" - sh -c '
    for song in "$1"/songs/*.mp3; do
        ffmpeg -hide_banner -loglevel error -nostdin -y -i "$song" -an -c:v copy \
            "$1/out/$(basename "$song" .mp3).jpg" || exit 1
    done' sh "$SCRATCH"

ours_s=$(fastest ours) ours_kib=$(cat "$SCRATCH/peak-ours")
ffmpeg_s=$(fastest ffmpeg) ffmpeg_kib=$(cat "$SCRATCH/peak-ffmpeg")
rates=$(awk -v n="$FILES" -v a="$ours_s" -v b="$ffmpeg_s" 'BEGIN {
    if (a <= 0) a = 0.01
    if (b <= 0) b = 0.01
    printf "%.0f %.0f %.1f", n / a, n / b, (n / a) / (n / b)
}')
set -- $rates
ours_rate=$1 ffmpeg_rate=$2 ratio=$3

cpu=$(sed -n 's/^model name[[:space:]]*: *//p' /proc/cpuinfo | head -n 1)
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
build_type=${build_type:-RelWithDebInfo}  # the project's default when none was given
sanitize=$(sed -n 's/^QRB_SANITIZE:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
ffmpeg_version=$(ffmpeg -version | head -n 1 | cut -d' ' -f3)

{
    echo "$HEADING"
    echo
    echo "Written by bench/music.sh; run it again to refresh this section. $FILES MP3 files with an"
    echo "ID3v2.3 APIC cover of 500 x 500 pixels (eight different covers, $cover_kib KiB on average),"
    echo "all in one run: qrb-thumb makes a 160 x 160 thumbnail of every cover in one process and"
    echo "writes it as PNG; ffmpeg copies the same attached pictures out (\`-an -c:v copy\`, one"
    echo "process per file, no decoding). Target: at least 5 times ffmpeg's throughput."
    echo
    echo "| measurement | qrb-thumb | ffmpeg $ffmpeg_version |"
    echo "|---|---|---|"
    echo "| covers per second | $ours_rate | $ffmpeg_rate |"
    echo "| wall time for $FILES files | ${ours_s} s | ${ffmpeg_s} s |"
    echo "| peak resident memory | $((ours_kib / 1024)) MiB ($ours_kib KiB) | $((ffmpeg_kib / 1024)) MiB ($ffmpeg_kib KiB, largest process) |"
    echo "| throughput ratio (qrb-thumb / ffmpeg) | ${ratio}x | |"
    echo
    echo "- date: $(date -u '+%Y-%m-%d %H:%M UTC'); CPU: $cpu; $(nproc) processors available;"
    echo "  load average when the run began: $load (other work on the machine slows both tools)"
    echo "- build: ${build_type}${sanitize:+, sanitizer $sanitize}"
} > "$SCRATCH/section.md"

put_section "$HEADING" "$SCRATCH/section.md" "$RESULTS"
cat "$SCRATCH/section.md"
