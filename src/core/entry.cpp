// The export table and the exported entry stubs.
//
// m7_arraddr holds one pointer per exported function. It lives in .data.rel.ro: the
// loader fills it with relocations when the library is mapped, and it is read-only
// from then on, so the table needs no initialisation code and no lock.
//
// Each exported symbol is a stub of one instruction, `jmp *slot(%rip)`, that reaches
// the implementation with the caller's arguments and return address untouched.
// Both the table and the stubs are generated from exports.inc, in its order.
//
// The caller's AVX state. Code compiled for AVX that returns without `vzeroupper`
// (isa-l's checksums do, and so does any hand-written AVX that forgets it) leaves
// the upper halves of the YMM/ZMM registers dirty. From then on every legacy-encoded
// SSE instruction, which is all this variant's vector code, runs against that dirty
// state and our SSE hot loops lose up to half their speed. Every vector register is
// call-clobbered on x86-64, so clearing the upper halves on entry breaks nothing the
// caller may rely on; but `vzeroupper` faults on a processor or an OS without AVX
// state, and this variant must run there.
//
// So each slot is filled by an IRELATIVE relocation: the loader calls the slot's
// selector once, at load time, and stores what it returns. Where the processor has
// AVX and the OS saves its state (CPUID.1:ECX.OSXSAVE and .AVX, XCR0 bits 1 and 2),
// the selector picks the entry's cleaning thunk, `vzeroupper; jmp m7_name`; elsewhere
// it picks m7_name itself. The stub stays one indirect jump, the table stays
// read-only, and the choice costs nothing per call beyond the thunk.
//
// CPUID traps to the hypervisor in a virtual machine (several microseconds each), so
// the answer is computed once: m7_upperState is itself an IRELATIVE word, and the
// selectors read it. It holds 1 (no AVX state: never clean) or 2 (clean on entry)
// once relocated; a selector that runs before it (the loader's order among IRELATIVE
// relocations is not promised) sees neither and asks the processor itself.
//
// Entries that run no vector instruction at all gain nothing from the thunk and are
// listed in OZR_DIRECT_ENTRIES: their slots point at the implementation directly.
// tests/check_isa.sh holds the shared object to all of this: `vzeroupper` only as
// the first instruction of a cleaning thunk, `xgetbv` only behind the OSXSAVE test
// in m7_upperStateDetect, and no direct entry reaching an XMM register.
#include "m7.h"

// Entries whose code uses no XMM register: the version and size queries (a few
// scalar stores) and the table-driven CRCs, whose short calls would pay for the
// thunk and gain nothing. Any other entry, including those of families added later,
// gets the cleaning thunk.
#define OZR_DIRECT_ENTRIES(X)                    \
    X(ozrdcGetLibVersion)                        \
    X(ozrsCRC32C_8u)                             \
    X(ozrsCRC32_8u)                              \
    X(ozrsCRC32_BZ2_8u)                          \
    X(ozrsEncodeLZ4HashTableGetSize_8u)          \
    X(ozrsEncodeLZ4HCHashTableGetSize_8u)        \
    X(ozrsEncodeLZOGetSize)                      \
    X(ozrsDecodeZfpGetDecompressedSizeLong_32f)  \
    X(ozrsDecodeZfpGetDecompressedSize_32f)      \
    X(ozrsDecodeZfpGetStateSize_32f)             \
    X(ozrsEncodeZfpGetCompressedBitSize_32f)     \
    X(ozrsEncodeZfpGetCompressedSizeLong_32f)    \
    X(ozrsEncodeZfpGetCompressedSize_32f)        \
    X(ozrsEncodeZfpGetStateSize_32f)

#define OZR_MARK_DIRECT(name) "\t.set .Ldirect_" #name ", 1\n"

#define OZR_SLOT(name)                  \
    "m7_slot_" #name ":\n"              \
    "\t.ifdef .Ldirect_" #name "\n"     \
    "\t.quad m7_" #name "\n"            \
    "\t.else\n"                         \
    "\t.quad m7_select_" #name "\n"     \
    "\t.endif\n"

#define OZR_STUB(name)                                 \
    "\t.globl " #name "\n"                             \
    "\t.type " #name ", @function\n"                   \
    "\t.p2align 4\n" #name ":\n"                       \
    "\tjmp *m7_slot_" #name "(%rip)\n"                 \
    "\t.size " #name ", .-" #name "\n"

