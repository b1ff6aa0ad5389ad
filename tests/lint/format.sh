#!/bin/bash
# Fails when a C++ file of the tree differs from what clang-format makes of
# it (the style is .clang-format at the top). Lists the files that differ.
set -uo pipefail
cd "$(dirname "$0")/../.."
command -v clang-format >/dev/null || { echo "clang-format not installed"; exit 1; }
bad=0
while IFS= read -r f; do
    if ! clang-format --style=file --dry-run --Werror "$f" >/dev/null 2>&1; then
        echo "not formatted: $f"
        bad=1
    fi
done < <(git ls-files '*.cpp' '*.h' 2>/dev/null || find source include tests bench examples fuzz -name '*.cpp' -o -name '*.h')
exit $bad
