#!/bin/bash
# Makes a minimal Debian in build/trees/, or finds the one that an earlier call made, and prints its
# folder: debian-tree.sh NAME SUITE ARCHITECTURE PACKAGE,PACKAGE... The tree replaces another one of
# the same name, suite and architecture that has other packages. Needs root, and for a foreign
# architecture the emulator of the package qemu-user-static.
#
# With --unpack before NAME the packages are only unpacked, and nothing in the tree runs: a compiler
# uses it as its sysroot. These are the packages of the release without its updates: a release whose
# support has ended no longer has the updates for all architectures.
set -euo pipefail
cd "$(dirname "$0")/.."

variant=minbase
sources=()
if [[ $1 == --unpack ]]; then
  variant=extract
  sources=("deb http://deb.debian.org/debian $3 main")
  shift
fi
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
  mmdebstrap --quiet --variant=$variant --architectures="$architecture" --include="$packages" \
    "${options[@]}" "$suite" "$tree.part" "${sources[@]}" >&2
  if [[ $variant == extract ]]; then
    # A linker follows absolute links to files of this machine.
    while IFS= read -r link; do
      ln --symbolic --force --relative "$tree.part$(readlink "$link")" "$link"
    done < <(find "$tree.part/usr" "$tree.part"/lib* -type l -lname "/*")
  fi
  mv "$tree.part" "$tree"
fi
echo "$tree"
