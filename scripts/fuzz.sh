#!/usr/bin/env bash
# Bounded fuzzing of the library's parsers (the libFuzzer targets in fuzz/).
#
#   scripts/fuzz.sh [SECONDS_PER_TARGET [TARGET...]]
#
#   scripts/fuzz.sh             every target for 10 s (about a minute in all)
#   scripts/fuzz.sh 3600        every target for an hour
#   scripts/fuzz.sh 600 url     one target (the name of its file in fuzz/)
#
# Configures and builds build-fuzz/ with clang when needed, then for every
# target
#   1. runs each saved finding in fuzz/regressions/<target>/ once, and
#   2. fuzzes for the given time, starting from fuzz/corpus/<target>/ and the
#      regressions. New inputs go to a scratch copy of the corpus, so the
#      seeds in the repository stay as they are.
# Any crash, sanitizer report, leak, time-out (10 s for one input), memory
# blow-up (2 GB) or broken invariant (the targets abort) fails the run: the
# script goes on with the other targets, prints the path of each reproducer
# and exits non-zero at the end.
#
# Reproducing a finding: run the target on the file,
#   build-fuzz/fuzz/fuzz_<target> build-fuzz/fuzz-findings/<target>/crash-...
# shrink it with
#   build-fuzz/fuzz/fuzz_<target> -minimize_crash=1 -runs=100000 -exact_artifact_path=small FILE
# and keep the small input in fuzz/regressions/<target>/ so that every later
# run checks it.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
cd "$root"

seconds=${1:-10}
shift || true
if ! [[ $seconds =~ ^[0-9]+$ ]] || ((seconds < 1)); then
  echo "usage: scripts/fuzz.sh [SECONDS_PER_TARGET [TARGET...]]" >&2
  exit 2
fi

build=build-fuzz
findings=$build/fuzz-findings

targets=("$@")
if ((${#targets[@]} == 0)); then
  for source in fuzz/*.cpp; do
    name=$(basename "$source" .cpp)
    targets+=("$name")
  done
fi
for name in "${targets[@]}"; do
  if [[ ! -f fuzz/$name.cpp ]]; then
    echo "fuzz.sh: no target '$name' (no fuzz/$name.cpp)" >&2
    exit 2
  fi
done

# The fuzz tree is configured with clang once; later runs refresh the
# configuration (a new target file) and rebuild only what changed.
if ! grep -qs '^WEBCHANNEL_FUZZ:BOOL=ON' "$build/CMakeCache.txt"; then
  echo "== configuring $build (clang, fuzz targets)"
  CC=clang CXX=clang++ cmake -S . -B "$build" -DWEBCHANNEL_FUZZ=ON -DWEBCHANNEL_TESTS=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
else
  cmake -S . -B "$build" >/dev/null
fi
echo "== building the fuzz targets"
cmake --build "$build" -j2 --target fuzz_all >/dev/null

# The targets report through abort(); leaks are looked for after every input
# that allocated more than it freed.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:symbolize=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

scratch=$(mktemp -d "${TMPDIR:-/tmp}/webchannel-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

failures=()

fail() {  # target reproducer-or-message log
  failures+=("$1: $2")
  echo "   FAILED: $2"
  if [[ -n ${3:-} && -f $3 ]]; then
    grep -E 'check failed|ERROR: |SUMMARY: |^  [^ ]' "$3" | head -8 | sed 's/^/   | /'
  fi
}

for name in "${targets[@]}"; do
  binary=$build/fuzz/fuzz_$name
  corpus=fuzz/corpus/$name
  regressions=fuzz/regressions/$name
  mkdir -p "$findings/$name"
  log=$scratch/$name.log

  # 1. Every saved finding, once. Each file is run on its own, so one
  #    failure does not hide the next.
  regressionsPass=1
  if [[ -d $regressions ]]; then
    for input in "$regressions"/*; do
      [[ -f $input ]] || continue
      if ! "$binary" -timeout=10 -rss_limit_mb=2048 "$input" >"$log" 2>&1; then
        echo "== $name: regression $input"
        fail "$name" "regression input still fails: $input" "$log"
        regressionsPass=0
      fi
    done
  fi

  # 2. Fuzzing from the seeds and the regressions; new inputs go to a
  #    scratch copy, reproducers to $findings.
  work=$scratch/corpus-$name
  mkdir -p "$work"
  if [[ -d $corpus ]]; then cp -R "$corpus"/. "$work"/; fi
  dirs=("$work")
  # A failing regression would only stop the fuzzing at its first input.
  if [[ -d $regressions ]] && ((regressionsPass)); then dirs+=("$regressions"); fi
  echo "== $name: fuzzing for ${seconds}s"
  status=0
  "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -detect_leaks=1 \
    -print_final_stats=1 -artifact_prefix="$findings/$name/" "${dirs[@]}" >"$log" 2>&1 || status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  if ((status != 0)); then
    reproducer=$(sed -n 's/.*Test unit written to \(.*\)$/\1/p' "$log" | tail -1)
    fail "$name" "exit status $status after ${runs:-?} inputs; reproducer: ${reproducer:-none written} (log: $findings/$name/last.log)" "$log"
    cp "$log" "$findings/$name/last.log"
  else
    echo "   ok: ${runs:-?} inputs"
  fi
done

if ((${#failures[@]} > 0)); then
  echo
  echo "fuzzing found ${#failures[@]} problem(s):"
  printf '  %s\n' "${failures[@]}"
  echo "reproduce with: $build/fuzz/fuzz_<target> <file>"
  exit 1
fi
echo "fuzzing: no findings"
