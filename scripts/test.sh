#!/bin/bash
# Builds a preset and runs its tests: scripts/test.sh asan -R address. The default is "release".
set -euo pipefail
cd "$(dirname "$0")/.."

preset=release
if [[ $# -gt 0 && $1 != -* ]]; then
  preset=$1
  shift
fi

# These variables would override the settings that the tests pass as arguments.
for name in "${!KESTREL_@}"; do
  unset "$name"
done
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
# Most tests wait more than they compute.
export CTEST_PARALLEL_LEVEL=${CTEST_PARALLEL_LEVEL:-$((2 * $(nproc)))}

case "$preset" in
  clang | asan) scripts/setup.sh --clang ;;
  arm64*) scripts/setup.sh --host=arm64 ;;
  *) scripts/setup.sh ;;
esac
cmake --preset "$preset"
cmake --build --preset "$preset"

# ThreadSanitizer cannot place its shadow memory under every degree of address randomisation.
run=()
if [[ $preset == tsan ]] && setarch --addr-no-randomize true 2>/dev/null; then
  run=(setarch --addr-no-randomize)
fi
exec "${run[@]}" ctest --preset "$preset" "$@"
