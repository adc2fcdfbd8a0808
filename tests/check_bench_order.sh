#!/usr/bin/env bash
# The benchmark must not let one suite's leftovers slow the next: isa-l's checksums
# return with the upper vector register halves dirty, and without the clean-ups the
# ZFP figures that follow them (ours more than libzfp's) drop by up to half. Runs
# `bench --only zfp` and `bench --only checksum zfp` in alternation for a few short
# rounds and fails when the median of any ZFP ratio (ours over libzfp, measured in
# the same run) differs by more than a factor of 1.3 between the two orders; the
# MB/s medians are printed beside them.
#
# Timing-based: on a busy machine a round can be slow for other reasons, hence the
# thread CPU clock (--cpu-time), the ratios, the alternation and the medians.
# Labelled `timing` and left out of the default test run.
# Usage: check_bench_order.sh path/to/ozrdc [rounds] [seconds-per-measurement]
set -u
tool=$1 rounds=${2:-5} seconds=${3:-0.05}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
for ((r = 0; r < rounds; ++r)); do
  # Alternate which order runs first in a round, so that drift hits both alike.
  for order in $([ $((r % 2)) = 0 ] && echo "alone after" || echo "after alone"); do
    if [ "$order" = alone ]; then families="zfp"; else families="checksum zfp"; fi
    "$tool" bench --json --cpu-time --seconds "$seconds" --only $families >"$tmp/out" || { echo "bench failed"; exit 1; }
    # One row per line: {"op": "...", "impl": "...", ..., "mbps": N, "ratio": R, ...}
    sed -n 's/.*"op": "\(zfp[^"]*\)", "impl": "\([^"]*\)".*"mbps": \([0-9.]*\), "ratio": \([0-9.]*\).*/\1|\2|\3|\4/p' \
      "$tmp/out" | sed "s/^/$order|/" >>"$tmp/all"
  done
done
awk -F'|' '
{ key = $2 " / " $3; v[$1, key, ++n[$1, key]] = $4; keys[key] = 1 }
$3 == "ozrdc" { key = $2 " / ratio"; v[$1, key, ++n[$1, key]] = $5; keys[key] = 1 }
function median(order, key,    m, i, j, t, s) {
    m = n[order, key]
    for (i = 1; i <= m; ++i) s[i] = v[order, key, i] + 0
    for (i = 2; i <= m; ++i) for (j = i; j > 1 && s[j - 1] > s[j]; --j) { t = s[j]; s[j] = s[j - 1]; s[j - 1] = t }
    return m % 2 ? s[(m + 1) / 2] : (s[m / 2] + s[m / 2 + 1]) / 2
}
END {
    bad = 0; count = 0
    printf "%-42s %12s %14s %8s\n", "ZFP figure (median: MB/s or ratio)", "zfp alone", "after checksum", "factor"
    for (k in keys) {
        x = median("alone", k); y = median("after", k)
        f = x > y ? x / y : y / x
        judged = k ~ / ratio$/
        printf "%-42s %12.2f %14.2f %8.2f%s\n", k, x, y, f, (judged && f > 1.3 ? "  <- more than 1.3" : "")
        if (judged) { ++count; if (f > 1.3) bad = 1 }
    }
    if (count == 0) { print "no ZFP figures in the benchmark output"; exit 1 }
    exit bad
}' "$tmp/all"
