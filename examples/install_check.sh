#!/bin/sh
# Installs kl into a temporary prefix, then builds examples/build_request against it twice,
# exactly as the README tells a user to: with the CMake package (find_package(kl) with
# CMAKE_PREFIX_PATH) and with pkg-config (PKG_CONFIG_PATH). Each program is then run as it
# stands, without LD_LIBRARY_PATH, and its request must decode to what the in-tree build
# writes. $1 is the build directory.
set -e
build=${1:-build}
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
"$build/examples/build_request" >"$prefix/expected.hex"

# Runs the program $1, checks its status, and compares its request with the expected one.
check_run() {
  if ! "$1" >"$prefix/got.hex"; then
    echo "install-check: $1 did not run" >&2
    exit 1
  fi
  if ! cmp -s "$prefix/got.hex" "$prefix/expected.hex"; then
    echo "install-check: $1 wrote another request" >&2
    exit 1
  fi
  "$build/tools/kl-msg" decode "$prefix/got.hex" >/dev/null
}

cmake -S examples/consumer -B "$prefix/consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/consumer" >/dev/null
check_run "$prefix/consumer/build_request"
echo "find_package(kl): ok"

c++ -std=c++17 examples/build_request.cc \
  $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs kl) -o "$prefix/pc_request"
check_run "$prefix/pc_request"
echo "pkg-config kl: ok"
