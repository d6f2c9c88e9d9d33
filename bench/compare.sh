#!/bin/bash
# Compares the daemon with the yardstick: latency, throughput and processor time, with and without
# trace lines, for one and for many connections; system calls per request; the time from activation
# to the first response; memory. Prints a table with the goals at the end.
set -euo pipefail

usage="Usage: bench/compare.sh [-b DIRECTORY_OF_PROGRAMS] [-n REQUESTS] [-r ROUNDS]"
bin=$(dirname "$0")/../build/release/bin
requests=20000
rounds=5
while getopts b:n:r:h option; do
  case $option in
    b) bin=$OPTARG ;;
    n) requests=$OPTARG ;;
    r) rounds=$OPTARG ;;
    h) echo "$usage" && exit 0 ;;
    *) echo "$usage" >&2 && exit 2 ;;
  esac
done
bin=$(realpath -e "$bin")
for program in load yardstick ktclientd; do
  [[ -x $bin/$program ]] || { echo "There is no $bin/$program" >&2 && exit 1; }
done

directory=$(mktemp -d)
declare -A pids=()

# start NAME COMMAND...: runs COMMAND, which serves the socket $directory/NAME. The environment is
# empty except for PATH: a KESTREL_ variable would override the command line.
start() {
  env -i PATH="$PATH" "${@:2}" >"$directory/$1.output" 2>&1 &
  pids[$1]=$!
}

stop() {
  local pid=${pids[$1]}
  unset "pids[$1]"
  kill "$pid" 2>/dev/null || true
  # A process that ignores SIGTERM must not block the other measurements.
  for _ in {1..200}; do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  kill -KILL "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
}

