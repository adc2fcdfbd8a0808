#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer)
# and runs them from their seed corpora in fuzz/seeds/<target>. The time is a total,
# FUZZ_TOTAL_SECONDS (default 80), shared equally between the targets, so that adding
# a target does not lengthen the run; FUZZ_SECONDS, if set, gives each target that
# many seconds instead. Found crashes are left in build/fuzz/artifacts.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
targets=()
for t in build/fuzz/fuzz/fuzz_*; do
  [ -x "$t" ] && targets+=("$t")
done
[ ${#targets[@]} -gt 0 ] || { echo "fuzz: no targets built"; exit 1; }
if [ -n "${FUZZ_SECONDS:-}" ]; then
  secs=$FUZZ_SECONDS
else
  total=${FUZZ_TOTAL_SECONDS:-80}
  secs=$(( total / ${#targets[@]} ))
  [ "$secs" -ge 1 ] || secs=1
fi
mkdir -p build/fuzz/artifacts
status=0
for t in "${targets[@]}"; do
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
