#!/usr/bin/env bash
# The agent simulation, run again and again under trouble from outside; every run must end with
# the reader equal to the agent (the simulation's exit status 0, "EQUAL" in its summary).
#
#   fulltmpfs    The simulation's /dev/shm is a small tmpfs of its own (a private mount
#                namespace). While the tables grow (late groups arriving, small initial
#                capacities), the harness takes all its free space, so that table growth
#                fails; once the agent says its writes failed, the harness waits a random moment
#                and frees the space. The agent's resync must bring the tables
#                back. Skipped, saying why, where mount namespaces are not permitted.
#   stopreader   The reader process is stopped with SIGSTOP for up to 5 s at random moments,
#                again and again, until the summary.
#
# usage: run.sh BIDIR_AGENT [RUNS [SCENARIO...]]   (RUNS per scenario, default 20; both scenarios
# by default). A run that fails is named with why and its whole log is printed; the exit status
# is 1 when any run failed.
set -uo pipefail

# 1,000 groups x 20 interfaces, 400 of them arriving during the first 2.5 s of churn; the
# group-interface table is created for 1,000 records, so it grows all along the arrivals. 10 s
# of churn at 20,000 changes/s, the agent killed and restarted at 5 s.
readonly SIM_ARGS=(--groups 1000 --intfs 20 --late-groups 400 --group-capacity 1000
                   --intf-capacity 1000 --seconds 10 --restart-at 5 --rate 20000
                   --df-move-every 1 --config-every 1)
readonly TMPFS_SIZE=32m
readonly FILLER=/dev/shm/torture-filler

# A random number of seconds in [lo, hi) milliseconds, as sleep(1) takes it.
random_seconds() {
  local ms=$(($1 + RANDOM % ($2 - $1)))
  printf '%d.%03d' $((ms / 1000)) $((ms % 1000))
}

# Waits until the log holds the pattern (0), the simulation has ended or the deadline (seconds)
# has passed (1).
wait_for() {
  local pattern=$1 log=$2 pid=$3 end=$((SECONDS + $4))
  until grep -q -- "$pattern" "$log"; do
    kill -0 "$pid" 2>/dev/null && [ "$SECONDS" -lt "$end" ] || return 1
    sleep 0.05
  done
}

# Takes all free space of /dev/shm (said in the log). The agent's tables may grow between the
# look at the free space and the allocation, which then fails and is made again for what is left.
fill() {
  local log=$1 free size
  for _ in 1 2 3 4 5; do
    free=$(($(stat -f -c '%a * %S' /dev/shm)))
    size=$(stat -c %s "$FILLER" 2>/dev/null || echo 0)
    if [ "$free" -eq 0 ] || fallocate -o "$size" -l "$free" "$FILLER" 2>/dev/null; then
      echo "[torture] filled /dev/shm: $(stat -c %s "$FILLER") bytes taken," \
        "$(($(stat -f -c '%a * %S' /dev/shm))) left" >>"$log"
      return 0
    fi
  done
  return 1
}

# ---- fulltmpfs: the part run inside the mount namespace. Prints why on a failure of its own.
inside_tmpfs() {
  local agent=$1 log=$2
  mount -t tmpfs -o "size=$TMPFS_SIZE" tmpfs /dev/shm || { echo "mount failed"; return 1; }
  # Appended to, as the harness's own lines are: neither overwrites the other. Created first, so
  # that it is there when the harness first looks.
  : >"$log"
  "$agent" "${SIM_ARGS[@]}" >>"$log" 2>&1 &
  local pid=$!
  local why=""
  if ! wait_for "reader attached" "$log" "$pid" 60; then
    why="the churn did not begin"
  else
    sleep "$(random_seconds 200 1500)"  # within the late groups' arrival
    fill "$log" || why="/dev/shm could not be filled"
    if [ -z "$why" ] && ! wait_for "table writes failed" "$log" "$pid" 10; then
      why="the full file system made no table write fail"
    fi
    sleep "$(random_seconds 0 1000)"  # the churn goes on against a full file system
    rm -f "$FILLER"
    echo "[torture] freed /dev/shm" >>"$log"
  fi
  wait "$pid"
  local rc=$?
  [ -n "$why" ] && { echo "$why"; return 1; }
  [ "$rc" -eq 0 ] || { echo "exit status $rc"; return 1; }
  grep -q "resynchronised its tables" "$log" || { echo "the agent never resynchronised"; return 1; }
}

# The first way of making a private mount namespace that works here, as a command prefix.
namespace_prefix() {
  local prefix
  for prefix in "unshare -m --propagation private" "unshare -rm --propagation private"; do
    if $prefix sh -c "mount -t tmpfs -o size=1m tmpfs /dev/shm" 2>/dev/null; then
      echo "$prefix"
      return 0
    fi
  done
  return 1
}

