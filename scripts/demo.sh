#!/usr/bin/env bash
# The program against a simulated board, to try it without hardware:
# scripts/demo.sh BUILD_DIR (make demo builds build/release first).
#
# merid-devsim serves a board on a pseudo-terminal: a payload device at
# address 2 with an ESP32 behind it. Its port is put in MERID_EXTRA_PORTS, so
# the connection dialog lists it beside the machine's own ports. When the
# program is closed the simulator stops and leaves what it received in
# BUILD_DIR/demo: the STM32 images as device2_file0.bin and the ESP32's whole
# flash as esp32-flash.bin.
#
# MERID_DEVSIM_ARGS passes more switches to the simulator, for example
# "--baud 115200" for a link as slow as a real one, or "--esp-fail-block 5
# --esp-fail-count 3" for an ESP32 flash that fails (merid-devsim --help).
set -euo pipefail
BUILD_DIR=${1:?usage: demo.sh BUILD_DIR}
BUILD_DIR=$(cd "$BUILD_DIR" && pwd)
PROGRAM="$BUILD_DIR/src/shell/MeridKestalUtility"
SIMULATOR="$BUILD_DIR/tools/devsim/merid-devsim"
DEMO="$BUILD_DIR/demo"

for file in "$PROGRAM" "$SIMULATOR"; do
    if [ ! -x "$file" ]; then
        echo "demo.sh: $file is not built (make demo builds it)" >&2
        exit 1
    fi
done
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
    echo "demo.sh: no display to show the window on (DISPLAY and WAYLAND_DISPLAY are unset)" >&2
    exit 1
fi

rm -rf "$DEMO"
mkdir -p "$DEMO/images"

SIM_PID=
stop_simulator() {
    if [ -n "$SIM_PID" ]; then
        # SIGINT lets it write the images and its summary.
        kill -INT "$SIM_PID" 2>/dev/null || true
        wait "$SIM_PID" 2>/dev/null || true
        SIM_PID=
        echo
        echo "The simulated board says:"
        sed -n '2,$p' "$DEMO/devsim.log"
    fi
}
trap stop_simulator EXIT

# shellcheck disable=SC2086 # the extra switches are split on purpose
"$SIMULATOR" --image-dir "$DEMO/images" --esp-flash-out "$DEMO/esp32-flash.bin" ${MERID_DEVSIM_ARGS:-} \
    >"$DEMO/devsim.log" 2>&1 &
SIM_PID=$!

# Its first line is the port it serves.
PORT=
for _ in $(seq 100); do
    PORT=$(head -n 1 "$DEMO/devsim.log" 2>/dev/null || true)
    case "$PORT" in
    /dev/*) break ;;
    esac
    if ! kill -0 "$SIM_PID" 2>/dev/null; then
        break
    fi
    PORT=
    sleep 0.1
done
if [ -z "$PORT" ]; then
    echo "demo.sh: the simulator did not start; it said:" >&2
    cat "$DEMO/devsim.log" >&2
    exit 1
fi
export MERID_EXTRA_PORTS="$PORT${MERID_EXTRA_PORTS:+:$MERID_EXTRA_PORTS}"

cat <<EOF
A simulated board is on $PORT.
In the window:
  1. Connection > Connect: choose $PORT, press the connect button.
  2. Press the search button: the board "MeridKestal STM32" is listed.
  3. Choose STM32 or ESP32, pick a file (or turn on the built-in image),
     and press upload. The bar climbs to 100 and says the device is flashed.
Close the window to stop; what the board received goes to $DEMO.
The program's log (every frame of a load) is in $DEMO/program.log.
EOF

"$PROGRAM" >"$DEMO/program.log" 2>&1