clean_up() {
  for name in "${!pids[@]}"; do
    stop "$name"
  done
  rm -rf "$directory"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

start_daemon() {  # NAME ARGUMENT...
  mkdir -p "$directory/$1.trace"
  start "$1" "$bin/ktclientd" --socket="$directory/$1" --trace-folder="$directory/$1.trace" "${@:2}"
}

load() {  # NAME OPTION...
  "$bin/load" --wait --socket="$directory/$1" --pid="${pids[$1]}" "${@:2}" || {
    echo "The load on $1 failed. Output of $1:" >&2
    cat "$directory/$1.output" >&2
    exit 1
  }
}

median() {
  sort -g | awk '{ v[NR] = $1 } END { print (v[int((NR + 1) / 2)] + v[int(NR / 2) + 1]) / 2 }'
}

# figure NAME KEY: the median, over the rounds, of the figure KEY that `load` reports.
figure() {
  awk -v key="$2" '$1 == key { print $2 }' "$directory/$1".round.* | median
}

# race TITLE YARDSTICK DAEMON LOAD_OPTION...: loads the two servers in turn, so that other work of the
# machine affects both.
race() {
  local round name key title=$1 yardstick=$2 daemon=$3
  shift 3
  for ((round = 1; round <= rounds; ++round)); do
    for name in "$yardstick" "$daemon"; do
      load "$name" --warmup=1000 --requests="$requests" "$@" >"$directory/$name.round.$round"
    done
  done
  printf '\n%s\n%-20s %12s %12s %8s\n' "$title" "" yardstick daemon ratio
  for key in p50_us p99_us requests_per_s cpu_us_per_request; do
    echo "$key $(figure "$yardstick" "$key") $(figure "$daemon" "$key")"
  done | awk '{ printf "%-20s %12.1f %12.1f %8.2f\n", $1, $2, $3, $3 / $2 }' |
    tee "$directory/last_race"
}

# note NAME FIGURE GOAL: adds a line to the table at the end. GOAL is "<= number" or ">= number".
note() {
  printf '%-52s %10s %10s\n' "$@" >>"$directory/goals"
}

# goal NAME KEY GOAL: adds the ratio KEY of the last race.
goal() {
  note "$1" "$(awk -v key="$2" '$1 == key { print $4 }' "$directory/last_race")" "$3"
}

# count_calls NAME REQUESTS FILE: writes the server's system calls for REQUESTS requests to FILE, as
# strace counts them. Fails when strace cannot attach to the server.
count_calls() {
  local pid=${pids[$1]} tracer
  strace -qq -c -f -o "$3" -p "$pid" 2>"$directory/strace.output" &
  tracer=$!
  pids[strace]=$tracer
  until awk '$1 == "TracerPid:" && $2 == 0 { free = 1 } END { exit free }' \
    "/proc/$pid/task/"*/status; do
    if ! kill -0 "$tracer" 2>/dev/null; then
      stop strace
      return 1
    fi
    sleep 0.01
  done
  load "$1" --requests="$2" >/dev/null
  stop strace
}

# The system calls of 2000 requests: those of 2100 minus those of 100. Both counts include the calls
# for starting, ending and idling, so these cancel out.
print_calls() {  # NAME
  if ! count_calls "$1" 100 "$directory/few" || ! count_calls "$1" 2100 "$directory/many"; then
    echo "$1: strace cannot attach: $(cat "$directory/strace.output")"
    return
  fi
  # In the table of strace the fourth column is a number only in the lines of calls and in the last
  # line, "total".
  awk -v name="$1" '
    $4 ~ /^[0-9]+$/ && $NF != "total" {
      calls[$NF] += (FILENAME ~ /many$/ ? 1 : -1) * $4
    }
    END {
      for (call in calls) {
        sum += calls[call]
        if (calls[call] >= 20) {
          list = list sprintf(" %s %.2f", call, calls[call] / 2000)
        }
      }
      printf "%-10s %.2f:%s\n", name, sum / 2000, list
    }' "$directory/few" "$directory/many"
}

# systemd-socket-activate executes the daemon when the request is already waiting.
print_start_time() {
  local round
  for round in {1..10}; do
    mkdir -p "$directory/activated.trace"
    start activated systemd-socket-activate --seqpacket -l "$directory/activated" \
      "$bin/ktclientd" --activated=true --trace-level=1 --trace-folder="$directory/activated.trace"
    load activated --requests=1 >"$directory/activated.round.$round"
    stop activated
    rm -f "$directory/activated"
  done
  local start
  start=$(figure activated max_us)
  printf '\nFrom activation to the first response, median of 10: %.0f us\n' "$start"
  note "activation to the first response, milliseconds" \
    "$(awk -v us="$start" 'BEGIN { printf "%.2f", us / 1000 }')" "<= 2.70"
}

# Asks systemd-hostnamed over D-Bus and the daemon for the same serial number, in turn. Both answer
# only root, and on a machine that has such a number.
print_serial_times() {
  local hostnamed=(busctl --system call org.freedesktop.hostname1 /org/freedesktop/hostname1
    org.freedesktop.hostname1 GetHardwareSerial)
  local serial round begin
  if [[ ! -x $bin/ktclientctl ]] || ! serial=$("${hostnamed[@]}" 2>/dev/null); then
    echo "not measured: this needs ktclientctl, a system bus, and systemd-hostnamed with a number"
    return
  fi
  serial=${serial#s }
  start_daemon serial_daemon --trace-level=1
  load serial_daemon --requests=1 >/dev/null
  local daemon=("$bin/ktclientctl" --socket="$directory/serial_daemon" --compact hardware)
  if [[ $("${daemon[@]}") != *":$serial"* ]]; then
    echo "not measured: the daemon has another serial number than systemd-hostnamed"
    stop serial_daemon
    return
  fi
  for round in {1..30}; do
    begin=${EPOCHREALTIME/[.,]/}
    "${hostnamed[@]}" >/dev/null
    echo $((${EPOCHREALTIME/[.,]/} - begin)) >>"$directory/hostnamed.times"
    begin=${EPOCHREALTIME/[.,]/}
    "${daemon[@]}" >/dev/null
    echo $((${EPOCHREALTIME/[.,]/} - begin)) >>"$directory/daemon.times"
  done
  stop serial_daemon
  printf 'medians of 30: systemd-hostnamed %.0f us, daemon %.0f us\n' \
    "$(median <"$directory/hostnamed.times")" "$(median <"$directory/daemon.times")"
}

count_lines() {
  cat "$directory/$1.trace/"* | wc -l
}

echo "Medians of $rounds rounds of $requests requests, one connection, one request at a time"

start quiet_yardstick "$bin/yardstick" "$directory/quiet_yardstick"
start_daemon quiet_daemon --trace-level=1
load quiet_daemon --requests=1 >/dev/null  # it has started when it has answered
load quiet_daemon --requests=1 >"$directory/idle"
resident=$(awk '$1 == "rss_kib_before" { print $2 }' "$directory/idle")
race "Errors are traced only" quiet_yardstick quiet_daemon
goal "processor time a request, level 1" cpu_us_per_request "<= 1.65"
goal "round trip p50, level 1" p50_us "<= 1.15"

printf '\nSystem calls per request\n'
if command -v strace >/dev/null; then
  print_calls quiet_yardstick
  print_calls quiet_daemon
else
  echo "not counted: strace is not installed"
fi

race "32 connections, errors are traced only" quiet_yardstick quiet_daemon --connections=32
goal "requests a second, 32 connections, level 1" requests_per_s ">= 0.50"
# The latencies do not include connecting, the requests per second do.
race "A connection for each request, errors are traced only" quiet_yardstick quiet_daemon \
  --connect-each
goal "connect, ask, close: p50, level 1" p50_us "<= 1.25"
load quiet_daemon --requests=1 --idle=1000 >"$directory/idle"
perConnection=$(awk '$1 == "rss_kib_per_idle" { print $2 * 1024 }' "$directory/idle")
stop quiet_yardstick
stop quiet_daemon

start_daemon tracing_daemon
load tracing_daemon --requests=1000 >/dev/null
before=$(count_lines tracing_daemon)
load tracing_daemon --requests=1000 >/dev/null
lines=$((($(count_lines tracing_daemon) - before + 500) / 1000))
start tracing_yardstick "$bin/yardstick" "$directory/tracing_yardstick" "$lines" \
  "$directory/tracing_yardstick.lines"
race "Everything is traced by default: $lines lines a request" tracing_yardstick tracing_daemon
goal "processor time a request, default level" cpu_us_per_request "<= 1.60"
goal "round trip p50, default level" p50_us "<= 1.35"
stop tracing_yardstick
stop tracing_daemon

if command -v systemd-socket-activate >/dev/null; then
  print_start_time
else
  printf '\nThe start is not timed: systemd-socket-activate is not installed\n'
fi
printf 'Resident memory without clients: %s KiB; for each idle connection: %.0f B\n' \
  "$resident" "$perConnection"
note "resident memory without clients, MiB" \
  "$(awk -v kib="$resident" 'BEGIN { printf "%.2f", kib / 1024 }')" "<= 4.60"
note "resident memory of an idle connection, bytes" "$(printf %.0f "$perConnection")" "<= 672"

printf '\nThe serial number, each time by a new process\n'
print_serial_times

printf '\n%-52s %10s %10s\n' "Goals; without a unit: daemon / yardstick" figure goal
cat "$directory/goals"
echo
if command -v strace >/dev/null && command -v valgrind >/dev/null; then
  "$(dirname "$0")/budget.sh" -b "$bin" || true
else
  echo "Instructions, allocations and system calls are not counted: this needs strace and valgrind"
fi
