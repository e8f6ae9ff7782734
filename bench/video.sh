#!/bin/sh
# Video thumbnails on one core beside the peers, and a colour check. Every process is pinned to
# the first processor (taskset -c 0): qrb-thumb takes a batch of files in one process (its four
# video workers sharing that processor); ffmpegthumbnailer and
# `ffmpeg -noaccurate_seek -ss T -i F -frames:v 1` run once per frame, as a script would run
# them. Cases: 1080p and 2160p, H.264 and HEVC, one and five frames at 320 x 180. The colour
# check grabs each colour, HDR and aspect test video at its own size and gives the mean
# difference to FFmpeg's own correctly converted (and tone-mapped) frame of it.
#
#   bench/video.sh BUILD_DIR [--rounds N]
#
# The corpora are made once (several minutes) into BUILD_DIR/bench-video-corpus (shared with
# bench/local.sh) and BUILD_DIR/bench-video-corpus-hevc and kept. Times are wall-clock times of
# whole batches under /usr/bin/time, which also gives the peak resident memory; each batch runs
# ROUNDS times (default 2) and the fastest is kept. Writes its section of bench/RESULTS.md.
set -eu

FF="ffmpeg -hide_banner -loglevel error -nostdin -y"

# --- One batch (the script calls itself under taskset and /usr/bin/time) --------------------

# The positions the library takes for N frames: (i + 1) / (N + 1) of the duration.
position() {  # $1 duration in seconds, $2 frame index, $3 frames
    awk -v d="$1" -v i="$2" -v n="$3" 'BEGIN { printf "%.3f", d * (i + 1) / (n + 1) }'
}

peer_one() {  # $1 tool, $2 input, $3 frames, $4 output folder
    name=$(basename "$2")
    duration=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$2")
    i=0
    while [ "$i" -lt "$3" ]; do
        if [ "$1" = ffmpegthumbnailer ]; then
            # -s 320 is the longer side: 320 x 180 from a 16:9 picture, nothing to crop.
            ffmpegthumbnailer -i "$2" -o "$4/$name-$i.png" -s 320 \
                -t "$(((100 * (i + 1)) / ($3 + 1)))%" >/dev/null 2>&1
        else
            $FF -noaccurate_seek -ss "$(position "$duration" "$i" "$3")" -i "$2" -frames:v 1 \
                -vf "scale=320:180:force_original_aspect_ratio=increase,crop=320:180" \
                -update 1 "$4/$name-$i.png"
        fi
        i=$((i + 1))
    done
}

