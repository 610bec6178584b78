#!/usr/bin/env bash
# A host in Python leaves during a full stream, twenty times: leave_host_test.sh PYTHON LIBRARY VELMORA_DONGLE
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
for run in $(seq 20); do
    code=0
    timeout 60 "$1" "$here/leave_host.py" "$2" "$work/port" >out 2>&1 || code=$?
    if [ "$code" -ne 7 ]; then
        echo "run $run ended with $code"
        cat out
        exit 1
    fi
done
echo "twenty times as it should be"
