#!/usr/bin/env bash
# Runs the daemon's main job on the built-in example: the stand-in store and
# tovrin-sandbox on examples/tovrin.conf in a private root. Shows the conns
# coming up in dependency order (live status lines from storectl watch), a
# failing test restarting its conn, an operator restart, the uplinks failing
# over and forward again, a reload that restarts only the edited conn, the
# state dump and the graph, the same failover simulated by tovrin-sim (its
# timeline and picture), every conn as storectl status shows it, and a
# clean stop of everything the daemon started.
#
#   scripts/example.sh [--keep]    (--keep leaves the private root for reading)
set -euo pipefail
cd "$(dirname "$0")/.."
keep=no
case "${1:-}" in
    --keep) keep=yes ;;
    "") ;;
    *) echo "usage: scripts/example.sh [--keep]" >&2; exit 2 ;;
esac
scripts/setup.sh build

repo=$(pwd)
root=$(mktemp -d /tmp/tovrin-example.XXXXXX)
store_pid=""
daemon_pid=""
watch_pid=""
cleanup() {
    for pid in "$watch_pid" "$daemon_pid" "$store_pid"; do
        [ -n "$pid" ] && kill "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    if [ "$keep" = yes ]; then
        echo
        echo "== kept $root"
        echo "    log:        $root/var/log/tovrin.log"
        echo "    state dump: $root/tmp/tovrin.conf"
        echo "    graph:      $root/tmp/tovrin.dot, rendered as $root/tmp/tovrin.svg"
        echo "    store:      $root/stord.journal"
    else
        rm -rf "$root"
    fi
}
trap cleanup EXIT

# The example's commands live in a copy of examples/bin inside the root.
mkdir -p "$root/etc/config" "$root/proc" "$root/var/run" "$root/example"
cp -r examples/bin "$root/example/bin"
sed -i "s|@STATE_DIR@|$root/links|g" "$root/example/bin/link"
sed -e "s|@EXAMPLE_DIR@|$root/example|g" -e "s|@STATE_DIR@|$root/links|g" \
    examples/tovrin.conf > "$root/etc/config/tovrin.conf"
echo "4242.00 8000.00" > "$root/proc/uptime"

stord="$repo/build/tools/stord/stord"
storectl="$repo/build/tools/stord/storectl"
socket="$root/var/run/stord.sock"
ctl() { "$storectl" --socket "$socket" "$@"; }
wait_for() {  # KEY VALUE
    ctl wait "$1" "$2" 30000 || { echo "timed out waiting for $1 = $2" >&2; exit 1; }
}
# Waits until the store has recorded KEY set to VALUE since journal line FROM:
# passing states go by too fast to catch with a wait on the current value.
wait_passed() {  # FROM KEY VALUE
    for _ in $(seq 600); do
        tail -n +"$(($1 + 1))" "$root/stord.journal" | grep -q " set $2 [0-9] $3\$" && return 0
        sleep 0.05
    done
    echo "timed out waiting for $2 to pass through $3" >&2
    exit 1
}
mark() { wc -l < "$root/stord.journal"; }
step() { sleep 0.2; echo; echo "== $*"; }

echo "== root: $root"
echo "== tovrin-check finds nothing to say about the configuration"
"$repo/build/tools/tovrin-check" "$root/etc/config/tovrin.conf"
echo "    exit status 0"
"$stord" --socket "$socket" --journal "$root/stord.journal" > "$root/stord.out" 2>&1 &
store_pid=$!
for _ in $(seq 100); do [ -S "$socket" ] && break; sleep 0.05; done

ctl watch 'tovrin.*.status' | sed -u 's/^/    status: /' &
watch_pid=$!
sleep 0.2

step "starting tovrin-sandbox: conns come up parents first"
"$repo/build/src/tovrin-sandbox" "$root" 2> "$root/daemon.stderr" &
daemon_pid=$!
wait_for tovrin.monitor.status up

step "the vpn's link goes away: its test fails and the vpn is restarted"
from=$(mark)
rm -f "$root/links/vpn"
wait_passed "$from" tovrin.vpn.status down
wait_for tovrin.monitor.status up

step "an operator restarts the monitor: storectl cmd monitor,cli,restart"
from=$(mark)
ctl cmd monitor,cli,restart
wait_passed "$from" tovrin.monitor.status down
wait_for tovrin.monitor.status up

