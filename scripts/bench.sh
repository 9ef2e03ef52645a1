#!/usr/bin/env bash
# Benchmarks: webget (this library) against the download tools people use
# instead, over a private nginx on loopback, plus the micro-benchmarks and
# the machine's ceilings for the same bytes.
#
#   scripts/bench.sh            full run: 1 GiB file, 64 x 16 MiB, 4096 x 16 KiB,
#                               HTTP and HTTPS, 5 runs each, and the many-hosts
#                               set (20-35 minutes)
#   scripts/bench.sh --quick    256 MiB file, 16 x 16 MiB, 1024 x 16 KiB,
#                               3 runs each, shorter micro-benchmarks (about 5 minutes)
#
# More options (for partial runs):
#   --runs N                  runs per tool, set and protocol (at least 3 are wanted)
#   --sets big,medium,small,hosts   data sets to run
#   --protocols http,https    protocols to run
#   --tools LIST              of webget-sha256,library-sha256,webget,aria2c-sha256,aria2c,curl,wget2
#   --no-micro                skip the micro-benchmarks
#   --no-ceilings             skip iperf3, dd, openssl speed and the /dev/null fetches
#
# Every tool gets 8 connections: webget -j 8; aria2c -x 8 -s 8 -j 8; curl
# --parallel --parallel-max 8 (curl fetches each file whole: it cannot split
# one file over connections); wget2 --max-threads=8, with --chunk-size of an
# eighth of the big file on the big set. Each set runs once with digest
# verification by the tool (webget with SHA-256 digests in its manifest,
# aria2c with checksum=sha-256=... per entry) and once without.
#
# The many-hosts set ("hosts", the same in both modes): 2000 files of 8 KiB
# with SHA-256 digests spread over 200 hosts, listed host by host (ten files
# each); the hosts are one nginx listening on 200 more ports of 127.0.0.1,
# HTTP only. It runs webget and the library alone with digests, aria2c with
# digests and curl, each started with the soft descriptor limit at 1024,
# the usual default (webget raises its own to the hard limit; the library
# alone keeps it), and its own table adds the most descriptors each tool
# held open (sampled every 10 ms from /proc).
#
# Per tool, set and protocol the table gives the median wall time of the
# valid runs, MB/s (10^6 bytes), CPU seconds (user + sys of the tool's
# process tree, from /usr/bin/time) per GiB, the peak RSS of the tool's
# process and the nginx CPU per GiB. After every run all targets are
# compared with the SHA-256 digests of the sources; a run with a failed exit
# status or a wrong byte does not count and is marked in the table.
#
# Everything lives under build/bench/: the generated sources (made once,
# deterministic, reused while intact), nginx's configuration, certificate and
# logs, the per-run logs, the targets and the results,
# build/bench/results/<date>.txt (and .tsv: one line per run). Targets go to
# the build tree's file system, the one a user's download would land on: a
# new directory per run, deleted after its check (the small set's when the
# set is done), with a sync before the next run. Nothing is synced while a tool runs, so the figures are those of
# writes into the page cache, as a user sees them (the disk's own speed is
# among the ceilings). The sources stay in the page cache on purpose (the
# report says how much of them is cached), so that the server side costs
# the same for every tool; nothing is dropped from the cache. As root the
# benchmark runs at nice -10, so that other jobs on the machine disturb it
# less. Installs missing Debian packages with apt-get, needs no terminal and
# no standard input, binds only 127.0.0.1 on free ports (never 443) and stops
# its nginx and iperf3 by PID however it exits.
set -Eeuo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
cd "$root"
PATH="$PATH:/usr/sbin:/sbin"
export LC_ALL=C

log() { echo "bench: $*" >&2; }
die() {
  log "error: $*"
  exit 1
}
# shellcheck source=scripts/lib/loopback.sh
source "$root/scripts/lib/loopback.sh"

# ---------------------------------------------------------------------------
# Options

quick=0
runs=""
sets="big,medium,small,hosts"
protocols="http,https"
all_tools="webget-sha256,library-sha256,webget,aria2c-sha256,aria2c,curl,wget2"
tools="$all_tools"
do_micro=1
do_ceilings=1
while (($# > 0)); do
  case $1 in
    --quick) quick=1 ;;
    --runs) runs=${2:?--runs needs a number}; shift ;;
    --runs=*) runs=${1#*=} ;;
    --sets) sets=${2:?}; shift ;;
    --sets=*) sets=${1#*=} ;;
    --protocols) protocols=${2:?}; shift ;;
    --protocols=*) protocols=${1#*=} ;;
    --tools) tools=${2:?}; shift ;;
    --tools=*) tools=${1#*=} ;;
    --no-micro) do_micro=0 ;;
    --no-ceilings) do_ceilings=0 ;;
    -h | --help)
      sed -n '2,/^set -E/p' "${BASH_SOURCE[0]}" | sed '$d; s/^# \{0,1\}//'
      exit 0
      ;;
    *) die "unknown option '$1' (see --help)" ;;
  esac
  shift
