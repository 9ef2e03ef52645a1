#!/usr/bin/env bash
# The main job: build the command-line host and download with it.
#
#   scripts/run.sh URL...   download the URLs into ./downloads (8 workers,
#                           progress on standard error)
#   scripts/run.sh          demonstration on this machine: serve a generated
#                           sample set (one 256 MiB file and 500 files of
#                           4-64 KiB, with SHA-256 digests in a manifest) from
#                           a private nginx on 127.0.0.1, download and verify
#                           it over HTTP and then over HTTPS, print a summary
#
# Installs missing Debian packages first (scripts/install-deps.sh), then
# configures and builds into build/. Needs no standard input and no
# terminal: without one, progress comes as a plain line every 2 s.
#
# The demonstration keeps everything under build/main-job/: the sample set
# (made once, deterministic, reused while intact), a self-signed
# certificate, the nginx configuration and logs, the manifests and the
# downloads. Its nginx listens on two free ports of 127.0.0.1 only (never on
# 443, which the test peers use) and is stopped by its PID when the script
# exits, however it exits.
set -Eeuo pipefail

launch_dir=$(pwd -P) # downloads of given URLs land here
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
cd "$root"

log() { echo "run: $*" >&2; }
die() {
  log "error: $*"
  exit 1
}
# shellcheck source=scripts/lib/loopback.sh
source "$root/scripts/lib/loopback.sh"

# ---------------------------------------------------------------------------
# Build

scripts/install-deps.sh </dev/null
cmake -S . -B build </dev/null
cmake --build build -j2 --target webget webchannel </dev/null
webget="$root/build/tools/webget"
[[ -x $webget ]] || die "$webget was not built"

# ---------------------------------------------------------------------------
# With URLs: download them.

