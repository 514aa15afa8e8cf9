#!/usr/bin/env bash
# Checks the formatting, builds and runs the whole suite, then again under
# AddressSanitizer + UndefinedBehaviorSanitizer, then the threaded suites under
# ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
jobs="$(nproc)"

echo "== formatting"
find common src host platform playback gst obs include tools tests fuzz bench -name '*.cpp' -o -name '*.h' -o -name '*.c' |
  xargs clang-format --dry-run --Werror

echo "== release build"
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build/release -j"$jobs"
ctest --test-dir build/release --output-on-failure

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DLUMETS_SANITIZE=address,undefined -DLUMETS_BUILD_BENCH=OFF
cmake --build build/asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp" ctest --test-dir build/asan --output-on-failure

echo "== ThreadSanitizer (threaded suites)"
cmake -S . -B build/tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DLUMETS_SANITIZE=thread -DLUMETS_BUILD_BENCH=OFF -DLUMETS_BUILD_TOOLS=OFF
cmake --build build/tsan --target threaded_tests -j"$jobs"
# The sanitizer's shadow memory layout needs the address-space randomisation
# of older kernels; setarch -R turns it off for these runs only.
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp" \
  setarch "$(uname -m)" -R ctest --test-dir build/tsan -L threaded --output-on-failure
