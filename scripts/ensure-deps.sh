#!/usr/bin/env bash
# Installs the Debian packages the build needs when they are missing (as root),
# or says exactly what to install.
set -euo pipefail
packages=(cmake make g++ clang libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev libncurses-dev
          libclang-rt-14-dev clang-format pkg-config ccache nlohmann-json3-dev libtomlplusplus-dev
          libvterm-dev python3-pytest python3-setuptools python3-venv)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
if [ "$(id -u)" -eq 0 ]; then
  echo "Installing missing packages: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}" >/dev/null
else
  echo "Missing packages: ${missing[*]}" >&2
  echo "Install them with: sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi
