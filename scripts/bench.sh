#!/usr/bin/env bash
# Measures sshfa side by side with OpenSSH's tools, rsync, paramiko and
# asyncssh on a private sshd on 127.0.0.1, with the workloads on tmpfs, and
# writes bench/results/<date>.md with a chart per workload.
#
# Every tool runs the same workload in turn (A B C A B C ...): one warm-up
# round, which is also checked for a correct result, then SSHFA_BENCH_RUNS
# counted rounds (default 5). Every connection uses aes128-gcm@openssh.com
# where the client can (the report lists what each negotiated).
#   scripts/bench.sh [WORKLOAD ...]   upload-1g download-1g upload-10k
#                                     download-10k small-1 small-300
#                                     stat-10k exists-1000 list-100k
#                                     sftp-exists-1000 sftp-stat-1000
#                                     connect noop-10k changed-10k
#                                     resume-1g (default: all of these)
#                                     latency, or some of lat-up-128m
#                                     lat-down-128m lat-small-300
#                                     lat-up-10k lat-down-10k lat-noop-10k
#                                     lat-exists-200 lat-connect
#                                     lat-delta-up-64m lat-delta-down-64m:
#                                     the latency rows, once per link of
#                                     SSHFA_BENCH_LINKS; scale, or one of
#                                     scale-100k scale-200k scale-1m: trees of
#                                     100-byte files, with peak memory
#   BUILD_DIR         build folder (default: build-bench)
#   SSHFA_BENCH_RUNS  counted rounds (default 5)
#   SSHFA_BENCH_TOOLS only these tools (names as in the report), e.g.
#                     "sshfa sshfa-baseline rsync-a" (default: every tool)
#   SSHFA_BENCH_BASELINE  another sshfa binary (an older build): the transfer
#                     and no-op rows then run it too, as sshfa-baseline
#   SSHFA_BENCH_OUT   report folder (default: bench/results)
#   SSHFA_BENCH_SETTLE  seconds of rest before every step (default 0.5): the
#                     kernel frees what the previous step removed meanwhile
#   SSHFA_BENCH_NAME  a suffix for the report's name: <date>-NAME.md (an
#                     existing report is never replaced: -2, -3, ... follow)
#   SSHFA_BENCH_SCALE_RUNS  counted rounds of the scale rows (default 1)
#   SSHFA_BENCH_SCALE_DIR   where their trees live (default: BUILD_DIR/scale,
#                     on disk: 1,000,000 files would not fit in tmpfs)
#   SSHFA_BENCH_SCALE_COLD  1: every scale step starts with the kernel's
#                     caches dropped (root only), so that each tool reads the
#                     tree from the disk; the report's rows end in -cold
#   SSHFA_BENCH_LINKS the links of the latency rows, each a round trip in ms
#                     with an optional /RATE (bits/s, k M G; default 1G);
#                     0 is loopback without the relay (default:
#                     "0 20 50 100 50/100M"). The relay is link_emulator:
#                     half the round trip each way, a bottleneck queue of one
#                     bandwidth-delay product.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

build_dir=${BUILD_DIR:-build-bench}
runs=${SSHFA_BENCH_RUNS:-5}
out_dir=${SSHFA_BENCH_OUT:-bench/results}
settle=${SSHFA_BENCH_SETTLE:-0.5}
name=${SSHFA_BENCH_NAME:-}
python=/usr/bin/python3  # Debian's, which has paramiko and asyncssh
all_workloads="upload-1g download-1g upload-10k download-10k small-1 small-300 stat-10k exists-1000 list-100k
  sftp-exists-1000 sftp-stat-1000 connect noop-10k changed-10k resume-1g"
latency_workloads="lat-up-128m lat-down-128m lat-small-300 lat-up-10k lat-down-10k lat-noop-10k lat-exists-200 lat-connect lat-delta-up-64m lat-delta-down-64m"
# Trees of 100-byte files, by name only (long): put, a no-op put and get of
# each tool, with time and peak memory. "scale" runs both.
scale_workloads="scale-100k scale-200k scale-1m"
scale_runs=${SSHFA_BENCH_SCALE_RUNS:-1}
links=${SSHFA_BENCH_LINKS:-0 20 50 100 50/100M}
workloads= latency_rows=
for w in ${*:-$all_workloads}; do
  case " $(echo $all_workloads) " in
  *" $w "*) workloads+=" $w" ;;
  *)
    case " latency $latency_workloads " in
    *" $w "*) latency_rows+=" ${w/#latency/$latency_workloads}" ;;
    *)
      case " scale $scale_workloads " in
      *" $w "*) if [ "$w" = scale ]; then workloads+=" $scale_workloads"; else workloads+=" $w"; fi ;;
      *) echo "bench.sh: unknown workload '$w'" >&2; exit 2 ;;
      esac
      ;;
    esac
    ;;
  esac
done
for link in $links; do
  [[ $link =~ ^[0-9]+(/[0-9]+[kMG]?)?$ ]] || { echo "bench.sh: bad link '$link' in SSHFA_BENCH_LINKS" >&2; exit 2; }
done

if [ "$(id -u)" -eq 0 ]; then
  scripts/install-deps.sh
else
  scripts/install-deps.sh || { echo "install the packages above, then run again" >&2; exit 1; }
fi
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSSHFA_WERROR=OFF \
  -DSSHFA_BUILD_TOOLS=ON -DSSHFA_BUILD_TESTS=OFF -DSSHFA_BUILD_BENCHMARKS=ON >/dev/null
cmake --build "$build_dir" --target sshfa workload link_emulator -j "$(nproc)"
sshfa_bin=$root/$build_dir/tools/sshfa/sshfa
workload_bin=$root/$build_dir/bench/workload
link_bin=$root/$build_dir/support/link_emulator/link_emulator
# What was measured: the commit built now, not the one checked out when the run ends.
sshfa_commit=$(git -C "$root" rev-parse --short HEAD)
[ -z "$(git -C "$root" status --porcelain --untracked-files=no)" ] || sshfa_commit+=" with uncommitted changes"

