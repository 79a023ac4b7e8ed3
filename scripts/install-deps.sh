#!/usr/bin/env bash
# Installs every Debian package that the build, tests, tools and benchmarks need.
# Does nothing when all are present. Without root, prints the apt-get line to run.
set -euo pipefail

packages=(
  # toolchain
  build-essential cmake ninja-build pkg-config git clang-format clang-tidy
  # libraries
  libssh-dev libssl-dev libarchive-dev libboost-dev libboost-log-dev libboost-date-time-dev
  libboost-system-dev libboost-thread-dev libboost-filesystem-dev
  libfmt-dev libcli11-dev libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
  # test server and remote tools
  openssh-server openssh-client csh tar zip unzip findutils coreutils
  # the tool's manual page and completion scripts
  man-db bash zsh
  # benchmark peers and report
  rsync rclone python3 python3-paramiko python3-asyncssh gnuplot-nox
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "missing packages; run as root:" >&2
  echo "  apt-get update && apt-get install -y --no-install-recommends ${missing[*]}" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
