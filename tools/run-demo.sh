#!/usr/bin/env bash
# Installs what is missing, builds, and runs the demo.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
"$root/tools/build.sh"
# The demo works in demo-files/ under the caller's current directory.
exec "$build/examples/norvexa_demo" "$@"
