#!/usr/bin/env bash
# Builds irframe and runs its main job. Until the driver lands this decodes a sample touch frame
# and configuration block and prints them.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DIRFRAME_TESTS=OFF \
  -DIRFRAME_BENCH=OFF >/dev/null
cmake --build build/release -j "$(nproc)" >/dev/null
exec build/release/mtdev-decode "$@"
