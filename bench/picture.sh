#!/bin/sh
# Picture thumbnails beside vipsthumbnail and ImageMagick, on the same files in one run:
# 4000 x 3000 JPEGs with an embedded 160 x 120 EXIF thumbnail and without one, 2000 x 1500 PNGs
# and 1920 x 1080 BMPs, each to 320 x 240, covering the box and cropped around the centre.
# Then, on one core (taskset -c 0), progressive JPEGs of 12, 24 and 48 megapixels beside
# vipsthumbnail: milliseconds per item and the peak resident memory of each batch.
# Prints the tables and puts them into bench/RESULTS.md under their own headings.
#
#   bench/picture.sh BUILD_DIR [--rounds N] [--files N] [--progressive-only]
#
# Every tool takes all files of a case in one process and writes PNG files; timings are wall
# clock of whole runs under /usr/bin/time (which also gives the peak resident memory and the
# processor time), the median of the rounds kept. The corpus is made once into
# BUILD_DIR/bench-picture-corpus and kept.
set -eu

REPO=$(cd "$(dirname "$0")/.." && pwd)
. "$REPO/bench/common.sh"
PROGRESSIVE_ONLY=0
for arg in "$@"; do
    shift
    if [ "$arg" = --progressive-only ]; then PROGRESSIVE_ONLY=1; else set -- "$@" "$arg"; fi
done
parse_bench_args 3 60 "$@"
TOOL=$BUILD/tools/qrb-thumb/qrb-thumb
RESULTS=$REPO/bench/RESULTS.md

require convert mogrify exiftool vipsthumbnail taskset /usr/bin/time
if [ ! -x "$TOOL" ]; then
    echo "bench: $TOOL is not built" >&2
    exit 1
fi

# Four different pictures per kind, made once (bench/common.sh) and shared with bench/local.sh.
CORPUS=$BUILD/bench-picture-corpus
make_picture_corpus "$CORPUS"

# make_progressive_corpus DIR: two progressive JPEGs per size, as ImageMagick writes them with
# "-interlace JPEG -quality 92" (4:4:4 at that quality), of photo-like plasma with grain:
# progressive-{12,24,48}-N.jpg, 4000 x 3000, 6000 x 4000 and 8000 x 6000, N = 1, 2.
make_progressive_corpus() {
    [ -f "$1/stamp" ] && return 0
    echo "bench: making the progressive corpus in $1 (once; a few minutes)"
    rm -rf "$1"
    mkdir -p "$1"
    for size in 12:4000x3000 24:6000x4000 48:8000x6000; do
        for i in 1 2; do
            convert -seed "$((i + 30))" -size "${size#*:}" plasma:fractal -attenuate 0.3 \
                +noise Gaussian -interlace JPEG -quality 92 "$1/progressive-${size%%:*}-$i.jpg"
        done
    done
    touch "$1/stamp"
}
PROGRESSIVE=$BUILD/bench-progressive-corpus
make_progressive_corpus "$PROGRESSIVE"

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
# And a folder per progressive size, FILES / 10 items (at least 2) over its two pictures.
PFILES=$((FILES / 10 < 2 ? 2 : FILES / 10))
for mp in 12 24 48; do
    mkdir -p "$SCRATCH/progressive-$mp"
    n=0
    while [ "$n" -lt "$PFILES" ]; do
        ln -s "$PROGRESSIVE/progressive-$mp-$((n % 2 + 1)).jpg" "$SCRATCH/progressive-$mp/p$n.jpg"
        n=$((n + 1))
    done
done

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

write_runner

# once TOOL FOLDER: one timed run on every processor.
once() { timed_batch "$1" "$1" "$2"; }
# one_core TOOL FOLDER: one timed run on the first processor.
one_core() { timed_batch "core-$1-$(basename "$2")" "$1" "$2" pinned; }

