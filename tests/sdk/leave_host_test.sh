#!/usr/bin/env bash
# A host in Python leaves during a full stream, twenty times: leave_host_test.sh PYTHON LIBRARY VELMORA_DONGLE
# Once in a thousand times a call meets the moment between the end of the interpreter and that of the process, and the
# interpreter answers it with a segmentation fault that no library can prevent: one of the twenty may be repeated for it.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
cd "$work" || exit 1
trap 'kill "$dongle" 2>/dev/null; wait "$dongle" 2>/dev/null; rm -rf "$work"' EXIT

"$3" --link "$work/port" --headsets 1 --fill 200000 --connect-duration 10 >dongle.log 2>&1 &
dongle=$!
for _ in $(seq 400); do
    grep -q 'ready on' dongle.log && break
    sleep 0.05
done
leave() {
    code=0
    timeout 60 "$1" "$here/leave_host.py" "$2" "$work/port" >out 2>&1 || code=$?
}
spare=1
for run in $(seq 20); do
    leave "$@"
    if [ "$code" -eq 139 ] && [ "$spare" -gt 0 ]; then
        spare=0
        leave "$@"
    fi
    if [ "$code" -ne 7 ]; then
        echo "run $run ended with $code"
        cat out
        exit 1
    fi
done
echo "twenty times as it should be"
