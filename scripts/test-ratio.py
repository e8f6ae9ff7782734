#!/usr/bin/env python3
"""Counts non-blank, non-comment lines of test code against the code it tests.

Test code: *_test.cpp, *_test.c, *_test_support.h, testing/, */testdata/ sources.
Code: every other .cpp/.h/.c. fuzz/ and bench/ count as neither.
Usage: scripts/test-ratio.py [--by-folder] [ROOT]
"""
import os
import re
import sys

SOURCE = (".cpp", ".h", ".c")


def code_lines(text):
    """Lines that hold something besides blanks and comments (strings are respected)."""
    count = 0
    in_block = False
    for line in text.splitlines():
        out = []
        i, n = 0, len(line)
        quote = None
        while i < n:
            c = line[i]
            if in_block:
                if line.startswith("*/", i):
                    in_block = False
                    i += 2
                else:
                    i += 1
                continue
            if quote:
                out.append(c)
                if c == "\\":
                    i += 2
                    continue
                if c == quote:
                    quote = None
                i += 1
                continue
            if line.startswith("//", i):
                break
            if line.startswith("/*", i):
                in_block = True
                i += 2
                continue
            if c in "\"'":
                # R"(...)" raw strings rarely span lines here; treat them as plain strings.
                quote = c
            out.append(c)
            i += 1
        if "".join(out).strip():
            count += 1
    return count


def is_test(rel):
    base = os.path.basename(rel)
    return (re.search(r"_test\.(cpp|c)$", base) is not None
            or base.endswith("_test_support.h")
            or rel.startswith("testing/")
            or "/testdata/" in "/" + rel)


def main():
    args = [a for a in sys.argv[1:] if not a.startswith("--")]
    by_folder = "--by-folder" in sys.argv
    root = args[0] if args else os.path.join(os.path.dirname(__file__), "..")
    totals = {"test": 0, "code": 0}
    folders = {}
    for dirpath, dirnames, filenames in os.walk(root):
        rel_dir = os.path.relpath(dirpath, root)
        dirnames[:] = [d for d in dirnames
                       if not (rel_dir == "." and d in ("fuzz", "bench", "build", "third_party"))
                       and not d.startswith(".") and not d.startswith("build")]
        for name in filenames:
            if not name.endswith(SOURCE):
                continue
            rel = os.path.normpath(os.path.join(rel_dir, name))
            with open(os.path.join(dirpath, name), encoding="utf-8", errors="replace") as f:
                lines = code_lines(f.read())
            kind = "test" if is_test(rel) else "code"
            totals[kind] += lines
            folder = os.path.dirname(rel).replace("/testdata", "")
            folders.setdefault(folder, {"test": 0, "code": 0})[kind] += lines
    if by_folder:
        for folder in sorted(folders):
            t, c = folders[folder]["test"], folders[folder]["code"]
            print(f"{folder:50} test {t:6} code {c:6} ratio {t / c if c else 0:5.2f}")
    t, c = totals["test"], totals["code"]
    print(f"test lines {t}  code lines {c}  ratio {t / c:.2f}")


if __name__ == "__main__":
    main()
