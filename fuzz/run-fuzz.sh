#!/usr/bin/env bash
# Builds a fuzz target with clang's libFuzzer and runs it.
#
#   fuzz/run-fuzz.sh [SECONDS] [TARGET]     (default 60 s, target codec)
#
# TARGET is codec (frame parser, packet decoder), logfile (recording reader) or
# messagestructure (message structure file parser and decoder; needs Qt 6 through
# pkg-config and moc). The build and the growing corpus live in
# ${KV_FUZZ_DIR:-/tmp/kv-fuzz-$UID} (corpus/ for codec, corpus-TARGET/ for the others);
# the seeds in fuzz/corpus/TARGET are copied in first and never written. Crashing inputs
# are left in that directory as crash-*; the script exits non-zero when one is found.
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
messagestructure) corpus=corpus-messagestructure; sources=("$root"/src/protocol/*.cpp); maxlen=65536; qt=1 ;;
*) echo "unknown fuzz target: $target" >&2; exit 2 ;;
esac

mkdir -p "$work/$corpus"
cp -n "$here/corpus/$target"/* "$work/$corpus/" 2>/dev/null || true

extra=()
if [ "${qt:-0}" = 1 ]; then
    for header in "$root"/src/protocol/*.h; do
        grep -q Q_OBJECT "$header" || continue
        name="$(basename "$header" .h)"
        "${MOC:-/usr/lib/qt6/libexec/moc}" "$header" -o "$work/moc_$name.cpp"
        sources+=("$work/moc_$name.cpp")
    done
    read -r -a extra <<<"-fPIC -I$root/src/protocol $(pkg-config --cflags --libs Qt6Widgets)"
fi

"$cxx" -std=c++17 -g -O1 -fno-omit-frame-pointer \
    -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
    -I"$root/lib/nvtypes" -I"$root/lib/nivradeviceapi" \
    "$here/fuzz_$target.cpp" "$root"/lib/nvtypes/*.cpp "${sources[@]}" -lpthread "${extra[@]}" \
    -o "$work/fuzz_$target"

cd "$work"
./fuzz_"$target" -max_total_time="$seconds" -max_len="$maxlen" -timeout=10 \
    -print_final_stats=1 "$corpus"
