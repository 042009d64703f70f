#!/bin/sh
# The demonstration behind `make demo`: services talking through kl-loader, then messages,
# the event loop and logging one by one. $1 is the CMake build directory.
set -e
build=${1:-build}
msg=$build/tools/kl-msg
req=$build/examples/build_request
loop=$build/examples/loop_demo

# First what a service is for: services talking through the development loader.
sh examples/demo_services.sh "$build"
echo

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
echo "== Logging: kl-logd (topic 3 muted) prints what log_demo writes through kl::lstream:"
logd=$build/tools/kl-logd
logdemo=$build/examples/log_demo
logroot=$(mktemp -d)
KL_ROOT=$logroot $logd --mute 3 </dev/null >"$logroot/logd.out" 2>&1 &
logd_pid=$!
trap 'kill "$logd_pid" 2>/dev/null || true; rm -rf "$logroot"' EXIT
# Waits (at most 5 s) until kl-logd's output holds $1.
await() {
  tries=0
  until grep -q "$1" "$logroot/logd.out"; do
    tries=$((tries + 1))
    if [ $tries -gt 100 ]; then echo "kl-logd: no '$1' in its output" >&2; exit 1; fi
    sleep 0.05
  done
}
await "listening on"
echo "-- log_demo (its echoed stream and what it learned):"
KL_ROOT=$logroot $logdemo
await "went away"  # log_demo's connection closed: every line it sent has been read
kill -TERM "$logd_pid"
tries=0
while kill -0 "$logd_pid" 2>/dev/null; do
  tries=$((tries + 1))
  if [ $tries -gt 100 ]; then kill -KILL "$logd_pid"; echo "kl-logd did not stop" >&2; exit 1; fi
  sleep 0.05
done
wait "$logd_pid" || { echo "kl-logd failed" >&2; exit 1; }
echo "-- kl-logd's output:"
sed "s#$logroot#\$KL_ROOT#" "$logroot/logd.out"