# ---- a private sshd on tmpfs -------------------------------------------------
[ "$(stat -f -c %T /dev/shm)" = tmpfs ] || { echo "bench.sh: /dev/shm is not a tmpfs" >&2; exit 1; }
work=$(mktemp -d /dev/shm/sshfa-bench.XXXXXX)
sshd_pid= link_pid=
cleanup() {
  [ -z "$link_pid" ] || kill "$link_pid" 2>/dev/null || true
  [ -z "$sshd_pid" ] || kill "$sshd_pid" 2>/dev/null || true
  ssh -F "$work/ssh_config" -O exit bench >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

user=$(id -un)
ssh-keygen -q -t ed25519 -N '' -f "$work/host_key"
ssh-keygen -q -t ed25519 -N '' -f "$work/user_key"
cp "$work/user_key.pub" "$work/authorized_keys"
port=$($python -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
sftp_server=/usr/lib/openssh/sftp-server
# aes128-ctr only for a client without GCM (paramiko); every other client asks for GCM.
cat >"$work/sshd_config" <<EOF
ListenAddress 127.0.0.1
Port $port
HostKey $work/host_key
PidFile $work/sshd.pid
AuthorizedKeysFile $work/authorized_keys
StrictModes no
UsePAM no
PasswordAuthentication no
KbdInteractiveAuthentication no
PermitRootLogin prohibit-password
AllowUsers $user
Ciphers aes128-gcm@openssh.com,aes128-ctr
Compression no
MaxSessions 100
MaxStartups 100
LogLevel DEBUG1
# bash reads ~/.bashrc for sshd's commands only at shell level 1: measure the
# tools, not this account's start-up files.
SetEnv SHLVL=1
Subsystem sftp $sftp_server
EOF
# sshd refuses to start without its privilege separation folder, which the
# system's service start makes (missing on a machine where sshd never ran).
if [ ! -d /run/sshd ] && [ "$(id -u)" -eq 0 ]; then mkdir -p -m 0755 /run/sshd; fi
# A log file, not -e: with -e, debug lines of a session reach its standard error.
/usr/sbin/sshd -D -E "$work/sshd.log" -f "$work/sshd_config" &
sshd_pid=$!
echo "[127.0.0.1]:$port $(cut -d' ' -f1,2 "$work/host_key.pub")" >"$work/known_hosts"
# Host bench is the sshd itself; the latency rows add a Host block per relay
# before the settings that every host shares.
cat >"$work/ssh_hosts" <<EOF
Host bench
  HostName 127.0.0.1
  Port $port
  ControlPath $work/control.sock
EOF
cat >"$work/ssh_common" <<EOF
Host *
  User $user
  IdentityFile $work/user_key
  IdentitiesOnly yes
  UserKnownHostsFile $work/known_hosts
  StrictHostKeyChecking yes
  BatchMode yes
  Ciphers aes128-gcm@openssh.com
  Compression no
EOF
cat "$work/ssh_hosts" "$work/ssh_common" >"$work/ssh_config"
: >"$work/empty_config"
for _ in $(seq 100); do
  ssh -F "$work/ssh_config" -o ControlPath=none bench true 2>/dev/null && break
  kill -0 "$sshd_pid" 2>/dev/null || { echo "bench.sh: sshd did not start:" >&2; cat "$work/sshd.log" >&2; exit 1; }
  sleep 0.1
done
ssh -F "$work/ssh_config" -o ControlMaster=yes -o ControlPersist=yes -fN bench

ssh_cfg=(-F "$work/ssh_config")
sshfa_cmd=("$sshfa_bin" --host 127.0.0.1 --port "$port" --user "$user" --identity "$work/user_key"
  --known-hosts "$work/known_hosts" --ssh-config "$work/empty_config" --batch)
# sshfa-baseline runs a step of sshfa with the other binary.
baseline_bin=${SSHFA_BENCH_BASELINE:-}
for f in up_sshfa down_sshfa tup_sshfa tdown_sshfa noop_sshfa; do
  eval "baseline_$f() { local -a sshfa_cmd=(\"\$baseline_bin\" \"\${sshfa_cmd[@]:1}\"); $f; }"
done
baseline() { [ -z "$baseline_bin" ] || echo "sshfa-baseline:baseline_$1"; }
lib_args=(--host 127.0.0.1 --port "$port" --user "$user" --key "$work/user_key" --known-hosts "$work/known_hosts")
paramiko_cmd=("$python" "$root/bench/peers/paramiko_peer.py" "${lib_args[@]}")
asyncssh_cmd=("$python" "$root/bench/peers/asyncssh_peer.py" "${lib_args[@]}")
ours_cmd=("$workload_bin" "${lib_args[@]}")
ours_sftp_cmd=("$workload_bin" "${lib_args[@]}" --backend sftp)

local_dir=$work/local
remote_dir=$work/remote  # the sshd's side; the same machine, another folder
mkdir -p "$local_dir" "$remote_dir"
results=$work/results.tsv
values=$work/values.tsv  # workload, tool, round, key, value: what a step did besides taking time
: >"$results"
: >"$values"

# ---- timing ----------------------------------------------------------------
# A step is a shell function. Its time: the wall time of the whole step, or,
# when the step leaves a number in $work/seconds (a library's own timing of
# the work alone), that number.
declare -A ciphers
# CPU time (clock ticks) of a process's children that it has waited for.
clock_ticks=$(getconf CLK_TCK)
reaped_cpu() { awk '{print $16 + $17}' "/proc/$1/stat"; }

run_step() {  # workload tool round function
  local workload=$1 tool=$2 round=$3 fn=$4 log_lines start end seconds cpu_before cpu_after server_before
  log_lines=$(wc -l <"$work/sshd.log")
  rm -f "$work/seconds"
  cpu_before=$(reaped_cpu $$) server_before=$(reaped_cpu "$sshd_pid")
  start=$EPOCHREALTIME
  if ! "$fn" >"$work/step.out" 2>"$work/step.err"; then
    echo "bench.sh: $workload/$tool failed:" >&2
    cat "$work/step.err" >&2
    exit 1
  fi
  end=$EPOCHREALTIME
  cpu_after=$(reaped_cpu $$)
  case $workload in
  upload-10k | download-10k | noop-10k | changed-10k)
    # The connection's sshd processes count once the listener has reaped them.
    local waited
    for waited in $(seq 40); do pgrep -P "$sshd_pid" >/dev/null || break; sleep 0.05; done
    note client-cpu $(((cpu_after - cpu_before) * 1000000 / clock_ticks / 10000))
    note server-cpu $((($(reaped_cpu "$sshd_pid") - server_before) * 1000000 / clock_ticks / 10000))
    ;;
  esac
  if [ -s "$work/seconds" ]; then
    seconds=$(cat "$work/seconds")
  else
    seconds=$($python -c "print(f'{$end - $start:.6f}')")
  fi
  if [ "$round" -eq 0 ]; then
    local seen
    seen=$(tail -n +"$((log_lines + 1))" "$work/sshd.log" | sed -n 's/.*kex: client->server cipher: \([^ ]*\).*/\1/p' |
      sort -u | paste -sd, -)
    ciphers[$tool]=${seen:-none}
  else
    printf '%s\t%s\t%s\t%s\n' "$workload" "$tool" "$round" "$seconds" >>"$results"
  fi
}

# Takes the "work" (or another) field of a library's JSON answer as the step's
# time; "a+b" sums the fields a and b.
library_time() {  # field command...
  local field=$1
  shift
  "$@" >"$work/answer.json"
  $python -c "import json,sys; a = json.load(open(sys.argv[1])); print(sum(a[f] for f in sys.argv[2].split('+')))" \
    "$work/answer.json" "$field" >"$work/seconds"
}

# Records a value of the current step (its workload, tool and round).
step_workload= step_tool= step_round=
note() {  # key value
  printf '%s\t%s\t%s\t%s\t%s\n' "$step_workload" "$step_tool" "$step_round" "$1" "$2" >>"$values"
}

# Runs the tools of one workload interleaved; `prepare` runs before every step
# (untimed; it is given the tool's name), `verify` after each tool's warm-up,
# and $after_step, when set, after every step (untimed; the step's standard
# output is in $work/step.out).
after_step=
run_workload() {  # workload prepare verify tool:function ...
  local workload=$1 prepare=$2 verify=$3 round pair
  shift 3
  echo "== $workload" >&2
  for round in $(seq 0 "$runs"); do
    for pair in "$@"; do
      [ -z "${SSHFA_BENCH_TOOLS:-}" ] || [[ " $SSHFA_BENCH_TOOLS " == *" ${pair%%:*} "* ]] || continue
      step_workload=$workload step_tool=${pair%%:*} step_round=$round
      "$prepare" "${pair%%:*}"
      sleep "$settle"
      run_step "$workload" "${pair%%:*}" "$round" "${pair#*:}"
      [ -z "$after_step" ] || "$after_step" "${pair%%:*}"
      if [ "$round" -eq 0 ]; then
        "$verify" || { echo "bench.sh: $workload/${pair%%:*} gave a wrong result" >&2; exit 1; }
      fi
    done
  done
}

# ---- workloads -------------------------------------------------------------
# One file of 1 GiB, incompressible.
big_local=$local_dir/big.bin
big_remote=$remote_dir/big.bin
big_up=$remote_dir/big-up.bin
big_down=$local_dir/big-down.bin
make_big() { [ -f "$big_local" ] || { head -c 1073741824 /dev/urandom >"$big_local" && cp "$big_local" "$big_remote"; }; }
reset_big_up() { rm -f "$big_up"; }
reset_big_down() { rm -f "$big_down"; }
check_big_up() { cmp -s "$big_local" "$big_up"; }
check_big_down() { cmp -s "$big_remote" "$big_down"; }

up_sshfa() { "${sshfa_cmd[@]}" put "$big_local" "$big_up"; }
up_sftp() { echo "put $big_local $big_up" | sftp "${ssh_cfg[@]}" -o ControlPath=none -b - bench; }
up_scp() { scp "${ssh_cfg[@]}" -o ControlPath=none "$big_local" "bench:$big_up"; }
up_rsync() { rsync -e "ssh -F $work/ssh_config -o ControlPath=none" "$big_local" "bench:$big_up"; }
up_cat() { ssh "${ssh_cfg[@]}" -o ControlPath=none bench "cat >'$big_up'" <"$big_local"; }
up_paramiko() { "${paramiko_cmd[@]}" put "$big_local" "$big_up"; }
up_asyncssh() { "${asyncssh_cmd[@]}" put "$big_local" "$big_up"; }
down_sshfa() { "${sshfa_cmd[@]}" get "$big_remote" "$big_down"; }
down_sftp() { echo "get $big_remote $big_down" | sftp "${ssh_cfg[@]}" -o ControlPath=none -b - bench; }
down_scp() { scp "${ssh_cfg[@]}" -o ControlPath=none "bench:$big_remote" "$big_down"; }
down_rsync() { rsync -e "ssh -F $work/ssh_config -o ControlPath=none" "bench:$big_remote" "$big_down"; }
down_cat() { ssh "${ssh_cfg[@]}" -o ControlPath=none bench "cat '$big_remote'" >"$big_down"; }
down_paramiko() { "${paramiko_cmd[@]}" get "$big_remote" "$big_down"; }
down_asyncssh() { "${asyncssh_cmd[@]}" get "$big_remote" "$big_down"; }

# 10,000 files of 1-4 KiB in 100 folders.
tree_local=$local_dir/tree
tree_remote=$remote_dir/tree
tree_up=$remote_dir/tree-up
tree_down=$local_dir/tree-down
make_tree() {
  [ -d "$tree_local" ] && return
  $python - "$tree_local" <<'EOF'
import os, random, sys
random.seed(1)
for d in range(100):
    folder = os.path.join(sys.argv[1], f"dir{d:03d}")
    os.makedirs(folder)
    for f in range(100):
        with open(os.path.join(folder, f"file{f:03d}.dat"), "wb") as out:
            out.write(os.urandom(random.randint(1024, 4096)))
EOF
  cp -r "$tree_local" "$tree_remote"
}
reset_tree_up() { rm -rf "$tree_up"; }
reset_tree_down() { rm -rf "$tree_down"; }
check_tree_up() { diff -r "$tree_local" "$tree_up" >/dev/null; }
check_tree_down() { diff -r "$tree_remote" "$tree_down" >/dev/null; }

tup_sshfa() { "${sshfa_cmd[@]}" put "$tree_local" "$tree_up"; }
tup_scp() { scp -r "${ssh_cfg[@]}" -o ControlPath=none "$tree_local" "bench:$tree_up"; }
tup_sftp() { echo "put -r $tree_local $tree_up" | sftp "${ssh_cfg[@]}" -o ControlPath=none -b - bench; }
tup_rsync() { rsync -a -e "ssh -F $work/ssh_config -o ControlPath=none" "$tree_local/" "bench:$tree_up/"; }
tup_tar() {
  tar -C "$tree_local" -cf - . |
    ssh "${ssh_cfg[@]}" -o ControlPath=none bench "mkdir -p '$tree_up' && tar -C '$tree_up' -xf -"
}
tup_paramiko() { "${paramiko_cmd[@]}" put-tree "$tree_local" "$tree_up"; }
tup_asyncssh() { "${asyncssh_cmd[@]}" put-tree "$tree_local" "$tree_up"; }
tdown_sshfa() { "${sshfa_cmd[@]}" get "$tree_remote" "$tree_down"; }
tdown_scp() { scp -r "${ssh_cfg[@]}" -o ControlPath=none "bench:$tree_remote" "$tree_down"; }
tdown_sftp() { echo "get -r $tree_remote $tree_down" | sftp "${ssh_cfg[@]}" -o ControlPath=none -b - bench; }
tdown_rsync() { rsync -a -e "ssh -F $work/ssh_config -o ControlPath=none" "bench:$tree_remote/" "$tree_down/"; }
tdown_tar() {
  mkdir -p "$tree_down"
  ssh "${ssh_cfg[@]}" -o ControlPath=none bench "tar -C '$tree_remote' -cf - ." | tar -C "$tree_down" -xf -
}
tdown_paramiko() { "${paramiko_cmd[@]}" get-tree "$tree_remote" "$tree_down"; }
tdown_asyncssh() { "${asyncssh_cmd[@]}" get-tree "$tree_remote" "$tree_down"; }

# Small transfers, up and down side by side in one interleaved run: one file
# of 12 KB, and 300 of them in one folder.
small_local=$local_dir/small
small_remote=$remote_dir/small
small_up=$remote_dir/small-up
small_down=$local_dir/small-down
make_small() {  # count
  rm -rf "$small_local" "$small_remote"
  mkdir -p "$small_local"
  for i in $(seq "$1"); do head -c 12000 /dev/urandom >"$small_local/f$i.dat"; done
  cp -r "$small_local" "$small_remote"
}
reset_small() { rm -rf "$small_up" "$small_down"; }
check_small() {
  if [ -e "$small_up" ]; then diff -r "$small_local" "$small_up" >/dev/null; else diff -r "$small_remote" "$small_down" >/dev/null; fi
}
sup_sshfa() { "${sshfa_cmd[@]}" put "$small_local" "$small_up"; }
sdown_sshfa() { "${sshfa_cmd[@]}" get "$small_remote" "$small_down"; }
sup_scp() { scp -r "${ssh_cfg[@]}" -o ControlPath=none "$small_local" "bench:$small_up"; }
sdown_scp() { scp -r "${ssh_cfg[@]}" -o ControlPath=none "bench:$small_remote" "$small_down"; }
sup_sftp() { echo "put -r $small_local $small_up" | sftp "${ssh_cfg[@]}" -o ControlPath=none -b - bench; }
sdown_sftp() { echo "get -r $small_remote $small_down" | sftp "${ssh_cfg[@]}" -o ControlPath=none -b - bench; }
small_tools=(sshfa-put:sup_sshfa sshfa-get:sdown_sshfa scp-put:sup_scp scp-get:sdown_scp sftp-put:sup_sftp
  sftp-get:sdown_sftp)

# Queries. The ssh rows go over the ControlMaster connection, so that they
# too leave connection set-up out.
nothing() { :; }
stat_list=$work/stat-10k.list
stat_1000_list=$work/stat-1000.list
exists_list=$work/exists-1000.list
make_lists() {
  find "$tree_remote" -type f | sort >"$stat_list"
  head -n 1000 "$stat_list" >"$stat_1000_list"
  head -n 500 "$stat_list" | while read -r p; do printf '%s\n%s.missing\n' "$p" "$p"; done >"$exists_list"
}
# A step's answer held N items: a library's JSON count, or N lines of a command's output.
answered() { grep -Eq "\"count\": $1[,}]" "$work/step.out" || [ "$(grep -c . "$work/step.out")" -eq "$1" ]; }
check_stat() { answered 10000; }
check_stat_1000() { answered 1000; }
check_exists() { answered 500; }

stat_sshfa() { library_time work "${ours_cmd[@]}" stat "$stat_list"; cat "$work/answer.json"; }
stat_paramiko() { library_time work "${paramiko_cmd[@]}" stat "$stat_list"; cat "$work/answer.json"; }
stat_asyncssh() { library_time work "${asyncssh_cmd[@]}" stat "$stat_list"; cat "$work/answer.json"; }
stat_ssh() { ssh "${ssh_cfg[@]}" bench "xargs -d '\n' stat -c '%s %Y'" <"$stat_list"; }
# Connection set-up included: ours also starts its persistent shell (first).
exists_sshfa() { library_time connect+first+work "${ours_cmd[@]}" exists "$exists_list"; cat "$work/answer.json"; }
exists_paramiko() { library_time connect+work "${paramiko_cmd[@]}" exists "$exists_list"; cat "$work/answer.json"; }
exists_asyncssh() { library_time connect+work "${asyncssh_cmd[@]}" exists "$exists_list"; cat "$work/answer.json"; }
# The SFTP backend: every path of the list in one batch of pipelined
# requests, against the same lists by the Python libraries' loops and by the
# shell backend. Its SFTP channel is opened before the clock starts (first),
# as the Python libraries open theirs on connecting.
sftp_exists_sshfa() { library_time work "${ours_sftp_cmd[@]}" exists "$exists_list"; cat "$work/answer.json"; }
sftp_exists_shell() { library_time work "${ours_cmd[@]}" exists "$exists_list"; cat "$work/answer.json"; }
sftp_exists_paramiko() { library_time work "${paramiko_cmd[@]}" exists "$exists_list"; cat "$work/answer.json"; }
sftp_exists_asyncssh() { library_time work "${asyncssh_cmd[@]}" exists "$exists_list"; cat "$work/answer.json"; }
sftp_stat_sshfa() { library_time work "${ours_sftp_cmd[@]}" stat "$stat_1000_list"; cat "$work/answer.json"; }
sftp_stat_shell() { library_time work "${ours_cmd[@]}" stat "$stat_1000_list"; cat "$work/answer.json"; }
sftp_stat_paramiko() { library_time work "${paramiko_cmd[@]}" stat "$stat_1000_list"; cat "$work/answer.json"; }
sftp_stat_asyncssh() { library_time work "${asyncssh_cmd[@]}" stat "$stat_1000_list"; cat "$work/answer.json"; }
exists_ssh() {
  local p
  while read -r p; do
    if ssh "${ssh_cfg[@]}" bench "test -e '$p'" </dev/null; then echo 1; fi
  done <"$exists_list"
}

# 100,000 empty files in 100 folders.
wide_remote=$remote_dir/wide
make_wide() {
  [ -d "$wide_remote" ] && return
  $python - "$wide_remote" <<'EOF'
import os, sys
for d in range(100):
    folder = os.path.join(sys.argv[1], f"dir{d:03d}")
    os.makedirs(folder)
    for f in range(1000):
        open(os.path.join(folder, f"f{f:04d}"), "wb").close()
EOF
}
check_walk() { answered 100000; }
walk_sshfa() { library_time work "${ours_cmd[@]}" walk "$wide_remote"; cat "$work/answer.json"; }
walk_paramiko() { library_time work "${paramiko_cmd[@]}" walk "$wide_remote"; cat "$work/answer.json"; }
walk_asyncssh() { library_time work "${asyncssh_cmd[@]}" walk "$wide_remote"; cat "$work/answer.json"; }
walk_ssh() { ssh "${ssh_cfg[@]}" bench "find '$wide_remote' -type f"; }

connect_sshfa() { library_time connect "${ours_cmd[@]}" connect; }
connect_sshfa_first() { library_time connect+work "${ours_cmd[@]}" connect; }
connect_ssh() { ssh "${ssh_cfg[@]}" -o ControlPath=none bench true; }
connect_paramiko() { library_time connect "${paramiko_cmd[@]}" connect; }
connect_asyncssh() { library_time connect "${asyncssh_cmd[@]}" connect; }

# Re-runs of a tree upload (no-op and 1 % changed) and an interrupted upload's
# re-run. The trees are make_tree's, copied with their modification times cut
# to whole seconds: SFTP carries whole seconds and sshfa keeps times to the
# second, so with fractions one tool's copy would look changed to another and
# the no-op would not be one for every tool.
sync_old=$local_dir/sync-old/tree      # the tree as the destination holds it
sync_new=$local_dir/sync-new/tree      # the same with 1 % of its files changed
noop_dir=$remote_dir/noop              # every tool addresses $noop_dir/tree
changed_dir=$remote_dir/changed        # and $changed_dir/tree
changed_list=$work/changed.list        # the changed files, relative
rsync_e="ssh -F $work/ssh_config -o ControlPath=none"
make_sync_trees() {
  [ -d "$sync_old" ] && return
  make_tree
  mkdir -p "${sync_old%/tree}" "${sync_new%/tree}"
  cp -a "$tree_local" "$sync_old"
  # Whole seconds, a day in the past; the changed files an hour in the past,
  # one per folder, every other one with a new size.
  $python - "$sync_old" "$changed_list" <<'PY'
import os, random, sys, time
root, listing = sys.argv[1:3]
base = int(time.time()) - 86400
for d in range(100):
    for f in range(100):
        p = os.path.join(root, f"dir{d:03d}", f"file{f:03d}.dat")
        os.utime(p, (base - d * 100 - f, base - d * 100 - f))
with open(listing, "w") as out:
    for d in range(100):
        out.write(f"dir{d:03d}/file{(d * 37) % 100:03d}.dat\n")
PY
  cp -a "$sync_old" "$sync_new"
  $python - "$sync_new" "$changed_list" <<'PY'
import os, random, sys, time
root, listing = sys.argv[1:3]
random.seed(2)
newer = int(time.time()) - 3600
for i, rel in enumerate(open(listing).read().split()):
    p = os.path.join(root, rel)
    size = os.path.getsize(p) if i % 2 == 0 else random.randint(1024, 4096)
    with open(p, "wb") as out:
        out.write(os.urandom(size))
    os.utime(p, (newer, newer))
PY
  mkdir -p "$noop_dir" "$changed_dir" "$noop_empty" "$noop_dir/empty"
  cp -a "$sync_old" "$noop_dir/tree"
  cp -a "$sync_old" "$changed_dir/tree"
}
# Path, size and modification time of every file, sorted.
listing() { (cd "$1" && find . -type f -printf '%P %s %T@\n' | sort); }
same_tree() { diff -r "$1" "$2" >/dev/null && cmp -s <(listing "$1") <(listing "$2"); }
# Inode and change time of every file: a file written, replaced or given its
# times again shows here.
inodes() { (cd "$1" && find . -type f -printf '%P %i %C@\n' | sort) >"$2"; }
written() { inodes "$1" "$work/inodes.after" && comm -13 "$work/inodes.before" "$work/inodes.after" | wc -l; }

prepare_noop() {
  cmp -s <(listing "$sync_old") <(listing "$noop_dir/tree") ||
    { echo "bench.sh: $noop_dir/tree no longer equals its source" >&2; exit 1; }
  inodes "$noop_dir/tree" "$work/inodes.before"
}
prepare_changed() {
  (cd "$sync_old" && xargs -d '\n' cp -p --parents -t "$changed_dir/tree") <"$changed_list"
  cmp -s <(listing "$sync_old") <(listing "$changed_dir/tree") ||
    { echo "bench.sh: $changed_dir/tree could not be restored" >&2; exit 1; }
  inodes "$changed_dir/tree" "$work/inodes.before"
}
check_noop() { same_tree "$sync_old" "$noop_dir/tree"; }
check_changed() { same_tree "$sync_new" "$changed_dir/tree"; }
# Files written in the destination, and sshfa's own count from its summary.
after_sync() {  # tool
  local dest=$noop_dir/tree
  case $1 in sshfa | rsync-a | rclone-sync) ;; *) return 0 ;; esac
  [ "$step_workload" = noop-10k ] || dest=$changed_dir/tree
  note written "$(written "$dest")"
  if [ "$1" = sshfa ]; then
    $python - "$work/step.out" <<'PY' | while read -r k v; do note "$k" "$v"; done
