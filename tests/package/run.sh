#!/bin/bash
# The package as a user gets it: `make install` of the build into a staged
# DESTDIR, then, without LD_LIBRARY_PATH:
#   - the layout (library and soname links, headers with version.h, CMake and
#     pkg-config files, LICENSE and README with the docs), the log hooks
#     left undefined in the library;
#   - every installed tool runs from there, and from a copy of the tree under
#     another prefix (run path relative to the tool): --help and --version,
#     and has its manual page;
#   - a host built from outside the tree with find_package(linnet);
#   - the README's first client and server, taken from the installed
#     README.md and built with its own command lines (pkg-config and a run
#     path), run against each other, quiet unless LINNET_LOG asks;
#   - two prefixes installed side by side, each removed by its own
#     `make uninstall` without touching the other.
#   run.sh BUILD_DIR PACKAGE_SRC_DIR WORK_DIR VERSION
set -euo pipefail
build_dir=$1 src_dir=$2 work=$3 version=$4
root=$(cd "$src_dir/../.." && pwd)
rm -rf "$work" && mkdir -p "$work"
stage=$work/stage
prefix=/usr/local
other=/opt/linnet
unset LD_LIBRARY_PATH LINNET_LOG
fail() { echo "package: $*" >&2; exit 1; }
install_to() {
    make -s -C "$root" install-files DIST="$build_dir" DESTDIR="$stage" PREFIX="$1" >/dev/null
}
uninstall_from() { make -s -C "$root" uninstall DESTDIR="$stage" PREFIX="$1" >/dev/null; }

install_to "$prefix"
p=$stage$prefix
libdir=$(dirname "$(find "$p" -name 'liblinnet.so.1' | head -1)")
test -L "$libdir/liblinnet.so" && test -L "$libdir/liblinnet.so.1" || fail "soname links missing"
for f in include/linnet/version.h share/doc/linnet/LICENSE share/doc/linnet/README.md; do
    test -f "$p/$f" || fail "$f not installed"
done
for h in "$root"/include/linnet/*.h; do  # every public header of the tree
    test -f "$p/include/linnet/${h##*/}" || fail "include/linnet/${h##*/} not installed"
done
test -f "$libdir/cmake/linnet/linnet-config.cmake" || fail "no CMake package file"
grep -qx 'Requires.private: zlib' "$libdir/pkgconfig/linnet.pc" || fail "linnet.pc does not name zlib"
grep -q "LINNET_VERSION_MAJOR ${version%%.*}\$" "$p/include/linnet/version.h" || fail "version.h"
undefined=$(nm -D --undefined-only "$libdir/liblinnet.so.1")
for hook in dbg_can_log _debug debug_level; do
    grep -qw "$hook" <<<"$undefined" || fail "liblinnet.so.1 does not leave $hook to the host"
done

# Every installed tool answers --help and --version and has its manual
# page; the five below must be there.
tools="linnet-ifaces linnet-routes linnet-echo-server linnet-echo-client linnet-block-server"
check_tools() {
    local bindir=$1 n=0 t name out
    for name in $tools; do
        [ -x "$bindir/$name" ] || fail "$name not installed in $bindir"
    done
    for t in "$bindir"/linnet-*; do
        [ -e "$t" ] || continue
        name=$(basename "$t")
        readelf -d "$t" | grep -q 'RUNPATH.*\$ORIGIN/' || fail "$name has no relative RUNPATH"
        out=$("$t" --help) || fail "$name --help failed (exit $?)"
        [[ $out == "usage: $name"* ]] || fail "$name --help printed: $out"
        out=$("$t" --version) || fail "$name --version failed"
        [ "$out" = "$name $version (liblinnet $version)" ] || fail "$name --version printed: $out"
        [ -f "$bindir/../share/man/man1/$name.1" ] || fail "$name has no manual page in share/man/man1"
        n=$((n + 1))
    done
    "$bindir/linnet-ifaces" >/dev/null || fail "linnet-ifaces did not run from $bindir"
    echo "$n tools ran from $bindir"
}
if [ -d "$p/bin" ]; then
    check_tools "$p/bin"
    # Relocated: the same tree under another prefix.
    cp -a "$p" "$work/elsewhere"
    check_tools "$work/elsewhere/bin"
fi

# CMake gives a host in its build tree a run path to the library.
cmake -S "$src_dir" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$p" >/dev/null
cmake --build "$work/cmake-consumer" >/dev/null
"$work/cmake-consumer/consumer" >/dev/null || fail "the find_package host did not run"
echo "a find_package host built against the install and ran"

# The README's first programs, built by its own command lines.
export PKG_CONFIG_PATH=$libdir/pkgconfig
readme=$p/share/doc/linnet/README.md
hosts=$work/readme
mkdir -p "$hosts"
extract() {  # the fenced block after the line "<!-- example: NAME -->"
    awk -v marker="<!-- example: $1 -->" '
        $0 == marker { state = 1; next }
        state == 1 && /^```/ { state = 2; next }
        state == 2 && /^```/ { exit }
        state == 2 { print }' "$readme" > "$hosts/$1"
    [ -s "$hosts/$1" ] || fail "README.md has no block marked 'example: $1'"
}
for e in client.cpp server.cpp build.sh echo-server.cpp; do extract "$e"; done
(cd "$hosts" && bash -e build.sh) || fail "the README's build commands failed"
c++ -o "$hosts/echo-server" "$hosts/echo-server.cpp" $(pkg-config --cflags --libs linnet) -rdynamic \
    -Wl,-rpath,"$(pkg-config --variable=libdir linnet)" || fail "the README's echo server does not build"
"$hosts/server" 0 >"$hosts/server.out" 2>&1 &
server=$!
trap 'kill $server 2>/dev/null || true' EXIT
port=
for _ in $(seq 100); do  # at most 10 s for the server to listen
    port=$(sed -n 's/^listening on port \([0-9][0-9]*\)$/\1/p' "$hosts/server.out")
    [ -n "$port" ] && break
    kill -0 $server 2>/dev/null || break
    sleep 0.1
done
[ -n "$port" ] || fail "the README's server did not listen: $(cat "$hosts/server.out")"
out=$(timeout 20 "$hosts/client" "$port" 2>"$hosts/client.err") || fail "the README's client failed"
[ "$out" = "hello, linnet" ] || fail "the README's client printed: $out"
[ ! -s "$hosts/client.err" ] || fail "the README's client logged without LINNET_LOG: $(cat "$hosts/client.err")"
LINNET_LOG=11 timeout 20 "$hosts/client" "$port" >/dev/null 2>"$hosts/client.err" || fail "client with LINNET_LOG"
grep -q '^\[11\] ' "$hosts/client.err" || fail "LINNET_LOG=11 printed no trace: $(head -3 "$hosts/client.err")"
kill $server
wait $server 2>/dev/null || true
trap - EXIT
echo "the README's client and server built from its text and talked"

# Two prefixes side by side: each uninstall removes its own files only.
install_to "$other"
before=$(cd "$stage$other" && find . | sort)
uninstall_from "$prefix"
left=$(find "$p" -type f)
[ -z "$left" ] || fail "left after uninstalling $prefix: $left"
[ "$(cd "$stage$other" && find . | sort)" = "$before" ] || fail "uninstalling $prefix changed $other"
uninstall_from "$other"
left=$(find "$stage" -type f)
[ -z "$left" ] || fail "left after uninstall: $left"
echo "two prefixes installed and each uninstalled on its own"
