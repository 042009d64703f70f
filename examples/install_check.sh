#!/bin/sh
# Installs kl into a temporary prefix, then builds examples/build_request against it twice:
# with the CMake package (find_package(kl)) and with pkg-config. $1 is the build directory.
set -e
build=${1:-build}
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null

cmake -S examples/consumer -B "$prefix/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/consumer" >/dev/null
LD_LIBRARY_PATH="$prefix/lib" "$prefix/consumer/build_request" | "$build/tools/kl-msg" decode >/dev/null
echo "find_package(kl): ok"

PKG_CONFIG_PATH="$prefix/lib/pkgconfig" c++ -std=c++17 examples/build_request.cc \
  $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs kl) -o "$prefix/pc_request"
LD_LIBRARY_PATH="$prefix/lib" "$prefix/pc_request" | "$build/tools/kl-msg" decode >/dev/null
echo "pkg-config kl: ok"
