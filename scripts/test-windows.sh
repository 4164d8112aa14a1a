#!/usr/bin/env bash
# The Windows stage of the tests, under Wine in a throw-away prefix.
#
#   test-windows.sh MINGW_BUILD_DIR [NATIVE_BUILD_DIR]
#
# 1. The core unit tests (merid_core_tests.exe), with an echoing
#    pseudo-terminal mapped as COM6 for the serial port's echo test and one
#    that hangs up as COM7 for its failing reads; the
#    platform tests once more from a folder whose name is not ASCII.
# 2. The link scenario of tests/windows: merid_windows_integration.exe opens
#    COM5, which the prefix maps to a simulated board (merid-devsim on a
#    pseudo-terminal), and runs the search, the STM32 transfer and the ESP32
#    flash; the same scenario built natively runs against a second board.
#    The images each board kept must equal the files the scenario wrote, and
#    the two boards' journals of the frames they received must be equal.
# 3. merid-flash.exe flashes a slice of itself into the ESP32 of a fresh
#    board on COM5, compressed and checked by MD5, and the board's flash
#    must hold it.
# 4. When the window's packages are built (scripts/windows-package.sh into
#    PACKAGES_DIR, by default MINGW_BUILD_DIR/windows): the window scenario
#    of tests/windows, from the zip unpacked into a folder whose name is not
#    ASCII, on COM5 against a board that refuses ESP32 blocks 3 to 5; the
#    same scenario built natively against a second such board. The boards'
#    images must equal the files written and their journals must be equal
#    from the erase frame on.
# 5. The installer, silent, into a fresh prefix: the installed window
#    shows (found by its title on the display), and the uninstaller leaves
#    the install folder empty.
# Stages 4 and 5 need a display: scripts/test.sh runs this under Xvfb.
#
# The native programs (merid-devsim, merid_pty_echo and the native scenarios)
# come from NATIVE_BUILD_DIR, by default the asan build beside the MinGW one,
# which scripts/test.sh builds before this stage.
set -euo pipefail
MINGW_DIR=$(realpath "${1:?usage: test-windows.sh MINGW_BUILD_DIR [NATIVE_BUILD_DIR [PACKAGES_DIR]]}")
NATIVE_DIR=$(realpath -m "${2:-$(dirname "$MINGW_DIR")/asan}")
PACKAGES_DIR=$(realpath -m "${3:-$MINGW_DIR/windows}")

export LANG=C.UTF-8 LC_ALL=C.UTF-8
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0}
WINE=/usr/lib/wine/wine64
[ -x "$WINE" ] || WINE=$(command -v wine64 || command -v wine)
# The server beside the loader: /usr/bin/wineserver comes only with the
# package that wine64 merely recommends.
WINESERVER=/usr/lib/wine/wineserver64
[ -x "$WINESERVER" ] || WINESERVER=$(command -v wineserver)
export WINESERVER

core_tests=$MINGW_DIR/merid_core_tests.exe
windows_scenario=$MINGW_DIR/tests/windows/merid_windows_integration.exe
flash_program=$MINGW_DIR/src/cli/merid-flash.exe
devsim=$NATIVE_DIR/tools/devsim/merid-devsim
pty_echo=$NATIVE_DIR/tests/windows/merid_pty_echo
native_scenario=$NATIVE_DIR/tests/windows/merid_native_link_scenario
for program in "$core_tests" "$windows_scenario" "$flash_program" "$devsim" "$pty_echo" "$native_scenario"; do
    if [ ! -x "$program" ] && [ ! -f "$program" ]; then
        echo "test-windows: missing $program (build the MinGW and the native tree first)" >&2
        exit 1
    fi
done

