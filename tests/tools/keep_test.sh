#!/bin/sh
# The short run with --keep: it ends EQUAL, then the processes and the table root stay until
# SIGINT, after which both are gone and the exit status is the run's (0).
agent=$1
out=$(mktemp)
trap 'rm -f "$out"' EXIT
. "$(dirname "$0")/lib.sh"

"$agent" --short --quiet --keep >"$out" 2>&1 &
pid=$!
await "stays alive until Ctrl-C" 90
grep -q "EQUAL" "$out" || fail "the reader did not end equal to the agent"
root=$(sed -n 's/.* --root \([^ ]*\) ls$/\1/p' "$out")
[ -d "$root/groupIntf" ] || fail "root '$root' not kept"
kill -INT "$pid"
wait "$pid"
rc=$?
[ "$rc" -eq 0 ] || fail "exit status $rc after SIGINT"
[ ! -e "$root" ] || fail "root $root left behind"
exit 0
