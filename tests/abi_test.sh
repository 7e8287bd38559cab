#!/usr/bin/env bash
# libtivra.so's ABI against the stored baseline adapter/libtivra.abi (SONAME,
# versioned symbols, types), with libabigail: any change fails, a symbol
# exported beyond the interface too. A compatible one (an addition, in a new
# symbol version node) needs a refreshed baseline; an incompatible one also
# needs a new SONAME (TIVRA_SOVERSION in adapter/CMakeLists.txt). Refresh with
#   tests/abi_test.sh SOURCE_DIR BUILD_DIR --update
# Usage: abi_test.sh SOURCE_DIR BUILD_DIR [--update]
set -euo pipefail
# Absolute, as the paths in the debug information are: "." would also strip
# every character followed by a slash.
source_dir=$(cd "$1" && pwd -P)
build_dir=$2
library=$build_dir/adapter/libtivra.so
baseline=$source_dir/adapter/libtivra.abi

# The baseline holds the public types only; the library is read whole, so
# that a change reached through any type shows.
if [ "${3:-}" = --update ]; then
  abidw --headers-dir "$source_dir/include/tivra" --exported-interfaces-only --drop-private-types --no-corpus-path --no-comp-dir-path --no-show-locs --no-parameter-names "$library" |
    sed "s|$source_dir/||g" >"$baseline"
  echo "abi_test: wrote $baseline"
  exit 0
fi

status=0
abidiff --fail-no-debug-info "$baseline" "$library" || status=$?
if [ $((status & 8)) -ne 0 ]; then
  echo "abi_test: libtivra.so breaks the ABI of the baseline: change the SONAME, then refresh it (--update)" >&2
elif [ $((status & 4)) -ne 0 ]; then
  echo "abi_test: libtivra.so's ABI grew: put new symbols in a new version node, then refresh the baseline (--update)" >&2
elif [ "$status" -ne 0 ]; then
  echo "abi_test: abidiff failed ($status)" >&2
else
  echo "abi_test: ok"
fi
exit $((status != 0))
