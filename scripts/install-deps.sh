#!/usr/bin/env bash
# Installs the Debian packages needed to build and test the library.
#
# Idempotent and quick when everything is already there: the package
# database is read once and apt-get only runs when something is missing.
# Safe for CI (no prompts, no standard input needed).
set -euo pipefail

# Package -> reason, kept together so the list doubles as documentation.
packages=(
  g++               # compiler
  gcc               # C compiler: the C interface's example and test
  make
  cmake
  pkg-config
  libssl-dev        # TLS
  openssl           # CLI: test certificates, password hashes, test data
  libgtest-dev      # unit tests
  libbenchmark-dev  # micro-benchmarks
  nginx             # HTTP/HTTPS peer for the tests
  squid             # authenticating proxy peer (CONNECT + plain)
  tinyproxy         # second proxy peer with different quirks
  curl              # readiness checks of the peers in scripts/test-peers.sh
  python3           # webget tests: a second kind of server (http.server), JSON checks
  python3-venv      # the Python package's tests install it into a virtual environment
  python3-pip       # ... with pip (the system's, seen through --system-site-packages)
  python3-pytest    # ... and run it with pytest (seen the same way)
  clang             # fuzz targets
  libclang-rt-14-dev  # libFuzzer and clang's sanitizer runtimes
)

# Anything whose package database entry is not "installed" is missing.
status=$(dpkg-query -W -f='${Package} ${Status}\n' "${packages[@]}" 2>/dev/null || true)
missing=()
for p in "${packages[@]}"; do
  if ! grep -qx "$p install ok installed" <<<"$status"; then
    # nginx-light / nginx-full also give us a usable nginx binary.
    if [[ $p == nginx ]] && command -v nginx >/dev/null 2>&1; then
      continue
    fi
    missing+=("$p")
  fi
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

SUDO=()
if [[ $(id -u) -ne 0 ]]; then
  if command -v sudo >/dev/null 2>&1; then
    SUDO=(sudo -n)
  else
    echo "install-deps: missing packages (${missing[*]}) and not root, no sudo" >&2
    exit 1
  fi
fi

for p in "${missing[@]}"; do
  echo "install-deps: installing $p"
done

export DEBIAN_FRONTEND=noninteractive

# The peers are started per test run by scripts/test-peers.sh; installing
# them must not also start the distribution's system-wide instances (no
# systemd in containers means the init scripts would run them). A
# policy-rc.d that denies everything is the standard way to say so; only
# add one when the machine does not already have its own.
policy=/usr/sbin/policy-rc.d
added_policy=0
cleanup() {
  if ((added_policy)); then
    "${SUDO[@]}" rm -f "$policy"
  fi
}
trap cleanup EXIT
if [[ ! -e $policy ]]; then
  printf '#!/bin/sh\nexit 101\n' | "${SUDO[@]}" tee "$policy" >/dev/null
  "${SUDO[@]}" chmod 755 "$policy"
  added_policy=1
fi

apt_opts=(-y -q -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold)
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q update </dev/null
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install "${apt_opts[@]}" --no-install-recommends "${missing[@]}" </dev/null
