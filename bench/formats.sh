#!/bin/sh
# The picture formats read through their libraries and the song containers read through TagLib,
# on one core (taskset -c 0): 4000 x 3000 pictures in HEIF, AVIF, WebP, GIF and TIFF to
# 320 x 240 beside vipsthumbnail, FLAC and M4A songs with a 500 x 500 cover to 160 x 160 beside
# ffmpegthumbnailer -m; milliseconds per item and the peak resident memory of each batch.
# Prints the section and puts it into bench/RESULTS.md under its own heading.
#
#   bench/formats.sh BUILD_DIR [--rounds N] [--files N]
#
# FILES (20) pictures per format, over two different pictures under distinct names, and five
# times as many songs. A batch is one process for qrb-thumb and vipsthumbnail, one per song for
# ffmpegthumbnailer (it takes one input); ms per item is the batch's wall time divided by its
# items, start-up included, the fastest of ROUNDS (2). The corpus is made once into
# BUILD_DIR/bench-format-corpus (about two minutes: x265 is slow on 12 megapixels of grain).
set -eu

REPO=$(cd "$(dirname "$0")/.." && pwd)
. "$REPO/bench/common.sh"
parse_bench_args 2 20 "$@"
TOOL=$BUILD/tools/qrb-thumb/qrb-thumb
RESULTS=$REPO/bench/RESULTS.md
HEADING="## Newer picture formats and song containers on one core"

require convert heif-enc cwebp ffmpeg ffmpegthumbnailer vipsthumbnail taskset /usr/bin/time
if [ ! -x "$TOOL" ]; then
    echo "bench: $TOOL is not built" >&2
    exit 1
fi

# make_format_corpus DIR: two photo-like 4000 x 3000 pictures (fractal plasma with grain) as
# picture-N.{heic,avif,webp,gif,tif} and two 500 x 500 covers in song-N.{flac,m4a}, N = 1, 2.
make_format_corpus() {
    [ -f "$1/stamp" ] && return 0
    echo "bench: making the format corpus in $1 (once; a few minutes)"
    rm -rf "$1"
    mkdir -p "$1"
    for i in 1 2; do
        convert -seed "$((i + 40))" -size 4000x3000 plasma:fractal -attenuate 0.3 \
            +noise Gaussian PNG24:"$1/source.png"
        heif-enc -q 80 "$1/source.png" -o "$1/picture-$i.heic"
        heif-enc -A -q 80 -p speed=8 "$1/source.png" -o "$1/picture-$i.avif"
        cwebp -quiet -q 80 "$1/source.png" -o "$1/picture-$i.webp"
        convert "$1/source.png" -colors 256 "$1/picture-$i.gif"
        convert "$1/source.png" -compress lzw "$1/picture-$i.tif"
        convert -seed "$((i + 50))" -size 500x500 plasma:fractal -quality 90 "$1/cover.jpg"
        for container in flac m4a; do
            codec=flac
            [ "$container" = m4a ] && codec=aac
            ffmpeg -hide_banner -loglevel error -nostdin -y \
                -f lavfi -i "sine=frequency=$((400 + 40 * i)):duration=3" -i "$1/cover.jpg" \
                -map 0:a -map 1:v -c:a "$codec" -c:v copy -disposition:v attached_pic \
                "$1/song-$i.$container"
        done
    done
    rm -f "$1/source.png" "$1/cover.jpg"
    touch "$1/stamp"
}
CORPUS=$BUILD/bench-format-corpus
make_format_corpus "$CORPUS"

SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/qrb-bench-formats-XXXXXX")
trap 'rm -rf "$SCRATCH"' EXIT INT TERM
QRB_ROOT=$SCRATCH/root
QRB_LOG_LEVEL=7
export QRB_ROOT QRB_LOG_LEVEL
mkdir -p "$QRB_ROOT"

# A folder per case: FILES pictures, or 5 x FILES songs, cycling over the two of the corpus.
for ext in heic avif webp gif tif flac m4a; do
    mkdir -p "$SCRATCH/$ext"
    n=0
    case $ext in flac | m4a) total=$((5 * FILES)) stem=song ;; *) total=$FILES stem=picture ;; esac
    while [ "$n" -lt "$total" ]; do
        ln -s "$CORPUS/$stem-$((n % 2 + 1)).$ext" "$SCRATCH/$ext/p$n.$ext"
        n=$((n + 1))
    done
