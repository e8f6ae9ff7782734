#!/bin/sh
# Local kinds on one core: every tool pinned to the first processor (taskset -c 0), so the
# figures are work per item rather than how well a tool spreads over the machine. For each
# local kind, milliseconds per item of qrb-thumb beside the fastest peer on the same files in
# the same run; the fixed cost of one run on a tiny JPEG; the peak resident memory of every
# batch. Prints the section and puts it into bench/RESULTS.md under its own heading.
#
#   bench/local.sh BUILD_DIR [--rounds N] [--files N]
#
# FILES (200) pictures and songs per case, and twice as many pictures with an embedded
# thumbnail for the memory batch; videos: FILES / 5 files for one frame at 1080p, FILES / 20
# for five frames and for one frame at 2160p. A time per item is the wall time of a whole batch
# (one process for qrb-thumb and vipsthumbnail, one per item for ffmpeg, one per frame for
# ffmpegthumbnailer) divided by its items, nothing subtracted; the fastest of the ROUNDS (2)
# rounds is kept, the least disturbed by the machine's other work. About five minutes, and five
# more the first time, to make the video corpus.
# The corpora are made once into BUILD_DIR/bench-{picture,music,video}-corpus (shared with the
# other benchmarks) and kept.
set -eu

FF="ffmpeg -hide_banner -loglevel error -nostdin -y"

# --- One batch (the script calls itself under taskset and /usr/bin/time) ----------------------
# --run TOOL CASE FOLDER OUT: every input of FOLDER through TOOL, the images into OUT. CASE
# gives the kind, size and frames; the positions of the frames are (i + 1) / (N + 1) of the
# duration, as the library takes them.
case_kind() {  # $1 case: prints kind, thumbnail width, height and frames
    case $1 in
        exif | exif400 | full | png | bmp) echo "picture 320 240 1" ;;
        mp3) echo "music 160 160 1" ;;
        hd1 | uhd1) echo "video 320 180 1" ;;
        hd5) echo "video 320 180 5" ;;
    esac
}

