#!/bin/bash
# Prints the demangled symbols liblinnet.so exports, one per line, sorted.
# Weak symbols (W, u: standard-library template instances) are left out:
# which of them an optimiser emits is not part of linnet's API.
# Usage: symbols.sh LIB            print
#        symbols.sh LIB FILE       fail (with a diff) unless FILE lists exactly these
set -euo pipefail
lib=$1
current=$(nm -DC --defined-only "$lib" | awk '$2 !~ /^[Wwu]$/' | cut -d' ' -f3- | LC_ALL=C sort -u)
if [ $# -lt 2 ]; then
    printf '%s\n' "$current"
    exit 0
fi
if ! diff -u "$2" <(printf '%s\n' "$current"); then
    echo "the exported API changed: review, then run 'make abi' to record it" >&2
    exit 1
fi
