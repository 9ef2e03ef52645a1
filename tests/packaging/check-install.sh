#!/usr/bin/env bash
# Installs the library into a temporary prefix, builds examples/host.cpp against it with
# find_package(webchannel) and with pkg-config and the C host examples/batch.c with pkg-config
# alone, runs them, and checks that the installed webget and the Python package (from the
# source tree) load the installed library. Usage: check-install.sh [build-dir]  (default: build)
set -Eeuo pipefail
src=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
build=$(cd "${1:-$src/build}" && pwd -P)
work=$(mktemp -d "${TMPDIR:-/tmp}/webchannel-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
die() { echo "FAIL: $*" >&2; exit 1; }
run() { "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; die "$*"; }; }

run cmake --install "$build" --prefix "$prefix"
real=$(find "$prefix" -name 'libwebchannel.so.*.*.*' -type f | head -n 1)
[[ -n $real ]] || die "no libwebchannel.so.X.Y.Z installed"
libdir=$(dirname "$real")
# Read whole: grep -q would stop early and, under pipefail, fail the pipe on objdump's SIGPIPE.
objdump -p "$real" | grep -E '^ *SONAME +libwebchannel\.so\.1$' >/dev/null || die "SONAME is not libwebchannel.so.1"

check_host() { # program: runs on the installed library and prints what host.cpp should
  local loaded output
  loaded=$(ldd "$1" | awk '$1 ~ /^libwebchannel\.so/ { print $3 }')
  [[ -n $loaded && $(realpath "$loaded") == "$(realpath "$real")" ]] || die "$1 does not use the installed library"
  output=$("$1") || die "$1 failed: $output"
  for line in 'init: 0 (success)' 'code -3061: size or digest mismatch' 'basename: big.iso' \
    'C interface: size or digest mismatch'; do
    grep -qxF "$line" <<<"$output" || die "$1 printed no '$line' but: $output"
  done
}

# Only the prefix is offered: the build tree must not leak in.
run cmake -S "$src/examples" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release
run cmake --build "$work/cmake-build"
check_host "$work/cmake-build/host"

export PKG_CONFIG_PATH=$libdir/pkgconfig
[[ $(pkg-config --modversion webchannel) =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || die "pkg-config has no version"
# shellcheck disable=SC2046
run g++ -std=c++17 -o "$work/host-pc" "$src/examples/host.cpp" $(pkg-config --cflags --libs webchannel) \
  -Wl,-rpath,"$(pkg-config --variable=libdir webchannel)"
check_host "$work/host-pc"

# The C host: C99, warnings as errors, nothing but what pkg-config says. Port 1 of the
# loopback refuses at once, so the size probe refuses the job: status 1 with the cause.
# shellcheck disable=SC2046
run cc -std=c99 -Wall -Wextra -Werror -pedantic -o "$work/batch-c" "$src/examples/batch.c" \
  $(pkg-config --cflags --libs webchannel) -Wl,-rpath,"$(pkg-config --variable=libdir webchannel)"
status=0
"$work/batch-c" http://127.0.0.1:1/f.bin "$work/f.bin" "$(printf '%064d' 0)" >"$work/out" 2>"$work/err" || status=$?
((status == 1)) && grep -q '^http://127.0.0.1:1/f.bin: error -3022: ' "$work/err" ||
  { cat "$work/out" "$work/err" >&2; die "the C host exited with $status"; }

# The Python package finds the installed library by the loader's usual search.
maps=$(env -u WEBCHANNEL_LIBRARY LD_LIBRARY_PATH="$libdir" PYTHONPATH="$src/python" PYTHONDONTWRITEBYTECODE=1 \
  /usr/bin/python3 -c 'import webchannel; webchannel.Channel(1).close(); print(open("/proc/self/maps").read())') ||
  die "the Python package cannot use the installed library"
grep -qF "$(realpath "$real")" <<<"$maps" || die "the Python package did not load the installed library"

# Port 1 of the loopback refuses at once: status 1 (transfer failed), not 3 (library not
# loadable); the loader's trace names the file that was opened.
status=0
env -u WEBGET_LIBRARY LD_DEBUG=files "$prefix/bin/webget" -q -O - http://127.0.0.1:1/ >/dev/null 2>"$work/err" ||
  status=$?
((status == 1)) || { cat "$work/err" >&2; die "installed webget exited with $status"; }
grep -Eq "file=($libdir/|$prefix/bin/\.\./.*)libwebchannel\.so\.1 .*dynamically loaded" "$work/err" ||
  die "installed webget did not load the installed library"
echo "packaging checks passed"
