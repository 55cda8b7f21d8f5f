#!/bin/sh
# Regenerates the raster icons (PNG/ICO) from the SVG sources in svg/, and the
# device tree's 16x16 family icons next to their SVGs in src/devicetree/resources/icons/.
# Requires: rsvg-convert (Debian package librsvg2-bin) and ImageMagick 6
# at /usr/bin/convert (used only to pack the multi-size .ico).
# The action icons in svg/actions/ are used as SVG at runtime, straight from
# the resource file.
set -eu

cd "$(dirname "$0")"

RSVG=${RSVG:-rsvg-convert}
CONVERT=${CONVERT:-/usr/bin/convert}

command -v "$RSVG" >/dev/null 2>&1 || {
    echo "make-icons.sh: rsvg-convert not found (apt-get install librsvg2-bin)" >&2
    exit 1
}
[ -x "$CONVERT" ] || {
    echo "make-icons.sh: ImageMagick convert not found at $CONVERT" >&2
    exit 1
}

render() { # render <svg> <size> <png>
    "$RSVG" --width "$2" --height "$2" --format png \
        --output "$3" "$1"
}

mkdir -p misc playbackToolbar

# Application icon: 256 px PNG plus a multi-size ICO.
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT INT TERM
render svg/kvmanager.svg 256 misc/kvmanager-256.png
for s in 16 32 48 64 128 256; do
    render svg/kvmanager.svg "$s" "$tmp/kvmanager-$s.png"
done
"$CONVERT" \
    "$tmp/kvmanager-16.png" "$tmp/kvmanager-32.png" "$tmp/kvmanager-48.png" \
    "$tmp/kvmanager-64.png" "$tmp/kvmanager-128.png" "$tmp/kvmanager-256.png" \
    misc/kvmanager.ico

# Playback toolbar buttons, 32x32.
for n in record recording1 recording2 recording3 recording4 recordingpause \
         play pause stop tostart; do
    render "svg/playbackToolbar/$n.svg" 32 "playbackToolbar/$n-32n.png"
done

# Device tree: one icon per device family, and the firmware warning.
for svg in ../../devicetree/resources/icons/*.svg; do
    render "$svg" 16 "${svg%.svg}.png"
done

echo "icons regenerated in $(pwd) and ../../devicetree/resources/icons"
