#!/usr/bin/env bash
# Runs the Windows build of the core tests under Wine, in a throw-away prefix.
set -euo pipefail
BUILD_DIR=${1:?usage: test-windows.sh BUILD_DIR}
WINE=/usr/lib/wine/wine64
[ -x "$WINE" ] || WINE=$(command -v wine64 || command -v wine)
prefix=$(mktemp -d "${TMPDIR:-/tmp}/merid-wine.XXXXXX")
cleanup() {
    WINEPREFIX="$prefix" wineserver -k >/dev/null 2>&1 || true
    rm -rf "$prefix"
}
trap cleanup EXIT
export WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
# A fixed zone, so the time-stamp tests see the same clock as natively.
export TZ=UTC
"$WINE" "$BUILD_DIR/merid_core_tests.exe" --gtest_brief=1
