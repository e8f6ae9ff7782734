#!/bin/sh
# make bench: runs the request-path benchmark under /usr/bin/time (for peak memory) and
# rewrites bench/RESULTS.md with the table and the machine it ran on.
set -eu

if [ $# -lt 1 ]; then
    echo "usage: $0 BUILD_DIR [--requests N] [--rounds N] [--idle-samples N] [--queued N]" >&2
    exit 2
fi
REPO=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "$1" && pwd)
shift
BENCH=$BUILD/bench/qrb_bench_requests
RESULTS=$REPO/bench/RESULTS.md

if [ ! -x "$BENCH" ]; then
    echo "bench: $BENCH is not built" >&2
    exit 1
fi
if [ ! -x /usr/bin/time ]; then
    echo "bench: /usr/bin/time is missing; scripts/install-deps.sh installs it" >&2
    exit 1
fi

SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/qrb-bench-XXXXXX")
trap 'rm -rf "$SCRATCH"' EXIT INT TERM
# The library's fixed paths land in the scratch folder; its log stays quiet.
QRB_ROOT=$SCRATCH/root
QRB_LOG_LEVEL=7
export QRB_ROOT QRB_LOG_LEVEL
mkdir -p "$QRB_ROOT"

echo "bench: running $BENCH (about twenty seconds)"
/usr/bin/time -v -o "$SCRATCH/time.txt" "$BENCH" "$@" > "$SCRATCH/table.md" || {
    cat "$SCRATCH/time.txt" >&2
    echo "bench: the benchmark failed" >&2
    exit 1
}
peak_kib=$(sed -n 's/^[[:space:]]*Maximum resident set size (kbytes): *//p' "$SCRATCH/time.txt")
wall=$(sed -n 's/^[[:space:]]*Elapsed (wall clock) time (h:mm:ss or m:ss): *//p' "$SCRATCH/time.txt")

cpu=$(sed -n 's/^model name[[:space:]]*: *//p' /proc/cpuinfo | head -n 1)
compiler_path=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
compiler=$("${compiler_path:-c++}" --version | head -n 1)
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
sanitize=$(sed -n 's/^QRB_SANITIZE:[A-Z]*=//p' "$BUILD/CMakeCache.txt")
debian=$(cat /etc/debian_version 2>/dev/null || echo unknown)

{
    echo "# Benchmark results"
    echo
    echo "Written by \`make bench\` (bench/run.sh); run it again to refresh. The benchmark"
    echo "(bench/qrb_bench_requests.cpp) drives the public C interface with requests for missing"
    echo "local pictures, which fail without decoding, so the figures are the service's own"
    echo "overhead: routing, queueing, a worker taking the request, the callback. Idle workers"
    echo "wait on their queue and are woken by each request, so a lone request is taken at once"
    echo "and a queue filled at once drains without pauses. Timings"
    echo "vary from run to run on a shared machine; the throughput rows give the spread."
    echo
    cat "$SCRATCH/table.md"
    echo "| peak resident memory of the whole run | $((peak_kib / 1024)) MiB ($peak_kib KiB) |"
    echo "| wall time of the whole run | $wall |"
    echo
    echo "## Machine"
    echo
    echo "- date: $(date -u '+%Y-%m-%d %H:%M UTC')"
    echo "- CPU: $cpu; $(nproc) processors available"
    echo "- system: Debian $debian, Linux $(uname -r)"
    echo "- compiler: $compiler"
    echo "- build: ${build_type:-default}${sanitize:+, sanitizer $sanitize}"
    # The other benchmarks' sections (music, video) follow under their own headings: kept.
    if [ -f "$RESULTS" ]; then
        awk '/^## / && $0 != "## Machine" { keep = 1 } keep { print }' "$RESULTS" |
            sed '1s/^/\n/'
    fi
} > "$SCRATCH/results.md"
mv "$SCRATCH/results.md" "$RESULTS"

cat "$RESULTS"
