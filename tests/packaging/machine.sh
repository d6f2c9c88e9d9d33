# Sourced by the scripts that scripts/boot-debian.sh runs in its container: gives the container the
# tables of firmware that are in /data, as the kernel shows them and as a dump.
# Sets `version`, that of systemd.
# shellcheck shell=bash
set -euo pipefail
cd /source

step() {
  printf '\n== %s\n' "$1"
}

# expect WHAT WANTED GOT
expect() {
  if [[ $3 != "$2" ]]; then
    echo "$1: $3, should be $2"
    exit 1
  fi
}

# The container has no firmware. Its /sys is a read-only file system of its own.
mount -o remount,rw /sys
mkdir --parents /sys/firmware/dmi/tables
install --mode=0400 /data/smbios_entry_point /data/DMI /sys/firmware/dmi/tables
mount -o remount,ro /sys
# Later releases of systemd mount a new /sys for a service that has a network of its own. The tables
# are missing there, so dmidecode reads the dump.
version=$(systemctl --version | sed -n '1s/^systemd \([0-9]*\).*/\1/p')
if ((version >= 255)); then
  install --mode=0444 /data/dump /usr/share/dmi-dump
  mv /usr/sbin/dmidecode /usr/sbin/dmidecode.real
  cat >/usr/sbin/dmidecode <<'PROGRAM'
#!/bin/sh
exec /usr/sbin/dmidecode.real --from-dump /usr/share/dmi-dump "$@"
PROGRAM
  chmod 0755 /usr/sbin/dmidecode
fi
