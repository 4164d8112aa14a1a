#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (optimised, with AddressSanitizer
# and UndefinedBehaviorSanitizer, asserts kept) and runs each in turn on a
# copy of its committed corpus, so the corpus in the tree stays as it is.
# Each target runs FUZZ_SECONDS (default 60); with FUZZ_RUNS set it runs
# that many inputs instead, within FUZZ_SECONDS if given, else 15 minutes.
# FUZZ_TARGETS (names without fuzz_, space-separated) picks some of them.
set -euo pipefail
cd "$(dirname "$0")/.."
# No allocation stacks on every malloc: a crash found is run again from its
# artifact for the full report.
export ASAN_OPTIONS=${ASAN_OPTIONS:-malloc_context_size=0:detect_leaks=0}
JOBS=${JOBS:-$(nproc)}
BUILD=${BUILD:-build}
CC=clang CXX=clang++ cmake -S . -B "$BUILD/fuzz" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g" "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O2 -g" \
    -DMERID_BUILD_FUZZ=ON -DMERID_BUILD_TESTS=OFF -DMERID_WITH_GUI=OFF -DMERID_BUILD_TOOLS=OFF >/dev/null
cmake --build "$BUILD/fuzz" -j "$JOBS"
if [ -n "${FUZZ_RUNS:-}" ]; then
    limit=(-runs="$FUZZ_RUNS" -max_total_time="${FUZZ_SECONDS:-900}")
else
    limit=(-max_total_time="${FUZZ_SECONDS:-60}")
fi
found=0
for exe in $(find "$BUILD/fuzz/fuzz" -type f -name 'fuzz_*' -perm -u+x | sort); do
    name=$(basename "$exe")
    if [ -n "${FUZZ_TARGETS:-}" ] && [[ " $FUZZ_TARGETS " != *" ${name#fuzz_} "* ]]; then
        continue
    fi
    found=1
    corpus=fuzz/${name#fuzz_}/corpus
    work=$(mktemp -d)
    [ -d "$corpus" ] && cp -r "$corpus"/. "$work"/
    log=$BUILD/fuzz/$name.log
    printf '\n=== %s (%s), whole output in %s ===\n' "$name" "${limit[*]}" "$log"
    start=$(date +%s)
    set +e
    "$exe" "${limit[@]}" -print_final_stats=1 "$work" >"$log" 2>&1
    status=$?
    set -e
    grep -E '^#[0-9]+ +DONE|^stat::|ERROR|SUMMARY|Test unit written' "$log" || tail -n 20 "$log"
    printf '%s: exit %s after %s s\n' "$name" "$status" "$(($(date +%s) - start))"
    rm -rf "$work"
    [ "$status" = 0 ] || exit "$status"
done
[ "$found" = 1 ] || echo "no fuzz targets built yet"
