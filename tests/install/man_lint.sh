#!/usr/bin/env bash
# mandoc's lint on every manual page. The only message allowed is a
# reference to a page this machine does not have installed.
#
#   man_lint.sh MAN_DIR
set -euo pipefail
status=0
for page in "$1"/*.[1-8]; do
    messages=$(mandoc -T lint -W style "$page" 2>&1 |
        grep -v -e "STYLE: referenced manual not found" -e "mandoc.db" || true)
    if [ -n "$messages" ]; then
        echo "$messages"
        status=1
    fi
done
exit $status
