#!/usr/bin/env bash
# Processor time of `velmora record` beyond that of `velmora stream`, in per cent of one core: 16 headsets of 8 channels
# that fill the line, the median of five pairs of runs, one after the other.
#   bench/record_cost.sh [SECONDS [BUILD_FOLDER]]
set -euo pipefail
seconds=${1:-20}
build=$(cd "${2:-$(dirname "$0")/../build/linux}" && pwd)
work=$(mktemp -d)
trap 'kill "${dongle:-}" 2>/dev/null; rm -rf "$work"' EXIT
cd "$work"

"$build/dongle/velmora-dongle" --headsets 16 --channels 8 --packing single --fill 200000 --no-gaps \
    --scan-duration 100 --connect-duration 20 --link "$work/port" --quiet >dongle.log 2>&1 &
dongle=$!
until [ -e port ]; do sleep 0.05; done

# cost COMMAND...: its processor time in per cent of `seconds`
cost() {
    local TIMEFORMAT='%U %S'
    { time "$build/tools/cli/velmora" "$@" --port "$work/port" --all --quiet --seconds "$seconds" >out 2>err; } 2>times ||
        { cat out err >&2; exit 1; }
    awk -v seconds="$seconds" '{ printf "%.2f", 100 * ($1 + $2) / seconds }' times
}

for pair in 1 2 3 4 5; do
    stream=$(cost stream)
    # 200,000 bytes a second are about 711 samples a second of each channel.
    record=$(cost record -o "take$pair" --rate 711 --max-loss 100)
    echo "pair $pair: stream $stream %, record $record %, $(awk "BEGIN { print $record - $stream }") % more"
done | tee pairs
echo "median: $(awk '{ print $(NF - 2) + 0, $0 }' pairs | awk '{ print $1 }' | sort -n | sed -n 3p) % of one core more"
