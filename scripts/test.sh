#!/usr/bin/env bash
# Installs what is missing, configures, builds and runs every test.
#   BUILD_DIR      build folder (default: build)
#   SSHFA_SANITIZE ON for an AddressSanitizer + UndefinedBehaviorSanitizer build
#   CTEST_ARGS     extra arguments for ctest
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${BUILD_DIR:-build}
sanitize=${SSHFA_SANITIZE:-OFF}
jobs=$(nproc)

if [ "$(id -u)" -eq 0 ]; then
  scripts/install-deps.sh
else
  scripts/install-deps.sh || { echo "install the packages above, then run again" >&2; exit 1; }
fi

cmake -S . -B "$build_dir" -G Ninja \
  -DCMAKE_BUILD_TYPE="${CMAKE_BUILD_TYPE:-RelWithDebInfo}" \
  -DSSHFA_SANITIZE="$sanitize" -DSSHFA_WERROR=ON \
  -DSSHFA_BUILD_TESTS=ON -DSSHFA_BUILD_TOOLS=ON -DSSHFA_BUILD_BENCHMARKS=ON
cmake --build "$build_dir" -j "$jobs"

# Test binaries share one sshd each; run two binaries at a time.
# shellcheck disable=SC2086
ctest --test-dir "$build_dir" --output-on-failure -j 2 ${CTEST_ARGS:-}
