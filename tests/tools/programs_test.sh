#!/usr/bin/env bash
# Whole programs against the virtual dongle: programs_test.sh VELMORA VELMORA_DONGLE EXAMPLE_HOST
set -uo pipefail
velmora=$1 velmora_dongle=$2 example_host=$3

work=$(mktemp -d)
cd "$work" || exit 1
port=$work/port
dongle=
unplug() {
    [ -z "$dongle" ] || { kill "$dongle"; wait "$dongle"; } 2>/dev/null
    dongle=
}
trap 'unplug; rm -rf "$work"' EXIT

plug() {
    unplug
    rm -f dongle.log  # or the line of the last dongle would tell that this one is ready
    "$velmora_dongle" --link "$port" --scan-duration 100 --connect-duration 50 "$@" >dongle.log 2>&1 &
    dongle=$!
    for _ in $(seq 400); do
        grep -qs 'ready on' dongle.log && return
        sleep 0.05
    done
    echo "the dongle does not start:"; cat dongle.log; exit 1
}

failures=0
# expect CODE COMMAND...: runs it, with its output in the files out and err, and looks at its exit code
expect() {
    local wanted=$1 code=0
    shift
    timeout 90 "$@" >out 2>err </dev/null || code=$?
    [ "$code" -eq "$wanted" ] && return
    echo "exit code $code instead of $wanted: $*"; cat out err
    failures=$((failures + 1))
}
# holds FILE TEXT...: the file must hold each text, or get it soon
holds() {
    local file=$1 text
    shift
    for text; do
        for _ in $(seq 100); do
            grep -qF -- "$text" "$file" && continue 2
            sleep 0.05
        done
        echo "$file does not hold: $text"; cat "$file"
        failures=$((failures + 1))
    done
}
lacks() {
    grep -qF -- "$2" "$1" || return 0
    echo "$1 holds: $2"; cat "$1"
    failures=$((failures + 1))
}
# killed COMMAND...: kills it as soon as the dongle has been told to connect and data can flow
killed() {
    "$@" >out 2>err </dev/null &
    local program=$!
    holds err samples/s
    kill -9 "$program"
    wait "$program" 2>/dev/null
}

# What cannot be used ends with 2 before any port is opened.
for wrong in "" "stream --seconds soon" "stream --all XAI-01" "stream --no-scan 1" "stream XAI-01 --no-scan 1" \
    "send XAI-01" "send --index 16 -c 1" "send --index 1 --all -c 1" "send -c 1 --payload 0102030405" "scan --port="; do
    # shellcheck disable=SC2086
    expect 2 "$velmora" $wrong
done
expect 0 "$velmora" --help
holds out "Exit codes:" "velmora doctor"

expect 3 "$velmora" scan --port "$work/nothing"
holds err "there is no port $work/nothing"
touch file
expect 3 "$velmora" scan --port "$work/file"

plug --headsets 3 --rate 1000 --channels 4 --lose-every 20
expect 0 "$velmora" scan --port "$port"
holds out "A1B2C3D4E503       1  XAI-03"
expect 0 "$velmora" scan --port "$port" --json --quiet
holds out '{"address": "A1B2C3D4E502", "name": "XAI-02", "option": 1}'

# Several headsets, and losses told by number and share; several that nobody chose from are not connected.
expect 2 "$velmora" stream --port "$port" --seconds 1
holds err "give --all" "XAI-03 (A1B2C3D4E503)"
expect 1 "$velmora" stream --port "$port" XAI-09
expect 0 "$velmora" stream --port "$port" --all --seconds 3
holds out "XAI-01 (A1B2C3D4E501): 3." "XAI-03 (A1B2C3D4E503): 3." " %)"
holds err "A1B2C3D4E502  4 x "
holds dongle.log "host: AT+DISCONN"
expect 8 "$velmora" stream --port "$port" XAI-02 a1:b2:c3:d4:e5:03 --seconds 2 --json --quiet --max-loss 1
holds out '"address": "A1B2C3D4E502"' '"address": "A1B2C3D4E503"' '"lost_percent": '
lacks out A1B2C3D4E501
expect 4 "$velmora" stream --port "$port" --no-scan 0 0123456789AB --seconds 1
holds err "Not connected: 0123456789AB"

# A port has one user.
"$velmora" stream --port "$port" --all >/dev/null 2>streaming &
streaming=$!
holds streaming samples/s
expect 3 "$velmora" scan --port "$port"
kill -INT "$streaming"
wait "$streaming" || { echo "Ctrl-C ends stream with $?"; failures=$((failures + 1)); }

# A command shows its answer; only what send has connected is dropped.
expect 0 "$velmora" send --port "$port" XAI-02 --command 0x21 --payload "01 02 03" --keep
holds out "response of device 2: AA DD 21 01 02 03"
holds dongle.log "host: command 0x21 to device 2, payload 01 02 03"
expect 0 "$velmora" send --port "$port" --index 2 -c 0x22
expect 0 "$velmora" send --port "$port" --all -c 0x23
holds out "response of device 2: AA DD 23"
expect 1 "$velmora" send --port "$port" --index 5 -c 0x22 --timeout 0.2
expect 2 "$velmora" send --port "$port" --index 12 -c 0x22
holds err --shared
expect 0 "$velmora" reset --port "$port"
holds out "has no headsets"
expect 1 "$velmora" send --port "$port" --all -c 0x23 --timeout 0.2

# Headsets that a killed run left are told, dropped when asked for, and no hindrance for the next run.
killed "$velmora" stream --port "$port" --all
expect 1 "$velmora" scan --port "$port"
holds err "velmora reset --port $port"
expect 1 "$velmora" doctor --port "$port"
holds out "MEND  headsets" "velmora reset --port $port"
expect 0 "$velmora" reset --port "$port"
expect 0 "$velmora" scan --port "$port"
killed "$velmora" stream --port "$port" --all
expect 0 "$velmora" stream --port "$port" --all --seconds 1

# A machine so busy that the end of a scan is read together with its lines has them missed; another scan finds them.
for _ in 1 2 3 4; do
    timeout 90 "$example_host" "$port" >out 2>err </dev/null && grep -q connecting out && break
done
holds out "connecting XAI-01 (A1B2C3D4E501)"

# What the doctor finds of a healthy dongle, and of a port that only echoes silence.
plug --rate 1000
expect 0 "$velmora" doctor --port "$port" --json
holds out '"check": "data", "result": "ok"'

# A stream that ends for whatever reason ends the program with 5 and says what to do about that very reason.
while read -r fault advice; do
    # shellcheck disable=SC2086
    plug --rate 1000 $fault
    expect 5 "$velmora" stream --port "$port" --all
    holds err "$advice"
done <<'REASONS'
--restart-after=700 the dongle restarted
--hang-up-after=700 was unplugged
--silence-after=700 no data for 3 s
REASONS
plug --rate 1000 --headsets 1 --headset 1:disconnect-after=300
expect 5 "$velmora" stream --port "$port"
holds err "XAI-01 (A1B2C3D4E501) left" "charged and near"
lacks err "unplug"

# The same with --keep-going goes on.
plug --rate 1000 --replug-every 1500 --replug-away 300
expect 0 "$velmora" stream --port "$port" --all --seconds 6 --keep-going
holds err "is back"

plug
expect 6 sh -c '"$1" scan --port "$2" >/dev/full' sh "$velmora" "$port"

[ "$failures" -eq 0 ] && echo "all as expected"
exit "$((failures > 0))"
