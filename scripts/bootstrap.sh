#!/usr/bin/env bash
# Installs the Debian packages the build needs, and any named as arguments,
# when one is missing.
set -euo pipefail
packages=(cmake g++ make libgtest-dev libbenchmark-dev clang-14 libclang-rt-14-dev binutils zlib1g-dev valgrind "$@")
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    sudo_cmd=""
    [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
    $sudo_cmd apt-get update -q
    $sudo_cmd env DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${missing[@]}"
fi
