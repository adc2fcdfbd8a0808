#!/usr/bin/env bash
# The dynamic symbol table of the shared library, both ways: the defined symbols are
# exactly the entry points built so far, and the only import is __stack_chk_fail
# (the stack protector's hook, present once any function guards an array).
set -u
so=$1 expected=$2
fail=0
defined=$(nm -D --defined-only "$so" | awk '{print $3}' | sed 's/@.*//' | sort)
want=$(grep -v '^$' "$expected" | sort)
if [ "$defined" != "$want" ]; then
  echo "defined dynamic symbols differ from the export list:"
  diff <(echo "$want") <(echo "$defined")
  fail=1
fi
undefined=$(nm -D --undefined-only "$so" | awk '{print $NF}' | sed 's/@.*//' | sort -u | tr '\n' ' ')
if [ -n "$undefined" ] && [ "$undefined" != "__stack_chk_fail " ]; then
  echo "the only import may be __stack_chk_fail; imports are: $undefined"
  fail=1
fi
soname=$(objdump -p "$so" | awk '/SONAME/ {print $2}')
if [ "$soname" != "libozrdcm7.so.10" ]; then
  echo "SONAME is '$soname'"
  fail=1
fi
[ $fail = 0 ] && echo "exports: $(echo "$defined" | wc -l) entries, imports: $undefined"
exit $fail
