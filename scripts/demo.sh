#!/bin/sh
# make demo: makes sample media with Debian's ImageMagick, exiftool and ffmpeg, runs qrb-thumb
# on all of it and writes a contact sheet to demo-out/index.html.
#
# Inputs that fail are reported, not fatal: the tool's line for each says why. The demo fails
# when making the media fails or when the tool does not end normally (a crash, a bad command
# line).
set -eu

if [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
REPO=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "$1" && pwd)
TOOL=$BUILD/tools/qrb-thumb/qrb-thumb
OUT=$REPO/demo-out
MEDIA=$OUT/media
WORK=$OUT/work

for program in convert exiftool ffmpeg; do
    if ! command -v "$program" >/dev/null 2>&1; then
        echo "demo: $program is missing; scripts/install-deps.sh installs it" >&2
        exit 1
    fi
done
if [ ! -x "$TOOL" ]; then
    echo "demo: $TOOL is not built" >&2
    exit 1
fi

rm -rf "$OUT"
mkdir -p "$MEDIA" "$WORK" "$OUT/root" "$OUT/thumbs"
# Every fixed path of the library lands under this folder instead of the device's.
QRB_ROOT=$OUT/root
export QRB_ROOT

# The video getter opens the media-framework plug-ins at run time; use the build's when it
# has made them.
find "$BUILD" -name 'libgst*ffmpeg*.so' -not -path '*testdata*' | while read -r plugin; do
    mkdir -p "$QRB_ROOT/usr/lib/gstreamer-1.0"
    cp "$plugin" "$QRB_ROOT/usr/lib/gstreamer-1.0/"
done

echo "demo: making sample media in $MEDIA"
RECORDINGS=$OUT/recordings
FFMPEG="ffmpeg -hide_banner -loglevel error -nostdin -y"
"$REPO/scripts/make-media.sh" "$BUILD" "$MEDIA" "$RECORDINGS" "$WORK"

# A DLNA item: its server offers a side file (MTA) holding five chapter pictures as base64 JPEG
# with their start times. The pictures are frames of the demo clip; the file is served from
# 127.0.0.1 by Python's HTTP server, and the item is named "local path;MTA URI;MIME type".
DLNA=$OUT/dlna-server
mkdir -p "$DLNA" "$WORK/dlna"
{
    printf '<?xml version="1.0" encoding="UTF-8"?>\n<MediaInformation>\n'
    printf '<ContentInformation><Chaptering>\n'
    for chapter in 0 1 2 3 4; do
        $FFMPEG -ss "$((chapter * 8 / 10)).$((chapter * 8 % 10))" -i "$MEDIA/clip.mp4" \
            -frames:v 1 -vf scale=320:-2 "$WORK/dlna/chapter-$chapter.jpg"
        printf '<ChapterSegment><KeyFrame><InlineMedia>'
        base64 -w 0 "$WORK/dlna/chapter-$chapter.jpg"
        printf '</InlineMedia></KeyFrame><MediaPosition><MediaTime timePoint="%d"/>' \
            $((chapter * 800))
        printf '</MediaPosition></ChapterSegment>\n'
    done
    printf '</Chaptering></ContentInformation>\n</MediaInformation>\n'
} > "$DLNA/clip.mta"
python3 -u -m http.server --bind 127.0.0.1 --directory "$DLNA" 0 > "$WORK/dlna-server.log" 2>&1 &
DLNA_SERVER=$!
trap 'kill "$DLNA_SERVER" 2>/dev/null || true' EXIT INT TERM
DLNA_ITEM=
for _ in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do
    port=$(sed -n 's/.* port \([0-9][0-9]*\).*/\1/p' "$WORK/dlna-server.log" | head -n 1)
    if [ -n "$port" ]; then
        DLNA_ITEM="$WORK/dlna/clip.mta;http://127.0.0.1:$port/clip.mta;text/xml"
        break
    fi
    sleep 0.25
done
[ -n "$DLNA_ITEM" ] || echo "demo: the DLNA server did not start; the DLNA item is skipped"

