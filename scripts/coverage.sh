#!/bin/bash
# Runs the tests in the coverage build, and prints for each file of the request path the lines that
# no test ran. Fails when a test fails, and when fewer than 90 % of these lines have run. With
# arguments, only the tests that ctest selects by them: scripts/coverage.sh -R net
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v gcovr >/dev/null; then
  echo "coverage: install the Debian package gcovr" >&2
  exit 1
fi

minimum=90  # percent
build=build/coverage
folders=(daemon net io sensors base/loop)

scripts/setup.sh
cmake --preset coverage
cmake --build --preset coverage --parallel "${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}"

# A program adds its counts to these files at its exit; a process that ends by _exit or by a signal
# loses them. Tests also run programs as another user, who must be able to write the files, or the
# complaint on the standard error makes the test fail.
find "$build" -name '*.gcda' -delete
find "$build" -name '*.gcno' -print0 | while IFS= read -r -d '' notes; do
  install --mode=666 /dev/null "${notes%.gcno}.gcda"
done
status=0
scripts/test.sh coverage "$@" || status=$?
find "$build" -name '*.gcda' -empty -delete

filters=("${folders[@]/%//}")  # a slash after each name
gcovr "${filters[@]/#/--filter=}" --json "$build/coverage.json" "$build"
for filter in "${filters[@]}"; do
  # Not /dev/null: gcovr removes the file before it writes to it.
  gcovr --add-tracefile "$build/coverage.json" --filter="$filter" --print-summary \
    --output "$build/coverage.txt" | sed -n "s|^lines|$filter|p"
done
gcovr --add-tracefile "$build/coverage.json" --fail-under-line "$minimum" || status=1
exit "$status"