import json, sys
a = json.load(open(sys.argv[1]))
for k, key in (("files", "copied"), ("skipped", "unchanged"), ("bytes", "bytes")):
    if key in a:
        print(k, a[key])
PY
  fi
}

# The destination is the parent folder with a trailing slash: the tree goes
# into it under its own name, on the first run and on every re-run alike.
noop_sshfa() { "${sshfa_cmd[@]}" put --json "$sync_old" "$noop_dir/"; }
# The same re-run through a filter of the usual kind: every name is matched
# against every rule, none of them excludes a file of this tree.
noop_filter=(--exclude '*.o' --exclude '*~' --exclude '.git/' --exclude 'build/' --include 'dir*/' --include '*.dat'
  --exclude '*.tmp' --filter '- node_modules/')
noop_sshfa_filtered() { "${sshfa_cmd[@]}" put --json "${noop_filter[@]}" "$sync_old" "$noop_dir/"; }
noop_rsync() { rsync -a -e "$rsync_e" "$sync_old/" "bench:$noop_dir/tree/"; }
noop_rclone() { rclone "${rclone_args[@]}" sync "$sync_old" "bench:$noop_dir/tree"; }
# Floors, for reference: sshfa's put of an empty folder that is already there
# (connection, SFTP session, one listing), and the connection under rsync.
noop_empty=$local_dir/sync-empty/empty
noop_sshfa_empty() { "${sshfa_cmd[@]}" put --json "$noop_empty" "$noop_dir/"; }
noop_ssh_true() { ssh "${ssh_cfg[@]}" -o ControlPath=none bench true; }
changed_sshfa() { "${sshfa_cmd[@]}" put --json "$sync_new" "$changed_dir/"; }
changed_rsync() { rsync -a -e "$rsync_e" "$sync_new/" "bench:$changed_dir/tree/"; }
changed_rclone() { rclone "${rclone_args[@]}" sync "$sync_new" "bench:$changed_dir/tree"; }
sync_tools=(sshfa rsync-a)
if command -v rclone >/dev/null; then
  # rclone's sftp backend, its defaults otherwise (size and modification time
  # decide; changed files are checked afterwards with a remote md5sum).
  cat >"$work/rclone.conf" <<EOF2
