# Sourced by the benchmark scripts: puts a section into bench/RESULTS.md.
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
