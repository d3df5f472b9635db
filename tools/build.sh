#!/usr/bin/env bash
# Configures and builds into build/ (or $BUILD_DIR); extra arguments go to cmake.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
"$root/tools/install-deps.sh"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-Release}" "$@" >/dev/null
cmake --build "$build" --parallel "$(nproc)"