if [ "${1:-}" = "--run" ]; then  # --run TOOL FOLDER FRAMES OUT
    tool=$2 folder=$3 frames=$4 out=$5
    if [ "$tool" = ours ]; then
        exec "$TOOL" -s 320x180 -n "$frames" -o "$out" "$folder"/*.mp4 >/dev/null
    fi
    for f in "$folder"/*.mp4; do peer_one "$tool" "$f" "$frames" "$out"; done
    exit 0
fi

# --- Set-up ---------------------------------------------------------------------------------
SELF=$(cd "$(dirname "$0")" && pwd)/$(basename "$0")
REPO=$(cd "$(dirname "$0")/.." && pwd)
. "$REPO/bench/common.sh"
parse_bench_args 2 0 "$@"
TOOL=$BUILD/tools/qrb-thumb/qrb-thumb
FIXTURES=$BUILD/libqrb-thumbnail/src/video-decoder/testdata/fixtures
RESULTS=$REPO/bench/RESULTS.md
require taskset ffmpeg ffprobe ffmpegthumbnailer compare /usr/bin/time
if [ ! -x "$TOOL" ] || [ ! -f "$BUILD/root/usr/lib/gstreamer-1.0/libgstffmpeg.so" ] ||
    [ ! -f "$FIXTURES/stamp" ]; then
    echo "bench: build qrb-thumb, the media plug-ins and the video fixtures in $BUILD first" >&2
    exit 1
fi

CORPUS=$BUILD/bench-video-corpus
make_video_corpus "$CORPUS"
# HEVC at the same sizes, lengths and key-frame spacing as the H.264 corpus, closed GOPs as the
# H.264 files have (IDR key frames, as cameras and phones write); and the 2160p one once more
# with x265's default open GOPs (CRA key frames, as much broadcast has).
HEVC=$BUILD/bench-video-corpus-hevc
if [ ! -f "$HEVC/stamp" ]; then
    echo "bench: making the HEVC corpus in $HEVC (once; a few minutes)"
    mkdir -p "$HEVC"
    X265="-c:v libx265 -preset ultrafast -pix_fmt yuv420p -tag:v hvc1 -x265-params log-level=error:keyint=50:min-keyint=50"
    $FF -f lavfi -i "testsrc2=size=1920x1080:rate=25:duration=60,hue=h=70,noise=alls=12:allf=t" \
        $X265:open-gop=0 -b:v 6M "$HEVC/hevc-1080p-60s.mp4"
    $FF -f lavfi -i "testsrc2=size=3840x2160:rate=25:duration=20,noise=alls=12:allf=t" \
        $X265:open-gop=0 -b:v 20M "$HEVC/hevc-2160p-20s.mp4"
    $FF -f lavfi -i "testsrc2=size=3840x2160:rate=25:duration=20,noise=alls=12:allf=t" \
        $X265:open-gop=1 -b:v 20M "$HEVC/hevc-2160p-20s-open-gop.mp4"
    touch "$HEVC/stamp"
fi

SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/qrb-bench-video-XXXXXX")
trap 'rm -rf "$SCRATCH"' EXIT INT TERM
QRB_ROOT=$SCRATCH/root
export QRB_ROOT TOOL FF
install_plugins "$BUILD" "$QRB_ROOT"

# Each video under several names, so that a batch makes enough thumbnails to time and every tool
# sees the same list of distinct files (all in the page cache after the first round).
link() {  # FOLDER COPIES FILE...
    folder=$SCRATCH/$1 copies=$2
    shift 2
    mkdir -p "$folder"
    n=0
    for f in "$@"; do
        c=1
        while [ "$c" -le "$copies" ]; do
            n=$((n + 1))
            ln -s "$f" "$folder/v$n.mp4"
            c=$((c + 1))
        done
    done
}
link hd-h264 5 "$CORPUS/h264-1080p-60s-1.mp4" "$CORPUS/h264-1080p-60s-2.mp4"
link hd-hevc 10 "$HEVC/hevc-1080p-60s.mp4"
link uhd-h264 5 "$CORPUS/h264-2160p-20s.mp4"
link uhd-hevc 5 "$HEVC/hevc-2160p-20s.mp4"
link uhd-hevc-open 5 "$HEVC/hevc-2160p-20s-open-gop.mp4"

# --- Measuring ------------------------------------------------------------------------------
# once TOOL FOLDER FRAMES: one pinned batch (walls-TOOL, peak-TOOL); every batch must make every
# image.
once() {
    measure "$1" "$(($(find "$SCRATCH/$2" -name '*.mp4' | wc -l) * $3))" pinned \
        sh "$SELF" --run "$1" "$SCRATCH/$2" "$3" "$SCRATCH/out"
}

ms_per() {  # SECONDS ITEMS
    awk -v s="$1" -v n="$2" 'BEGIN { printf "%.0f", 1000 * s / n }'
}

run_case() {  # LABEL FOLDER FRAMES
    rm -f "$SCRATCH"/walls-* "$SCRATCH"/cpu-* "$SCRATCH"/peak-*
    items=$(($(find "$SCRATCH/$2" -name '*.mp4' | wc -l) * $3))
    r=0
    while [ "$r" -lt "$ROUNDS" ]; do
        # The tools take turns within each round, so that a change in the machine's load weighs
        # on all of them alike.
        for tool in ours ffmpegthumbnailer ffmpeg; do once "$tool" "$2" "$3"; done
        r=$((r + 1))
    done
    ours=$(ms_per "$(fastest ours)" "$items")
    thumbnailer=$(ms_per "$(fastest ffmpegthumbnailer)" "$items")
    ffmpeg=$(ms_per "$(fastest ffmpeg)" "$items")
    peaks=""
    for tool in ours ffmpegthumbnailer ffmpeg; do
        peaks="$peaks${peaks:+ / }$(($(cat "$SCRATCH/peak-$tool") / 1024))"
    done
    echo "bench: $1: $ours / $thumbnailer / $ffmpeg ms per frame, $peaks MiB" >&2
    echo "| $1 | $items | $ours | $thumbnailer ($(ratio "$ours" "$thumbnailer")) | $ffmpeg ($(ratio "$ours" "$ffmpeg")) | $peaks MiB |" \
        >> "$SCRATCH/table.md"
}

: > "$SCRATCH/table.md"
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
run_case "1080p H.264, 1 frame" hd-h264 1
run_case "1080p H.264, 5 frames" hd-h264 5
run_case "1080p HEVC, 1 frame" hd-hevc 1
run_case "1080p HEVC, 5 frames" hd-hevc 5
run_case "2160p H.264, 1 frame" uhd-h264 1
run_case "2160p H.264, 5 frames" uhd-h264 5
run_case "2160p HEVC, 1 frame" uhd-hevc 1
run_case "2160p HEVC, 5 frames" uhd-hevc 5
run_case "2160p HEVC, open GOPs, 1 frame" uhd-hevc-open 1

# --- Colour check ---------------------------------------------------------------------------
# FFmpeg's own frame of each test video, converted the way a player converts it: with the
# stream's matrix and range (the usual ones for its size when untagged), PQ and HLG tone-mapped
# with the library's operator and parameters (but on the whole picture, before any scaling),
# the sample aspect ratio applied. Mean absolute difference over the three colour channels, in
# levels of 255 (ImageMagick's MAE).
probe() {  # FILE ENTRY
    ffprobe -v error -select_streams v:0 -show_entries "stream=$2" \
        -of default=noprint_wrappers=1:nokey=1 "$1" | head -n 1
}
reference_chain() {  # FILE
    transfer=$(probe "$1" color_transfer)
    if [ "$transfer" = smpte2084 ] || [ "$transfer" = arib-std-b67 ]; then
        nits=$(ffprobe -v error -select_streams v:0 -read_intervals "%+#1" \
            -show_entries frame_side_data=max_content -of csv=p=0 "$1" | grep -m 1 '[1-9]' || true)
        [ -n "$nits" ] || { [ "$transfer" = smpte2084 ] && nits=10000 || nits=1000; }
        peak=$(awk -v n="$nits" 'BEGIN { p = n / 203; printf "%g", p < 1 ? 1 : p }')
        echo "zscale=t=linear:npl=203,format=gbrpf32le,zscale=p=bt709,tonemap=tonemap=mobius:param=0.5:desat=0:peak=$peak,zscale=t=bt709:m=bt709:r=pc,format=rgb24"
        return
    fi
    width=$(probe "$1" width)
    height=$(probe "$1" height)
    case $(probe "$1" color_space) in
        bt709) matrix=bt709 ;;
        bt2020nc | bt2020c) matrix=bt2020 ;;
        smpte170m | bt470bg) matrix=bt601 ;;
        *) if [ "$width" -ge 1280 ] || [ "$height" -gt 576 ]; then matrix=bt709; else matrix=bt601; fi ;;
    esac
    case $(probe "$1" color_range) in pc) range=pc ;; *) range=tv ;; esac
    echo "scale=w='trunc(iw*sar+0.5)':h=ih:in_color_matrix=$matrix:in_range=$range:flags=bilinear,setsar=1,format=rgb24"
}
: > "$SCRATCH/colour.md"
for f in "$FIXTURES"/patches_* "$FIXTURES"/bars_*.mkv "$FIXTURES"/square_*; do
    name=$(basename "$f")
    rm -rf "$SCRATCH/colour"
    mkdir -p "$SCRATCH/colour"
    "$TOOL" -s 0x0 -o "$SCRATCH/colour" "$f" >/dev/null
    $FF -i "$f" -frames:v 1 -vf "$(reference_chain "$f")" -update 1 "$SCRATCH/colour/ref.png"
    mae=$(compare -metric MAE "$SCRATCH/colour/$name-0.png" "$SCRATCH/colour/ref.png" null: 2>&1 |
        sed -n 's/.*(\([0-9.e-]*\)).*/\1/p')
    tags="$(probe "$f" color_space) / $(probe "$f" color_range) / $(probe "$f" color_transfer)"
    echo "| $name | $tags | $(awk -v m="$mae" 'BEGIN { printf "%.2f", 255 * m }') |" \
        >> "$SCRATCH/colour.md"
