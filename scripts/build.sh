#!/usr/bin/env bash
# Configures and builds the project into build/ (or $QUENDRAL_BUILD_DIR).
# Extra arguments go to CMake's configure step, e.g. -DQUENDRAL_SANITIZE=thread.
# QUENDRAL_BUILD_TARGETS="a b" builds only those targets (and what they need).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${QUENDRAL_BUILD_DIR:-$root/build}"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE="${CMAKE_BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
targets=()
for target in ${QUENDRAL_BUILD_TARGETS:-}; do
  targets+=(--target "$target")
done
cmake --build "$build" -j"$(nproc)" "${targets[@]}"