# A camera attached over PTP, simulated: qrb-test-camera serves a folder of pictures over PTP/IP
# on 127.0.0.1, each with its EXIF thumbnail (which carries the picture's orientation, as a
# turned camera would write it), and the library's MTP client reaches it as USB device 001;002
# because QRB_PTPIP_CAMERA names it. qrb-ptp-list lists it through the PTP manager; the
# pictures' URIs go to the tool with the other inputs. libgphoto2 keeps a settings file under
# HOME, which points into the demo's folder from here on.
CAMERA=$BUILD/testing/qrb-test-camera
LISTER=$BUILD/libqrb-thumbnail/qrb-ptp-list
CAMERA_PID=
PTP_ITEMS=
if [ -x "$CAMERA" ] && [ -x "$LISTER" ]; then
    mkdir -p "$OUT/camera/DCIM/100DEMO" "$OUT/camera/DCIM/101DEMO" "$OUT/home" "$WORK/ptp"
    : > "$WORK/ptp/exiftool.args"
    for n in 1 3 6 8; do
        case $n in 1) turn="" ;; 3) turn="-rotate 180" ;; 6) turn="-rotate 270" ;; 8) turn="-rotate 90" ;; esac
        folder=100DEMO
        [ "$n" -gt 3 ] && folder=101DEMO
        # shellcheck disable=SC2086
        convert -size 640x480 gradient:'#0f2027-#2c5364' \
            -fill '#e67e22' -draw 'rectangle 24,24 224,124' \
            -fill white -draw 'polygon 320,60 390,210 250,210' -draw 'rectangle 300,210 340,400' \
            $turn -quality 90 "$OUT/camera/DCIM/$folder/IMG_000$n.JPG"
        convert "$OUT/camera/DCIM/$folder/IMG_000$n.JPG" -resize 160x160 -strip -quality 80 \
            "$WORK/ptp/thumb-$n.jpg"
        printf -- '-overwrite_original\n-n\n-Orientation=%s\n%s\n-execute\n' \
            "$n" "$WORK/ptp/thumb-$n.jpg" >> "$WORK/ptp/exiftool.args"
        printf -- '-overwrite_original\n-n\n-Orientation=%s\n-ThumbnailImage<=%s\n%s\n-execute\n' \
            "$n" "$WORK/ptp/thumb-$n.jpg" "$OUT/camera/DCIM/$folder/IMG_000$n.JPG" \
            >> "$WORK/ptp/exiftool.args"
    done
    exiftool -q -q -@ "$WORK/ptp/exiftool.args" >/dev/null
    "$CAMERA" --ready "$WORK/ptp/camera.ready" "$OUT/camera" > "$WORK/ptp/camera.log" 2>&1 &
    CAMERA_PID=$!
    trap 'kill ${DLNA_SERVER:-} ${CAMERA_PID:-} 2>/dev/null || true' EXIT INT TERM
    for _ in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do
        [ -s "$WORK/ptp/camera.ready" ] && break
        sleep 0.25
    done
    if [ -s "$WORK/ptp/camera.ready" ]; then
        QRB_PTPIP_CAMERA=$(cat "$WORK/ptp/camera.ready")
        HOME=$OUT/home
        export QRB_PTPIP_CAMERA HOME
        echo "demo: the simulated camera at $QRB_PTPIP_CAMERA, as the PTP manager lists it:"
        if "$LISTER" 1 2 > "$WORK/ptp/camera.list"; then
            sed 's/^/    /' "$WORK/ptp/camera.list"
            PTP_ITEMS=$(awk -F '\t' '$2 != "-" { print $2 }' "$WORK/ptp/camera.list")
        else
            echo "demo: listing the simulated camera failed; its pictures are skipped"
        fi
    else
        echo "demo: the simulated camera did not start; its pictures are skipped"
    fi
else
    echo "demo: $CAMERA or $LISTER is not built; the camera is skipped"
fi

count=$(find "$MEDIA" "$RECORDINGS" -type f -not -name '*.mta' | wc -l)
echo "demo: $count files made; asking qrb-thumb for thumbnails"

# Not "set -e" here: failed inputs end the tool with 1, which the demo reports. The camera's
# items are URIs without spaces, one per word.
status=0
# shellcheck disable=SC2086
"$TOOL" -s 320x240 -n 3 -o "$OUT/thumbs" --sheet "$OUT/index.html" "$MEDIA"/* \
    "$RECORDINGS"/*.srf ${DLNA_ITEM:+"$DLNA_ITEM"} $PTP_ITEMS || status=$?
kill "$DLNA_SERVER" 2>/dev/null || true
[ -z "$CAMERA_PID" ] || kill "$CAMERA_PID" 2>/dev/null || true
case $status in
    0)
        echo "demo: every input has its thumbnail" ;;
    1)
        echo "demo: some inputs failed; the lines above say which and why" \
            "(song-without-cover.mp3 has no cover art on purpose)" ;;
    *)
        echo "demo: qrb-thumb ended abnormally (status $status)" >&2
        exit 1 ;;
esac
echo "demo: contact sheet: $OUT/index.html"
if [ -f "$OUT/thumbs/feature.uvu-0.png" ]; then
    echo "demo: the content package's poster: $OUT/thumbs/feature.uvu-0.png"
fi
