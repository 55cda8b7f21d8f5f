#!/usr/bin/env bash
# Builds the codec fuzz target with clang's libFuzzer and runs it.
#
#   fuzz/run-fuzz.sh [SECONDS]      (default 60)
#
# The build and the growing corpus live in ${KV_FUZZ_DIR:-/tmp/kv-fuzz-$UID}; the seeds
# in fuzz/corpus/codec are copied in first and never written. Crashing inputs are left
# in that directory as crash-*; the script exits non-zero when one is found.
set -euo pipefail

seconds="${1:-60}"
here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/.." && pwd)"
work="${KV_FUZZ_DIR:-/tmp/kv-fuzz-$(id -u)}"
cxx="${CXX_FUZZ:-clang++}"

mkdir -p "$work/corpus"
cp -n "$here"/corpus/codec/* "$work/corpus/" 2>/dev/null || true

"$cxx" -std=c++17 -g -O1 -fno-omit-frame-pointer \
    -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
    -I"$root/lib/nvtypes" \
    "$here/fuzz_codec.cpp" "$root"/lib/nvtypes/*.cpp \
    -o "$work/fuzz_codec"

cd "$work"
./fuzz_codec -max_total_time="$seconds" -max_len=8192 -timeout=10 \
    -print_final_stats=1 corpus
