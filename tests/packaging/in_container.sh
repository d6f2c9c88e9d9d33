#!/bin/bash
# Installs the packages in the container that scripts/test-package.sh boots, and runs its tests:
#
#   /source   the tree
#   /data     the packages, and the firmware's tables of an invented machine: as the kernel shows
#             them, and as a dump
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

step "Install and purge; somebody else made the group"
groupadd ktclientd
dpkg --install /data/package.deb
dpkg --purge ktclientd
groupdel ktclientd

step "Install"
dpkg --install /data/package.deb
expect "socket is" "enabled active" \
  "$(systemctl is-enabled ktclientd.socket) $(systemctl is-active ktclientd.socket)"
expect "service is" inactive "$(systemctl is-active ktclientd.service || true)"
expect "serial number" "$(</data/serial)" "$(ktclientctl --compact hardware |
  sed 's/.*"bios_serial_number":"\([^"]*\)".*/\1/')"

step "Install again, over a daemon that runs"
pid=$(systemctl show --value --property=MainPID ktclientd.service)
dpkg --install /data/package.deb
ktclientctl hardware
expect "daemon is another one" yes \
  "$([[ $(systemctl show --value --property=MainPID ktclientd.service) != "$pid" ]] && echo yes)"

step "Install what makes reports"
message=$(ktclientctl report 2>&1 || true)
expect "without it, the package is named" ktclientd-support "${message##* }"
dpkg --install /data/support.deb

for name in $(sed -n 's/^Tests: //p' debian/tests/control); do
  step "$name"
  "debian/tests/$name"
done
