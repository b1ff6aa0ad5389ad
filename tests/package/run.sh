#!/bin/bash
# The package as a user gets it: `make install` of the build into a staged
# DESTDIR, then, without LD_LIBRARY_PATH:
#   - the layout (library and soname links, headers with version.h, CMake and
#     pkg-config files, LICENSE and README with the docs);
#   - every installed tool runs from there, and from a copy of the tree under
#     another prefix (run path relative to the tool): --help and --version;
#   - two hosts built from outside the tree, one with find_package(linnet),
#     one with pkg-config;
#   - `make uninstall` removes every file it installed.
#   run.sh BUILD_DIR PACKAGE_SRC_DIR WORK_DIR VERSION
set -euo pipefail
build_dir=$1 src_dir=$2 work=$3 version=$4
root=$(cd "$src_dir/../.." && pwd)
rm -rf "$work" && mkdir -p "$work"
stage=$work/stage
prefix=/usr/local
unset LD_LIBRARY_PATH
fail() { echo "package: $*" >&2; exit 1; }

make -s -C "$root" install-files BUILD="$build_dir" DESTDIR="$stage" PREFIX="$prefix" \
    MANIFEST="$work/manifest" >/dev/null
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

# Every installed tool answers --help and --version; the five below must be
# there.
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

cmake -S "$src_dir" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$p" >/dev/null
cmake --build "$work/cmake-consumer" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/cmake-consumer/consumer"

export PKG_CONFIG_PATH=$libdir/pkgconfig
c++ -std=c++17 -o "$work/pc-consumer" "$src_dir/consumer.cpp" $(pkg-config --cflags --libs linnet) -rdynamic
LD_LIBRARY_PATH=$libdir "$work/pc-consumer"
echo "both consumers built against the install and ran"

make -s -C "$root" uninstall BUILD="$build_dir" DESTDIR="$stage" PREFIX="$prefix" \
    MANIFEST="$work/manifest" >/dev/null
left=$(find "$stage" -type f)
[ -z "$left" ] || fail "left after uninstall: $left"
echo "uninstall removed every installed file"
