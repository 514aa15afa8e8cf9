#!/usr/bin/env bash
# The main job on the built-in default scene: builds the library and the
# command-line host, then renders the demo frame to out/demo.png.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build/release --target lumets_tool -j"$(nproc)"
mkdir -p out
./build/release/tools/lumets demo --output out/demo.png "$@"
