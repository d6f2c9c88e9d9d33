#!/bin/bash
# Runs clang-tidy over the sources, and with them the headers they include; prints its findings and
# fails when there is any. Only the files that are named, where some are: scripts/lint.sh net/*.cc
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset clang >/dev/null

if [[ $# -gt 0 ]]; then
  printf '%s\0' "$@"
else
  find . \( -path ./build -o -path ./.git \) -prune -o \
    -type f \( -name '*.c' -o -name '*.cc' \) -print0
fi |
  xargs --null --max-args=1 --max-procs="$(nproc)" clang-tidy-14 --quiet -p build/clang 2>&1 |
  # How many findings there are, with those in system headers, which are not shown.
  sed -E '/^[0-9]+ warnings? generated\.$/d'
