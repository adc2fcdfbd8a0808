#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer)
# and runs each for FUZZ_SECONDS (default 10) from its seed corpus in fuzz/seeds/<target>.
# Found crashes are left in build/fuzz/artifacts.
set -euo pipefail
cd "$(dirname "$0")/.."
secs=${FUZZ_SECONDS:-10}
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
mkdir -p build/fuzz/artifacts
status=0
for t in build/fuzz/fuzz/fuzz_*; do
  [ -x "$t" ] || continue
  name=$(basename "$t")
  work=build/fuzz/corpus/$name
  mkdir -p "$work"
  seeds=fuzz/seeds/$name
  [ -d "$seeds" ] || seeds=""
  echo "fuzz: $name for ${secs}s"
  if ! "$t" -max_total_time="$secs" -rss_limit_mb=2048 -print_final_stats=0 \
        -artifact_prefix=build/fuzz/artifacts/"$name"- "$work" $seeds >build/fuzz/"$name".log 2>&1; then
    echo "fuzz: $name FAILED"; tail -40 build/fuzz/"$name".log; status=1
  else
    grep -E '^Done [0-9]+ runs' build/fuzz/"$name".log | tail -1 || true
  fi
done
exit $status
