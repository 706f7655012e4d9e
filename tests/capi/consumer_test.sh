#!/usr/bin/env bash
# Installs the kit into a temporary prefix and builds an outside project against it, once through
# find_package and once through pkg-config; both programs must run.
set -euo pipefail
build="$1"
consumer="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir="$(dirname "$(find "$work/prefix" -name 'libomrakit.so' | head -n1)")"

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
cc -std=c11 -o "$work/pc-consumer" "$consumer/main.c" $(pkg-config --cflags --libs omrakit) -lm
LD_LIBRARY_PATH="$libdir" "$work/pc-consumer"
echo "consumer built with find_package and with pkg-config"
