#!/bin/bash
# Formats the C and C++ files of the tree. With --check it changes no file: it prints what is not
# formatted, and fails if anything is.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/tools.sh
requireTool "$clangFormat"

case "${1-}" in
  "") mode=(-i) ;;
  --check) mode=(--dry-run --Werror) ;;
  *)
    echo "usage: scripts/format.sh [--check]" >&2
    exit 2
    ;;
esac

find . \( -path ./build -o -path ./.git \) -prune -o \
  -type f \( -name '*.h' -o -name '*.c' -o -name '*.cc' \) -print0 |
  xargs --null "$clangFormat" --style=file "${mode[@]}"
