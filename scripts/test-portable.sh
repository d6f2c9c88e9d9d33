#!/bin/bash
# Boots a minimal Debian in a container and tests the portable archive there, which
# `package.sh --portable` has left in build/portable/:
#
#   test-portable.sh            in Debian 11
#   test-portable.sh trixie     in another release
#
# The tree of that Debian stays in build/; the container works on a copy in memory. Needs root.
set -euo pipefail
self=$(realpath "$0")
cd "$(dirname "$self")/.."
if [[ $EUID -ne 0 ]]; then
  exec sudo "$self" "$@"
fi
suite=${1:-bullseye}
if [[ $suite == *:* ]]; then
  echo "test-portable: boots only the architecture of this machine" >&2
  exit 2
fi

scripts/setup.sh --package
archives=(build/portable/ktclientd-*-linux-"$(uname --machine)".tar.gz)
if [[ ! -e ${archives[0]} ]]; then
  echo "test-portable: there is no archive; run scripts/package.sh --portable first" >&2
  exit 1
fi
# systemd, the tools of the sensors, and what the tests need.
tree=$(scripts/debian-tree.sh portable-test "$suite" "$(dpkg --print-architecture)" \
  systemd-sysv,dbus,procps,dmidecode,openssl,python3,python3-jsonschema,strace,netbase,man-db,gcc,libc6-dev)

data=$(mktemp --directory)
trap 'rm -rf "$data"' EXIT
trap 'exit 130' INT TERM
cp "${archives[0]}" "$data/archive.tar.gz"
scripts/boot-debian.sh "$tree" "$PWD/build/portable/results-$suite" "$data" \
  tests/packaging/portable_in_container.sh