[bench]
type = sftp
host = 127.0.0.1
port = $port
user = $user
key_file = $work/user_key
known_hosts_file = $work/known_hosts
EOF2
  rclone_args=(--config "$work/rclone.conf" --cache-dir "$work/rclone-cache")
  sync_tools+=(rclone-sync)
fi
sync_steps() {  # noop|changed
  local t
  for t in "${sync_tools[@]}"; do
    case $t in
    sshfa) echo "sshfa:$1_sshfa" ;;
    rsync-a) echo "rsync-a:$1_rsync" ;;
    rclone-sync) echo "rclone-sync:$1_rclone" ;;
    esac
  done
}

# An upload of 1 GiB killed (SIGKILL) once 512 MiB of it are in the
# destination folder, then run again; the re-run is timed.
resume_dir=$remote_dir/resume
resume_dst=$resume_dir/big.bin
resume_half=536870912
prepare_resume() {  # tool
  local pid
  rm -rf "$resume_dir"
  mkdir -p "$resume_dir"
  case $1 in
  sshfa*) "${sshfa_cmd[@]}" put --json "$big_local" "$resume_dst" >/dev/null 2>&1 & ;;
  rsync-*) rsync --partial -e "$rsync_e" "$big_local" "bench:$resume_dst" >/dev/null 2>&1 & ;;
  esac
  pid=$!
  # Polls the largest file in the folder, kills the client past the half,
  # then waits until the server's side has let go: the folder unchanged for
  # 0.5 s and no rsync temporary left (rsync --partial renames it into place
  # when its connection ends). The shell's "Killed" line goes to /dev/null.
  {
    $python - "$pid" "$resume_dir" "$resume_half" "$1" >"$work/killed" 2>&4 <<'PY'
import os, signal, sys, time
pid, folder, half, tool = int(sys.argv[1]), sys.argv[2], int(sys.argv[3]), sys.argv[4]
def state():
    return sorted((e.name, e.stat().st_size) for e in os.scandir(folder) if e.is_file())
def running():  # the client, not yet ended (a zombie until the shell waits for it)
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except FileNotFoundError:
        return False
def fail(message):
    if running():
        os.kill(pid, signal.SIGKILL)
    sys.exit(f"bench.sh: {tool}: {message}")
start = time.monotonic()
while True:
    sizes = [s for _, s in state()]
    if sizes and max(sizes) > half:
        break
    if not running():
        fail("the upload ended before it passed the half")
    if time.monotonic() - start > 120:
        fail("the upload did not pass the half in 120 s")
    time.sleep(0.002)
os.kill(pid, signal.SIGKILL)
last, since = None, time.monotonic()
while True:
    now = state()
    if now != last:
        last, since = now, time.monotonic()
    waiting = tool.startswith("rsync") and not any(n == "big.bin" for n, _ in now)
    if time.monotonic() - since >= 0.5 and not waiting:
        break
    if time.monotonic() - start > 180:
        sys.exit(f"bench.sh: {tool}: the folder did not settle: {now}")
    time.sleep(0.05)
print(max(s for _, s in now))
PY
    wait "$pid" || true
  } 4>&2 2>/dev/null
  note partial "$(cat "$work/killed")"
}
check_resume() { cmp -s "$big_local" "$resume_dst"; }
after_resume() {  # tool
  note size "$(stat -c %s "$big_local")"
  note leftover "$(find "$resume_dir" -mindepth 1 ! -path "$resume_dst" | wc -l)"
  case $1 in
  sshfa*)
    $python - "$work/step.out" <<'PY' | while read -r k v; do note "$k" "$v"; done
