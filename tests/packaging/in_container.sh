#!/bin/bash
# Installs the packages in the container that scripts/boot-debian.sh boots, and runs its tests:
#
#   /source   the tree
#   /data     the packages, and the firmware's tables of an invented machine: as the kernel shows
#             them, and as a dump
set -euo pipefail
. /source/tests/packaging/machine.sh

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