progressive_section() {
    load_before=$(cut -d' ' -f1-3 /proc/loadavg)
    echo "bench: progressive JPEGs on processor 0, $ROUNDS rounds, $PFILES files per size"
    r=0
    while [ "$r" -lt "$ROUNDS" ]; do
        for mp in 12 24 48; do
            for tool in ours vips; do one_core "$tool" "$SCRATCH/progressive-$mp"; done
        done
        r=$((r + 1))
    done
    : > "$SCRATCH/core-table.md"
    for mp in 12 24 48; do
        row=""
        for tool in ours vips; do
            key="$tool-progressive-$mp"
            ms=$(awk -v s="$(sort -n "$SCRATCH/walls-core-$key" | head -n 1)" -v n="$PFILES" \
                'BEGIN { printf "%.0f", 1000 * s / n }')
            mib=$(awk -v k="$(cat "$SCRATCH/peak-core-$key")" 'BEGIN { printf "%.0f", k / 1024 }')
            eval "ms_$tool=$ms mib_$tool=$mib"
            echo "bench: progressive $mp MP: $tool $ms ms per item, peak $mib MiB" >&2
        done
        case $mp in
            12) label="4000 x 3000" ;;
            24) label="6000 x 4000" ;;
            48) label="8000 x 6000" ;;
        esac
        echo "| $label ($mp megapixels) | $PFILES | $ms_ours | $ms_vips | $(ratio "$ms_ours" "$ms_vips") | $mib_ours / $mib_vips MiB | $(ratio "$mib_ours" "$mib_vips") |" \
            >> "$SCRATCH/core-table.md"
    done
    cpu=$(sed -n 's/^model name[[:space:]]*: *//p' /proc/cpuinfo | head -n 1)
    build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
    vips_version=$(vipsthumbnail --vips-version | sed 's/^libvips //')
    {
        echo "## Progressive JPEGs on one core"
        echo
        echo "Written by bench/picture.sh; run it again to refresh (\`--progressive-only\` runs"
        echo "only this part). Progressive JPEGs as ImageMagick writes them (\`-interlace JPEG"
        echo "-quality 92\`, 4:4:4), photo-like plasma with grain, to 320 x 240 (cover and centre"
        echo "crop). Every process is pinned to the first processor (\`taskset -c 0\`); a batch is"
        echo "every file of a size in one process, the same files for both tools. Milliseconds per"
        echo "item are the batch's wall time divided by its items, start-up included, the fastest"
        echo "of $ROUNDS rounds (less is better). Peak memory is GNU time's maximum resident set size"
        echo "over the rounds. libjpeg keeps the coefficients of the whole picture for a"
        echo "progressive file whatever the scale (275 MiB for 48 megapixels at 4:4:4); qrb-thumb"
        echo "lets its workers hold at most 384 MiB of them together, so two 48-megapixel"
        echo "pictures are decoded one after the other and two 24-megapixel ones side by side."
        echo
        echo "| case | items | qrb-thumb, ms per item | vipsthumbnail, ms per item | ours / vips | peak memory: ours / vips | memory ours / vips |"
        echo "|---|---|---|---|---|---|---|"
        cat "$SCRATCH/core-table.md"
        echo
        echo "Machine: $cpu, $(nproc) processors, one used; Debian $(cat /etc/debian_version 2>/dev/null || echo '?');"
        echo "libvips $vips_version; build ${build_type:-default};"
        echo "load average before / after: $load_before / $(cut -d' ' -f1-3 /proc/loadavg);"
        echo "$(date -u '+%Y-%m-%d %H:%M UTC')."
    } > "$SCRATCH/core-section.md"
    put_section "## Progressive JPEGs on one core" "$SCRATCH/core-section.md" "$RESULTS"
    cat "$SCRATCH/core-section.md"
}

if [ "$PROGRESSIVE_ONLY" = 1 ]; then
    progressive_section
    exit 0
fi

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

progressive_section
