#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need.
# Quiet and quick when everything is present already; root or sudo.
set -euo pipefail

PACKAGES=(
    build-essential g++ cmake ninja-build pkg-config make git ccache
    libgtkmm-3.0-dev libglib2.0-dev-bin libgtk-3-bin
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    clang libclang-rt-14-dev clang-format
    xvfb xauth xdotool x11-utils imagemagick libx11-dev libxtst-dev librsvg2-bin
    g++-mingw-w64-x86-64-posix wine64
    desktop-file-utils appstream dpkg-dev file groff-base
    zlib1g-dev libz-mingw-w64-dev libgcrypt20-dev libgcrypt-mingw-w64-dev libcli11-dev nlohmann-json3-dev
    meson mm-common libxml-parser-perl m4 gettext nsis zip unzip adwaita-icon-theme hicolor-icon-theme fonts-dejavu-core
)

missing=()
for pkg in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$pkg")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
    SUDO=()
elif command -v sudo >/dev/null 2>&1; then
    SUDO=(sudo)
else
    echo "install-deps: missing packages (${missing[*]}) and neither root nor sudo" >&2
    exit 1
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${SUDO[@]}" apt-get update -qq
"${SUDO[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
