#!/usr/bin/env bash
# Installs what is missing, builds the sshfa tool (Release) and runs its demo:
# a private sshd on 127.0.0.1 with throwaway keys, a tree of files with
# awkward names copied up, listed, archived and copied back, then everything
# removed again. Works as root and as an ordinary user.
#   BUILD_DIR  build folder (default: build-demo)
# Arguments go to "sshfa demo", e.g. scripts/demo.sh --files 2000
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${BUILD_DIR:-build-demo}

if [ "$(id -u)" -eq 0 ]; then
  scripts/install-deps.sh
else
  scripts/install-deps.sh || { echo "install the packages above, then run again" >&2; exit 1; }
fi

# Warnings are errors in the test build (scripts/test.sh), not in the demo.
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSSHFA_WERROR=OFF \
  -DSSHFA_BUILD_TOOLS=ON -DSSHFA_BUILD_TESTS=OFF -DSSHFA_BUILD_BENCHMARKS=OFF
cmake --build "$build_dir" --target sshfa -j "$(nproc)"

exec "$build_dir/tools/sshfa/sshfa" demo "$@"
