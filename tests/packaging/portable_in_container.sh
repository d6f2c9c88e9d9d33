#!/bin/bash
# Installs the portable archive in the container that scripts/boot-debian.sh boots, removes it, and
# runs the black-box tests with its programs:
#
#   /source   the tree
#   /data     the archive, and the firmware's tables of an invented machine
set -euo pipefail
. /source/tests/packaging/machine.sh

mkdir /archive
tar --extract --directory=/archive --strip-components=1 --file=/data/archive.tar.gz
install=/archive/install.sh
units=/usr/local/lib/systemd/system

list() {
  find /etc /run /usr/local /var/log -name '*ktclient*' -o -path '/usr/local/*' | sort
}

if ((version >= 255)); then
  step "An older systemd knows the settings"
  tests/packaging/check_settings.py \
    /archive/files/lib/systemd/system/{ktclientd.socket,ktclientd.service,ktclientd.service.d/*}
fi

step "Install and uninstall; somebody else made the group"
groupadd ktclientd
before=$(list)
"$install"
"$install" --uninstall
expect "files are" "$before" "$(list)"
groupdel ktclientd

step "Install"
before=$(list)
"$install"
expect "socket is" "enabled active" \
  "$(systemctl is-enabled ktclientd.socket) $(systemctl is-active ktclientd.socket)"
expect "service is" inactive "$(systemctl is-active ktclientd.service || true)"
expect "systemd complains" "" "$(systemd-analyze verify $units/ktclientd.{socket,service} 2>&1)"
expect "access" "root ktclientd 660" "$(stat --format='%U %G %a' /run/ktclientd/ktclientd.sock)"

# In a shell of its own: bash remembers where it has found a program.
hardware() {
  bash -c 'ktclientctl --compact hardware' | sed 's/.*"bios_serial_number":"\([^"]*\)".*/\1/'
}
expect "serial number" "$(</data/serial)" "$(hardware)"
message=$(/usr/local/bin/ktclientctl report 2>&1 || true)
expect "without the program, its package is named" ktclientd-support "${message##* }"

step "Install again, over a daemon that runs"
pid=$(systemctl show --value --property=MainPID ktclientd.service)
touch $units/ktclientd.service.d/since-999.conf
echo "$units/ktclientd.service.d/since-999.conf" >>/usr/local/lib/ktclientd/files
"$install"
expect "serial number" "$(</data/serial)" "$(hardware)"
expect "daemon is another one" yes \
  "$([[ $(systemctl show --value --property=MainPID ktclientd.service) != "$pid" ]] && echo yes)"
expect "file of the other version" "" "$(find $units -name since-999.conf)"

step "The daemon exits when it is idle, and the next client starts it again"
mkdir /etc/systemd/system/ktclientd.service.d
printf '[Service]\nEnvironment=KESTREL_ACTIVATED_PERIOD=1\n' \
  >/etc/systemd/system/ktclientd.service.d/idle.conf
systemctl daemon-reload
systemctl stop ktclientd.service
for _ in 1 2; do
  expect "serial number" "$(</data/serial)" "$(hardware)"
  timeout 60 bash -c 'while systemctl --quiet is-active ktclientd.service; do sleep 0.2; done'
  expect "result" "success 0" "$(systemctl show --value --property=Result --property=ExecMainStatus \
    ktclientd.service | sort --reverse | paste --serial --delimiters=' ')"
done
rm -r /etc/systemd/system/ktclientd.service.d
expect "warnings" "" "$(journalctl --no-pager --quiet --output=cat --priority=warning \
  --unit=ktclientd.service --unit=ktclientd.socket | grep -v '^-- ' || true)"

step "Uninstall"
"$install" --uninstall
expect "files are" "$before" "$(list)"
expect "group" "" "$(getent group ktclientd || true)"
expect "socket is" "" "$(systemctl list-unit-files --no-legend 'ktclientd*')"

step "Install in an image"
image=/tmp/image
mkdir --parents $image/etc $image/usr/lib/systemd
touch $image/usr/lib/systemd/libsystemd-shared-247.so
"$install" --root=$image
expect "link" $units/ktclientd.socket \
  "$(readlink $image/etc/systemd/system/sockets.target.wants/ktclientd.socket)"
expect "settings" since-247.conf "$(ls $image$units/ktclientd.service.d)"
expect "groups" 1 "$(grep --count '^ktclientd:' $image/etc/group)"
"$install" --root=$image --uninstall
expect "left files" "" "$(find $image -name '*ktclient*')"
expect "left groups" 0 "$(grep --count '^ktclientd:' $image/etc/group || true)"

step "Black-box tests"
mkdir /archive/programs
cp /archive/files/*bin/ktclient* /archive/programs
cd tests/blackbox
KTCLIENTD_BIN=/archive/programs python3 -B -m unittest --buffer \
  test_{start_and_stop,protocol,sensor_commands,igel,hostile_clients,fairness,idle_exit,resources} \
  test_{old_kernel,tracing,client_program,native_host}