done
[[ -z $runs ]] && runs=$((quick ? 3 : 5))
[[ $runs =~ ^[1-9][0-9]*$ ]] || die "--runs wants a positive number"
((runs >= 3)) || log "note: fewer than 3 runs per cell; medians of so few runs are rough"
for s in ${sets//,/ }; do [[ $s == big || $s == medium || $s == small || $s == hosts ]] || die "unknown set '$s'"; done
for p in ${protocols//,/ }; do [[ $p == http || $p == https ]] || die "unknown protocol '$p'"; done
for t in ${tools//,/ }; do [[ ,$all_tools, == *",$t,"* ]] || die "unknown tool '$t'"; done

# ---------------------------------------------------------------------------
# Packages and build

install_missing() {
  local packages=(aria2 curl wget2 iperf3 nginx time openssl util-linux procps coreutils cmake g++ make
    pkg-config libssl-dev libbenchmark-dev)
  local status missing=() p
  status=$(dpkg-query -W -f='${Package} ${Status}\n' "${packages[@]}" 2>/dev/null || true)
  for p in "${packages[@]}"; do
    if ! grep -qx "$p install ok installed" <<<"$status"; then
      [[ $p == nginx ]] && command -v nginx >/dev/null 2>&1 && continue
      missing+=("$p")
    fi
  done
  ((${#missing[@]} == 0)) && return 0
  log "installing ${missing[*]}"
  local sudo=()
  if [[ $(id -u) -ne 0 ]]; then
    command -v sudo >/dev/null 2>&1 || die "missing packages (${missing[*]}), not root and no sudo"
    sudo=(sudo -n)
  fi
  # Installing nginx or iperf3 must not start system-wide daemons.
  local policy=/usr/sbin/policy-rc.d added=0
  if [[ ! -e $policy ]]; then
    printf '#!/bin/sh\nexit 101\n' | "${sudo[@]}" tee "$policy" >/dev/null
    "${sudo[@]}" chmod 755 "$policy"
    added=1
  fi
  local rc=0
  {
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q update &&
      "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
        -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold "${missing[@]}"
  } </dev/null >&2 || rc=$?
  ((added)) && "${sudo[@]}" rm -f "$policy"
  ((rc == 0)) || die "apt-get could not install ${missing[*]}"
}
install_missing

# Other jobs on the machine (test suites, builds) take CPU from the
# measurements; as root the whole benchmark, nginx included, runs at a
# raised priority so that they disturb it less. Every tool gets the same.
priority="normal (not root)"
if [[ $(id -u) -eq 0 ]] && renice -n -10 -p $$ >/dev/null 2>&1; then priority="nice -10"; fi

log "building webget, the library and the micro-benchmarks"
cmake -S . -B build -DWEBCHANNEL_BENCH=ON </dev/null >/dev/null
cmake --build build -j2 --target webget webchannel micro batch_host </dev/null >/dev/null ||
  die "the build failed (cmake --build build --target webget webchannel micro batch_host)"
webget="$root/build/tools/webget"
micro="$root/build/bench/micro"
[[ -x $webget && -x $micro ]] || die "webget or micro was not built"

for tool in nginx openssl curl aria2c wget2 iperf3 setsid sha256sum fincore timeout; do
  command -v "$tool" >/dev/null 2>&1 || die "'$tool' is not installed"
done
[[ -x /usr/bin/time ]] || die "/usr/bin/time is not installed"

# ---------------------------------------------------------------------------
# Layout, result file

B="$root/build/bench"
www="$B/www"
nd="$B/nginx"
inputs="$B/inputs"
dlroot="$B/dl" # every run downloads into a new directory under it
dl=""           # the current run's target directory
runlogs="$B/runs"
mkdir -p "$B/results" "$nd/tmp" "$inputs" "$runlogs"
rm -rf "$dlroot"
mkdir -p "$dlroot"
# ext4 as mounted here skips inodes freed in the last 30 s when it allocates
# new ones, reading each of them on the way: creating 4096 files right after
# deleting the previous run's 4096 took 5-8 s instead of 0.6 s. With the
# "top of directory hierarchy" flag each run's directory is placed in a
# block group of its own, away from the inodes just freed, so that the runs
# measure the tools and not that scan.
topdir_flag="no (chattr +T failed: small-file runs may pay for recently freed inodes)"
chattr +T "$dlroot" 2>/dev/null && topdir_flag="yes"
run_serial=0
stamp=$(date -u +%Y%m%d-%H%M%S)
raw="$B/results/$stamp.txt"
: >"$raw"
note() { echo "$*" >>"$raw"; } # to the result file only
say() {                         # to the result file and standard output
  echo "$*" >>"$raw"
  echo "$*"
}
load1() { cut -d ' ' -f 1 /proc/loadavg; }

# ---------------------------------------------------------------------------
# Data sets (deterministic; made once and reused)

GIB=$((1024 * 1024 * 1024))
MIB=$((1024 * 1024))
DATA_VERSION="v1 big=1G,256M medium=64x16M small=4096x16K"

# All source files with their sizes, in digest-list order.
all_sources() {
  local i
  echo "big/big-1g.bin $GIB"
  echo "big/big-256m.bin $((256 * MIB))"
  for ((i = 0; i < 64; i++)); do printf 'medium/m%02d.bin %d\n' "$i" $((16 * MIB)); done
  for ((i = 0; i < 4096; i++)); do printf 'small/s%04d.bin %d\n' "$i" 16384; done
}

data_intact() {
  [[ -f $www/.stamp && $(<"$www/.stamp") == "$DATA_VERSION" && -s $www/SHA256SUMS ]] || return 1
  local names sizes
  names=$(all_sources | cut -d ' ' -f 1)
  sizes=$(all_sources | cut -d ' ' -f 2)
  # shellcheck disable=SC2086
  [[ $(cd "$www" && stat -c %s $names 2>/dev/null) == "$sizes" ]]
}

make_data() {
  local t0=$SECONDS tmp="$www.tmp"
  log "generating the data sets in $www (once; about 3.3 GiB)"
  rm -rf "$www" "$tmp"
  mkdir -p "$tmp/big" "$tmp/medium" "$tmp/small"
  prng "$GIB" 1 >"$tmp/big/big-1g.bin"
  prng $((256 * MIB)) 4 >"$tmp/big/big-256m.bin"
  prng_files 64 $((16 * MIB)) 2 2 "$tmp/medium/m"
  prng_files 4096 16384 3 4 "$tmp/small/s"
  # shellcheck disable=SC2046
  (cd "$tmp" && sha256sum $(all_sources | cut -d ' ' -f 1) >SHA256SUMS)
  echo "$DATA_VERSION" >"$tmp/.stamp"
  mv "$tmp" "$www"
  log "data sets ready in $((SECONDS - t0)) s"
}
rm -rf "$www.tmp"
data_intact || {
  make_data
  data_intact || die "the generated data sets do not check out"
}

# The many-hosts set lives apart from the others, with its own digest list:
# 2000 files of 8 KiB, served on 200 ports.
hosts_www="$B/hosts-www"
HOST_COUNT=200
HOSTS_VERSION="v1 2000x8K"
hosts_intact() {
  [[ -f $hosts_www/.stamp && $(<"$hosts_www/.stamp") == "$HOSTS_VERSION" && -s $hosts_www/SHA256SUMS ]] || return 1
  [[ $(find "$hosts_www" -maxdepth 1 -name 'h????.bin' -size 8192c | wc -l) -eq 2000 ]]
}
if [[ ,$sets, == *,hosts,* ]] && ! hosts_intact; then
  rm -rf "$hosts_www" "$hosts_www.tmp"
  mkdir -p "$hosts_www.tmp"
  prng_files 2000 8192 5 4 "$hosts_www.tmp/h"
  (cd "$hosts_www.tmp" && sha256sum h????.bin >SHA256SUMS)
  echo "$HOSTS_VERSION" >"$hosts_www.tmp/.stamp"
  mv "$hosts_www.tmp" "$hosts_www"
  hosts_intact || die "the many-hosts data set does not check out"
fi
set_root() { [[ $1 == hosts ]] && echo "$hosts_www" || echo "$www"; }
# The protocols a set runs over: the many-hosts set over HTTP only.
set_protocols() { # <set>
  if [[ $1 != hosts ]]; then
    echo "${protocols//,/ }"
  elif [[ ,$protocols, == *,http,* ]]; then
    echo http
  fi
}
# The tools a set runs: on the many-hosts set those with digests, and curl.
set_tools() { # <set>
  local t
  for t in ${tools//,/ }; do
    [[ $1 != hosts || " webget-sha256 library-sha256 aria2c-sha256 curl " == *" $t "* ]] && echo "$t"
  done
}

# The files of a set: "relative-path size sha256" lines.
set_files() { # <set>
  local pattern limit
  if [[ $1 == hosts ]]; then
    awk '{ print $2, 8192, $1 }' "$hosts_www/SHA256SUMS"
    return
  fi
  case "$1" in
    big) pattern="^big/big-$( ((quick)) && echo 256m || echo 1g)[.]bin\$" limit=1 ;;
    medium) pattern="^medium/" limit=$( ((quick)) && echo 16 || echo 64) ;;
    small) pattern="^small/" limit=$( ((quick)) && echo 1024 || echo 4096) ;;
  esac
  awk -v re="$pattern" -v limit="$limit" '$2 ~ re && n < limit { n++; print $2, $1 }' "$www/SHA256SUMS" >"$inputs/.selected"
  # shellcheck disable=SC2046
  paste -d ' ' <(cut -d ' ' -f 1 "$inputs/.selected") \
    <(cd "$www" && stat -c %s $(cut -d ' ' -f 1 "$inputs/.selected")) <(cut -d ' ' -f 2 "$inputs/.selected")
}
set_title() { # <set>
  case "$1" in
    big) ((quick)) && echo "1 x 256 MiB" || echo "1 x 1 GiB" ;;
    medium) ((quick)) && echo "16 x 16 MiB" || echo "64 x 16 MiB" ;;
    small) ((quick)) && echo "1024 x 16 KiB" || echo "4096 x 16 KiB" ;;
    hosts) echo "2000 x 8 KiB, 200 hosts" ;;
  esac
}