import json, sys
a = json.load(open(sys.argv[1]))
print("sent", a["bytes"])
if "resumed" in a:
    print("resumed", a["resumed"])
PY
    ;;
  rsync-*)
    note sent "$(sed -n 's/^Literal data: \([0-9,]*\).*/\1/p' "$work/step.out" | tr -d ,)"
    note wire "$(sed -n 's/^Total bytes sent: \([0-9,]*\).*/\1/p' "$work/step.out" | tr -d ,)"
    ;;
  esac
}
resume_sshfa() { "${sshfa_cmd[@]}" put --json "$big_local" "$resume_dst"; }
# For reference: the same re-run starting over.
resume_sshfa_over() { "${sshfa_cmd[@]}" put --json --no-resume "$big_local" "$resume_dst"; }
# --partial: the kept part is the basis of rsync's delta transfer (checksums
# of its blocks go up, only the missing part goes as data);
# --append-verify: the rest is appended, then the whole file is checked.
resume_rsync_partial() { rsync --partial --stats -e "$rsync_e" "$big_local" "bench:$resume_dst"; }
resume_rsync_append() { rsync --partial --append-verify --stats -e "$rsync_e" "$big_local" "bench:$resume_dst"; }

# ---- latency rows ---------------------------------------------------------------
# The same sshd reached through link_emulator, once per link of
# SSHFA_BENCH_LINKS: every tool addresses $lhost (OpenSSH's programs) or
# $lport (sshfa and the libraries); on loopback (0) these are the sshd's own.
lhost= lport= link_name= link_args=()
start_link() {  # rtt[/rate]
  local rtt=${1%%/*} rate=1G
  [[ $1 != */* ]] || rate=${1#*/}
  if [ "$rtt" -eq 0 ]; then
    link_name=loopback lhost=bench lport=$port link_args=("${lib_args[@]}")
    return
  fi
  link_name=${rtt}ms
  [ "$rate" = 1G ] || link_name+=-$rate
  "$link_bin" --target "127.0.0.1:$port" --delay-up-ms $((rtt / 2)) --delay-down-ms $((rtt - rtt / 2)) \
    --rate "$rate" >"$work/link.out" 2>"$work/link.err" &
  link_pid=$!
  for _ in $(seq 100); do
    grep -q '^listening' "$work/link.out" && break
    kill -0 "$link_pid" 2>/dev/null || { echo "bench.sh: link_emulator did not start:" >&2; cat "$work/link.err" >&2; exit 1; }
    sleep 0.05
  done
  lport=$(sed -n 's/^listening 127\.0\.0\.1://p' "$work/link.out")
  [ -n "$lport" ] || { echo "bench.sh: link_emulator did not listen" >&2; exit 1; }
  lhost=link-$lport
  link_args=(--host 127.0.0.1 --port "$lport" --user "$user" --key "$work/user_key" --known-hosts "$work/known_hosts")
  echo "[127.0.0.1]:$lport $(cut -d' ' -f1,2 "$work/host_key.pub")" >>"$work/known_hosts"
  printf 'Host %s\n  HostName 127.0.0.1\n  Port %s\n' "$lhost" "$lport" >>"$work/ssh_hosts"
  cat "$work/ssh_hosts" "$work/ssh_common" >"$work/ssh_config"
  echo "== link $link_name: $(sed -n 2p "$work/link.out")" >&2
}
stop_link() {
  [ -n "$link_pid" ] || return 0
  kill "$link_pid"
  wait "$link_pid" 2>/dev/null || true
  link_pid=
}
lsshfa() {
  "$sshfa_bin" --host 127.0.0.1 --port "$lport" --user "$user" --identity "$work/user_key" \
    --known-hosts "$work/known_hosts" --ssh-config "$work/empty_config" --batch "$@"
}
lours() { "$workload_bin" "${link_args[@]}" "$@"; }
lparamiko() { "$python" "$root/bench/peers/paramiko_peer.py" "${link_args[@]}" "$@"; }
lssh() { ssh "${ssh_cfg[@]}" -o ControlPath=none "$lhost" "$@"; }
lsftp() { sftp "${ssh_cfg[@]}" -o ControlPath=none -b - "$lhost"; }

