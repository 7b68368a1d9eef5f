#!/usr/bin/env bash
# Runs the daemon's main job on the built-in example: the stand-in store and
# tovrin-sandbox on examples/tovrin.conf in a private root, shows what the
# daemon does, then stops cleanly (losing the store link ends the daemon,
# which removes its pid file).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build

repo=$(pwd)
root=$(mktemp -d /tmp/tovrin-example.XXXXXX)
store_pid=""
daemon_pid=""
cleanup() {
    [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null || true
    [ -n "$store_pid" ] && kill "$store_pid" 2>/dev/null || true
    wait 2>/dev/null || true
    rm -rf "$root"
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
stordctl="$repo/build/tools/stord/stordctl"
socket="$root/var/run/stord.sock"

echo "== root: $root"
"$stord" "$socket" --journal "$root/stord.journal" > "$root/stord.out" 2>&1 &
store_pid=$!
for _ in $(seq 100); do [ -S "$socket" ] && break; sleep 0.05; done

"$repo/build/src/tovrin-sandbox" "$root" 2> "$root/daemon.stderr" &
daemon_pid=$!
for _ in $(seq 100); do [ -s "$root/var/run/tovrin.pid" ] && break; sleep 0.05; done
echo "== tovrin-sandbox running as pid $(cat "$root/var/run/tovrin.pid")"

# Give the conns a few seconds to come up, then look around.
sleep 4
kill -USR1 "$daemon_pid"
kill -USR2 "$daemon_pid"
sleep 1

echo "== what the daemon logged"
cat "$root/var/log/tovrin.log"
echo "== status keys in the store"
"$stordctl" "$socket" dump || true
for f in tmp/tovrin.conf tmp/tovrin.dot; do
    if [ -s "$root/$f" ]; then
        echo "== $f"
        cat "$root/$f"
    fi
done

echo "== stopping: the store goes away, the daemon ends with status 1"
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
echo "pid file removed"
if [ -s "$root/daemon.stderr" ]; then
    echo "== daemon standard error"
    cat "$root/daemon.stderr"
fi
