#!/usr/bin/env bash
# Builds and runs the consumer project against the library, as a user would link it.
#   run.sh package  BUILD_DIR SOURCE_DIR WORK_DIR   installs BUILD_DIR into WORK_DIR/prefix
#   run.sh subdir   BUILD_DIR SOURCE_DIR WORK_DIR   adds SOURCE_DIR with add_subdirectory
# Passes when the program prints the fixture's size.
set -euo pipefail
mode="$1" build="$2" source="$3" work="$4"
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
rm -rf "$work" && mkdir -p "$work"
if [ "$mode" = package ]; then
    cmake --install "$build" --prefix "$work/prefix" >/dev/null
    cmake -S "$here" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
else
    cmake -S "$here" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNORVEXA_SOURCE_DIR="$source" >/dev/null
fi
cmake --build "$work/build" --parallel 2 >/dev/null
output="$("$work/build/consumer" "$source/data/cbf/fabio_small.cbf")"
echo "$output"
grep -Eq '^norvexa 3\.2\.0: [0-9]+ x [0-9]+$' <<<"$output"
