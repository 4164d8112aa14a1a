#!/usr/bin/env bash
# Builds the Debian package: scripts/package.sh [BUILD_DIR [OUT_DIR]]
#
# A Release build without tests or sanitizers in BUILD_DIR (default
# build/package), then CPack. The package, MeridKestalUtility-<version>-<arch>.deb,
# is copied to OUT_DIR (default: the top of the source tree, where
# `sudo apt-get install ./MeridKestalUtility-*.deb` finds it); older
# MeridKestalUtility-*.deb files there are removed first, so that the pattern
# names one package.
#
# The firmware images to embed: -DMERID_ESP32_IMAGE/-DMERID_STM32_IMAGE given
# once to the configure of BUILD_DIR stay in its cache; the environment
# variables of the same names, when set, are passed on.
set -euo pipefail
cd "$(dirname "$0")/.."
SOURCE_DIR=$PWD
BUILD_DIR=${1:-${BUILD:-build}/package}
OUT_DIR=${2:-$SOURCE_DIR}
JOBS=${JOBS:-$(nproc)}

mkdir -p "$BUILD_DIR" "$OUT_DIR"
BUILD_DIR=$(cd "$BUILD_DIR" && pwd)
OUT_DIR=$(cd "$OUT_DIR" && pwd)

# One build at a time in a build folder: a second caller waits.
exec 9>"$BUILD_DIR/.package.lock"
flock 9

images=()
[ -n "${MERID_ESP32_IMAGE:-}" ] && images+=("-DMERID_ESP32_IMAGE=$MERID_ESP32_IMAGE")
[ -n "${MERID_STM32_IMAGE:-}" ] && images+=("-DMERID_STM32_IMAGE=$MERID_STM32_IMAGE")

# A folder configured before (for example with the image paths, as the
# README shows) keeps its generator.
generator=()
[ -f "$BUILD_DIR/CMakeCache.txt" ] || generator=(-G Ninja)

echo "package: configuring $BUILD_DIR"
# The environment of a sanitizer build must not leak into the package.
env -u CFLAGS -u CXXFLAGS -u LDFLAGS \
    cmake -S "$SOURCE_DIR" -B "$BUILD_DIR" "${generator[@]}" -DCMAKE_BUILD_TYPE=Release \
    -DMERID_SANITIZE= -DMERID_BUILD_TESTS=OFF -DMERID_BUILD_TOOLS=OFF \
    -DMERID_BUILD_BENCH=OFF -DMERID_BUILD_FUZZ=OFF "${images[@]}" >/dev/null
echo "package: building"
cmake --build "$BUILD_DIR" -j "$JOBS"

echo "package: packing"
rm -rf "$BUILD_DIR/cpack"
(cd "$BUILD_DIR" && cpack -G DEB -B "$BUILD_DIR/cpack" >/dev/null)
shopt -s nullglob
built=("$BUILD_DIR"/cpack/MeridKestalUtility-*.deb)
if [ ${#built[@]} -ne 1 ]; then
    echo "package: expected one MeridKestalUtility-*.deb in $BUILD_DIR/cpack, found ${#built[@]}" >&2
    exit 1
fi
rm -f "$OUT_DIR"/MeridKestalUtility-*.deb
cp "${built[0]}" "$OUT_DIR/"
deb="$OUT_DIR/$(basename "${built[0]}")"

if grep -q '^MERID_ESP32_IMAGE:FILEPATH=$' "$BUILD_DIR/CMakeCache.txt" ||
    grep -q '^MERID_STM32_IMAGE:FILEPATH=$' "$BUILD_DIR/CMakeCache.txt"; then
    echo "package: WARNING: this package embeds PLACEHOLDER firmware images; never flash them into" \
        "a real device (see README: build with the real firmware images)" >&2
fi
echo "package: $deb"
dpkg-deb --field "$deb" Package Version Architecture Depends
