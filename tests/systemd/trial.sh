#!/usr/bin/env bash
# Tries the installed product under a real service manager: a minimal tree
# of this machine's Debian release made with debootstrap (cached between
# runs), the project installed into it with cmake --install and its units
# enabled, booted with systemd-nspawn, then checked from outside:
#
#   1. start order and readiness, also over store restarts
#   2. reload of a good file, of one with warnings only, and of a refused one
#   3. the store killed with SIGTERM and with SIGKILL: both come back, the
#      daemon with them, connected, its conns up; stopping the store stops
#      the daemon and starting it brings the daemon back
#   4. systemctl stop leaves no process and no pid file
#   5. storectl status after a stop, and after conns were removed
#   6. a stale pid file naming another live process, and a second instance
#   7. the security scores of both units
#
#   tests/systemd/trial.sh [BUILD_DIR]      (default: build)
#
# Exit status: 0 every check held, 1 a check failed, 77 the trial could not
# run on this machine (it says why, loudly). Wants root. The tree is kept in
# $TOVRIN_TRIAL_CACHE (default /var/cache/tovrin-trial).
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}
cache=${TOVRIN_TRIAL_CACHE:-/var/cache/tovrin-trial}
mirror=${TOVRIN_TRIAL_MIRROR:-http://deb.debian.org/debian}
hierarchies="/sys/fs/cgroup/systemd /sys/fs/cgroup/unified /sys/fs/cgroup"

bar=$(printf '#%.0s' {1..70})
not_run() { printf '\n%s\n## TRIAL NOT RUN: %s\n%s\n' "$bar" "$*" "$bar"; exit 77; }
# check DESCRIPTION COMMAND...: one line saying whether COMMAND succeeded;
# $checked says it too, for a caller who shows more on failure.
failures=0
check() {
    if "${@:2}"; then checked=ok; else checked=FAILED failures=$((failures + 1)); fi
    printf '%-7s %s\n' $checked "$1"
}
# eventually SECONDS COMMAND...: polls COMMAND until it succeeds.
eventually() {
    local deadline=$((SECONDS + $1))
    until "${@:2}" 2> /dev/null; do [ $SECONDS -lt $deadline ] || return 1; sleep 0.2; done
}
section() { printf '\n== %s\n' "$*"; }

[ "$(id -u)" -eq 0 ] || not_run "it needs root (it runs debootstrap and systemd-nspawn)"
. /etc/os-release
[ "${ID:-}" = debian ] && [ -n "${VERSION_CODENAME:-}" ] ||
    not_run "it needs a Debian host, whose release the container runs"
host_systemd=$(dpkg-query -W -f='${Version}' systemd 2> /dev/null) ||
    not_run "systemd is not installed on this machine"
# nspawn comes from the host's own systemd release, so both halves agree.
scripts/install-packages.sh debootstrap "systemd-container=$host_systemd" ||
    not_run "debootstrap and systemd-container=$host_systemd cannot be installed"
scripts/setup.sh "$build"

# The tree holds systemd and the libraries the programs are linked with.
packages=systemd,systemd-sysv
for library in $(ldd "$build/src/tovrin" "$build/tools/stord/stord" "$build/tools/stord/storectl" |
    awk '$2 == "=>" && $3 ~ /^\// { print $3 }' | sort -u); do
    owner=$(dpkg -S "$library" 2> /dev/null || dpkg -S "$(readlink -f "$library")" 2> /dev/null ||
        dpkg -S "/usr$library" 2> /dev/null) || not_run "no package owns $library"
    packages="$packages,${owner%%:*}"
done
packages=$(tr , '\n' <<< "$packages" | sort -u | paste -sd,)
base="$cache/$VERSION_CODENAME-$(sha1sum <<< "$packages" | cut -c1-12)"
mkdir -p "$cache" && exec 9> "$cache/lock" && flock 9
if [ ! -d "$base" ]; then
    echo "== debootstrap $VERSION_CODENAME with $packages into $base"
    rm -rf "$base.new"
    debootstrap --variant=minbase --include="$packages" "$VERSION_CODENAME" "$base.new" \
        "$mirror" > "$cache/debootstrap.log" 2>&1 ||
        { tail -5 "$cache/debootstrap.log"; not_run "debootstrap from $mirror failed"; }
    mv "$base.new" "$base"
fi
flock -u 9

work=$(mktemp -d /var/tmp/tovrin-trial.XXXXXX)
root="$work/root"
cgroup="tovrin-trial.$$"
nspawn_pid=""
cleanup() {
    # A second SIGTERM ends the container at once.
    if [ -n "$nspawn_pid" ] && kill -TERM "$nspawn_pid" 2> /dev/null; then
        { sleep 1; kill -TERM "$nspawn_pid"; wait "$nspawn_pid"; } 2> /dev/null || true
    fi
    for h in $hierarchies; do
        [ ! -d "$h/$cgroup" ] || find "$h/$cgroup" -depth -type d -exec rmdir {} + 2> /dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT
trap 'echo "trial: stopped by a failing command at line $LINENO"' ERR

echo "== installing into a copy of $base"
cp -a --reflink=auto "$base" "$root"
DESTDIR="$root" cmake --install "$build" --prefix /usr > /dev/null
config="$root/etc/config/tovrin.conf"
mkdir -p "$root/etc/config"
cp "$root/usr/share/doc/tovrin/examples/tovrin.conf" "$config"
cp "$config" "$work/tovrin.conf.orig"
systemctl --root="$root" --quiet enable stord.socket stord.service tovrin.service

# systemd-nspawn wants a cgroup of its own in every hierarchy it reads.
echo "== booting it with systemd-nspawn"
(
    for h in $hierarchies; do
        [ -f "$h/cgroup.procs" ] || continue
        mkdir -p "$h/$cgroup" && echo "$BASHPID" > "$h/$cgroup/cgroup.procs"
        # Under a pure cgroup2 hierarchy one is enough.
        [ "$h" != /sys/fs/cgroup ] || break
    done
    exec systemd-nspawn --quiet --boot --register=no --keep-unit --console=pipe -D "$root"
) < /dev/null > "$work/nspawn.log" 2>&1 &
nspawn_pid=$!
find_init() {
    for init_pid in $(cat /proc/"$nspawn_pid"/task/*/children 2> /dev/null); do
        [ "$(cat /proc/"$init_pid"/comm 2> /dev/null)" != systemd ] || return 0
    done
    return 1
}
eventually 60 find_init || { cat "$work/nspawn.log"; not_run "no systemd came up in the container"; }
ct() {
    nsenter -t "$init_pid" -a env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 \
        SYSTEMD_PAGER=cat SYSTEMD_COLORS=0 TZ=UTC "$@"
}
# Until its manager answers, then until the boot is done.
boot_done() {
    booted=$(timeout 120 nsenter -t "$init_pid" -a systemctl is-system-running --wait 2>&1) || :
    [ "$booted" = running ] || [ "$booted" = degraded ]
}
eventually 120 boot_done ||
    { cat "$work/nspawn.log"; not_run "the container did not boot (is-system-running: $booted)"; }
echo "== booted: $booted"

prop() { ct systemctl show -P "$2" "$1"; }
active() { [ "$(ct systemctl is-active "$1")" = active ]; }
# Whether storectl status shows the daemon connected and each conn named up.
up() {
    ct storectl status | awk -v names="$*" 'NR == 1 && $1 != "NAME" { gone = 1; exit }
        $2 == "up" && index(" " names " ", " " $1 " ") { n++ }
        END { exit gone || n != split(names, _) }'
}
# shellcheck disable=SC2120 # eventually passes it a name
conns_up() { up monitor vpn uplinks wan1 "$@"; }
# The command lines of the processes running in the container, one a line.
processes() { ct sh -c 'for f in /proc/[0-9]*/cmdline; do tr "\0" " " < "$f"; echo; done 2> /dev/null'; }
# Whether the daemon (not a command of the unit, such as the checker) logged
# TEXT since the time SINCE. A grep that finds a line reads on to the end: one
# that left early would fail the pipeline (pipefail) by the writer's SIGPIPE.
daemon_said() { ct journalctl --no-pager -q -t tovrin --since "@$1" | grep -F -- "$2" > /dev/null; }
main_changed() { active "$1" && [ "$(prop "$1" MainPID)" != "$2" ] && [ "$(prop "$1" MainPID)" != 0 ]; }
# Whether a daemon other than $daemon runs, connected, its conns up.
daemon_back() { main_changed tovrin.service "$daemon" && conns_up; }
no_restarts() { [ "$(prop tovrin.service NRestarts)" = 0 ]; }
# Whether the unit's status shows the checker's finding TEXT about the file.
finding_shown() { ct systemctl status -n 30 tovrin.service | grep "tovrin.conf:[0-9]*: $1" > /dev/null; }

section "1. start order and readiness"
for unit in stord.socket stord.service tovrin.service; do check "$unit is active" active $unit; done
socket_at=$(prop stord.socket ActiveEnterTimestampMonotonic)
store_at=$(prop stord.service ExecMainStartTimestampMonotonic)
daemon_at=$(prop tovrin.service ExecMainStartTimestampMonotonic)
check "the socket listens before the store starts, the store starts before the daemon" \
    test "$socket_at" -le "$store_at" -a "$store_at" -le "$daemon_at"
check "the daemon is connected and its conns come up" eventually 60 conns_up
check "the daemon started once" no_restarts
# Each round waits for the conns, which keeps the store's starts under its
# start limit (5 in 10 seconds).
for round in 1 2 3 4 5; do
    daemon=$(prop tovrin.service MainPID)
    ct systemctl restart stord.service
    check "systemctl restart stord, round $round: the daemon follows, connects, its conns up" \
        eventually 60 daemon_back
done
check "no store restart made the daemon restart on its own" no_restarts
check "the daemon never found the store socket missing" \
    eval '! daemon_said 0 "could not open stord socket"'

section "2. reload"
daemon=$(prop tovrin.service MainPID)
printf 'conn extra\n\ttest /bin/true\n' >> "$config"
check "a good file reloads" ct systemctl reload tovrin.service
check "  and its new conn comes up" eventually 60 up extra
printf 'conn odd\n\ttest no-such-program up\n' >> "$config"
check "a file with warnings only reloads" ct systemctl reload tovrin.service
check "  with the warning in the unit's status" \
    finding_shown "conn odd: test program no-such-program is not found on PATH"
since=$(ct date +%s)
printf '\tbogus 1\n' >> "$config"
check "a refused file fails the reload" eval '! ct systemctl reload tovrin.service 2> /dev/null'
check "  with the checker's finding in the unit's status" \
    finding_shown "Unknown clause: bogus in connection odd"
check "  and the daemon, never signalled, keeps running what it had" eval \
    '[ "$(prop tovrin.service MainPID)" = "$daemon" ] && active tovrin.service &&
     ! daemon_said "$since" "Failed To Load Config" && up extra'
head -n -3 "$config" > "$work/tovrin.conf" && cp "$work/tovrin.conf" "$config"
check "the file without them reloads again" ct systemctl reload tovrin.service

section "3. the store killed, stopped and started"
for signal in TERM KILL; do
    store=$(prop stord.service MainPID)
    daemon=$(prop tovrin.service MainPID)
    ct sh -c "kill -s $signal $store"
    check "SIG$signal: the store comes back" eventually 30 main_changed stord.service "$store"
    check "  and so does the daemon, connected, its conns up" eventually 60 daemon_back
    daemon=$(prop tovrin.service MainPID)
    check "  and it stays (no restart loop)" eval \
        'conns_up && [ "$(prop tovrin.service MainPID)" = "$daemon" ] && active tovrin.service'
done
ct systemctl stop stord.service
# systemctl waits for the store's own job; the socket's, pulled in by
# PartOf=, may still be running when it returns.
check "systemctl stop stord stops the daemon and the socket too" eventually 30 eval \
    '! active tovrin.service && ! active stord.service && ! active stord.socket'
ct systemctl start stord.service
check "systemctl start stord brings the daemon back, connected, its conns up" \
    eventually 60 eval 'active tovrin.service && conns_up'

section "4. stop"
check "the conns are up before the stop" eventually 60 conns_up extra
check "  the vpn's up command among them" eval 'processes | grep "^sleep 3600" > /dev/null'
[ $checked = ok ] || processes
ct systemctl stop tovrin.service
check "systemctl stop tovrin leaves no process of the unit" eval \
    '! processes | grep -Eq "^(/usr/sbin/tovrin|sleep 3600)"'
check "  and no pid file" ct test ! -e /run/tovrin.pid

section "5. storectl status after a stop"
# The store hears of the daemon's end when its connection closes, which
# may come after systemctl returns.
check "storectl status says the daemon is not connected" eventually 30 eval \
    'ct storectl status | grep -q "^tovrin is not connected to the store (gone since .*); the states below are its last words$"'
status=$(ct storectl status)
check "  and shows its conns' last words" grep -Eq "^extra +was up$" <<< "$status"
[ $checked = ok ] || echo "$status"
cp "$work/tovrin.conf.orig" "$config"
ct systemctl start tovrin.service
check "after a start without conn extra, storectl status leaves it out" \
    eventually 60 eval 'conns_up && ! ct storectl status | grep -q "^extra "'
check "  though the store still holds its key" eval \
    '[ "$(ct storectl get tovrin.extra.status)" = up ]'

section "6. a stale pid file and a second instance"
ct systemctl stop tovrin.service
ct systemd-run --quiet --unit=squatter sleep 600
ct sh -c "echo $(prop squatter.service MainPID) > /run/tovrin.pid"
since=$(ct date +%s)
ct systemctl start tovrin.service
check "a pid file naming another live process does not keep the daemon out" eventually 60 \
    eval 'conns_up && [ "$(ct cat /run/tovrin.pid)" = "$(prop tovrin.service MainPID)" ]'
check "  nor makes it restart" eval 'no_restarts && ! daemon_said "$since" "Another tovrin"'
daemon=$(prop tovrin.service MainPID)
# Bounded, should it not be refused.
second=$(timeout 30 nsenter -t "$init_pid" -a /usr/sbin/tovrin >&2; echo $?)
check "a second instance is refused with status 255 ($second)" test "$second" = 255
check "  saying why" eventually 10 daemon_said "$since" "Another tovrin instance is running, exiting..."
check "  and the running one keeps its pid file" test "$(ct cat /run/tovrin.pid)" = "$daemon"
ct systemctl stop squatter.service

section "7. security"
for limit in stord.service:2.0 tovrin.service:9.2; do
    unit=${limit%:*}
    score=$(ct systemd-analyze security "$unit" 2> /dev/null |
        sed -n "s/.*Overall exposure level for $unit: \([0-9.]*\) .*/\1/p")
    check "$unit exposure ${score:-unknown} is at most ${limit#*:}" \
        awk -v s="$score" -v l="${limit#*:}" 'BEGIN { exit !(s != "" && s + 0 <= l + 0) }'
done

section "shutting the container down"
# It cannot ask logind about inhibitors (no D-Bus in the tree) and says so.
ct systemctl poweroff --check-inhibitors=no 2> /dev/null || true
# Our child: gone, or a zombie waiting for us.
ended() { [ ! -e /proc/"$nspawn_pid" ] || grep -q '^[0-9]* (.*) Z' /proc/"$nspawn_pid"/stat; }
check "the container powered off cleanly" eval 'eventually 60 ended && wait "$nspawn_pid"'
[ $checked = FAILED ] || nspawn_pid=""
[ "$failures" -eq 0 ] || { echo "trial: $failures check(s) failed"; exit 1; }
echo "trial: every check held"
