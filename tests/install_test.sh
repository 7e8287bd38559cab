#!/usr/bin/env bash
# The installed package used from outside the tree: what is installed where,
# how libtivra.so finds its private runtime (what it exports: abi_test.sh),
# tivra.pc, the user guide's code, bash completion and the systemd units;
# then the example client built twice (pkg-config and find_package) and run
# against the installed binderd and tivra-monitord.
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
wait_for() { # up to ten seconds
  for _ in $(seq 200); do "$@" && return 0; sleep 0.05; done
  return 1
}

# A prefix given in a roundabout way: the installed files name it normalised.
# The library folder is the one GNUInstallDirs chose; nothing is written into
# the build tree but CMake's install_manifest.txt (and ctest's Testing/).
prefix=$work/prefix
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$build_dir/CMakeCache.txt")
mkdir -p "$work/elsewhere"
touch "$work/before-install"
cmake --install "$build_dir" --prefix "$work/elsewhere/../prefix/" >"$work/install.log" || fail "install failed"
written=$(find "$build_dir" -mindepth 1 -newer "$work/before-install" ! -name install_manifest.txt ! -path "*/Testing*")
[ -z "$written" ] || fail "install wrote into the build tree: $(head -3 <<<"$written")"
# What the steps below do not use (the rest they do).
for file in share/man/man1/binderd.1 share/man/man1/tivra-monitord.1 share/man/man1/tivra.1 share/man/man3/libtivra.3 \
            lib/systemd/user/binderd.service lib/systemd/user/tivra-monitord.service; do
  [ -e "$prefix/$file" ] || fail "not installed: $file"
