#!/usr/bin/env bash
# Uses the packages as a stranger would: stranger_test.sh PACKAGES [tar] [deb] [zip] [wheel]
#
# Each is unpacked into an empty folder. The README's programs are copied out of the README that lies in it, built with the
# README's own lines against nothing else, and run against the virtual dongle that came with it.
set -euo pipefail
set -m # what runs beside has a group of its own, and hears Ctrl-C
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
packages=$(cd "$1" && pwd)
shift
[ "$#" -gt 0 ] || set -- tar deb zip wheel
work=$(mktemp -d)
background=()
links=()
clean_up() {
    set +m # not a word of those that end now
    [ "${#background[@]}" -eq 0 ] || kill -- "${background[@]/#/-}" 2>/dev/null || true
    [ "${#links[@]}" -eq 0 ] || rm -f "${links[@]}"
    wait
    rm -rf "$work"
}
trap clean_up EXIT

fail() {
    echo "FAILED: $*"
    exit 1
}
# program NAME: the README's code block whose first line names it
program() {
    awk -v name="$1:" '/^```/ { open = !open; inside = 0; first = open; next } first { inside = index($0, name) > 0; first = 0 }
        inside' "$readme" >"$1"
    [ -s "$1" ] || fail "the README has no $1"
}
# host: VelmoraSDK's, which has no name in its first line
host() { awk '/^```/ { open = $0 == "```c"; first = open; next } open && first { inside = /A complete host/; first = 0 }
    open && inside' "$readme" >host.c; }
line() { grep -m 1 "^$1" "$readme" || fail "the README has no line that begins with: $1"; }

# begin NAME: an empty folder to work in
begin() {
    echo "== $1"
    mkdir "$work/$1"
    cd "$work/$1"
}
# eventually COMMAND...: until it succeeds; false after half a minute
eventually() {
    for _ in $(seq 600); do
        "$@" && return
        sleep 0.05
    done
    return 1
}
dongle() {
    rm -f dongle.log
    "$@" --headsets 2 --scan-duration 100 --connect-duration 50 --rate 2000 >dongle.log 2>&1 &
    background+=($!)
    eventually grep -q 'ready on' dongle.log && return
    cat dongle.log
    fail "the dongle does not start"
}
# shows COMMAND...: it shows data, and how many packets there were once it is interrupted
shows() {
    env --default-signal=INT "$@" >out 2>&1 & # what itself began in the background has it ignored
    local shown=$!
    background+=("$shown")
    eventually grep -q 'headset 1, channel' out || true
    kill -INT "$shown" 2>/dev/null || true
    [ "$interruptible" = no ] || wait "$shown" || true
    grep -q 'headset 1, channel' out || { cat out; fail "$*"; }
    [ "$interruptible" = no ] || grep -Eq '[0-9]+ packets, 0 lost' out || { cat out; fail "$*"; }
}
shows_host() {
    "$@" >out 2>&1 || { cat out; fail "$*"; }
    grep -Eq '[0-9]+ packets' out || { cat out; fail "$*"; }
}

# linux PREFIX: what is installed there
linux() {
    local prefix=$1
    readme=$prefix/share/doc/velmora/README.md
    ls "$prefix"/share/doc/velmora/licences/{loguru,CLI11,Boost}.txt "$prefix"/lib/udev/rules.d/*.rules >/dev/null
    program first.c
    export PKG_CONFIG_PATH=$prefix/lib/pkgconfig LD_LIBRARY_PATH=$prefix/lib
    eval "$(line 'cc first.c')"
    dongle "$prefix/bin/velmora-dongle" --link "$PWD/port"
    shows ./first "$PWD/port"
    [ "$kind" = tar ] || return 0  # the rest is the same in both

    unset LD_LIBRARY_PATH
    "$prefix/bin/velmora" find --help >/dev/null || fail "the program does not find its library"
    program first.cpp
    host
    cmp -s host.c "$prefix/share/doc/velmora/examples/host.c" || fail "the README shows another host.c"
    eval "$(line 'c++ -std=c++20 first.cpp')"
    cmake -S "$prefix/share/doc/velmora/examples" -B examples -D CMAKE_PREFIX_PATH="$prefix" >cmake.log
    cmake --build examples >>cmake.log || { cat cmake.log; fail "the examples do not build"; }
    shows env LD_LIBRARY_PATH="$prefix/lib" ./first_cpp "$PWD/port"
    shows_host examples/host "$PWD/port"
}

try_tar() {
    tar -xzf "$packages"/velmora-*-linux-*.tar.gz
    mv velmora-* moved # it is relocatable
    linux "$PWD/moved"
}

try_deb() {
    dpkg-deb -x "$packages"/velmora_*_amd64.deb root
    [[ $(dpkg-deb -f "$packages"/velmora_*_amd64.deb Depends) == *libstdc++6* ]] || fail "the deb does not say what it needs"
    [ -e root/usr/lib/libVelmoraSDK.so ] && [ -e root/usr/lib/libvelmora.so.0 ] || fail "a name of a library is missing"
    linux "$PWD/root/usr"
}

# com_port FILE: sets $com to the name under Wine of a serial port of this system
com_port() {
    local number
    for ((number = 4001 + RANDOM % 500; ; number++)); do
        ln -s "$(readlink "$1")" "$tree/build/wine/dosdevices/com$number" 2>/dev/null && break
    done
    links+=("$tree/build/wine/dosdevices/com$number")
    com=COM$number
}

# A line between two programs under Wine: sets $near and $far to names of ports.
wine_line() {
    rm -f near far
    socat "pty,raw,echo=0,link=$PWD/near" "pty,raw,echo=0,link=$PWD/far" </dev/null >/dev/null 2>&1 &
    background+=($!)
    eventually [ -e near ] && eventually [ -e far ] || fail "no line between two programs"
    com_port near
    near=$com
    com_port far
    far=$com
}

try_zip() {
    local wine=$tree/scripts/wine-run
    unzip -q "$(ls "$packages"/velmora-*-windows-*.zip | grep -v debug)"
    mv velmora-* velmora
    readme=velmora/share/doc/velmora/README.md
    ls velmora/share/doc/velmora/licences/{loguru,CLI11,Boost,GPL-3,libstdc++-and-libgcc,mingw-w64-and-winpthread}.txt >/dev/null
    program first.c
    program first.cpp
    host
    local mingw=x86_64-w64-mingw32 dll file sections
    eval "$mingw-$(line 'gcc first.c')"
    eval "$mingw-$(line 'g++ -std=c++20 first.cpp')"
    eval "$mingw-$(line 'gcc host.c')"
    "$mingw-gcc" first.c -o first-by-lib.exe -Ivelmora/include velmora/lib/velmora.lib
    "$mingw-gcc" host.c -o host-by-lib.exe -Ivelmora/include velmora/lib/VelmoraSDK.lib
    cp velmora/bin/*.dll .
    for dll in libstdc++-6.dll libgcc_s_seh-1.dll; do  # the compiler's own, which are in PATH where it is at home
        cp "$("$mingw-g++-posix" -print-file-name="$dll")" .
    done
    cp "/usr/$mingw/lib/libwinpthread-1.dll" .
    for file in velmora/bin/*.dll velmora/bin/*.exe; do
        sections=$("$mingw-objdump" -h "$file")
        [[ $sections == *.rsrc* ]] || fail "$file has no version"
        [[ $sections != *.debug_info* ]] || fail "$file is not stripped"
    done
    unzip -q -o "$packages"/velmora-*-debug.zip
    ls velmora-*-debug/bin/velmora.{exe,dll}.debug >/dev/null
    "$wine" velmora/bin/velmora.exe --help >/dev/null
    wine_line
    dongle "$wine" velmora/bin/velmora-dongle.exe --port "$near"
    shows_host "$wine" host.exe "$far"
    shows_host "$wine" host-by-lib.exe "$far"
    interruptible=no # Wine programs do not hear this system's signals: what is shown is enough
    for program in first.exe first-by-lib.exe first_cpp.exe; do
        wine_line
        dongle "$wine" velmora/bin/velmora-dongle.exe --port "$near"
        shows "$wine" "$program" "$far"
    done
    windows_program
}

# The Windows program, on the native dongle, whose account tells what has to be in the files.
windows_program() {
    local velmora=("$tree/scripts/wine-run" velmora/bin/velmora.exe) name address
    dongle "$tree/build/linux/dongle/velmora-dongle" --link "$PWD/port" --channels 4 --packing single --lose-every 20 \
        --account account
    com_port "$PWD/port"
    mkdir 記録
    "${velmora[@]}" record --port "$com" --all --rate 2000 --seconds 8 --max-loss 100 --view --no-browser -o 記録/take \
        >out 2>err &
    background+=($!)
    eventually grep -q 'http://' err || { cat err; fail "no live view"; }
    address=$(grep -o 'http://[^ ]*' err | tr -d '\r')
    timeout 60 /usr/bin/python3 "$tree/examples/view_client.py" "$address" >viewed || { cat viewed err; fail "no live view"; }
    wait "${background[-1]}" || { cat out err; fail "the recording"; }
    grep -q 'headset 1: A1B2C3D4E502' viewed && grep -q 'the recording has ended' viewed && ! grep -q 'too slow' viewed ||
        { cat viewed; fail "the viewer"; }
    kill -INT -- "-${background[-2]}" # the account is complete then
    wait "${background[-2]}" || true
    for name in A1B2C3D4E501 A1B2C3D4E502; do
        "$tree/build/linux/tests/record/account_check" "記録/take-$name.edf" account "$name" 4 3 || fail "take-$name.edf"
    done
    "${velmora[@]}" plot 記録/take-A1B2C3D4E501.edf -o 記録/絵.svg >/dev/null && grep -q '<svg' 記録/絵.svg || fail "no picture"
    ! "${velmora[@]}" record --port "$com" -o 記録/take >out 2>&1 && grep -q 'take.json exists' out ||
        { cat out; fail "a recording was overwritten"; }
}

try_wheel() {
    local wheel python
    wheel=$(ls "$packages"/velmora-*-py3-none-*.whl)
    /usr/bin/python3 -m venv --system-site-packages env
    python=$PWD/env/bin/python
    "$python" -m pip --quiet --disable-pip-version-check install --no-index --no-deps "$wheel"
    readme=$tree/README.md
    program first.py
    dongle "$tree/build/linux/dongle/velmora-dongle" --link "$PWD/port"
    shows env -u VELMORA_LIBRARY -u PYTHONPATH PYTHONUNBUFFERED=1 "$python" first.py "$PWD/port"
    ls env/lib/python3*/site-packages/velmora/licences/{libstdc++,GPL-3}.txt >/dev/null
    "$python" -c 'import velmora, sys; sys.exit("env" not in velmora.__file__)' || fail "not the wheel's package"
}

for kind; do
    interruptible=yes
    began=$SECONDS
    begin "$kind"
    "try_$kind"
    echo "   $kind: $((SECONDS - began)) seconds"
done
echo "packages: all as expected"
