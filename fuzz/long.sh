#!/bin/sh
# Fuzzing at depth: every target of a fuzz build runs for SECONDS (default 600) with the memory
# and time limits below, what it finds new is merged into its kept corpus (fuzz/corpus/<name>,
# minimised), crash, leak and timeout inputs are kept in BUILD_DIR/fuzz/findings/, and a table
# of targets, executions, coverage and findings is printed at the end.
#   fuzz/long.sh BUILD_DIR [SECONDS] [TARGET...]
# Not part of CI: `make fuzz-long` (FUZZ_SECONDS=...) runs it.
set -eu
build=${1:?usage: fuzz/long.sh BUILD_DIR [SECONDS] [TARGET...]}
seconds=${2:-600}
[ $# -ge 2 ] && shift 2 || shift $#
here=$(cd "$(dirname "$0")" && pwd)
work="$build/fuzz/long"
findings="$build/fuzz/findings"
mkdir -p "$work" "$findings"
table="$work/table.md"
printf '| target | seconds | executions | coverage (edges) | corpus files | findings |\n' >"$table"
printf '|---|---|---|---|---|---|\n' >>"$table"

failed=""
for target in "$build"/fuzz/qrb_*_fuzz; do
    [ -x "$target" ] || continue
    name=$(basename "$target")
    if [ $# -gt 0 ]; then
        case " $* " in *" $name "*) ;; *) continue ;; esac
    fi
    corpus=${name#qrb_}
    corpus=${corpus%_fuzz}
    kept="$here/corpus/$corpus"
    fresh="$work/$corpus"
    log="$work/$corpus.log"
    mkdir -p "$kept" "$fresh"
    before=$(find "$findings" -name "$corpus-*" | wc -l)
    echo "== $name: ${seconds}s"
    status=0
    "$target" -max_total_time="$seconds" -rss_limit_mb=1024 -malloc_limit_mb=512 -timeout=10 \
        -print_final_stats=1 -artifact_prefix="$findings/$corpus-" "$fresh" "$kept" \
        >"$log" 2>&1 || status=$?
    [ "$status" -eq 0 ] || failed="$failed $name"
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    cov=$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$log" | tail -n 1)
    # The kept corpus becomes the smallest set that covers what it and the new inputs cover.
    merged="$work/$corpus.merged"
    rm -rf "$merged"
    mkdir -p "$merged"
    if "$target" -merge=1 -rss_limit_mb=1024 -timeout=10 "$merged" "$kept" "$fresh" \
        >>"$log" 2>&1; then
        # Named files (seeds made by hand or by tools, kept reproducers) stay whatever they
        # add; only the files libFuzzer named by their hash are replaced by the merged set.
        # (The merged files are named by the SHA-1 of their bytes: a named file's copy is skipped.)
        find "$kept" -type f -regextype posix-extended -regex '.*/[0-9a-f]{40}' -delete
        named=$(find "$kept" -type f -exec sha1sum {} + | cut -d' ' -f1 | tr '\n' ' ')
        for file in "$merged"/*; do
            [ -e "$file" ] || continue
            case " $named " in *" $(basename "$file") "*) continue ;; esac
            cp "$file" "$kept/"
        done
    fi
    rm -rf "$merged"
    files=$(find "$kept" -type f | wc -l)
    after=$(find "$findings" -name "$corpus-*" | wc -l)
    printf '| %s | %s | %s | %s | %s | %s |\n' "$name" "$seconds" "${runs:-?}" "${cov:-?}" \
        "$files" "$((after - before))" >>"$table"
done
echo
cat "$table"
if [ -n "$failed" ]; then
    echo "fuzz-long: findings in:$failed (inputs in $findings; logs in $work)" >&2
    exit 1
fi
