#!/usr/bin/env bash
# Installs the build into a temporary prefix, builds the example client out of
# tree against it twice (pkg-config and find_package), and runs both against
# the installed binderd and tivra-monitord.
# Usage: install_test.sh SOURCE_DIR BUILD_DIR CXX
set -euo pipefail
source_dir=$1
build_dir=$2
cxx=$3
work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "install_test: $*" >&2; exit 1; }

prefix=$work/prefix
cmake --install "$build_dir" --prefix "$prefix" >"$work/install.log" || fail "install failed"
for file in lib/libtivra.so.0 include/tivra/tivra_adapter.h lib/pkgconfig/tivra.pc \
            lib/cmake/tivra/tivraConfig.cmake bin/binderd bin/tivra-monitord bin/tivra; do
  [ -e "$prefix/$file" ] || fail "not installed: $file"
done
[ "$(readelf -d "$prefix/lib/libtivra.so.0" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')" = libtivra.so.0 ] ||
  fail "libtivra.so has no versioned soname"

# The build tree must not leak in: only the installed package is visible.
example=$source_dir/examples
PKG_CONFIG_PATH=$prefix/lib/pkgconfig
export PKG_CONFIG_PATH
# shellcheck disable=SC2046
"$cxx" -std=c++17 -Wall -Wextra -o "$work/example_pkgconfig" "$example/device_watch.cpp" \
  $(pkg-config --cflags --libs tivra) || fail "pkg-config build failed"
cmake -S "$example" -B "$work/example_cmake" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_PREFIX_PATH="$prefix" >"$work/example_cmake.log" || fail "find_package configure failed"
cmake --build "$work/example_cmake" >>"$work/example_cmake.log" || fail "find_package build failed"

export HOSTBINDER_SOCKET=$work/binder
"$prefix/bin/binderd" --socket "$HOSTBINDER_SOCKET" 2>"$work/binderd.log" &
pids+=($!)
for _ in $(seq 100); do [ -S "$HOSTBINDER_SOCKET" ] && break; sleep 0.05; done
"$prefix/bin/tivra-monitord" >"$work/monitord.out" 2>&1 &
pids+=($!)
for _ in $(seq 100); do "$prefix/bin/tivra" services 2>/dev/null | grep -q PravikDeviceMonitorService && break; sleep 0.05; done
grep -qF "from $prefix/bin/../share/tivra/scenarios/sample.json" "$work/monitord.out" ||
  fail "installed tivra-monitord did not use the installed sample: $(cat "$work/monitord.out")"

# Both wait for the sample timeline's first device event.
"$work/example_pkgconfig" 1 10 >"$work/pkgconfig.out" 2>&1 &
first=$!
"$work/example_cmake/device_watch" 1 10 >"$work/cmake.out" 2>&1 &
second=$!
wait "$first" || fail "pkg-config example failed: $(cat "$work/pkgconfig.out")"
wait "$second" || fail "find_package example failed: $(cat "$work/cmake.out")"
for out in "$work/pkgconfig.out" "$work/cmake.out"; do
  grep -qF "device: Living Room TV (dev-tv-19c2, TV, 192.168.1.31)" "$out" || fail "no device table in $(cat "$out")"
  grep -qF "node: Kitchen Speaker (node-spk-4410), network WIFI" "$out" || fail "no node table in $(cat "$out")"
  grep -qF "device online: Study Tablet (dev-tab-88e1)" "$out" || fail "no device event in $(cat "$out")"
done
echo "install_test: ok"
