# Sourced by the benchmark scripts: what they check before running, and how a section goes
# into bench/RESULTS.md.

# parse_bench_args ROUNDS FILES "$@": reads "BUILD_DIR [--rounds N] [--files N]" into BUILD,
# ROUNDS and FILES (the first two arguments are their defaults); a usage error exits 2.
parse_bench_args() {
    ROUNDS=$1 FILES=$2
    shift 2
    if [ $# -lt 1 ] || [ ! -d "$1" ]; then
        echo "usage: $0 BUILD_DIR [--rounds N] [--files N]" >&2
        exit 2
    fi
    BUILD=$(cd "$1" && pwd)
    shift
    while [ $# -gt 0 ]; do
        case $1 in
            --rounds) ROUNDS=$2; shift 2 ;;
            --files) FILES=$2; shift 2 ;;
            *) echo "bench: unknown option $1" >&2; exit 2 ;;
        esac
    done
}

# require PROGRAM...: exits with a hint when one of them is not installed.
require() {
    for program in "$@"; do
        if ! command -v "$program" >/dev/null 2>&1; then
            echo "bench: $program is missing; scripts/install-deps.sh installs it" >&2
            exit 1
        fi
    done
}
#
# put_section HEADING SECTION_FILE RESULTS_FILE: the section replaces its earlier self (from its
# heading to the next heading of its level, or the end) or is added at the end; everything else
# in the file stays where it is.
put_section() {
    touch "$3"
    awk -v heading="$1" -v section="$2" '
        function put(   line) { while ((getline line < section) > 0) print line }
        $0 == heading { put(); skipping = 1; done = 1; next }
        skipping && /^## / { skipping = 0; print "" }
        !skipping { print }
        END { if (!done) { print ""; put() } }
    ' "$3" > "$3.new"
    mv "$3.new" "$3"
}

# median FILE: the median of the numbers in FILE, one per line (the upper one of an even count).
median() { sort -n "$1" | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }'; }
# rate COUNT SECONDS: COUNT per second, one decimal. ratio A B: A / B, two decimals.
rate() { awk -v n="$1" -v s="$2" 'BEGIN { printf "%.1f", (s > 0) ? n / s : 0 }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0) ? a / b : 0 }'; }

# install_plugins BUILD_DIR QRB_ROOT: the media plug-ins the video kinds load, copied from the
# build into the library's root, where it looks for them.
install_plugins() {
    mkdir -p "$2/usr/lib/gstreamer-1.0"
    cp "$1/root/usr/lib/gstreamer-1.0/libgstffmpeg.so" \
        "$1/root/usr/lib/gstreamer-1.0/libgstffmpegscale.so" "$2/usr/lib/gstreamer-1.0/"
}

# --- Corpora: made once into a folder of the build and kept (a stamp marks a finished one) ---

# make_picture_corpus DIR: four different pictures per kind (fractal plasma compresses like a
# photograph), with grain: exif-N.jpg and full-N.jpg 4000 x 3000 JPEGs with and without an
# embedded 160 x 120 EXIF thumbnail, png-N.png 2000 x 1500, bmp-N.bmp 1920 x 1080, N = 1..4.
# The embedded thumbnails are made from their own pictures, as a camera makes them.
make_picture_corpus() {
    [ -f "$1/stamp" ] && return 0
    echo "bench: making the picture corpus in $1 (once)"
    rm -rf "$1"
    mkdir -p "$1"
    for i in 1 2 3 4; do
        convert -seed "$i" -size 4000x3000 plasma:fractal -attenuate 0.3 +noise Gaussian \
            -sampling-factor 2x2 -quality 90 "$1/full-$i.jpg"
        convert "$1/full-$i.jpg" -resize 160x120! -quality 85 "$1/thumb-$i.jpg"
        cp "$1/full-$i.jpg" "$1/exif-$i.jpg"
        exiftool -q -overwrite_original -Orientation#=1 "-ThumbnailImage<=$1/thumb-$i.jpg" \
            "$1/exif-$i.jpg"
        convert -seed "$((i + 10))" -size 2000x1500 plasma:fractal -attenuate 0.2 +noise Gaussian \
            -depth 8 "PNG24:$1/png-$i.png"
        convert -seed "$((i + 20))" -size 1920x1080 plasma:fractal -depth 8 "BMP3:$1/bmp-$i.bmp"
    done
    touch "$1/stamp"
}