if (($# > 0)); then
  cd "$launch_dir"
  mkdir -p downloads
  log "downloading $# URL(s) into $launch_dir/downloads"
  exec "$webget" -j 8 -d downloads "$@"
fi

# ---------------------------------------------------------------------------
# Without URLs: the local demonstration.

PATH="$PATH:/usr/sbin:/sbin" # nginx lives in sbin
for tool in nginx openssl curl setsid sha256sum; do
  command -v "$tool" >/dev/null 2>&1 || die "'$tool' is not installed (scripts/install-deps.sh installs it)"
done

job="$root/build/main-job"
www="$job/www"
nd="$job/nginx"
mkdir -p "$job" "$nd/tmp"

# Sample set ------------------------------------------------------------------

BIG_SIZE=$((256 * 1024 * 1024))
SMALL_COUNT=500
SAMPLE_VERSION="v1 big=$BIG_SIZE small=$SMALL_COUNT" # change to force a rebuild

# Size of small file i: 4 KiB to 64 KiB, spread by a fixed formula.
small_size() { echo $((4096 + ($1 * 7919 + 13) % 61441)); }
small_name() { printf 'small/s%03d.bin' "$1"; }

# True when the sample set on disk is complete: stamp, digest list, and every
# file with its size (one stat call for all).
sample_intact() {
  [[ -f $www/.stamp && $(<"$www/.stamp") == "$SAMPLE_VERSION" && -s $www/SHA256SUMS ]] || return 1
  local expected="" i names=(big.bin)
  expected+="$BIG_SIZE"$'\n'
  for ((i = 0; i < SMALL_COUNT; i++)); do
    names+=("$(small_name "$i")")
    expected+="$(small_size "$i")"$'\n'
  done
  [[ $(cd "$www" && stat -c %s "${names[@]}" 2>/dev/null)$'\n' == "$expected" ]]
}

make_sample() {
  local i total=0 sizes=() names=()
  log "generating the sample set in $www (once)"
  rm -rf "$www"
  mkdir -p "$www.tmp/small"
  prng "$BIG_SIZE" 1 >"$www.tmp/big.bin"
  for ((i = 0; i < SMALL_COUNT; i++)); do
    sizes+=("$(small_size "$i")")
    names+=("$(small_name "$i")")
    total=$((total + sizes[i]))
  done
  # One stream cut into the small files: head reads no further than it
  # writes, so consecutive heads share the pipe exactly.
  prng "$total" 2 | {
    for ((i = 0; i < SMALL_COUNT; i++)); do
      head -c "${sizes[i]}" >"$www.tmp/${names[i]}"
    done
  }
  (cd "$www.tmp" && sha256sum big.bin "${names[@]}" >SHA256SUMS)
  echo "$SAMPLE_VERSION" >"$www.tmp/.stamp"
  mv "$www.tmp" "$www"
}

start=$(date +%s%N)
rm -rf "$www.tmp"
if sample_intact; then
  log "reusing the sample set in $www"
else
  make_sample
  sample_intact || die "the generated sample set does not check out"
  log "sample set ready in $((($(date +%s%N) - start) / 1000000)) ms"
fi

# Certificate -------------------------------------------------------------------

cert="$job/cert.pem"
key="$job/key.pem"
make_cert "$cert" "$key" DNS:localhost,IP:127.0.0.1 "$job/openssl.log" ||
  die "openssl could not create the certificate (see $job/openssl.log)"

# Server ----------------------------------------------------------------------

trap 'stop_pid "$nginx_pid"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

free_port HTTP_PORT || die "no free port for HTTP"
free_port HTTPS_PORT || die "no free port for HTTPS"
nginx_config "$nd" "$www" "$cert" "$key" auto warn off || {
  cat "$nd/configtest.log" "$nd/error.log" >&2
  die "nginx rejects its configuration"
}
start_nginx_serving "$nd" "$www" small/s000.bin || {
  tail -n 30 "$nd/error.log" "$nd/stdout.log" >&2 || true
  die "nginx did not come up on 127.0.0.1:$HTTP_PORT and :$HTTPS_PORT"
}
log "nginx (pid $nginx_pid) serving $www on http://127.0.0.1:$HTTP_PORT and https://127.0.0.1:$HTTPS_PORT"

# Downloads -------------------------------------------------------------------

# The sample set as "size digest name" lines, in the digest list's order.
listing="$job/listing.txt"
mapfile -t names < <(awk '{ print $2 }' "$www/SHA256SUMS")
paste -d ' ' <(cd "$www" && stat -c %s "${names[@]}") "$www/SHA256SUMS" | awk '{ print $1, $2, $3 }' >"$listing"
total_bytes=$(awk '{ sum += $1 } END { printf "%d", sum }' "$listing")
file_count=$(wc -l <"$listing")

# Manifest for one base URL, a job a line: "URL TARGET SIZE DIGEST sha256".
write_manifest() { # <base-url> <file>
  {
    echo "# sample set served from $1 (written by scripts/run.sh)"
    awk -v base="$1" '{ print base "/" $3, $3, $1, $2, "sha256" }' "$listing"
  } >"$2"
}

summary=()

run_protocol() { # <name> <base-url>
  local name=$1 base=$2 manifest="$job/manifest-${1,,}.txt" out="$job/downloads/${1,,}" list="$job/webget-${1,,}.list"
  local t0 t1 rc=0 ms listed
  write_manifest "$base" "$manifest"
  rm -rf "$out"
  log "$name: downloading $file_count files ($((total_bytes / 1048576)) MiB) with: webget -j 8 --cacert $cert -i $manifest -d $out"
  t0=$(date +%s%N)
  # The server's own certificate is the one trust anchor: HTTPS runs verified.
  "$webget" -j 8 --cacert "$cert" -i "$manifest" -d "$out" >"$list" </dev/null || rc=$?
  t1=$(date +%s%N)
  ((rc == 0)) || die "$name: webget failed with status $rc (files it finished: $list)"
  listed=$(grep -c '^downloaded ' "$list" || true)
  ((listed == file_count)) || die "$name: webget reported $listed of $file_count files"
  # A second, independent check of every file against the digest list.
  (cd "$out" && sha256sum --quiet -c "$www/SHA256SUMS") >&2 || die "$name: downloaded files do not match their digests"
  ms=$(((t1 - t0) / 1000000))
  ((ms > 0)) || ms=1
  summary+=("$(awk -v n="$name" -v f="$file_count" -v b="$total_bytes" -v ms="$ms" \
    'BEGIN { printf "%-6s %5d files  %8.1f MB  %7.2f s  %8.1f MB/s  all verified", n, f, b / 1e6, ms / 1000, b / 1e6 / (ms / 1000) }')")
}

run_protocol HTTP "http://127.0.0.1:$HTTP_PORT"
run_protocol HTTPS "https://127.0.0.1:$HTTPS_PORT"

stop_pid "$nginx_pid"
nginx_pid=""
echo
echo "Summary (1 MB = 10^6 bytes; digests checked by the library and again with sha256sum):"
printf '  %s\n' "${summary[@]}"