// The cleaning thunk and the load-time selector of one entry.
#define OZR_CLEAN(name)                                            \
    "\t.ifndef .Ldirect_" #name "\n"                               \
    "\t.type m7_upperClean_" #name ", @function\n"                 \
    "\t.p2align 4\n"                                               \
    "m7_upperClean_" #name ":\n"                                   \
    "\tvzeroupper\n"                                               \
    "\tjmp m7_" #name "\n"                                         \
    "\t.size m7_upperClean_" #name ", .-m7_upperClean_" #name "\n" \
    "\t.type m7_select_" #name ", @gnu_indirect_function\n"        \
    "m7_select_" #name ":\n"                                       \
    "\tleaq m7_" #name "(%rip), %rax\n"                            \
    "\tleaq m7_upperClean_" #name "(%rip), %rdx\n"                 \
    "\tjmp m7_upperSelect\n"                                       \
    "\t.size m7_select_" #name ", .-m7_select_" #name "\n"         \
    "\t.endif\n"

asm("\t.section .data.rel.ro, \"aw\"\n"
    OZR_DIRECT_ENTRIES(OZR_MARK_DIRECT)
    "\t.p2align 3\n"
    "\t.type m7_upperState, @object\n"
    "m7_upperState:\n"
    "\t.quad m7_upperStateResolve\n"
    "\t.size m7_upperState, 8\n"
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
#define OZR_ENTRY(group, name) OZR_ON_##group(OZR_CLEAN(name))
#include "exports.inc"
#undef OZR_ENTRY

    // m7_upperSelect: %rax = the implementation, %rdx = its cleaning thunk; returns
    // the one this processor should run. Runs inside the loader: it touches nothing
    // that needs relocating and keeps %rbx (CPUID writes it).
    "\t.type m7_upperSelect, @function\n"
    "\t.p2align 4\n"
    "m7_upperSelect:\n"
    "\tmovl m7_upperState(%rip), %ecx\n"
    "\tleal -1(%rcx), %esi\n"
    "\tcmpl $1, %esi\n"
    "\tjbe 1f\n"
    "\tmovq %rax, %rsi\n"
    "\tcall m7_upperStateDetect\n"
    "\tmovl %eax, %ecx\n"
    "\tmovq %rsi, %rax\n"
    "1:\n"
    "\tcmpl $2, %ecx\n"
    "\tcmoveq %rdx, %rax\n"
    "\tret\n"
    "\t.size m7_upperSelect, .-m7_upperSelect\n"

    // m7_upperStateDetect: 2 when the processor has AVX and the OS saves the YMM
    // state (so that `vzeroupper` runs and the caller may have left it dirty), else 1.
    // XGETBV is only reached when CPUID reports OSXSAVE. Keeps %rbx, %rdx, %rsi.
    // m7_upperStateResolve is the same code seen by the loader as the resolver of
    // the m7_upperState word.
    "\t.type m7_upperStateResolve, @gnu_indirect_function\n"
    "\t.type m7_upperStateDetect, @function\n"
    "\t.p2align 4\n"
    "m7_upperStateResolve:\n"
    "m7_upperStateDetect:\n"
    "\tpushq %rbx\n"
    "\tpushq %rdx\n"
    "\tmovl $1, %eax\n"
    "\tcpuid\n"
    "\tmovl $1, %eax\n"
    "\tandl $0x18000000, %ecx\n"  // OSXSAVE (bit 27) and AVX (bit 28)
    "\tcmpl $0x18000000, %ecx\n"
    "\tjne 2f\n"
    "\txorl %ecx, %ecx\n"
    "\txgetbv\n"
    "\tandl $6, %eax\n"  // XCR0: SSE (bit 1) and AVX (bit 2) state enabled
    "\tcmpl $6, %eax\n"
    "\tmovl $1, %eax\n"
    "\tjne 2f\n"
    "\tmovl $2, %eax\n"
    "2:\n"
    "\tpopq %rdx\n"
    "\tpopq %rbx\n"
    "\tret\n"
    "\t.size m7_upperStateDetect, .-m7_upperStateDetect\n"
    "\t.previous\n");
