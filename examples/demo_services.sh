#!/bin/sh
# Services talking: kl-loader starts the example object service (process 5) and a watcher
# (process 6) that subscribes to it; kl-msg asks and changes; the object service leaves
# when idle and is started again by the next request, still knowing its subscriber.
# $1 is the CMake build directory.
set -e
build=${1:-build}
msg=$build/tools/kl-msg
root=$(mktemp -d /tmp/kl-demo-XXXXXX)
export KL_ROOT=$root
log=$root/loader.log
loader_pid=
cleanup() {
  [ -n "$loader_pid" ] && kill "$loader_pid" 2>/dev/null && wait "$loader_pid" 2>/dev/null
  rm -rf "$root"
}
trap cleanup EXIT

# Waits up to 5 s for a line matching $1 in the loader's log.
await() {
  i=0
  while ! grep -q "$1" "$log" 2>/dev/null; do
    i=$((i + 1))
    [ $i -gt 100 ] && { echo "demo: no '$1' in the loader's output" >&2; cat "$log" >&2; exit 1; }
    sleep 0.05
  done
}
show_new() {
  tail -n +$((shown + 1)) "$log" | grep -v '^ ' | grep -v 'kl-loader: route\|kl-loader: loader\|pid [0-9]*) \(registered\|disconnected\)$' || true
  shown=$(wc -l <"$log")
}
shown=0

echo "== kl-loader starts the object service (5) and a watcher (6) that subscribes to 5/2:"
$build/tools/kl-loader --trace --idle-leave 2 "$build/examples/objects_service 4 6" \
  "$build/examples/watcher_service" >"$log" 2>&1 &
loader_pid=$!
await "objects_service: subscriber 6"
show_new
echo
echo "== kl-msg list:"
$msg list
echo
echo "== kl-msg call 5/2 u32:SYS_CMD=CMD_GETALL (the first chunk of 4, and where to go on):"
$msg call 5/2 u32:SYS_CMD=CMD_GETALL
echo
echo "== kl-msg call --all 5/2 follows the continuation ids through every chunk:"
$msg call --all 5/2 | grep 'STD_DESCR'
echo
echo "== reget_client fetches the whole list with each fetcher:"
$build/examples/reget_client
echo
echo "== kl-msg call 5/2 ... CMD_SETOBJ object 2 -> \"uplink\"; the watcher is told:"
$msg call 5/2 u32:SYS_CMD=CMD_SETOBJ u32:STD_ID=2 string:STD_DESCR=uplink >/dev/null
await 'watcher: object 2 is now "uplink"'
show_new
echo
echo "== Idle for 2 s, the object service is asked to leave; it hands over its subscriber:"
await "leaves"
sleep 0.3
show_new
$msg list
echo
echo "== The next request starts it again; the change still reaches the watcher:"
$msg call 5/2 u32:SYS_CMD=CMD_SETOBJ u32:STD_ID=3 string:STD_DESCR=backup >/dev/null
await 'watcher: object 3 is now "backup"'
show_new
echo
echo "== The same in JSON, for scripts: a call with a JSON argument, and the list:"
$msg call --json 5/2 '{"u32:SYS_CMD":"CMD_GETOBJ","u32:STD_ID":3}'
$msg list --json
echo
echo "== kl-msg introspect 5/2: the handler's commands, the rights each needs, its objects:"
$msg introspect 5/2 | head -n 4
echo "  ..."
$msg introspect 5/2 | tail -n 1
echo
echo "== kl-msg monitor CMD_SETOBJ watches the traffic live (here: one change, its request):"
$msg monitor CMD_SETOBJ >"$root/monitor.out" 2>&1 &
monitor_pid=$!
sleep 0.3
$msg call 5/2 u32:SYS_CMD=CMD_SETOBJ u32:STD_ID=4 string:STD_DESCR=watched >/dev/null
sleep 0.3
kill -INT "$monitor_pid"
wait "$monitor_pid" || true
sed -e 's/^[0-9:.]*  /TIME  /' -e 's/^\([^ ]*  \)[0-9]* ->/\1ID ->/' "$root/monitor.out" | head -n 1
grep 'STD_DESCR' "$root/monitor.out"
echo
echo "== A path that leads nowhere: one line, exit status 1:"
if $msg call 5/9 u32:SYS_CMD=CMD_GET; then exit 1; fi
echo "(exit status 1)"
