#!/bin/sh
# The demonstration behind `make demo`. $1 is the CMake build directory.
set -e
build=${1:-build}
msg=$build/tools/kl-msg
req=$build/examples/build_request
loop=$build/examples/loop_demo

echo "== A get-all request built in code, flattened to the wire form (hex):"
$req
echo
echo "== The same bytes decoded by kl-msg and dumped:"
$req | $msg decode
echo
echo "== An error reply written as a field list with kl-msg encode:"
reply=$($msg encode 'u32[]:SYS_TO=1,17' u32:SYS_TYPE=TYPE_REPLY u32:SYS_REQID=42 \
  u32:SYS_STATUS=STATUS_ERROR u32:SYS_ERRNO=ERROR_NOTALLOWED 'string:SYS_ERRSTR=not allowed')
echo "$reply"
echo "$reply" | $msg decode
echo
echo "== A malformed input is refused with one line and status 1:"
if echo "4D 32 01 00 00 21 09" | $msg decode; then exit 1; fi
echo "(exit status 1)"
echo
echo "== The event loop: a timer, a handled signal and a SIGUSR2 snapshot report:"
$loop
echo
sh examples/demo_services.sh "$build"
