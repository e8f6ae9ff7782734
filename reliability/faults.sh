#!/bin/sh
# Faults of the machine the library runs on, met by the installed qrb-thumb run as an ordinary
# user, each with the library's root (QRB_ROOT) at a folder of the case's own: a read-only data
# folder, one that is missing and cannot be made, a full one, a video folder that is a link to
# another folder, and a plug-in folder holding a broken file or a foreign library. In every case
# the tool ends by itself (never by a signal), each input gets the answer listed for it (ok, or
# a failure whose reason begins as listed), no file is left in the library's folders, nothing
# that was there is lost, and no scratch folder is left in /tmp.
#
#   reliability/faults.sh BUILD_DIR
set -eu
. "$(dirname "$0")/../scripts/installed-user.sh"
TOOL=$PREFIX/bin/qrb-thumb
DATA=opt/usr/apps/orvale/data
before=$(leftovers)
INPUTS="$M/picture.png $M/song-with-cover.mp3 $M/clip.mp4 $RECORDINGS/news.srf $M/feature.uvu"

# new_root NAME: a root of its own for a case, holding the installed media plug-ins and a data
# folder that the user may write.
new_root() {
    R=$SCRATCH/roots/$1
    mkdir -p "$R/usr/lib/gstreamer-1.0" "$R/$DATA"
    cp "$PREFIX"/lib/gstreamer-1.0/*.so "$R/usr/lib/gstreamer-1.0/"
    if [ "$(id -u)" -eq 0 ]; then chown nobody "$R/$DATA"; fi
}

# check NAME EXPECTED...: runs the tool on INPUTS under the case's root; one EXPECTED word per
# input ("ok", or the beginning of the failure's reason with "_" for spaces).
check() {
    name=$1
    shift
    chmod -R a+rX "$R"
    status=0
    # shellcheck disable=SC2086
    as_user QRB_ROOT="$R" "$TOOL" -o "$SCRATCH/out" --json $INPUTS > "$SCRATCH/$name.json" \
        2> "$SCRATCH/$name.log" || status=$?
    [ "$status" -le 1 ] || fail "$name: the tool ended with status $status: $(tail -n 3 "$SCRATCH/$name.log")"
    python3 - "$SCRATCH/$name.json" "$@" <<'PY' || fail "$name: wrong answers"
import json, sys
report, expected = json.load(open(sys.argv[1])), sys.argv[2:]
bad = 0
for r, want in zip(report, expected):
    got = "ok" if r["status"] == "ok" else (r.get("reason") or "")
    if (want == "ok") != (got == "ok") or not got.startswith(want.replace("_", " ")):
        print(f"  {r['input']}: {got!r}, expected {want!r}", file=sys.stderr)
        bad += 1
sys.exit(1 if bad or len(report) != len(expected) else 0)
PY
    left=$(find "$R" -type f ! -path "$R/usr/lib/gstreamer-1.0/*" ! -path "$R/victim/*" ! -name filler | wc -l)
    [ "$left" -eq 0 ] || fail "$name: files were left: $(find "$R" -type f | head -n 5)"
    rm -f "$SCRATCH/out"/*
}

# The data folder read-only, or missing under a folder where it cannot be made: what needs no
# scratch file is made; what does fails and says why.
new_root read-only
chmod 555 "$R/$DATA"
check read-only ok cannot_write ok ok cannot_write
new_root missing
rmdir "$R/$DATA" "$(dirname "$R/$DATA")"
chmod 555 "$R/opt/usr/apps"
check missing ok cannot_write ok ok cannot_write

# The video folder a link to a folder elsewhere: the start-up clean-up of the video folder
# removes nothing through the link.
new_root linked-video
mkdir -p "$R/victim"
echo keep > "$R/victim/keep.txt"
ln -s "$R/victim" "$R/$DATA/video"
check linked-video ok ok ok ok ok
[ -f "$R/victim/keep.txt" ] || fail "linked-video: a file behind the link was removed"

# A broken file and a foreign library where the media plug-ins belong: videos fail and say so.
for plugin in broken foreign; do
    new_root "$plugin-plugin"
    if [ "$plugin" = broken ]; then
        head -c 4096 /dev/urandom > "$R/usr/lib/gstreamer-1.0/libgstffmpeg.so"
    else
        cp "$(find /lib /usr/lib -name 'libz.so.1' | head -n 1)" "$R/usr/lib/gstreamer-1.0/libgstffmpeg.so"
    fi
    check "$plugin-plugin" ok ok media_plug-ins_missing ok ok
done

# A full data folder: a small file system, filled up, where root may mount one.
new_root full
if [ "$(id -u)" -eq 0 ] && mount -t tmpfs -o size=256k,mode=0755 tmpfs "$R/$DATA" 2>/dev/null; then
    trap 'umount "$R/$DATA" 2>/dev/null; rm -rf "$SCRATCH"' EXIT INT TERM
    chown nobody "$R/$DATA"
    as_user sh -c "head -c 1048576 /dev/zero > '$R/$DATA/filler'" 2>/dev/null || true
    check full ok cannot_write ok ok cannot_write
else
    echo "faults: no small file system could be mounted; the full data folder is not tried"
fi

[ "$(leftovers)" -eq "$before" ] || fail "scratch folders were left in /tmp"
echo "faults: ok"
