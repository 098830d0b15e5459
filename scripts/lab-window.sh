#!/usr/bin/env bash
# Opens the application's window inside the device lab: a simulated
# KorbatekDue on old firmware in a umockdev USB world and the local HTTPS
# update server, with the window pointed at both. Needs a display (for a
# screenshot without one: xvfb-run -a bash scripts/lab-window.sh). Options
# before the window go to the lab, e.g. --controller mega2560.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"
QUENDRAL_BUILD_TARGETS="quendral-lab quendral-lab-window" "$root/scripts/build.sh"
build="${QUENDRAL_BUILD_DIR:-$root/build}"
exec "$build/sim/lab/quendral-lab" "$@" -- \
  "$build/sim/lab/quendral-lab-window" '{server}' '{ca}' '{resources}'
