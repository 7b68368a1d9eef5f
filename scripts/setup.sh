#!/usr/bin/env bash
# Installs what the build needs (only what is missing, plus any packages
# named in SETUP_EXTRA_PACKAGES), then configures and builds one tree. Quiet
# and idempotent when everything is already there.
#
#   scripts/setup.sh [BUILD_DIR [extra cmake arguments...]]
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck disable=SC2086
scripts/install-packages.sh g++ cmake pkg-config libevent-dev liblog4c-dev libgtest-dev graphviz \
    mandoc librsvg2-bin libxml2-utils ${SETUP_EXTRA_PACKAGES:-}

build=${1:-build}
shift || true
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$build" -j"$(nproc)" -- --no-print-directory >/dev/null