# ---------------------------------------------------------------------------
# Certificate, ports, nginx, cleanup

cert="$B/cert.pem"
key="$B/key.pem"
make_cert "$cert" "$key" DNS:localhost,IP:127.0.0.1 "$B/openssl.log" || die "openssl could not create the certificate"

iperf_pid=""
cleanup() {
  stop_pid "$iperf_pid"
  iperf_pid=""
  stop_pid "$nginx_pid"
  nginx_pid=""
  [[ -n ${dlroot:-} ]] && rm -rf "$dlroot"/run* "$dlroot/ceiling.tmp" "$dlroot/create"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

free_port HTTP_PORT || die "no free port for HTTP"
free_port HTTPS_PORT || die "no free port for HTTPS"
# The many hosts: one server on 200 more ports. A client may keep a
# connection to each of them per worker, far beyond nginx's usual 1024.
HOST_PORTS=() host_port=""
hosts_server=""
if [[ ,$sets, == *,hosts,* ]]; then
  for ((i = 0; i < HOST_COUNT; i++)); do
    free_port host_port || die "no free port for host $i"
    HOST_PORTS+=("$host_port")
  done
  hosts_server="  server {
$(printf '    listen 127.0.0.1:%s;\n' "${HOST_PORTS[@]}")
    root $hosts_www;
  }"