# One file of 128 MiB, incompressible.
lat_big=$local_dir/lat-128m.bin
lat_big_remote=$remote_dir/lat-128m.bin
lat_up=$remote_dir/lat-128m-up.bin
lat_down=$local_dir/lat-128m-down.bin
make_lat_big() { [ -f "$lat_big" ] || { head -c 134217728 /dev/urandom >"$lat_big" && cp "$lat_big" "$lat_big_remote"; }; }
reset_lat_up() { rm -f "$lat_up"; }
reset_lat_down() { rm -f "$lat_down"; }
check_lat_up() { cmp -s "$lat_big" "$lat_up"; }
check_lat_down() { cmp -s "$lat_big_remote" "$lat_down"; }
lup_sshfa() { lsshfa put "$lat_big" "$lat_up"; }
lup_sftp() { echo "put $lat_big $lat_up" | lsftp; }
lup_scp() { scp "${ssh_cfg[@]}" -o ControlPath=none "$lat_big" "$lhost:$lat_up"; }
lup_rsync() { rsync -e "$rsync_e" "$lat_big" "$lhost:$lat_up"; }
lup_cat() { lssh "cat >'$lat_up'" <"$lat_big"; }
lup_paramiko() { lparamiko put "$lat_big" "$lat_up"; }
ldown_sshfa() { lsshfa get "$lat_big_remote" "$lat_down"; }
ldown_sftp() { echo "get $lat_big_remote $lat_down" | lsftp; }
ldown_scp() { scp "${ssh_cfg[@]}" -o ControlPath=none "$lhost:$lat_big_remote" "$lat_down"; }
ldown_rsync() { rsync -e "$rsync_e" "$lhost:$lat_big_remote" "$lat_down"; }
ldown_cat() { lssh "cat '$lat_big_remote'" >"$lat_down"; }
ldown_paramiko() { lparamiko get "$lat_big_remote" "$lat_down"; }

# make_tree's 10,000 files at the link: put into nothing, get into nothing,
# and put again onto the copy that holds them already (noop-10k's).
lat_tree_up=$remote_dir/lat-tree-up
lat_tree_down=$local_dir/lat-tree-down
reset_lat_tree_up() { rm -rf "$lat_tree_up"; }
reset_lat_tree_down() { rm -rf "$lat_tree_down"; }
check_lat_tree_up() { diff -r "$tree_local" "$lat_tree_up" >/dev/null; }
check_lat_tree_down() { diff -r "$tree_remote" "$lat_tree_down" >/dev/null; }
ltup_sshfa() { lsshfa put "$tree_local" "$lat_tree_up"; }
ltup_rsync() { rsync -a -e "$rsync_e" "$tree_local/" "$lhost:$lat_tree_up/"; }
ltup_tar() { tar -C "$tree_local" -cf - . | lssh "mkdir -p '$lat_tree_up' && tar -C '$lat_tree_up' -xf -"; }
ltdown_sshfa() { lsshfa get "$tree_remote" "$lat_tree_down"; }
ltdown_rsync() { rsync -a -e "$rsync_e" "$lhost:$tree_remote/" "$lat_tree_down/"; }
ltdown_tar() { mkdir -p "$lat_tree_down" && lssh "tar -C '$tree_remote' -cf - ." | tar -C "$lat_tree_down" -xf -; }
ltnoop_sshfa() { lsshfa put "$sync_old" "$noop_dir/"; }
ltnoop_rsync() { rsync -a -e "$rsync_e" "$sync_old/" "$lhost:$noop_dir/tree/"; }
for f in ltup_sshfa ltdown_sshfa ltnoop_sshfa ldelta_up_sshfa ldelta_down_sshfa; do
  eval "baseline_$f() { local sshfa_bin=\"\$baseline_bin\"; $f; }"
done

# 300 files of 2-6 KiB in one folder; the far side's copy is what exists-200 asks about.
lat_small=$local_dir/lat-small
lat_small_remote=$remote_dir/lat-small
lat_small_up=$remote_dir/lat-small-up
make_lat_small() {
  [ -d "$lat_small" ] && return
  $python - "$lat_small" <<'PY'
import os, random, sys
random.seed(3)
os.makedirs(sys.argv[1])
for f in range(300):
    with open(os.path.join(sys.argv[1], f"file{f:03d}.dat"), "wb") as out:
        out.write(os.urandom(random.randint(2048, 6144)))
PY
  cp -r "$lat_small" "$lat_small_remote"
}
reset_lat_small() { rm -rf "$lat_small_up"; }
check_lat_small() { diff -r "$lat_small" "$lat_small_up" >/dev/null; }
lsmall_sshfa() { lsshfa put "$lat_small" "$lat_small_up"; }
lsmall_scp() { scp -r "${ssh_cfg[@]}" -o ControlPath=none "$lat_small" "$lhost:$lat_small_up"; }
lsmall_sftp() { echo "put -r $lat_small $lat_small_up" | lsftp; }
lsmall_rsync() { rsync -a -e "$rsync_e" "$lat_small/" "$lhost:$lat_small_up/"; }
lsmall_tar() { tar -C "$lat_small" -cf - . | lssh "mkdir -p '$lat_small_up' && tar -C '$lat_small_up' -xf -"; }
lsmall_paramiko() { lparamiko put-tree "$lat_small" "$lat_small_up"; }

# 200 remote paths, every other one missing; each row prints one line (or a
# count) per path that exists.
lat_exists_list=$work/lat-exists-200.list
make_lat_exists() {
  make_lat_small
  find "$lat_small_remote" -type f | sort | head -n 100 | while read -r p; do printf '%s\n%s.missing\n' "$p" "$p"; done \
    >"$lat_exists_list"
}
check_lat_exists() { answered 100; }
lexists_sshfa() { library_time connect+first+work lours exists "$lat_exists_list"; cat "$work/answer.json"; }
lexists_tool() {
  local paths
  mapfile -t paths <"$lat_exists_list"
  # Exit status 1: some of the paths are missing, as half of them are.
  { lsshfa exists "${paths[@]}" || [ $? -eq 1 ]; } | grep '^true'
}
lexists_paramiko() { library_time connect+work lparamiko exists "$lat_exists_list"; cat "$work/answer.json"; }
# One `ls` per path (they are files; a missing one is an error that `-`
# lets pass); the echoed commands are left out.
lexists_sftp() { sed 's/^/-ls /' "$lat_exists_list" | lsftp | grep -v '^sftp>'; }
lexists_ssh() { lssh 'while IFS= read -r p; do [ ! -e "$p" ] || printf "%s\n" "$p"; done' <"$lat_exists_list"; }

# Connection set-up, and the tool's first answer.
lat_one=$remote_dir/lat-one.dat
reset_lat_one() { rm -f "$lat_one"; }
lconnect_sshfa() { library_time connect lours connect; }
lconnect_sshfa_first() { library_time connect+work lours connect; }
lconnect_tool_exists() { lsshfa exists /; }
lconnect_tool_put() { lsshfa put "$lat_small/file000.dat" "$lat_one"; }
lconnect_ssh() { lssh true; }
lconnect_paramiko() { library_time connect lparamiko connect; }

# 64 MiB with 1 MiB changed (across two 1 MiB blocks) over its old version:
# sshfa's default (a delta where the measured link makes it pay), a delta
# always, the whole file, and rsync -a (a delta by rsync's rolling checksum).
lat_delta_old=$local_dir/lat-delta-old.bin
lat_delta_new=$local_dir/lat-delta-new.bin
lat_delta_new_remote=$remote_dir/lat-delta-new.bin
lat_delta_up=$remote_dir/lat-delta-up.bin
lat_delta_down=$local_dir/lat-delta-down.bin
make_lat_delta() {
  [ -f "$lat_delta_new_remote" ] && return
  head -c 67108864 /dev/urandom >"$lat_delta_old"
  cp "$lat_delta_old" "$lat_delta_new"
  head -c 1048576 /dev/urandom | dd of="$lat_delta_new" bs=524288 seek=65 conv=notrunc status=none
  touch -d '2020-01-01 00:00:00' "$lat_delta_old"
  cp -p "$lat_delta_new" "$lat_delta_new_remote"
}
reset_lat_delta_up() { cp -p "$lat_delta_old" "$lat_delta_up"; }
reset_lat_delta_down() { cp -p "$lat_delta_old" "$lat_delta_down"; }
check_lat_delta_up() { cmp -s "$lat_delta_new" "$lat_delta_up"; }
check_lat_delta_down() { cmp -s "$lat_delta_new_remote" "$lat_delta_down"; }
ldelta_up_sshfa() { lsshfa put --json "$@" "$lat_delta_new" "$lat_delta_up"; }
ldelta_up_always() { ldelta_up_sshfa --delta; }
ldelta_up_whole() { ldelta_up_sshfa --whole-file; }
ldelta_up_rsync() { rsync -a --stats -e "$rsync_e" "$lat_delta_new" "$lhost:$lat_delta_up"; }
ldelta_down_sshfa() { lsshfa get --json "$@" "$lat_delta_new_remote" "$lat_delta_down"; }
ldelta_down_always() { ldelta_down_sshfa --delta; }
ldelta_down_whole() { ldelta_down_sshfa --whole-file; }
ldelta_down_rsync() { rsync -a --stats -e "$rsync_e" "$lhost:$lat_delta_new_remote" "$lat_delta_down"; }
# File data each step sent (sshfa's count, rsync's literal data) and reused.
after_delta() {  # tool
  case $1 in
  sshfa*)
    $python - "$work/step.out" <<'PY' | while read -r k v; do note "$k" "$v"; done
