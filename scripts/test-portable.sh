#!/bin/bash
# Tests the portable archive that `package.sh --portable` has left in build/portable/, in a minimal
# Debian that boots in a container:
#
#   test-portable.sh                        in Debian 11
#   test-portable.sh trixie                 in another release
#   test-portable.sh [trixie] --host=arm64  the archive of another architecture: an emulator runs
#                                           its programs with the C library of the release
#
# The tree of that Debian stays in build/; the container works on a copy in memory. Needs root.
set -euo pipefail
self=$(realpath "$0")
cd "$(dirname "$self")/.."
if [[ $EUID -ne 0 ]]; then
  exec sudo "$self" "$@"
fi
suite=bullseye
architecture=$(dpkg --print-architecture)
for argument; do
  case $argument in
    --host=arm64) architecture=${argument#--host=} ;;
    -* | *:*)
      echo "usage: scripts/test-portable.sh [SUITE] [--host=arm64]" >&2
      exit 2
      ;;
    *) suite=$argument ;;
  esac
done

scripts/setup.sh --package
scripts/setup.sh --portable
processor=$(dpkg-architecture --host-arch "$architecture" --query DEB_HOST_GNU_CPU 2>/dev/null)
archives=(build/portable/ktclientd-*-linux-"$processor".tar.gz)
if [[ ! -e ${archives[0]} ]]; then
  echo "test-portable: there is no archive; run scripts/package.sh --portable first" >&2
  exit 1
fi

data=$(mktemp --directory)
process=
cleanUp() {
  [[ -z $process ]] || kill "$process" 2>/dev/null || true
  rm -rf "$data"
}
trap cleanUp EXIT
trap 'exit 130' INT TERM
cp "${archives[0]}" "$data/archive.tar.gz"

# expect WHAT WANTED GOT
expect() {
  if [[ $3 != "$2" ]]; then
    echo "$1: $3, should be $2" >&2
    exit 1
  fi
}

# Each program prints its version; the daemon is activated, answers, and exits when it is idle.
emulate() {
  local tree version emulator client daemon status=0 socket=$data/socket
  tree=$(scripts/debian-tree.sh --unpack emulated "$suite" "$architecture" base-files,libc6)
  tar --extract --directory="$data" --strip-components=1 --file="$data/archive.tar.gz"
  version=${archives[0]#*/ktclientd-}
  version=${version%%-linux-*}
  emulator=("qemu-$processor-static" -L "$tree")
  client=("${emulator[@]}" "$data/files/bin/ktclientctl")
  daemon=("${emulator[@]}" "$data/files/sbin/ktclientd")
  expect version "ktclientd $version" "$("${daemon[@]}" --version)"
  expect version "ktclientctl $version" "$("${client[@]}" --version)"

  mkdir "$data/commands"
  printf '#!/bin/sh\necho KT-0042-TEST\n' >"$data/commands/dmidecode"
  chmod +x "$data/commands/dmidecode"
  systemd-socket-activate --seqpacket --listen="$socket" --setenv=PATH="$data/commands:$PATH" \
    --setenv=KESTREL_TRACE_FILE="$data/trace" --setenv=KESTREL_ACTIVATED_PERIOD=1 \
    "${daemon[@]}" --activated &
  process=$!
  timeout 60 sh -c 'until [ -S "$1" ]; do sleep 0.1; done' sh "$socket"
  expect response \
    '{"sensor":{"hardware":{"bios_serial_number":"KT-0042-TEST"}},"status":"Success"}' \
    "$("${client[@]}" --compact --socket="$socket" hardware)"
  wait "$process" || status=$?
  process=
  expect "status of the daemon" 0 "$status"
  echo "test-portable: the daemon for $architecture answers with the C library of $suite"
}

if [[ $architecture != "$(dpkg --print-architecture)" ]]; then
  emulate
  exit
fi

# systemd, the tools of the sensors, and what the tests need.
tree=$(scripts/debian-tree.sh portable-test "$suite" "$architecture" \
  systemd-sysv,dbus,procps,dmidecode,openssl,python3,python3-jsonschema,strace,netbase,man-db,gcc,libc6-dev)
scripts/boot-debian.sh "$tree" "$PWD/build/portable/results-$suite" "$data" \
  tests/packaging/portable_in_container.sh
