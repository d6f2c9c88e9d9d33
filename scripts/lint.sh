#!/bin/bash
# Runs clang-tidy over all sources and the headers that they include; prints the findings and fails
# if there are any. With arguments, only over these sources: scripts/lint.sh net/*.cc
#
# With --deep as the first argument the analyzer follows longer paths through more functions, which
# takes about four times as long.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/tools.sh
requireTool "$clangTidy"

depth=shallow
if [[ ${1-} == --deep ]]; then
  depth=deep
  shift
fi
options=(--quiet -p build/clang)
for option in -analyzer-config "mode=$depth"; do
  options+=(--extra-arg=-Xclang "--extra-arg=$option")
done
# Without the templates that a source file does not use, nearly all of them the system's: they take
# a third of the time.
options+=(--extra-arg=-fdelayed-template-parsing)
# In place of the slow check modernize-use-nullptr.
options+=(--extra-arg=-Wzero-as-null-pointer-constant)

cmake --preset clang >/dev/null

if [[ $# -gt 0 ]]; then
  printf '%s\0' "$@"
else
  find . \( -path ./build -o -path ./.git \) -prune -o \
    -type f \( -name '*.c' -o -name '*.cc' \) -print0
fi |
  xargs --null --max-args=1 --max-procs="$(nproc)" "$clangTidy" "${options[@]}" 2>&1 |
  # Drop the count of findings: it includes hidden ones, in system headers.
  sed -E '/^[0-9]+ warnings? generated\.$/d'