# make_video_corpus DIR: a moving test pattern with grain, so that pictures cost what filmed ones
# cost to decode, and a key frame every 2 s, as broadcast and streamed video mostly has:
# h264-1080p-60s-1.mp4 and -2.mp4 (60 s each) and h264-2160p-20s.mp4. A few minutes.
make_video_corpus() {
    [ -f "$1/stamp" ] && return 0
    echo "bench: making the video corpus in $1 (once; a few minutes)"
    mkdir -p "$1"
    for i in 1 2; do
        ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi \
            -i "testsrc2=size=1920x1080:rate=25:duration=60,hue=h=$((i * 70)),noise=alls=12:allf=t" \
            -c:v libx264 -preset veryfast -g 50 -b:v 6M -maxrate 8M -bufsize 8M \
            -pix_fmt yuv420p "$1/h264-1080p-60s-$i.mp4"
    done
    ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi \
        -i "testsrc2=size=3840x2160:rate=25:duration=20,noise=alls=12:allf=t" \
        -c:v libx264 -preset veryfast -g 50 -b:v 20M -maxrate 25M -bufsize 25M \
        -pix_fmt yuv420p "$1/h264-2160p-20s.mp4"
    touch "$1/stamp"
}

# make_music_corpus DIR: eight one-second songs, song-N.mp3, with ID3v2.3 tags carrying a
# 500 x 500 front cover, cover-N.jpg (different photo-like plasma each, so they compress like
# real artwork), N = 1..8.
make_music_corpus() {
    [ -f "$1/stamp" ] && return 0
    echo "bench: making the music corpus in $1 (once)"
    mkdir -p "$1"
    for i in 1 2 3 4 5 6 7 8; do
        convert -seed "$i" -size 500x500 plasma:fractal -quality 90 "$1/cover-$i.jpg"
        ffmpeg -hide_banner -loglevel error -nostdin -y \
            -f lavfi -i "sine=frequency=$((200 + 50 * i)):duration=1" -i "$1/cover-$i.jpg" \
            -map 0:a -map 1:v -c:a libmp3lame -b:a 64k -c:v copy -id3v2_version 3 \
            -metadata:s:v comment="Cover (front)" "$1/song-$i.mp3"
    done
    touch "$1/stamp"
}

# write_runner: the calling script's TOOL and run() in a file of their own, which the timed
# batches run in a shell of their own.
write_runner() {
    {
        echo "TOOL='$TOOL'"
        sed -n '/^run() {/,/^}/p' "$0"
    } > "$SCRATCH/run.sh"
}

count() { find "$1" -mindepth 1 -maxdepth 1 | wc -l; }

# measure KEY WANTED PIN COMMAND...: runs COMMAND once under GNU time (PIN "pinned": on the first
# processor only; "-": anywhere) with an empty $SCRATCH/out for its images, and checks that it
# made WANTED files there (a failing batch shows the end of $SCRATCH/out.log). Appends the wall time
# to walls-KEY and the processor time to cpu-KEY, and keeps the largest peak resident memory (KiB)
# in peak-KEY.
measure() {
    key=$1 wanted=$2 pin=""
    if [ "$3" = pinned ]; then pin="taskset -c 0"; fi
    shift 3
    rm -rf "$SCRATCH/out" "$SCRATCH/out.log"
    mkdir -p "$SCRATCH/out"
    if ! $pin /usr/bin/time -f "%e %M %U %S" -o "$SCRATCH/time.txt" "$@"; then
        tail -n 5 "$SCRATCH/out.log" >&2 2>/dev/null || true
        echo "bench: $key failed" >&2
        exit 1
    fi
    made=$(find "$SCRATCH/out" -type f | wc -l)
    if [ "$made" -ne "$wanted" ]; then
        echo "bench: $key made $made images of $wanted" >&2
        exit 1
    fi
    read -r wall peak user system < "$SCRATCH/time.txt"
    echo "$wall" >> "$SCRATCH/walls-$key"
    awk -v u="$user" -v s="$system" 'BEGIN { print u + s }' >> "$SCRATCH/cpu-$key"
    old=$(cat "$SCRATCH/peak-$key" 2>/dev/null || echo 0)
    if [ "$peak" -gt "$old" ]; then echo "$peak" > "$SCRATCH/peak-$key"; fi
}

# fastest KEY: the shortest wall time in walls-KEY.
fastest() { sort -n "$SCRATCH/walls-$1" | head -n 1; }

# timed_batch KEY TOOL FOLDER [pinned]: measure of run() over FOLDER, one PNG per input.
timed_batch() {
    measure "$1" "$(count "$3")" "${4:--}" \
        sh -c '. "$0"; run "$@"' "$SCRATCH/run.sh" "$2" "$3" "$SCRATCH/out"
}
