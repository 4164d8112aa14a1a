#!/usr/bin/env bash
# Builds the GTK 3 and gtkmm 3 toolkit for 64-bit Windows (MinGW-w64, posix
# threads) from pinned source archives into one prefix, and prints that
# prefix's path as its last line.
#
#   MERID_WIN_SOURCES=DIR windows-gtk.sh
#
# DIR holds the archives and their SHA256SUMS. The prefix is kept under the
# user's cache folder, keyed by the checksums and this script, so a second
# run only checks the archives. It is built beside its final place and moved
# there at the end: a failed build leaves no prefix behind.
set -euo pipefail
SOURCES=$(realpath "${MERID_WIN_SOURCES:?set MERID_WIN_SOURCES to the folder of the toolkit archives}")
JOBS=${JOBS:-$(nproc)}
HOST=x86_64-w64-mingw32
MINGW_SYSROOT=/usr/$HOST
WINE=/usr/lib/wine/wine64
[ -x "$WINE" ] || WINE=$(command -v wine64 || command -v wine)
WINESERVER=/usr/lib/wine/wineserver64
[ -x "$WINESERVER" ] || WINESERVER=$(command -v wineserver)

fail() {
    echo "windows-gtk: $*" >&2
    exit 1
}
say() { echo "windows-gtk: $*" >&2; }

[ -f "$SOURCES/SHA256SUMS" ] || fail "missing $SOURCES/SHA256SUMS"
while read -r sum file; do
    [ -f "$SOURCES/$file" ] || fail "missing archive $SOURCES/$file"
    [ "$(sha256sum <"$SOURCES/$file" | cut -d ' ' -f 1)" = "$sum" ] ||
        fail "checksum mismatch: $SOURCES/$file"
done <"$SOURCES/SHA256SUMS"

key=$(cat "$SOURCES/SHA256SUMS" "$0" | sha256sum | cut -c 1-16)
CACHE=${XDG_CACHE_HOME:-$HOME/.cache}/merid
PREFIX=$CACHE/windows-gtk-$key
mkdir -p "$CACHE"
# One build at a time per cache: a second run waits and then finds it.
exec 9>"$CACHE/windows-gtk.lock"
flock 9
if [ -f "$PREFIX/.complete" ]; then
    echo "$PREFIX"
    exit 0
fi

# The libraries are installed into STAGE, a prefix of that name; once all
# are in, the text files that name it (pkg-config and libtool files, the
# generator's scripts) are pointed at PREFIX and the folder is moved there.
# Both folders keep their names from build to build, so that the compiler
# cache, which every compile here goes through, serves a rebuild.
STAGE=$CACHE/windows-gtk.building
WORK=$CACHE/windows-gtk.work
rm -rf "$STAGE" "$PREFIX" "$WORK"
mkdir -p "$STAGE/lib/pkgconfig" "$WORK"
LOG=$WORK/build.log
finish() {
    local status=$?
    if [ "$status" -ne 0 ]; then
        say "failed; the end of $LOG:"
        tail -n 40 "$LOG" >&2 || true
        rm -rf "$STAGE"
    fi
    WINEPREFIX=$WORK/wine "$WINESERVER" -k >/dev/null 2>&1 || true
    [ "$status" -ne 0 ] || rm -rf "$WORK"
}
trap finish EXIT

# Configure steps run test programs under Wine, in a prefix of their own.
export WINEPREFIX=$WORK/wine WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
export WINEPATH="Z:${STAGE//\//\\}\\bin;Z:${MINGW_SYSROOT//\//\\}\\lib;Z:\\usr\\lib\\gcc\\$HOST\\12-posix"
export PATH=$STAGE/bin-native:$PATH

CCACHE=
command -v ccache >/dev/null 2>&1 && CCACHE="'ccache', "
CROSS=$WORK/cross.txt
cat >"$CROSS" <<EOF
[binaries]
c = [$CCACHE'$HOST-gcc-posix']
cpp = [$CCACHE'$HOST-g++-posix']
ar = '$HOST-ar'
strip = '$HOST-strip'
windres = '$HOST-windres'
pkgconfig = 'pkg-config'
exe_wrapper = '$WINE'

[properties]
pkg_config_libdir = ['$STAGE/lib/pkgconfig', '$STAGE/share/pkgconfig', '$MINGW_SYSROOT/lib/pkgconfig']

[built-in options]
c_args = ['-DPCRE2_STATIC']
cpp_args = ['-DPCRE2_STATIC']

[host_machine]
system = 'windows'
cpu_family = 'x86_64'
cpu = 'x86_64'
endian = 'little'
EOF

