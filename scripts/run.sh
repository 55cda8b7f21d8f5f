#!/usr/bin/env bash
# Builds KvManager, starts the device emulator with a default set of devices and opens
# KvManager on them. Without a display it runs under xvfb-run, saves a screenshot of the
# window to build/screenshot.png and closes again.
#   scripts/run.sh [KvManager arguments...]
#   KV_SCREENSHOT_DELAY=6 scripts/run.sh     seconds to wait before the screenshot
set -euo pipefail
source "$(dirname "$0")/common.sh"

dir="$KV_ROOT/build"

if [ "${KV_RUN_INNER:-}" != 1 ]; then
    kv_ensure_packages
    kv_build "$dir" RelWithDebInfo
    if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
        kv_log "No display: running under xvfb-run"
        KV_RUN_INNER=1 KV_HEADLESS=1 exec xvfb-run -a -s "-screen 0 1280x800x24" "$0" "$@"
    fi
fi

sim_pid=""
cleanup() {
    if [ -n "$sim_pid" ]; then
        kill -TERM "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
    fi
}
trap cleanup EXIT

if [ -x "$dir/bin/kvsim" ]; then
    kv_log "Starting kvsim"
    "$dir/bin/kvsim" --device imu --device ahrs --device gnss --device master:4,docked=1 &
    sim_pid=$!
    sleep 1
else
    kv_log "No device emulator in this build; KvManager starts without devices"
fi

if [ "${KV_HEADLESS:-}" = 1 ]; then
    "$dir/bin/kvmanager" "$@" &
    app_pid=$!
    sleep "${KV_SCREENSHOT_DELAY:-5}"
    if kill -0 "$app_pid" 2>/dev/null; then
        # The main window alone (the largest window of that name) when it can be read,
        # else the whole screen.
        win=$(xwininfo -root -tree 2>/dev/null | awk '/"Kv Manager/ {
                  match($0, /[0-9]+x[0-9]+\+/); dims = substr($0, RSTART, RLENGTH - 1)
                  split(dims, wh, "x"); area = wh[1] * wh[2]
                  if (area > best) { best = area; id = $1 } }
                  END { print id }')
        if [ -z "$win" ] || ! import -window "$win" "$dir/screenshot.png" 2>/dev/null; then
            import -window root "$dir/screenshot.png"
        fi
        kv_log "Screenshot saved to $dir/screenshot.png"
        # SIGTERM closes the window the normal way, so settings and the journal are saved.
        kill -TERM "$app_pid"
    fi
    wait "$app_pid"
else
    "$dir/bin/kvmanager" "$@"
fi
