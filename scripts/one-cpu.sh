#!/usr/bin/env bash
# Runs the scenario and end-to-end tests of the sanitizer build (made by
# scripts/test.sh) again on one CPU that a busy loop keeps loaded, as a slow
# machine would run them; fails if any test fails there.
#
#   scripts/one-cpu.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/sanitizer-options.sh
build=${1:-build-asan}

taskset -c 0 sh -c 'while :; do :; done' &
busy=$!
trap 'kill "$busy"' EXIT
echo "== $build on CPU 0 beside a busy loop: scenarios and end-to-end tests"
status=0
taskset -c 0 ctest --test-dir "$build" --output-on-failure -R '^Files/Scenario\.' || status=1
taskset -c 0 ctest --test-dir "$build" --output-on-failure -L e2e || status=1
exit "$status"
