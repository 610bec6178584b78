#!/usr/bin/env bash
# Processor time of `velmora` in per cent of one core, with 16 headsets of 8 channels that fill the line: `stream` without a
# file, `record`, `record --view` with one viewer that takes all, and `view` with one. Runs of each in turn, and the
# medians of what they take beyond `stream` in the same turn.
#   bench/record_cost.sh [SECONDS [BUILD_FOLDER [TURNS]]]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
seconds=${1:-20}
build=$(cd "${2:-$here/../build/linux}" && pwd)
turns=${3:-5}
work=$(mktemp -d)
trap 'kill "${dongle:-}" 2>/dev/null; rm -rf "$work"' EXIT
cd "$work"

"$build/dongle/velmora-dongle" --headsets 16 --channels 8 --packing single --fill 200000 --no-gaps \
    --scan-duration 100 --connect-duration 20 --link "$work/port" --quiet >dongle.log 2>&1 &
dongle=$!
until [ -e port ]; do sleep 0.05; done

# A viewer of the run whose words stand in the file err.
look_on() {
    local address=
    until address=$(grep -so 'http://.*' err) || [ -e done ]; do sleep 0.05; done
    [ -e done ] || /usr/bin/python3 "$here/../examples/view_client.py" "$address" >viewed 2>&1
}

# cost COMMAND...: its processor time in per cent of `seconds`
cost() {
    local TIMEFORMAT='%U %S'
    rm -f done err viewed
    if [[ " $* " == *view* ]]; then
        look_on &
    fi
    { time "$build/tools/cli/velmora" "$@" --port "$work/port" --all --quiet --seconds "$seconds" >out 2>err; } 2>times ||
        { touch done; cat out err >&2; exit 1; }
    touch done
    wait $! 2>/dev/null || true
    awk -v seconds="$seconds" '{ printf "%.2f", 100 * ($1 + $2) / seconds }' times
    [ ! -e viewed ] || echo "viewer: $(tail -n 1 viewed), left out of data $(grep -c 'too slow' viewed) times" >>views
}

for ((turn = 1; turn <= turns; turn++)); do
    stream=$(cost stream)
    # 200,000 bytes a second are about 711 samples a second of each channel.
    record=$(cost record -o "take$turn" --rate 711 --max-loss 100)
    both=$(cost record --view --no-browser -o "look$turn" --rate 711 --max-loss 100)
    view=$(cost view --no-browser)
    echo "turn $turn: stream $stream %, record $record %, record --view $both %, view $view %"
    echo "$stream $record $both $view" >>figures
done
cat views
for column in 2:record 3:'record --view' 4:view; do
    awk -v column="${column%%:*}" '{ print $column - $1 }' figures | sort -n |
        awk -v what="${column#*:}" '{ all[NR] = $1 } END { print what ": " all[int((NR + 1) / 2)] " % of one core more" }'
done
