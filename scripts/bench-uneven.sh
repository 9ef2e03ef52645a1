#!/usr/bin/env bash
# Benchmark on an uneven network: a segmenting downloader is judged by its
# tail, since a batch is done only when its last byte lands. A private nginx
# on loopback limits the rate of each request by the serial number of its
# connection (map $connection, limit_rate), and is restarted before every
# run, so that each tool's connections are numbered from 1:
#
#   uneven  connection 2 at 1 MiB/s, every other one at 32 MiB/s
#   alike   every connection at 16 MiB/s
#
# over HTTP, with 8 connections a tool, for one 256 MiB file and 16 files of
# 16 MiB. "ideal" is the bytes over what the eight connections carry
# together. Each run's targets are checked against the sources' SHA-256, and
# nginx's log gives the requests and connections each run made.
#
#   scripts/bench-uneven.sh            3 runs a cell (about 10 minutes)
#   scripts/bench-uneven.sh --runs 1   one run a cell
#   --tools LIST   of webget,webget-url,library,library-fileorder,library-adaptive,aria2c,axel,curl,wget2
#   --sets LIST    of big,medium;  --cases LIST  of uneven,alike
#
# webget runs with SHA-256 digests in its manifest (it sets file order and
# the adaptive mode), and "webget-url" with the big file's URL alone on its
# command line (size from the server, no digest: verified by size); the
# library alone (bench/batch_host), with the same
# digests, runs with the default plan ("library"), in file order
# ("library-fileorder") and in file order with the adaptive mode
# ("library-adaptive");
# aria2c -x8 -s8 -k1M with its own SHA-256 check, axel -n 8 (one file at a
# time, so the big set only), curl --parallel-max 8 (whole files), wget2
# --max-threads=8 (with --chunk-size of an eighth of the big file). Needs no
# terminal, binds only 127.0.0.1 on free ports, stops its nginx by PID.
set -Eeuo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
cd "$root"
export LC_ALL=C
log() { echo "bench-uneven: $*" >&2; }
die() {
  log "error: $*"
  exit 1
}
# shellcheck source=scripts/lib/loopback.sh
source "$root/scripts/lib/loopback.sh"

runs=3
tools="webget,webget-url,library,library-fileorder,library-adaptive,aria2c,axel,curl,wget2"
sets="big,medium"
cases="uneven,alike"
while (($# > 0)); do
  case $1 in
    --runs) runs=${2:?}; shift ;;
    --tools) tools=${2:?}; shift ;;
    --sets) sets=${2:?}; shift ;;
    --cases) cases=${2:?}; shift ;;
    -h | --help) sed -n '2,/^set -E/p' "${BASH_SOURCE[0]}" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    *) die "unknown option '$1' (see --help)" ;;
  esac
  shift
done
[[ $runs =~ ^[1-9][0-9]*$ ]] || die "--runs wants a positive number"