done
! compgen -G "$prefix/$libdir/libhostbinder*" >/dev/null || fail "libhostbinder is in the public lib folder"
empty=$(find "$prefix" -type d -empty)
[ -z "$empty" ] || fail "empty folders installed: $empty"
# The installed documentation's links lead to installed files.
while IFS= read -r link; do
  page=${link%%:*} target=${link#*](} target=${target%)} target=${target%%#*}
  [ -z "$target" ] || [ -e "$(dirname "$page")/$target" ] || fail "$page links to $target, which is not installed"
done < <(grep -roE '\]\([^):]*\)' --include='*.md' "$prefix/share/doc/tivra")

# libtivra.so finds its runtime through its own RUNPATH.
found=$(ldd "$prefix/$libdir/libtivra.so.0")  # held first: grep -q would end the pipe early, and pipefail with it
grep -qF "libhostbinder.so.0 => $prefix/$libdir/tivra/libhostbinder.so.0" <<<"$found" ||
  fail "libtivra.so does not find its private libhostbinder: $found"

# tivra.pc: absolute, normalised, no rpath.
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
[ "$(pkg-config --variable=prefix tivra)" = "$prefix" ] || fail "tivra.pc prefix: $(pkg-config --variable=prefix tivra)"
[ "$(pkg-config --variable=libdir tivra)" = "$prefix/$libdir" ] || fail "tivra.pc libdir: $(pkg-config --variable=libdir tivra)"
[[ $(pkg-config --libs tivra) != *rpath* ]] || fail "tivra.pc carries an rpath: $(pkg-config --libs tivra)"

# Programs against the installed package only.
build() { # OUTPUT SOURCE...
  local output=$1
  shift
  # shellcheck disable=SC2046
  "$cxx" -std=c++17 -Wall -Wextra -Wno-unused-variable -Werror -o "$work/$output" "$@" $(pkg-config --cflags --libs tivra)
}
# Every C++ block of the user guide, read as parts of one program: its
# includes and using-directives at the top, each block in a function of its own.
guide=$prefix/share/doc/tivra/docs/user-guide.md
{
  awk '/^```cpp$/ { inside = 1; next } /^```$/ { inside = 0 } inside && /^(#include|using namespace)/' "$guide"
  awk '/^```cpp$/ { inside = 1; n++; print "void snippet" n "([[maybe_unused]] std::shared_ptr<Communication::TivraAdapter> adapter) {{"; next }
       /^```$/ && inside { inside = 0; print "}}"; next }
       inside && !/^(#include|using namespace)/' "$guide"
  echo "int main() {}"
} >"$work/guide.cpp"
! grep '^```.' "$guide" | grep -vxE '```(cpp|sh|cmake)' || fail "a code block of the user guide is not marked cpp, sh or cmake"
build guide "$work/guide.cpp" || fail "a code block of the user guide does not build: $work/guide.cpp"
build example_pkgconfig "$prefix/share/doc/tivra/examples/device_watch.cpp" || fail "pkg-config build failed"
cmake -S "$prefix/share/doc/tivra/examples" -B "$work/example_cmake" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_PREFIX_PATH="$prefix" >"$work/example_cmake.log" || fail "find_package configure failed"
cmake --build "$work/example_cmake" >>"$work/example_cmake.log" || fail "find_package build failed"

export HOSTBINDER_SOCKET=$work/binder

if command -v systemd-analyze >/dev/null; then
  mkdir -p "$work/runtime"
  XDG_RUNTIME_DIR=$work/runtime systemd-analyze verify --man=no --user "$prefix"/lib/systemd/user/*.service ||
    fail "systemd units do not verify"
fi

"$prefix/bin/binderd" --socket "$HOSTBINDER_SOCKET" 2>"$work/binderd.log" &
pids+=($!)
wait_for test -S "$HOSTBINDER_SOCKET" || fail "installed binderd did not come up: $(cat "$work/binderd.log")"
"$prefix/bin/tivra-monitord" >"$work/monitord.out" 2>&1 &
pids+=($!)
registered() { "$prefix/bin/tivra" services 2>/dev/null | grep -qx PravikDeviceMonitorService; }
wait_for registered || fail "installed tivra-monitord did not register: $(cat "$work/monitord.out")"
grep -qF "from $prefix/bin/../share/tivra/scenarios/sample.json" "$work/monitord.out" ||
  fail "installed tivra-monitord did not use the installed sample: $(cat "$work/monitord.out")"

# The example waits for the sample timeline's first device event; the one
# built by CMake runs without LD_LIBRARY_PATH.
"$work/example_cmake/device_watch" 1 10 >"$work/cmake.out" 2>&1 ||
  fail "find_package example failed: $(cat "$work/cmake.out")"
for line in "device: Living Room TV (dev-tv-19c2, TV, 192.168.1.31)" "node: Kitchen Speaker (node-spk-4410), network WIFI" \
            "device online: Study Tablet (dev-tab-88e1)"; do
  grep -qF "$line" "$work/cmake.out" || fail "no '$line' in $(cat "$work/cmake.out")"
done
# Bash completion, with the service running: the words typed, then what it
# offers for the last one.
while IFS='|' read -r typed offered; do
  got=$(bash -c "source '$prefix/share/bash-completion/completions/tivra'
                 COMP_WORDS=('$prefix/bin/tivra' $typed); COMP_CWORD=\$((\${#COMP_WORDS[@]} - 1)); _tivra
                 echo \"\${COMPREPLY[*]}\"")
  [ "$got" = "$offered" ] || fail "completing '$typed' offered '$got', not '$offered'"
done <<'EOF'
sim fault getAllDevices ''|exception transport refuse corruptReply
--json sim fault --times=1 addDev|addDeviceChangeListener addDeviceChangeListenerPassive
watch --for = ''|500ms 10s 1m 1h
watch --for=1|--for=10s --for=1m --for=1h
monitor --interface IMon|IMonitorControl
monitor --service = PravikDeviceMonitorS|PravikDeviceMonitorService
sim device-offline dev-tv|dev-tv-19c2
sim node-changed node-tv-19c2 ''|1 2 3
EOF
echo "install_test: ok"
