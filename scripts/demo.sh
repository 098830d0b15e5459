#!/usr/bin/env bash
# Sets up a fresh machine, builds, and runs the main job.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
build="${QUENDRAL_BUILD_DIR:-$root/build}"
cli="$build/src/cli/quendral-cli"
"$cli" --version
echo "Log file: $("$cli" log)"
