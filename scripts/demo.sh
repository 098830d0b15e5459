#!/usr/bin/env bash
# Sets up a fresh machine, builds, and runs the main job: a complete firmware
# update of a simulated KorbatekDue Controller on old firmware. The device lab
# (quendral-lab) builds a umockdev USB world with the Controller in it and
# starts the local HTTPS update server; quendral-cli then identifies the
# Controller, asks the server, waits while it builds the firmware, downloads
# and verifies it, resets the board into its boot loader and flashes it with
# the real bossac, and reports back. It ends with the Controller's new version.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"
# Only what the update needs: the command line and the device lab (the
# window, the tests and the benchmarks are built by scripts/test.sh).
QUENDRAL_BUILD_TARGETS="quendral-cli quendral-lab" "$root/scripts/build.sh"
build="${QUENDRAL_BUILD_DIR:-$root/build}"
exec "$build/sim/lab/quendral-lab" -- \
  "$build/src/cli/quendral-cli" update --yes --server '{server}' --ca-file '{ca}' --resources '{resources}'