import json, sys
a = json.load(open(sys.argv[1]))
print("sent", a["bytes"])
print("reused", a["reused"])
PY
    ;;
  rsync-*)
    note sent "$(sed -n 's/^Literal data: \([0-9,]*\).*/\1/p' "$work/step.out" | tr -d ,)"
    note wire "$(sed -n 's/^Total bytes sent: \([0-9,]*\).*/\1/p' "$work/step.out" | tr -d ,)"
    ;;
  esac
}

run_latency_row() {  # workload
  local row=$1@$link_name
  case $1 in
  lat-up-128m)
    make_lat_big
    run_workload "$row" reset_lat_up check_lat_up sshfa:lup_sshfa sftp:lup_sftp scp:lup_scp rsync:lup_rsync \
      cat-over-ssh:lup_cat paramiko:lup_paramiko
    ;;
  lat-down-128m)
    make_lat_big
    run_workload "$row" reset_lat_down check_lat_down sshfa:ldown_sshfa sftp:ldown_sftp scp:ldown_scp \
      rsync:ldown_rsync cat-over-ssh:ldown_cat paramiko:ldown_paramiko
    ;;
  lat-small-300)
    make_lat_small
    run_workload "$row" reset_lat_small check_lat_small sshfa:lsmall_sshfa scp-r:lsmall_scp sftp-r:lsmall_sftp \
      rsync-a:lsmall_rsync tar-pipe:lsmall_tar paramiko:lsmall_paramiko
    ;;
  lat-up-10k)
    make_tree
    run_workload "$row" reset_lat_tree_up check_lat_tree_up sshfa:ltup_sshfa $(baseline ltup_sshfa) \
      rsync-a:ltup_rsync tar-pipe:ltup_tar
    ;;
  lat-down-10k)
    make_tree
    run_workload "$row" reset_lat_tree_down check_lat_tree_down sshfa:ltdown_sshfa $(baseline ltdown_sshfa) \
      rsync-a:ltdown_rsync tar-pipe:ltdown_tar
    ;;
  lat-noop-10k)
    make_sync_trees
    run_workload "$row" prepare_noop check_noop sshfa:ltnoop_sshfa $(baseline ltnoop_sshfa) rsync-a:ltnoop_rsync
    ;;
  lat-exists-200)
    make_lat_exists
    run_workload "$row" nothing check_lat_exists sshfa:lexists_sshfa sshfa-tool:lexists_tool \
      paramiko:lexists_paramiko sftp-batch:lexists_sftp ssh-one-command:lexists_ssh
    ;;
  lat-connect)
    make_lat_small
    run_workload "$row" reset_lat_one nothing sshfa:lconnect_sshfa sshfa-first-command:lconnect_sshfa_first \
      sshfa-tool-exists:lconnect_tool_exists sshfa-tool-put-one:lconnect_tool_put ssh-true:lconnect_ssh \
      paramiko:lconnect_paramiko
    ;;
  lat-delta-up-64m)
    make_lat_delta
    after_step=after_delta
    run_workload "$row" reset_lat_delta_up check_lat_delta_up sshfa:ldelta_up_sshfa $(baseline ldelta_up_sshfa) \
      sshfa-delta:ldelta_up_always sshfa-whole-file:ldelta_up_whole rsync-a:ldelta_up_rsync
    after_step=
    ;;
  lat-delta-down-64m)
    make_lat_delta
    after_step=after_delta
    run_workload "$row" reset_lat_delta_down check_lat_delta_down sshfa:ldelta_down_sshfa \
      $(baseline ldelta_down_sshfa) sshfa-delta:ldelta_down_always sshfa-whole-file:ldelta_down_whole \
      rsync-a:ldelta_down_rsync
    after_step=
    ;;
  esac
}

# Trees of 100-byte files: 100,000 in 500 folders, 1,000,000 in 1,000. They
# live on disk ($SSHFA_BENCH_SCALE_DIR, default a folder of the build): on
# tmpfs every file takes a page of memory. Each step records its peak memory.
scale_dir=${SSHFA_BENCH_SCALE_DIR:-$root/$build_dir/scale}
make_scale() {  # files folders
  scale_files=$1
  scale_src=$scale_dir/src-$1
  scale_up=$scale_dir/up scale_down=$scale_dir/down
  [ -d "$scale_src" ] || $python - "$scale_src" "$1" "$2" <<'PY'
import os, sys
src, files, folders = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
data = b"x" * 100
for d in range(folders):
    path = os.path.join(src, "d%04d" % d)
    os.makedirs(path)
    for f in range(files // folders):
        with open(os.path.join(path, "f%05d" % f), "wb") as out:
            out.write(data)
PY
  # The remote source of get: the tree as put leaves it.
  [ -d "$scale_dir/remote/tree" ] && [ "$(cat "$scale_dir/remote/files" 2>/dev/null)" = "$1" ] || {
    rm -rf "$scale_dir/remote" && mkdir -p "$scale_dir/remote" && cp -a "$scale_src" "$scale_dir/remote/tree" &&
      echo "$1" >"$scale_dir/remote/files"
  }
}
# The block device under the trees, whose counters say when it is at rest.
scale_disk_stat() {
  local source
  source=$(df --output=source "$scale_dir" 2>/dev/null | tail -n 1)
  [ -r "/sys/class/block/${source##*/}/stat" ] && echo "/sys/class/block/${source##*/}/stat"
}
# Waits (up to 2 minutes) until the disk has taken no request for 3 s: a
# step that starts while the disk still writes back the last one's files
# measured up to 3x slower.
settle_disk() {
  local stat=$1 previous= now quiet=0
  [ -n "$stat" ] || return 0
  for _ in $(seq 240); do
    now=$(awk '{print $1, $5, $12}' "$stat")
    if [ "$now" = "$previous" ]; then
      quiet=$((quiet + 1))
      [ "$quiet" -lt 6 ] || return 0
    else
      quiet=0
    fi
    previous=$now
    sleep 0.5
  done
}
scale_cold=${SSHFA_BENCH_SCALE_COLD:-}
if [ -n "$scale_cold" ] && [ "$(id -u)" -ne 0 ]; then
  echo "bench.sh: SSHFA_BENCH_SCALE_COLD needs root (it drops the kernel's caches)" >&2
  exit 1
fi
prepare_scale() {  # tool: a put starts into nothing, a no-op finds the put's copy, a get starts into nothing
  # Earlier copies are moved aside, and removed after the rounds: removing
  # 200,000 files kept the disk busy (discarding their blocks) well into
  # the next step, whoever's it was.
  mkdir -p "$scale_dir/old"
  case $1 in
  *-put) mv "$scale_up" "$(mktemp -u -p "$scale_dir/old")" 2>/dev/null || true; mkdir -p "$scale_up" ;;
  *-get) mv "$scale_down" "$(mktemp -u -p "$scale_dir/old")" 2>/dev/null || true; mkdir -p "$scale_down" ;;
  esac
  # What the last step wrote reaches the disk now, not during the next.
  sync
  settle_disk "$(scale_disk_stat)"
  [ -z "$scale_cold" ] || echo 3 >/proc/sys/vm/drop_caches
}
check_scale() {  # every file where the step just taken put it
  local into=$scale_up
  [[ $step_tool != *-get ]] || into=$scale_down
  [ "$(find "$into" -type f 2>/dev/null | wc -l)" -eq "$scale_files" ]
}
memory() {  # command...: runs it, noting its peak memory
  /usr/bin/time -o "$work/memory" -f %M "$@"
  note memory "$(($(tail -n 1 "$work/memory") * 1024))"
}
scale_sshfa_put() { memory "${sshfa_cmd[@]}" put "$scale_src" "$scale_up/"; }
scale_sshfa_noop() { memory "${sshfa_cmd[@]}" put "$scale_src" "$scale_up/"; }
scale_sshfa_get() { memory "${sshfa_cmd[@]}" get "$scale_dir/remote/tree" "$scale_down/"; }
scale_rsync_put() { memory rsync -a -e "$rsync_e" "$scale_src" "bench:$scale_up/"; }
scale_rsync_noop() { memory rsync -a -e "$rsync_e" "$scale_src" "bench:$scale_up/"; }
scale_rsync_get() { memory rsync -a -e "$rsync_e" "bench:$scale_dir/remote/tree" "$scale_down/"; }
scale_tar_put() {
  memory bash -c 'set -o pipefail; tar -C "$1" -cf - "$2" | ssh -F "$3" -o ControlPath=none bench "tar -C $4 -xf -"' _ \
    "$scale_dir" "$(basename "$scale_src")" "$work/ssh_config" "$(printf %q "$scale_up")"
}
scale_tar_get() {
  memory bash -c 'set -o pipefail; ssh -F "$1" -o ControlPath=none bench "tar -C $2 -cf - tree" | tar -C "$3" -xf -' _ \
    "$work/ssh_config" "$(printf %q "$scale_dir/remote")" "$scale_down"
}
scale_steps=(sshfa-put:scale_sshfa_put sshfa-noop:scale_sshfa_noop sshfa-get:scale_sshfa_get
  rsync-put:scale_rsync_put rsync-noop:scale_rsync_noop rsync-get:scale_rsync_get
  tar-put:scale_tar_put tar-get:scale_tar_get)

