#!/usr/bin/env bash
# The Windows packages of the window: windows-package.sh MINGW_BUILD_DIR GTK_PREFIX OUT_DIR
#
# Lays out OUT_DIR/MeridKestalUtility: the two programs, the DLLs they load
# (found by walking the import tables, stripped), the toolkit's compiled
# settings schemas and the Adwaita and hicolor icon themes under share, and
# the licence texts of everything bundled. Then zips that folder into
# MeridKestalUtility-VERSION-win64.zip and builds the 64-bit installer
# MeridKestalUtility-VERSION-win64-setup.exe with NSIS, both in OUT_DIR.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR=$(realpath "${1:?usage: windows-package.sh MINGW_BUILD_DIR GTK_PREFIX OUT_DIR}")
PREFIX=$(realpath "${2:?usage: windows-package.sh MINGW_BUILD_DIR GTK_PREFIX OUT_DIR}")
OUT=$(realpath -m "${3:?usage: windows-package.sh MINGW_BUILD_DIR GTK_PREFIX OUT_DIR}")
HOST=x86_64-w64-mingw32
NAME=MeridKestalUtility

fail() {
    echo "windows-package: $*" >&2
    exit 1
}

VERSION=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$BUILD_DIR/CMakeCache.txt")
[ -n "$VERSION" ] || fail "$BUILD_DIR is not a configured build folder"
PROGRAMS=("$BUILD_DIR/src/shell/$NAME.exe" "$BUILD_DIR/src/cli/merid-flash.exe")
for program in "${PROGRAMS[@]}"; do
    [ -f "$program" ] || fail "missing $program (build the MinGW tree with the toolkit first)"
done

# Where the DLLs come from: the toolkit, then the compiler's runtime and
# libraries. A DLL found in none of them is the system's own.
RUNTIME_DIR=$(dirname "$($HOST-g++-posix -print-file-name=libstdc++-6.dll)")
SEARCH=("$PREFIX/bin" "/usr/$HOST/lib" "$RUNTIME_DIR")

find_dll() { # name; prints its path or nothing
    local dir found
    for dir in "${SEARCH[@]}"; do
        found=$(find "$dir" -maxdepth 1 -iname "$1" -print -quit 2>/dev/null)
        if [ -n "$found" ]; then
            echo "$found"
            return
        fi
    done
}

imports() { # PE file; the DLL names it imports
    $HOST-objdump -p "$1" | sed -n 's/^[[:space:]]*DLL Name: //p'
}

BUNDLE=$OUT/$NAME
rm -rf "$BUNDLE"
mkdir -p "$BUNDLE/share/glib-2.0/schemas" "$BUNDLE/share/icons" "$BUNDLE/licenses"

# The import tables, walked from the programs until no new DLL turns up.
declare -A seen=()
queue=("${PROGRAMS[@]}")
while [ ${#queue[@]} -gt 0 ]; do
    file=${queue[0]}
    queue=("${queue[@]:1}")
    while read -r dll; do
        key=${dll,,}
        [ -z "${seen[$key]:-}" ] || continue
        seen[$key]=1
        path=$(find_dll "$dll")
        [ -n "$path" ] || continue
        cp "$path" "$BUNDLE/"
        queue+=("$path")
    done < <(imports "$file")
done
cp "${PROGRAMS[@]}" "$BUNDLE/"
for file in "$BUNDLE"/*.exe "$BUNDLE"/*.dll; do
    $HOST-strip --strip-unneeded "$file"
done

# The toolkit's settings schemas and the icon themes, in the sizes the
# toolkit draws (its image loaders read PNG, not SVG; no cursors on Windows).
cp "$PREFIX/share/glib-2.0/schemas/gschemas.compiled" "$BUNDLE/share/glib-2.0/schemas/"
mkdir -p "$BUNDLE/share/icons/Adwaita"
cp /usr/share/icons/Adwaita/index.theme "$BUNDLE/share/icons/Adwaita/"
for size in 16x16 22x22 24x24 32x32 48x48; do
    cp -r "/usr/share/icons/Adwaita/$size" "$BUNDLE/share/icons/Adwaita/"
done
# hicolor is the fallback theme: its index alone, not the icons other
# packages on this machine have put into it.
mkdir -p "$BUNDLE/share/icons/hicolor"
cp /usr/share/icons/hicolor/index.theme "$BUNDLE/share/icons/hicolor/"
for theme in Adwaita hicolor; do
    gtk-update-icon-cache --quiet --force --ignore-theme-index "$BUNDLE/share/icons/$theme"
done

# The licence texts: the toolkit's libraries, the compiler's runtime, zlib,
# and the two icon themes.
cp -r "$PREFIX/share/licenses/." "$BUNDLE/licenses/"
for package in gcc-mingw-w64-base mingw-w64-common libz-mingw-w64 adwaita-icon-theme hicolor-icon-theme; do
    cp "/usr/share/doc/$package/copyright" "$BUNDLE/licenses/$package.copyright"
done

# The zip: the folder itself, so that it unpacks into one folder.
ZIP=$OUT/$NAME-$VERSION-win64.zip
rm -f "$ZIP"
(cd "$OUT" && zip -q -r -9 "$ZIP" "$NAME")

# The installer removes exactly what it installed: the lists of files and
# folders are written here, deepest folder first.
INSTALLER=$OUT/$NAME-$VERSION-win64-setup.exe
LISTS=$OUT/nsis
rm -rf "$LISTS"
mkdir -p "$LISTS"
(
    cd "$BUNDLE"
    find . -type f | sed 's|^\./||; s|/|\\|g' | sort | sed 's|.*|Delete "$INSTDIR\\&"|'
) >"$LISTS/uninstall-files.nsh"
(
    cd "$BUNDLE"
    find . -mindepth 1 -type d | sed 's|^\./||; s|/|\\|g' | sort -r | sed 's|.*|RMDir "$INSTDIR\\&"|'
) >"$LISTS/uninstall-folders.nsh"
makensis -V2 -INPUTCHARSET UTF8 -DVERSION="$VERSION" -DBUNDLE="$BUNDLE" -DLISTS="$LISTS" \
    -DICON="$BUILD_DIR/resources/stage/meridkestalutility.ico" -DOUTFILE="$INSTALLER" \
    "$ROOT/packaging/windows/$NAME.nsi" >/dev/null

echo "windows-package: $ZIP ($(stat -c %s "$ZIP") bytes)"
echo "windows-package: $INSTALLER ($(stat -c %s "$INSTALLER") bytes)"
echo "windows-package: $(find "$BUNDLE" -maxdepth 1 -name '*.dll' | wc -l) DLLs bundled"
