#!/usr/bin/env bash
# Whole programs against the virtual dongle: programs_test.sh VELMORA VELMORA_DONGLE EXAMPLE_HOST
set -uo pipefail
velmora=$1 velmora_dongle=$2 example_host=$3

work=$(mktemp -d)
cd "$work" || exit 1
dongle=
unplug() {
    [ -z "$dongle" ] || { kill "$dongle"; wait "$dongle"; } 2>/dev/null
    dongle=
}
trap 'unplug; rm -rf "$work"' EXIT

plug() {
    unplug
    "$velmora_dongle" --link "$work/port" "$@" >dongle.log 2>&1 &
    dongle=$!
    for _ in $(seq 400); do
        grep -q 'ready on' dongle.log && return
        sleep 0.05
    done
    echo "the dongle does not start:"; cat dongle.log; exit 1
}

failures=0
# expect CODE COMMAND...: runs it, with its output in the file out, and looks at its exit code
expect() {
    local wanted=$1 code=0
    shift
    timeout 90 "$@" >out 2>err || code=$?
    [ "$code" -eq "$wanted" ] && return
    echo "exit code $code instead of $wanted: $*"; cat out err; tail -n 5 kxsdk.log
    failures=$((failures + 1))
}
# holds FILE TEXT: the file must hold the text, or get it soon
holds() {
    for _ in $(seq 100); do
        grep -qF -- "$2" "$1" && return
        sleep 0.05
    done
    echo "$1 does not hold: $2"; cat "$1"
    failures=$((failures + 1))
}

expect 3 "$velmora" scan --port "$work/nothing"
expect 2 "$velmora" stream --seconds soon

plug --headsets 3 --rate 1000 --channels 4 --scan-duration 100
expect 0 "$velmora" scan --port "$work/port"
holds out A1B2C3D4E503
expect 0 "$velmora" stream --port "$work/port" --seconds 2 --csv samples.csv
holds samples.csv time,device,channel,sample,value
holds samples.csv ,1,3,111,
holds out "device 1:"
holds dongle.log "host: AT+DISCONN"
expect 4 "$velmora" stream --port "$work/port" --address 0123456789AB --seconds 1
expect 0 "$velmora" send --port "$work/port" --target 1 --command 0x21 --payload "01 02 03"
holds dongle.log "host: command 0x21 to device 1, payload 01 02 03"
expect 2 "$velmora" send --port "$work/port" --target 1 --command 0x21 --payload "01 02 03 04 05"
expect 0 "$example_host" "$work/port"
holds out "connecting XAI-01 (A1B2C3D4E501)"

# A stream that ends for whatever reason ends the program with a code of its own.
for fault in --restart-after --hang-up-after --silence-after; do
    plug --rate 1000 --scan-duration 100 $fault 700
    expect 5 "$velmora" stream --port "$work/port"
done

[ "$failures" -eq 0 ] && echo "all as expected"
exit "$((failures > 0))"