done

write_runner

# one_core TOOL FOLDER: one timed batch on the first processor.
one_core() { timed_batch "$1-$(basename "$2")" "$1" "$2" pinned; }

CASES="heic:HEIF avif:AVIF webp:WebP gif:GIF tif:TIFF flac:FLAC m4a:M4A"
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
echo "bench: $ROUNDS rounds on processor 0, $FILES pictures per format, $((5 * FILES)) songs per container"
r=0
while [ "$r" -lt "$ROUNDS" ]; do
    for c in $CASES; do
        ext=${c%%:*}
        case $ext in
            flac | m4a) one_core ours-music "$SCRATCH/$ext"; one_core ffmpegthumbnailer "$SCRATCH/$ext" ;;
            *) one_core ours-picture "$SCRATCH/$ext"; one_core vipsthumbnail "$SCRATCH/$ext" ;;
        esac
    done
    r=$((r + 1))
done

: > "$SCRATCH/table.md"
for c in $CASES; do
    ext=${c%%:*} label=${c#*:}
    case $ext in
        flac | m4a) ours=ours-music peer=ffmpegthumbnailer what="song, 500 x 500 cover, to 160 x 160" ;;
        *) ours=ours-picture peer=vipsthumbnail what="4000 x 3000, to 320 x 240" ;;
    esac
    items=$(count "$SCRATCH/$ext")
    for tool in "$ours" "$peer"; do
        key="$tool-$ext"
        ms=$(awk -v s="$(sort -n "$SCRATCH/walls-$key" | head -n 1)" -v n="$items" \
            'BEGIN { printf "%.1f", 1000 * s / n }')
        mib=$(awk -v k="$(cat "$SCRATCH/peak-$key")" 'BEGIN { printf "%.0f", k / 1024 }')
        if [ "$tool" = "$peer" ]; then ms_peer=$ms mib_peer=$mib; else ms_ours=$ms mib_ours=$mib; fi
    done
    echo "bench: $label: ours $ms_ours ms, $peer $ms_peer ms per item" >&2
    echo "| $label $what | $items | $ms_ours | $peer $ms_peer | $(ratio "$ms_ours" "$ms_peer") | $mib_ours / $mib_peer MiB |" \
        >> "$SCRATCH/table.md"
done

cpu=$(sed -n 's/^model name[[:space:]]*: *//p' /proc/cpuinfo | head -n 1)
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
{
    echo "$HEADING"
    echo
    echo "Written by bench/formats.sh; run it again to refresh. Photo-like 4000 x 3000 pictures"
    echo "(fractal plasma with grain) made by heif-enc, cwebp and ImageMagick, covered and"
    echo "cropped at the centre to 320 x 240, beside vipsthumbnail; songs of three seconds with a"
    echo "500 x 500 JPEG cover made by ffmpeg, to 160 x 160, beside \`ffmpegthumbnailer -m\`."
    echo "Every process pinned to the first processor (\`taskset -c 0\`); a batch is every file of"
    echo "a case in one process (ffmpegthumbnailer: one process per song, as it takes one input);"
    echo "milliseconds per item are the batch's wall time divided by its items, start-up"
    echo "included, the fastest of $ROUNDS rounds. Peak memory is GNU time's maximum resident set"
    echo "size of a batch. libheif decodes a picture whole (no smaller decode exists without an"
    echo "embedded thumbnail), which is most of both tools' memory for HEIF and AVIF."
    echo
    echo "| case | items | qrb-thumb, ms per item | peer, ms per item | ours / peer | peak memory, ours / peer |"
    echo "|---|---|---|---|---|---|"
    cat "$SCRATCH/table.md"
    echo
    echo "Machine: $cpu, $(nproc) processors, one used; Debian $(cat /etc/debian_version 2>/dev/null || echo '?');"
    echo "libvips $(vipsthumbnail --vips-version | sed 's/^libvips //'), libheif $(heif-enc --help 2>&1 | sed -n 's/.*libheif version: //p' | head -n 1);"
    echo "build ${build_type:-default}; load average before / after: $load_before / $(cut -d' ' -f1-3 /proc/loadavg);"
    echo "$(date -u '+%Y-%m-%d %H:%M UTC')."
} > "$SCRATCH/section.md"
put_section "$HEADING" "$SCRATCH/section.md" "$RESULTS"
cat "$SCRATCH/section.md"
