#!/usr/bin/env bash
# The main job on the built-in default scene: builds the library and the
# command-line host, then renders ten seconds of the demo scene to
# out/demo.mp4 and one frame of it to out/demo.png.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build/release --target lumets_tool -j"$(nproc)"
./build/release/tools/lumets demo --output out "$@"
