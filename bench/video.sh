#!/bin/sh
# Video thumbnails beside the peers: qrb-thumb against ffmpegthumbnailer and the ffmpeg command
# line (seek, one frame, scale, crop), on the same files in one run: one frame and five frames
# at 320 x 180 from 60-second 1080p H.264 videos and from a 4K one. Prints the table and puts it
# into bench/RESULTS.md under its own heading, leaving the rest of the file as it is.
#
#   bench/video.sh BUILD_DIR [--rounds N]
#
# The corpus is made once (a few minutes) into BUILD_DIR/bench-video-corpus and kept. Timings
# are wall-clock times of whole runs under /usr/bin/time, which also gives the peak resident
# memory; each run is repeated and the median kept.
set -eu

FF="ffmpeg -hide_banner -loglevel error -nostdin -y"

# --- One run (the script calls itself under /usr/bin/time) ------------------------------------
# run TOOL FOLDER FRAMES JOBS: every input of FOLDER, FRAMES frames each, with TOOL; a peer runs
# once per input, JOBS at a time. OUT is the folder for the images.

# The positions the library takes for N frames: (i + 1) / (N + 1) of the duration.
position() {  # $1 duration in seconds, $2 frame index, $3 frames
    awk -v d="$1" -v i="$2" -v n="$3" 'BEGIN { printf "%.3f", d * (i + 1) / (n + 1) }'
}

peer_one() {  # $1 tool, $2 input, $3 frames, $4 output folder
    name=$(basename "$2")
    if [ "$1" = ffmpeg ]; then
        duration=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$2")
    fi
    i=0
    while [ "$i" -lt "$3" ]; do
        if [ "$1" = ffmpegthumbnailer ]; then
            # -s 320 is the longer side: 320 x 180 from a 16:9 picture, nothing to crop.
            ffmpegthumbnailer -i "$2" -o "$4/$name-$i.png" -s 320 \
                -t "$(((100 * (i + 1)) / ($3 + 1)))%" >/dev/null 2>&1
        else
            $FF -ss "$(position "$duration" "$i" "$3")" -i "$2" -frames:v 1 \
                -vf "scale=320:180:force_original_aspect_ratio=increase,crop=320:180" \
                "$4/$name-$i.png"
        fi
        i=$((i + 1))
    done
}

if [ "${1:-}" = "--one" ]; then  # --one PEER INPUT FRAMES OUT
    peer_one "$2" "$3" "$4" "$5"
    exit 0
