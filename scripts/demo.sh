#!/bin/bash
# Builds the release preset and shows the daemon at work: on this machine, with prepared firmware
# tables, on an invented IGEL device with new certificates, and started by socket activation. Fails
# when a step does not end as expected. The sockets and trace files are in a temporary folder, which
# the script removes at its end.
set -euo pipefail
cd "$(dirname "$0")/.."

for name in "${!KESTREL_@}"; do
  unset "$name"
done
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin  # dmidecode is in an sbin

bin=build/release/bin
patience=30  # seconds
serial=KT-0001-DEMO
unknownSensor='{"sensor":{"toaster":null}}'
folder=$(mktemp --directory)
daemon=
failed=0

cleanUp() {
  if [[ -n $daemon ]]; then
    kill -KILL "$daemon" 2>/dev/null || true
    wait "$daemon" 2>/dev/null || true
  fi
  rm -rf "$folder"
}
trap cleanUp EXIT
trap 'exit 130' INT TERM

heading() {
  printf '\n== %s\n' "$1"
}

# expect WHAT WANTED GOT
expect() {
  if [[ $3 == "$2" ]]; then
    echo "$1: $3"
  else
    echo "$1: $3, should be $2"
    failed=1
  fi
}

# start SOCKET COMMAND...: runs the command in the background; returns once the socket file exists.
start() {
  local socket=$1
  shift
  echo "\$ $*"
  "$@" &
  daemon=$!
  local deadline=$((SECONDS + patience))
  until [[ -S $socket ]]; do
    if ((SECONDS > deadline)) || ! kill -0 "$daemon" 2>/dev/null; then
      echo "demo: $socket does not exist" >&2
      exit 1
    fi
    sleep 0.05
  done
}

# ask SOCKET ARGUMENT...: sends a request with ktclientctl; sets `status` to its exit status.
ask() {
  local socket=$1
  shift
  echo "\$ ktclientctl --socket=$socket $*"
  local deadline=$((SECONDS + patience))
  # The socket file exists a moment before the daemon listens on it.
  until
    status=0
    "$bin/ktclientctl" --socket="$socket" "$@" >"$folder/answer" 2>&1 || status=$?
    [[ $status -ne 3 ]] || ((SECONDS > deadline)) || ! kill -0 "$daemon" 2>/dev/null
  do
    sleep 0.05
  done
  cat "$folder/answer"
}

# Waits for the daemon to end; sets `status` to its exit status.
waitForEnd() {
  status=0
  if timeout "$patience" tail --pid="$daemon" --follow /dev/null; then
    wait "$daemon" || status=$?
    daemon=
  else
    status="none, still running after $patience seconds"
    kill -KILL "$daemon"
    wait "$daemon" 2>/dev/null || true
    daemon=
  fi
}

stop() {
  echo "\$ kill -TERM $daemon"
  kill -TERM "$daemon" || true
  waitForEnd
  expect "exit status of ktclientd" 0 "$status"
}

heading "Build"
scripts/setup.sh
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
cmake --preset release >/dev/null
cmake --build --preset release

socket=$folder/ktclientd.sock
mkdir "$folder/real" "$folder/prepared" "$folder/igel" "$folder/activated" "$folder/path"

heading "This machine"
start "$socket" "$bin/ktclientd" --socket="$socket" --trace-folder="$folder/real" --trace-level=4
ask "$socket" hardware
expect "ktclientctl has a response" yes "$( ((status <= 1)) && echo yes || echo no)"
echo "exit status of ktclientctl: $status (0 or 1, depending on the machine)"
ask "$socket" igel
if ! grep --quiet 'IGEL OS 1[12]' /etc/os-release 2>/dev/null; then
  expect "exit status of ktclientctl" 1 "$status"
fi
stop

heading "A machine with prepared firmware tables"
tests/data/make_dmi_table.py --serial "$serial" --output "$folder/path/table"
ln -s "$(command -v dmidecode)" "$folder/path/real-dmidecode"
cp tests/data/dmidecode-shim "$folder/path/dmidecode"
PATH=$folder/path:$PATH
echo "PATH=$PATH"
start "$socket" "$bin/ktclientd" --socket="$socket" --trace-folder="$folder/prepared" \
  --trace-level=4
ask "$socket" hardware
expect "exit status of ktclientctl" 0 "$status"
expect "serial numbers in the response" "$serial" "$(grep -o "$serial" "$folder/answer" || true)"
ask "$socket" send "$unknownSensor"
expect "exit status of ktclientctl" 1 "$status"
stop

heading "The trace file of this run"
cat "$folder/prepared/ktclientd.log"

heading "An IGEL device with new certificates"
store=$folder/trust-store
mkdir "$store"
for subject in "/C=DE/O=Example, Inc./CN=Management server" "/CN=Second"; do
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout /dev/null -days 30 \
    -subj "$subject" -out "$store/${subject##*=}.pem" 2>/dev/null
done
printf 'NAME="IGEL OS 12"\nVERSION="12.4"\n' >"$folder/os-release"
# The daemon's own mount namespace has another file in place of /etc/os-release.
namespace=(unshare --mount)
[[ $EUID -eq 0 ]] || namespace+=(--map-root-user)
# shellcheck disable=SC2016 # expanded by the inner shell
start "$socket" "${namespace[@]}" sh -c 'mount --bind "$0" /etc/os-release && exec "$@"' \
  "$folder/os-release" "$bin/ktclientd" --socket="$socket" --trace-folder="$folder/igel" \
  --trace-level=4 --igel-management-cert-path="$store" --openssl-fingerprint-any-case
ask "$socket" igel
expect "exit status of ktclientctl" 0 "$status"
thumbprint=$(openssl x509 -in "$store/Second.pem" -outform DER | sha256sum | cut -d ' ' -f 1)
expect "thumbprint of the second certificate, as sha256sum computes it" "${thumbprint^^}" \
  "$(grep -o "${thumbprint^^}" "$folder/answer" || true)"
expect "certificates in the response" 2 "$(grep -c '"subject"' "$folder/answer")"
stop

heading "Started by socket activation; exits when idle"
activated=$folder/activated.sock
start "$activated" systemd-socket-activate --seqpacket --listen="$activated" -- \
  "$PWD/$bin/ktclientd" --activated --activated-period=1 --trace-folder="$folder/activated" \
  --trace-level=4
ask "$activated" hardware
expect "exit status of ktclientctl" 0 "$status"
waitForEnd
expect "exit status of ktclientd" 0 "$status"

heading "Result"
if [[ $failed -ne 0 ]]; then
  echo "A step did not end as expected: see above."
  exit 1
fi
echo "Every step ended as expected."
