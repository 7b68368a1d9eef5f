#!/usr/bin/env bash
# Measures the daemon side by side with the supervisors people use instead
# (runit, s6, supervisord, installed here when missing) and at scale, and
# writes the tables to docs/performance.md. Takes about half an hour on two
# cores; run it as root (the process-events connector that times every exec
# needs CAP_NET_ADMIN) on an otherwise idle machine.
#
#   scripts/bench.sh [--runs N] [--quick]
set -euo pipefail
cd "$(dirname "$0")/.."

SETUP_EXTRA_PACKAGES="python3 procps" scripts/setup.sh build
missing=()
for p in runit s6 supervisor; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "bench: installing ${missing[*]}"
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    # Without recommends: nothing is started as a system service.
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null || echo "bench: could not install ${missing[*]}; those peers are skipped"
fi
exec python3 bench/bench.py build docs/performance.md "$@"
