#!/bin/bash
# Installs the build into a scratch prefix, then builds and runs two hosts
# from outside the tree: one with find_package(linnet), one with pkg-config.
set -euo pipefail
build_dir=$1 src_dir=$2 work=$3
rm -rf "$work" && mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'liblinnet.so.1' | head -1)")
test -L "$libdir/liblinnet.so" && test -L "$libdir/liblinnet.so.1"

cmake -S "$src_dir" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-consumer" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/cmake-consumer/consumer"

export PKG_CONFIG_PATH=$libdir/pkgconfig
c++ -std=c++17 -o "$work/pc-consumer" "$src_dir/consumer.cpp" $(pkg-config --cflags --libs linnet) -rdynamic
LD_LIBRARY_PATH=$libdir "$work/pc-consumer"
echo "both consumers built against the install and ran"
