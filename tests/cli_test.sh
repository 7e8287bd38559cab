#!/usr/bin/env bash
# The tivra command line against a private binderd and tivra-monitord: exit
# codes and advice when something is missing, tables and JSON, driving the
# service with `tivra sim`, and `tivra watch` living through the service's death.
# Usage: cli_test.sh SOURCE_DIR BUILD_DIR
set -uo pipefail
source_dir=$1
build_dir=$2
tivra=$build_dir/tools/tivra
binderd=$build_dir/hostbinder/binderd/binderd
monitord=$build_dir/tools/tivra-monitord
work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do { kill -KILL "$pid" && wait "$pid"; } 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT
export HOSTBINDER_SOCKET=$work/binder
failures=0
fail() { echo "cli_test: FAILED: $*" >&2; failures=$((failures + 1)); }

# expect CODE PATTERN -- ARGS: runs tivra ARGS, checks its exit code and that
# stdout+stderr match PATTERN (extended regex).
expect() {
  local code=$1 pattern=$2
  shift 3
  local output status
  output=$("$tivra" "$@" 2>&1)
  status=$?
  [ "$status" -eq "$code" ] || fail "tivra $* exited $status, not $code: $output"
  grep -qE -- "$pattern" <<<"$output" || fail "tivra $* printed no match for '$pattern': $output"
}
# Waits up to five seconds for a command to succeed.
wait_for() {
  for _ in $(seq 100); do "$@" && return 0; sleep 0.05; done
  return 1
}
# start_monitord [SCENARIO]: the sample unless told otherwise.
start_monitord() {
  "$monitord" --scenario "${1:-$source_dir/tools/scenarios/sample.json}" >"$work/monitord.out" 2>&1 &
  monitord_pid=$!
  pids+=("$monitord_pid")
  wait_for sh -c "'$tivra' services 2>/dev/null | grep -qx PravikDeviceMonitorService" || fail "tivra-monitord did not come up: $(cat "$work/monitord.out")"
}

# Nothing running: the advice names what to start.
expect 3 "binderd is not running.*start it with" -- devices
"$binderd" --socket "$HOSTBINDER_SOCKET" 2>"$work/binderd.log" &
pids+=($!)
wait_for test -S "$HOSTBINDER_SOCKET" || fail "binderd did not come up"
expect 3 "no device monitor service is registered.*tivra-monitord" -- local-device
expect 3 "tivra-monitord" -- sim counts
expect 0 "^$" -- services

# Usage errors.
expect 2 "unknown command 'bogus'" -- bogus
expect 2 "usage: tivra devices" -- devices extra
expect 2 "usage" -- node
expect 2 "bad argument" -- watch --for soon
for command in local-device devices local-node node nodes ext udid uuid watch sim services; do
  expect 0 "Usage: tivra" -- "$command" --help
done

start_monitord
expect 0 "^PravikDeviceMonitorControl$" -- services
expect 0 "Living Room TV +dev-tv-19c2 +TV +192\.168\.1\.31" -- devices
expect 0 '"name": "Pixel Studio"' -- --json local-device
expect 0 "node-local-7f3a" -- local-node
expect 0 '"deviceTypeName": "DEVICE_TYPE_0A"' -- --json node node-spk-4410
expect 0 "Kitchen Speaker +DEVICE_TYPE_0A +node-spk-4410" -- nodes
expect 0 "^IS_ACCOUNT_TRUST +true$" -- ext node-tv-19c2
expect 0 '^\{"GROUP_INFO":"home"\}$|"GROUP_INFO": "home"' -- --json ext node-tv-19c2 GROUP_INFO
expect 0 "^UDID-19C2-0002$" -- udid node-tv-19c2
expect 0 "^6fa459ea-ee8a-3ca4-894e-db77e160355e$" -- uuid node-tv-19c2
expect 1 "gave no node" -- node node-unknown

# The service changed and failing through tivra sim.
expect 0 '"delivered": 0' -- sim device-online "Hall Lamp" dev-lamp-1 LIGHT 192.168.1.77
expect 0 "Hall Lamp +dev-lamp-1 +LIGHT" -- devices
expect 0 "^$" -- sim fault getAllDevices exception -3 1
expect 1 "failed to answer the device list" -- devices
expect 0 "Hall Lamp" -- devices
expect 0 '"getAllDevices": 4' -- sim counts
expect 2 "malformed argument for 'sim fault'" -- sim fault getAllDevices sometimes
expect 1 "unknown fault kind 'sometimes'" -- sim raw '{"op":"fault","method":"getAllDevices","kind":"sometimes"}'
expect 1 "unknown method 'getEverything'" -- sim fault getEverything refuse

# watch: JSON lines, the service's death, its return, and events after it.
"$tivra" --json watch --for 20s >"$work/watch.out" 2>&1 &
watch_pid=$!
pids+=("$watch_pid")
wait_for grep -q '"event":"watching"' "$work/watch.out" || fail "watch did not start"
"$tivra" sim node-changed node-tv-19c2 3 >/dev/null
wait_for grep -q '"event":"node-info-changed","kind":3,"nodeId":"node-tv-19c2"' "$work/watch.out" ||
  fail "watch missed a node change"
{ kill -KILL "$monitord_pid"; wait "$monitord_pid"; } 2>/dev/null
wait_for grep -q '"event":"service-died"' "$work/watch.out" || fail "watch did not report the service's death"
start_monitord
wait_for grep -q '"event":"service-back"' "$work/watch.out" || fail "watch did not register again"
"$tivra" sim device-offline dev-tv-19c2 >/dev/null
wait_for grep -q '"id":"dev-tv-19c2".*"event":"device-offline"' "$work/watch.out" ||
  fail "watch heard nothing after the service came back"
kill -INT "$watch_pid"
wait "$watch_pid"
status=$?
[ "$status" -eq 0 ] || fail "watch ended with $status on Ctrl-C"
tail -1 "$work/watch.out" | grep -q '"event":"stopped"' || fail "watch did not say it stopped"
grep -v '^{.*}$' "$work/watch.out" && fail "watch --json printed a line that is not one JSON object"

# A network of 10,000 devices crosses in one answer.
{ kill -KILL "$monitord_pid"; wait "$monitord_pid"; } 2>/dev/null
{
  printf '{"localDevice": {"name": "Hub", "id": "dev-hub", "type": "HUB", "ip": "10.9.0.1"},'
  printf ' "localNode": {"name": "Hub", "deviceType": 14, "nodeId": "node-hub"}, "devices": ['
  for i in $(seq 10000); do
    [ "$i" -gt 1 ] && printf ','
    printf '{"name": "Sensor %d", "id": "dev-%05d", "type": "SENSOR", "ip": "10.1.%d.%d"}' "$i" "$i" $((i / 250)) $((i % 250))
  done
  printf '], "nodes": [], "timeline": []}'
} >"$work/large.json"
start_monitord "$work/large.json"
"$tivra" --json devices >"$work/large.out" 2>&1 || fail "10,000 devices: $(head -3 "$work/large.out")"
[ "$(grep -c '"id": "dev-' "$work/large.out")" -eq 10000 ] || fail "10,000 devices did not all arrive"
grep -q '"id": "dev-10000"' "$work/large.out" || fail "the last of 10,000 devices is missing"

if [ "$failures" -ne 0 ]; then
  echo "--- watch output:" >&2; cat "$work/watch.out" >&2
  exit 1
fi
echo "cli_test: ok"
