#!/bin/bash
# The package as a user gets it, installed into a staged DESTDIR and used
# without LD_LIBRARY_PATH: its layout and undefined log hooks; every tool
# (--help, --version, manual page) from the prefix and from a copy elsewhere
# (relative run path); a find_package host; the README's client and server
# built by its own commands and run, quiet unless LINNET_LOG asks; and two
# prefixes side by side, each removed by its own `make uninstall`.
#   run.sh BUILD_DIR PACKAGE_SRC_DIR WORK_DIR VERSION
set -euo pipefail
build_dir=$1 src_dir=$2 work=$3 version=$4
root=$(cd "$src_dir/../.." && pwd)
rm -rf "$work" && mkdir -p "$work"
stage=$work/stage prefix=/usr/local other=/opt/linnet
unset LD_LIBRARY_PATH LINNET_LOG
fail() { echo "package: $*" >&2; exit 1; }
install_to() { make -s -C "$root" install-files DIST="$build_dir" DESTDIR="$stage" PREFIX="$1" >/dev/null; }
uninstall_from() { make -s -C "$root" uninstall DESTDIR="$stage" PREFIX="$1" >/dev/null; }

install_to "$prefix"
p=$stage$prefix
libdir=$(dirname "$(find "$p" -name 'liblinnet.so.1' | head -1)")
test -L "$libdir/liblinnet.so" && test -L "$libdir/liblinnet.so.1" || fail "soname links missing"
for f in include/linnet/version.h share/doc/linnet/LICENSE share/doc/linnet/README.md "$root"/include/linnet/*.h; do
    f=${f#"$root/"}
    test -f "$p/$f" || fail "$f not installed"
done
test -f "$libdir/cmake/linnet/linnet-config.cmake" || fail "no CMake package file"
grep -qx 'Requires.private: zlib' "$libdir/pkgconfig/linnet.pc" || fail "linnet.pc does not name zlib"
grep -q "LINNET_VERSION_MAJOR ${version%%.*}\$" "$p/include/linnet/version.h" || fail "version.h"
undefined=$(nm -D --undefined-only "$libdir/liblinnet.so.1")
for hook in dbg_can_log _debug debug_level; do
    grep -qw "$hook" <<<"$undefined" || fail "liblinnet.so.1 does not leave $hook to the host"
done

check_tools() {  # the five named must be there
    local bindir=$1 n=0 t name out
    for name in linnet-ifaces linnet-routes linnet-echo-server linnet-echo-client linnet-block-server; do
        [ -x "$bindir/$name" ] || fail "$name not installed in $bindir"
    done
    for t in "$bindir"/linnet-*; do
        name=$(basename "$t")
        readelf -d "$t" | grep -q 'RUNPATH.*\$ORIGIN/' || fail "$name has no relative RUNPATH"
        out=$("$t" --help) && [[ $out == "usage: $name"* ]] || fail "$name --help: $out"
        out=$("$t" --version) && [ "$out" = "$name $version (liblinnet $version)" ] || fail "$name --version: $out"
        [ -f "$bindir/../share/man/man1/$name.1" ] || fail "$name has no manual page in share/man/man1"
        n=$((n + 1))
    done
    "$bindir/linnet-ifaces" >/dev/null || fail "linnet-ifaces did not run from $bindir"
    echo "$n tools ran from $bindir"
}
if [ -d "$p/bin" ]; then
    check_tools "$p/bin"
    cp -a "$p" "$work/elsewhere" && check_tools "$work/elsewhere/bin"
fi

cmake -S "$src_dir" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$p" >/dev/null
cmake --build "$work/cmake-consumer" >/dev/null
"$work/cmake-consumer/consumer" >/dev/null || fail "the find_package host did not run"
echo "a find_package host built against the install and ran"

export PKG_CONFIG_PATH=$libdir/pkgconfig
hosts=$work/readme
mkdir -p "$hosts"
for e in client.cpp server.cpp build.sh echo-server.cpp; do  # the fenced block after "<!-- example: NAME -->"
    awk -v marker="<!-- example: $e -->" '$0 == marker { s = 1; next } s == 1 && /^```/ { s = 2; next }
        s == 2 && /^```/ { exit } s == 2 { print }' "$p/share/doc/linnet/README.md" > "$hosts/$e"
    [ -s "$hosts/$e" ] || fail "README.md has no block marked 'example: $e'"
done
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
out=$(timeout 20 "$hosts/client" "$port" 2>"$hosts/client.err") && [ "$out" = "hello, linnet" ] ||
    fail "the README's client printed: $out"
[ ! -s "$hosts/client.err" ] || fail "the README's client logged without LINNET_LOG: $(cat "$hosts/client.err")"
LINNET_LOG=11 timeout 20 "$hosts/client" "$port" >/dev/null 2>"$hosts/client.err" || fail "client with LINNET_LOG"
grep -q '^\[11\] ' "$hosts/client.err" || fail "LINNET_LOG=11 printed no trace: $(head -3 "$hosts/client.err")"
echo "the README's client and server built from its text and talked"

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
