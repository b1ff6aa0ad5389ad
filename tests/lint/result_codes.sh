#!/bin/bash
# The library's negative results have names (source/results.h) and every
# errno becomes a result through sys::failure(): a bare negative literal or
# a hand-negated errno anywhere else in source/ fails this check, and so
# does a numbered step code (kStepN) outside the block server.
# Usage: result_codes.sh SOURCE_DIR
set -u
src=${1:?source directory}
found=$(grep -rnE --include='*.cpp' --include='*.h' \
          '([^A-Za-z0-9_]-[0-9]+|[^A-Za-z0-9_]-E[A-Z]{2,}\b|-errno|-err\b|-e\b|-o\.err\b)' "$src" |
        grep -v "^$src/results.h:" |
        grep -v "^$src/socket/sockops.h:.*inline int failure(int err)" |
        grep -vE '^[^:]+:[0-9]+:\s*//' |
        sed -E 's#//.*$##' |
        grep -E '([^A-Za-z0-9_]-[0-9]+|[^A-Za-z0-9_]-E[A-Z]{2,}\b|-errno|-err\b|-e\b|-o\.err\b)')
if [ -n "$found" ]; then
    echo "bare result codes outside source/results.h:"
    echo "$found"
    exit 1
fi
# A result says what failed: no numbered step codes.
steps=$(grep -rnwE --include='*.cpp' --include='*.h' 'kStep[0-9]+' "$src")
if [ -n "$steps" ]; then
    echo "numbered step codes where a named result belongs:"
    echo "$steps"
    exit 1
fi
echo "no bare result code in $src"
