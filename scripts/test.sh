#!/usr/bin/env bash
# Sets up a fresh machine, builds, and runs the whole test suite.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
build="${QUENDRAL_BUILD_DIR:-$root/build}"
# Every test carries exactly one label of its kind (unit, integration, gui, e2e, fuzz).
cmake -DBUILD_DIR="$build" -P "$root/cmake/CheckTestKinds.cmake"
cd "$build"
ctest --output-on-failure -j"$(nproc)" --timeout 300
