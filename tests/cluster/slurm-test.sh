#!/usr/bin/env bash
# The Slurm recipe as shipped, examples/slurm/webget-array.sbatch, on the one-node cluster of
# scripts/test-cluster.sh: an array of 4 tasks over 300 files; then a task cancelled part-way and its index run
# again. Run by CTest as cluster.slurm; by hand: tests/cluster/slurm-test.sh build/tools/webget build/test-env/cluster
set -uo pipefail
if ! (($# == 2)) || ! [[ -r $2/cluster.env ]]; then
  echo "FAIL no running cluster in '${2:-}' (scripts/test-cluster.sh start DIR; usage: $0 <webget> <DIR>)"
  exit 1
fi
recipe=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)/examples/slurm/webget-array.sbatch
# shellcheck disable=SC1091
source "$2/cluster.env"
# The tasks inherit the environment of the submission: webget is found on PATH.
PATH=$(cd "$(dirname "$1")" && pwd -P):$PATH
export SLURM_CONF PATH
mkdir -p "$2/tmp" && work=$(cd "$(mktemp -d "$2/tmp/slurm.XXXXXX")" && pwd -P) && cd "$work" || exit 1
failures=0
fail() { echo "FAIL $*"; failures=$((failures + 1)); }
# Polls (at most 30 s) until the command succeeds.
until_true() { for ((i = 0; i < 300; i++)); do "$@" && return 0; sleep 0.1; done; return 1; }
# nginx logs a request before it lets its connection go: once none is open, the log is complete.
open_connections() { awk -v p="$(printf ':%04X' "$HTTP_PORT")" '$2 ~ p"$" && ($4 == "01" || $4 == "08")' /proc/net/tcp | wc -l; }
settled() { until_true eval '(($(open_connections) == 0))' || fail "nginx kept connections open"; }
lines() { wc -l <"$ACCESS_LOG"; }
# The body bytes nginx sent from line $1 on for the files listed in $2 (under /slow/).
served() { awk -v from="$1" 'NR == FNR {want["/slow/" $1]; next} FNR >= from && $7 in want {n += $10} END {print n + 0}' \
  "$2" "$ACCESS_LOG"; }

# The accounts and the log against manifest.txt. Modes: "array DATA LOG" (the whole array), "kept DATA" (what the
# cancelled share, listed in share.txt, has on disk: its verified files whole, the kept bytes of the others;
# prints all of it, the part in unfinished files, and the unfinished files kept whole), "rerun DATA K LOG KEPT FULL" (task K run
# again for that share).
check() {
  python3 - "$WWW" "$@" <<'EOF'
import collections, filecmp, json, os, sys
www, mode, data = sys.argv[1:4]
listed = {line.split()[1]: int(line.split()[2]) for line in open("manifest.txt")}
def account(k):
    return json.load(open(f"{data}/webget-{k}.json"))
def targets(jobs):
    return {job["target"].rsplit("/", 1)[1] for job in jobs}
share = set(open("share.txt").read().split()) if mode != "array" else set()
def same(t):  # a file still under way is not there yet
    return os.path.exists(f"{data}/files/{t}") and filecmp.cmp(f"{www}/{t}", f"{data}/files/{t}", shallow=False)
def served(log):  # bytes sent per file, every request a GET answered 200 or 206
    sent = collections.Counter()
    for line in open(log):
        f = line.split()
        assert f[5] == '"GET' and f[8] in ("200", "206"), line
        sent[f[6].rsplit("/", 1)[1]] += int(f[9])
    return sent
def unfinished(t):  # bytes an unfinished file keeps, None for none: what its record names, or without a record
    part = f"{data}/files/{t}.part"  # (none saved yet when the task was cancelled) its plain prefix
    try:
        return sum(int(b) - int(a) for _, a, b in (l.split() for l in open(f"{part}.resume") if l.startswith("range ")))
    except FileNotFoundError:
        return os.path.getsize(part) if os.path.exists(part) else None
if mode == "array":
    shares = [account(k) for k in range(4)]
    totals = {key: sum(s["totals"][key] for s in shares) for key in ("files", "bytes", "failures")}
    assert totals == {"files": len(listed), "bytes": sum(listed.values()), "failures": 0}, f"the accounts add up to {totals}"
    jobs = [job["target"].rsplit("/", 1)[1] for s in shares for job in s["jobs"] if job["verified"] and job["result"] == 0]
    assert sorted(jobs) == sorted(listed), "the shares are not disjoint, complete and verified"
    assert all(map(same, listed)), "a file differs from its source"
    assert served(sys.argv[4]) == listed, "not every file was fetched exactly once"
elif mode == "kept":
    partial = [unfinished(t) for t in share if unfinished(t) is not None]
    whole = [listed[t] for t in share if unfinished(t) is None and same(t)]
    # A file whose record names every byte is verified after its last byte is fetched again.
    print(sum(partial) + sum(whole), sum(partial), sum(1 for t in share if unfinished(t) == listed[t]))
elif mode == "rerun":
    again, log, kept, full = account(sys.argv[4]), sys.argv[5], int(sys.argv[6]), int(sys.argv[7])
    assert targets(again["jobs"]) == share and again["totals"]["failures"] == 0, "the share is not complete"
    assert all(job["verified"] for job in again["jobs"]), "a file of the share is not verified"
    assert all(map(same, listed)), "a file differs from its source"
    sent = served(log)
    assert set(sent) <= share, f"fetched files of other shares: {sorted(set(sent) - share)}"
    missing = sum(listed[t] for t in share) - kept
    assert missing <= sum(sent.values()) <= missing + full, f"fetched {sum(sent.values())} bytes, {missing} missing"
    print(f"{kept} bytes kept, {sum(sent.values())} fetched again")
EOF
}

# The array as shipped: 4 tasks, manifest.txt and data/ in the submission directory.
(cd "$WWW" && sha256sum v*.bin) | while read -r digest name; do
  echo "http://127.0.0.1:$HTTP_PORT/$name $name $(stat -c %s "$WWW/$name") $digest"
done >manifest.txt
from=$(($(lines) + 1))
sbatch --wait "$recipe" >array.out 2>&1 || fail "the array failed: $(cat array.out webget-*.log 2>/dev/null | tail -5)"
settled && tail -n +"$from" "$ACCESS_LOG" >array.log
if check array data array.log; then
  echo "ok   an array of 4 tasks over 300 files: every file fetched once, the accounts add up"
else fail "the array's accounts or files"; fi

# The same files at 64 KB/s a connection; share 1 is cancelled once a third of it is served, the other tasks run
# to their end.
k=1
sed "s|:$HTTP_PORT/|:$HTTP_PORT/slow/|" manifest.txt >slow.txt
python3 -c 'import json, sys; print("\n".join(j["target"].rsplit("/", 1)[1] for j in json.load(open(sys.argv[1]))["jobs"]))' \
  data/webget-$k.json >share.txt
share_bytes=$(awk 'NR == FNR {want[$1]; next} $2 in want {n += $3} END {print n + 0}' share.txt manifest.txt)
from=$(($(lines) + 1))
export MANIFEST=$work/slow.txt DATA=$work/slow
sbatch --wait "$recipe" >slow.out 2>&1 &
waiter=$!
until_true eval "((\$(served $from share.txt) >= share_bytes / 3))" || fail "share $k not a third served after 30 s"
job=$(squeue -h -o %F | head -n 1)
[[ -n $job ]] && scancel "${job}_$k" || fail "no array to cancel"
# sbatch --wait returns when the task is marked cancelled, and under load its status has been 0 as well as the
# task's own, so the task's own account says what it left undone. Its webget records what it has on exit. Whether an unfinished file holds bytes at that moment depends on the timing too: the rerun's count
# of bytes fetched again covers both.
wait "$waiter"
until_true eval '[[ -z $(squeue -h) ]]' || fail "the cancelled task did not end"
settled
undone=$(python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["totals"]["failures"])' slow/webget-$k.json)
kept=0 partial=0 full=0 && read -r kept partial full < <(check kept slow)
((undone > 0 && kept < share_bytes)) ||
  fail "share $k was not cancelled part-way: $undone files undone, $kept of $share_bytes bytes kept"
find slow/files -type f ! -name '*.resume' -printf '%P %i %s %T@\n' | sort | grep -vwFf share.txt >others.before

# Run index k again as docs/cluster.md says: it continues the share, and nothing else moves.
from=$(($(lines) + 1))
SHARES=4 sbatch --wait --array=$k "$recipe" >rerun.out 2>&1 || fail "the rerun failed: $(tail -5 rerun.out)"
settled && tail -n +"$from" "$ACCESS_LOG" >rerun.log
if result=$(check rerun slow "$k" rerun.log "$kept" "$full"); then
  echo "ok   task $k cancelled and run again: $result ($partial kept in unfinished files)"
else fail "task $k run again"; fi
find slow/files -type f ! -name '*.resume' -printf '%P %i %s %T@\n' | sort | grep -vwFf share.txt >others.after
cmp -s others.before others.after && [[ $(wc -l <others.after) == $((300 - $(wc -l <share.txt))) ]] ||
  fail "the other tasks' files were touched"

((failures == 0)) && rm -rf "$work" && echo "all checks passed"
exit $((failures > 0))
