#!/bin/sh
# Builds examples/build_request against an installed kl twice, exactly as the README tells a
# user to: with the CMake package (find_package(kl)) and with pkg-config. Each program is
# then run as it stands, without LD_LIBRARY_PATH, and its request must decode to what the
# in-tree build writes. $1 is the build directory.
#
# By default kl is installed into a temporary prefix (cmake --install). With
# --packages DIR, the Debian packages in DIR (libkl0, libkl-dev, kl-tools) are installed
# with dpkg instead, the programs are built against /usr, and the packages are removed at
# the end; this needs root.
set -e
build=${1:-build}
packages=
if [ "$2" = --packages ]; then
  packages=$3
fi
work=$(mktemp -d)
if [ -n "$packages" ]; then
  prefix=/usr
  trap 'dpkg -r kl-tools libkl-dev libkl0 >/dev/null; rm -rf "$work"' EXIT
  dpkg -i "$packages"/libkl0_*.deb "$packages"/libkl-dev_*.deb "$packages"/kl-tools_*.deb \
    >/dev/null
  kl_msg=/usr/bin/kl-msg
  where=packages
else
  prefix=$work/prefix
  trap 'rm -rf "$work"' EXIT
  cmake --install "$build" --prefix "$prefix" >/dev/null
  kl_msg=$build/tools/kl-msg
  where=install
fi
"$build/examples/build_request" >"$work/expected.hex"

# Runs the program $1, checks its status, and compares its request with the expected one.
check_run() {
  if ! "$1" >"$work/got.hex"; then
    echo "$where-check: $1 did not run" >&2
    exit 1
  fi
  if ! cmp -s "$work/got.hex" "$work/expected.hex"; then
    echo "$where-check: $1 wrote another request" >&2
    exit 1
  fi
  "$kl_msg" decode "$work/got.hex" >/dev/null
}

cmake -S examples/consumer -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
check_run "$work/consumer/build_request"
echo "find_package(kl): ok"

c++ -std=c++17 examples/build_request.cc \
  $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs kl) -o "$work/pc_request"
check_run "$work/pc_request"
echo "pkg-config kl: ok"
