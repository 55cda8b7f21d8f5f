#!/bin/bash
# Installs the build into a temporary prefix and compiles a C99 program with nothing but
# the installed pkg-config file, then runs it.
#
#   check_install.sh CMAKE BUILD_DIR C_COMPILER SOURCE.c [EXTRA_FLAG...]
#
# EXTRA_FLAGs go to the compiler (a sanitizer build's -fsanitize=...).
set -eu

cmake=$1
build=$2
cc=$3
source=$4
shift 4

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

if ! "$cmake" --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1; then
    cat "$work/install.log" >&2
    exit 1
fi

pc=$(find "$prefix" -name nivradeviceapi.pc)
[ -n "$pc" ] || { echo "no nivradeviceapi.pc installed" >&2; exit 1; }
libdir=$(dirname "$(dirname "$pc")")
export PKG_CONFIG_PATH=$(dirname "$pc")
# Only what is installed may be found.
export PKG_CONFIG_LIBDIR=$PKG_CONFIG_PATH

for f in libnivradeviceapi.so libnivradeviceapi.so.0 libnvtypes.so libnvtypes.so.0; do
    [ -e "$libdir/$f" ] || { echo "missing $libdir/$f" >&2; exit 1; }
done
soname=$(LC_ALL=C readelf -d "$libdir/libnivradeviceapi.so" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ "$soname" = libnivradeviceapi.so.0 ] || { echo "SONAME is '$soname'" >&2; exit 1; }
if find "$prefix" -name '*_p.h' -o -name 'nvdetail.h' | grep -q .; then
    echo "internal headers installed" >&2
    exit 1
fi

flags=$(pkg-config --cflags --libs nivradeviceapi)
echo "pkg-config --cflags --libs nivradeviceapi: $flags"
# shellcheck disable=SC2086
"$cc" -std=c99 -Wall -Wextra -Werror -pedantic "$@" "$source" $flags -o "$work/installed_c"
LD_LIBRARY_PATH=$libdir "$work/installed_c"
