#!/bin/bash
# Boots a minimal Debian in a container, installs the packages there and runs debian/tests/:
#
#   test-package.sh                  the release of this machine, with build/package/
#   test-package.sh trixie           another one; in-debian.sh builds the packages
#   test-package.sh trixie FOLDER    another one, with the packages from FOLDER
#
# The tree of that Debian stays in build/; the container works on a copy in memory. Needs root.
set -euo pipefail
cd "$(dirname "$(realpath "$0")")/.."
if [[ $EUID -ne 0 ]]; then
  exec sudo "$0" "$@"
fi
# In a mount namespace of its own: its mounts end with the script.
if [[ ${1-} != --in-namespace ]]; then
  exec unshare --mount --propagation=private "$0" --in-namespace "$@" </dev/null
fi
shift

patience=600  # seconds
ownSuite=$(. /etc/os-release && echo "$VERSION_CODENAME")
suite=${1:-$ownSuite}
folder=$PWD/build/package-test
serial=KT-0042-TEST

scripts/setup.sh --package
architecture=$(dpkg --print-architecture)
made=${2:-$PWD/build/package}
if [[ $# -lt 2 && $suite != "$ownSuite" ]]; then
  scripts/in-debian.sh "$suite" scripts/package.sh
  made=$(scripts/in-debian.sh --folder "$suite")/build/package
fi
packages=("$made"/ktclientd_*.deb "$made"/ktclientd-support_*.deb)
if [[ ! -e ${packages[0]} ]]; then
  echo "test-package: there are no packages; run scripts/package.sh first" >&2
  exit 1
fi

# The packages that the packages and their tests depend on.
wanted=$({
  echo systemd-sysv,dbus,procps,dmidecode
  dpkg-deb --field "${packages[1]}" Depends | sed 's/ktclientd ([^)]*),*//; s/([^)]*)//g; s/ //g'
  sed -n 's/^Depends: @, //p' debian/tests/control | tr --delete ' '
} | paste --serial --delimiters=,)
tree=$(scripts/debian-tree.sh package-test "$suite" "$architecture" "$wanted")
mkdir -p "$folder"

container=
controlGroup=
data=$(mktemp --directory)

cleanUp() {
  if [[ -n $container ]]; then
    kill -TERM "$container" 2>/dev/null || true
    wait "$container" || true
  fi
  if [[ -n $controlGroup ]]; then
    find "$controlGroup" -depth -type d -exec rmdir {} +
  fi
  rm -rf "$data"
}
trap cleanUp EXIT
trap 'exit 130' INT TERM

cp "${packages[0]}" "$data/package.deb"
cp "${packages[1]}" "$data/support.deb"
echo "$serial" >"$data/serial"
# The dump holds the entry point, padded to 32 bytes, and then the structures. The kernel shows the
# two as separate files.
tests/data/make_dmi_table.py --serial "$serial" --output "$data/dump"
head --bytes=24 "$data/dump" >"$data/smbios_entry_point"
tail --bytes=+33 "$data/dump" >"$data/DMI"
cat >"$data/package-test.service" <<'UNIT'
[Unit]
SuccessAction=exit
FailureAction=exit
[Service]
Type=oneshot
ExecStart=/source/tests/packaging/in_container.sh
ExecStopPost=sh -c 'exec journalctl --no-pager >/results/journal'
StandardOutput=append:/results/output
StandardError=inherit
UNIT
# The tests restart the socket more often than the default allows.
printf '[Manager]\nDefaultStartLimitIntervalSec=0\n' >"$data/manager.conf"

options=(
  --boot --quiet --directory="$tree" --volatile=overlay --private-network --console=pipe
  --bind-ro="$PWD:/source" --bind-ro="$data:/data" --bind="$folder/results:/results"
  --bind-ro="$data/package-test.service:/etc/systemd/system/package-test.service"
  --bind-ro="$data/manager.conf:/etc/systemd/system.conf.d/manager.conf"
)
# Without a running systemd this script must create the control group of the container itself.
if [[ ! -d /run/systemd/system ]]; then
  options+=(--register=no --keep-unit)
  if [[ $(stat --file-system --format=%T /sys/fs/cgroup) != cgroup2fs ]]; then
    umount --recursive /sys/fs/cgroup 2>/dev/null || true
    mount --types cgroup2 cgroup2 /sys/fs/cgroup
  fi
  controlGroup=/sys/fs/cgroup$(sed --quiet 's/^0:://p' /proc/self/cgroup)/ktclientd-test-$$
  mkdir "$controlGroup"
fi

rm -rf "$folder/results"
mkdir "$folder/results"
touch "$folder/results/output"
(
  if [[ -n $controlGroup ]]; then
    echo "$BASHPID" >"$controlGroup/cgroup.procs"
  fi
  # On SIGTERM systemd-nspawn shuts its Debian down.
  exec timeout --kill-after=30 "$patience" systemd-nspawn "${options[@]}" \
    systemd.wants=package-test.service
) >"$folder/results/console" 2>&1 &
container=$!
tail --follow --lines=+1 --pid="$container" "$folder/results/output" &
output=$!
status=0
wait "$container" || status=$?
container=
wait "$output"
if [[ $status -ne 0 ]]; then
  echo "test-package: failed with $status; console and journal are in $folder/results" >&2
fi
exit "$status"
