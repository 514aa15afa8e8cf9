#!/usr/bin/env bash
# Line and branch coverage of the library, the host library, the common and
# the platform layer by the whole suite (gcovr). Writes build/coverage/coverage.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
command -v gcovr >/dev/null || DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends gcovr
cmake -S . -B build/coverage -G Ninja -DCMAKE_BUILD_TYPE=Debug -DLUMETS_COVERAGE=ON \
  -DLUMETS_BUILD_BENCH=OFF
cmake --build build/coverage -j"$(nproc)"
find build/coverage -name '*.gcda' -delete
ctest --test-dir build/coverage --output-on-failure
# Branches the compiler adds for exceptions are not decisions of our code.
gcovr --root . --object-directory build/coverage --filter 'src/' --filter 'host/' \
  --filter 'platform/' --filter 'common/' --exclude-throw-branches --exclude-unreachable-branches \
  --print-summary --txt build/coverage/coverage.txt build/coverage | tail -3
