#!/bin/sh
# The project as a new user meets it: installed into a fresh prefix and run as an ordinary
# user with an empty environment (no QRB_* variable, no HOME). The installed qrb-thumb must make
# a thumbnail of every local kind, the README's app.c built with pkg-config against the prefix
# must get a video frame, a C program calling the identifier functions must link against it
# alone, the desktop thumbnailer entry must work as a file manager calls it,
# and nothing may be left behind in the temporary folder.
#
#   scripts/test-installed.sh BUILD_DIR
#
# Run as root (as CI does), every program under test runs as "nobody"; run as anyone else, as
# that user.
set -eu

. "$(dirname "$0")/installed-user.sh"
[ -s "$RECORDINGS/news.mta" ] || fail "the recording got no key frames"
before=$(leftovers)

TOOL=$PREFIX/bin/qrb-thumb
as_user "$TOOL" -o "$SCRATCH/out" --json "$M/orientation-6-exif-thumbnail.jpg" "$M/picture.png" \
    "$M/picture.bmp" "$M/picture.heic" "$M/picture.webp" "$M/song-with-cover.mp3" \
    "$M/song-id3v22-cover.mp3" "$M/song-wma-cover.wma" "$M/song-with-cover.flac" "$M/clip.mp4" \
    "$M/clip-hevc.mkv" "$RECORDINGS/news.srf" "$M/feature.uvu" \
    "$M/song-without-cover.mp3" > "$SCRATCH/report.json" || true
python3 - "$SCRATCH/report.json" <<'PY' || fail "the installed tool did not answer every kind"
import json, sys
report = json.load(open(sys.argv[1]))
bad = [r for r in report[:-1] if r["status"] != "ok" or not r["outputs"]]
for r in bad: print("  failed:", r["input"], r.get("reason", r.get("note")), file=sys.stderr)
last = report[-1]
if last["status"] != "fail" or last.get("reason") != "no cover art":
    print("  the song without cover art:", last, file=sys.stderr); bad.append(last)
sys.exit(1 if bad or len(report) != 14 else 0)
PY
[ -n "$(find "$SCRATCH/out" -name 'news.srf-0.png')" ] || fail "no key frame thumbnail"

# The README's example, as its reader builds it.
sed -n '/^\/\* app.c \*\//,/^```$/p' "$REPO/README.md" | sed '$d' > "$SCRATCH/app.c"
cc -o "$SCRATCH/app" "$SCRATCH/app.c" \
    $(PKG_CONFIG_PATH=$PREFIX/lib/pkgconfig pkg-config --cflags --libs qrb-thumbnail)
chmod a+rx "$SCRATCH/app"
as_user LD_LIBRARY_PATH="$PREFIX/lib" "$SCRATCH/app" "$M/clip.mp4" video > "$SCRATCH/app.out"
grep -q "clip.mp4: 320x240, 1 image(s)" "$SCRATCH/app.out" || fail "app.c: $(cat "$SCRATCH/app.out")"
as_user LD_LIBRARY_PATH="$PREFIX/lib" "$SCRATCH/app" "$M/gone.mp4" video > "$SCRATCH/app.out"
grep -q "gone.mp4: no thumbnail (no such file)" "$SCRATCH/app.out" || fail "app.c: $(cat "$SCRATCH/app.out")"

# The identifier functions of the public header, linked the same way: from the library that
# pkg-config names, with nothing else on the command line.
cat > "$SCRATCH/uuid.c" <<'EOF'
#include <qrb_thumbnail.h>
#include <stdio.h>

int main(void) {
    char by_time[37], random[37];
    if (qrb_uuid_time(by_time) != 0 || qrb_uuid_random(random) != 0) return 1;
    printf("%s %s\n", by_time, random);
    return 0;
}
EOF
cc -o "$SCRATCH/uuid" "$SCRATCH/uuid.c" \
    $(PKG_CONFIG_PATH=$PREFIX/lib/pkgconfig pkg-config --cflags --libs qrb-thumbnail) \
    || fail "uuid.c does not link against the installed library"
chmod a+rx "$SCRATCH/uuid"
as_user LD_LIBRARY_PATH="$PREFIX/lib" "$SCRATCH/uuid" > "$SCRATCH/uuid.out" || fail "uuid.c failed"
hex='[0-9a-f]'
grep -Eq "^$hex{8}-$hex{4}-1$hex{3}-[89ab]$hex{3}-$hex{12} $hex{8}-$hex{4}-4$hex{3}-[89ab]$hex{3}-$hex{12}\$" \
    "$SCRATCH/uuid.out" || fail "uuid.c: $(cat "$SCRATCH/uuid.out")"

# The thumbnailer entry, its placeholders filled in as a file manager fills them: the longest
# side, the item's URI (percent-escaped), the file to write.
ENTRY=$PREFIX/share/thumbnailers/qrb-thumb.thumbnailer
grep -q '^MimeType=.*image/jpeg;.*audio/mpeg;.*video/mp4;' "$ENTRY" || fail "MIME types missing"
cp "$M/orientation-6-exif-thumbnail.jpg" "$SCRATCH/media/holiday photo.jpg"
chmod a+r "$SCRATCH/media/holiday photo.jpg"
run_entry() {  # SIZE URI OUTPUT
    exec_line=$(sed -n 's/^Exec=//p' "$ENTRY" | sed "s|%s|$1|; s|%u|$2|; s|%o|$3|")
    # shellcheck disable=SC2086
    as_user $exec_line
}
for item in "holiday%20photo.jpg" song-with-cover.mp3 clip-hevc.mkv; do
    run_entry 128 "file://$M/$item" "$SCRATCH/out/entry.png" || fail "entry failed on $item"
    python3 - "$SCRATCH/out/entry.png" "file://$M/$item" "$M/$item" <<'PY' || fail "entry output of $item"
import struct, sys, os, urllib.parse, zlib
data = open(sys.argv[1], "rb").read()
assert data[:8] == b"\x89PNG\r\n\x1a\n"
pos, text = 8, {}
width = height = 0
while pos < len(data):
    n, kind = struct.unpack(">I4s", data[pos:pos + 8]); body = data[pos + 8:pos + 8 + n]
    if kind == b"IHDR": width, height = struct.unpack(">II", body[:8])
    if kind == b"tEXt": k, v = body.split(b"\0", 1); text[k.decode()] = v.decode()
    pos += 12 + n
path = urllib.parse.unquote(sys.argv[3])
assert max(width, height) == 128, (width, height)
assert text.get("Thumb::URI") == sys.argv[2], text
assert text.get("Thumb::MTime") == str(int(os.stat(path).st_mtime)), text
PY
    rm -f "$SCRATCH/out/entry.png"
done
if run_entry 128 "file://$M/song-without-cover.mp3" "$SCRATCH/out/entry.png" 2>/dev/null; then
    fail "the entry succeeded on a song without cover art"
fi
[ ! -e "$SCRATCH/out/entry.png" ] || fail "a failed entry run left a file"

[ "$(leftovers)" -eq "$before" ] || fail "scratch folders were left in /tmp"
echo "test-installed: ok"
