#!/bin/bash
# Boots a minimal Debian in a container and runs a command of the repository there:
#
#   boot-debian.sh TREE RESULTS DATA COMMAND
#
# TREE is the folder of that Debian; the container works on a copy of it in memory. The container
# sees the repository in /source, and DATA in /data, to which this script adds the firmware's tables
# of an invented machine. RESULTS gets the output, the journal and the console. The status is that of
# the command. Needs root.
set -euo pipefail
self=$(realpath "$0")
cd "$(dirname "$self")/.."
# In a mount namespace of its own: its mounts end with the script.
if [[ ${1-} != --in-namespace ]]; then
  exec unshare --mount --propagation=private "$self" --in-namespace "$@" </dev/null
fi
tree=$2
results=$3
data=$4
command=$5

patience=900  # seconds
serial=KT-0042-TEST

container=
controlGroup=

cleanUp() {
  if [[ -n $container ]]; then
    kill -TERM "$container" 2>/dev/null || true
    wait "$container" || true
  fi
  if [[ -n $controlGroup ]]; then
    find "$controlGroup" -depth -type d -exec rmdir {} +
  fi
}
trap cleanUp EXIT
trap 'exit 130' INT TERM

echo "$serial" >"$data/serial"
# The dump holds the entry point, padded to 32 bytes, and then the structures. The kernel shows the
# two as separate files.
tests/data/make_dmi_table.py --serial "$serial" --output "$data/dump"
head --bytes=24 "$data/dump" >"$data/smbios_entry_point"
tail --bytes=+33 "$data/dump" >"$data/DMI"
cat >"$data/boot-test.service" <<UNIT
[Unit]
SuccessAction=exit
FailureAction=exit
[Service]
Type=oneshot
ExecStart=/source/$command
ExecStopPost=sh -c 'exec journalctl --no-pager >/results/journal'
StandardOutput=append:/results/output
StandardError=inherit
UNIT
# The tests restart the socket more often than the default allows.
printf '[Manager]\nDefaultStartLimitIntervalSec=0\n' >"$data/manager.conf"

options=(
  --boot --quiet --directory="$tree" --volatile=overlay --private-network --console=pipe
  --bind-ro="$PWD:/source" --bind-ro="$data:/data" --bind="$results:/results"
  --bind-ro="$data/boot-test.service:/etc/systemd/system/boot-test.service"
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

rm -rf "$results"
mkdir --parents "$results"
touch "$results/output"
(
  if [[ -n $controlGroup ]]; then
    echo "$BASHPID" >"$controlGroup/cgroup.procs"
  fi
  # On SIGTERM systemd-nspawn shuts its Debian down.
  exec timeout --kill-after=30 "$patience" systemd-nspawn "${options[@]}" \
    systemd.wants=boot-test.service
) >"$results/console" 2>&1 &
container=$!
tail --follow --lines=+1 --pid="$container" "$results/output" &
output=$!
status=0
wait "$container" || status=$?
container=
wait "$output"
if [[ $status -ne 0 ]]; then
  echo "boot-debian: failed with $status; console and journal are in $results" >&2
fi
exit "$status"
