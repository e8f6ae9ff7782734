#!/bin/sh
# Picture thumbnails beside vipsthumbnail and ImageMagick, on the same files in one run:
# 4000 x 3000 JPEGs with an embedded 160 x 120 EXIF thumbnail and without one, 2000 x 1500 PNGs
# and 1920 x 1080 BMPs, each to 320 x 240, covering the box and cropped around the centre.
# Prints the table and puts it into bench/RESULTS.md under its own heading.
#
#   bench/picture.sh BUILD_DIR [--rounds N] [--files N]
#
# Every tool takes all files of a case in one process and writes PNG files; timings are wall
# clock of whole runs under /usr/bin/time (which also gives the peak resident memory and the
# processor time), the median of the rounds kept. The corpus is made once into
# BUILD_DIR/bench-picture-corpus and kept.
set -eu

REPO=$(cd "$(dirname "$0")/.." && pwd)
. "$REPO/bench/common.sh"
parse_bench_args 3 60 "$@"
TOOL=$BUILD/tools/qrb-thumb/qrb-thumb
RESULTS=$REPO/bench/RESULTS.md

require convert mogrify exiftool vipsthumbnail /usr/bin/time
if [ ! -x "$TOOL" ]; then
    echo "bench: $TOOL is not built" >&2
    exit 1
fi

# Four different pictures per kind, made once (bench/common.sh) and shared with bench/local.sh.
CORPUS=$BUILD/bench-picture-corpus
make_picture_corpus "$CORPUS"

SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/qrb-bench-picture-XXXXXX")
trap 'rm -rf "$SCRATCH"' EXIT INT TERM
QRB_ROOT=$SCRATCH/root
QRB_LOG_LEVEL=7
export QRB_ROOT QRB_LOG_LEVEL
mkdir -p "$QRB_ROOT"

