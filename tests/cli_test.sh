#!/usr/bin/env bash
# tivra and tivra-monitord as a user meets them, under the C locale: options
# and exit codes on every level, bad input, tables and JSON, sim, monitor, and
# watch living through the service's death and binderd's restarts.
# Usage: cli_test.sh SOURCE_DIR BUILD_DIR
set -uo pipefail
source_dir=$1
build_dir=$2
binderd=$build_dir/hostbinder/binderd/binderd
tivra_bin=$build_dir/tools/tivra
monitord_bin=$build_dir/tools/tivra-monitord
tivra() { "$tivra_bin" "$@"; }
tivra-monitord() { "$monitord_bin" "$@"; }
# full PROGRAM ARGS...: with stdout on a full disk, stopped after ten seconds.
full() { timeout 10 "$@" >/dev/full; }
work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do { kill -KILL "$pid" && wait "$pid"; } 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT
export HOSTBINDER_SOCKET=$work/binder LC_ALL=C
failures=0
fail() { echo "cli_test: FAILED: $*" >&2; failures=$((failures + 1)); }

# expect CODE PATTERN COMMAND...: COMMAND's exit code, and stdout+stderr
# matching PATTERN (extended regex).
expect() {
  local code=$1 pattern=$2 output status
  shift 2
  output=$("$@" 2>&1 </dev/null)
  status=$?
  [ "$status" -eq "$code" ] || fail "$* exited $status, not $code: $output"
  grep -qE -- "$pattern" <<<"$output" || fail "$* printed no match for '$pattern': $output"
}
# Rows "CODE|PATTERN|COMMAND" on stdin; COMMAND is read as shell words.
expect_rows() {
  while IFS='|' read -r code pattern command; do
    [ -z "$code" ] || eval "expect $code \"\$pattern\" $command"
  done
}
# Waits up to five seconds for a command to succeed.
wait_for() {
  for _ in $(seq 100); do "$@" && return 0; sleep 0.05; done
  return 1
}
stop() { { kill -"${2:-KILL}" "$1"; wait "$1"; } 2>/dev/null; }
start_binderd() {
  "$binderd" --socket "$HOSTBINDER_SOCKET" 2>>"$work/binderd.log" &
  binderd_pid=$!
  pids+=("$binderd_pid")
  wait_for test -S "$HOSTBINDER_SOCKET" || fail "binderd did not come up"
}
serving() { "$tivra_bin" services 2>/dev/null | grep -qx PravikDeviceMonitorService; }
# saw FILE PATTERN WHAT: waits for a line of FILE matching PATTERN (basic regex).
saw() { wait_for grep -q -- "$2" "$1" || fail "$3: $(cat "$1")"; }
background() { # NAME COMMAND...: COMMAND's stdout+stderr to $work/NAME.out, its pid in $last
  "${@:2}" >"$work/$1.out" 2>&1 &
  last=$!
  pids+=("$last")
}
# The sample without its timeline, so that what the checks see does not
# depend on how fast they run.
static_scenario=$work/static.json
awk '/"timeline":/ { print "  \"timeline\": []"; print "}"; exit } { print }' \
  "$source_dir/tools/scenarios/sample.json" >"$static_scenario"
start_monitord() { # [SCENARIO]
  background monitord "$monitord_bin" --scenario "${1:-$static_scenario}"
  monitord_pid=$last
  wait_for serving || fail "tivra-monitord did not come up: $(cat "$work/monitord.out")"
}

# Nothing running, then binderd alone: exit 3, and the advice names what to start.
expect_rows <<'EOF'
3|binderd is not running.*start it with|tivra devices
3|cannot register with binderd|tivra-monitord
3|binderd is not running|tivra monitor --for 1s
3|binderd is not running|tivra watch
EOF
start_binderd
expect_rows <<'EOF'
3|no device monitor service is registered.*tivra-monitord|tivra local-device
3|no device monitor service is registered|tivra watch --for 300ms
3|no device monitor service is registered|tivra watch --for=0.0001h
3|tivra-monitord|tivra sim counts
0|^$|tivra services
EOF
# A binderd that does not answer: its silence is the reason, exit 3.
kill -STOP "$binderd_pid"
expect 3 "binderd at .* did not answer" tivra services
kill -CONT "$binderd_pid"

