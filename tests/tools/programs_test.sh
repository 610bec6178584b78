#!/usr/bin/env bash
# Whole programs against virtual dongles: programs_test.sh VELMORA VELMORA_DONGLE EXAMPLE_HOST ACCOUNT_CHECK READ_RECORDING
# Groups of cases run side by side, each in a folder and on a dongle of its own. With KILLS=N in the environment N
# recordings are killed, at random moments, each of which may cost the last second.
set -uo pipefail
velmora=$1 velmora_dongle=$2 example_host=$3 account_check=$4 read_recording=$5

top=$(mktemp -d)
trap 'rm -rf "$top"' EXIT

dongle=
unplug() {
    [ -z "$dongle" ] || { kill -INT "$dongle"; wait "$dongle"; } 2>/dev/null
    dongle=
}
plug() {
    unplug
    rm -f dongle.log  # or the line of the last dongle would tell that this one is ready
    "$velmora_dongle" --link "$port" --scan-duration 100 --connect-duration 50 "$@" >dongle.log 2>&1 &
    dongle=$!
    holds dongle.log 'ready on'
}

failures=0 running=()
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
        for _ in $(seq 400); do
            grep -qsF -- "$text" "$file" && continue 2
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
# started COMMAND...: runs it in the background until headsets are connected and data can flow; then `program` is it
started() {
    "$@" >out 2>err </dev/null &
    program=$!
    holds err "packets, lost"
}
# ended SIGNAL CODE
ended() {
    local code=0
    kill "-$1" "$program"
    { wait "$program"; } 2>/dev/null || code=$?
    [ "$code" -eq "$2" ] && return
    echo "exit code $code instead of $2 after the signal $1"; cat out err
    failures=$((failures + 1))
}
# whole FILE CHANNELS [LATEST]: every packet of the dongle's account is in the recording, which EDFlib opens; those of
# the last seconds may have come when it had ended
whole() {
    local address=${1#*-}
    [ -z "$dongle" ] || unplug # the account is complete then
    expect 0 "$account_check" "$1" account "${address%.edf}" "$2" "${3:-3}"
}

# What cannot be used ends with 2, and what cannot be written with 6, before any port is opened.
group_usage() {
    for wrong in "" "stream --seconds soon" "stream --all XAI-01" "stream --no-scan 1" "stream XAI-01 --no-scan 1" \
        "send XAI-01" "send --index 16 -c 1" "send --index 1 --all -c 1" "send -c 1 --payload 0102030405" \
        "scan --port=" "record" "record --output=" "record -o -" "record -o folder/" "record -o a --mark b" \
        "record -o a --rate 0.1" "record -o a --unit too_long_a_unit" "plot a.edf --output=" "view --clients 0" \
        "view --port-http 65536" "record -o a --clients 2"; do
        # shellcheck disable=SC2086
        expect 2 "$velmora" $wrong
    done
    expect 0 "$velmora" --help
    holds out "Exit codes:" "velmora doctor"
    touch file
    for name in /proc/take none/take file/take /proc/self/take.csv; do
        expect 6 "$velmora" record --port "$port" -o "$name"
        holds err "cannot be made"
    done
    expect 3 "$velmora" record --port "$port" -o take
    holds err "there is no port $port"
    expect 3 "$velmora" scan --port "$PWD/file"
    expect 1 "$velmora" plot none.edf -o none.svg
}

group_stream() {
    plug --headsets 3 --rate 1000 --channels 4 --lose-every 20
    expect 0 "$velmora" scan --port "$port"
    holds out "A1B2C3D4E503       1  XAI-03"
    expect 0 "$velmora" scan --port "$port" --json --quiet
    holds out '{"address": "A1B2C3D4E502", "name": "XAI-02", "option": 1}'

    # Several headsets, and losses told by number and share; several that nobody chose from are not connected.
    expect 2 "$velmora" stream --port "$port" --seconds 1
    holds err "give --all" "XAI-03 (A1B2C3D4E503)"
    expect 1 "$velmora" stream --port "$port" XAI-09
    expect 0 "$velmora" stream --port "$port" --all --seconds 4
    holds out "XAI-01 (A1B2C3D4E501): " "XAI-03 (A1B2C3D4E503): " " packets, 4 x " " %)"
    holds dongle.log "host: AT+DISCONN"
    expect 8 "$velmora" stream --port "$port" XAI-02 a1:b2:c3:d4:e5:03 --seconds 2 --json --quiet --max-loss 1
    holds out '"address": "A1B2C3D4E502"' '"address": "A1B2C3D4E503"' '"lost_percent": '
    lacks out A1B2C3D4E501
    expect 4 "$velmora" stream --port "$port" --no-scan 0 0123456789AB --seconds 1
    holds err "Not connected: 0123456789AB"
    expect 6 sh -c '"$1" scan --port "$2" >/dev/full' sh "$velmora" "$port"

    # A port has one user.
    started "$velmora" stream --port "$port" --all
    expect 3 "$velmora" scan --port "$port"
    ended INT 0
}

# A command shows its answer; only what send has connected is dropped.
group_send() {
    plug --headsets 3 --rate 1000
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
}

# Headsets that a killed run left are told, dropped when asked for, and no hindrance for the next run.
group_killed() {
    plug --headsets 3 --rate 1000 --channels 4
    started "$velmora" stream --port "$port" --all
    ended KILL 137
    expect 1 "$velmora" scan --port "$port"
    holds err "velmora reset --port $port"
    expect 1 "$velmora" doctor --port "$port"
    holds out "MEND  headsets" "velmora reset --port $port"
    expect 0 "$velmora" reset --port "$port"
    expect 0 "$velmora" scan --port "$port"
    started "$velmora" stream --port "$port" --all
    ended KILL 137
    expect 0 "$velmora" stream --port "$port" --all --seconds 1
}

group_others() {
    plug
    # A machine so busy that the end of a scan is read together with its lines has them missed; another scan finds them.
    for _ in 1 2 3 4; do
        timeout 90 "$example_host" "$port" >out 2>err </dev/null && grep -q connecting out && break
    done
    holds out "connecting XAI-01 (A1B2C3D4E501)"
    # What the doctor finds of a healthy dongle, at a rate of which the system keeps seconds.
    plug --rate 250
    expect 0 "$velmora" doctor --port "$port" --json
    holds out '"check": "data", "result": "ok"'
}

# A stream that ends for whatever reason ends the program with 5 and says what to do about that very reason.
group_ends() {
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
}

# Two headsets that lose packets: files, marks, the loss code, a picture; what is there is not overwritten unasked.
group_record() {
    plug --channels 4 --rate 500 --packing single --lose-every 10 --account account
    expect 8 sh -c 'for _ in 1 2 3; do sleep 1; echo b; done | "$@"' sh \
        "$velmora" record --port "$port" --all --rate 500 --seconds 5 -o take --mark b=blink
    holds err "marked at" "of --max-loss"
    holds out "take-A1B2C3D4E501.edf: XAI-01 (A1B2C3D4E501), " " %)"
    holds take.json '"finished": true' '"rate_source": "given"' '"file": "take-A1B2C3D4E502.edf"'
    whole take-A1B2C3D4E501.edf 4
    whole take-A1B2C3D4E502.edf 4
    expect 0 "$read_recording" take-A1B2C3D4E501.edf
    holds out "of them lost, mean" ": blink" ": BAD_lost ch"
    expect 6 "$velmora" record --port "$port" -o take
    holds err "take.json exists" --force
    expect 0 "$velmora" plot take-A1B2C3D4E502.edf -o take.svg
    holds take.svg ">blink<" "lost (paler" ">ch3<"
    expect 6 "$velmora" plot take-A1B2C3D4E502.edf -o take.svg
    expect 0 "$velmora" plot take-A1B2C3D4E502.edf -o take.svg --force
}

# A recording that is stopped for longer than headsets may be silent goes on; ended while it is behind, it takes in the rest.
group_stopped() {
    plug --headsets 1 --channels 4 --rate 500 --packing single --account account
    "$velmora" record --port "$port" --rate 500 --max-loss 100 -o take-A1B2C3D4E501 >out 2>err </dev/null &
    program=$!
    holds err "packets"
    for seconds in 4 5; do
        kill -CONT "$program"
        sleep 1
        kill -STOP "$program"
        sleep "$seconds"
    done
    kill -INT "$program"
    ended CONT 0
    whole take-A1B2C3D4E501.edf 4
}

# recorded SIGNAL CODE NAME FILE TEXT: a recording to NAME that the signal ends as soon as its FILE holds the text
recorded() {
    plug --headsets 1 --channels 4 --rate 500 --packing single --lose-every 10 --account account
    touch "$4"
    "$velmora" record --port "$port" --rate 500 -o "$3" --force --max-loss 100 >out 2>err </dev/null &
    program=$!
    holds "$4" "$5"
    sleep "${linger:-0}"
    ended "$1" "$2"
}
# Ctrl-C ends a recording in order, in either format; a killed one opens all the same.
group_interrupted() {
    recorded INT 0 table.csv table.csv 0.002000,1,
    holds out "table.csv: XAI-01 (A1B2C3D4E501), "
    holds table.csv "time,sample,ch0,ch1,ch2,ch3"
    holds table-events.csv "BAD_lost ch"
    recorded INT 0 take-A1B2C3D4E501 take-A1B2C3D4E501.edf EDF+C
    holds out "take-A1B2C3D4E501.edf: XAI-01 (A1B2C3D4E501), "
    whole take-A1B2C3D4E501.edf 4
    for _ in $(seq "${KILLS:-1}"); do
        rm -f killed*
        linger=${KILLS:+$((RANDOM % 9)).$((RANDOM % 10))}
        recorded KILL 137 killed-A1B2C3D4E501 killed-A1B2C3D4E501.edf EDF+C
        whole killed-A1B2C3D4E501.edf 4 "${KILLS:+1.1}"
    done
}

# A limit or a disk that is full ends a recording, and everything opens.
group_full() {
    plug --headsets 1 --channels 16 --rate 1000 --packing single --account account
    mkdir limited disk
    expect 6 sh -c 'ulimit -f 160; exec "$1" record --port "$2" --rate 1000 -o limited/take-A1B2C3D4E501' \
        sh "$velmora" "$port"
    holds err "greatest size" "ulimit -f"
    whole limited/take-A1B2C3D4E501.edf 16 99
    if mount -t tmpfs -o size=120k none disk 2>/dev/null; then
        plug --headsets 1 --channels 16 --rate 1000 --packing single --account account
        expect 6 "$velmora" record --port "$port" --rate 1000 -o disk/take-A1B2C3D4E501
        holds err "the disk is full"
        whole disk/take-A1B2C3D4E501.edf 16 99
        umount disk
    else
        echo "not tried: only root can make a small disk"
    fi
}

# With --keep-going streams and recordings outlast unpluggings and restarts.
keeps_going() {
    plug --channels 2 --rate 500 --packing single --account account "$@"
    expect 0 "$velmora" "$what" --port "$port" --all --seconds 8 --keep-going "${options[@]}"
    holds err "this goes on as soon as they are back" "connected again"
}
group_keep_going() {
    what=stream options=()
    keeps_going --replug-every 1500 --replug-away 300
}
record_through() {
    what=record options=(-o take --rate 500 --max-loss 100)
    keeps_going "$@"
    for file in take-*.edf; do
        whole "$file" 2
    done
    holds take-A1B2C3D4E501.edf BAD_gap "$event"
}
group_unplugged() {
    event="dongle unplugged" record_through --replug-every 2500 --replug-away 300
}
group_restarted() {
    event="dongle restarted" record_through --restart-every 2500
}

groups=$(compgen -A function group_)
for group in $groups; do
    # More at once, and a sanitizer's slow programs would keep each other from being heard in time.
    while [ "$(jobs -rp | wc -l)" -ge $((2 * $(nproc))) ]; do
        sleep 0.1
    done
    (
        mkdir "$top/$group"
        cd "$top/$group" || exit 1
        port=$PWD/port
        trap 'unplug; umount disk 2>/dev/null' EXIT
        "$group"
        exit "$((failures > 0))"
    ) >"$top/$group.log" 2>&1 &
    running+=("$group:$!")
done
code=0
for one in "${running[@]}"; do
    wait "${one#*:}" || { code=1; echo "FAILED: ${one%:*}"; }
    cat "$top/${one%:*}.log"
done
[ "$code" -eq 0 ] && echo "all as expected"
exit "$code"
