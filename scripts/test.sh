#!/usr/bin/env bash
# Builds and runs the whole suite twice: once with warnings as errors, once
# under AddressSanitizer, UndefinedBehaviorSanitizer and LeakSanitizer, where
# any report fails the run. The sanitizer run adds the soak (a minute of
# flapping, reloads and commands).
set -euo pipefail
cd "$(dirname "$0")/.."

# A sanitizer report in the daemon or a tool started by a test changes its exit
# status to this value, which no test expects.
export ASAN_OPTIONS="detect_leaks=1:exitcode=86:abort_on_error=0:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:exitcode=86"
export LSAN_OPTIONS="exitcode=86"

jobs=$(nproc)

echo "== normal build (warnings are errors)"
scripts/setup.sh build -DTOVRIN_WERROR=ON
ctest --test-dir build --output-on-failure -j"$jobs" -LE soak

echo "== sanitizer build (address, undefined, leak)"
scripts/setup.sh build-asan -DTOVRIN_WERROR=ON -DTOVRIN_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
ctest --test-dir build-asan --output-on-failure -j"$jobs"
