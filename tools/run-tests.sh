#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test; ends with CTest's summary.
# SANITIZE=1 builds into build-asan/ with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
if [ "${SANITIZE:-0}" = "1" ]; then
    export BUILD_DIR="${BUILD_DIR:-$root/build-asan}"
    "$root/tools/build.sh" -DNORVEXA_SANITIZE=ON -DNORVEXA_BUILD_BENCHMARKS=OFF
else
    export BUILD_DIR="${BUILD_DIR:-$root/build}"
    "$root/tools/build.sh"
fi
cd "$BUILD_DIR" && ctest --output-on-failure --timeout 300 -j "$(nproc)"