# A folder per case, cycling through its four pictures under distinct names: FILES of them, and
# four times as many for the embedded thumbnails, which take so little time each that a run of
# FILES would mostly time the tool's start and stop (loading the libraries, starting and
# joining the workers).
for kind in exif:jpg:4 full:jpg:1 png:png:1 bmp:bmp:1; do
    name=${kind%%:*} ext=${kind#*:} times=${kind##*:}
    ext=${ext%:*}
    mkdir -p "$SCRATCH/$name"
    n=0
    while [ "$n" -lt $((FILES * times)) ]; do
        ln -s "$CORPUS/$name-$((n % 4 + 1)).$ext" "$SCRATCH/$name/p$n.$ext"
        n=$((n + 1))
    done
done

# run TOOL FOLDER OUT: every file of FOLDER to a 320 x 240 PNG in OUT, in one process.
run() {
    case $1 in
        ours)
            "$TOOL" -k picture -s 320x240 -o "$3" "$2"/* >/dev/null ;;
        vips)
            # Shrink-on-load, then the centre crop of the covering size.
            vipsthumbnail -s 320x240 --smartcrop centre -o "$3/%s.png" "$2"/* ;;
        magick)
            # jpeg:size lets libjpeg scale while decoding, as the others do.
            mogrify -path "$3" -format png -define jpeg:size=640x480 -thumbnail '320x240^' \
                -gravity center -extent 320x240 "$2"/* ;;
    esac
}

# once TOOL FOLDER: one timed run; appends wall time and processor time, keeps the peak memory.
once() {
    rm -rf "$SCRATCH/out"
    mkdir -p "$SCRATCH/out"
    if ! /usr/bin/time -f "%e %M %U %S" -o "$SCRATCH/time.txt" \
        sh -c '. "$0"; run "$@"' "$SCRATCH/run.sh" "$1" "$2" "$SCRATCH/out"; then
        echo "bench: $1 failed on $2" >&2
        exit 1
    fi
    made=$(find "$SCRATCH/out" -name '*.png' | wc -l)
    if [ "$made" -ne "$(count "$2")" ]; then
        echo "bench: $1 made $made thumbnails of $(count "$2") in $2" >&2
        exit 1
    fi
    read -r wall peak user system < "$SCRATCH/time.txt"
    echo "$wall" >> "$SCRATCH/walls-$1"
    awk -v u="$user" -v s="$system" 'BEGIN { print u + s }' >> "$SCRATCH/cpu-$1"
    old=$(cat "$SCRATCH/peak-$1" 2>/dev/null || echo 0)
    if [ "$peak" -gt "$old" ]; then echo "$peak" > "$SCRATCH/peak-$1"; fi
}
count() { find "$1" -mindepth 1 -maxdepth 1 | wc -l; }

# The timed runs execute run() in a shell of their own.
{
    echo "TOOL='$TOOL'"
    sed -n '/^run() {/,/^}/p' "$0"
} > "$SCRATCH/run.sh"

TOOLS="ours vips magick"
run_case() {  # $1 label, $2 folder
    rm -f "$SCRATCH"/walls-* "$SCRATCH"/cpu-* "$SCRATCH"/peak-*
    r=0
    while [ "$r" -lt "$ROUNDS" ]; do
        # Taking turns within each round spreads the machine's changing load over all tools.
        for tool in $TOOLS; do once "$tool" "$2"; done
        r=$((r + 1))
    done
    row="| $1"
    cpus=""
    peaks=""
    files=$(count "$2")
    ours=$(rate "$files" "$(median "$SCRATCH/walls-ours")")
    for tool in $TOOLS; do
        wall=$(median "$SCRATCH/walls-$tool")
        theirs=$(rate "$files" "$wall")
        echo "bench: $1: $tool median $wall s, $theirs per second" >&2
        if [ "$tool" = ours ]; then row="$row | $theirs"; else row="$row | $theirs ($(ratio "$ours" "$theirs"))"; fi
        cpus="$cpus${cpus:+ / }$(awk -v c="$(median "$SCRATCH/cpu-$tool")" -v n="$files" \
            'BEGIN { printf "%.1f", 1000 * c / n }')"
        peaks="$peaks${peaks:+ / }$(($(cat "$SCRATCH/peak-$tool") / 1024))"
    done
    echo "$row | $cpus ms | $peaks MiB |" >> "$SCRATCH/table.md"
}

: > "$SCRATCH/table.md"
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
echo "bench: $ROUNDS rounds of each run, $FILES files per case"
run_case "JPEG 4000 x 3000 with a 160 x 120 EXIF thumbnail ($((4 * FILES)) files)" "$SCRATCH/exif"
run_case "JPEG 4000 x 3000 without a thumbnail ($FILES files)" "$SCRATCH/full"
run_case "PNG 2000 x 1500, 24-bit ($FILES files)" "$SCRATCH/png"
run_case "BMP 1920 x 1080, 24-bit ($FILES files)" "$SCRATCH/bmp"

cpu=$(sed -n 's/^model name[[:space:]]*: *//p' /proc/cpuinfo | head -n 1)
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
vips_version=$(vipsthumbnail --vips-version | sed 's/^libvips //')
magick_version=$(convert -version | sed -n 's/^Version: ImageMagick \([^ ]*\).*/\1/p')
{
    echo "## Picture thumbnails"
    echo
    echo "Written by bench/picture.sh; run it again to refresh. Thumbnails per second at 320 x 240"
    echo "(cover and centre crop) over whole runs (more is better), median of $ROUNDS rounds; in"
    echo "brackets the ratio ours / peer. Every tool takes all files of a case"
    echo "in one process, uses both processors as it sees fit, and writes PNG files. qrb-thumb"
    echo "takes the embedded EXIF thumbnail when there is one; vipsthumbnail (\`--smartcrop"
    echo "centre\`) and ImageMagick (\`mogrify -define jpeg:size=640x480 -thumbnail 320x240^"
    echo "-extent 320x240\`) decode the picture with libjpeg's scaling. Processor time per"
    echo "thumbnail is user + system of the whole run; peak memory is the run's. Each run of"
    echo "qrb-thumb includes its start and stop, about a quarter of a second."
    echo
    echo "| case | qrb-thumb | vipsthumbnail | ImageMagick | processor time per thumbnail: ours / vips / ImageMagick | peak memory: ours / vips / ImageMagick |"
    echo "|---|---|---|---|---|---|"
    cat "$SCRATCH/table.md"
    echo
    echo "Targets: the EXIF-thumbnail case at least 10 times the fastest peer; the full JPEG at"
    echo "least vipsthumbnail's rate; PNG and BMP at least 1 / 1.2 of it."
    echo
    echo "Machine: $cpu, $(nproc) processors; Debian $(cat /etc/debian_version 2>/dev/null || echo '?');"
    echo "libvips $vips_version; ImageMagick $magick_version; build ${build_type:-default};"
    echo "load average before / after: $load_before / $(cut -d' ' -f1-3 /proc/loadavg);"
    echo "$(date -u '+%Y-%m-%d %H:%M UTC')."
} > "$SCRATCH/section.md"

put_section "## Picture thumbnails" "$SCRATCH/section.md" "$RESULTS"
cat "$SCRATCH/section.md"