run_fulltmpfs() {
  local agent=$1 log=$2
  $NAMESPACE bash "$SELF" --inside-tmpfs "$agent" "$log"
}

# ---- stopreader
run_stopreader() {
  local agent=$1 log=$2
  : >"$log"
  "$agent" "${SIM_ARGS[@]}" >>"$log" 2>&1 &
  local pid=$! reader="" stops=0 stopped=0
  if wait_for "the reader starts" "$log" "$pid" 60; then
    local end=$((SECONDS + 10))
    until reader=$(pgrep -P "$pid" -f -- '--role reader') || [ "$SECONDS" -ge "$end" ]; do
      sleep 0.05
    done
  fi
  while [ -n "$reader" ] && kill -0 "$pid" 2>/dev/null && ! grep -q "==== summary" "$log"; do
    sleep "$(random_seconds 300 2000)"
    kill -STOP "$reader" 2>/dev/null || break
    local hold
    hold=$(random_seconds 100 5000)
    sleep "$hold"
    kill -CONT "$reader"
    stops=$((stops + 1))
    stopped=$(awk -v a="$stopped" -v b="$hold" 'BEGIN { print a + b }')
  done
  echo "[torture] reader stopped $stops times, $stopped s in all" >>"$log"
  wait "$pid"
  local rc=$?
  [ -n "$reader" ] || { echo "no reader process found"; return 1; }
  [ "$stops" -gt 0 ] || { echo "the reader was never stopped"; return 1; }
  [ "$rc" -eq 0 ] || { echo "exit status $rc"; return 1; }
}

# A run's log, indented, without the writer's error-level line of each failed table write (there
# are thousands while the file system is full): their count and the first one stand for them.
print_log() {
  local writes='PimBidir::QuarnWriter\[0\]'
  grep -v -- "$writes" "$1" | sed 's/^/     | /'
  local n
  n=$(grep -c -- "$writes" "$1")
  [ "$n" -eq 0 ] || echo "     | ($n error lines of failed table writes left out; the first:" \
    "$(grep -m1 -- "$writes" "$1" | cut -c1-240))"
}

# ---- driver
SELF=$(readlink -f "$0")
if [ "${1:-}" = "--inside-tmpfs" ]; then
  inside_tmpfs "$2" "$3"
  exit $?
fi
[ $# -ge 1 ] || { echo "usage: $0 BIDIR_AGENT [RUNS [SCENARIO...]]" >&2; exit 2; }
AGENT=$(readlink -f "$1")
RUNS=${2:-20}
shift $(($# >= 2 ? 2 : 1))
SCENARIOS=(fulltmpfs stopreader)
[ $# -eq 0 ] || SCENARIOS=("$@")

logs=$(mktemp -d /tmp/torture.XXXXXX)
trap 'rm -rf "$logs"' EXIT
failed=()
summary=()
for scenario in "${SCENARIOS[@]}"; do
  if [ "$scenario" = fulltmpfs ] && ! NAMESPACE=$(namespace_prefix); then
    echo "== fulltmpfs SKIPPED: no private mount namespace with a tmpfs here (unshare -m and" \
      "unshare -rm both failed); run as root or where user namespaces are allowed"
    summary+=("fulltmpfs: skipped (mounting not permitted)")
    continue
  fi
  echo "== $scenario: $RUNS runs of bidir_agent ${SIM_ARGS[*]}"
  equal=0
  for run in $(seq 1 "$RUNS"); do
    log="$logs/$scenario-$run.log"
    start=$SECONDS
    if why=$("run_$scenario" "$AGENT" "$log") && grep -q "EQUAL" "$log"; then
      equal=$((equal + 1))
      detail=$(grep -h "^\[torture\]\|resynchronised" "$log" |
        sed 's/^\[ *[0-9.]*s\] //; s/^\[torture\] //' | paste -sd ';' | cut -c1-200)
      echo "   run $run: EQUAL in $((SECONDS - start)) s ($detail)"
    else
      [ -n "$why" ] || why="the summary does not say EQUAL"
      grep -q "DIFFERENT" "$log" && why="$why; the reader ended DIFFERENT"
      echo "   run $run: FAILED ($why); its log:"
      print_log "$log"
      failed+=("$scenario run $run: $why")
    fi
  done
  summary+=("$scenario: $equal of $RUNS runs EQUAL")
done

echo "== torture summary"
printf '   %s\n' "${summary[@]}"
if [ ${#failed[@]} -gt 0 ]; then
  echo "== FAILED: ${#failed[@]} runs"
  printf '   %s\n' "${failed[@]}"
  exit 1
fi