# The licence texts of a library go with it, into share/licenses/NAME.
keep_licences() { # source folder
    local name
    name=$(basename "$1")
    mkdir -p "$STAGE/share/licenses/$name"
    find "$1" -maxdepth 1 -type f \( -name 'COPYING*' -o -name 'LICENSE*' -o -name 'LICENCE*' \) \
        -exec cp {} "$STAGE/share/licenses/$name/" \;
    # GLib keeps its texts in a LICENSES folder, FreeType names those in its
    # docs folder.
    [ ! -d "$1/LICENSES" ] || cp "$1"/LICENSES/* "$STAGE/share/licenses/$name/"
    [ ! -f "$1/docs/FTL.TXT" ] || cp "$1/docs/FTL.TXT" "$1/docs/GPLv2.TXT" "$STAGE/share/licenses/$name/"
    [ -n "$(ls -A "$STAGE/share/licenses/$name")" ] || fail "no licence text in $(basename "$1")"
}

unpack() { # archive; prints the source folder
    local dir
    dir=$(tar -tf "$SOURCES/$1" | sed -n '1s|/.*||p')
    tar -xf "$SOURCES/$1" -C "$WORK"
    keep_licences "$WORK/$dir" >&2
    echo "$WORK/$dir"
}

timed() { # name, command...
    local name=$1 start=$SECONDS
    shift
    say "$name"
    echo "=== $name" >>"$LOG"
    "$@" >>"$LOG" 2>&1
    say "$name: $((SECONDS - start)) s"
}

meson_build() { # archive, meson options...
    local src
    src=$(unpack "$1")
    shift
    (
        cd "$src"
        meson setup _build --cross-file "$CROSS" --prefix "$STAGE" --libdir lib \
            --buildtype release --default-library shared --wrap-mode nodownload "$@"
        meson compile -C _build -j "$JOBS"
        meson install -C _build --no-rebuild
    )
}

autotools_build() { # archive, configure options...
    local src
    src=$(unpack "$1")
    shift
    (
        cd "$src"
        export PKG_CONFIG_LIBDIR=$STAGE/lib/pkgconfig:$MINGW_SYSROOT/lib/pkgconfig PKG_CONFIG_PATH=
        export CC="${CCACHE:+ccache }$HOST-gcc-posix" CXX="${CCACHE:+ccache }$HOST-g++-posix"
        export CPPFLAGS="-I$STAGE/include" LDFLAGS="-L$STAGE/lib"
        ./configure --host=$HOST --prefix="$STAGE" "$@"
        make -j "$JOBS"
        make install
    )
}

build_libffi() {
    autotools_build libffi_3.4.4.orig.tar.gz --disable-shared --enable-static --disable-docs --disable-multi-os-directory
}

# The libraries alone: its test programs do not link against a static build.
build_pcre2() {
    local src
    src=$(unpack pcre2_10.42.orig.tar.gz)
    (
        cd "$src"
        CC="${CCACHE:+ccache }$HOST-gcc-posix" ./configure --host=$HOST --prefix="$STAGE" --disable-shared --enable-static \
            --enable-unicode
        make -j "$JOBS" libpcre2-8.la libpcre2-posix.la
        make install-libLTLIBRARIES install-nodist_includeHEADERS install-includeHEADERS install-pkgconfigDATA
    )
}

build_glib() {
    local src
    src=$(tar -tf "$SOURCES/glib2.0_2.74.6.orig.tar.xz" | sed -n '1s|/.*||p')
    tar -xf "$SOURCES/proxy-libintl-0.4.tar.xz" -C "$WORK"
    tar -xf "$SOURCES/glib2.0_2.74.6.orig.tar.xz" -C "$WORK"
    keep_licences "$WORK/$src"
    keep_licences "$WORK/proxy-libintl-0.4"
    mv "$WORK/proxy-libintl-0.4" "$WORK/$src/subprojects/proxy-libintl"
    (
        cd "$WORK/$src"
        meson setup _build --cross-file "$CROSS" --prefix "$STAGE" --libdir lib \
            --buildtype release --default-library shared --wrap-mode nodownload \
            -Dtests=false -Dnls=disabled -Dlibelf=disabled -Dman=false -Dgtk_doc=false
        meson compile -C _build -j "$JOBS"
        meson install -C _build --no-rebuild
    )
}

build_libpng() {
    autotools_build libpng1.6_1.6.39.orig.tar.gz --enable-shared --disable-static
}

build_freetype() {
    meson_build freetype_2.12.1+dfsg.orig.tar.xz -Dbrotli=disabled -Dbzip2=disabled -Dharfbuzz=disabled \
        -Dpng=enabled -Dzlib=system -Dtests=disabled
}

build_pixman() {
    meson_build pixman_0.42.2.orig.tar.gz -Dtests=disabled -Dgtk=disabled -Dlibpng=disabled -Dopenmp=disabled
}

build_fribidi() {
    meson_build fribidi_1.0.8.orig.tar.bz2 -Ddocs=false
}

build_harfbuzz() {
    meson_build harfbuzz_6.0.0+dfsg.orig.tar.xz -Dglib=enabled -Dgobject=disabled -Dcairo=disabled \
        -Dchafa=disabled -Dicu=disabled -Dfreetype=enabled -Dtests=disabled -Dintrospection=disabled \
        -Ddocs=disabled -Dbenchmark=disabled
}

build_cairo() {
    local src
    src=$(unpack cairo_1.16.0.orig.tar.xz)
    # Its configure asks for the fortified string functions, which MinGW
    # has only in libssp: the link would then need that library too.
    sed -i 's/-Wp,-D_FORTIFY_SOURCE=2//g' "$src/configure"
    (
        cd "$src"
        export PKG_CONFIG_LIBDIR=$STAGE/lib/pkgconfig:$MINGW_SYSROOT/lib/pkgconfig PKG_CONFIG_PATH=
        export CC="${CCACHE:+ccache }$HOST-gcc-posix" CPPFLAGS="-I$STAGE/include" LDFLAGS="-L$STAGE/lib"
        ./configure --host=$HOST --prefix="$STAGE" --enable-shared --disable-static \
            --enable-win32 --enable-win32-font --enable-ft --disable-fc --enable-png \
            --disable-xlib --disable-xlib-xrender --disable-xcb --disable-gl --disable-glesv2 \
            --disable-quartz --disable-script --disable-interpreter --disable-trace \
            --disable-gtk-doc --disable-valgrind --disable-full-testing
        # The library and its GObject types, which GDK needs; not its tools.
        make -C src -j "$JOBS"
        make -C src install
        make -C util/cairo-gobject -j "$JOBS"
        make -C util/cairo-gobject install
    )
}

build_pango() {
    meson_build pango1.0_1.50.12+ds.orig.tar.xz -Dintrospection=disabled -Dfontconfig=disabled \
        -Dcairo=enabled -Dfreetype=enabled -Dxft=disabled -Dlibthai=disabled -Dsysprof=disabled \
        -Dgtk_doc=false -Dinstall-tests=false
}

build_gdk_pixbuf() {
    meson_build gdk-pixbuf_2.42.10+dfsg.orig.tar.xz -Dbuiltin_loaders=all -Dpng=enabled -Djpeg=disabled \
        -Dtiff=disabled -Dintrospection=disabled -Dman=false -Dgtk_doc=false -Dtests=false \
        -Dinstalled_tests=false
}

build_libepoxy() {
    meson_build libepoxy_1.5.10.orig.tar.gz -Ddocs=false -Dglx=no -Degl=no -Dx11=false -Dtests=false
}

build_atk() {
    meson_build atk-2.38.0.tar.xz -Dintrospection=false -Ddocs=false
}

build_gtk() {
    meson_build gtk+3.0_3.24.38.orig.tar.xz -Dx11_backend=false -Dwayland_backend=false \
        -Dbroadway_backend=false -Dwin32_backend=true -Dquartz_backend=false -Dintrospection=false \
        -Ddemos=false -Dexamples=false -Dtests=false -Dinstalled_tests=false -Dgtk_doc=false -Dman=false \
        -Dcolord=no -Dxinerama=no -Dcloudproviders=false
}

# The C++ wrappers generate their sources at build time; pangomm, atkmm and
# gtkmm look for glibmm's generator library without a search path.
mm_build() { # archive, meson options...
    local archive=$1
    shift
    LDFLAGS="-L$STAGE/lib" meson_build "$archive" -Dmaintainer-mode=true -Dbuild-documentation=false "$@"
}

build_libsigcpp() {
    mm_build libsigc++-2.0_2.12.0.orig.tar.xz -Dbuild-examples=false -Dbuild-tests=false -Dvalidation=false
}
build_glibmm() { mm_build glibmm-2.66.5.tar.xz -Dbuild-examples=false; }
build_cairomm() { mm_build cairomm-1.14.3.tar.xz -Dbuild-examples=false -Dbuild-tests=false; }
build_pangomm() { mm_build pangomm-2.46.3.tar.xz; }
build_atkmm() { mm_build atkmm-2.28.3.tar.xz; }
build_gtkmm() { mm_build gtkmm-3.24.7.tar.xz -Dbuild-x11-api=false -Dbuild-demos=false -Dbuild-tests=false; }

start=$SECONDS
say "building into $STAGE (log: $LOG)"
"$WINE" wineboot -i >>"$LOG" 2>&1 || true
for library in libffi pcre2 glib libpng freetype pixman fribidi harfbuzz cairo pango gdk_pixbuf libepoxy \
    atk gtk libsigcpp glibmm cairomm pangomm atkmm gtkmm; do
    timed "$library" "build_$library"
done

# The GSettings schemas the toolkit reads, compiled for the bundle.
glib-compile-schemas "$STAGE/share/glib-2.0/schemas"
grep -rlI --null -F "$STAGE" "$STAGE" | xargs -0 -r sed -i "s|$STAGE|$PREFIX|g"
touch "$STAGE/.complete"
mv "$STAGE" "$PREFIX"
say "toolkit built in $((SECONDS - start)) s"
echo "$PREFIX"
