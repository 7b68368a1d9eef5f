#!/usr/bin/env bash
# Installs what the build needs (only what is missing, plus any packages
# named in SETUP_EXTRA_PACKAGES), then configures and builds one tree. Quiet
# and idempotent when everything is already there.
#
#   scripts/setup.sh [BUILD_DIR [extra cmake arguments...]]
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(g++ cmake pkg-config libevent-dev liblog4c-dev libgtest-dev graphviz mandoc ${SETUP_EXTRA_PACKAGES:-})
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "setup: installing ${missing[*]}"
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi

build=${1:-build}
shift || true
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$build" -j"$(nproc)" -- --no-print-directory >/dev/null
