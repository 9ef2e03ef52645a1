#!/usr/bin/env bash
# Starts and stops the one-node Slurm cluster the cluster tests submit to:
#   munged     the scheduler's authentication, with a key of its own;
#   slurmctld  the controller, and slurmd the one node "localhost" (127.0.0.1),
#              8 CPUs whatever the machine has, so that four tasks of two
#              CPUs run at once;
#   nginx      HTTP on a free port serving 300 files of varied sizes, and the
#              same files under /slow/ at 64 KB/s a connection, so that a task
#              can be caught part-way.
#
# Usage: test-cluster.sh start|stop <dir>
#
# The configuration is written into <dir> at every start, beside the state,
# the logs and <dir>/cluster.env, which the tests read. Each daemon runs in a
# session of its own with its PID in <dir>/run/<name>.pid; `stop` cancels the
# jobs still there and ends exactly those processes. Only 127.0.0.1 is ever
# listened on.
set -Eeuo pipefail
(($# == 2)) && [[ $1 == start || $1 == stop ]] || { echo "usage: $0 start|stop <dir>" >&2; exit 2; }
mkdir -p "$2"
dir=$(cd "$2" && pwd -P)
run=$dir/run
# shellcheck source=scripts/lib/loopback.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib/loopback.sh"
# The daemons live in sbin, which a non-root PATH may lack.
PATH=$PATH:/usr/sbin:/sbin
export SLURM_CONF=$dir/slurm.conf

# The daemon of <dir>/run/<name>.pid, if its command line still names <dir>
# (the number may have been reused since).
stop_recorded() { # <name>
  local pid
  pid=$(cat "$run/$1.pid" 2>/dev/null) || return 0
  if grep -qaF "$dir/" "/proc/$pid/cmdline" 2>/dev/null; then
    stop_pid "$pid"
  fi
  rm -f "$run/$1.pid"
}

stop_all() {
  local i name
  # Jobs outlive slurmd by design: cancel them while the controller answers.
  if [[ -s $run/slurmctld.pid ]] && running "$(<"$run/slurmctld.pid")"; then
    timeout 10 scancel --user="$(id -un)" >/dev/null 2>&1 || true
    for ((i = 0; i < 75; i++)); do
      [[ -z $(timeout 5 squeue -h 2>/dev/null) ]] && break
      sleep 0.2
    done
  fi
  for name in slurmd slurmctld munged nginx; do stop_recorded "$name"; done
  rm -f "$dir/cluster.env"
}

if [[ $1 == stop ]]; then
  stop_all
  exit 0
fi

fail() { # <why> [<log>...]: says why with the logs' ends, stops what started
  local f
  trap - ERR
  echo "test-cluster: FAILED: $1" >&2
  shift
  for f in "$@"; do
    [[ -s $f ]] && { echo "----- $f (last 40 lines) -----" && tail -n 40 "$f"; } >&2
  done
  stop_all
  exit 1
}
trap 'fail "unexpected error at line $LINENO"' ERR

for tool in munged munge unmunge slurmctld slurmd sbatch squeue scancel sinfo nginx openssl curl setsid timeout; do
  command -v "$tool" >/dev/null 2>&1 || fail "'$tool' is not installed (run scripts/install-deps.sh)"
done
stop_all # leftovers of an earlier run
rm -rf "$dir/state" "$dir/spool" "$dir/munge" "$dir/tmp" "$dir"/*.log "$dir"/*.out "$dir"/nginx/*.log
mkdir -p "$run" "$dir/state" "$dir/spool" "$dir/munge" "$dir/nginx"

# Starts <command> in a session of its own, stdio to <dir>/<name>.out, and
# records its PID (setsid execs in place: a background job leads no group).
launch() { # <name> <command...>
  local name=$1
  shift
  setsid "$@" </dev/null >"$dir/$name.out" 2>&1 &
  echo $! >"$run/$name.pid"
}

# Polls <command> (at most 30 s) while the daemon <name> runs.
wait_ready() { # <name> <log> <command...>
  local name=$1 log=$2 i
  shift 2
  for ((i = 0; i < 150; i++)); do
    "$@" >/dev/null 2>&1 && return 0
    running "$(<"$run/$name.pid")" || fail "$name exited during start-up" "$dir/$name.out" "$log"
    sleep 0.2
  done
  fail "$name is not ready after 30 s" "$dir/$name.out" "$log"
}

# The files: v000.bin .. v299.bin, file i holding 1 + (i * 7919) % 100000
# bytes (15 MB in all), made once per build tree.
www=$dir/www
if [[ $(stat -c %s "$www/v299.bin" 2>/dev/null) != $((1 + 299 * 7919 % 100000)) ]]; then
  rm -rf "$www" "$www.tmp" && mkdir -p "$www.tmp"
  prng_varied 300 100000 9 "$www.tmp"
  mv "$www.tmp" "$www"
fi

free_port HTTP_PORT && free_port HTTPS_PORT && free_port CTLD_PORT && free_port SLURMD_PORT || fail "no free ports"

# nginx's template also listens for HTTPS, which nobody here uses.
make_cert "$dir/cert.pem" "$dir/key.pem" DNS:localhost "$run/openssl.log" ||
  fail "could not create a certificate" "$run/openssl.log"
nginx_config "$dir/nginx" "$www" "$dir/cert.pem" "$dir/key.pem" 1 info "$dir/nginx/access.log" "" \
  "    location /slow/ { alias $www/; limit_rate 64k; }" ||
  fail "nginx rejects its configuration" "$dir/nginx/configtest.log"
serving=0
start_nginx_serving "$dir/nginx" "$www" v001.bin && serving=1
echo "$nginx_pid" >"$run/nginx.pid"
((serving)) || fail "nginx does not serve $www" "$dir/nginx/error.log"

# munged insists on a private key and on a socket directory all may search.
sock=$dir/munge/socket
chmod 755 "$dir/munge"
(umask 077 && head -c 1024 /dev/urandom >"$dir/munge/munge.key")
launch munged munged -F --key-file="$dir/munge/munge.key" --socket="$sock" \
  --pid-file="$dir/munge/munged.pid" --seed-file="$dir/munge/seed"
wait_ready munged "" bash -c "munge -n -S '$sock' | unmunge -S '$sock'"

# No systemd and no cgroup to contain jobs in: processes are tracked by
# their parents, tasks are not bound, nothing is accounted. slurmd loads a
# cgroup plugin all the same, and its detection misreads a hybrid hierarchy
# (v1 controllers with a v2 tree beside them), so that one is named.
# IPv6 is enabled only because it makes Slurm resolve addresses for either
# family, without which a host whose one IPv4 address is 127.0.0.1 finds none.
cat >"$SLURM_CONF" <<EOF
ClusterName=webget
SlurmctldHost=localhost(127.0.0.1)
SlurmctldPort=$CTLD_PORT
SlurmdPort=$SLURMD_PORT
SlurmUser=$(id -un)
SlurmdUser=$(id -un)
AuthType=auth/munge
AuthInfo=socket=$sock
CredType=cred/munge
CommunicationParameters=EnableIPv6
StateSaveLocation=$dir/state
SlurmdSpoolDir=$dir/spool
SlurmctldPidFile=$dir/state/slurmctld.pid
SlurmdPidFile=$dir/spool/slurmd.pid
SlurmctldLogFile=$dir/slurmctld.log
SlurmdLogFile=$dir/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
MpiDefault=none
MailProg=/bin/true
SchedulerType=sched/builtin
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
SlurmdParameters=config_overrides
ReturnToService=2
KillWait=5
MinJobAge=4
NodeName=localhost NodeAddr=127.0.0.1 CPUs=8 State=UNKNOWN
PartitionName=local Nodes=localhost Default=YES MaxTime=INFINITE State=UP
EOF
: >"$dir/cgroup.conf"
[[ $(stat -f -c %T /sys/fs/cgroup 2>/dev/null) == cgroup2fs ]] || echo "CgroupPlugin=cgroup/v1" >"$dir/cgroup.conf"

launch slurmctld slurmctld -D -f "$SLURM_CONF"
wait_ready slurmctld "$dir/slurmctld.log" bash -c 'timeout 5 scontrol ping | grep -q "is UP"'
launch slurmd slurmd -D -N localhost -f "$SLURM_CONF"
wait_ready slurmd "$dir/slurmd.log" bash -c '[[ $(timeout 5 sinfo -h -n localhost -o %t) == idle ]]'

cat >"$dir/cluster.env.tmp" <<EOF
SLURM_CONF=$SLURM_CONF
HTTP_PORT=$HTTP_PORT
WWW=$www
ACCESS_LOG=$dir/nginx/access.log
EOF
mv -f "$dir/cluster.env.tmp" "$dir/cluster.env"
echo "test-cluster: slurmctld 127.0.0.1:$CTLD_PORT, slurmd 127.0.0.1:$SLURMD_PORT, nginx 127.0.0.1:$HTTP_PORT" >&2
