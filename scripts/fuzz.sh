#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time
# (SECONDS each, 30 unless given) on top of its corpus in fuzz/corpus. New
# inputs go to a scratch copy; a crash, leak or sanitizer report fails the
# run and leaves the input in build-fuzz/artifacts, to be added to the
# corpus once fixed.
#
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}

SETUP_EXTRA_PACKAGES="clang libclang-rt-14-dev" \
    scripts/setup.sh build-fuzz -DTOVRIN_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo

mkdir -p build-fuzz/artifacts
for target in config tokenizer frames command notification; do
    scratch=build-fuzz/corpus/$target
    mkdir -p "$scratch"
    echo "== $target: $seconds s"
    # A frame may announce a 4 GiB body, which the reader allocates lazily:
    # the malloc limit sits above it, the resident limit does not.
    status=0
    build-fuzz/fuzz/${target}_fuzz -max_total_time="$seconds" -timeout=10 \
        -rss_limit_mb=2048 -malloc_limit_mb=8192 -print_final_stats=1 \
        -artifact_prefix="build-fuzz/artifacts/$target-" \
        "$scratch" "fuzz/corpus/$target" > "build-fuzz/$target.log" 2>&1 || status=$?
    grep -E "^(stat::number_of_executed_units|stat::peak_rss_mb|SUMMARY)" "build-fuzz/$target.log" || true
    if [ "$status" -ne 0 ]; then
        tail -n 40 "build-fuzz/$target.log"
        exit 1
    fi
done