fi
# shellcheck disable=SC2034 # read by nginx_config
NGINX_CONNECTIONS=8192
nginx_config "$nd" "$www" "$cert" "$key" auto warn off "$hosts_server" || {
  cat "$nd/configtest.log" >&2
  die "nginx rejects its configuration"
}
start_nginx_serving "$nd" "$www" small/s0000.bin || {
  tail -n 20 "$nd/error.log" >&2 || true
  die "nginx did not come up on 127.0.0.1:$HTTP_PORT and :$HTTPS_PORT"
}
log "nginx (pid $nginx_pid) on http://127.0.0.1:$HTTP_PORT and https://127.0.0.1:$HTTPS_PORT"
base_url() { [[ $1 == http ]] && echo "http://127.0.0.1:$HTTP_PORT" || echo "https://127.0.0.1:$HTTPS_PORT"; }

# CPU ticks (user + sys) of nginx's workers so far.
clk_tck=$(getconf CLK_TCK)
nginx_ticks() {
  local total=0 w fields
  for w in $(ps -o pid= --ppid "$nginx_pid" 2>/dev/null); do
    [[ -r /proc/$w/stat ]] || continue
    fields=$(sed 's/^.*) //' "/proc/$w/stat") # fields from 3 on
    # shellcheck disable=SC2086
    set -- $fields
    total=$((total + ${12} + ${13}))
  done
  echo "$total"
}

# ---------------------------------------------------------------------------
# Header of the report

{
  echo "# webget benchmark, $(date -u '+%Y-%m-%d %H:%M:%S UTC')$( ((quick)) && echo ' (quick mode)')"
  echo "machine: $(lscpu | sed -n 's/^Model name: *//p' | sed -n 1p), $(nproc) cores, $(free -g | awk '/^Mem:/ { print $2 }') GiB," \
    "kernel $(uname -r), $(findmnt -n -o FSTYPE -T "$B/dl") for the targets"
  echo "source tree: $(git rev-parse --short HEAD 2>/dev/null || echo unknown)" \
    "($(git status --porcelain -- channel transport http batch util tools 2>/dev/null | wc -l) changed library/tool files)"
  echo "tools: webget $("$webget" --version 2>&1 | sed -n 1p | tr -s ' ')"
  echo "       $(aria2c --version | sed -n 1p)"
  echo "       $(curl --version | sed -n 1p | cut -d ' ' -f 1-5)"
  echo "       $(wget2 --version 2>/dev/null | sed -n 1p | cut -d ' ' -f 1-3)"
  echo "       $(nginx -v 2>&1), $(openssl version | cut -d ' ' -f 1-2), $(iperf3 --version | sed -n 1p | cut -d ' ' -f 1-2)"
  echo "runs per cell: $runs; priority: $priority; per-run target directories spread over block groups: $topdir_flag"
  echo "load average at start: $(cut -d ' ' -f 1-3 /proc/loadavg) (other jobs on the machine make the figures noisier)"
} | tee -a "$raw"

# ---------------------------------------------------------------------------
# Inputs of every tool for a set and protocol

