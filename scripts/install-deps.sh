#!/usr/bin/env bash
# Installs the Debian packages orbmux needs to build, test and demo, and the npm packages of the
# JavaScript client tests (tests/js); only what is missing. dpkg-dev names the package's libraries
# (dpkg-shlibdeps) and systemd checks its unit (systemd-analyze).
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libssl-dev libmxml-dev libjson-c-dev uuid-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  python3 python3-pytest python3-boto3 awscli s3cmd rclone curl procps
  dpkg-dev systemd
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
# Any node and npm will do (Debian's are 18 and 9); a machine that has them from elsewhere keeps them.
command -v node >/dev/null || missing+=(nodejs)
command -v npm >/dev/null || missing+=(npm)

if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The SDK exactly as the lock names it; skipped while node_modules was installed from this very lock.
lock_sum=$(sha256sum tests/js/package-lock.json | cut -d' ' -f1)
stamp=tests/js/node_modules/.orbmux-lock-sha256
if [ "$(cat "$stamp" 2>/dev/null)" != "$lock_sum" ]; then
  echo "installing the npm packages of tests/js"
  (cd tests/js && npm ci --no-audit --no-fund --loglevel=error)
  echo "$lock_sum" > "$stamp"
fi