step "wan1's link goes away: the uplinks fail over to wan2, the vpn follows"
rm -f "$root/links/wan1"
wait_for tovrin.uplinks.active-connection-name wan2
wait_for tovrin.monitor.status up
echo "    active uplink: $(ctl get tovrin.uplinks.active-connection-name)"

step "wan1 is healthy again: after failforwardperiod (8 s) the uplinks fail forward"
wait_for tovrin.uplinks.active-connection-name wan1
wait_for tovrin.monitor.status up
echo "    active uplink: $(ctl get tovrin.uplinks.active-connection-name)"

step "the monitor's test period is edited and the daemon gets SIGHUP: only the monitor restarts"
from=$(mark)
sed -i '/^conn monitor/,$ s/testperiod 10/testperiod 9/' "$root/etc/config/tovrin.conf"
kill -HUP "$daemon_pid"
wait_passed "$from" tovrin.monitor.status down
wait_for tovrin.monitor.status up
if tail -n +"$((from + 1))" "$root/stord.journal" | grep -q " set tovrin.vpn.status "; then
    echo "the vpn was touched by the reload" >&2
    exit 1
fi
echo "    the vpn and the uplinks kept running untouched"

step "SIGUSR1 writes the state dump, SIGUSR2 the graph (rendered with dot)"
rm -f "$root/tmp/tovrin.conf" "$root/tmp/tovrin.dot"
kill -USR1 "$daemon_pid"
kill -USR2 "$daemon_pid"
for _ in $(seq 200); do
    grep -q "^# No new conns pending merge" "$root/tmp/tovrin.conf" 2>/dev/null &&
        grep -q "^}" "$root/tmp/tovrin.dot" 2>/dev/null && break
    sleep 0.05
done
sed -n '/^orderedgroup uplinks/,/^$/p' "$root/tmp/tovrin.conf" | sed 's/^/    /'
dot -Tsvg "$root/tmp/tovrin.dot" -o "$root/tmp/tovrin.svg"
echo "    graph: $(grep -c -- '->' "$root/tmp/tovrin.dot") edges, rendered to $(wc -c < "$root/tmp/tovrin.svg") bytes of SVG"

# --- the simulator: the same failover on a virtual clock ------------------
step "tovrin-sim: wan1 failing on a virtual clock, from the same file, in milliseconds"
cat > "$root/tmp/cable.sim" <<'SCRIPT'
# wan1's link drops at 30 s and is back at 60 s
at 30 test wan1 fails
at 60 test wan1 passes
SCRIPT
"$repo/build/tools/tovrin-sim" --svg "$root/tmp/tovrin-sim.svg" "$root/tmp/cable.sim" \
    "$root/etc/config/tovrin.conf" > "$root/tmp/tovrin-sim.timeline"
grep -E " (inject |set tovrin.uplinks.active-connection-name |state vpn up$|end$)" \
    "$root/tmp/tovrin-sim.timeline" | sed 's/^/    /'
echo "    timeline: $(wc -l < "$root/tmp/tovrin-sim.timeline") lines in $root/tmp/tovrin-sim.timeline"
echo "    picture:  $root/tmp/tovrin-sim.svg, beside the graph $root/tmp/tovrin.svg"
# ---------------------------------------------------------------------------

step "what an operator sees: storectl status"
ctl status | sed 's/^/    /'

step "stopping everything: keepalive off, then the uplinks (children go first)"
ctl cmd tovrin,cli,stop_keepalive
for conn in uplinks wan1 wan2; do ctl cmd "$conn,cli,stop"; done
for conn in monitor vpn uplinks wan1 wan2; do wait_for "tovrin.$conn.status" down; done
sleep 0.2

echo
echo "== what the daemon logged"
cat "$root/var/log/tovrin.log"

echo
echo "== the store goes away; the daemon ends with status 1 and removes its pid file"
kill "$watch_pid" 2>/dev/null || true
kill -TERM "$store_pid"
wait "$store_pid" || true
store_pid=""
status=0
wait "$daemon_pid" || status=$?
daemon_pid=""
echo "daemon exit status: $status"
if [ -e "$root/var/run/tovrin.pid" ]; then
    echo "pid file still there" >&2
    exit 1
fi
echo "pid file removed; links left up: $(ls "$root/links" 2>/dev/null | wc -l)"
if [ -s "$root/daemon.stderr" ]; then
    echo "== daemon standard error"
    cat "$root/daemon.stderr"
fi
