#!/usr/bin/env bash
# The window for Windows: windows.sh BUILD_DIR OUT_DIR [CMAKE_ARGS...]
#
# Builds (or takes from the cache) the GTK toolkit for MinGW-w64 from the
# archives in MERID_WIN_SOURCES (default: ../shared/win-gtk-src beside the
# checkout), cross-builds the source tree against it in BUILD_DIR (Release,
# with any further CMake arguments), and makes the zip and the installer in
# OUT_DIR (scripts/windows-package.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${1:?usage: windows.sh BUILD_DIR OUT_DIR [CMAKE_ARGS...]}
OUT_DIR=${2:?usage: windows.sh BUILD_DIR OUT_DIR [CMAKE_ARGS...]}
shift 2
JOBS=${JOBS:-$(nproc)}
export MERID_WIN_SOURCES=${MERID_WIN_SOURCES:-$(realpath -m ../shared/win-gtk-src)}

echo "windows: the toolkit (from $MERID_WIN_SOURCES, cached)"
prefix=$(bash scripts/windows-gtk.sh | tail -n 1)
echo "windows: toolkit in $prefix"
cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DMERID_WIN_GTK_PREFIX="$prefix" -DMERID_WITH_GUI=ON "$@" >/dev/null
cmake --build "$BUILD_DIR" -j "$JOBS"
bash scripts/windows-package.sh "$BUILD_DIR" "$prefix" "$OUT_DIR"
