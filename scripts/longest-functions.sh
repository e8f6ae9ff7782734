#!/bin/sh
# Lists the longest functions of the tree (lines from signature to closing brace), longest
# first: `scripts/longest-functions.sh [COUNT] [PATH...]`. Tests are left out. Needs Universal
# Ctags (Debian package universal-ctags).
set -eu
count=${1:-20}
[ $# -gt 0 ] && shift
command -v ctags >/dev/null 2>&1 || { echo "longest-functions: install universal-ctags" >&2; exit 2; }
cd "$(dirname "$0")/.."
git ls-files -- "${@:-.}" | grep -E '\.(c|cc|cpp|h)$' | grep -v '_test\.' |
  xargs ctags -x --language-force=C++ --c++-kinds=fp --fields=+ne \
    --_xformat='%{end} %{line} %F %N' 2>/dev/null |
  awk '$1 ~ /^[0-9]+$/ { print $1 - $2 + 1, $3 ":" $2, $4 }' | sort -rn | head -n "$count"
