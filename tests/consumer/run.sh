#!/usr/bin/env bash
# Builds main.cpp against the library installed in PREFIX, once with
# find_package (CMakeLists.txt here) and once with pkg-config alone, and runs
# both programs. Build files go to WORKDIR.
#   tests/consumer/run.sh PREFIX WORKDIR
set -euo pipefail
prefix=$(realpath "$1")
work=$2
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$work"

echo "-- find_package"
cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release \
   -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer"

echo "-- pkg-config"
pc=$(find "$prefix" -name kivsegmentprefixprocessor.pc -print -quit)
[[ -n "$pc" ]] || { echo "no kivsegmentprefixprocessor.pc under $prefix"; exit 1; }
export PKG_CONFIG_PATH="$(dirname "$pc")"
pkg="kivsegmentprefixprocessor"
version=$(pkg-config --modversion "$pkg")
libdir=$(pkg-config --variable=libdir "$pkg")
# shellcheck disable=SC2046 # pkg-config's flags are meant to be split
"${CXX:-c++}" -std=c++20 -O1 -Wall -Wextra -Werror -DEXPECTED_VERSION="\"$version\"" \
   $(pkg-config --cflags "$pkg") "$here/main.cpp" -o "$work/consumer-pc" \
   $(pkg-config --libs "$pkg") -Wl,-rpath,"$libdir"
"$work/consumer-pc"