# Options: GNU long options on every level; bad usage is 2 and says why;
# output that cannot be written is an error, said once.
expect_rows <<'EOF'
0|^tivra \(libtivra\) [0-9]+\.[0-9]+\.[0-9]+$|tivra --version
0|^tivra \(libtivra\) |tivra sim fault --version
0|^tivra-monitord \(libtivra\) [0-9]+\.[0-9]+\.[0-9]+$|tivra-monitord --version
0|^tivra \(libtivra\) |tivra -V
0|^tivra-monitord \(libtivra\) |tivra-monitord -V
1|^tivra: write error: No space left on device$|full "$tivra_bin" --version
1|^tivra-monitord: write error: No space left on device$|full "$monitord_bin" --version
1|^binderd: write error: No space left on device$|full "$binderd" --help
2|^tivra: option '--ver' is ambiguous; possibilities: '--verbose' '--version'$|tivra --ver
2|^tivra-monitord: option '--ver' is ambiguous|tivra-monitord --ver
2|^tivra: unknown option '--bogus'|tivra --bogus devices
2|^tivra devices: unknown option '--bogus'|tivra devices --bogus
2|^tivra: unknown option '-x'|tivra -x
2|option '--json' takes no value|tivra --json=yes devices
2|option '--for' needs a value|tivra watch --for
2|bad duration 'soon'|tivra watch --for=soon
2|bad duration '25h'|tivra watch --for=25h
2|bad duration '1e3'|tivra watch --for=1e3
2|option '--service' needs a non-empty value|tivra monitor --service ""
2|^tivra-monitord: option '--scenario' needs a non-empty value|tivra-monitord --scenario=
2|NAME must not be empty|tivra sim device-online "" "" "" ""
2|NODE_ID must not be empty|tivra node ""
2|unknown command 'bogus'|tivra bogus
2|tivra devices: too many arguments|tivra devices extra
2|tivra node: expected NODE_ID|tivra node
2|unexpected argument 'now'|tivra watch now
2|--pid must be a process id, not 'me'|tivra monitor --pid me
2|unknown command 'bogus' \(accepted: clear-faults, counts, |tivra sim bogus
2|KIND must be 1, 2 or 3, not '9'|tivra sim node-changed node-tv-19c2 9
2|unknown option '-1'; to give a negative number, put '--' before it|tivra sim stop -1
2|CODE must be an exit status from 0 to 255, not '-1'|tivra sim stop -- -1
2|CODE must be an exit status from 0 to 255, not '256'|tivra sim stop 256
2|unknown method 'getEverything' \(accepted: addOnDeviceChangeListener, .*, getUuidByNodeId\)|tivra sim fault getEverything refuse
2|only addDeviceChangeListener can refuse|tivra sim fault getAllDevices refuse
2|a fault of kind exception needs --code=N|tivra sim fault getAllDevices exception
2|--times must be 0 \(every call until clear-faults\) or more|tivra sim fault getAllDevices transport --code=-32 --times=-1
2|unknown fault kind 'sometimes' \(accepted: exception, transport, refuse, corruptReply\)|tivra sim fault getAllDevices sometimes
2|--times must be a 32-bit number, not 'often'|tivra sim fault getAllDevices exception --times=often
2|^tivra-monitord: unknown option '--bogus'|tivra-monitord --bogus
2|option '--scenario' needs a value|tivra-monitord --scenario
1|bad scenario: .*/none.json: cannot open|tivra-monitord --scenario="$work/none.json"
2|argument 2 is not valid UTF-8|tivra node $'\xff\xfe'
0|^Usage: tivra-monitord|tivra-monitord --help
EOF
for command in local-device devices local-node node nodes ext udid uuid watch sim services monitor \
               "sim device-online" "sim device-offline" "sim node-online" "sim node-offline" "sim node-changed" \
               "sim fault" "sim clear-faults" "sim counts" "sim listeners" "sim raw" "sim stop"; do
  # shellcheck disable=SC2086
  expect 0 "^Usage: tivra $command" tivra $command --help
done

# Answers: tables, compact JSON by default, --pretty indents, `--` ends
# options; a node without a value gives an empty answer, no trailing spaces.
# Then the service changed and failing through tivra sim.
start_monitord
expect_rows <<'EOF'
0|^PravikDeviceMonitorControl$|tivra services
0|^\{"id":"dev-local-7f3a","ip":"192.168.1.20","name":"Pixel Studio","type":"PHONE"\}$|tivra --json local-device
0|^  "name": "Pixel Studio",$|tivra local-device --pretty
0|node-local-7f3a|tivra local-node
0|"deviceTypeName":"DEVICE_TYPE_0A"|tivra node --json node-spk-4410
0|Kitchen Speaker +DEVICE_TYPE_0A +node-spk-4410|tivra nodes
0|^IS_ACCOUNT_TRUST +true$|tivra ext node-tv-19c2
0|^VERSION_TYPE$|tivra ext node-tv-19c2 VERSION_TYPE
0|^\{"VERSION_TYPE":""\}$|tivra --json ext node-tv-19c2 VERSION_TYPE
0|^\{"GROUP_INFO":"home"\}$|tivra --json ext node-tv-19c2 GROUP_INFO
0|^UDID-7F3A-0001$|tivra udid node-local-7f3a
0|^6fa459ea-ee8a-3ca4-894e-db77e160355e$|tivra uuid -- node-tv-19c2
1|gave no node|tivra node node-unknown
1|no node 'node-unknown' in the network|tivra ext node-unknown
1|no node '--json' in the network|tivra ext -- --json
0|^\{"delivered":0\}$|tivra sim device-online "Hall Lamp" dev-lamp-1 LIGHT 192.168.1.77
0|Hall Lamp +dev-lamp-1 +LIGHT|tivra devices
0|^$|tivra sim fault getAllDevices exception --code -3 --times=1
1|failed to answer the device list|tivra devices
0|Hall Lamp|tivra devices
0|^\{.*"getAllDevices":3|tivra sim counts --json
1|expected an exit status from 0 to 255|tivra sim raw '{"op":"exit","code":256}'
2|not a JSON document: .*number overflow|tivra sim raw '{"op":"emit","event":{"event":"nodeInfoChanged","nodeId":"x","kind":1e400}}'
EOF

# Widths: columns line up by what a terminal shows, under the C locale too;
# control characters from the service show escaped, taking their escapes' width.
tivra sim device-online "客厅电视" dev-cjk TV 10.0.0.8 >/dev/null
tivra sim device-online $'Cafe\xcc\x81 Lamp' dev-cafe LIGHT 10.0.0.9 >/dev/null
tivra sim device-online $'Evil\e[2J\tLamp\\' dev-esc LIGHT 10.0.0.10 >/dev/null
tivra devices >"$work/devices.out"
! grep -q $'[\e\t]' "$work/devices.out" || fail "a control character reached the terminal: $(cat -A "$work/devices.out")"
id_column=$(head -1 "$work/devices.out" | awk '{ print index($0, "ID") }')
for row in "客厅电视 8 dev-cjk" $'Cafe\xcc\x81_Lamp 9 dev-cafe' 'Evil\x1b[2J\tLamp\\ 19 dev-esc'; do
  read -r name width id <<<"$row"
  name=${name//_/ }
  printf -v padding '%*s' $((id_column - 1 - width)) ''
  grep -qF "$name$padding$id " "$work/devices.out" || fail "'$name' is not aligned: $(cat "$work/devices.out")"
done

# monitor: binderd's traffic, each call with its reply, the methods named
# (events to the listener of the watch --json below among them); a filter
# keeps the service manager's lookups out.
background watch env TZ=IST-5:30 "$tivra_bin" --json watch --for 60s
watch_pid=$last
saw "$work/watch.out" '"event":"watching"' "watch did not start"
background monitor "$tivra_bin" monitor --json
monitor_pid=$last
"$tivra_bin" monitor --for 4s --service PravikDeviceMonitorService >"$work/monitor-human.out" 2>"$work/monitor-human.err" &
monitor_for_pid=$!
pids+=("$monitor_for_pid")
saw "$work/monitor.out" '"event":"watching"' "monitor did not start"
saw "$work/monitor-human.err" "watching the traffic" "monitor --for did not start"
tivra devices >/dev/null
tivra sim node-changed node-tv-19c2 1 >/dev/null
method='"method":"IDeviceMonitorService.getAllDevices"'
saw "$work/monitor.out" '"event":"call",.*"method":"IDeviceListener.onDeviceInfoChanged","objects":0,"oneway":true' \
  "monitor missed an event's one-way call"
saw "$work/monitor.out" "\"event\":\"reply\",.*$method" "monitor missed a reply"
call_id=$(sed -n "s/.*\"event\":\"call\",.*\"id\":\([0-9]*\),.*$method.*/\1/p" "$work/monitor.out")
[ -n "$call_id" ] && grep -q "\"event\":\"reply\",.*\"id\":$call_id,.*$method.*\"statusName\":\"OK\"" "$work/monitor.out" ||
  fail "monitor --json did not show getAllDevices and its reply: $(cat "$work/monitor.out")"
kill -INT "$monitor_pid"
wait "$monitor_pid" && tail -1 "$work/monitor.out" | grep -q '"event":"stopped"' || fail "monitor did not stop on Ctrl-C"
wait "$monitor_for_pid" || fail "monitor --for ended with $?"
grep -qE "^[0-9:.]+  #[0-9]+ call   [0-9]+/[0-9]+ -> [0-9]+/[0-9]+  PravikDeviceMonitorService  IDeviceMonitorService.getAllDevices  two-way  [0-9]+ B$" \
  "$work/monitor-human.out" && ! grep -q servicemanager "$work/monitor-human.out" ||
  fail "monitor --service did not show the call alone: $(cat "$work/monitor-human.out")"

# watch: the banner goes to stderr, events to stdout, no line ends in a
# space; it stops when it cannot write.
tivra watch --for 200ms >"$work/watch-human.out" 2>"$work/watch-human.err"
grep -q "Ctrl-C to stop" "$work/watch-human.err" && ! grep -q "Ctrl-C" "$work/watch-human.out" ||
  fail "watch's banner is not on stderr alone"
grep -q "stopped$" "$work/watch-human.out" || fail "watch's last line ends in spaces: $(cat -A "$work/watch-human.out")"
expect 1 "^tivra: write error: No space left on device$" full "$tivra_bin" --json watch
expect 1 "^tivra: write error: No space left on device$" full "$tivra_bin" --json monitor
# watch --json: one object per line with RFC 3339 times, the service's
# death and its return, and events after it (binderd's restart: below).
tivra sim node-changed node-tv-19c2 3 >/dev/null
saw "$work/watch.out" '"event":"node-info-changed","kind":3,"nodeId":"node-tv-19c2"' "watch missed a node change"
grep -qE '"time":"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}\+05:30"' "$work/watch.out" ||
  fail "watch times are not RFC 3339 with the offset: $(head -1 "$work/watch.out")"
stop "$monitord_pid"
saw "$work/watch.out" '"event":"service-died"' "watch did not report the service's death"
start_monitord
saw "$work/watch.out" '"event":"service-back"' "watch did not register again"
tivra sim device-offline dev-tv-19c2 >/dev/null
saw "$work/watch.out" '"id":"dev-tv-19c2".*"event":"device-offline"' "watch heard nothing after the service came back"
kill -INT "$watch_pid"
wait "$watch_pid" && tail -1 "$work/watch.out" | grep -q '"event":"stopped"' || fail "watch did not stop on Ctrl-C"
grep -v '^{.*}$' "$work/watch.out" && fail "watch --json printed a line that is not one JSON object"

# A network of 10,000 devices crosses in one answer.
stop "$monitord_pid"
awk '{ print } /"devices": \[/ {
       for (i = 1; i <= 10000; i++)
         printf "{\"name\": \"Sensor %d\", \"id\": \"dev-%05d\", \"type\": \"SENSOR\", \"ip\": \"10.1.%d.%d\"},\n",
                i, i, i / 250, i % 250 }' "$static_scenario" >"$work/large.json"
start_monitord "$work/large.json"
tivra --pretty devices >"$work/large.out" 2>&1 || fail "10,000 devices: $(head -3 "$work/large.out")"
[ "$(grep -c '"id": "dev-[0-9]' "$work/large.out")" -eq 10000 ] && grep -q '"id": "dev-10000"' "$work/large.out" ||
  fail "10,000 devices did not all arrive"

# watch started before the service waits for it, then follows it.
stop "$monitord_pid"
background watch-early "$tivra_bin" --json watch
saw "$work/watch-early.out" '"event":"waiting"' "watch did not wait"
start_monitord
saw "$work/watch-early.out" '"event":"watching"' "watch did not register with the service that came"
tivra sim node-changed node-tv-19c2 1 >/dev/null
saw "$work/watch-early.out" '"kind":1,"nodeId":"node-tv-19c2"' "watch started first heard nothing"
# binderd killed outright comes back on its socket; tivra-monitord, finding
# its name taken meanwhile, says so once while it tries again, then registers;
# the watch registers again too.
kill -STOP "$monitord_pid"
stop "$binderd_pid"
start_binderd  # its socket was there all along: wait until it answers
wait_for sh -c "'$tivra_bin' services >/dev/null 2>&1" || fail "binderd did not come back after SIGKILL"
background taker "$monitord_bin" --scenario "$static_scenario"
taker_pid=$last
wait_for serving || fail "the new binderd serves no one"
kill -CONT "$monitord_pid"
wait_for sh -c "[ \$(grep -c 'process $monitord_pid may not take' '$work/binderd.log') -ge 3 ]" ||
  fail "tivra-monitord did not try again for the name taken"
stop "$taker_pid"
saw "$work/monitord.out" "registered again" "tivra-monitord did not take the name once free"
[ "$(grep -c 'registered by another process' "$work/monitord.out")" -eq 1 ] &&
  [ "$(grep -c 'EX_SECURITY' "$work/monitord.out")" -eq 1 ] ||
  fail "tivra-monitord did not say once that the name was taken: $(cat "$work/monitord.out")"
wait_for sh -c "'$tivra_bin' sim node-changed node-tv-19c2 2 >/dev/null; grep -q '\"kind\":2' '$work/watch-early.out'" ||
  fail "watch heard nothing after binderd's restart: $(cat "$work/watch-early.out")"

[ "$failures" -eq 0 ] || { echo "--- watch output:" >&2; cat "$work/watch.out" >&2; exit 1; }
echo "cli_test: ok"
