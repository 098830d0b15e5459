#!/usr/bin/env bash
# Regenerates docs/*.png, the pictures of the application's windows in the
# README: the real window code against a simulated Controller in a umockdev
# USB world, on a virtual X display (xvfb-run). Three runs: the light theme
# at scale 1 (the main window during an update, the serial monitor, the IP
# configuration, the About box), a dark theme (the IP configuration), and
# scale 2 on a 1280x800 screen (the serial monitor).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${QUENDRAL_BUILD_DIR:-$root/build}"
cmake --build "$build" --target quendral-screenshots >/dev/null
unset QT_QPA_PLATFORM QT_SCALE_FACTOR
shots="$build/sim/screenshots/quendral-screenshots"
xvfb-run -a -s "-screen 0 1280x1024x24" umockdev-wrapper "$shots" "$root/docs"
xvfb-run -a -s "-screen 0 1280x1024x24" umockdev-wrapper "$shots" "$root/docs" --dark
QT_SCALE_FACTOR=2 xvfb-run -a -s "-screen 0 1280x800x24" umockdev-wrapper "$shots" "$root/docs" --large
