# Sourced by the benchmark scripts: what they check before running, and how a section goes
# into bench/RESULTS.md.

# require PROGRAM...: exits with a hint when one of them is not installed.
require() {
    for program in "$@"; do
        if ! command -v "$program" >/dev/null 2>&1; then
            echo "bench: $program is missing; scripts/install-deps.sh installs it" >&2
            exit 1
        fi
    done
}
#
# put_section HEADING SECTION_FILE RESULTS_FILE: the section replaces its earlier self (from its
# heading to the next heading of its level, or the end) or is added at the end; everything else
# in the file stays where it is.
put_section() {
    touch "$3"
    awk -v heading="$1" -v section="$2" '
        function put(   line) { while ((getline line < section) > 0) print line }
        $0 == heading { put(); skipping = 1; done = 1; next }
        skipping && /^## / { skipping = 0; print "" }
        !skipping { print }
        END { if (!done) { print ""; put() } }
    ' "$3" > "$3.new"
    mv "$3.new" "$3"
}
