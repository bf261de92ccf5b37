#!/usr/bin/env bash
# Installs the Debian packages orbmux needs to build, test and demo; only what is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libssl-dev libmxml-dev libjson-c-dev uuid-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  python3 python3-pytest python3-boto3 awscli s3cmd rclone curl procps
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