packages=(aria2 axel curl wget2 nginx time openssl cmake g++ make pkg-config libssl-dev)
status=$(dpkg-query -W -f='${Package} ${Status}\n' "${packages[@]}" 2>/dev/null || true)
missing=()
for p in "${packages[@]}"; do grep -qx "$p install ok installed" <<<"$status" || missing+=("$p"); done
if ((${#missing[@]})); then
  log "installing ${missing[*]}"
  sudo=()
  [[ $(id -u) -eq 0 ]] || sudo=(sudo -n)
  policy=/usr/sbin/policy-rc.d added=0
  if [[ ! -e $policy ]]; then printf '#!/bin/sh\nexit 101\n' | "${sudo[@]}" tee "$policy" >/dev/null && "${sudo[@]}" chmod 755 "$policy" && added=1; fi
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q update </dev/null >&2 &&
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" </dev/null >&2 ||
    die "apt-get could not install ${missing[*]}"
  ((added)) && "${sudo[@]}" rm -f "$policy"
fi

log "building webget and the library host"
cmake -S . -B build -DWEBCHANNEL_BENCH=ON </dev/null >/dev/null
cmake --build build -j2 --target webget webchannel batch_host </dev/null >/dev/null || die "the build failed"

B="$root/build/bench-uneven"
www="$B/www" nd="$B/nginx" dl="$B/dl"
mkdir -p "$www" "$nd" "$B/results"
if [[ ! -s $www/SHA256SUMS ]]; then
  log "generating the data (256 MiB and 16 x 16 MiB)"
  prng $((256 << 20)) 11 >"$www/big.bin"
  prng_files 16 $((16 << 20)) 12 2 "$www/m"
  (cd "$www" && sha256sum big.bin m*.bin >SHA256SUMS.tmp && mv SHA256SUMS.tmp SHA256SUMS)
fi
make_cert "$B/cert.pem" "$B/key.pem" DNS:localhost,IP:127.0.0.1 "$B/openssl.log" || die "no certificate"

nginx_pid=""
trap 'stop_pid "$nginx_pid"' EXIT
trap 'exit 130' INT

# Starts nginx with the rates of <case>, waiting for its socket to listen
# without connecting (a connection would take a serial number).
start_server() { # <case>
  local rates
  case $1 in
    uneven) rates="map \$connection \$rate { 2 1m; default 32m; }" ;;
    alike) rates="map \$connection \$rate { default 16m; }" ;;
  esac
  free_port HTTP_PORT && free_port HTTPS_PORT && free_port PORT || die "no free port"
  : >"$nd/access.log"
  # A small send buffer holds every request to its rate from its first byte:
  # with loopback's default, each request's first megabytes would leave at
  # full speed, and tools that make more requests would get more of them.
  nginx_config "$nd" "$www" "$B/cert.pem" "$B/key.pem" 1 warn off \
    "  log_format counted '\$connection \$status \$body_bytes_sent \"\$request\"';
  $rates
  server {
    listen 127.0.0.1:$PORT sndbuf=64k;
    root $www;
    access_log $nd/access.log counted;
    limit_rate \$rate;
  }" || die "nginx rejects its configuration ($nd/configtest.log)"
  setsid nginx -p "$nd" -e "$nd/error.log" -c "$nd/nginx.conf" </dev/null >"$nd/stdout.log" 2>&1 &
  nginx_pid=$!
  local hex i
  hex=$(printf '%04X' "$PORT")
  for ((i = 0; i < 300; i++)); do
    awk -v p=":$hex" '$2 ~ p"$" && $4 == "0A" { found = 1 } END { exit !found }' /proc/net/tcp && return 0
    kill -0 "$nginx_pid" 2>/dev/null || die "nginx did not start ($nd/error.log)"
    sleep 0.05
  done
  die "nginx does not listen on $PORT"
}

files_of() { [[ $1 == big ]] && echo big.bin || (cd "$www" && ls m*.bin); }

tool_command() { # <tool> <set>: fills cmd
  local tool=$1 set=$2 base="http://127.0.0.1:$PORT" f
  case $tool in
    webget | library*)
      for f in $(files_of "$set"); do
        echo "$base/$f $f $(stat -c %s "$www/$f") $(awk -v f="$f" '$2 == f { print $1 }' "$www/SHA256SUMS") sha256"
      done >"$B/manifest"
      if [[ $tool == webget ]]; then
        cmd=("$root/build/tools/webget" -q -j 8 -i "$B/manifest" -d "$run_dir")
      else
        case $tool in
          library) cmd=(env BATCH_HOST_SHARES=1) ;;
          library-fileorder) cmd=(env) ;;
          library-adaptive) cmd=(env BATCH_HOST_ADAPTIVE=1) ;;
        esac
        cmd+=("$root/build/bench/batch_host" "$B/manifest" "$run_dir")
      fi
      ;;
    aria2c)
      for f in $(files_of "$set"); do
        printf '%s\n  out=%s\n  checksum=sha-256=%s\n' "$base/$f" "$f" "$(awk -v f="$f" '$2 == f { print $1 }' "$www/SHA256SUMS")"
      done >"$B/aria2c.input"
      cmd=(aria2c --no-conf -q -x 8 -s 8 -k 1M -j 8 -d "$run_dir" -i "$B/aria2c.input" --file-allocation=falloc
        --auto-save-interval=0 --allow-overwrite=true --summary-interval=0 --console-log-level=error) ;;
    axel) cmd=(axel -q -n 8 -o "$run_dir/big.bin" "$base/big.bin") ;;
    webget-url) cmd=("$root/build/tools/webget" -q -j 8 -d "$run_dir" "$base/big.bin") ;;
    curl)
      for f in $(files_of "$set"); do printf 'url = "%s"\noutput = "%s"\n' "$base/$f" "$run_dir/$f"; done >"$B/curl.input"
      cmd=(curl -q -s -S --fail --parallel --parallel-max 8 -K "$B/curl.input") ;;
    wget2)
      cmd=(wget2 --no-config -q --max-threads=8 --progress=none -P "$run_dir")
      if [[ $set == big ]]; then cmd+=("--chunk-size=$((32 << 20))"); fi
      for f in $(files_of "$set"); do cmd+=("$base/$f"); done ;;
  esac
}

