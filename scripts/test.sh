#!/usr/bin/env bash
# Builds KvManager and runs every test with ctest.
#   scripts/test.sh           RelWithDebInfo build in build/
#   scripts/test.sh --asan    AddressSanitizer + UBSan build in build-asan/
#   scripts/test.sh --tsan    ThreadSanitizer build in build-tsan/
# Extra arguments after the option go to ctest (e.g. -R journal).
set -euo pipefail
source "$(dirname "$0")/common.sh"

dir="$KV_ROOT/build" type=RelWithDebInfo
case "${1:-}" in
    --asan) dir="$KV_ROOT/build-asan" type=Asan; shift ;;
    --tsan) dir="$KV_ROOT/build-tsan" type=Tsan; shift ;;
esac

kv_ensure_packages
kv_build "$dir" "$type"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
kv_log "Running tests ($type)"
ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" "$@"
