#!/bin/bash
# Runs a command against one emulated device and stops the emulator afterwards.
#
#   with_kvsim.sh KVSIM DEVICE -- COMMAND [ARG...]
#
# kvsim gets a runtime folder of its own, so its announcement reaches this test's scan and
# no other; system serial ports are left out of the scan (NV_SCAN_SYSTEM_PORTS=0). In the
# command's arguments {port} becomes the emulated device's port and {dir} a temporary
# folder for its files. Exit status: the command's (1 when kvsim does not start).
set -u

if [ $# -lt 4 ] || [ "$3" != "--" ]; then
    echo "usage: $0 KVSIM DEVICE -- COMMAND [ARG...]" >&2
    exit 2
fi
kvsim=$1
device=$2
shift 3

work=$(mktemp -d)
kvsim_pid=
cleanup() {
    if [ -n "$kvsim_pid" ]; then
        kill -TERM "$kvsim_pid" 2>/dev/null
        wait "$kvsim_pid" 2>/dev/null
    fi
    rm -rf "$work"
}
trap cleanup EXIT

mkdir -m 700 "$work/runtime" "$work/files"
export XDG_RUNTIME_DIR=$work/runtime
export NV_SCAN_SYSTEM_PORTS=0

: >"$work/kvsim.out"
"$kvsim" --device "$device" --quiet >"$work/kvsim.out" 2>"$work/kvsim.err" &
kvsim_pid=$!

port=
for _ in $(seq 200); do
    read -r port _ <"$work/kvsim.out"
    [ -n "$port" ] && break
    if ! kill -0 "$kvsim_pid" 2>/dev/null; then
        break
    fi
    sleep 0.05
done
if [ -z "$port" ]; then
    echo "kvsim did not start:" >&2
    cat "$work/kvsim.err" >&2
    exit 1
fi
echo "kvsim: $(head -n 1 "$work/kvsim.out")"

args=()
for arg in "$@"; do
    arg=${arg//\{port\}/$port}
    args+=("${arg//\{dir\}/$work/files}")
done
"${args[@]}"