stamp=$(date -u +%Y%m%d-%H%M%S)
tsv="$B/results/$stamp.tsv"
printf 'case\tset\ttool\trun\twall_s\texit\tverified\trequests\tconnections\n' >"$tsv"
for case_name in ${cases//,/ }; do
  for set in ${sets//,/ }; do
    for ((run = 1; run <= runs; run++)); do
      for tool in ${tools//,/ }; do
        [[ ($tool == axel || $tool == webget-url) && $set != big ]] && continue
        run_dir="$dl/$case_name-$set-$tool-$run"
        rm -rf "$dl" && mkdir -p "$run_dir"
        start_server "$case_name"
        tool_command "$tool" "$set"
        sync
        rc=0
        t0=$(date +%s%N)
        timeout -k 5 300 "${cmd[@]}" >"$B/tool.log" 2>&1 </dev/null || rc=$?
        t1=$(date +%s%N)
        stop_pid "$nginx_pid"
        nginx_pid=""
        verified=ok
        (cd "$run_dir" && grep -E " ($(files_of "$set" | paste -sd '|'))\$" "$www/SHA256SUMS" |
          sha256sum --quiet --strict -c -) >>"$B/tool.log" 2>&1 || verified=BAD
        requests=$(wc -l <"$nd/access.log")
        connections=$(awk '{ print $1 }' "$nd/access.log" | sort -u | wc -l)
        wall=$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.2f", (b - a) / 1e9 }')
        printf '%s\t%s\t%s\t%d\t%s\t%d\t%s\t%d\t%d\n' "$case_name" "$set" "$tool" "$run" "$wall" "$rc" "$verified" \
          "$requests" "$connections" >>"$tsv"
        log "$case_name $set $tool run $run: $wall s, exit $rc, $verified, $requests requests on $connections connections"
      done
    done
  done
done
rm -rf "$dl"

# The table: median wall time of the valid runs, the ideal, and the median
# requests and connections.
echo "| case | set | ideal s | tool | valid runs | median s | x ideal | requests | connections |"
echo "|---|---|---|---|---|---|---|---|---|"
for case_name in ${cases//,/ }; do
  for set in ${sets//,/ }; do
    for tool in ${tools//,/ }; do
      awk -F '\t' -v c="$case_name" -v s="$set" -v t="$tool" '
        function median(a, n,   i, j, x) {
          for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (a[j] < a[i]) { x = a[i]; a[i] = a[j]; a[j] = x }
          return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
        }
        $1 == c && $2 == s && $3 == t {
          total++
          if ($6 != 0 || $7 != "ok") next
          n++; wall[n] = $5; req[n] = $8; conn[n] = $9
        }
        END {
          if (total == 0) exit
          ideal = 256 / (c == "uneven" ? 7 * 32 + 1 : 8 * 16)
          if (n == 0) { printf "| %s | %s | %.2f | %s | 0/%d | FAILED | | | |\n", c, s, ideal, t, total; exit }
          m = median(wall, n)
          printf "| %s | %s | %.2f | %s | %d/%d | %.2f | %.1f | %d | %d |\n", c, s, ideal, t, n, total, m, m / ideal,
            median(req, n), median(conn, n)
        }' "$tsv"
    done
  done
done | tee "$B/results/$stamp.md"
log "raw runs: $tsv"