work=$(mktemp -d "${TMPDIR:-/tmp}/merid-wine.XXXXXX")
started=() # processes of ours still running
cleanup() {
    WINEPREFIX="$work/prefix" "$WINESERVER" -k >/dev/null 2>&1 || true
    [ ! -d "$work/install-prefix" ] || WINEPREFIX="$work/install-prefix" "$WINESERVER" -k >/dev/null 2>&1 || true
    for pid in "${started[@]}"; do
        kill -TERM "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT

# A home of its own, so that the prefix's user folders (Desktop and the
# rest, which Wine links into the home) stay inside the throw-away tree.
mkdir -p "$work/home/Desktop"
export HOME="$work/home" WINEPREFIX="$work/prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
# A fixed zone, so the time-stamp tests see the same clock as natively.
export TZ=UTC

say() { printf -- '--- %s\n' "$*"; }
fail() {
    echo "test-windows: $*" >&2
    exit 1
}

# Starts a native program in the background; its first line of output (the
# pseudo-terminal it serves) goes to the variable named first.
start_serving() { # variable, output file, program, args...
    local variable=$1 output=$2
    shift 2
    "$@" >"$output" 2>"$output.err" &
    started+=($!)
    local line=""
    for _ in $(seq 100); do
        line=$(head -n 1 "$output" 2>/dev/null || true)
        [ -n "$line" ] && break
        sleep 0.1
    done
    [ -n "$line" ] || fail "$1 did not start: $(cat "$output.err")"
    printf -v "$variable" '%s' "$line"
}

# Stops one of the programs started above; its exit status.
stop_serving() { # pid
    local pid=$1 status=0
    kill -TERM "$pid"
    wait "$pid" || status=$?
    local left=()
    for other in "${started[@]}"; do
        [ "$other" = "$pid" ] || left+=("$other")
    done
    started=("${left[@]}")
    return "$status"
}

# The prefix's name for a Unix path: drive Z: is the root.
windows_path() {
    local path=$1
    printf 'Z:%s' "${path//\//\\}"
}

say "simulated boards and the echo port"
mkdir -p "$work/native" "$work/wine"
start_serving echo_pty "$work/echo.port" "$pty_echo"
start_serving wine_board_pty "$work/wine/board.port" "$devsim" \
    --image-dir "$work/wine" --journal "$work/wine/journal.txt" --esp-flash-out "$work/wine/esp32-flash.bin"
wine_board_pid=${started[-1]}
start_serving native_board_pty "$work/native/board.port" "$devsim" \
    --image-dir "$work/native" --journal "$work/native/journal.txt" --esp-flash-out "$work/native/esp32-flash.bin"
native_board_pid=${started[-1]}

say "Wine prefix with COM5 on the board ($wine_board_pty) and COM6 on the echo ($echo_pty)"
# Ports named in the registry are registered when the server starts, as
# real ones: so they are listed as well as opened.
"$WINE" wineboot -i >/dev/null 2>&1
"$WINE" reg add 'HKLM\Software\Wine\Ports' /v COM5 /d "$wine_board_pty" /f >/dev/null
"$WINE" reg add 'HKLM\Software\Wine\Ports' /v COM6 /d "$echo_pty" /f >/dev/null

# COM7: a line that hangs up at the first byte it receives, for the serial
# port's test of a cable pulled out.
start_serving hangup_pty "$work/hangup.port" "$pty_echo" --hang-up
"$WINE" reg add 'HKLM\Software\Wine\Ports' /v COM7 /d "$hangup_pty" /f >/dev/null
export MERID_TEST_HANGUP_PORT=COM7

"$WINESERVER" -w
# One server for the runs below. It holds the pseudo-terminals as its
# controlling terminals and takes their hang-up as a request to dump its
# objects: that goes to its own log, not here.
"$WINESERVER" -p 2>"$work/wineserver.log"

say "core tests (Windows build)"
mkdir -p "$WINEPREFIX/drive_c/merid"
cp "$core_tests" "$WINEPREFIX/drive_c/merid/"
MERID_TEST_ECHO_PORT=COM6 MERID_TEST_EXECUTABLE='C:\merid\merid_core_tests.exe' \
    timeout 600 "$WINE" 'C:\merid\merid_core_tests.exe' --gtest_brief=1

# The platform layer again from a folder whose name is not ASCII, so that
# its paths go through UTF-8. (GoogleTest's death tests start their child
# by the ANSI name of the program, which such a folder defeats.)
say "platform tests (Windows build) from a Cyrillic folder"
mkdir -p "$WINEPREFIX/drive_c/Проверка сборки"
cp "$core_tests" "$WINEPREFIX/drive_c/Проверка сборки/"
MERID_TEST_EXECUTABLE='C:\Проверка сборки\merid_core_tests.exe' \
    timeout 600 "$WINE" 'C:\Проверка сборки\merid_core_tests.exe' --gtest_brief=1 \
    --gtest_filter='Platform*:-*DeathTest*'

say "link scenario, native build, on $native_board_pty"
MERID_EXTRA_PORTS="$native_board_pty" MERID_LINK_PORT="$native_board_pty" \
    MERID_LINK_DIR="$work/native/Прошивки" \
    timeout 600 "$native_scenario" --gtest_brief=1
stop_serving "$native_board_pid" || fail "the native run's board exited badly: $(cat "$work/native/board.port.err")"

say "link scenario, Windows build, on COM5"
MERID_LINK_PORT=COM5 MERID_LINK_DIR="$(windows_path "$work/wine/Прошивки")" \
    timeout 600 "$WINE" "$windows_scenario" --gtest_brief=1
stop_serving "$wine_board_pid" || fail "the Windows run's board exited badly: $(cat "$work/wine/board.port.err")"

say "what the boards kept"
for run in native wine; do
    cmp "$work/$run/Прошивки/stm32.bin" "$work/$run/device2_file0.bin" ||
        fail "$run run: the STM32 image the board received differs from the file sent"
    image_size=$(stat -c %s "$work/$run/Прошивки/esp32.bin")
    [ "$image_size" -eq 65536 ] || fail "$run run: the ESP32 image has $image_size bytes"
    cmp -n "$image_size" "$work/$run/Прошивки/esp32.bin" "$work/$run/esp32-flash.bin" ||
        fail "$run run: the ESP32 flash differs from the image sent"
    # The enter frame, then the program's close and reopen of the port.
    grep -qx -A 2 'frame ok 7E 08 00 02 03 02 08 01 00 00 00 1E' "$work/$run/journal.txt" ||
        fail "$run run: the journal lacks the frame that enters the ESP32 loader"
    [ "$(grep -x -A 2 'frame ok 7E 08 00 02 03 02 08 01 00 00 00 1E' "$work/$run/journal.txt" | tail -n 2 |
        tr '\n' '/')" = "raw port closed/raw port opened/" ] ||
        fail "$run run: the port was not closed and reopened after the enter frame"
    grep -q '^raw C0 ' "$work/$run/journal.txt" || fail "$run run: the journal holds no ESP32 loader frames"
done
echo "both runs: 37312-byte STM32 image received byte-exact, 64 KiB ESP32 image in the flash at 0"

say "journals of the frames on the wire, native and Windows"
if ! cmp -s "$work/native/journal.txt" "$work/wine/journal.txt"; then
    diff "$work/native/journal.txt" "$work/wine/journal.txt" | cut -c 1-160 | head -n 40 >&2 || true
    fail "the Windows build put other frames on the wire than the native one"
fi
echo "equal: $(wc -l <"$work/wine/journal.txt") lines, $(grep -c '^frame ' "$work/wine/journal.txt") payload frames, $(grep -c '^raw C0 ' "$work/wine/journal.txt") loader frames"

say "merid-flash.exe esp32 -p COM5 on a fresh board, the image in a folder whose name is not ASCII"
# COM5 now leads to a new board: the server reads the ports when it starts.
"$WINESERVER" -k
mkdir -p "$work/flash"
start_serving flash_board_pty "$work/flash/board.port" "$devsim" --esp-flash-out "$work/flash/esp32-flash.bin"
flash_board_pid=${started[-1]}
"$WINE" reg add 'HKLM\Software\Wine\Ports' /v COM5 /d "$flash_board_pty" /f >/dev/null
"$WINESERVER" -w
"$WINESERVER" -p 2>>"$work/wineserver.log"
cp "$flash_program" "$WINEPREFIX/drive_c/merid/"
# Machine code, as a real image is: 128 KiB of the program itself, under a
# Cyrillic name, which only a wide command line carries whole.
flash_image="$work/flash/образы/прошивка.bin"
mkdir -p "$(dirname "$flash_image")"
head -c 131072 "$flash_program" >"$flash_image"
cp "$flash_image" "$work/flash/app.bin"
timeout 300 "$WINE" 'C:\merid\merid-flash.exe' esp32 -p COM5 "$(windows_path "$flash_image")" |
    tee "$work/flash/output.txt" || fail "merid-flash.exe failed"
grep -q '^COM5  esp32      131072 .*  verified' "$work/flash/output.txt" || fail "merid-flash.exe: no verified row"
grep -q "^image SHA-256 $(sha256sum "$flash_image" | cut -c 1-64)" "$work/flash/output.txt" ||
    fail "merid-flash.exe: no SHA-256 of the image, or another one"
stop_serving "$flash_board_pid" || fail "the merid-flash run's board exited badly: $(cat "$work/flash/board.port.err")"
cmp -n 131072 "$work/flash/app.bin" "$work/flash/esp32-flash.bin" || fail "the ESP32 flash differs from the image"
echo "merid-flash.exe: 128 KiB verified and in the flash at 0"

# --- The window (stages 4 and 5) --------------------------------------------
source "$(dirname "$0")/wine-ui-fonts.sh"
window_zip=""
[ ! -d "$PACKAGES_DIR" ] ||
    window_zip=$(find "$PACKAGES_DIR" -maxdepth 1 -name 'MeridKestalUtility-*-win64.zip' | sed -n 1p)
window_installer=${window_zip%.zip}-setup.exe
window_scenario=$MINGW_DIR/tests/windows/merid_windows_window_scenario.exe
native_window_scenario=$NATIVE_DIR/tests/windows/merid_native_window_scenario

# A board for the window scenario that refuses ESP32 blocks 3 to 5, in the
# run's folder; its pseudo-terminal goes to the variable RUN_pty.
window_board() { # run
    mkdir -p "$work/$1"
    start_serving "${1}_pty" "$work/$1/board.port" "$devsim" --esp-fail-block 3 --esp-fail-count 3 \
        --image-dir "$work/$1" --journal "$work/$1/journal.txt" --esp-flash-out "$work/$1/esp32-flash.bin"
}

# What a board kept after the window scenario: the STM32 image and the ESP32
# flash equal to the files in IMAGES.
check_window_board() { # run, images folder
    cmp "$2/stm32.bin" "$work/$1/device2_file0.bin" ||
        fail "$1: the STM32 image the board received differs from the file chosen"
    cmp -n 65536 "$2/esp32.bin" "$work/$1/esp32-flash.bin" ||
        fail "$1: the ESP32 flash differs from the file chosen"
}

# The frames a board received from the window's erase frame on.
from_erase() { # journal
    sed -n '/^frame ok 7E 08 .. 02 03 00 08 C7 42 1D 6A /,$p' "$1"
}

window_scenarios() {
    say "window scenario, native build"
    window_board window_native
    local native_pid=${started[-1]}
    GSETTINGS_BACKEND=memory MERID_EXTRA_PORTS="$window_native_pty" MERID_WINDOW_PORT="$window_native_pty" \
        MERID_WINDOW_DIR="$work/window_native/Прошивки" NO_AT_BRIDGE=1 \
        timeout 600 "$native_window_scenario" --gtest_brief=1 2>"$work/window_native/stderr.txt" ||
        fail "the native window scenario failed: $(tail -n 20 "$work/window_native/stderr.txt")"
    stop_serving "$native_pid" || fail "the native window run's board exited badly"

    say "window scenario, Windows build, from the zip in a Cyrillic folder, on COM5"
    local folder="$WINEPREFIX/drive_c/Окно сборки"
    mkdir -p "$folder"
    unzip -q "$window_zip" -d "$folder"
    cp "$window_scenario" "$folder/MeridKestalUtility/"
    "$WINESERVER" -k
    wine_plain_desktop
    wine_ui_fonts
    window_board window_wine
    local wine_pid=${started[-1]}
    "$WINE" reg add 'HKLM\Software\Wine\Ports' /v COM5 /d "$window_wine_pty" /f >/dev/null
    "$WINESERVER" -w
    "$WINESERVER" -p 2>>"$work/wineserver.log"
    MERID_WINDOW_PORT=COM5 MERID_WINDOW_DIR='C:\Окно сборки\Прошивки' \
        timeout 600 "$WINE" 'C:\Окно сборки\MeridKestalUtility\merid_windows_window_scenario.exe' --gtest_brief=1
    stop_serving "$wine_pid" || fail "the Windows window run's board exited badly"

    check_window_board window_native "$work/window_native/Прошивки"
    check_window_board window_wine "$folder/Прошивки"
    from_erase "$work/window_native/journal.txt" >"$work/window_native/from-erase.txt"
    from_erase "$work/window_wine/journal.txt" >"$work/window_wine/from-erase.txt"
    [ -s "$work/window_native/from-erase.txt" ] || fail "the native window's board saw no erase frame"
    if ! cmp -s "$work/window_native/from-erase.txt" "$work/window_wine/from-erase.txt"; then
        diff "$work/window_native/from-erase.txt" "$work/window_wine/from-erase.txt" | cut -c 1-160 |
            head -n 40 >&2 || true
        fail "the Windows window put other frames on the wire than the native one"
    fi
    echo "both windows: STM32 image and ESP32 flash byte-exact;" \
        "$(wc -l <"$work/window_wine/from-erase.txt") journal lines equal from the erase frame on"
}

# Milliseconds since the epoch.
now_ms() { date +%s%3N; }

installer_run() {
    say "installer, silent, into a fresh prefix"
    "$WINESERVER" -k
    export WINEPREFIX="$work/install-prefix"
    "$WINE" wineboot -i >/dev/null 2>&1
    wine_ui_fonts
    timeout 300 "$WINE" "$(windows_path "$window_installer")" /S
    "$WINESERVER" -w
    local install="$WINEPREFIX/drive_c/Program Files/MeridKestalUtility"
    local menu="$WINEPREFIX/drive_c/ProgramData/Microsoft/Windows/Start Menu/Programs/MeridKestalUtility"
    for file in MeridKestalUtility.exe merid-flash.exe Uninstall.exe share/glib-2.0/schemas/gschemas.compiled; do
        [ -f "$install/$file" ] || fail "the installer did not install $file"
    done
    [ -f "$menu/MeridKestalUtility.lnk" ] || fail "the installer made no Start-menu entry"

    say "the installed window"
    local start
    start=$(now_ms)
    "$WINE" 'C:\Program Files\MeridKestalUtility\MeridKestalUtility.exe' >"$work/installed.log" 2>&1 &
    started+=($!)
    local window_pid=${started[-1]}
    timeout 120 xdotool search --sync --onlyvisible --name '^MeridKestalUtility$' >/dev/null 2>&1 ||
        fail "the installed window did not show: $(tail -n 20 "$work/installed.log")"
    echo "the installed window showed after $(($(now_ms) - start)) ms"
    "$WINESERVER" -k
    wait "$window_pid" 2>/dev/null || true

    say "uninstaller, silent"
    # It copies itself to the temporary folder, starts that copy and
    # returns: the server's end is the end of the copy.
    timeout 300 "$WINE" 'C:\Program Files\MeridKestalUtility\Uninstall.exe' /S
    timeout 300 "$WINESERVER" -w
    if [ -d "$install" ] && [ -n "$(ls -A "$install")" ]; then
        fail "the uninstaller left $(find "$install" | head -n 5)"
    fi
    [ ! -e "$menu" ] || fail "the uninstaller left the Start-menu entry"
    echo "installed, started and removed without a trace"
}

if [ -z "$window_zip" ] || [ ! -f "$window_installer" ]; then
    say "no window packages in $PACKAGES_DIR: the window stages are skipped"
    exit 0
fi
for program in "$window_scenario" "$native_window_scenario"; do
    [ -f "$program" ] || fail "missing $program (build the MinGW and the native tree first)"
done
window_scenarios
installer_run
