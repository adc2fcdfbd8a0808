#!/usr/bin/env bash
# Set up, build, and run the ozrdc tool's benchmark on the built-in sample corpus.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release
./build/release/tools/ozrdc/ozrdc version
./build/release/tools/ozrdc/ozrdc bench "$@"
