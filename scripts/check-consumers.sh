#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Copyright (c) the kevrc authors
#
# Builds the C examples the three ways an outside project uses kevrc, each
# outside the source tree, and runs every example once:
#   1. find_package(kevrc) against the installed prefix;
#   2. cc with the flags of pkg-config --cflags --libs kevrc;
#   3. add_subdirectory() of the source tree (only the library is built).
#   check-consumers.sh BUILD_DIR   (a configured and built kevrc tree)
set -eu
[ $# -eq 1 ] || { echo "usage: check-consumers.sh BUILD_DIR" >&2; exit 2; }
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
warnings="-std=c11 -Wall -Wextra -Werror -pedantic"

# Runs both examples built in directory $1.
run_examples() {
  head -c 16000 /dev/urandom | "$1/kevrc_roundtrip" >"$work/decoded.raw"
  [ "$(wc -c <"$work/decoded.raw")" -eq 16000 ] || { echo "check-consumers: $1: round trip lost samples" >&2; exit 1; }
  "$1/kevrc_packet_loss"
}

echo "-- install into $prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

echo "-- find_package(kevrc)"
cmake -S "$src/examples" -B "$work/find_package" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DKEVRC_WERROR=ON >/dev/null
cmake --build "$work/find_package" >/dev/null
LD_LIBRARY_PATH="$prefix/lib:$prefix/lib64" run_examples "$work/find_package"

echo "-- pkg-config"
mkdir -p "$work/pkg-config"
pc_path=$(find "$prefix" -name kevrc.pc -exec dirname {} \;)
flags=$(PKG_CONFIG_PATH="$pc_path" pkg-config --cflags --libs kevrc)
for example in roundtrip packet_loss; do
  # shellcheck disable=SC2086
  cc $warnings -o "$work/pkg-config/kevrc_$example" "$src/examples/$example.c" $flags
done
LD_LIBRARY_PATH="$(PKG_CONFIG_PATH="$pc_path" pkg-config --variable=libdir kevrc)" run_examples "$work/pkg-config"

echo "-- add_subdirectory()"
mkdir -p "$work/subdir"
cat >"$work/subdir/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.21)
project(kevrc_consumer C)
add_subdirectory("$src" kevrc)
add_subdirectory("$src/examples" examples)
CMAKE
cmake -S "$work/subdir" -B "$work/subdir/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEVRC_WERROR=ON >/dev/null
cmake --build "$work/subdir/build" -j2 >/dev/null
run_examples "$work/subdir/build/examples"
echo "check-consumers: all three consumer builds work"
