#!/usr/bin/env bash
# Measures the daemon side by side with the supervisors people use instead
# (runit, s6, supervisord, installed here when missing), at scale, and the
# simulator's speed, and writes the tables to docs/performance.md. Takes
# about an hour on two
# cores; run it as root (the process-events connector that times every exec
# needs CAP_NET_ADMIN, and the pipes of 10,000 commands need a hard
# descriptor limit above 20,000, or CAP_SYS_RESOURCE to raise it) on an
# otherwise idle machine.
#
#   scripts/bench.sh [--runs N] [--quick]
set -euo pipefail
cd "$(dirname "$0")/.."

SETUP_EXTRA_PACKAGES="python3 procps util-linux" scripts/setup.sh build
# Without recommends, so that nothing is started as a system service.
scripts/install-packages.sh --no-install-recommends runit s6 supervisor ||
    echo "bench: could not install every peer; those missing are skipped"
python3 bench/bench.py build docs/performance.md "$@"
# The simulator's hour, appended as a section of its own; it needs neither
# root nor peers.
exec python3 bench/sim_bench.py build --append docs/performance.md
