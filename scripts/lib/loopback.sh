# shellcheck shell=bash
# Sourced by the scripts that serve files from a private nginx on 127.0.0.1
# (the main job, the benchmarks, the test peers): deterministic data, a
# self-signed certificate, free ports, and nginx started in its own session
# and stopped by its PID.

# Deterministic pseudo-random bytes: AES-128-CTR of zeros under a fixed key
# (a few hundred MB/s with AES instructions), one IV per stream so that the
# streams differ. A script may set PRNG_KEY before sourcing.
PRNG_KEY=${PRNG_KEY:-00112233445566778899aabbccddeeff}
prng() { # <bytes> <iv-number>
  head -c "$1" /dev/zero | openssl enc -aes-128-ctr -K "$PRNG_KEY" -iv "$(printf '%032x' "$2")"
}

# <count> files of <bytes> each, cut from one stream: <prefix>00.bin ... with
# <digits> digits, numbered from 0.
prng_files() { # <count> <bytes> <iv-number> <digits> <prefix>
  prng $(($1 * $2)) "$3" | split -b "$2" -a "$4" -d --additional-suffix=.bin - "$5"
}

# <count> files of varied sizes cut from one stream: <dir>/v000.bin ..., file i
# holding 1 + (i * 7919) % <modulus> bytes.
prng_varied() { # <count> <modulus> <iv-number> <dir>
  local i total=0
  for ((i = 0; i < $1; i++)); do total=$((total + 1 + i * 7919 % $2)); done
  # head -c reads no more than it writes, so each file takes the next bytes.
  prng "$total" "$3" | for ((i = 0; i < $1; i++)); do
    head -c $((1 + i * 7919 % $2)) >"$(printf '%s/v%03d.bin' "$4" "$i")"
  done
}

# Makes a self-signed RSA-2048 certificate for CN=localhost and the given
# subjectAltName, unless a pair valid for at least another day is there.
# openssl's messages go to <log>; fails when openssl does.
make_cert() { # <cert> <key> <subjectAltName> <log>
  local cert=$1 key=$2
  if [[ -s $cert && -s $key ]] && openssl x509 -in "$cert" -noout -checkend 86400 >/dev/null 2>&1; then
    return 0
  fi
  openssl req -x509 -newkey rsa:2048 -nodes -sha256 -days 3650 -subj /CN=localhost -addext "subjectAltName=$3" \
    -keyout "$key.tmp" -out "$cert.tmp" >"$4" 2>&1 || return 1
  chmod 600 "$key.tmp"
  mv -f "$key.tmp" "$key"
  mv -f "$cert.tmp" "$cert"
}

