#!/bin/sh
# The command line: --help exits 0 and says first that this is a simulation; a bad value exits
# 2, naming the option and why.
agent=$1
help=$("$agent" --help) || { echo "FAILED: --help exited $?"; exit 1; }
echo "$help" | head -1 | grep -q "a simulation, not a routing agent" ||
  { echo "$help"; echo "FAILED: the help's first line"; exit 1; }
out=$("$agent" --seconds 10 --rate 50 2>&1)
rc=$?
[ "$rc" -eq 2 ] || { echo "$out"; echo "FAILED: a bad value exited $rc"; exit 1; }
echo "$out" | grep -q -- "--rate 50: must be at least 100" ||
  { echo "$out"; echo "FAILED: the message"; exit 1; }
# Options checked against each other: the late groups leave the agent at least one to start with.
out=$("$agent" --groups 10 --late-groups 10 2>&1)
rc=$?
[ "$rc" -eq 2 ] || { echo "$out"; echo "FAILED: --late-groups 10 of 10 exited $rc"; exit 1; }
echo "$out" | grep -q -- "--late-groups 10: must be below --groups (10)" ||
  { echo "$out"; echo "FAILED: the late groups' message"; exit 1; }
# The reader's own processor must be one this process may run on, and leave one to the others.
out=$(taskset -c 0 "$agent" --reader-cpu 0 2>&1)
rc=$?
[ "$rc" -eq 2 ] || { echo "$out"; echo "FAILED: --reader-cpu 0 on processor 0 alone exited $rc"; exit 1; }
echo "$out" | grep -q -- "--reader-cpu 0: the only processor this process may run on" ||
  { echo "$out"; echo "FAILED: the reader processor's message"; exit 1; }
exit 0
