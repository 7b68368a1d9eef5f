#!/usr/bin/env bash
# Installs a build under /usr into a scratch DESTDIR and checks the tree an
# operator gets: every file in its place and nothing else, programs that run
# from there, and units that name them and that systemd accepts.
#
#   install_test.sh BUILD_DIR
set -euo pipefail
build=$1
dest=$(mktemp -d)
trap 'rm -rf "$dest"' EXIT
DESTDIR="$dest" cmake --install "$build" --prefix /usr > /dev/null

diff "$(dirname "$0")/golden/tree.txt" <(cd "$dest" && find . -type f | sed 's|^\./||' | LC_ALL=C sort) ||
    { echo "installed tree differs (< expected, > installed)"; exit 1; }
for program in usr/bin/storectl usr/bin/tovrin-sandbox usr/sbin/stord usr/sbin/tovrin \
    usr/sbin/tovrin-check usr/sbin/tovrin-sim usr/share/doc/tovrin/examples/bin/link; do
    [ -x "$dest/$program" ] || { echo "not executable: $program"; exit 1; }
done

units="$dest/usr/lib/systemd/system"
grep -qx "ExecStart=/usr/sbin/tovrin" "$units/tovrin.service"
grep -qx "ExecStart=/usr/sbin/stord" "$units/stord.service"
grep -qx "Requires=stord.service" "$units/tovrin.service"

# The installed checker runs from the tree and finds the shipped example clean.
"$dest/usr/sbin/tovrin-check" "$dest/usr/share/doc/tovrin/examples/tovrin.conf"
# The installed simulator runs the shipped example through a failover.
echo "at 20 test wan1 fails" > "$dest/what-if"
"$dest/usr/sbin/tovrin-sim" "$dest/what-if" "$dest/usr/share/doc/tovrin/examples/tovrin.conf" \
    > "$dest/timeline"
grep -q "set tovrin.uplinks.active-connection-name wan2" "$dest/timeline" ||
    { echo "the installed simulator did not fail the example over"; exit 1; }

# systemd's own check, where systemd is there. It looks for the programs and
# pages on this machine, so it gets a second install whose prefix is real;
# it only warns about unknown keys, so any word from it fails.
if command -v systemd-analyze > /dev/null; then
    cmake --install "$build" --prefix "$dest/real/usr" > /dev/null
    real="$dest/real/usr/lib/systemd/system"
    said=$(MANPATH="$dest/real/usr/share/man" systemd-analyze verify \
        "$real/stord.service" "$real/tovrin.service" 2>&1) || true
    if [ -n "$said" ]; then
        echo "$said"
        exit 1
    fi
fi
echo "install tree and units are as expected"
