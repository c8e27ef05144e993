#!/usr/bin/env bash
# check-build-tree.sh BUILD_DIR WORK_DIR SOURCE_DIR CXX PROJECT_SOURCE_DIR
#
# Uses libtarn without installing it, in the three ways README describes, and runs each consumer
# with nothing in the environment but PATH: find_package(tarn) with tarn_DIR set to the build tree,
# pkg-config with the build tree's uninstalled module, and add_subdirectory of the source tree.
set -euo pipefail
build=$1 work=$2 source=$3 cxx=$4 tarn_source=$5
rm -rf "$work"
mkdir -p "$work"

clean() { env -i PATH="$PATH" "$@"; }
fail() { echo "build-tree test: $*" >&2; exit 1; }
run_logged() {
    local log=$1 what=$2
    shift 2
    "$@" >"$log" 2>&1 || {
        cat "$log"
        fail "$what"
    }
}
expect_ok() {
    local log=$1 what=$2
    grep -qx "consumer ok" "$log" || fail "$what printed $(cat "$log")"
}

# 1. find_package(tarn) from the build tree.
run_logged "$work/cmake-configure.log" "CMake consumer does not configure against the build tree" \
    clean cmake -S "$source/consumer" -B "$work/cmake-build" -Dtarn_DIR="$build" -DCMAKE_CXX_COMPILER="$cxx"
run_logged "$work/cmake-build.log" "CMake consumer does not build against the build tree" \
    clean cmake --build "$work/cmake-build"
run_logged "$work/cmake-run.log" "CMake consumer of the build tree does not run" clean "$work/cmake-build/tarn-consumer"
expect_ok "$work/cmake-run.log" "CMake consumer of the build tree"

# 2. pkg-config from the build tree: README's lines, with this build tree in them.
block=$(awk '$0 == "### Without installing" { found = 1; next }
             found && /^```sh$/ { inside = 1; next }
             inside && /^```$/ { exit }
             inside { print }' "$tarn_source/README.md")
[ -n "$block" ] || fail "README has no pkg-config lines for a build tree"
mkdir -p "$work/pkg-build"
cp "$source/consumer/main.cpp" "$work/pkg-build/app.cpp"
run_logged "$work/pkg-build.log" "pkg-config consumer does not build against the build tree with README's lines" \
    bash -c 'cd "$1" && exec env -i PATH="$PATH" bash -e -c "$2"' _ "$work/pkg-build" \
    "$(echo "$block" | sed "s|/path/to/libtarn/build/release|$build|g")"
run_logged "$work/pkg-run.log" "pkg-config consumer of the build tree does not run" clean "$work/pkg-build/app"
expect_ok "$work/pkg-run.log" "pkg-config consumer of the build tree"

# 3. add_subdirectory of the source tree.
run_logged "$work/subdir-configure.log" "a project embedding libtarn does not configure" \
    clean cmake -S "$source/consumer-subdir" -B "$work/subdir-build" -DTARN_SOURCE_DIR="$tarn_source" \
    -DCMAKE_CXX_COMPILER="$cxx"
run_logged "$work/subdir-build.log" "a project embedding libtarn does not build" \
    clean cmake --build "$work/subdir-build" --target tarn-consumer -j2
run_logged "$work/subdir-run.log" "a project embedding libtarn does not run" clean "$work/subdir-build/tarn-consumer"
expect_ok "$work/subdir-run.log" "a project embedding libtarn"

echo "build-tree test passed"
