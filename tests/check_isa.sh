#!/usr/bin/env bash
# Fails on any instruction the SSE3 variant may not use: SSSE3, SSE4.x, AVX (every
# VEX/EVEX form starts with 'v'), BMI1/2, LZCNT/POPCNT, PCLMUL, AES, SHA, MOVBE, ADX, F16C.
set -u
so=$1
pattern='^(v[a-z0-9]+|pshufb|palignr|phaddw|phaddd|phaddsw|phsubw|phsubd|phsubsw|pmaddubsw|pmulhrsw|psign[bwd]|pabs[bwd]|pblendw|pblendvb|blendps|blendpd|blendvps|blendvpd|pmulld|pmuldq|pmin(sb|sd|uw|ud)|pmax(sb|sd|uw|ud)|ptest|pinsr[bdq]|pextr[bdq]|round[ps][sd]|dpp[sd]|pmov[sz]x[a-z]+|packusdw|pcmpeqq|pcmpgtq|mpsadbw|insertps|extractps|movntdqa|phminposuw|crc32[bwlq]?|pcmp[ei]str[im]|popcnt|lzcnt|tzcnt|andn|bextr|blsi|blsr|blsmsk|bzhi|pdep|pext|shlx|shrx|sarx|rorx|mulx|pclmul[a-z]*|aes[a-z]*|sha[0-9a-z]+|movbe|adcx|adox)$'
bad=$(objdump -d --no-show-raw-insn "$so" | awk -F'\t' 'NF >= 2 {split($2, f, " "); print f[1]}' | grep -E "$pattern" | sort | uniq -c)
if [ -n "$bad" ]; then
  echo "instructions beyond SSE3 in $so:"
  echo "$bad"
  exit 1
fi
echo "no instruction beyond SSE3 in $(objdump -d "$so" | grep -c '^ ') instructions"
