# Sourced by the scripts that test the project as an ordinary user meets it (scripts/test-installed.sh,
# reliability/faults.sh), with BUILD_DIR as $1: installs the build into a fresh prefix under a
# scratch folder removed on exit, makes the sample media there, readable by anyone, and defines
#   as_user COMMAND...  runs COMMAND with an empty environment (PATH only), as "nobody" when
#                       run as root (as CI is), else as the caller;
#   leftovers           the number of the library's scratch folders of that user in /tmp;
#   fail MESSAGE        reports and exits 1.
# It sets REPO, BUILD, SCRATCH, PREFIX, M (the media folder) and RECORDINGS.
REPO=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "$1" && pwd)
SCRATCH=$(mktemp -d /tmp/qrb-installed-test.XXXXXX)
trap 'rm -rf "$SCRATCH"' EXIT INT TERM
chmod 755 "$SCRATCH"
PREFIX=$SCRATCH/prefix
fail() { echo "$(basename "$0"): $*" >&2; exit 1; }

cmake --install "$BUILD" --prefix "$PREFIX" >/dev/null

# The sample media. The stand-in recorder hands the recording's key frames over; it writes its
# scratch files under a root of its own.
M=$SCRATCH/media
RECORDINGS=$SCRATCH/recordings
QRB_ROOT=$SCRATCH/recorder-root "$REPO/scripts/make-media.sh" "$BUILD" "$M" "$RECORDINGS" \
    "$SCRATCH/work" >/dev/null
mkdir -p "$SCRATCH/out"
chmod -R a+rX "$SCRATCH"

if [ "$(id -u)" -eq 0 ]; then
    as_user() { setpriv --reuid=nobody --regid=nogroup --clear-groups env -i PATH=/usr/bin:/bin "$@"; }
    chown nobody "$SCRATCH/out"
else
    as_user() { env -i PATH=/usr/bin:/bin "$@"; }
fi
leftovers() { find /tmp -maxdepth 1 -name 'qrb-thumbnail-*' -user "$(as_user id -u)" | wc -l; }