done

# --- The report -----------------------------------------------------------------------------
cpu=$(sed -n 's/^model name[[:space:]]*: *//p' /proc/cpuinfo | head -n 1)
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
ffmpeg_version=$(ffmpeg -version | head -n 1 | cut -d' ' -f3)
thumbnailer_version=$(dpkg-query -W -f='${Version}' ffmpegthumbnailer 2>/dev/null || echo '?')
{
    echo "## Video thumbnails"
    echo
    echo "Written by bench/video.sh; run it again to refresh. One core: every process pinned to"
    echo "the first processor (\`taskset -c 0\`). Milliseconds per frame at 320 x 180 over whole"
    echo "batches, start-up included, the fastest of $ROUNDS rounds (less is better); in brackets"
    echo "ours / peer. qrb-thumb takes a batch in one process, its four video workers sharing the"
    echo "core; ffmpegthumbnailer and \`ffmpeg -noaccurate_seek -ss T -i F -frames:v 1\` (scale and"
    echo "crop, PNG) run once per frame. Frames are taken at (i + 1) / (N + 1) of the duration, the"
    echo "key frame at or before each moment for all three. Sources: a moving test pattern with"
    echo "grain, a key frame every 2 s; 1080p 60 s (H.264 6 Mb/s, x264 veryfast; HEVC x265"
    echo "ultrafast, closed GOPs; the last row x265's default open GOPs), 2160p 20 s (20 Mb/s)."
    echo "Peak memory: GNU time's maximum resident set of the largest process of a batch, for"
    echo "qrb-thumb the whole batch with its four workers (pictures above 2 x 1080p are decoded"
    echo "one at a time). An open-GOP HEVC key frame (CRA) seen without the pictures before it"
    echo "makes FFmpeg's decoder allocate stand-ins for every reference its successors name, some"
    echo "90 MiB at 2160p; qrb-thumb gives them one shared buffer, since no key picture reads them."
    echo
    echo "| case | frames | qrb-thumb, ms per frame | ffmpegthumbnailer | ffmpeg -noaccurate_seek | peak memory: ours / ffmpegthumbnailer / ffmpeg |"
    echo "|---|---|---|---|---|---|"
    cat "$SCRATCH/table.md"
    echo
    echo "Colour check: each test video (testdata/make_video_fixtures.sh) grabbed at its own size"
    echo "beside FFmpeg's own frame of it, converted with the stream's matrix and range (the usual"
    echo "ones for its size when untagged), PQ and HLG tone-mapped by the same operator on the whole"
    echo "picture (zscale to linear light at 203 cd/m2, BT.709 primaries, tonemap=mobius:param=0.5,"
    echo "BT.709), the sample aspect ratio applied: mean absolute difference, levels of 255."
    echo
    echo "| video | matrix / range / transfer | mean difference |"
    echo "|---|---|---|"
    cat "$SCRATCH/colour.md"
    echo
    echo "Machine: $cpu, $(nproc) processors (one used); Debian $(cat /etc/debian_version 2>/dev/null || echo '?');"
    echo "FFmpeg $ffmpeg_version; ffmpegthumbnailer $thumbnailer_version; build ${build_type:-default};"
    echo "load average before / after: $load_before / $(cut -d' ' -f1-3 /proc/loadavg);"
    echo "$(date -u '+%Y-%m-%d %H:%M UTC')."
} > "$SCRATCH/section.md"

put_section "## Video thumbnails" "$SCRATCH/section.md" "$RESULTS"
cat "$SCRATCH/section.md"
