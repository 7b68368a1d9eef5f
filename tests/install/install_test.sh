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
    usr/sbin/tovrin-check usr/share/doc/tovrin/examples/bin/link; do
    [ -x "$dest/$program" ] || { echo "not executable: $program"; exit 1; }
done

units="$dest/usr/lib/systemd/system"
grep -qx "ExecStart=/usr/sbin/tovrin" "$units/tovrin.service"
grep -qx "ExecStart=/usr/sbin/stord" "$units/stord.service"
grep -qx "Requires=stord.service" "$units/tovrin.service"

# The installed checker runs from the tree and exits as its manual says: 0
# on the shipped example, 1 on warnings, 2 on a refusal, 64 on a usage error.
checker_exits() {
    want=$1
    shift
    got=0
    "$dest/usr/sbin/tovrin-check" "$@" > /dev/null 2>&1 || got=$?
    [ "$got" = "$want" ] || { echo "tovrin-check $*: exit $got, not $want"; exit 1; }
}
printf 'conn a\n\tparent ghost\n' > "$dest/warns.conf"
printf 'conn\n' > "$dest/refused.conf"
checker_exits 0 "$dest/usr/share/doc/tovrin/examples/tovrin.conf"
checker_exits 1 "$dest/warns.conf"
checker_exits 2 "$dest/refused.conf"
checker_exits 64 --bogus

# systemd's own check; without it the test says it was skipped (77, as
# CTest is told). It looks for the programs and pages on this machine, so it
# gets a second install whose prefix is real; it only warns about unknown
# keys, so any word from it fails.
if ! command -v systemd-analyze > /dev/null; then
    echo "systemd-analyze is missing: the units are not verified"
    exit 77
fi
cmake --install "$build" --prefix "$dest/real/usr" > /dev/null
real="$dest/real/usr/lib/systemd/system"
said=$(MANPATH="$dest/real/usr/share/man" systemd-analyze verify \
    "$real/stord.service" "$real/tovrin.service" 2>&1) || true
if [ -n "$said" ]; then
    echo "$said"
    exit 1
fi
echo "install tree and units are as expected"
