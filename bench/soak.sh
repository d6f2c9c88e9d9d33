#!/bin/bash
# Runs `soak` against a daemon of the AddressSanitizer build, then ends the daemon. Fails when a
# response is wrong or late, when the daemon keeps descriptors or memory, and when a sanitizer
# reports anything.
set -euo pipefail

usage="Usage: bench/soak.sh [-b DIRECTORY_OF_PROGRAMS] [SOAK_OPTION]..."
bin=$(dirname "$0")/../build/asan/bin
case ${1-} in
  -h) echo "$usage" && exit 0 ;;
  -b) bin=$2 && shift 2 ;;
esac
bin=$(realpath -e "$bin")
for program in soak ktclientd; do
  [[ -x $bin/$program ]] || { echo "There is no $bin/$program" >&2 && exit 1; }
done

serial=KT-0001-SOAK
directory=$(mktemp -d)
daemon=

clean_up() {
  if [[ -n $daemon ]]; then
    kill -KILL "$daemon" 2>/dev/null || true
    wait "$daemon" 2>/dev/null || true
  fi
  rm -rf "$directory"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

mkdir "$directory/commands"
printf '#!/bin/sh\necho %s\n' "$serial" >"$directory/commands/dmidecode"
chmod +x "$directory/commands/dmidecode"

# The environment has no KESTREL_ variable: it would override the command line. AddressSanitizer
# keeps freed memory in a quarantine; a small one is full after the warm-up and grows no more.
env -i PATH="$directory/commands:$PATH" \
  ASAN_OPTIONS=detect_stack_use_after_return=1:strict_string_checks=1:quarantine_size_mb=16 \
  UBSAN_OPTIONS=print_stacktrace=1 \
  "$bin/ktclientd" --socket="$directory/socket" --trace-folder="$directory" --trace-level=1 \
  >"$directory/output" 2>&1 &
daemon=$!

status=0
uptime
"$bin/soak" --socket="$directory/socket" --pid="$daemon" --serial="$serial" "$@" || status=$?
uptime

kill -TERM "$daemon" 2>/dev/null || true
daemonStatus=0
wait "$daemon" || daemonStatus=$?
daemon=
echo "exit status of ktclientd: $daemonStatus"
if [[ $daemonStatus -ne 0 || -s $directory/output ]]; then
  cat "$directory/output" >&2
  exit 1
fi
exit "$status"
