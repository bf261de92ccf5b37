#!/usr/bin/env bash
# The whole test run: installs what is missing, builds release and sanitize, runs every test of both,
# then the event-loop and session cache tests under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh release
bash scripts/build.sh sanitize
bash scripts/build.sh tsan

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

echo "== release tests"
(cd build/release && ctest --output-on-failure -j2 --timeout 600)
echo "== sanitize tests (ASan + UBSan, debug pools)"
(cd build/sanitize && ctest --output-on-failure -j2 --timeout 600)
echo "== event-loop tests under ThreadSanitizer"
TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1} build/tsan/tests/unit_event --gtest_brief=1
echo "== shared TLS session cache under ThreadSanitizer"
TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1} build/tsan/tests/unit_tls --gtest_brief=1 \
    --gtest_filter='SessionCache.*'
