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
  slurm-wlm         # the cluster test: a one-node scheduler (slurmctld, slurmd, sbatch)
  munge             # the scheduler's authentication
  nodejs            # the Kubernetes manifest check (with the npm packages below)
  npm
)
# The Kubernetes object schema, compiled into validators, and a YAML reader:
# npm packages, pinned, installed for the whole machine (`npm root -g`). The
# 4.x line of kubernetes-models still loads with require() and runs on
# Debian's Node.js 18; 5.x wants 22.
npm_packages=(kubernetes-models@4.5.1 yaml@2.9.1)

# Anything whose package database entry is not "installed" is missing.
status=$(dpkg-query -W -f='${Package} ${Status}\n' "${packages[@]}" 2>/dev/null || true)
missing=()
for p in "${packages[@]}"; do
  if ! grep -qx "$p install ok installed" <<<"$status"; then
    # nginx-light / nginx-full also give us a usable nginx binary.
    if [[ $p == nginx ]] && command -v nginx >/dev/null 2>&1; then
      continue
    fi
    # Some Node.js builds bring their own npm, which Debian's would conflict with.
    if [[ $p == npm ]] && command -v npm >/dev/null 2>&1; then
      continue
    fi
    missing+=("$p")
  fi
done

npm_installed() { # <name@version>: that version is in npm's global folder
  local root
  root=$(npm root -g 2>/dev/null) || return 1
  [[ $(node -p "require('$root/${1%@*}/package.json').version" 2>/dev/null) == "${1##*@}" ]]
}
npm_missing=()
if command -v npm >/dev/null 2>&1; then
  for p in "${npm_packages[@]}"; do
    npm_installed "$p" || npm_missing+=("$p")
  done
else
  npm_missing=("${npm_packages[@]}")
fi

if ((${#missing[@]} == 0 && ${#npm_missing[@]} == 0)); then
  exit 0
fi

SUDO=()
if [[ $(id -u) -ne 0 ]]; then
  if command -v sudo >/dev/null 2>&1; then
    SUDO=(sudo -n)
  else
    echo "install-deps: missing packages (${missing[*]} ${npm_missing[*]}) and not root, no sudo" >&2
    exit 1
  fi
fi

for p in "${missing[@]}" "${npm_missing[@]}"; do
  echo "install-deps: installing $p"
done

if ((${#missing[@]})); then
  export DEBIAN_FRONTEND=noninteractive

  # The peers are started per test run by scripts/test-peers.sh and
  # scripts/test-cluster.sh; installing them must not also start the
  # distribution's system-wide instances (no systemd in containers means the
  # init scripts would run them). A policy-rc.d that denies everything is the
  # standard way to say so; only add one when the machine does not already
  # have its own.
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
fi

if ((${#npm_missing[@]})); then
  "${SUDO[@]}" npm install -g --no-audit --no-fund --loglevel=error "${npm_missing[@]}" </dev/null
fi
