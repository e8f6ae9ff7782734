#!/bin/sh
# Runs every fuzz target of a build for a short while from its seed corpus.
#   fuzz/smoke.sh BUILD_DIR [SECONDS]
# New inputs go to a scratch folder; the committed seeds are only read. Every target runs; a
# crash, leak or timeout input is kept in BUILD_DIR/fuzz/findings/ and the script exits non-zero
# at the end, naming the targets that failed.
set -eu
build=${1:?usage: fuzz/smoke.sh BUILD_DIR [SECONDS]}
seconds=${2:-20}
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT INT TERM
findings="$build/fuzz/findings"
mkdir -p "$findings"

found=0
failed=""
for target in "$build"/fuzz/qrb_*_fuzz; do
    [ -x "$target" ] || continue
    found=1
    name=$(basename "$target")
    corpus=${name#qrb_}
    corpus=${corpus%_fuzz}
    seeds="$here/corpus/$corpus"
    mkdir -p "$scratch/$corpus"
    echo "== $name: ${seconds}s from $seeds"
    set -- "$scratch/$corpus"
    if [ -d "$seeds" ]; then set -- "$@" "$seeds"; fi
    if ! "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -artifact_prefix="$findings/$corpus-" "$@"; then
        failed="$failed $name"
    fi
done
if [ "$found" -eq 0 ]; then
    echo "no fuzz targets under $build/fuzz (configure with -DQRB_FUZZ=ON)" >&2
    exit 1
fi
if [ -n "$failed" ]; then
    echo "fuzz smoke: failed:$failed (inputs kept in $findings)" >&2
    exit 1
fi
