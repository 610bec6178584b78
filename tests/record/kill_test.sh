#!/usr/bin/env bash
# Kills recordings at random moments and compares what they leave with the virtual dongle's account of every packet:
#   tests/record/kill_test.sh [KILLS [BUILD_FOLDER]]
# A kill may cost the last second; a tenth is allowed for what lies between line and program.
set -uo pipefail
kills=${1:-200}
build=$(cd "${2:-$(dirname "$0")/../../build/linux}" && pwd)
velmora=$build/tools/cli/velmora
work=$(mktemp -d)
trap 'kill "${dongle:-}" 2>/dev/null; rm -rf "$work"' EXIT
cd "$work" || exit 1

appears() {
    for ((wait = 0; wait < 500; wait++)); do
        [ -e "$1" ] && return
        sleep 0.02
    done
}

failed=0 empty=0
for ((i = 1; i <= kills; i++)); do
    rm -f -- *
    "$build/dongle/velmora-dongle" --headsets 2 --channels 8 --rate 500 --packing single --lose 0.1 --seed "$i" \
        --link "$work/port" --account account.csv --quiet >dongle.log 2>&1 &
    dongle=$!
    appears port
    "$velmora" record --port "$work/port" --all -o take --quiet --max-loss 100 >record.log 2>&1 &
    recorder=$!
    appears take.json
    sleep "$((RANDOM % 9)).$((RANDOM % 10))"
    kill -9 "$recorder"
    wait "$recorder" 2>/dev/null
    kill -INT "$dongle"
    wait "$dongle"
    files=(take-*.edf)
    if [ ! -e "${files[0]}" ]; then
        empty=$((empty + 1))
        continue
    fi
    for file in "${files[@]}"; do
        address=${file#take-}
        if ! "$build/tests/record/account_check" "$file" account.csv "${address%.edf}" 8 1.1 >check.log; then
            failed=$((failed + 1))
            echo "kill $i, $file:"
            cat check.log
            cp "$file" account.csv "${KEEP:-/tmp}/" 2>/dev/null
        fi
    done
done
echo "$kills kills, $empty before the first second was over, $failed files that are not as they should be"
[ "$failed" -eq 0 ]
