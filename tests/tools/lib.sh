# Shared by the demonstrations' shell tests: $pid runs the program under test, writing to $out.

# Kills $pid, shows its output and fails the test with the reason.
fail() {
  kill -9 "$pid" 2>/dev/null
  cat "$out"
  echo "FAILED: $*"
  exit 1
}

# Waits until the output of $pid has a line matching $1, at most $2 seconds (default 60).
await() {
  limit=${2:-60}
  deadline=$(($(date +%s) + limit))
  until grep -q "$1" "$out"; do
    kill -0 "$pid" 2>/dev/null || fail "ended before '$1'"
    [ "$(date +%s)" -lt "$deadline" ] || fail "no '$1' in $limit s"
    sleep 0.1
  done
}