# ---- run ---------------------------------------------------------------------
for w in $workloads; do
  case $w in
  upload-1g)
    make_big
    run_workload "$w" reset_big_up check_big_up sshfa:up_sshfa $(baseline up_sshfa) sftp:up_sftp scp:up_scp rsync:up_rsync \
      cat-over-ssh:up_cat paramiko:up_paramiko asyncssh:up_asyncssh
    ;;
  download-1g)
    make_big
    run_workload "$w" reset_big_down check_big_down sshfa:down_sshfa $(baseline down_sshfa) sftp:down_sftp scp:down_scp \
      rsync:down_rsync cat-over-ssh:down_cat paramiko:down_paramiko asyncssh:down_asyncssh
    ;;
  upload-10k)
    make_tree
    run_workload "$w" reset_tree_up check_tree_up sshfa:tup_sshfa $(baseline tup_sshfa) scp-r:tup_scp sftp-r:tup_sftp \
      rsync-a:tup_rsync tar-pipe:tup_tar paramiko:tup_paramiko asyncssh:tup_asyncssh
    ;;
  download-10k)
    make_tree
    run_workload "$w" reset_tree_down check_tree_down sshfa:tdown_sshfa $(baseline tdown_sshfa) scp-r:tdown_scp sftp-r:tdown_sftp \
      rsync-a:tdown_rsync tar-pipe:tdown_tar paramiko:tdown_paramiko asyncssh:tdown_asyncssh
    ;;
  small-1)
    make_small 1
    run_workload "$w" reset_small check_small "${small_tools[@]}"
    ;;
  small-300)
    make_small 300
    run_workload "$w" reset_small check_small "${small_tools[@]}"
    ;;
  stat-10k)
    make_tree
    make_lists
    run_workload "$w" nothing check_stat sshfa:stat_sshfa paramiko:stat_paramiko asyncssh:stat_asyncssh \
      ssh-stat:stat_ssh
    ;;
  exists-1000)
    make_tree
    make_lists
    run_workload "$w" nothing check_exists sshfa:exists_sshfa paramiko:exists_paramiko asyncssh:exists_asyncssh \
      ssh-controlmaster:exists_ssh
    ;;
  sftp-exists-1000)
    make_tree
    make_lists
    run_workload "$w" nothing check_exists sshfa:sftp_exists_sshfa sshfa-shell:sftp_exists_shell \
      paramiko:sftp_exists_paramiko asyncssh:sftp_exists_asyncssh
    ;;
  sftp-stat-1000)
    make_tree
    make_lists
    run_workload "$w" nothing check_stat_1000 sshfa:sftp_stat_sshfa sshfa-shell:sftp_stat_shell \
      paramiko:sftp_stat_paramiko asyncssh:sftp_stat_asyncssh
    ;;
  list-100k)
    make_wide
    run_workload "$w" nothing check_walk sshfa:walk_sshfa paramiko:walk_paramiko asyncssh:walk_asyncssh \
      ssh-find:walk_ssh
    ;;
  connect)
    run_workload "$w" nothing nothing sshfa:connect_sshfa sshfa-first-command:connect_sshfa_first \
      ssh-true:connect_ssh paramiko:connect_paramiko asyncssh:connect_asyncssh
    ;;
  noop-10k)
    make_sync_trees
    after_step=after_sync
    run_workload "$w" prepare_noop check_noop $(sync_steps noop) $(baseline noop_sshfa) sshfa-filtered:noop_sshfa_filtered \
      sshfa-empty-folder:noop_sshfa_empty \
      ssh-true:noop_ssh_true
    check_noop || { echo "bench.sh: $w: the destination changed during the counted rounds" >&2; exit 1; }
    after_step=
    ;;
  changed-10k)
    make_sync_trees
    after_step=after_sync
    run_workload "$w" prepare_changed check_changed $(sync_steps changed)
    after_step=
    ;;
  scale-100k | scale-200k | scale-1m)
    case $w in
    scale-100k) make_scale 100000 500 ;;
    scale-200k) make_scale 200000 1000 ;;
    *) make_scale 1000000 1000 ;;
    esac
    counted=$runs runs=$scale_runs
    run_workload "$w${scale_cold:+-cold}" prepare_scale check_scale "${scale_steps[@]}"
    runs=$counted
    rm -rf "$scale_up" "$scale_down" "$scale_dir/old"
    ;;
  resume-1g)
    make_big
    after_step=after_resume
    run_workload "$w" prepare_resume check_resume sshfa:resume_sshfa sshfa-no-resume:resume_sshfa_over \
      rsync-partial:resume_rsync_partial rsync-append-verify:resume_rsync_append
    after_step=
    ;;
  esac
done
for link in ${latency_rows:+$links}; do
  start_link "$link"
  for w in $latency_rows; do run_latency_row "$w"; done
  stop_link
done

# ---- report ------------------------------------------------------------------
for tool in "${!ciphers[@]}"; do printf '%s\t%s\n' "$tool" "${ciphers[$tool]}"; done >"$work/ciphers.tsv"
{
  echo "cpu	$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)"
  echo "cores	$(nproc)"
  echo "memory	$(free -g | awk '/^Mem:/ {print $2 " GiB"}')"
  echo "kernel	$(uname -r)"
  echo "system	$(. /etc/os-release && echo "$PRETTY_NAME")"
  echo "compiler	$(c++ --version | head -n 1)"
  echo "openssh	$(ssh -V 2>&1)"
  echo "libssh	$(dpkg-query -W -f '${Version}' libssh-dev 2>/dev/null)"
  echo "rsync	$(rsync --version | head -n 1)"
  ! command -v rclone >/dev/null || echo "rclone	$(rclone version | head -n 1)"
  echo "paramiko	$($python -c 'import paramiko; print(paramiko.__version__)')"
  echo "asyncssh	$($python -W ignore -c 'import asyncssh; print(asyncssh.__version__)')"
  echo "python	$($python --version 2>&1)"
  echo "runs	$runs"
  echo "sshfa	$sshfa_commit"
} >"$work/machine.tsv"
mkdir -p "$out_dir"
stem=$(date +%F)${name:+-$name}
for n in '' $(seq 2 99); do
  [ -e "$out_dir/$stem${n:+-$n}.md" ] || [ -e "$out_dir/$stem${n:+-$n}-timings.tsv" ] || { stem=$stem${n:+-$n}; break; }
done
cp "$results" "$out_dir/$stem-timings.tsv"
[ ! -s "$values" ] || cp "$values" "$out_dir/$stem-values.tsv"
$python bench/report.py "$results" "$work/machine.tsv" "$work/ciphers.tsv" "$out_dir" "$stem" "$values"
