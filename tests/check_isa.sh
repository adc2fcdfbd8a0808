#!/usr/bin/env bash
# Fails on any instruction the SSE3 variant may not use: SSSE3, SSE4.x, AVX (every
# VEX/EVEX form starts with 'v'), BMI1/2, LZCNT/POPCNT, PCLMUL, AES, SHA, MOVBE, ADX,
# F16C, XSAVE — with two exceptions that make the library keep its speed after a
# caller's AVX code, each allowed in exactly one place:
#   - vzeroupper, as the first instruction of a cleaning thunk m7_upperClean_<entry>,
#     whose whole body is `vzeroupper; jmp m7_<entry>` (the loader installs a thunk
#     in the export table only where the processor and the OS have AVX state);
#   - xgetbv, in m7_upperStateDetect, which reaches it only after CPUID has
#     reported OSXSAVE.
# Exported entries without a thunk go straight to their code; that code, and all it
# calls or jumps to, must not touch an XMM register (a dirty upper state would slow
# it down, and nothing would clean it).
set -u
so=$1
pattern='^(v[a-z0-9]+|pshufb|palignr|phaddw|phaddd|phaddsw|phsubw|phsubd|phsubsw|pmaddubsw|pmulhrsw|psign[bwd]|pabs[bwd]|pblendw|pblendvb|blendps|blendpd|blendvps|blendvpd|pmulld|pmuldq|pmin(sb|sd|uw|ud)|pmax(sb|sd|uw|ud)|ptest|pinsr[bdq]|pextr[bdq]|round[ps][sd]|dpp[sd]|pmov[sz]x[a-z]+|packusdw|pcmpeqq|pcmpgtq|mpsadbw|insertps|extractps|movntdqa|phminposuw|crc32[bwlq]?|pcmp[ei]str[im]|popcnt|lzcnt|tzcnt|andn|bextr|blsi|blsr|blsmsk|bzhi|pdep|pext|shlx|shrx|sarx|rorx|mulx|pclmul[a-z]*|aes[a-z]*|sha[0-9a-z]+|movbe|adcx|adox|xgetbv|xsetbv|xsave[a-z0-9]*|xrstor[a-z0-9]*)$'
exports=$(nm -D --defined-only "$so" | awk '{print $3}' | sed 's/@.*//' | tr '\n' ' ')
report=$(objdump -d --no-show-raw-insn "$so" | awk -F'\t' -v pattern="$pattern" -v exports="$exports" '
function fail(msg) { print msg; bad = 1 }
/^[0-9a-f]+ <[^>]+>:$/ { fn = $0; sub(/^[0-9a-f]+ </, "", fn); sub(/>:$/, "", fn); n[fn] = 0; next }
NF >= 2 && fn != "" {
    split($2, f, " "); op = f[1]; i = n[fn]++; ++total
    if (op ~ pattern) {
        if (op == "vzeroupper" && fn ~ /^m7_upperClean_/ && i == 0) ++thunks
        else if (op == "xgetbv" && fn == "m7_upperStateDetect") ++xgetbv
        else beyond[op]++
    }
    if (fn ~ /^m7_upperClean_/ && i == 1) {
        want = fn; sub(/^m7_upperClean_/, "m7_", want)
        if (op != "jmp" || $2 !~ ("<" want ">$")) fail(fn ": the thunk must jump to " want ", not: " $2)
    }
    if (fn ~ /^m7_upperClean_/ && i >= 2 && op !~ /^(nop[a-z]*|data16|cs|xchg)$/)
        fail(fn ": more than vzeroupper and a jump: " $2)
    if ($2 ~ /%[xyz]mm/) vec[fn] = 1
    if (op ~ /^(call|jmp)$/ && $2 ~ /\*/) vec[fn] = 1  # an unknown target: assume the worst
    if (op ~ /^(call|j[a-z]+)$/ && match($2, /<[^>+]+>$/)) {
        t = substr($2, RSTART + 1, RLENGTH - 2)
        if (t != fn) callees[fn] = callees[fn] " " t
    }
}
function touchesVector(g,    k, m, list) {
    if (g in seen) return 0
    seen[g] = 1
    if (g in vec) return 1
    m = split(callees[g], list, " ")
    for (k = 1; k <= m; ++k) if (touchesVector(list[k])) return 1
    return 0
}
END {
    for (op in beyond) fail("beyond SSE3: " beyond[op] " x " op)
    ne = split(exports, e, " ")
    direct = 0
    for (k = 1; k <= ne; ++k) {
        if (("m7_upperClean_" e[k]) in n) continue
        ++direct
        delete seen
        if (touchesVector("m7_" e[k]))
            fail(e[k] ": reaches XMM registers but has no cleaning thunk (remove it from OZR_DIRECT_ENTRIES)")
    }
    if (thunks == 0) fail("no cleaning thunk found")
    if (!bad) printf "no instruction beyond SSE3 in %d instructions; %d cleaning thunks, %d scalar entries without, xgetbv %d x\n", total, thunks, direct, xgetbv
    exit bad
}')
status=$?
echo "$report"
exit $status
