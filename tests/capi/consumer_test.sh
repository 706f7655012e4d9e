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

# The commands are installed, and the library is stripped.
"$work/prefix/bin/omra" --version
"$work/prefix/bin/omra-server" --help | grep -q -- "--port"
if nm "$libdir/libomrakit.so" 2>&1 | grep -qv "no symbols"; then
  echo "the installed libomrakit.so is not stripped" >&2
  exit 1
fi

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer"
# The C++ consumer over the archive (its dependencies are installed here).
(cd "$work" && OMRA_METRICS_SINK=none OMRA_RECORD_STORE=memory "$work/cmake-build/cpp_consumer")

# The shared library's package needs no other package: found with every other one hidden.
mkdir -p "$work/c-only"
cat >"$work/c-only/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.20)
project(c_only LANGUAGES C)
find_package(omrakit 0.3 REQUIRED)
add_executable(c_only $consumer/main.c)
target_link_libraries(c_only PRIVATE omrakit::omrakit)
CMAKE
cmake -S "$work/c-only" -B "$work/c-only-build" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_DISABLE_FIND_PACKAGE_CURL=ON -DCMAKE_DISABLE_FIND_PACKAGE_OpenSSL=ON \
  -DCMAKE_DISABLE_FIND_PACKAGE_ZLIB=ON -DCMAKE_DISABLE_FIND_PACKAGE_SQLite3=ON \
  -DCMAKE_DISABLE_FIND_PACKAGE_OpenCV=ON -DCMAKE_DISABLE_FIND_PACKAGE_nlohmann_json=ON >/dev/null
cmake --build "$work/c-only-build" >/dev/null

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
cc -std=c11 -o "$work/pc-consumer" "$consumer/main.c" $(pkg-config --cflags --libs omrakit) -lm
LD_LIBRARY_PATH="$libdir" "$work/pc-consumer"
echo "consumer built with find_package and with pkg-config"
