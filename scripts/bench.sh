#!/usr/bin/env bash
# Sets up and builds the normal tree, then runs the scale benchmark with N
# conns (10,000 unless given). Exits 1 when a speed or memory target is missed.
#
#   scripts/bench.sh [N]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build
build/bench/tovrin_bench "${1:-10000}"
