#!/usr/bin/env bash
# The project's one test command: installs what is missing, then builds and
# runs the whole suite three times — a normal build, an AddressSanitizer +
# UndefinedBehaviorSanitizer build, and a ThreadSanitizer build of the
# threaded tests — and finally runs every fuzz target for a bounded time.
# The real peers are started and stopped by a CTest fixture in each run.
#
#   scripts/test.sh            everything
#   scripts/test.sh --quick    the normal build only
#
# In a build tree, `ctest -L unit` runs the pure tests alone (no peers, no
# network), `-L peers` those against real and scripted servers, `-L stress`
# the long concurrency run, `-L cluster` the Slurm and Kubernetes recipes.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
cd "$root"

quick=0
[[ ${1:-} == --quick ]] && quick=1

scripts/install-deps.sh

run_suite() {  # build-dir label [cmake args...] -- [ctest args...]
  local dir=$1 label=$2
  shift 2
  local cmake_args=() ctest_args=()
  while (($#)) && [[ $1 != -- ]]; do cmake_args+=("$1"); shift; done
  (($#)) && shift
  ctest_args=("$@")
  echo "== $label"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${cmake_args[@]}" >/dev/null
  cmake --build "$dir" -j2
  ctest --test-dir "$dir" --output-on-failure -j2 "${ctest_args[@]}"
}

run_suite build "normal build"

if ((quick)); then
  exit 0
fi

# Any report of a sanitizer fails the test that caused it.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

# The packaging check builds a plain host against the installed library,
# which an instrumented library cannot serve; the normal run covers it. The
# cluster tests run webget's batches as the peers tests do, only slower. The
# Python package's tests stay out for the same reason as the packaging check:
# the interpreter is not instrumented, and loading the instrumented library
# into it would need the sanitizer's runtime preloaded and would report the
# interpreter's own allocations. The C interface's test (channel.c_interface)
# runs here and under ThreadSanitizer like every other C and C++ test.
run_suite build-asan "AddressSanitizer + UndefinedBehaviorSanitizer" -DWEBCHANNEL_SANITIZE=address -- \
  -E '^(packaging|cluster)\.' -LE '^python$'

# The threaded code: batches, the stress run, the channel core, and the
# transport that the workers share (address cache, proxy answers, pools, TLS).
run_suite build-tsan "ThreadSanitizer" -DWEBCHANNEL_SANITIZE=thread -- -R '^(batch|stress|channel|transport|peers)\.'

if [[ -x scripts/fuzz.sh ]]; then
  echo "== fuzzing"
  scripts/fuzz.sh 10
fi
