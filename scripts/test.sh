#!/usr/bin/env bash
# Set up, build, fuzz every decoder for a bounded time (FUZZ_TOTAL_SECONDS shared
# between the targets; FUZZ_SECONDS=0 skips fuzzing), then run the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
if [ "${FUZZ_SECONDS:-}" != 0 ]; then
  bash scripts/fuzz.sh
fi
cmake --preset release >/dev/null
cmake --build --preset release
ctest --preset release -j2
