#!/bin/sh
# Installs every build, test, demo and benchmark dependency from Debian 12's archive.
# Safe to run again: packages already present are left alone and apt is not touched at all
# when nothing is missing.
set -eu

PACKAGES="
build-essential cmake ninja-build pkg-config git ca-certificates
clang libclang-rt-14-dev clang-format
libglib2.0-dev libboost-dev libboost-thread-dev
libcurl4-openssl-dev libssl-dev openssl
libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libavfilter-dev ffmpeg
libjpeg62-turbo-dev libpng-dev libisal-dev libexif-dev libxml2-dev uuid-dev libgphoto2-dev
libheif-dev libwebp-dev libgif-dev libtiff-dev libtag1-dev
libgtest-dev libgmock-dev googletest
libcli11-dev nlohmann-json3-dev libcpp-httplib-dev
imagemagick libimage-exiftool-perl time ffmpegthumbnailer libvips-tools hyperfine
libheif-examples webp libtiff-tools
"

missing=""
for p in $PACKAGES; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $p"
    fi
done

if [ -z "$missing" ]; then
    echo "install-deps: everything is already installed"
    exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
fi
echo "install-deps: installing$missing"
$SUDO env DEBIAN_FRONTEND=noninteractive apt-get update -q
# shellcheck disable=SC2086
$SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $missing
