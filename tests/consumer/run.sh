#!/usr/bin/env bash
# Installs the library of an already built tree under a fresh prefix, then
# builds and runs main.cpp against that prefix alone, once through
# find_package and once through pkg-config.
#   tests/consumer/run.sh BUILD_DIR [CXX]
set -euo pipefail
build=$(realpath "$1")
cxx=${2:-c++}
here=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

# Only the library's component, so that nothing else has to be built.
cmake --install "$build" --component storage --prefix "$prefix"

cmake -S "$here" -B "$tmp/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
# A copy installed elsewhere on the machine would prove nothing.
grep -qF "marsk_quorvi_DIR:PATH=$prefix/" "$tmp/cmake/CMakeCache.txt" ||
  { echo "find_package did not find the package under $prefix" >&2; exit 1; }
cmake --build "$tmp/cmake"
"$tmp/cmake/consumer" "$tmp/db-cmake"

pcdir=$(dirname "$(find "$prefix" -name marsk_quorvi.pc)")
flags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs marsk_quorvi)
echo "pkg-config: $flags"
# The same warnings as CMakeLists.txt.
# shellcheck disable=SC2086  # the flags are words
"$cxx" -std=c++20 -Wall -Wextra -Wpedantic -Wshadow -Werror "$here/main.cpp" -o "$tmp/pc-consumer" $flags
"$tmp/pc-consumer" "$tmp/db-pkgconfig"
