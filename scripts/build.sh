#!/usr/bin/env bash
# Builds one mode: release (g++) or sanitize (clang, ASan + UBSan, debug pools) into build/<mode>.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-release}
case "$mode" in
  release)  cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
              -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ >/dev/null ;;
  sanitize) cmake -S . -B build/sanitize -G Ninja -DCMAKE_BUILD_TYPE=Debug -DORBMUX_SANITIZE=ON \
              -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null ;;
  *) echo "usage: $0 release|sanitize" >&2; exit 2 ;;
esac
ninja -C "build/$mode" ${ORBMUX_JOBS:+-j "$ORBMUX_JOBS"}
