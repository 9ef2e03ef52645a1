#!/usr/bin/env bash
# Installs the built library into a temporary prefix and builds the example
# host (examples/) against that installation twice, with CMake's
# find_package(webchannel) and with pkg-config, then runs both; also checks
# that the installed webget finds the installed library by itself.
#
# Usage: tests/packaging/check-install.sh [build-dir]   (default: build)
# Needs no network and no peers. Leaves nothing behind.
set -Eeuo pipefail

source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
build=$(cd "${1:-$source_dir/build}" && pwd -P)

work=$(mktemp -d "${TMPDIR:-/tmp}/webchannel-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

step() { echo "== $*"; }
die() {
  echo "FAIL: $*" >&2
  exit 1
}

step "cmake --install $build --prefix $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || {
  cat "$work/install.log" >&2
  die "install failed"
}

# The layout, found rather than assumed: the library directory depends on
# the platform's conventions (lib or lib/<multiarch>).
real=$(find "$prefix" -name 'libwebchannel.so.*.*.*' -type f | head -n 1)
[[ -n $real ]] || die "no libwebchannel.so.X.Y.Z installed"
libdir=$(dirname "$real")
[[ -L $libdir/libwebchannel.so.1 && -e $libdir/libwebchannel.so.1 ]] || die "SONAME link libwebchannel.so.1 missing"
[[ -L $libdir/libwebchannel.so && -e $libdir/libwebchannel.so ]] || die "link name libwebchannel.so missing"
soname=$(objdump -p "$real" | awk '$1 == "SONAME" { print $2 }')
[[ $soname == libwebchannel.so.1 ]] || die "SONAME is '$soname'"
for header in channel/VRAXSecureWebChannel.h channel/webchannel_codes.h channel/webchannel_export.h \
  util/webutil.h util/console.h util/fs.h util/logging.h util/process.h util/strings.h; do
  [[ -f $prefix/include/webchannel/$header ]] || die "header include/webchannel/$header missing"
done
[[ -f $libdir/pkgconfig/webchannel.pc ]] || die "webchannel.pc missing"
for f in webchannelConfig.cmake webchannelConfigVersion.cmake webchannelTargets.cmake; do
  [[ -f $libdir/cmake/webchannel/$f ]] || die "$f missing"
done
[[ -x $prefix/bin/webget ]] || die "bin/webget missing"
echo "layout ok: $libdir (SONAME $soname)"

# True when program $1 loads the installed library (paths compared resolved:
# the .pc file's paths are relative to its own directory).
uses_installed() {
  local loaded
  loaded=$(ldd "$1" | awk '$1 ~ /^libwebchannel\.so/ { print $3 }')
  [[ -n $loaded && $(realpath "$loaded") == "$(realpath "$real")" ]]
}

check_output() { # <program>
  local output
  output=$("$1") || die "$1 failed: $output"
  echo "$output"
  grep -q '^init: 0 (success)$' <<<"$output" || die "$1: init did not succeed"
  grep -q '^code -3061: size or digest mismatch$' <<<"$output" || die "$1: wrong result text"
  grep -q '^basename: big.iso$' <<<"$output" || die "$1: utility library call failed"
}

# The build tree must not leak in: only the prefix is offered.
step "find_package(webchannel) build of examples/"
cmake -S "$source_dir/examples" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release >"$work/cmake.log" 2>&1 || {
  cat "$work/cmake.log" >&2
  die "configuring the example failed"
}
cmake --build "$work/cmake-build" >>"$work/cmake.log" 2>&1 || {
  cat "$work/cmake.log" >&2
  die "building the example failed"
}
uses_installed "$work/cmake-build/host" || die "CMake-built host does not use the installed library"
check_output "$work/cmake-build/host"

step "pkg-config build of examples/host.cpp"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
[[ $(pkg-config --modversion webchannel) =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || die "pkg-config does not know webchannel"
# shellcheck disable=SC2046
g++ -std=c++17 -o "$work/host-pc" "$source_dir/examples/host.cpp" $(pkg-config --cflags --libs webchannel) \
  -Wl,-rpath,"$(pkg-config --variable=libdir webchannel)" || die "building with pkg-config failed"
uses_installed "$work/host-pc" || die "pkg-config-built host does not use the installed library"
check_output "$work/host-pc"

step "installed webget finds the installed library"
"$prefix/bin/webget" --version
# Port 1 of the loopback refuses at once: status 1 (transfer failed), not 3
# (library not loadable). The loader's trace shows which file was opened.
set +e
env -u WEBGET_LIBRARY LD_DEBUG=files "$prefix/bin/webget" -q -O - http://127.0.0.1:1/ >/dev/null 2>"$work/webget.err"
status=$?
set -e
((status == 1)) || {
  cat "$work/webget.err" >&2
  die "installed webget exited with $status"
}
grep -q "file=$libdir/libwebchannel.so.1 .*dynamically loaded" "$work/webget.err" ||
  grep -q "file=$prefix/bin/../.*libwebchannel.so.1 .*dynamically loaded" "$work/webget.err" ||
  die "installed webget did not load the installed library"

echo "packaging checks passed"
