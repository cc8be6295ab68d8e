#!/usr/bin/env bash
# Input that cannot serve gives a clear message and its exit status, never a crash. usage: bad-input.sh PROGRAM SOURCE
set -uo pipefail
program=$1 source=$2
work=$(mktemp -d)
trap 'chmod -R u+w "$work"; rm -rf "$work"' EXIT
trip=$source/apps/demo/demo-trip.gpx
failed=0
# expect STATUS TEXT COMMAND...: the exit status, and a text somewhere in the output.
expect() {
  local status=$1 text=$2 output got
  shift 2
  output=$("$@" 2>&1)
  got=$?
  if [ $got -ne "$status" ] || ! grep -qiF -- "$text" <<<"$output"; then
    echo "expected $status and '$text', got $got from: $*"
    head -n 5 <<<"$output"
    failed=1
  fi
}

expect 2 'missing.gpx' "$program" replay "$work/missing.gpx" --sandbox --home "$work/a"
expect 2 'mode' "$program" replay "$trip" --mode 5 --home "$work/a"
expect 1 'nothing was collected' "$program" status --home "$work/a"
[ -e "$work/a" ] && { echo "reading or failing made a home"; failed=1; }

mkdir -p "$work/corrupt/Documents"
head -c 20000 /dev/urandom >"$work/corrupt/Documents/Marrowgate-Tarvo-db3.sqlite"
expect 3 'store' "$program" replay "$trip" --sandbox --home "$work/corrupt"

# A file in the way of the home: nobody can write there, root neither.
echo >"$work/file"
expect 3 'home' "$program" replay "$trip" --sandbox --home "$work/file/home"

# A property list without keys is used as it is, and the log says what is missing.
mkdir -p "$work/keyless"
echo '<?xml version="1.0"?><plist version="1.0"><dict/></plist>' >"$work/keyless/Info.plist"
expect 1 'Failed to load Tarvo API KEY' "$program" replay "$trip" --backend http://127.0.0.1:9/api --home "$work/keyless" \
  --log --deadline 2
echo '{"at": 1, "event": "nap"}' >"$work/bad.jsonl"
expect 2 'bad.jsonl:1: ' "$program" replay "$trip" --mode 4 --home "$work/b" --script "$work/bad.jsonl"
# What is no file is not waited for.
mkfifo "$work/fifo"
expect 3 'cannot be read' timeout 20 "$program" replay "$trip" --sandbox --home "$work/b" --sandbox-data "$work/fifo"
expect 2 'cannot be read' timeout 20 "$program" replay "$trip" --sandbox --home "$work/b" --script "$work/fifo"
expect 2 'fifo' timeout 20 "$program" replay "$work/fifo" --sandbox --home "$work/b"
expect 3 'fifo' timeout 20 "$program" replay "$trip" --sandbox --home "$work/b" --sandbox-db "$work/fifo"
mkdir -p "$work/piped/Library/Preferences"
mkfifo "$work/piped/Info.plist" "$work/piped/Library/Preferences/defaults.plist"
expect 1 'Info.plist: Invalid argument' timeout -k 1 20 "$program" replay "$trip" --backend http://127.0.0.1:9/api \
  --home "$work/piped" --log --deadline 2
expect 2 'deadline' "$program" replay "$trip" --sandbox --home "$work/b" --deadline nan
# Output that nobody gets is no success.
expect 3 'standard output' bash -c '"$1" status --home "$2" >&-' - "$program" "$work/keyless"
expect 3 'standard output' bash -c '"$1" status --home "$2" >/dev/full' - "$program" "$work/keyless"

# One signal ends a replay whose backend has stopped answering; the time-out of a silent transfer is 60 s. Of a home that
# goes meanwhile nothing is told as done.
perl -MIO::Socket::INET -e '$| = 1; $server = IO::Socket::INET->new(Listen => 9, LocalAddr => "127.0.0.1");
  print $server->sockport, "\n"; push @kept, $server->accept and print "connected\n" while 1' >"$work/silent" &
trap 'kill %1; chmod -R u+w "$work"; rm -rf "$work"' EXIT
waitFor() { for _ in {1..200}; do [ "$(wc -l <"$work/silent")" -ge "$1" ] && return; perl -e 'select undef, undef, undef, 0.1'; done; }
# interrupted STATUS TEXT COMMAND...: a replay that waits for the backend, after the command with its home.
interrupted() {
  local home=$work/silence$1 before replay status connected
  connected=$(wc -l <"$work/silent")
  "$program" replay "$trip" --backend "http://127.0.0.1:$(head -n 1 "$work/silent")/api" --api-key k --api-secret s \
    --home "$home" >"$home.txt" 2>&1 &
  replay=$!
  waitFor $((connected + 1))
  "${@:3}" "$home"
  before=$SECONDS
  kill -TERM $replay
  wait $replay
  status=$?
  [ $status = "$1" ] && grep -qF -- "$2" "$home.txt" && [ $((SECONDS - before)) -le 20 ] ||
    { echo "interrupted: status $status after $((SECONDS - before)) s"; cat "$home.txt"; failed=1; }
}
waitFor 1
interrupted 130 'not registered' true
interrupted 3 'was lost during the run' rm -rf

# A disk that gets full: what did not get into the file is told apart and is no success.
full() (trap '' XFSZ; ulimit -f 300; exec "$program" replay "$trip" --mode 4 --home "$work/full" --json)
expect 3 'positions could not be saved' full

[ $failed = 0 ] && echo "bad input is refused clearly"
exit $failed
