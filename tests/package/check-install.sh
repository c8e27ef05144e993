#!/usr/bin/env bash
# check-install.sh BUILD_DIR WORK_DIR CONSUMER_SOURCE CXX
set -euo pipefail
build=$1 work=$2 consumer=$3 cxx=$4
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log"

# 1. CMake package: find_package(tarn CONFIG REQUIRED), target tarn::tarn.
cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" \
      >"$work/cmake-configure.log"
cmake --build "$work/cmake-build" >"$work/cmake-build.log"
LD_LIBRARY_PATH="$prefix/lib:${LD_LIBRARY_PATH:-}" "$work/cmake-build/tarn-consumer" | tee "$work/cmake-run.log"
grep -q "consumer ok" "$work/cmake-run.log"

# 2. pkg-config module tarn.
libdir=$(ls -d "$prefix"/lib*/pkgconfig | head -1)
export PKG_CONFIG_PATH="$libdir"
version=$(pkg-config --modversion tarn)
echo "pkg-config tarn version $version"
# shellcheck disable=SC2046
"$cxx" -std=c++17 "$consumer/main.cpp" -o "$work/pkg-consumer" $(pkg-config --cflags --libs tarn)
LD_LIBRARY_PATH="$prefix/lib:${LD_LIBRARY_PATH:-}" "$work/pkg-consumer" | tee "$work/pkg-run.log"
grep -q "consumer ok" "$work/pkg-run.log"
echo "package test passed"
