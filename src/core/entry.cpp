// The export table and the exported entry stubs.
//
// m7_arraddr holds one pointer per exported function, pointing at its m7_
// implementation. It lives in .data.rel.ro: the loader fills it with relative
// relocations when the library is mapped, and it is read-only from then on, so the
// table needs no initialisation code and no lock.
//
// Each exported symbol is a stub of one instruction, `jmp *slot(%rip)`, that reaches
// the implementation with the caller's arguments and return address untouched.
// Both the table and the stubs are generated from exports.inc, in its order.
#include "m7.h"

#define OZR_SLOT(name) "m7_slot_" #name ":\n\t.quad m7_" #name "\n"
#define OZR_STUB(name)                                 \
    "\t.globl " #name "\n"                             \
    "\t.type " #name ", @function\n"                   \
    "\t.p2align 4\n" #name ":\n"                       \
    "\tjmp *m7_slot_" #name "(%rip)\n"                 \
    "\t.size " #name ", .-" #name "\n"

asm("\t.section .data.rel.ro, \"aw\"\n"
    "\t.p2align 3\n"
    "\t.globl m7_arraddr\n"
    "\t.hidden m7_arraddr\n"
    "\t.type m7_arraddr, @object\n"
    "m7_arraddr:\n"
#define OZR_ENTRY(group, name) OZR_ON_##group(OZR_SLOT(name))
#include "exports.inc"
#undef OZR_ENTRY
    "\t.size m7_arraddr, .-m7_arraddr\n"
    "\t.text\n"
#define OZR_ENTRY(group, name) OZR_ON_##group(OZR_STUB(name))
#include "exports.inc"
#undef OZR_ENTRY
    "\t.previous\n");