# Files are fetched flat into the target directory under their base names.
# The many-hosts set lists its files host by host, ten from each port in
# turn, as a manifest sorted by host would.
write_inputs() { # <set> <protocol>
  local set=$1 proto=$2 base prefix ports=""
  base=$(base_url "$proto")
  prefix="$inputs/$set-$proto"
  [[ $set == hosts ]] && ports="${HOST_PORTS[*]}"
  set_files "$set" >"$prefix.files"
  awk '{ n = split($1, p, "/"); print $3 "  " p[n] }' "$prefix.files" >"$inputs/$set.sums"
  # URL NAME SIZE DIGEST, one line a file, from which every tool's input is made.
  awk -v b="$base" -v ports="$ports" -v total="$(wc -l <"$prefix.files")" 'BEGIN { np = split(ports, port, " ") }
    { n = split($1, p, "/"); url = np ? "http://127.0.0.1:" port[int((NR - 1) * np / total) + 1] "/" $1 : b "/" $1
      print url, p[n], $2, $3 }' "$prefix.files" >"$prefix.urls"
  awk '{ print $1, $2, $3, $4, "sha256" }' "$prefix.urls" >"$prefix.webget-sha256"
  awk '{ print $1, $2, $3 }' "$prefix.urls" >"$prefix.webget"
  awk '{ print $1 "\n  out=" $2 "\n  checksum=sha-256=" $4 }' "$prefix.urls" >"$prefix.aria2c-sha256"
  awk '{ print $1 "\n  out=" $2 }' "$prefix.urls" >"$prefix.aria2c"
  awk '{ print "url = \"" $1 "\"\noutput = \"@DL@/" $2 "\"" }' "$prefix.urls" >"$prefix.curl"
  awk '{ print $1 }' "$prefix.urls" >"$prefix.wget2"
}

# The command of a tool for a set and protocol, into the array `cmd`.
tool_command() { # <tool> <set> <protocol>
  local tool=$1 set=$2 proto=$3 input="$inputs/$2-$3.$1" bytes
  case $tool in
    webget-sha256 | webget)
      cmd=("$webget" -q -j 8 --cacert "$cert" -i "$input" -d "$dl") ;;
    library-sha256)
      cmd=("$root/build/bench/batch_host" "$inputs/$set-$proto.webget-sha256" "$dl") ;;
    aria2c-sha256 | aria2c)
      # falloc: aria2's own advice for ext4 (its default, prealloc, costs
      # about 20% on the big file here). --auto-save-interval=0: by default
      # aria2c writes and fsyncs a control file for every file, 15 ms per
      # file on this disk (a minute for the 4096 files); no other tool here
      # syncs, so that is turned off. One fsync per new file remains.
      cmd=(aria2c --no-conf -q -x 8 -s 8 -j 8 -d "$dl" -i "$input" --check-certificate=false
        --file-allocation=falloc --auto-save-interval=0 --allow-overwrite=true --auto-file-renaming=false
        --summary-interval=0 --console-log-level=error) ;;
    curl)
      # The outputs name the run's directory.
      sed "s|@DL@|$dl|" "$input" >"$inputs/current.curl"
      cmd=(curl -q -s -S -k --fail --parallel --parallel-max 8 -K "$inputs/current.curl") ;;
    wget2)
      cmd=(wget2 --no-config -q --max-threads=8 --check-certificate=off --progress=none -P "$dl" -i "$input")
      if [[ $set == big ]]; then
        bytes=$(awk '{ s += $2 } END { printf "%d", s }' "$inputs/$set-$proto.files")
        cmd+=("--chunk-size=$((bytes / 8))")
      fi
      ;;
  esac
}

# ---------------------------------------------------------------------------
# One run

results_tsv="$B/results/$stamp.tsv"
printf 'set\tprotocol\ttool\trun\twall_s\tuser_s\tsys_s\tmaxrss_kb\tnginx_s\texit\tverified\tpeak_fds\n' >"$results_tsv"

