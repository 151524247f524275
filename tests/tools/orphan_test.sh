#!/bin/sh
# A supervisor killed with SIGKILL leaves no private root behind: its children notice its death,
# stop, and the last of them removes the root. Both demonstrations, each killed in mid-run.
agent=$1
engine=$2
out=$(mktemp)
trap 'rm -f "$out"' EXIT
. "$(dirname "$0")/lib.sh"

# Kills $pid with SIGKILL and waits (bounded) until $root is gone and no process runs under it.
killAndAwaitCleanup() {
  [ -d "$root" ] || fail "no root '$root'"
  { kill -9 "$pid" && wait "$pid"; } 2>/dev/null
  deadline=$(($(date +%s) + 20))
  while [ -e "$root" ] || pgrep -f -- "--root $root" >/dev/null; do
    [ "$(date +%s)" -lt "$deadline" ] || fail "$root or its processes still there 20 s after SIGKILL"
    sleep 0.1
  done
}

"$agent" --short --quiet --seconds 60 >"$out" 2>&1 &
pid=$!
await "reader attached"
root=$(sed -n 's#.*configuration on \(.*\)/config.sock$#\1#p' "$out")
killAndAwaitCleanup

"$engine" --records 1000 --seconds 60 --restart-at 50 >"$out" 2>&1 &
pid=$!
await "writer ready"
root=$(sed -n 's#.*, root \(/dev/shm/[^ ]*\)$#\1#p' "$out")
killAndAwaitCleanup
exit 0
