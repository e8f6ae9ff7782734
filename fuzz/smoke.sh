#!/bin/sh
# Runs every fuzz target of a build for a short while from its seed corpus.
#   fuzz/smoke.sh BUILD_DIR [SECONDS]
# New inputs go to a scratch folder; the committed seeds are only read. Exits non-zero when a
# target finds a crash, a leak or a timeout.
set -eu
build=${1:?usage: fuzz/smoke.sh BUILD_DIR [SECONDS]}
seconds=${2:-20}
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT INT TERM

found=0
for target in "$build"/fuzz/qrb_*_fuzz; do
    [ -x "$target" ] || continue
    found=1
    name=$(basename "$target")
    corpus=${name#qrb_}
    corpus=${corpus%_fuzz}
    seeds="$here/corpus/$corpus"
    mkdir -p "$scratch/$corpus"
    echo "== $name: ${seconds}s from $seeds"
    if [ -d "$seeds" ]; then
        "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
            -artifact_prefix="$scratch/" "$scratch/$corpus" "$seeds"
    else
        "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
            -artifact_prefix="$scratch/" "$scratch/$corpus"
    fi
done
if [ "$found" -eq 0 ]; then
    echo "no fuzz targets under $build/fuzz (configure with -DQRB_FUZZ=ON)" >&2
    exit 1
fi
