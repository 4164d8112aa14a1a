#!/usr/bin/env bash
# The whole test run: the sanitizer builds with CTest, the ThreadSanitizer
# build of the threaded tests, and the Windows cross-build.
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-$(nproc)}
BUILD=${BUILD:-build}
export LANG=C.UTF-8 LC_ALL=C.UTF-8 NO_AT_BRIDGE=1
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp}

step() { printf '\n=== %s ===\n' "$*"; }

# The compiler cache serves every build here, the package's included, and
# every checkout on the machine: paths are taken relative to the checkout,
# so a fresh clone reuses what an earlier run compiled.
if command -v ccache >/dev/null 2>&1; then
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
    export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1
fi

configure() { # dir, extra args
    local dir=$1; shift
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug "$@" >/dev/null
}

step "AddressSanitizer + UndefinedBehaviorSanitizer build"
configure "$BUILD/asan" -DMERID_SANITIZE=address
cmake --build "$BUILD/asan" -j "$JOBS"
step "tests (address, undefined)"
xvfb-run -a -s "-screen 0 1280x1024x24" \
    ctest --test-dir "$BUILD/asan" --output-on-failure -j "$JOBS"

step "ThreadSanitizer build"
configure "$BUILD/tsan" -DMERID_SANITIZE=thread
cmake --build "$BUILD/tsan" -j "$JOBS" --target merid_threaded_tests
step "threaded tests (thread)"
xvfb-run -a -s "-screen 0 1280x1024x24" \
    ctest --test-dir "$BUILD/tsan" --output-on-failure -j "$JOBS" -L threaded --no-tests=ignore

# The window for Windows needs the toolkit built from its archives, named by
# MERID_WIN_SOURCES (../shared/win-gtk-src beside the checkout when it is
# there); without them the Windows build has the core, its tests and
# merid-flash.exe only.
if [ -z "${MERID_WIN_SOURCES:-}" ] && [ -f ../shared/win-gtk-src/SHA256SUMS ]; then
    MERID_WIN_SOURCES=$(realpath ../shared/win-gtk-src)
    export MERID_WIN_SOURCES
fi
if [ -n "${MERID_WIN_SOURCES:-}" ]; then
    step "Windows cross-build (MinGW-w64) with the window, its zip and installer"
    bash scripts/windows.sh "$BUILD/mingw" "$BUILD/mingw/windows"
else
    step "Windows cross-build (MinGW-w64), without the window (no MERID_WIN_SOURCES)"
    configure "$BUILD/mingw" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64.cmake" -DCMAKE_BUILD_TYPE=Release \
        -DMERID_WIN_GTK_PREFIX= -DMERID_WITH_GUI=OFF
    cmake --build "$BUILD/mingw" -j "$JOBS"
    rm -rf "$BUILD/mingw/windows"
fi
if [ -f scripts/test-windows.sh ]; then
    step "Windows tests under Wine"
    xvfb-run -a -s "-screen 0 1280x1024x24" bash scripts/test-windows.sh "$BUILD/mingw"
fi
step "all test stages passed"