fi
if [ "${1:-}" = "--run" ]; then  # --run TOOL FOLDER FRAMES JOBS OUT
    tool=$2 folder=$3 frames=$4 jobs=$5 out=$6
    if [ "$tool" = ours ]; then
        exec "$TOOL" -s 320x180 -n "$frames" -o "$out" "$folder"/*.mp4 >/dev/null
    fi
    # Each input in a shell of its own, JOBS at a time.
    for f in "$folder"/*.mp4; do echo "$f"; done |
        xargs -P "$jobs" -I{} sh "$0" --one "$tool" {} "$frames" "$out"
    exit 0
fi

# --- Set-up ---------------------------------------------------------------------------------
SELF=$(cd "$(dirname "$0")" && pwd)/$(basename "$0")
REPO=$(cd "$(dirname "$0")/.." && pwd)
. "$REPO/bench/common.sh"
parse_bench_args 3 0 "$@"
TOOL=$BUILD/tools/qrb-thumb/qrb-thumb
PLUGINS=$BUILD/root/usr/lib/gstreamer-1.0
RESULTS=$REPO/bench/RESULTS.md
CORES=$(nproc)
require ffmpeg ffprobe ffmpegthumbnailer /usr/bin/time
if [ ! -x "$TOOL" ] || [ ! -f "$PLUGINS/libgstffmpeg.so" ]; then
    echo "bench: build qrb-thumb and the media plug-ins in $BUILD first" >&2
    exit 1
fi

# Made once (bench/common.sh) and shared with bench/local.sh.
CORPUS=$BUILD/bench-video-corpus
make_video_corpus "$CORPUS"

SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/qrb-bench-video-XXXXXX")
trap 'rm -rf "$SCRATCH"' EXIT INT TERM
QRB_ROOT=$SCRATCH/root
QRB_LOG_LEVEL=7
export QRB_ROOT QRB_LOG_LEVEL TOOL FF
install_plugins "$BUILD" "$QRB_ROOT"

# Each video under several names, so that a run makes enough thumbnails to time and every tool
# sees the same list of distinct files (all in the page cache after the first round).
mkdir -p "$SCRATCH/hd" "$SCRATCH/uhd"
for i in 1 2; do
    for copy in 1 2 3 4 5 6 7 8 9 10; do
        ln -s "$CORPUS/h264-1080p-60s-$i.mp4" "$SCRATCH/hd/v$i-$copy.mp4"
    done
done
for copy in 1 2 3 4 5; do
    ln -s "$CORPUS/h264-2160p-20s.mp4" "$SCRATCH/uhd/v-$copy.mp4"
done

# --- Measuring ------------------------------------------------------------------------------
# once TOOL FOLDER FRAMES JOBS: one run; appends its wall time to walls-TOOL-JOBS and its processor
# time (user + system, all processes) to cpu-TOOL-JOBS, and keeps the largest peak resident
# memory (KiB) in peak-TOOL-JOBS. Every run must make every image.
once() {
    rm -rf "$SCRATCH/out"
    mkdir -p "$SCRATCH/out"
    if ! /usr/bin/time -f "%e %M %U %S" -o "$SCRATCH/time.txt" \
        sh "$SELF" --run "$1" "$2" "$3" "$4" "$SCRATCH/out"; then
        echo "bench: $1 failed on $2" >&2
        exit 1
    fi
    made=$(find "$SCRATCH/out" -name '*.png' | wc -l)
    wanted=$(($(find "$2" -name '*.mp4' | wc -l) * $3))
    if [ "$made" -ne "$wanted" ]; then
        echo "bench: $1 made $made images of $wanted" >&2
        exit 1
    fi
    read -r wall peak user system < "$SCRATCH/time.txt"
    echo "$wall" >> "$SCRATCH/walls-$1-$4"
    awk -v u="$user" -v s="$system" 'BEGIN { print u + s }' >> "$SCRATCH/cpu-$1-$4"
    old=$(cat "$SCRATCH/peak-$1-$4" 2>/dev/null || echo 0)
    if [ "$peak" -gt "$old" ]; then echo "$peak" > "$SCRATCH/peak-$1-$4"; fi
}

# The tools take turns within each round, so that a machine whose load changes during the run
# weighs on all of them alike.
RUNS="ours:1 ffmpegthumbnailer:1 ffmpegthumbnailer:$CORES ffmpeg:1 ffmpeg:$CORES"
run_case() {  # $1 label, $2 folder, $3 frames
    rm -f "$SCRATCH"/walls-* "$SCRATCH"/cpu-* "$SCRATCH"/peak-*
    thumbs=$(($(find "$2" -name '*.mp4' | wc -l) * $3))
    r=0
    while [ "$r" -lt "$ROUNDS" ]; do
        for run in $RUNS; do once "${run%:*}" "$2" "$3" "${run#*:}"; done
        r=$((r + 1))
    done
    ours=$(rate "$thumbs" "$(median "$SCRATCH/walls-ours-1")")
    row="| $1 | $ours"
    for run in $RUNS; do
        tool=${run%:*} jobs=${run#*:}
        wall=$(median "$SCRATCH/walls-$tool-$jobs")
        echo "bench: $1: $tool x$jobs median $wall s, peak $(($(cat "$SCRATCH/peak-$tool-$jobs") / 1024)) MiB" >&2
        [ "$tool" = ours ] && continue
        theirs=$(rate "$thumbs" "$wall")
        row="$row | $theirs ($(ratio "$ours" "$theirs"))"
    done
    peaks=""
    cpus=""
    for tool in ours ffmpegthumbnailer ffmpeg; do
        peaks="$peaks${peaks:+ / }$(($(cat "$SCRATCH/peak-$tool-1") / 1024))"
        cpu=$(awk -v c="$(median "$SCRATCH/cpu-$tool-1")" -v n="$thumbs" \
            'BEGIN { printf "%.0f", 1000 * c / n }')
        cpus="$cpus${cpus:+ / }$cpu"
    done
    echo "$row | $cpus ms | $peaks MiB |" >> "$SCRATCH/table.md"
}

: > "$SCRATCH/table.md"
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
echo "bench: $ROUNDS rounds of each run"
run_case "1 frame, 1080p H.264, 60 s (20 files)" "$SCRATCH/hd" 1
run_case "5 frames, 1080p H.264, 60 s (20 files)" "$SCRATCH/hd" 5
run_case "1 frame, 2160p H.264, 20 s (5 files)" "$SCRATCH/uhd" 1
run_case "5 frames, 2160p H.264, 20 s (5 files)" "$SCRATCH/uhd" 5

# --- The report -----------------------------------------------------------------------------
cpu=$(sed -n 's/^model name[[:space:]]*: *//p' /proc/cpuinfo | head -n 1)
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
ffmpeg_version=$(ffmpeg -version | head -n 1 | cut -d' ' -f3)
thumbnailer_version=$(dpkg-query -W -f='${Version}' ffmpegthumbnailer 2>/dev/null || echo '?')
{
    echo "## Video thumbnails"
    echo
    echo "Written by bench/video.sh; run it again to refresh. Thumbnails per second at 320 x 180"
    echo "over whole runs (more is better), median of $ROUNDS rounds; in brackets the ratio"
    echo "ours / peer. qrb-thumb takes all inputs in one process, its four video workers sharing"
    echo "the machine; a peer runs once per input (and per frame), one at a time or, in the"
    echo "\"x$CORES\" columns, $CORES at a time. Frames are taken at (i + 1) / (N + 1) of the"
    echo "duration. The library decodes the key frame at or before each position, as"
    echo "ffmpegthumbnailer does; \`ffmpeg -ss\` decodes on from there to the exact moment. Every"
    echo "tool writes PNG files. Processor time per thumbnail counts every process of a run"
    echo "(user + system), which the machine's other load disturbs far less than the wall clock."
    echo "Peak memory is that of the largest process of a run."
    echo
    echo "| case | qrb-thumb | ffmpegthumbnailer | ffmpegthumbnailer x$CORES | ffmpeg | ffmpeg x$CORES | processor time per thumbnail: ours / ffmpegthumbnailer / ffmpeg | peak memory: ours / ffmpegthumbnailer / ffmpeg |"
    echo "|---|---|---|---|---|---|---|---|"
    cat "$SCRATCH/table.md"
    echo
    echo "Machine: $cpu, $CORES processors; Debian $(cat /etc/debian_version 2>/dev/null || echo '?');"
    echo "FFmpeg $ffmpeg_version; ffmpegthumbnailer $thumbnailer_version; build ${build_type:-default};"
    echo "load average before / after: $load_before / $(cut -d' ' -f1-3 /proc/loadavg);"
    echo "$(date -u '+%Y-%m-%d %H:%M UTC')."
} > "$SCRATCH/section.md"

put_section "## Video thumbnails" "$SCRATCH/section.md" "$RESULTS"
cat "$SCRATCH/section.md"
