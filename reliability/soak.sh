#!/bin/sh
# Runs the soak of a build for SECONDS (default 600) on the sample media, made once into the
# build folder by scripts/make-media.sh.
#   reliability/soak.sh BUILD_DIR [SECONDS] [SEED]
set -eu
build=$(cd "${1:?usage: reliability/soak.sh BUILD_DIR [SECONDS] [SEED]}" && pwd)
seconds=${2:-600}
seed=${3:-$(date +%s)}
here=$(cd "$(dirname "$0")" && pwd)
media=$build/soak-media
if [ ! -f "$media/stamp" ]; then
    rm -rf "$media"
    mkdir -p "$media"
    "$here/../scripts/make-media.sh" "$build" "$media/files" "$media/files" "$media/work" \
        > "$media/make.log" 2>&1 || { cat "$media/make.log" >&2; exit 1; }
    touch "$media/stamp"
fi
# Memory that a sanitizer holds back (freed blocks in quarantine, shadow) is not the library's.
slack=32
case "${ASAN_OPTIONS:-}${TSAN_OPTIONS:-}" in ?*) slack=256 ;; esac
# The library says only what goes wrong badly; the soak reports its own findings.
export QRB_LOG_LEVEL=${QRB_LOG_LEVEL:-6}
exec "$build/reliability/qrb-soak" --media "$media/files" \
    --plugins "$build/root/usr/lib/gstreamer-1.0" --seconds "$seconds" --seed "$seed" \
    --rss-slack-mib "$slack"