# Local TCP ports in use, in any state, IPv4 and IPv6.
used_ports() {
  local f _ local_addr
  for f in /proc/net/tcp /proc/net/tcp6; do
    [[ -r $f ]] || continue
    while read -r _ local_addr _; do
      [[ $local_addr == *:* ]] && echo $((16#${local_addr##*:}))
    done < <(tail -n +2 "$f")
  done
}

# Sets variable $1 to a port that no socket uses and that was not handed out
# yet, below the kernel's ephemeral range (so that no outgoing connection
# can be holding it); never 443, which the test peers' HTTPS server takes.
taken=" 443 "
free_port() {
  local used p i
  used=" $(used_ports | sort -un | tr '\n' ' ') "
  p=$((20000 + (RANDOM * 7 + $$) % 12000))
  for ((i = 0; i < 12000; i++)); do
    if [[ $used != *" $p "* && $taken != *" $p "* ]]; then
      taken+="$p "
      printf -v "$1" '%s' "$p"
      return 0
    fi
    p=$((p + 1))
    ((p < 32000)) || p=20000
  done
  return 1
}

# Writes <dir>/nginx.conf and checks it (nginx's complaints in
# <dir>/configtest.log): HTTP on 127.0.0.1:$HTTP_PORT and HTTPS on
# 127.0.0.1:$HTTPS_PORT, serving <www>, with sendfile and long keep-alive.
# <http-extra> and <server-extra> are added to the http and server blocks.
# NGINX_CONNECTIONS, when set, raises each worker's connections (1024) and
# descriptor limit to match, for clients that keep many connections open.
nginx_config() { # <dir> <www> <cert> <key> <workers> <error-level> <access-log> [<http-extra> [<server-extra>]]
  local nd=$1 user_line="" rlimit_line=""
  [[ -n ${NGINX_CONNECTIONS:-} ]] && rlimit_line="worker_rlimit_nofile $((2 * NGINX_CONNECTIONS));"
  # As root the workers would drop to "nobody", which need not be able to
  # reach a docroot under the build tree.
  [[ $(id -u) -eq 0 ]] && user_line="user root;"
  mkdir -p "$nd/tmp"
  cat >"$nd/nginx.conf" <<EOF
$user_line
$rlimit_line
daemon off;
master_process on;
worker_processes $5;
pid $nd/nginx.pid;
error_log $nd/error.log $6;

events {
  worker_connections ${NGINX_CONNECTIONS:-1024};
}

http {
  default_type application/octet-stream;
  access_log $7;
  client_body_temp_path $nd/tmp/body;
  proxy_temp_path $nd/tmp/proxy;
  fastcgi_temp_path $nd/tmp/fastcgi;
  uwsgi_temp_path $nd/tmp/uwsgi;
  scgi_temp_path $nd/tmp/scgi;
  sendfile on;
  tcp_nopush on;
  keepalive_requests 100000;
  keepalive_timeout 65s;
${8:-}
  server {
    listen 127.0.0.1:$HTTP_PORT;
    listen 127.0.0.1:$HTTPS_PORT ssl;
    server_name localhost;
    ssl_certificate $3;
    ssl_certificate_key $4;
    root $2;
${9:-}
  }
}
EOF
  : >"$nd/error.log"
  nginx -t -q -p "$nd" -e "$nd/error.log" -c "$nd/nginx.conf" >"$nd/configtest.log" 2>&1
}

# Starts nginx on <dir>/nginx.conf in a session of its own (so that
# stop_pid reaches every worker through its process group) and sets
# nginx_pid; then waits, at most 30 s, until both ports serve the first 16
# bytes of <www>/<probe>. Fails when nginx exits or never gets there.
nginx_pid=""
start_nginx_serving() { # <dir> <www> <probe>
  local nd=$1 want i
  setsid nginx -p "$nd" -e "$nd/error.log" -c "$nd/nginx.conf" </dev/null >"$nd/stdout.log" 2>&1 &
  nginx_pid=$!
  want=$(head -c 16 "$2/$3" | od -An -tx1 | tr -d ' \n')
  for ((i = 0; i < 300; i++)); do
    kill -0 "$nginx_pid" 2>/dev/null || return 1
    [[ $(first_bytes "http://127.0.0.1:$HTTP_PORT/$3") == "$want" &&
      $(first_bytes "https://127.0.0.1:$HTTPS_PORT/$3") == "$want" ]] && return 0
    sleep 0.1
  done
  return 1
}
first_bytes() { # <url>: the first 16 bytes in hex, proxies and certificate ignored
  curl -q -s -k --noproxy '*' --max-time 2 -r 0-15 "$1" | od -An -tx1 | tr -d ' \n'
}

# True while <pid> runs: a zombie has ended and only waits for its parent,
# which for a server started by another process is init, in its own time.
running() { # <pid>
  local stat
  stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
  stat=${stat##*) }
  [[ ${stat%% *} != Z ]]
}

# TERM to <pid>, up to 10 s for it to end, then KILL to its process group
# (the server ran in its own session; a worker left behind by a hard exit
# is still in that group).
stop_pid() { # <pid>
  local pid=$1 i
  [[ -n $pid ]] || return 0
  if running "$pid"; then
    kill -TERM "$pid" 2>/dev/null || true
    for ((i = 0; i < 100; i++)); do
      running "$pid" || break
      sleep 0.1
    done
  fi
  kill -KILL -- "-$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
}
