#!/usr/bin/env bash
# webget -c across runs, against nginx's slow server: a run killed with SIGKILL or stopped with SIGTERM
# part-way, then a run that continues it; the file the target held before stays as it was until the
# continued download is complete. Run by CTest as tools.resume;
# by hand: tests/tools/resume-test.sh build/tools/webget build/test-env
set -uo pipefail
(($# == 2)) && [[ -r $2/peers.env ]] || { echo "usage: $0 <webget> <test-env dir with running peers>" >&2; exit 2; }
webget=$(cd "$(dirname "$1")" && pwd -P)/$(basename "$1")
# shellcheck disable=SC1091
source "$2/peers.env"
mkdir -p "$2/tmp" && work=$(mktemp -d "$2/tmp/resume.XXXXXX") && cd "$work" || exit 1
trap 'rm -rf "$work"' EXIT
path=/m40.bin size=$(stat -c %s "$WWW/m40.bin") digest=$(sha256sum <"$WWW/m40.bin" | cut -d' ' -f1)
echo "http://127.0.0.1:$SLOW_PORT$path m40.bin $size $digest" >manifest
name=t/m40.bin target=t/m40.bin.part record=t/m40.bin.part.resume pieces=4 step=$((4 << 20)) failures=0
fail() { echo "FAIL $*"; sed 's/^/    | /' ./*.err 2>/dev/null | head -20; failures=$((failures + 1)); }

recorded() { awk '/^range /{n += $3 - $2} END {print n + 0}' "$record" 2>/dev/null || echo 0; }
allocated() { echo $(($(stat -c '%b * %B' "$target"))); }
# Connections to the slow server still open (nginx logs a request before it lets its connection go).
open_connections() { awk -v p="$(printf ':%04X' "$SLOW_PORT")" '$2 ~ p"$" && ($4 == "01" || $4 == "08")' /proc/net/tcp | wc -l; }
# The ranges the requests nginx logged from line $1 on asked for ("a-b" lines, b inclusive).
asked() { tail -n +"$1" "$SLOW_ACCESS_LOG" | awk -v p="$path" '$7 == p' | sed -nE 's/.*"bytes=([0-9]+-[0-9]+)"$/\1/p'; }
# Whether the asked ranges ($1) are all missing from the record ($2, saved after the first run) and cover what
# it lacks: pieces cut between workers ask for overlapping ranges, but none for kept bytes.
only_missing() {
  python3 - "$1" "$2" "$size" <<'EOF'
import sys
asked = [tuple(map(int, r.split("-"))) for r in open(sys.argv[1]).read().split()]
kept = sorted(tuple(map(int, l.split()[1:3])) for l in open(sys.argv[2]) if l.startswith("range "))
size, at, covered = int(sys.argv[3]), 0, 0
for first, last in asked:
    assert not any(a <= last and first < b for a, b in kept), "asked for kept bytes %d-%d" % (first, last)
for first, last in sorted(asked):  # the asked ranges, merged, and the kept ones make the whole file
    covered += max(0, last + 1 - max(first, at))
    at = max(at, last + 1)
assert covered + sum(b - a for a, b in kept) == size, "%d missing bytes not asked for" % (size - covered)
EOF
}
# Polls (at most 20 s) until the command succeeds.
until_true() { for ((i = 0; i < 400; i++)); do "$@" && return 0; sleep 0.05; done; return 1; }

# The killed run has no -c: webget keeps the record of what it writes all the same.
for signal in KILL TERM; do
  first=() && [[ $signal == KILL ]] || first=(-c)
  rm -rf t && mkdir t && echo "an earlier version" >"$name" && cp "$name" earlier
  "$webget" "${first[@]}" -q -j $pieces -T 20 -d t -i manifest >first.out 2>first.err &
  pid=$!
  until_true eval '(($(recorded) >= 2 * step))' || fail "$signal: no record of 8 MiB written"
  kill -"$signal" $pid
  wait $pid
  status=$?
  [[ $signal == KILL ]] || ((status == 130)) || fail "$signal: status $status, wanted 130"
  cmp -s "$name" earlier || fail "$signal: the interrupted run changed $name"
  kept=$(recorded) unrecorded=$(($(allocated) - $(recorded))) && cp "$record" kept.record
  # Killed, the file may have got up to a second of bytes (4 MB/s a connection) past the record's last update,
  # which names only synced bytes; stopped, the record is brought up to date before webget exits (the disk
  # rounds each piece up to a block).
  limit=$((pieces * 4096))
  [[ $signal == TERM ]] || limit=$((limit + 2 * pieces * 4000000))
  ((unrecorded >= 0 && unrecorded < limit)) || fail "$signal: $unrecorded bytes written but not recorded"
  # The first run's requests end in nginx's log once it has seen them cut.
  until_true eval '(($(open_connections) == 0))' || fail "$signal: nginx kept the first run's connections"
  from=$(($(wc -l <"$SLOW_ACCESS_LOG") + 1))
  "$webget" -c -q -j $pieces -T 20 -d t -i manifest >second.out 2>second.err || fail "$signal: second run failed"
  asked "$from" >asked.txt
  only_missing asked.txt kept.record || fail "$signal: not only the missing ranges were asked for"
  cmp -s "$name" "$WWW/m40.bin" || fail "$signal: the continued file differs"
  [[ ! -e $record && ! -e $target ]] || fail "$signal: $target or its record outlived the verified file"
  ((failures)) || echo "ok   $signal: $kept bytes kept, $(wc -l <asked.txt) ranges asked for again"
done
exit $((failures > 0))
