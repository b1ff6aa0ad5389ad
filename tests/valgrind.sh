#!/bin/bash
# Runs every test binary of a plain (non-sanitizer) build under valgrind
# memcheck. A binary fails on a definite leak, an invalid access or a failed
# test; heavy tests shrink with LINNET_TEST_SCALE (default 8 here).
#   tests/valgrind.sh BUILD_DIR        logs go to BUILD_DIR/valgrind/
# VALGRIND_JOBS (default 2) binaries run side by side.
set -u
build=${1:?usage: tests/valgrind.sh BUILD_DIR}
here=$(cd "$(dirname "$0")" && pwd)
command -v valgrind >/dev/null || { echo "valgrind is not installed" >&2; exit 2; }
if grep -q '^LINNET_SANITIZE:BOOL=ON' "$build/CMakeCache.txt" 2>/dev/null; then
    echo "$build is a sanitizer build; valgrind needs a plain one" >&2
    exit 2
fi
shopt -s nullglob
bins=("$build"/tests/*_test)
[ ${#bins[@]} -gt 0 ] || { echo "no test binaries under $build/tests" >&2; exit 2; }
logs="$build/valgrind"
mkdir -p "$logs"
export LINNET_TEST_SCALE=${LINNET_TEST_SCALE:-8}

run_one() {
    local bin=$1 name log start rc secs verdict
    name=$(basename "$bin")
    log="$logs/$name.log"
    start=$(date +%s%N)
    timeout 900 valgrind --tool=memcheck --error-exitcode=99 --leak-check=full \
        --errors-for-leak-kinds=definite --suppressions="$here/valgrind.supp" \
        --num-callers=30 "$bin" >"$log" 2>&1
    rc=$?
    secs=$(( ($(date +%s%N) - start) / 100000000 ))
    case $rc in
        0)   verdict=ok ;;
        99)  verdict="FAILED: memcheck errors (definite leak or invalid access)" ;;
        124) verdict="FAILED: timed out" ;;
        *)   verdict="FAILED: exit code $rc" ;;
    esac
    printf '%-24s %5d.%d s  %s\n' "$name" $((secs / 10)) $((secs % 10)) "$verdict"
    echo "$rc" >"$logs/$name.rc"
}

# Longest first, so that the side-by-side runs end together.
order=()
for heavy in stream_test compressedsocket_test exchange_test tcpsocket_test qfiletransf_test; do
    [ -x "$build/tests/$heavy" ] && order+=("$build/tests/$heavy")
done
for bin in "${bins[@]}"; do
    [[ " ${order[*]} " == *" $bin "* ]] || order+=("$bin")
done

start=$(date +%s)
rm -f "$logs"/*.rc
for bin in "${order[@]}"; do
    while [ "$(jobs -rp | wc -l)" -ge "${VALGRIND_JOBS:-2}" ]; do wait -n; done
    run_one "$bin" &
done
wait
failed=0
for bin in "${order[@]}"; do
    [ "$(cat "$logs/$(basename "$bin").rc" 2>/dev/null)" = 0 ] || failed=1
done
echo "valgrind: ${#order[@]} binaries in $(( $(date +%s) - start )) s, logs in $logs"
if [ $failed -ne 0 ]; then echo "valgrind: FAILED" >&2; exit 1; fi
echo "valgrind: passed"
