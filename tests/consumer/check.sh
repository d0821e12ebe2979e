#!/bin/sh
# Installs the build into a scratch prefix, then builds and runs the consumer
# once through the CMake package and once through pkg-config.
#   check.sh BUILD_DIR SOURCE_DIR WORK_DIR
set -eu
build=$1
source=$2
work=$3
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" >"$work/install.log"

cmake -S "$source" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >"$work/cmake.log"
cmake --build "$work/cmake" >>"$work/cmake.log"
"$work/cmake/consumer" "$work/run-cmake"

PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --exists korvel
# shellcheck disable=SC2046 # the flags are meant to split
g++ -std=c++17 -o "$work/pkg-consumer" "$source/main.cpp" \
  $(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs korvel) \
  -Wl,-rpath,"$work/prefix/lib"
"$work/pkg-consumer" "$work/run-pkg-config"
