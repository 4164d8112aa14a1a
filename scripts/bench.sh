#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs each one; every figure is one line.
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-$(nproc)}
BUILD=${BUILD:-build}
export LANG=C.UTF-8 LC_ALL=C.UTF-8 NO_AT_BRIDGE=1
cmake -S . -B "$BUILD/bench" -G Ninja -DCMAKE_BUILD_TYPE=Release -DMERID_BUILD_BENCH=ON -DMERID_BUILD_TESTS=OFF >/dev/null
cmake --build "$BUILD/bench" -j "$JOBS"
found=0
for exe in $(find "$BUILD/bench/bench" -type f -name 'bench_*' -perm -u+x | sort); do
    found=1
    printf '\n=== %s ===\n' "$(basename "$exe")"
    xvfb-run -a -s "-screen 0 1280x1024x24" "$exe" ${BENCH_ARGS:-}
done
[ "$found" = 1 ] || echo "no benchmarks built yet"
