#!/usr/bin/env bash
# Set up, build, fuzz every decoder for a bounded time (FUZZ_SECONDS per target,
# 0 to skip), then run the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
if [ "${FUZZ_SECONDS:-10}" != 0 ]; then
  bash scripts/fuzz.sh
fi
cmake --preset release >/dev/null
cmake --build --preset release
ctest --preset release -j2
