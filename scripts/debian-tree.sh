#!/bin/bash
# Makes a minimal Debian in build/trees/, or finds the one that an earlier call made, and prints its
# folder: debian-tree.sh NAME SUITE ARCHITECTURE PACKAGE,PACKAGE... The tree replaces another one of
# the same name, suite and architecture that has other packages. Needs root, and for a foreign
# architecture the emulator of the package qemu-user-static.
set -euo pipefail
cd "$(dirname "$0")/.."

name=$1
suite=$2
architecture=$3
packages=$4

trees=$PWD/build/trees
prefix=$trees/$name-$suite-$architecture
tree=$prefix-$(sha256sum <<<"$packages" | cut --characters=1-12)
if [[ ! -d $tree ]]; then
  rm -rf --one-file-system "$prefix"-*
  mkdir -p "$trees"
  # The proxy of this machine, and whether its mirror is a snapshot.
  options=()
  while IFS= read -r option; do
    options+=(--aptopt="$option")
  done < <(apt-config dump | grep -iE '^Acquire::([^ ]*Proxy[^ ]*|Check-Valid-Until|Check-Date) "[^"]')
  mmdebstrap --quiet --variant=minbase --architectures="$architecture" --include="$packages" \
    "${options[@]}" "$suite" "$tree.part" >&2
  mv "$tree.part" "$tree"
fi
echo "$tree"
