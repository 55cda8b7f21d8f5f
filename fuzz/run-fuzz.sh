#!/usr/bin/env bash
# Builds a fuzz target with clang's libFuzzer and runs it.
#
#   fuzz/run-fuzz.sh [SECONDS] [TARGET]     (default 60 s, target codec)
#
# TARGET is codec (frame parser, packet decoder) or logfile (recording reader). The build
# and the growing corpus live in ${KV_FUZZ_DIR:-/tmp/kv-fuzz-$UID} (corpus/ for codec,
# corpus-logfile/ for logfile); the seeds in fuzz/corpus/TARGET are copied in first and
# never written. Crashing inputs are left
# in that directory as crash-*; the script exits non-zero when one is found.
set -euo pipefail

seconds="${1:-60}"
target="${2:-codec}"
here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/.." && pwd)"
work="${KV_FUZZ_DIR:-/tmp/kv-fuzz-$(id -u)}"
cxx="${CXX_FUZZ:-clang++}"

case "$target" in
codec) corpus=corpus; sources=(); maxlen=8192 ;;
logfile) corpus=corpus-logfile; sources=("$root"/lib/nivradeviceapi/ndalog*.cpp); maxlen=16384 ;;
*) echo "unknown fuzz target: $target" >&2; exit 2 ;;
esac

mkdir -p "$work/$corpus"
cp -n "$here/corpus/$target"/* "$work/$corpus/" 2>/dev/null || true

"$cxx" -std=c++17 -g -O1 -fno-omit-frame-pointer \
    -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
    -I"$root/lib/nvtypes" -I"$root/lib/nivradeviceapi" \
    "$here/fuzz_$target.cpp" "$root"/lib/nvtypes/*.cpp "${sources[@]}" -lpthread \
    -o "$work/fuzz_$target"

cd "$work"
./fuzz_"$target" -max_total_time="$seconds" -max_len="$maxlen" -timeout=10 \
    -print_final_stats=1 "$corpus"