# A pause of 10 ms without starting a process: a read with a time-out from a
# FIFO that nobody writes.
mkfifo "$B/tick.fifo" 2>/dev/null || [[ -p $B/tick.fifo ]] || die "cannot make $B/tick.fifo"
exec {tick}<>"$B/tick.fifo"
# The most descriptors the tool held open, sampled every 10 ms until the
# /usr/bin/time process <pid> (time, then timeout, then the tool) exits.
peak_descriptors() { # <pid>
  local pid=$1 tool="" most=0 fds p
  while kill -0 "$pid" 2>/dev/null; do
    if [[ -z $tool ]]; then
      p=$(pgrep -P "$pid" | head -n 1) || true
      if [[ -n $p ]]; then tool=$(pgrep -P "$p" | head -n 1) || true; fi
    fi
    if [[ -n $tool && -d /proc/$tool/fd ]]; then
      fds=(/proc/"$tool"/fd/*)
      ((${#fds[@]} > most)) && most=${#fds[@]}
    fi
    read -r -t 0.01 -u "$tick" _ || true
  done
  echo "$most"
}

run_once() { # <set> <protocol> <tool> <run> <bytes> <count>
  local set=$1 proto=$2 tool=$3 run=$4 bytes=$5 count=$6
  local tf="$runlogs/$set-$proto-$tool-$run.time" out="$runlogs/$set-$proto-$tool-$run.log"
  local rc=0 t0 t1 n0 n1 wall user sys rss verified files limit peak=0 pid
  run_serial=$((run_serial + 1))
  dl="$dlroot/run$run_serial"
  mkdir -p "$dl"
  tool_command "$tool" "$set" "$proto"
  sync
  limit=$((60 + bytes / 5000000))
  n0=$(nginx_ticks)
  t0=$(date +%s%N)
  if [[ $set == hosts ]]; then
    # Started with the usual default soft limit; the descriptors it holds are sampled meanwhile.
    /usr/bin/time -f '%e %U %S %M' -o "$tf" timeout -k 10 "$limit" \
      bash -c 'ulimit -S -n 1024 && exec "$@"' limited "${cmd[@]}" >"$out" 2>&1 </dev/null &
    pid=$!
    peak=$(peak_descriptors "$pid")
    wait "$pid" || rc=$?
  else
    /usr/bin/time -f '%e %U %S %M' -o "$tf" timeout -k 10 "$limit" "${cmd[@]}" >"$out" 2>&1 </dev/null || rc=$?
  fi
  t1=$(date +%s%N)
  n1=$(nginx_ticks)
  wall=$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.3f", (b - a) / 1e9 }')
  read -r _ user sys rss < <(tail -n 1 "$tf") || true
  # Every target against the source digests, and nothing missing.
  verified=ok
  if ! (cd "$dl" && sha256sum --quiet --strict -c "$inputs/$set.sums") >>"$out" 2>&1; then
    verified=BAD
  fi
  files=$(find "$dl" -type f | wc -l)
  ((files == count)) || echo "note: $files files in the target directory, $count expected" >>"$out"
  printf '%s\t%s\t%s\t%d\t%s\t%s\t%s\t%s\t%s\t%d\t%s\t%d\n' "$set" "$proto" "$tool" "$run" "$wall" "${user:-0}" \
    "${sys:-0}" "${rss:-0}" "$(awk -v t=$((n1 - n0)) -v c="$clk_tck" 'BEGIN { printf "%.2f", t / c }')" "$rc" \
    "$verified" "$peak" >>"$results_tsv"
  log "$set $proto $tool run $run: ${wall} s, user ${user:-?} s, sys ${sys:-?} s, rss ${rss:-?} KiB, exit $rc, $verified$( ((peak)) && echo ", $peak descriptors at most")"
  # The small set's targets stay until the set is done: even in directories
  # of their own, 4096 files created right after 4096 were deleted sometimes
  # landed among the freed inodes and took 2-3 s of file system time.
  [[ $set == small ]] || rm -rf "$dl"
}

# ---------------------------------------------------------------------------
# The comparison

cached_share() { # <set>: percent of the set's source bytes in the page cache
  local files protos
  protos=$(set_protocols "$1")
  files=$(awk -v w="$(set_root "$1")" '{ print w "/" $1 }' "$inputs/$1-${protos%% *}.files")
  # shellcheck disable=SC2086
  fincore -b -n -o RES,SIZE $files 2>/dev/null | awk '{ r += $1; s += $2 } END { printf "%.0f", s ? 100 * r / s : 0 }'
}

declare -A set_bytes set_count
run_sets="" other_sets=""
for set in ${sets//,/ }; do
  protos=$(set_protocols "$set")
  if [[ -z $protos ]]; then
    log "the $set set runs over HTTP only: skipped"
    continue
  fi
  run_sets+="$set "
  [[ $set == hosts ]] || other_sets+="$set "
  for proto in $protos; do write_inputs "$set" "$proto"; done
  first="$inputs/$set-${protos%% *}.files"
  set_bytes[$set]=$(awk '{ s += $2 } END { printf "%d", s }' "$first")
  set_count[$set]=$(wc -l <"$first")
done

bench_start=$SECONDS
for set in $run_sets; do
  protos=$(set_protocols "$set")
  # Warm the sources just before their set: the kernel's proactive reclaim
  # (DAMON, where it runs) evicts files left unread for some minutes.
  note ""
  note "set $set ($(set_title "$set"), ${set_bytes[$set]} bytes): sources $(cached_share "$set")% in the page cache" \
    "before warming, $(awk -v w="$(set_root "$set")" '{ print w "/" $1 }' "$inputs/$set-${protos%% *}.files" |
      xargs cat | wc -c >/dev/null; cached_share "$set")% after; load $(load1) at start"
  for proto in $protos; do
    # Rounds of every tool in turn, so that a slow phase of the machine
    # touches all tools alike.
    for ((run = 1; run <= runs; run++)); do
      for tool in $(set_tools "$set"); do
        run_once "$set" "$proto" "$tool" "$run" "${set_bytes[$set]}" "${set_count[$set]}"
      done
    done
  done
  note "set $set done: sources $(cached_share "$set")% in the page cache, load $(load1)"
  rm -rf "$dlroot"/run*
  sync
done
bench_seconds=$((SECONDS - bench_start))

# ---------------------------------------------------------------------------
# The table

tool_label() {
  case $1 in
    webget-sha256) echo "webget -j8 +sha256" ;;
    library-sha256) echo "library alone, 8 workers +sha256" ;;
    webget) echo "webget -j8 (no digest)" ;;
    aria2c-sha256) echo "aria2c -x8 +sha256" ;;
    aria2c) echo "aria2c -x8" ;;
    curl) echo "curl --parallel 8" ;;
    wget2) echo "wget2 8 threads" ;;
  esac
}

summary() { # the markdown table from the TSV
  local set proto tool
  echo "| set | proto | tool | valid runs | median s | MB/s | CPU s/GiB | peak RSS MiB | nginx CPU s/GiB |"
  echo "|---|---|---|---|---|---|---|---|---|"
  for set in $other_sets; do
    for proto in ${protocols//,/ }; do
      for tool in ${tools//,/ }; do
        awk -F '\t' -v s="$set" -v p="$proto" -v t="$tool" -v bytes="${set_bytes[$set]}" \
          -v title="$(set_title "$set")" -v label="$(tool_label "$tool")" '
          $1 == s && $2 == p && $3 == t {
            total++
            if ($10 != 0 || $11 != "ok") { bad++; why = why ($10 != 0 ? " exit " $10 : "") ($11 != "ok" ? " wrong bytes" : ""); next }
            n++; wall[n] = $5; cpu += $6 + $7; srv += $9; if ($8 > rss) rss = $8
          }
          END {
            if (total == 0) exit
            gib = bytes / 1073741824
            if (n == 0) { printf "| %s | %s | %s | 0/%d | FAILED:%s | | | | |\n", title, p, label, total, why; exit }
            # median of the valid wall times
            for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (wall[j] < wall[i]) { x = wall[i]; wall[i] = wall[j]; wall[j] = x }
            med = n % 2 ? wall[(n + 1) / 2] : (wall[n / 2] + wall[n / 2 + 1]) / 2
            mark = bad ? " (" bad " invalid:" why ")" : ""
            printf "| %s | %s | %s | %d/%d%s | %.2f | %.0f | %.2f | %.0f | %.2f |\n", title, p, label, n, total, mark, med,
              bytes / 1e6 / med, cpu / n / gib, rss / 1024, srv / n / gib
          }' "$results_tsv"
      done
    done
  done
}

# The many-hosts table: wall time and the most descriptors held, per tool.
hosts_summary() {
  local tool
  echo "| set | tool | valid runs | median s | files/s | CPU s | peak RSS MiB | most descriptors open |"
  echo "|---|---|---|---|---|---|---|---|"
  for tool in $(set_tools hosts); do
    awk -F '\t' -v t="$tool" -v count="${set_count[hosts]}" -v title="$(set_title hosts)" \
      -v label="$(tool_label "$tool")" '
      $1 == "hosts" && $3 == t {
        total++
        if ($10 != 0 || $11 != "ok") { bad++; why = why ($10 != 0 ? " exit " $10 : "") ($11 != "ok" ? " wrong bytes" : ""); next }
        n++; wall[n] = $5; cpu += $6 + $7; if ($8 > rss) rss = $8; if ($12 > fds) fds = $12
      }
      END {
        if (total == 0) exit
        if (n == 0) { printf "| %s | %s | 0/%d | FAILED:%s | | | | |\n", title, label, total, why; exit }
        for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (wall[j] < wall[i]) { x = wall[i]; wall[i] = wall[j]; wall[j] = x }
        med = n % 2 ? wall[(n + 1) / 2] : (wall[n / 2] + wall[n / 2 + 1]) / 2
        mark = bad ? " (" bad " invalid:" why ")" : ""
        printf "| %s | %s | %d/%d%s | %.2f | %.0f | %.2f | %.0f | %d |\n", title, label, n, total, mark, med, count / med,
          cpu / n, rss / 1024, fds
      }' "$results_tsv"
  done
}

if [[ -n $other_sets ]]; then
  say ""
  say "## Downloads (8 connections each; MB = 10^6 bytes; CPU = user + sys of the tool; $runs runs per cell)"
  say ""
  summary | tee -a "$raw"
fi
if [[ " $run_sets " == *" hosts "* ]]; then
  say ""
  say "## Many hosts (HTTP, each tool started with the soft descriptor limit at 1024; $runs runs per cell)"
  say ""
  hosts_summary | tee -a "$raw"
fi
say ""
say "comparison took $((bench_seconds / 60)) min $((bench_seconds % 60)) s; load average now $(cut -d ' ' -f 1-3 /proc/loadavg)"
note "raw runs: $results_tsv"

# ---------------------------------------------------------------------------
# Ceilings of the machine for the same bytes

# MB/s of the median of three timed runs of a command moving <bytes>.
timed_rate() { # <bytes> <prepare-command> <command...>
  local bytes=$1 prepare=$2 k t0 t1 times=()
  shift 2
  for ((k = 0; k < 3; k++)); do
    eval "$prepare"
    t0=$(date +%s%N)
    "$@" || return 1
    t1=$(date +%s%N)
    times+=($((t1 - t0)))
  done
  printf '%s\n' "${times[@]}" | sort -n | sed -n 2p | awk -v b="$bytes" '{ printf "%.0f", b / 1e6 / ($1 / 1e9) }'
}

ceilings() {
  local big_bytes big_path port out rate mb k streams runs_out
  big_path=$(awk '{ print $1; exit }' "$inputs/big-${protocols%%,*}.files" 2>/dev/null || true)
  [[ -n $big_path ]] || big_path=$( ((quick)) && echo big/big-256m.bin || echo big/big-1g.bin)
  big_bytes=$(stat -c %s "$www/$big_path")
  mb=$((big_bytes / MIB))
  say ""
  say "## Ceilings ($mb MiB, the big file's bytes; median of 3 where timed)"
  say ""

  # Loopback TCP, one stream and eight.
  for streams in 1 8; do
    runs_out=()
    for ((k = 0; k < 3; k++)); do
      free_port port || die "no free port for iperf3"
      setsid iperf3 -s -1 -B 127.0.0.1 -p "$port" </dev/null >"$B/iperf3-server.log" 2>&1 &
      iperf_pid=$!
      out=""
      for ((i = 0; i < 50; i++)); do
        sleep 0.1
        out=$(iperf3 -c 127.0.0.1 -p "$port" -P "$streams" -n "$big_bytes" -f m 2>&1) && break
        out=""
      done
      stop_pid "$iperf_pid"
      iperf_pid=""
      runs_out+=("$(awk '/receiver/ { r = $(NF - 2) } END { print r + 0 }' <<<"$out")")
    done
    rate=$(printf '%s\n' "${runs_out[@]}" | sort -n | sed -n 2p)
    say "- loopback TCP, iperf3, $streams stream(s): $rate Mbit/s = $(awk -v r="$rate" 'BEGIN { printf "%.0f", r / 8 }') MB/s"
  done

  # Disk: the same bytes written to the targets' file system.
  local fresh="rm -f '$dlroot/ceiling.tmp'; sync"
  say "- disk write with fdatasync, dd bs=1M: $(timed_rate "$big_bytes" "$fresh" \
    dd if=/dev/zero of="$dlroot/ceiling.tmp" bs=1M count="$mb" conv=fdatasync status=none) MB/s"
  say "- write into the page cache (no sync), dd bs=1M: $(timed_rate "$big_bytes" "$fresh" \
    dd if=/dev/zero of="$dlroot/ceiling.tmp" bs=1M count="$mb" status=none) MB/s"
  rm -f "$dlroot/ceiling.tmp"
  sync

  # Creating the small set's files, empty, in a new directory.
  local count t0 t1
  count=$( ((quick)) && echo 1024 || echo 4096)
  mkdir -p "$dlroot/create"
  t0=$(date +%s%N)
  (cd "$dlroot/create" && for ((k = 0; k < count; k++)); do : >"f$k"; done)
  t1=$(date +%s%N)
  say "- creating $count empty files in a new directory (bash): $(awk -v ns=$((t1 - t0)) 'BEGIN { printf "%.2f", ns / 1e9 }') s"
  rm -rf "$dlroot/create"

  # Hashing and TLS bulk cipher, one core.
  say "- SHA-256, openssl speed, 64 KiB blocks, one core: $(openssl speed -seconds 2 -bytes 65536 -evp sha256 2>/dev/null |
    awk 'END { v = $NF; sub(/k$/, "", v); printf "%.0f", v / 1000 }') MB/s"
  say "- AES-256-GCM (the bulk cipher nginx and the tools agree on), openssl speed, 16 KiB blocks, one core: $(openssl speed -seconds 2 -bytes 16384 -evp aes-256-gcm 2>/dev/null |
    awk 'END { v = $NF; sub(/k$/, "", v); printf "%.0f", v / 1000 }') MB/s"

  # nginx to /dev/null: the server and the network without a disk, one
  # connection, and eight connections of ranges.
  local proto url cfg piece
  for proto in ${protocols//,/ }; do
    url="$(base_url "$proto")/$big_path"
    say "- $proto, nginx to /dev/null, curl, 1 connection: $(timed_rate "$big_bytes" : \
      curl -q -s -S -k --fail -o /dev/null "$url" 2>>"$B/ceilings.log") MB/s"
    cfg="$inputs/ceiling-$proto.curl"
    piece=$((big_bytes / 8))
    : >"$cfg"
    for ((k = 0; k < 8; k++)); do
      printf 'url = "%s"\nrange = %d-%d\noutput = "/dev/null"\n' "$url" $((k * piece)) $((k == 7 ? big_bytes - 1 : (k + 1) * piece - 1)) >>"$cfg"
    done
    say "- $proto, nginx to /dev/null, curl, 8 connections of ranges: $(timed_rate "$big_bytes" : \
      curl -q -s -S -k --fail --no-progress-meter --parallel --parallel-max 8 -K "$cfg" 2>>"$B/ceilings.log") MB/s"
  done
}
((do_ceilings)) && ceilings

# ---------------------------------------------------------------------------
# Micro-benchmarks

if ((do_micro)); then
  say ""
  say "## Micro-benchmarks (build/bench/micro)"
  say ""
  micro_out="$B/results/$stamp-micro.txt"
  "$micro" "--benchmark_min_time=$( ((quick)) && echo 0.1 || echo 0.5)" >"$micro_out" 2>&1 </dev/null ||
    log "micro-benchmarks failed (see $micro_out)"
  grep -E '^BM_' "$micro_out" | awk '{
    name = $1; cpu = $4 " " $5; rate = ""
    for (i = 6; i <= NF; i++) if ($i ~ /^(bytes|items)_per_second=/) rate = rate " " $i
    printf "%-40s %12s %s\n", name, cpu, rate }' | tee -a "$raw"
  note "full output: $micro_out"
fi

say ""
say "results: $raw"
