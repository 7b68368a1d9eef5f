#!/usr/bin/env bash
# Installs those of the named Debian packages that are missing, with
# apt-get through sudo when not run as root; quiet when nothing is missing.
# PACKAGE=VERSION asks for that version exactly (one installed at another
# version counts as missing). Options before the names go to apt-get install.
#
#   scripts/install-packages.sh [--apt-option...] PACKAGE[=VERSION]...
set -euo pipefail
options=()
while [ $# -gt 0 ] && [ "${1#-}" != "$1" ]; do
    options+=("$1")
    shift
done
missing=()
for p in "$@"; do
    want="install ok installed"
    [ "${p#*=}" = "$p" ] || want="$want ${p#*=}"
    [ "$(dpkg-query -W -f='${Status} ${Version}' "${p%%=*}" 2>/dev/null)" = "$want" ] ||
        [ "$(dpkg-query -W -f='${Status}' "${p%%=*}" 2>/dev/null)" = "$want" ] ||
        missing+=("$p")
done
[ ${#missing[@]} -gt 0 ] || exit 0
echo "setup: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${options[@]}" "${missing[@]}" >/dev/null
