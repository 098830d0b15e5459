#!/usr/bin/env bash
# Regenerates docs/*.png, the pictures of the application's three windows in
# the README: the real window code against a simulated Controller in a
# umockdev USB world, on a virtual X display (xvfb-run).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${QUENDRAL_BUILD_DIR:-$root/build}"
cmake --build "$build" --target quendral-screenshots >/dev/null
unset QT_QPA_PLATFORM
xvfb-run -a -s "-screen 0 1280x1024x24" \
  umockdev-wrapper "$build/sim/screenshots/quendral-screenshots" "$root/docs"
