#!/bin/bash
# Runs a command in a fresh clone of the current commit, in a minimal Debian of its own:
#
#   in-debian.sh trixie scripts/test.sh
#   in-debian.sh bookworm:arm64 scripts/demo.sh
#   in-debian.sh --again trixie ...      in the clone of the call before, with what it has built
#   in-debian.sh --folder trixie         only prints the folder of the clone
#
# The command sees the devices, the firmware and the network of this machine, and runs as root. What
# it installs stays in the tree, which stays in build/trees/; the clone is in ktclientd/ there.
# Needs root.
set -euo pipefail
self=$(realpath "$0")
cd "$(dirname "$self")/.."
if [[ $EUID -ne 0 ]]; then
  exec sudo "$self" "$@"
fi
if [[ $# -lt 2 ]]; then
  echo "usage: scripts/in-debian.sh [--again] SUITE[:ARCHITECTURE] COMMAND..." >&2
  exit 2
fi

mode=
if [[ $1 == --* ]]; then
  mode=$1
  shift
fi
suite=${1%%:*}
architecture=$(dpkg --print-architecture)
[[ $1 != *:* ]] || architecture=${1##*:}
shift

tree=$(scripts/debian-tree.sh build "$suite" "$architecture" ca-certificates,git)
if [[ $mode == --folder ]]; then
  echo "$tree/ktclientd"
  exit
fi
if [[ $mode != --again ]]; then
  rm -rf --one-file-system "$tree/ktclientd"
  git clone --quiet --no-hardlinks "$PWD" "$tree/ktclientd"
fi
cp --dereference /etc/resolv.conf "$tree/etc/resolv.conf"

# The mounts and all processes end with the command. The shell that is process 1 reaps orphans.
export tree
exec unshare --mount --propagation=private --pid --fork --kill-child bash -c '
  set -euo pipefail
  mount --bind "$tree" "$tree"  # unshare(1) there wants a mount point as root folder
  mount -t proc proc "$tree/proc"
  mount --rbind /sys "$tree/sys"
  mount --rbind /dev "$tree/dev"
  mount -t tmpfs tmpfs "$tree/run"
  mount -t tmpfs tmpfs "$tree/tmp"
  status=0
  chroot "$tree" env --ignore-environment HOME=/root LANG=C.UTF-8 TERM=dumb \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    ${CMAKE_BUILD_PARALLEL_LEVEL:+CMAKE_BUILD_PARALLEL_LEVEL="$CMAKE_BUILD_PARALLEL_LEVEL"} \
    sh -c "cd /ktclientd && exec \"\$@\"" sh "$@" || status=$?
  exit "$status"' bash "$@"
