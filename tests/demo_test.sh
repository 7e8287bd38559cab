#!/usr/bin/env bash
# Runs the demo non-interactively against a build folder and checks that it
# showed every timeline event of the sample in order (its tables: cli_test.sh),
# and left nothing running behind.
# Usage: demo_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source_dir=$1
build_dir=$2
out=$(mktemp)
export TMPDIR=$(mktemp -d)
trap 'rm -rf "$out" "$TMPDIR"' EXIT

fail() { echo "demo_test: $*" >&2; echo "--- demo output:" >&2; cat "$out" >&2; exit 1; }

TIVRA_BIN_DIR=$build_dir "$source_dir/scripts/demo" >"$out" 2>&1 || fail "demo exited with $?"

# The sample timeline, as the watch prints it, in this order.
expected=(
  "device-online      Study Tablet (dev-tab-88e1, TABLET, 192.168.1.52)"
  "node-online        Study Tablet (node-tab-88e1, DEVICE_TYPE_11)"
  "node-info-changed  node-tv-19c2 (kind 2)"
  "node-offline       Kitchen Speaker (node-spk-4410, DEVICE_TYPE_0A)"
  "device-offline     Kitchen Speaker (dev-spk-4410, SPEAKER, 192.168.1.44)"
  "node-info-changed  node-tab-88e1 (kind 1)"
  "device-online      Kitchen Speaker (dev-spk-4410, SPEAKER, 192.168.1.44)"
  "node-online        Kitchen Speaker (node-spk-4410, DEVICE_TYPE_0A)"
)
events=$(grep -E '^[0-9:.]+  (device|node)-' "$out" | cut -c15-)
[ "$events" = "$(printf '%s\n' "${expected[@]}")" ] || fail "timeline events differ from the sample's"

leftovers=$(find "$TMPDIR" -mindepth 1 -name 'tivra-demo.*')
[ -z "$leftovers" ] || fail "left its work folder behind: $leftovers"
# Every process the demo started saw its private socket in the environment.
for environ in /proc/[0-9]*/environ; do
  ! grep -qzF "HOSTBINDER_SOCKET=$TMPDIR/" "$environ" 2>/dev/null ||
    fail "left a process running: $(tr '\0' ' ' < "${environ%/environ}/cmdline")"
done
echo "demo_test: ok"
