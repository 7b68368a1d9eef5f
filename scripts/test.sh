#!/usr/bin/env bash
# Builds and runs the whole suite twice: once with warnings as errors, once
# under AddressSanitizer, UndefinedBehaviorSanitizer and LeakSanitizer, where
# any report fails the run. The sanitizer run adds the soak (a minute of
# flapping, reloads and commands). The normal build counts coverage, and the
# line and branch coverage of src/ is printed after its tests.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/sanitizer-options.sh

jobs=$(nproc)

echo "== normal build (warnings are errors, coverage counted)"
# Counts left by an earlier run would add up with this one's, and those of
# a changed program would be refused; the build itself runs the tests to
# list them.
[ ! -d build ] || find build -name '*.gcda' -delete
SETUP_EXTRA_PACKAGES=gcovr scripts/setup.sh build -DTOVRIN_WERROR=ON -DTOVRIN_COVERAGE=ON
find build -name '*.gcda' -delete
ctest --test-dir build --output-on-failure -j"$jobs" -LE soak
echo "== coverage of src/ by the tests above"
gcovr --root . --filter 'src/' -j"$jobs" --print-summary build

echo "== sanitizer build (address, undefined, leak)"
scripts/setup.sh build-asan -DTOVRIN_WERROR=ON -DTOVRIN_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
ctest --test-dir build-asan --output-on-failure -j"$jobs"
