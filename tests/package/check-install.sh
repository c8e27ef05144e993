#!/usr/bin/env bash
# check-install.sh BUILD_DIR WORK_DIR SOURCE_DIR CXX VERSION with-tool|without-tool
#
# Installs BUILD_DIR into a scratch prefix and, with nothing in the environment but PATH (no
# LD_LIBRARY_PATH), builds and runs three separate consumers against it: a CMake project
# (find_package), a pkg-config build with README's lines, and a GoogleTest project whose
# tests are discovered at build time; where libtarn_tls is installed, a TLS consumer built both
# ways as well. Runs the installed `tarn` too. Then moves the prefix
# elsewhere and does it all again there.
set -euo pipefail
build=$1 work=$2 source=$3 cxx=$4 version=$5 tool=$6
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix

# Everything below runs with this environment only.
clean() { env -i PATH="$PATH" "$@"; }
fail() { echo "package test: $*" >&2; exit 1; }

# The first sh block after README's heading $1.
readme_block() {
    awk -v heading="$1" '$0 == heading { found = 1; next }
                         found && /^```sh$/ { inside = 1; next }
                         inside && /^```$/ { exit }
                         inside { print }' "$source/../../README.md"
}
[ -n "$(readme_block "### With pkg-config")" ] || fail "README has no pkg-config lines"

cmake --install "$build" --prefix "$prefix" >"$work/install.log"
libdir=$(cd "$prefix" && ls -d lib*/pkgconfig | head -1)
libdir=${libdir%/pkgconfig}

# The exported targets carry the language standard to consumers.
grep -q 'INTERFACE_COMPILE_FEATURES "cxx_std_17"' "$prefix/$libdir/cmake/tarn/tarnTargets.cmake" ||
    fail "the exported tarn targets do not require C++17"

# The installed program starts and plays its demo session over the loopback.
check_tool() {
    local prefix=$1 tag=$2
    local out=$work/$tag
    clean "$prefix/bin/tarn" --version >"$out/tarn-version.log" 2>&1 || {
        cat "$out/tarn-version.log"
        fail "$tag: installed tarn does not start"
    }
    grep -qx "tarn $version" "$out/tarn-version.log" || fail "$tag: tarn --version printed $(cat "$out/tarn-version.log")"
    clean "$prefix/bin/tarn" demo >"$out/tarn-demo.log" 2>&1 || {
        tail -20 "$out/tarn-demo.log"
        fail "$tag: installed tarn demo failed"
    }
    # Where the bridge is installed, `tarn bridge` runs it in the tool's place: the bridge's own
    # usage error comes back, with its status.
    if [ -x "$prefix/bin/tarn-bridge" ]; then
        local status=0
        clean "$prefix/bin/tarn" bridge --no-such-option >"$out/tarn-bridge.log" 2>&1 || status=$?
        grep -qx "tarn-bridge: --no-such-option needs a value" "$out/tarn-bridge.log" ||
            fail "$tag: tarn bridge did not run the installed bridge: $(cat "$out/tarn-bridge.log")"
        [ "$status" -ne 0 ] || fail "$tag: tarn bridge with a bad option ended with status 0"
    fi
}

# Every installed program and shared object (the tool, the bridge, the Python module, whatever
# this build installs) finds each library it needs with nothing but its own run path.
check_links() {
    local prefix=$1 tag=$2
    local count=0 file missing
    while IFS= read -r -d '' file; do
        [ "$(head -c 4 "$file" | tr -d '\0')" = $'\x7fELF' ] || continue
        missing=$(clean ldd "$file" 2>&1 | grep -F "not found" || true)
        [ -z "$missing" ] || fail "$tag: ${file#"$prefix"/} does not find: $missing"
        count=$((count + 1))
    done < <(find "$prefix" -type f -print0)
    [ "$count" -ge 4 ] || fail "$tag: only $count programs and libraries installed"
    echo "$tag: $count installed programs and libraries find all their libraries"
}

# A TLS handshake and one frame through the installed libtarn_tls, built both ways.
check_tls() {
    local prefix=$1 tag=$2
    local out=$work/$tag
    clean cmake -S "$source/consumer-tls" -B "$out/tls-build" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_COMPILER="$cxx" >"$out/tls-configure.log" 2>&1 &&
        clean cmake --build "$out/tls-build" >"$out/tls-build.log" 2>&1 || {
        cat "$out/tls-configure.log" "$out/tls-build.log" 2>/dev/null
        fail "$tag: CMake consumer of tarn::tls does not build"
    }
    mkdir -p "$out/tls-pkg"
    (cd "$out/tls-pkg" && clean PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" bash -e -c \
        "$cxx -std=c++17 '$source/consumer-tls/main.cpp' \$(pkg-config --cflags --libs tarn-tls) -pthread -o app") \
        >"$out/tls-pkg.log" 2>&1 || {
        cat "$out/tls-pkg.log"
        fail "$tag: pkg-config consumer of tarn-tls does not build"
    }
    local program
    for program in "$out/tls-build/tarn-tls-consumer" "$out/tls-pkg/app"; do
        clean "$program" >"$out/tls-run.log" 2>&1 || true
        grep -qx "tls consumer ok" "$out/tls-run.log" ||
            fail "$tag: ${program#"$out"/} printed $(cat "$out/tls-run.log")"
    done
}

check_prefix() {
    local prefix=$1 tag=$2
    local out=$work/$tag
    mkdir -p "$out"

    check_links "$prefix" "$tag"
    if [ "$tool" = with-tool ]; then
        check_tool "$prefix" "$tag"
    fi

    # 1. CMake package: find_package(tarn CONFIG REQUIRED), target tarn::tarn.
    clean cmake -S "$source/consumer" -B "$out/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_COMPILER="$cxx" >"$out/cmake-configure.log" 2>&1 || {
        cat "$out/cmake-configure.log"
        fail "$tag: CMake consumer does not configure"
    }
    clean cmake --build "$out/cmake-build" >"$out/cmake-build.log" 2>&1 || {
        cat "$out/cmake-build.log"
        fail "$tag: CMake consumer does not build"
    }
    clean "$out/cmake-build/tarn-consumer" >"$out/cmake-run.log" 2>&1 || {
        cat "$out/cmake-run.log"
        fail "$tag: CMake consumer does not run"
    }
    grep -qx "consumer ok" "$out/cmake-run.log" || fail "$tag: CMake consumer printed $(cat "$out/cmake-run.log")"

    # 2. pkg-config: README's lines as they stand, with the scratch prefix for /opt/tarn.
    mkdir -p "$out/pkg-build"
    cp "$source/consumer/main.cpp" "$out/pkg-build/app.cpp"
    (cd "$out/pkg-build" && clean bash -e -c "$(readme_block "### With pkg-config" | sed "s|/opt/tarn|$prefix|g")") \
        >"$out/pkg-build.log" 2>&1 || {
        cat "$out/pkg-build.log"
        fail "$tag: pkg-config consumer does not build with README's lines"
    }
    clean "$out/pkg-build/app" >"$out/pkg-run.log" 2>&1 || {
        cat "$out/pkg-run.log"
        fail "$tag: pkg-config consumer does not run"
    }
    grep -qx "consumer ok" "$out/pkg-run.log" || fail "$tag: pkg-config consumer printed $(cat "$out/pkg-run.log")"
    [ "$(clean PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" pkg-config --modversion tarn)" = "$version" ] ||
        fail "$tag: pkg-config reports another version"

    # 3. GoogleTest: the build itself runs the test program to discover its tests.
    clean cmake -S "$source/consumer-gtest" -B "$out/gtest-build" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_COMPILER="$cxx" >"$out/gtest-configure.log" 2>&1 || {
        cat "$out/gtest-configure.log"
        fail "$tag: GoogleTest consumer does not configure"
    }
    clean cmake --build "$out/gtest-build" >"$out/gtest-build.log" 2>&1 || {
        cat "$out/gtest-build.log"
        fail "$tag: GoogleTest consumer does not build (or its tests cannot be discovered)"
    }
    clean ctest --test-dir "$out/gtest-build" >"$out/gtest-run.log" 2>&1 || {
        cat "$out/gtest-run.log"
        fail "$tag: GoogleTest consumer's tests fail"
    }
    grep -q "100% tests passed, 0 tests failed out of 3" "$out/gtest-run.log" ||
        fail "$tag: GoogleTest consumer did not run its three tests: $(cat "$out/gtest-run.log")"
    # 4. libtarn_tls, where this build installs it: tarn::tls from the CMake package, and the
    #    tarn-tls pkg-config module as README's pkg-config line has it for tarn.
    if [ -e "$prefix/$libdir/pkgconfig/tarn-tls.pc" ]; then
        check_tls "$prefix" "$tag"
    fi
    echo "$tag: tarn, CMake, pkg-config and GoogleTest consumers run from $prefix"
}

check_prefix "$prefix" installed

# The same tree, moved: nothing in it may name the place it was installed to.
mkdir -p "$work/elsewhere"
mv "$prefix" "$work/elsewhere/moved"
check_prefix "$work/elsewhere/moved" moved

echo "package test passed"
