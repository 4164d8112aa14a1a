#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time
# on its committed corpus (copied, so the corpus in the tree stays as it is).
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-$(nproc)}
BUILD=${BUILD:-build}
SECONDS_PER_TARGET=${FUZZ_SECONDS:-60}
CC=clang CXX=clang++ cmake -S . -B "$BUILD/fuzz" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DMERID_BUILD_FUZZ=ON -DMERID_BUILD_TESTS=OFF -DMERID_WITH_GUI=OFF -DMERID_BUILD_TOOLS=OFF >/dev/null
cmake --build "$BUILD/fuzz" -j "$JOBS"
found=0
for exe in $(find "$BUILD/fuzz/fuzz" -type f -name 'fuzz_*' -perm -u+x | sort); do
    found=1
    name=$(basename "$exe")
    corpus=fuzz/${name#fuzz_}/corpus
    work=$(mktemp -d)
    [ -d "$corpus" ] && cp -r "$corpus"/. "$work"/
    printf '\n=== %s (%ss) ===\n' "$name" "$SECONDS_PER_TARGET"
    "$exe" -max_total_time="$SECONDS_PER_TARGET" -print_final_stats=1 "$work" 2>&1 | tail -n 12
    rm -rf "$work"
done
[ "$found" = 1 ] || echo "no fuzz targets built yet"
