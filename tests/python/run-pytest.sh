#!/usr/bin/env bash
# Installs the Python package with pip into a fresh virtual environment in the
# build tree and runs its tests there, against the build tree's library and
# the test peers. The package builds with its own standard-library backend,
# so the install needs no package index. The environment borrows the
# system's pip and pytest (Debian packages) through its system site packages,
# which spares it a copy of pip of its own.
#
# Usage: run-pytest.sh BUILD_DIR LIBRARY TEST_ENV_DIR
set -Eeuo pipefail
(($# == 3)) || { echo "usage: $0 BUILD_DIR LIBRARY TEST_ENV_DIR" >&2; exit 2; }
src=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
build=$(cd "$1" && pwd -P)
venv=$build/python-venv
python=${WEBCHANNEL_PYTHON:-/usr/bin/python3}

rm -rf "$venv"
"$python" -m venv --without-pip --system-site-packages "$venv"
# No byte code is written into the source tree by the build.
PYTHONDONTWRITEBYTECODE=1 "$venv/bin/python" -m pip install --quiet --disable-pip-version-check --no-cache-dir \
  "$src/python"
cd "$build"
WEBCHANNEL_LIBRARY=$2 WEBCHANNEL_TEST_ENV=$3 PYTHONDONTWRITEBYTECODE=1 \
  exec "$venv/bin/python" -m pytest -q -p no:cacheprovider --basetemp="$build/python-tmp" "$src/tests/python"