if [ "${1:-}" = "--run" ]; then
    tool=$2 folder=$4 out=$5
    set -- $(case_kind "$3")
    kind=$1 width=$2 height=$3 frames=$4
    fit="scale=$width:$height:force_original_aspect_ratio=increase,crop=$width:$height"
    case $tool in
        ours)
            # Its closing summary goes to a log, shown when a batch fails.
            exec env LD_LIBRARY_PATH="$TOOL_LIBS" "$TOOL" -k "$kind" -s "${width}x$height" \
                -n "$frames" -o "$out" "$folder"/* >/dev/null 2>"$out.log" ;;
        vipsthumbnail)
            # Shrink-on-load, then the centre crop of the covering size.
            exec vipsthumbnail -s "${width}x$height" --smartcrop centre -o "$out/%s.png" \
                "$folder"/* ;;
        ffmpeg-cover)
            # The attached picture decoded, scaled and cropped, as ours does.
            for f in "$folder"/*; do
                $FF -i "$f" -an -frames:v 1 -vf "$fit" "$out/$(basename "$f").png"
            done ;;
        ffmpeg | ffmpegthumbnailer)
            duration=$(cat "$folder.duration")
            for f in "$folder"/*; do
                i=0
                while [ "$i" -lt "$frames" ]; do
                    if [ "$tool" = ffmpegthumbnailer ]; then
                        # -s is the longer side: 320 x 180 from 16:9, nothing to crop.
                        ffmpegthumbnailer -i "$f" -o "$out/$(basename "$f")-$i.png" -s "$width" \
                            -t "$(((100 * (i + 1)) / (frames + 1)))%" >/dev/null 2>&1
                    else
                        at=$(awk -v d="$duration" -v i="$i" -v n="$frames" \
                            'BEGIN { printf "%.3f", d * (i + 1) / (n + 1) }')
                        $FF -noaccurate_seek -ss "$at" -i "$f" -frames:v 1 -vf "$fit" \
                            "$out/$(basename "$f")-$i.png"
                    fi
                    i=$((i + 1))
                done
            done ;;
        *) echo "bench: unknown tool $tool" >&2; exit 2 ;;
    esac
    exit 0
fi

# --- Set-up ---------------------------------------------------------------------------------
SELF=$(cd "$(dirname "$0")" && pwd)/$(basename "$0")
REPO=$(cd "$(dirname "$0")/.." && pwd)
. "$REPO/bench/common.sh"
parse_bench_args 2 200 "$@"
TOOL=$BUILD/tools/qrb-thumb/qrb-thumb
RESULTS=$REPO/bench/RESULTS.md
HEADING="## Local kinds on one core"

require taskset convert exiftool ffmpeg ffprobe ffmpegthumbnailer vipsthumbnail /usr/bin/time
if [ ! -x "$TOOL" ] || [ ! -f "$BUILD/root/usr/lib/gstreamer-1.0/libgstffmpeg.so" ]; then
    echo "bench: build qrb-thumb and the media plug-ins in $BUILD first" >&2
    exit 1
fi
started=$(date +%s)

make_picture_corpus "$BUILD/bench-picture-corpus"
make_music_corpus "$BUILD/bench-music-corpus"
make_video_corpus "$BUILD/bench-video-corpus"

SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/qrb-bench-local-XXXXXX")
trap 'rm -rf "$SCRATCH"' EXIT INT TERM
QRB_ROOT=$SCRATCH/root
QRB_LOG_LEVEL=7
install_plugins "$BUILD" "$QRB_ROOT"

# qrb-thumb and the project's libraries as they are now, so that every batch runs the same
# build while others may be rebuilding it; a first run on a tiny JPEG shows the copy works.
TOOL_LIBS=$SCRATCH/bin
mkdir -p "$TOOL_LIBS"
cp "$TOOL" "$TOOL_LIBS/"
ldd "$TOOL" | awk -v build="$BUILD/" 'index($3, build) == 1 { print $3 }' |
    while read -r library; do cp "$library" "$TOOL_LIBS/"; done
TOOL=$TOOL_LIBS/qrb-thumb
export QRB_ROOT QRB_LOG_LEVEL TOOL TOOL_LIBS FF
convert -seed 1 -size 64x48 plasma:fractal -quality 90 "$SCRATCH/tiny.jpg"
mkdir -p "$SCRATCH/tiny-ours" "$SCRATCH/tiny-vips"
if ! LD_LIBRARY_PATH=$TOOL_LIBS "$TOOL" -k picture -s 320x240 -o "$SCRATCH/tiny-ours" \
    "$SCRATCH/tiny.jpg" >/dev/null; then
    echo "bench: the copy of qrb-thumb in $TOOL_LIBS does not work; is the build complete?" >&2
    exit 1
fi

# link FOLDER COUNT FILE...: COUNT links in FOLDER cycling through the FILEs, under distinct
# names, so that every tool sees the same list of distinct files (all in the page cache after
# the first round).
link() {
    folder=$SCRATCH/in/$1 count=$2
    shift 2
    mkdir -p "$folder"
    n=0
    while [ "$n" -lt "$count" ]; do
        eval "file=\${$((n % $# + 1))}"
        ln -s "$file" "$folder/i$n.${file##*.}"
        n=$((n + 1))
    done
}
P=$BUILD/bench-picture-corpus
M=$BUILD/bench-music-corpus
V=$BUILD/bench-video-corpus
link exif "$FILES" "$P"/exif-[1-4].jpg
link exif400 $((2 * FILES)) "$P"/exif-[1-4].jpg
link full "$FILES" "$P"/full-[1-4].jpg
link png "$FILES" "$P"/png-[1-4].png
link bmp "$FILES" "$P"/bmp-[1-4].bmp
link mp3 "$FILES" "$M"/song-[1-8].mp3
link hd1 $((FILES / 5)) "$V"/h264-1080p-60s-[12].mp4
link hd5 $((FILES / 20)) "$V"/h264-1080p-60s-[12].mp4
link uhd1 $((FILES / 20)) "$V"/h264-2160p-20s.mp4
# The ffmpeg command line is given the moment to seek to, as a script would work it out once.
for c in hd1 hd5 uhd1; do
    first=$(find "$SCRATCH/in/$c" -name '*.mp4' | head -n 1)
    ffprobe -v error -show_entries format=duration -of csv=p=0 "$first" > "$SCRATCH/in/$c.duration"
done

# --- Measuring ------------------------------------------------------------------------------
# once TOOL CASE: one batch on the first processor (walls-TOOL-CASE, peak-TOOL-CASE); every
# batch must make every image.
once() {
    measure "$1-$2" "$(($(items "$2") * $(case_kind "$2" | cut -d' ' -f4)))" pinned \
        sh "$SELF" --run "$1" "$2" "$SCRATCH/in/$2" "$SCRATCH/out"
}
items() { find "$SCRATCH/in/$1" -mindepth 1 -maxdepth 1 | wc -l; }
per_item() {  # $1 tool, $2 case: milliseconds per item of the fastest batch
    awk -v s="$(fastest "$1-$2")" -v n="$(items "$2")" \
        'BEGIN { printf (1000 * s / n < 10) ? "%.1f" : "%.0f", 1000 * s / n }'
}
mib() { awk -v k="$(cat "$SCRATCH/peak-$1-$2")" 'BEGIN { printf "%.0f", k / 1024 }'; }

# Cases: name, peers, label. The tools take turns within each round, so that a machine whose
# load changes during the run weighs on all of them alike.
CASES="exif:vipsthumbnail full:vipsthumbnail png:vipsthumbnail bmp:vipsthumbnail
mp3:ffmpeg-cover hd1:ffmpegthumbnailer,ffmpeg hd5:ffmpegthumbnailer,ffmpeg
uhd1:ffmpegthumbnailer,ffmpeg exif400:"
label() {
    case $1 in
        exif) echo "JPEG 4000 x 3000 with a 160 x 120 EXIF thumbnail, to 320 x 240" ;;
        exif400) echo "the same, $(items exif400) files, qrb-thumb alone" ;;
        full) echo "JPEG 4000 x 3000 without a thumbnail, to 320 x 240" ;;
        png) echo "PNG 2000 x 1500, 24-bit, to 320 x 240" ;;
        bmp) echo "BMP 1920 x 1080, 24-bit, to 320 x 240" ;;
        mp3) echo "MP3 with a 500 x 500 ID3 cover, to 160 x 160" ;;
        hd1) echo "video 1080p H.264, 1 frame, to 320 x 180" ;;
        hd5) echo "video 1080p H.264, 5 frames (per video), to 320 x 180" ;;
        uhd1) echo "video 2160p H.264, 1 frame, to 320 x 180" ;;
    esac
}

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
echo "bench: $ROUNDS rounds of every batch, $FILES pictures and songs per case, on processor 0"
r=0
while [ "$r" -lt "$ROUNDS" ]; do
    for c in $CASES; do
        name=${c%%:*} peers=$(echo "${c#*:}" | tr ',' ' ')
        for tool in ours $peers; do once "$tool" "$name"; done
    done
    r=$((r + 1))
    echo "bench: round $r of $ROUNDS done after $(($(date +%s) - started)) s"
done

: > "$SCRATCH/table.md"
: > "$SCRATCH/others.md"
for c in $CASES; do
    name=${c%%:*} peers=$(echo "${c#*:}" | tr ',' ' ')
    ours=$(per_item ours "$name")
    echo "bench: $name: ours $ours ms per item, peak $(mib ours "$name") MiB" >&2
    if [ -z "$peers" ]; then
        echo "| $(label "$name") | $(items "$name") | $ours | | | | $(mib ours "$name") MiB |" \
            >> "$SCRATCH/table.md"
        continue
    fi
    best="" best_ms=""
    for tool in $peers; do
        ms=$(per_item "$tool" "$name")
        echo "bench: $name: $tool $ms ms per item, peak $(mib "$tool" "$name") MiB" >&2
        if [ -z "$best" ] || awk -v a="$ms" -v b="$best_ms" 'BEGIN { exit !(a < b) }'; then
            if [ -n "$best" ]; then
                echo "- $(label "$name"): $best $best_ms ms per item, $(mib "$best" "$name") MiB." >> "$SCRATCH/others.md"
            fi
            best=$tool best_ms=$ms
        else
            echo "- $(label "$name"): $tool $ms ms per item, $(mib "$tool" "$name") MiB." >> "$SCRATCH/others.md"
        fi
    done
    case $best in
        vipsthumbnail) peer="vipsthumbnail, one process" ;;
        ffmpeg-cover) peer="ffmpeg, decode + scale, one process per song" ;;
        ffmpeg) peer="ffmpeg -noaccurate_seek -ss, one process per frame" ;;
        ffmpegthumbnailer) peer="ffmpegthumbnailer, one process per frame" ;;
    esac
    echo "| $(label "$name") | $(items "$name") | $ours | $peer | $best_ms | $(ratio "$ours" "$best_ms") | $(mib ours "$name") / $(mib "$best" "$name") MiB |" \
        >> "$SCRATCH/table.md"
done

# --- The fixed cost of one run --------------------------------------------------------------
# One 64 x 48 JPEG, one process per run, on the first processor: start, one thumbnail, stop.
# Both tools see the same environment, with the copied libraries first in the search.
LD_LIBRARY_PATH=$TOOL_LIBS
export LD_LIBRARY_PATH
RUNS=40
ours_cmd="'$TOOL' -k picture -s 320x240 -o '$SCRATCH/tiny-ours' '$SCRATCH/tiny.jpg'"
vips_cmd="vipsthumbnail -s 320x240 --smartcrop centre -o '$SCRATCH/tiny-vips/%s.png' '$SCRATCH/tiny.jpg'"
if command -v hyperfine >/dev/null 2>&1; then
    how="hyperfine, 3 warm-up runs and $RUNS timed runs each"
    taskset -c 0 hyperfine -N --style none --warmup 3 --runs "$RUNS" \
        --export-csv "$SCRATCH/fixed.csv" -n ours "$ours_cmd" -n vips "$vips_cmd" >&2
    # command,mean,stddev,median,...: the median, in seconds.
    fixed_ours=$(awk -F, '$1 == "ours" { printf "%.1f", 1000 * $4 }' "$SCRATCH/fixed.csv")
    fixed_vips=$(awk -F, '$1 == "vips" { printf "%.1f", 1000 * $4 }' "$SCRATCH/fixed.csv")
else
    how="a loop of $RUNS runs each after 3 warm-up runs (hyperfine is missing)"
    fixed() {  # $1 command: the median wall time of RUNS runs, milliseconds
        : > "$SCRATCH/fixed.txt"
        n=0
        while [ "$n" -lt $((RUNS + 3)) ]; do
            t0=$(date +%s%N)
            if ! eval "taskset -c 0 $1" >/dev/null 2>&1; then
                echo "bench: $1 failed" >&2
                exit 1
            fi
            t1=$(date +%s%N)
            [ "$n" -ge 3 ] && echo $(((t1 - t0) / 1000)) >> "$SCRATCH/fixed.txt"
            n=$((n + 1))
        done
        awk -v us="$(median "$SCRATCH/fixed.txt")" 'BEGIN { printf "%.1f", us / 1000 }'
    }
    fixed_ours=$(fixed "$ours_cmd")
    fixed_vips=$(fixed "$vips_cmd")
fi
echo "bench: one run on a 64 x 48 JPEG: ours $fixed_ours ms, vipsthumbnail $fixed_vips ms" >&2
elapsed=$(($(date +%s) - started))

# --- The report -----------------------------------------------------------------------------
cpu=$(sed -n 's/^model name[[:space:]]*: *//p' /proc/cpuinfo | head -n 1)
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
vips_version=$(vipsthumbnail --vips-version | sed 's/^libvips //')
ffmpeg_version=$(ffmpeg -version | head -n 1 | cut -d' ' -f3)
thumbnailer_version=$(dpkg-query -W -f='${Version}' ffmpegthumbnailer 2>/dev/null || echo '?')
{
    echo "$HEADING"
    echo
    echo "Written by bench/local.sh; run it again to refresh. Every process is pinned to the"
    echo "first processor (\`taskset -c 0\`), so these are costs per item rather than how well a"
    echo "tool spreads over the machine. A batch is every file of a case, the same files for"
    echo "every tool in the same run: qrb-thumb and vipsthumbnail take them all in one process;"
    echo "ffmpeg runs once per song or per frame and ffmpegthumbnailer once per frame, as a"
    echo "script would run them. Milliseconds per item are the batch's wall time divided by its"
    echo "items, start-up included and nothing subtracted, the fastest of $ROUNDS rounds (less"
    echo "is better); ours / peer below 1 means qrb-thumb takes less time. The peer shown is the"
    echo "faster one measured. Pictures are covered and cropped around the centre"
    echo "(\`vipsthumbnail --smartcrop centre\`, shrink-on-load); qrb-thumb takes the embedded"
    echo "EXIF thumbnail when there is one. For songs, ffmpeg decodes the attached picture and"
    echo "scales and crops it (\`-an -frames:v 1 -vf scale,crop\`). For videos, frames are taken at"
    echo "(i + 1) / (N + 1) of the duration: the key frame at or before the moment for"
    echo "qrb-thumb, ffmpegthumbnailer and \`ffmpeg -noaccurate_seek -ss T -i F -frames:v 1\`"
    echo "(given T). Peak memory is GNU time's maximum resident set size over the rounds, of"
    echo "the largest process of a batch. Every tool writes PNG files."
    echo
    echo "| case | items | qrb-thumb, ms per item | fastest peer | peer, ms per item | ours / peer | peak memory: ours / peer |"
    echo "|---|---|---|---|---|---|---|"
    cat "$SCRATCH/table.md"
    echo
    if [ -s "$SCRATCH/others.md" ]; then
        echo "Slower peers, measured in the same rounds:"
        echo
        cat "$SCRATCH/others.md"
        echo
    fi
    echo "Fixed cost of one run on one 64 x 48 JPEG (to 320 x 240, one process, start to exit),"
    echo "median wall time by $how:"
    echo
    echo "| tool | ms per run |"
    echo "|---|---|"
    echo "| qrb-thumb | $fixed_ours |"
    echo "| vipsthumbnail | $fixed_vips |"
    echo "| ours / vipsthumbnail | $(ratio "$fixed_ours" "$fixed_vips") |"
    echo
    echo "Machine: $cpu, one of $(nproc) processors used; Debian $(cat /etc/debian_version 2>/dev/null || echo '?');"
    echo "libvips $vips_version; FFmpeg $ffmpeg_version; ffmpegthumbnailer $thumbnailer_version;"
    echo "build ${build_type:-default}; load average before / after: $load_before /"
    echo "$(cut -d' ' -f1-3 /proc/loadavg); $elapsed s in all; $(date -u '+%Y-%m-%d %H:%M UTC')."
} > "$SCRATCH/section.md"

put_section "$HEADING" "$SCRATCH/section.md" "$RESULTS"
cat "$SCRATCH/section.md"
