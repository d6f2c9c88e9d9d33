#!/bin/bash
# Counts what one request costs the daemon: instructions, allocations and system calls. Unlike times,
# these counts hardly depend on the machine and not on its load. Fails when one is more than 3 %
# above its budget. Needs valgrind and strace.
set -euo pipefail

usage="Usage: bench/budget.sh [-b DIRECTORY_OF_PROGRAMS]"
bin=$(dirname "$0")/../build/release/bin
while getopts b:h option; do
  case $option in
    b) bin=$OPTARG ;;
    h) echo "$usage" && exit 0 ;;
    *) echo "$usage" >&2 && exit 2 ;;
  esac
done
bin=$(realpath -e "$bin")

few=100
many=1100  # requests; what they cost beyond the few is divided by their difference
directory=$(mktemp -d)
pid=

trap 'rm -rf "$directory"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

end_daemon() {
  if [[ -n $pid ]]; then
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  fi
}

# run_daemon REQUESTS LEVEL TOOL...: runs the daemon under TOOL for so many requests. The environment
# is empty except for PATH: a KESTREL_ variable would override the command line. Runs in the subshell
# of a command substitution, whose end also ends the daemon.
run_daemon() {
  local requests=$1 level=$2
  shift 2
  trap end_daemon EXIT
  rm -rf "$directory/trace" "$directory/socket"
  mkdir "$directory/trace"
  env -i PATH="$PATH" "$@" "$bin/ktclientd" --socket="$directory/socket" \
    --trace-folder="$directory/trace" --trace-level="$level" >"$directory/output" 2>&1 &
  pid=$!
  if ! "$bin/load" --wait --socket="$directory/socket" --requests="$requests" >"$directory/load"; then
    cat "$directory/output" >&2
    exit 1
  fi
  # strace keeps SIGTERM from itself but not from the daemon, which is its child.
  pkill --signal TERM --parent "$pid" || kill -TERM "$pid"
  wait "$pid"
  pid=
}

count_instructions() {  # REQUESTS LEVEL
  run_daemon "$@" valgrind --tool=callgrind --callgrind-out-file="$directory/callgrind"
  awk '$1 == "totals:" { print $2 }' "$directory/callgrind"
}

count_allocations() {
  run_daemon "$@" valgrind --tool=dhat --dhat-out-file="$directory/dhat"
  sed -n 's/.* Total: .* in \([0-9,]*\) blocks/\1/p' "$directory/output" | tr --delete ,
}

count_calls() {
  run_daemon "$@" strace -qq -c -f -o "$directory/strace"
  awk '$NF == "total" { print $4 }' "$directory/strace"
}

failures=0

# check NAME BUDGET COUNTER LEVEL
check() {
  local first last
  first=$("$3" "$few" "$4")
  last=$("$3" "$many" "$4")
  awk -v name="$1" -v budget="$2" -v first="$first" -v last="$last" -v requests=$((many - few)) '
    BEGIN {
      count = (last - first) / requests
      isGood = first != "" && last != "" && count > 0 && count <= budget * 1.03
      printf "%-30s %10.1f %10d%s\n", name, count, budget, isGood ? "" : "  FAILED"
      exit !isGood
    }' || failures=$((failures + 1))
}

# The goals, on Debian 12.
printf '%-30s %10s %10s\n' "each request" count budget
check "instructions, level 1" 16000 count_instructions 1
check "instructions, default level" 38000 count_instructions 4
check "allocations, level 1" 30 count_allocations 1
check "system calls, level 1" 6 count_calls 1
exit $((failures > 0))
