#!/bin/sh
# Packs one tree of about 1 GiB with the local backend's tar and with GNU tar,
# and prints both times. Usage: bench/local_tar_vs_gnu_tar.sh BUILD_DIR [TREE]
# Without TREE, a tree of 1024 files of 1 MiB in 32 folders is made in /tmp
# and removed afterwards.
set -eu
build=${1:?build directory holding bench/local_bench}
tree=${2:-}
made=""
if [ -z "$tree" ]; then
  tree=$(mktemp -d /tmp/sshfa-tar-tree-XXXXXX)
  made=$tree
  for f in $(seq 0 31); do
    mkdir "$tree/folder$f"
    for i in $(seq 0 31); do
      head -c 1048576 /dev/urandom >"$tree/folder$f/file$i.bin"
    done
  done
fi
archive=$(mktemp /tmp/sshfa-gnu-tar-XXXXXX.tar)
cleanup() { rm -f "$archive"; [ -n "$made" ] && rm -rf "$made"; }
trap cleanup EXIT
sync
echo "GNU tar:"
start=$(date +%s.%N)
tar -C "$(dirname "$tree")" -cf "$archive" "$(basename "$tree")"
end=$(date +%s.%N)
echo "  $(awk "BEGIN { print $end - $start }") s for $(stat -c %s "$archive") bytes"
echo "local backend tar:"
SSHFA_BENCH_TAR_TREE=$tree "$build/bench/local_bench" --benchmark_filter=localTar
