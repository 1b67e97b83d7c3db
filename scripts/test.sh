#!/bin/bash
# The whole test suite: Debian packages, then the fuzz targets for a short
# bounded time, the debug build with every test, the build with the platform
# split into its own shared libraries, and the AddressSanitizer +
# UndefinedBehaviorSanitizer build with every test (its ctest summary is the
# last thing printed).
#   FUZZ_SECONDS  seconds per fuzz target (default 15; 0 skips fuzzing)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh

fuzz_seconds=${FUZZ_SECONDS:-15}
if [ "$fuzz_seconds" -gt 0 ]; then
  echo "== fuzz targets, ${fuzz_seconds}s each"
  cmake --preset fuzz >/dev/null
  cmake --build --preset fuzz
  bash fuzz/run.sh build-fuzz "$fuzz_seconds"
fi

echo "== debug build and tests"
cmake --preset dev >/dev/null
cmake --build --preset dev
ctest --preset dev

echo "== platform split into its own shared libraries: build and tests (the slow lock time-outs are left to the other builds)"
cmake --preset split >/dev/null
cmake --build --preset split
ctest --preset split

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build and tests"
cmake --preset asan-ubsan >/dev/null
cmake --build --preset asan-ubsan
ctest --preset asan-ubsan
