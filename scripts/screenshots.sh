#!/usr/bin/env bash
# Pictures of the program for the README: scripts/screenshots.sh BUILD_DIR
# (make screenshots builds build/release first). The program runs on its own
# virtual display, in a scratch home and temporary directory, with a
# simulated board as its serial port when the simulator is built; the main
# window and the connection dialog (opened from the menu with the keyboard,
# as a user would) are written to docs/.
#
# With WINDOWS_DIR, the folder of the Windows build's zip (make screenshots
# passes build/windows/MeridKestalUtility), the window also runs under Wine
# for docs/windows-main-window.png.
set -euo pipefail
BUILD_DIR=${1:?usage: screenshots.sh BUILD_DIR [WINDOWS_DIR]}
WINDOWS_DIR=${2:-}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR=$(cd "$BUILD_DIR" && pwd)
[ -z "$WINDOWS_DIR" ] || WINDOWS_DIR=$(cd "$WINDOWS_DIR" && pwd)
PROGRAM="$BUILD_DIR/src/shell/MeridKestalUtility"
SIMULATOR="$BUILD_DIR/tools/devsim/merid-devsim"
OUT="$ROOT/docs"

if [ ! -x "$PROGRAM" ]; then
    echo "screenshots.sh: $PROGRAM is not built" >&2
    exit 1
fi
for tool in xvfb-run xdotool import; do
    if ! command -v "$tool" >/dev/null 2>&1; then
        echo "screenshots.sh: $tool is missing (make deps installs it)" >&2
        exit 1
    fi
done

# Everything below runs inside the virtual display.
if [ "${MERID_SCREENSHOTS_INNER:-}" != 1 ]; then
    export MERID_SCREENSHOTS_INNER=1
    exec xvfb-run -a -s "-screen 0 1024x768x24" "$0" "$BUILD_DIR" "$WINDOWS_DIR"
fi

SCRATCH=$(mktemp -d)
PIDS=()
cleanup() {
    for pid in "${PIDS[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$SCRATCH"
}
trap cleanup EXIT
mkdir -p "$SCRATCH/home" "$SCRATCH/tmp" "$SCRATCH/logs" "$OUT"
export HOME="$SCRATCH/home" TMPDIR="$SCRATCH/tmp" XDG_CONFIG_HOME="$SCRATCH/home/.config"
export MERID_LOG_DIR="$SCRATCH/logs" MERID_LOG_PATH="$SCRATCH/early.log" MERID_LOG_LEVEL=OFF
export LANG=C.UTF-8 NO_AT_BRIDGE=1
unset MERID_UI_GLADE MERID_EXTRA_PORTS

# A simulated board whose port sorts after the machine's own, so that the
# dialog offers it first.
if [ -x "$SIMULATOR" ]; then
    "$SIMULATOR" --port-link "$SCRATCH/ttyMerid0" >"$SCRATCH/devsim.log" 2>&1 &
    PIDS+=($!)
    for _ in $(seq 50); do
        [ -e "$SCRATCH/ttyMerid0" ] && break
        sleep 0.1
    done
    export MERID_EXTRA_PORTS="$SCRATCH/ttyMerid0"
fi

"$PROGRAM" >"$SCRATCH/program.log" 2>&1 &
PIDS+=($!)
PROGRAM_PID=$!

window_of() { # title
    timeout 60 xdotool search --sync --onlyvisible --name "^$1\$" | head -1
}

shoot() { # window, file
    # Let the toolkit finish drawing before the picture is taken.
    sleep 1
    import -window "$1" "$2"
    echo "screenshots.sh: wrote $2"
}

MAIN=$(window_of MeridKestalUtility)
if [ -z "$MAIN" ]; then
    echo "screenshots.sh: the main window did not show; the program said:" >&2
    cat "$SCRATCH/program.log" >&2
    exit 1
fi
shoot "$MAIN" "$OUT/main-window.png"

# Connection > Connect, from the keyboard.
xdotool windowfocus --sync "$MAIN"
xdotool key F10
sleep 0.3
xdotool key Down
sleep 0.3
xdotool key Return
DIALOG=$(window_of Connection)
if [ -z "$DIALOG" ]; then
    echo "screenshots.sh: the connection dialog did not open" >&2
    exit 1
fi
shoot "$DIALOG" "$OUT/connection-dialog.png"

# With the simulated board: connect, search, and show the board found.
if [ -n "${MERID_EXTRA_PORTS:-}" ]; then
    # The connect button, then the search button, where the pictures above
    # show them.
    xdotool mousemove --window "$DIALOG" 150 162 click 1
    sleep 1
    xdotool mousemove --window "$MAIN" 120 59 click 1
    sleep 1
    shoot "$MAIN" "$OUT/main-window-board.png"
fi

# The window built for Windows under Wine, once the native one has gone (the
# two have the same title), in a prefix of its own with readable UI fonts.
if [ -n "$WINDOWS_DIR" ]; then
    kill "$PROGRAM_PID"
    wait "$PROGRAM_PID" 2>/dev/null || true
    WINE=/usr/lib/wine/wine64
    [ -x "$WINE" ] || WINE=$(command -v wine64 || command -v wine)
    WINESERVER=/usr/lib/wine/wineserver64
    [ -x "$WINESERVER" ] || WINESERVER=$(command -v wineserver)
    export WINESERVER WINEPREFIX="$SCRATCH/wine" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
    source "$ROOT/scripts/wine-ui-fonts.sh"
    "$WINE" wineboot -i >/dev/null 2>&1
    wine_ui_fonts
    wine_plain_desktop
    "$WINE" "$WINDOWS_DIR/MeridKestalUtility.exe" >"$SCRATCH/wine-program.log" 2>&1 &
    PIDS+=($!)
    WINDOWS_MAIN=$(window_of MeridKestalUtility)
    if [ -z "$WINDOWS_MAIN" ]; then
        echo "screenshots.sh: the window did not show under Wine; it said:" >&2
        cat "$SCRATCH/wine-program.log" >&2
        exit 1
    fi
    # Wine maps the window before the toolkit has drawn it, and its window
    # alone reads back partly unpainted: the picture is cut from the screen.
    sleep 3
    eval "$(xdotool getwindowgeometry --shell "$WINDOWS_MAIN")"
    import -window root -crop "${WIDTH}x${HEIGHT}+${X}+${Y}" +repage "$OUT/windows-main-window.png"
    echo "screenshots.sh: wrote $OUT/windows-main-window.png"
    "$WINESERVER" -k
fi
