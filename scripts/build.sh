#!/usr/bin/env bash
# Builds one mode into build/<mode>: release (g++), sanitize (clang, ASan + UBSan, debug pools, and the
# libFuzzer targets, whose short runs are the fuzz.* tests), or tsan (clang, ThreadSanitizer; only the
# event-loop and TLS session cache tests: a worker forked from the threaded master cannot start threads
# under it, so the daemon itself is not run with it).
# Every mode treats warnings as errors (ORBMUX_WERROR); a plain cmake build leaves them warnings.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-release}
case "$mode" in
  release)  cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORBMUX_WERROR=ON \
              -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ >/dev/null ;;
  sanitize) cmake -S . -B build/sanitize -G Ninja -DCMAKE_BUILD_TYPE=Debug -DORBMUX_WERROR=ON \
              -DORBMUX_SANITIZE=ON -DORBMUX_FUZZ=ON \
              -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null ;;
  tsan)     cmake -S . -B build/tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DORBMUX_TSAN=ON -DORBMUX_WERROR=ON \
              -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
            ninja -C build/tsan ${ORBMUX_JOBS:+-j "$ORBMUX_JOBS"} unit_event unit_tls
            exit 0 ;;
  *) echo "usage: $0 release|sanitize|tsan" >&2; exit 2 ;;
esac
ninja -C "build/$mode" ${ORBMUX_JOBS:+-j "$ORBMUX_JOBS"}
