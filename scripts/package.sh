#!/usr/bin/env bash
# Makes the Debian package build/package/quendral-firmware-updater_<version>_<arch>.deb:
# installs what the build needs, builds the two programs and the files made
# for the installed tree (icons, manual pages, ...), then packs them with CPack.
# Extra arguments go to CMake's configure step, e.g.
#   -DQUENDRAL_INTERMEDIATE_FIRMWARE_DUE=/path/to/intermediate_due.hex
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"
QUENDRAL_BUILD_TARGETS="quendral-cli quendral-firmware-updater quendral_installed_files" "$root/scripts/build.sh" "$@"
build="${QUENDRAL_BUILD_DIR:-$root/build}"
cpack --config "$build/CPackConfig.cmake" -B "$build/package"
ls "$build"/package/*.deb
