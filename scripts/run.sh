#!/usr/bin/env bash
# Starts the built program: scripts/run.sh BUILD_DIR (make run builds
# build/release first). The program takes no options of its own; its
# environment variables are listed in the README.
set -euo pipefail
BUILD_DIR=${1:?usage: run.sh BUILD_DIR}
PROGRAM="$BUILD_DIR/src/shell/MeridKestalUtility"
if [ ! -x "$PROGRAM" ]; then
    echo "run.sh: $PROGRAM is not built" >&2
    exit 1
fi
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
    echo "run.sh: no display (DISPLAY is not set): start it from a desktop session, or under xvfb-run" >&2
    exit 1
fi
exec "$PROGRAM"
