/*
 * ozrdc.h — the public interface of libozrdcm7 (data-compression building blocks,
 * x86-64, SSE3 variant "m7").
 *
 * The library gives the pieces that compressors and file formats are built from:
 * checksums, Deflate encoding and resumable Inflate, LZ4 and LZO1X block coding,
 * LZSS, the stages of the bzip2 block-sorting pipeline and ZFP float blocks. It allocates
 * nothing, keeps no global mutable state and starts no threads: every state record,
 * table and buffer belongs to the caller, who asks its size (...GetSize), allocates
 * it, prepares it (...Init), uses it, and frees it. Calls are re-entrant; two calls
 * may run at once as long as they share no caller-owned state or output buffer.
 *
 * Conventions that hold for every function below:
 *   - Every function but ozrdcGetLibVersion returns an OzrResult: 0 success,
 *     negative an error (nothing useful was produced), positive a warning (part of
 *     the work was done; the in/out lengths say how much, and the caller goes on).
 *   - Arguments are checked in a fixed order: required pointers (ozrErrNullPointer),
 *     then lengths (ozrErrSize: signed lengths refused when <= 0, unsigned ones
 *     when 0), then modes, levels and parameters. Nothing is written to outputs,
 *     states or in/out arguments before these checks have passed.
 *   - Argument order: source(s) with length, destination(s) with length, then
 *     tables / state / work buffers, then modes and levels.
 *   - Lengths are signed 32-bit unless a function says otherwise.
 *   - "in/out" length pointers hold the room (or input) available on entry and are
 *     updated with what was consumed or produced on return.
 *   - The caller's processor state: the code uses SSE3 and below. Where the
 *     processor and the OS have AVX state, every entry point that runs vector code
 *     starts with vzeroupper (chosen once, when the library is loaded), so that AVX
 *     code of the caller's that returned with dirty upper register halves does not
 *     slow it down; vector registers are call-clobbered, so nothing is lost. Results
 *     never depend on MXCSR (flush-to-zero, denormals-are-zero, rounding): the ZFP
 *     coders run in the default modes and give the caller's MXCSR back as it was.
 *
 * Valid C99 and C++. Link with -lozrdcm7 (pkg-config: ozrdc; CMake: ozrdc::ozrdc).
 */
#ifndef OZRDC_H
#define OZRDC_H

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Element types ---------------------------------------------------------- */

typedef unsigned char      Ozr8u;
typedef signed char        Ozr8s;
typedef unsigned short     Ozr16u;
typedef signed short       Ozr16s;
typedef unsigned int       Ozr32u;
typedef signed int         Ozr32s;
typedef unsigned long long Ozr64u;
typedef signed long long   Ozr64s;
typedef float              Ozr32f;
typedef double             Ozr64f;

/* ---- Status codes ------------------------------------------------------------ */

/* Signed 32-bit status of every function except ozrdcGetLibVersion. */
typedef Ozr32s OzrResult;

enum OzrStatus {
    ozrOk                   =    0, /* success */
    ozrErr                  =   -1, /* an internal encoding step could not complete */
    ozrErrFailed            =   -2, /* malformed compressed data (e.g. a match before the history) */
    ozrErrOutOfRange        =   -4, /* bit stream has no room for the next word / no data left */
    ozrErrBadArgument       =   -5, /* a level, mode or flush code outside its set */
    ozrErrSize              =   -6, /* a length or size out of range (as a rule <= 0) */
    ozrErrNullPointer       =   -8, /* a required pointer is null */
    ozrErrBadParameter      =  -13, /* the state record was not initialised (wrong magic) */
    ozrErrAccelerationRange =  -16, /* an acceleration factor below 1 */
    ozrErrShift             =  -32, /* a negative shift count */
    ozrErrHuffTable         = -200, /* code lengths that do not form a valid prefix code */
    ozrErrLZOBroken         = -214, /* LZO compressed data is corrupt */
    ozrWarnSrcSizeLess      =   32, /* input ended before the stream was complete */
    ozrWarnDstSizeLess      =   33, /* output filled up; call again with more room */
    ozrWarnBWTSortLimit     =   47  /* BWT bucket sort stopped at its work limit */
};

/* ---- Version ----------------------------------------------------------------- */

typedef struct OzrVersionInfo {
    Ozr32s      major;        /* 2021 */
    Ozr32s      minor;        /* 6 */
    Ozr32s      majorBuild;   /* 0 */
    Ozr32s      build;        /* build stamp */
    char        targetCpu[4]; /* processor-variant code, "m7" and two zero bytes */
    const char* Name;         /* library name */
    const char* Version;      /* version string */
    const char* BuildDate;    /* build date, as "Mmm dd yyyy" */
} OzrVersionInfo;

/* Returns a pointer to the library's constant version record; the same pointer on
 * every call. Cannot fail. The caller must neither write through it nor free it. */
const OzrVersionInfo* ozrdcGetLibVersion(void);

/* ---- Checksums ----------------------------------------------------------------
 *
 * Running checksums: each call folds `len` bytes at `pSrc` into the caller-held
 * 32-bit value at `*pSum` (read on entry, written on exit), so that a stream may be
 * summed piece by piece: calling over consecutive pieces gives the value of one call
 * over the whole. Start values and what the stored value means:
 *
 *   ozrsCRC32_8u      start 0;          the stored value is the finished CRC-32
 *                                       (zlib / gzip / PNG) after every call.
 *   ozrsCRC32_BZ2_8u  start 0;          the stored value is the finished bzip2 CRC
 *                                       (MSB-first polynomial 0x04C11DB7).
 *   ozrsCRC32C_8u     start 0xFFFFFFFF; the register is stored as it is: complement
 *                                       the final value to get the standard CRC-32C.
 *   ozrsAdler32_8u    start 1;          the stored value is the finished Adler-32.
 *
 * On any error status the running value is left untouched.
 */

/* CRC-32 (reflected polynomial 0xEDB88320). Errors: pSrc or pCRC null ->
 * ozrErrNullPointer; len <= 0 -> ozrErrSize. */
OzrResult ozrsCRC32_8u(const Ozr8u* pSrc, Ozr32s len, Ozr32u* pCRC);

/* CRC-32C (Castagnoli, reflected 0x82F63B78), without pre- or post-inversion.
 * `len` is unsigned: every non-zero value is a byte count. Errors: pSrc or pCRC
 * null -> ozrErrNullPointer; len == 0 -> ozrErrSize. */
OzrResult ozrsCRC32C_8u(const Ozr8u* pSrc, Ozr32u len, Ozr32u* pCRC);

/* The CRC of bzip2 blocks and streams. Errors: pSrc or pCRC null ->
 * ozrErrNullPointer; len <= 0 -> ozrErrSize. */
OzrResult ozrsCRC32_BZ2_8u(const Ozr8u* pSrc, Ozr32s len, Ozr32u* pCRC);

/* Adler-32 (modulus 65521). Unlike the CRCs: pAdler null -> ozrErrNullPointer;
 * pSrc null stores 1 (the Adler-32 of nothing) and returns ozrOk; `len` is never
 * refused: len <= 0 sums no bytes but still stores both 16-bit halves of the
 * incoming value reduced modulo 65521. */
OzrResult ozrsAdler32_8u(const Ozr8u* pSrc, Ozr32s len, Ozr32u* pAdler);

/* ==== Deflate encoder ========================================================= */
/*
 * The Deflate (RFC 1951) encoder in pieces. The caller owns every table and buffer
 * and strings the calls together:
 *
 *   1. Allocate a window of winSize bytes (a power of two, 256..32768), a hash head
 *      table of hashSize Ozr32s (a power of two, 256..65536) and a hash previous
 *      table of winSize Ozr32s; fill both tables with -32768 (the empty mark).
 *      Optionally prime them with a preset dictionary (ozrsDeflateDictionarySet_8u).
 *   2. Per block: clear the two frequency tables, call ozrsDeflateLZ77_8u (or a
 *      matcher directly) over successive pieces of input. Each call turns bytes into
 *      the intermediate sequence -- two parallel buffers, Ozr8u literal or match
 *      length - 3, Ozr16u 0 for a literal or the match distance 1..32768 -- and adds
 *      1 to the frequency of every symbol it emits. Before the next call the caller
 *      puts the winSize bytes that precede the next unread byte into the window
 *      (window[winSize - 1] is the byte right before it); a caller that keeps its
 *      input in one buffer can pass a pointer winSize bytes before that byte.
 *   3. Build Huffman codes from the counts (remember the end-of-block symbol 256),
 *      write the block header, call ozrsDeflateHuff_8u over the sequence, then write
 *      the end-of-block code. Header, body and end code share the caller's pending
 *      bits (an Ozr16u of bits, lowest first, and their count).
 *
 * Positions: every byte has a position in a running 32-bit index space shared by
 * the hash tables; *pSrcIdx is the position of the next unread byte. A match may
 * reach back up to winSize - 1 bytes, into this call's source or into the window.
 * The frequency halves are 16-bit: a block of more than 65535 entries may wrap them.
 *
 * Levels 0..29 of ozrsDeflateLZ77_8u: three tunings of the 0..9 scale (the last
 * digit is the effort; levels 0, 10, 20 emit literals only). Last digit 0..4 runs
 * the greedy matcher, 5..9 the lazy one. Neither emits a match shorter than 4.
 *
 * The one-pass fastest mode (the ...Fastest... functions) matches and writes
 * Huffman codes in one pass, with no intermediate sequence and no chains: one probe
 * per position in the hash head table, a greedy match of 4..258 bytes, its codes
 * written at once through a 64-bit bit buffer. Its codes come from statistics: a
 * sample of the first block is counted with ozrsDeflateLZ77FastestGetStat_8u, later
 * blocks take the counts that the coder gathered while writing the block before;
 * ozrsDeflateLZ77FastestGenHuffTable_8u makes a 15-bit-limited code in which every
 * symbol has a code (so any data can be coded with it),
 * ozrsDeflateLZ77FastestGenHeader_8u writes that code's dynamic block header once
 * into a small buffer, and ozrsDeflateLZ77FastestPrecompHeader_8u
 * copies the ready header into the stream at the current bit for each block that
 * reuses it. The fixed code of RFC 1951 (mode 1 of the table generator) is the
 * fallback for small blocks, whose header is just BFINAL and BTYPE 01 (3 bits).
 * A stream: per block, counts (GetStat on a sample, or the previous block's) ->
 * GenHuffTable -> GenHeader -> PrecompHeader -> Fastest (flush 3 on the block's last
 * piece); after the final block, write out the pending bits as one more byte.
 *
 * The tables of the functions below are also the form that ozrsDeflateHuff_8u
 * takes: the chained matchers' counts may go through GenHuffTable and GenHeader.
 */

/* A frequency entry: freq is counted by the matchers; code is free for the caller. */
typedef struct OzrDeflateFreqTable {
    Ozr16u freq;
    Ozr16u code;
} OzrDeflateFreqTable;

/* A code entry: the code already bit-reversed (written lowest bit first as it
 * stands) and its length in bits, 1..15. */
typedef struct OzrDeflateHuffCode {
    Ozr16u code;
    Ozr16u len;
} OzrDeflateHuffCode;

/* LZ77 pass at level comprLevel (0..29). Consumes bytes at *ppSrc (advancing
 * *ppSrc, *pSrcIdx, reducing *pSrcLen), appends one entry per literal or match to
 * pLitDst / pDistDst (reducing *pDstLen, the free entries of both buffers) and adds
 * 1 to the frequency of each emitted symbol in pLitFreqTable (286 entries: literals,
 * 256, length codes 257..285) and pDistFreqTable (30 distance codes); the tables
 * are never cleared here. flush < 2: the last 261 unread bytes are left for the
 * next call (matches are never cut by the end of a piece), and so is a lazy match
 * decision that the next bytes could change; flush >= 2: everything is consumed,
 * the tail with shorter matches and literals. A call stops early, consistently,
 * when the free entries run out, and consumes at most 2^30 bytes.
 * The source index may be rebased (hash entries and *pSrcIdx lowered together,
 * *pSrcIdx becoming winSize) when positions approach 2^31.
 * Status: level < 0 or > 29 -> ozrErrSize (checked first); then as
 * ozrsDeflateLZ77Fast_8u. */
OzrResult ozrsDeflateLZ77_8u(const Ozr8u** ppSrc, Ozr32u* pSrcLen, Ozr32u* pSrcIdx,
                             const Ozr8u* pWindow, Ozr32u winSize,
                             Ozr32s* pHashHead, Ozr32s* pHashPrev, Ozr32u hashSize,
                             OzrDeflateFreqTable pLitFreqTable[286],
                             OzrDeflateFreqTable pDistFreqTable[30],
                             Ozr8u* pLitDst, Ozr16u* pDistDst, Ozr32u* pDstLen,
                             int comprLevel, int flush);

/* The greedy matcher (the longest match found is emitted at once) and the lazy one
 * (a match is held one byte, and a strictly longer one at the next byte wins), with
 * the arguments of ozrsDeflateLZ77_8u except that pParams points at the four level
 * parameters {maxChain, goodLength, niceLength, maxLazy}: chain links followed
 * (0: literals only), the match length that cuts the chain to a quarter, the length
 * that ends the search, and (greedy) the longest match whose inner positions are
 * hashed / (lazy) the length from which no better match is looked for.
 * Status: any pointer, *ppSrc or pParams null -> ozrErrNullPointer; winSize outside
 * 256..32768 or hashSize outside 256..65536 -> ozrErrSize; maxChain negative, or
 * non-zero with another parameter below 4 -> ozrErrBadArgument; else ozrOk. */
OzrResult ozrsDeflateLZ77Fast_8u(const Ozr8u** ppSrc, Ozr32u* pSrcLen, Ozr32u* pSrcIdx,
                                 const Ozr8u* pWindow, Ozr32u winSize,
                                 Ozr32s* pHashHead, Ozr32s* pHashPrev, Ozr32u hashSize,
                                 OzrDeflateFreqTable pLitFreqTable[286],
                                 OzrDeflateFreqTable pDistFreqTable[30],
                                 Ozr8u* pLitDst, Ozr16u* pDistDst, Ozr32u* pDstLen,
                                 const Ozr32u* pParams, int flush);
OzrResult ozrsDeflateLZ77Slow_8u(const Ozr8u** ppSrc, Ozr32u* pSrcLen, Ozr32u* pSrcIdx,
                                 const Ozr8u* pWindow, Ozr32u winSize,
                                 Ozr32s* pHashHead, Ozr32s* pHashPrev, Ozr32u hashSize,
                                 OzrDeflateFreqTable pLitFreqTable[286],
                                 OzrDeflateFreqTable pDistFreqTable[30],
                                 Ozr8u* pLitDst, Ozr16u* pDistDst, Ozr32u* pDstLen,
                                 const Ozr32u* pParams, int flush);

/* Enters the positions srcIdx .. srcIdx + srcLen - 4 (level > 0; 4-byte hash, head
 * and previous) or srcIdx .. srcIdx + srcLen - 3 (level <= 0; 3-byte rolling hash,
 * head only) of pSrc into the hash tables, emitting nothing: for data sent as a
 * stored block or otherwise passed over. Shorter spans do nothing.
 * Status: pSrc, pHashHeadDst or pHashPrevDst null -> ozrErrNullPointer; winSize or
 * hashSize out of range -> ozrErrSize; else ozrOk. */
OzrResult ozrsDeflateUpdateHash_8u(const Ozr8u* pSrc, Ozr32u srcIdx, Ozr32u srcLen,
                                   Ozr32s* pHashHeadDst, Ozr32u hashSize,
                                   Ozr32s* pHashPrevDst, Ozr32u winSize, int comprLevel);

/* Preset dictionary: copies the last min(dictLen, winSize) bytes of pDictSrc to the
 * start of pWindow and, when at least 258 were copied, enters their positions
 * 0 .. copied - 258 into the hash tables as ozrsDeflateUpdateHash_8u does. The
 * positions equal the window offsets, so the first ozrsDeflateLZ77_8u call starts
 * with *pSrcIdx = winSize: use a dictionary of at least winSize bytes (a shorter one
 * leaves a gap between its end and the data that the distances would count).
 * A dictionary shorter than 4 bytes (level 0: 3) does nothing.
 * Status: pDictSrc, pHashHeadDst, pHashPrevDst or pWindow null -> ozrErrNullPointer;
 * winSize or hashSize out of range -> ozrErrSize; else ozrOk. */
OzrResult ozrsDeflateDictionarySet_8u(const Ozr8u* pDictSrc, Ozr32u dictLen,
                                      Ozr32s* pHashHeadDst, Ozr32u hashSize,
                                      Ozr32s* pHashPrevDst, Ozr8u* pWindow,
                                      Ozr32u winSize, int comprLevel);

/* Huffman-codes srcLen entries of the intermediate sequence with the caller's codes
 * (every symbol met must have a length): literal codes, length codes with their
 * extra bits, distance codes with theirs, LSB first, behind the *pCodeLenBits
 * (0..16) pending bits in *pCode. Bytes go to pDst from index *pDstIdx on, which is
 * advanced; the 0..7 bits of the last partial byte are handed back in *pCode and
 * *pCodeLenBits. Writes no header and no end-of-block code. There is no output
 * length: the caller provides 6 bytes per entry plus 2 for the pending bits.
 * Status: any pointer null -> ozrErrNullPointer; else ozrOk. */
OzrResult ozrsDeflateHuff_8u(const Ozr8u* pLitSrc, const Ozr16u* pDistSrc, Ozr32u srcLen,
                             Ozr16u* pCode, Ozr32u* pCodeLenBits,
                             OzrDeflateHuffCode pLitHuffCodes[286],
                             OzrDeflateHuffCode pDistHuffCodes[30],
                             Ozr8u* pDst, Ozr32u* pDstIdx);

/* ---- The one-pass fastest mode ---- */

/* Matches and writes Huffman codes in one pass: literals and matches of the bytes at
 * *ppSrc are coded with pLitCodes / pDistCodes (every symbol must have a code, as
 * ozrsDeflateLZ77FastestGenHuffTable_8u makes them) behind the *pCodeLenBits
 * (0..16) pending bits in *pCode, into pDst from byte *pDstIdx on (pDst holds
 * dstLen bytes). pWindow, winSize, pHashHead, hashSize, *pSrcIdx: as for
 * ozrsDeflateLZ77_8u (head table only; fill it with -32768 first, and do not share
 * it with the chained matchers: this mode keeps 16-bit positions in at most 32 KiB
 * of it; near 2^31 *pSrcIdx drops by a multiple of 65536 and the table is left as
 * it is). A stream starts at *pSrcIdx 0 (any earlier position of the stream, from 0
 * on and within the window, may be referenced). Fastest when pWindow is the winSize
 * bytes right before *ppSrc in one buffer: no copy, and word compares across the
 * window's end. flush < 2: the last
 * 261 unread bytes are left for the next call; 2: everything is coded; 3: as 2, then
 * the end-of-block code. No block header is written. pLitStat / pDistStat (286 and
 * 30 counts, both given or both null): each written symbol is added to them, the
 * statistics for the next block's code. On return *ppSrc, *pSrcLen,
 * *pSrcIdx, *pDstIdx, *pCode and *pCodeLenBits (0..7, or up to 16 when the output
 * is full) are advanced.
 * Status: a pointer but the counts, *ppSrc, or one of the counts null ->
 * ozrErrNullPointer; winSize or hashSize out of range, dstLen 0, *pDstIdx > dstLen or *pCodeLenBits > 16 -> ozrErrSize;
 * ozrWarnDstSizeLess when fewer than 16 bytes of room stopped it before the input
 * (and, for flush 3, the end code) was done: call again with more room; else ozrOk. */
OzrResult ozrsDeflateLZ77Fastest_8u(const Ozr8u** ppSrc, Ozr32u* pSrcLen, Ozr32u* pSrcIdx,
                                    const Ozr8u* pWindow, Ozr32u winSize,
                                    Ozr32s* pHashHead, Ozr32u hashSize,
                                    Ozr8u* pDst, Ozr32u dstLen, Ozr32u* pDstIdx,
                                    Ozr16u* pCode, Ozr32u* pCodeLenBits,
                                    const OzrDeflateHuffCode pLitCodes[286],
                                    const OzrDeflateHuffCode pDistCodes[30],
                                    Ozr32u pLitStat[286], Ozr32u pDistStat[30], int flush);

/* Statistics for the fastest mode's codes: runs its matcher over srcLen bytes at
 * pSrc (a sample of the block to come, or the previous block), with a hash table of
 * its own on the stack and no history, and adds 1 per symbol it would write to
 * pLitStat (286 counts) and pDistStat (30); the counts are not cleared.
 * Status: a pointer null -> ozrErrNullPointer; srcLen <= 0 -> ozrErrSize; else ozrOk. */
OzrResult ozrsDeflateLZ77FastestGetStat_8u(const Ozr8u* pSrc, Ozr32s srcLen,
                                           Ozr32u pLitStat[286], Ozr32u pDistStat[30]);

/* Codes for the fastest mode or ozrsDeflateHuff_8u. mode 0: Huffman codes from the
 * counts, every count raised by one so that every symbol has a code (the data coded
 * may differ from the sample), lengths at most 15 bits (the counts are flattened
 * until the code fits). mode 2: the same from exact counts (the counts of a
 * chained matcher's block): a symbol counted 0 gets no code, except the
 * end-of-block symbol, and distance code 0 when no distance was counted. mode 1: the
 * fixed code of RFC 1951; the counts are not read and may be null.
 * Status: pLitCodes or pDistCodes null, or (mode 0) a count pointer null ->
 * ozrErrNullPointer; mode other than 0, 1, 2 -> ozrErrBadArgument; else ozrOk. */
OzrResult ozrsDeflateLZ77FastestGenHuffTable_8u(const Ozr32u pLitStat[286], const Ozr32u pDistStat[30],
                                                OzrDeflateHuffCode pLitCodes[286],
                                                OzrDeflateHuffCode pDistCodes[30], int mode);

/* Writes the dynamic block header (BFINAL 0, BTYPE 10, HLIT, HDIST, HCLEN, the
 * code-length code and the run-length coded lengths) that describes these codes
 * into pHeader (headerRoom bytes; 320 always suffice), from bit 0 of byte 0, and
 * stores its length in bits in *pHeaderBits. Trailing unused symbols are dropped
 * (at least 257 literal/length and 1 distance lengths are kept).
 * Status: a pointer null -> ozrErrNullPointer; headerRoom 0 -> ozrErrSize; a length
 * above 15 or no code for the end-of-block symbol -> ozrErr; the header does not
 * fit -> ozrWarnDstSizeLess (*pHeaderBits unchanged); else ozrOk. */
OzrResult ozrsDeflateLZ77FastestGenHeader_8u(const OzrDeflateHuffCode pLitCodes[286],
                                             const OzrDeflateHuffCode pDistCodes[30],
                                             Ozr8u* pHeader, Ozr32u headerRoom, Ozr32u* pHeaderBits);

/* Places a ready header (headerBits bits at pHeader, as ozrsDeflateLZ77FastestGenHeader_8u
 * wrote it) into the stream behind the *pCodeLenBits (0..16) pending bits in *pCode:
 * bytes go to pDst (dstLen bytes) from *pDstIdx on, the header's first bit (BFINAL)
 * set to 1 when final is non-zero; the 0..7 bits of the last partial byte come back
 * in *pCode / *pCodeLenBits. One header serves every block coded with its codes.
 * Status: a pointer null -> ozrErrNullPointer; headerBits < 3, dstLen 0,
 * *pCodeLenBits > 16 or *pDstIdx > dstLen -> ozrErrSize; not enough room ->
 * ozrWarnDstSizeLess with nothing written; else ozrOk. */
OzrResult ozrsDeflateLZ77FastestPrecompHeader_8u(const Ozr8u* pHeader, Ozr32u headerBits,
                                                 Ozr8u* pDst, Ozr32u dstLen, Ozr32u* pDstIdx,
                                                 Ozr16u* pCode, Ozr32u* pCodeLenBits, int final);



/* ==== Inflate ================================================================= */
/*
 * Decoding of RFC 1951 Deflate data, one block at a time. The caller parses the
 * stream itself: the 3-bit block header, stored blocks (byte-aligned, copied as they
 * stand) and, for a dynamic block, the code-length code and the literal/length and
 * distance code lengths. It then
 *   - for a dynamic block: calls ozrsInflateBuildHuffTable with those lengths, which
 *     builds the lookup tables inside the caller's OzrInflateState;
 *   - for a fixed-code block: sets pState->tableType to 0 (a constant table is used);
 * and calls ozrsInflate_8u, with fresh input or output room each time, until it
 * reports mode 0 (the end-of-block code was read). The bit buffer (*pCode and its
 * count *pCodeLenBits) travels between the caller and the decoder: bits are taken
 * from bit 0 upwards, input bytes are appended above the held bits, low byte first.
 * After the end of a block the bits still held and the unread input are where the
 * next block header starts.
 *
 * History: a match may reach back into the output already written in the same buffer
 * (dstIdx bytes before *ppDst, plus what this call writes) and, before that, into
 * the caller's window: pWindow[0, winIdx) holds the bytes that precede the output
 * buffer's start, the last of them at pWindow[winIdx - 1].
 */

/* Bytes of the table area inside OzrInflateState. */
#define OZR_INFLATE_TABLE_BYTES 14592

/* The decoder's state record: allocated by the caller (sizeof), no initialisation
 * call. The caller sets pWindow and winSize (pWindow may be null: no window);
 * ozrsInflateBuildHuffTable fills tableType, litMaxLen, distMaxLen and tableBuffer;
 * ozrsInflate_8u keeps an interrupted symbol in the four saved words. */
typedef struct OzrInflateState {
    const Ozr8u* pWindow;   /* history before the output buffer, or null */
    Ozr32u winSize;         /* bytes in pWindow */
    Ozr32u tableType;       /* 0: fixed code, 1: long-code table, 2: short-code table */
    Ozr32u reserved[2];     /* not used by the library */
    Ozr32u savedStep;       /* the symbol interrupted by the last call (mode 2) */
    Ozr32u savedValue;
    Ozr32u savedAux;
    Ozr32u savedEntry;
    Ozr32u litMaxLen;       /* longest literal/length code, in bits */
    Ozr32u distMaxLen;      /* longest distance code, in bits (0: no distance code) */
    Ozr8u tableBuffer[OZR_INFLATE_TABLE_BYTES]; /* opaque lookup tables */
} OzrInflateState;

/* In/out progress of ozrsInflate_8u. On return: 0, the end-of-block code was read
 * (the block is complete); 1, decoding stopped between two symbols because the input
 * ran out; 2, decoding stopped inside a symbol (its progress is in the state record).
 * On entry: 2 resumes the saved symbol; any other value starts at a symbol boundary
 * (pass 0 or 1 at the start of a block, then what the previous call returned).
 * The saved step tells a caller what a mode-2 stop waits for: savedStep 5 (a match)
 * or 6 (a literal) wait for output room; 2 (length extra bits), 3 (distance code) and
 * 4 (distance extra bits) wait for input, as mode 1 does. */
typedef Ozr32u OzrInflateMode;

/* Builds the decoding tables of a dynamic block into pState from its code lengths:
 * pCodeLens holds nLitCodeLens literal/length lengths (at most 288) followed by
 * nDistCodeLens distance lengths (0..30), each 0 (symbol unused) or 1..15. Both sets
 * must be complete prefix codes; one code of length 1 is also accepted for either,
 * and a distance set with no code at all (a block of literals only). Codes up to 11
 * bits (literal/length) and 10 bits (distance) give the single-level short-code table
 * (tableType 2), longer ones the two-level long-code table (tableType 1); litMaxLen
 * and distMaxLen receive the longest lengths. Lengths given to symbols 286 and 287
 * are accepted and decode as the literal byte 0.
 * Errors: pCodeLens or pState null -> ozrErrNullPointer; nLitCodeLens > 288 or
 * nDistCodeLens outside 0..30 -> ozrErrSize; no literal/length code, an over-
 * subscribed or incomplete set, a length above 15 -> ozrErrHuffTable, with the record
 * untouched; for the short-code table also fewer than 257 literal/length lengths or
 * no code for symbol 256 -> ozrErrHuffTable (the maxima are then already stored and
 * the table area partly written, tableType unchanged). pWindow and winSize are never
 * touched. */
OzrResult ozrsInflateBuildHuffTable(const Ozr16u* pCodeLens, Ozr32u nLitCodeLens, Ozr32s nDistCodeLens,
                                    OzrInflateState* pState);

/* Decodes the Huffman-coded data of one block into *ppDst, up to and including its
 * end-of-block code, and stops early where input or output runs out, even inside a
 * symbol (see OzrInflateMode). In/out on every return other than a null-pointer or
 * size error: *ppSrc and *pSrcLen advance past the input bytes taken into the bit
 * buffer; *pCode and *pCodeLenBits (at most 32) hold the unconsumed bits; *ppDst
 * advances past the bytes written and *pDstLen (the room) drops by as many. When the
 * input runs out, all of it has been taken and the bits held are fewer than the next
 * field needs. On any other return (end of block, output full, error) whole bytes that
 * were taken but not consumed are given back, so that fewer than 8 bits are held
 * unless more were passed in: after the end-of-block code the next block header starts
 * in *pCode and continues at *ppSrc. A literal or match that finds no room is still
 * decoded and kept in the state record (mode 2); an end-of-block code is read even
 * when the output is full. The result does not depend on how input and output are
 * split between calls.
 * winIdx: the bytes of history in pWindow (at most winSize). dstIdx: the bytes of
 * output already in the buffer before *ppDst, which matches may reach into.
 * Errors: a null pointer argument, *ppSrc or *ppDst null -> ozrErrNullPointer;
 * *pCodeLenBits > 32 or winIdx > winSize (unsigned) -> ozrErrSize; with nothing
 * written. A code that no symbol owns, a distance code in a block without distances,
 * a match reaching before the available history, or a tableType other than 0..2 ->
 * ozrErrHuffTable, with the in/out values written back as far as decoding got (an
 * invalid code is not consumed; a match that reaches too far is, with its distance;
 * the mode is left as it was). Otherwise ozrOk. */
OzrResult ozrsInflate_8u(const Ozr8u** ppSrc, Ozr32u* pSrcLen, Ozr32u* pCode, Ozr32u* pCodeLenBits, Ozr32s winIdx,
                         Ozr8u** ppDst, Ozr32u* pDstLen, Ozr32s dstIdx, OzrInflateMode* pMode,
                         OzrInflateState* pState);



/* ==== LZ4 =====================================================================
 *
 * Blocks of the LZ4 block format (no frame header, no checksum): a run of
 * sequences, each a token byte (high nibble: literal count, low nibble: match
 * length - 4; a nibble of 15 is continued by bytes that add up, 255 meaning another
 * byte follows), the literals, a 2-byte little-endian match offset (1..65535) and
 * the match length's extra bytes; the last sequence ends after its literals. The
 * encoders end every block with at least 5 literals and start no match in the last
 * 20 bytes of the input.
 *
 * Encoding: ask the table size (ozrsEncodeLZ4HashTableGetSize_8u, 16384 bytes),
 * allocate it once, and call ozrsEncodeLZ4_8u (output sized for the worst case),
 * ozrsEncodeLZ4Safe_8u (bounded output: encodes the longest prefix that fits) or
 * ozrsEncodeLZ4Fast_8u (faster, coarser search). These three clear the table
 * themselves. With a dictionary: ozrsEncodeLZ4DictHashTableInit_8u, then
 * ozrsEncodeLZ4LoadDict_8u(table, dict, dictLen), then ozrsEncodeLZ4Dict_8u or
 * ozrsEncodeLZ4DictSafe_8u with histLen = dictLen; the decoder then needs the same
 * dictionary (ozrsDecodeLZ4Dict_8u). A block that continues data lying right before
 * it in memory is encoded with pDict = pSrc - histLen and dictLen = histLen.
 *
 * Worst-case size of a block of n input bytes: n + n / 255 + 16.
 *
 * Decoding: ozrsDecodeLZ4_8u for a block without history, ozrsDecodeLZ4Dict_8u for
 * a block whose matches may reach into a dictionary or into earlier output. The
 * decoders never read past the input nor write past the capacity; a block that does
 * not fit, or is cut short, is decoded as far as it goes and reported by a warning.
 *
 * The high-compression encoder (ozrsEncodeLZ4HC...) writes the same format with
 * hash chains and a lazy or optimal parse; see its own introduction below.
 */

/* Writes the byte size of the encoders' hash table (always 16384) to
 * *pHashTableSize. Errors: null -> ozrErrNullPointer. */
OzrResult ozrsEncodeLZ4HashTableGetSize_8u(int* pHashTableSize);

/* Clears the hash table for an input of srcLen bytes (4096 16-bit entries below
 * 65536 bytes, else 4096 32-bit entries). The plain, bounded and accelerated
 * encoders clear the table themselves; this is for callers that want a defined
 * table. Errors: null -> ozrErrNullPointer; srcLen <= 0 -> ozrErrSize. */
OzrResult ozrsEncodeLZ4HashTableInit_8u(Ozr8u* pHashTable, int srcLen);

/* Clears the 4096 32-bit entries of a table for the dictionary encoders. Errors:
 * null -> ozrErrNullPointer; srcLen <= 0 -> ozrErrSize. */
OzrResult ozrsEncodeLZ4DictHashTableInit_8u(Ozr8u* pHashTable, int srcLen);

/* Enters every third position of the dictionary (p = 0, 3, 6, ... while more than 8
 * bytes follow p) into a dictionary table, as position p. A dictionary of 8 bytes or
 * less leaves the table as it is. Errors: a null pointer -> ozrErrNullPointer;
 * dictLen <= 0 -> ozrErrSize. */
OzrResult ozrsEncodeLZ4LoadDict_8u(Ozr8u* pHashTable, const Ozr8u* pDict, int dictLen);

/* Encodes srcLen bytes at pSrc as one block into pDst and stores its length in
 * *pDstLen. pDst must hold the worst case (srcLen + srcLen / 255 + 16 bytes); the
 * capacity is not checked, and bytes of that area past the block may be
 * overwritten. The table (16384 bytes, caller-owned) is cleared first.
 * Errors: a null table -> ozrErrNullPointer (from the clearing, before any other
 * check); any other null pointer -> ozrErrNullPointer; srcLen <= 0 -> ozrErrSize. */
OzrResult ozrsEncodeLZ4_8u(const Ozr8u* pSrc, int srcLen, Ozr8u* pDst, int* pDstLen, Ozr8u* pHashTable);

/* Bounded-output encoding. *pSrcLen: in, the input length; out, the number of input
 * bytes the block covers. *pDstLen: in, the capacity of pDst; out, the block length.
 * Nothing is written past the capacity. When the whole input does not fit, the block
 * is a complete, valid block of the first *pSrcLen bytes and the status is
 * ozrWarnDstSizeLess; otherwise ozrOk. Errors: null pSrcLen, then a null table,
 * then any other null pointer -> ozrErrNullPointer; *pSrcLen or *pDstLen <= 0 ->
 * ozrErrSize. */
OzrResult ozrsEncodeLZ4Safe_8u(const Ozr8u* pSrc, int* pSrcLen, Ozr8u* pDst, int* pDstLen, Ozr8u* pHashTable);

/* Like ozrsEncodeLZ4_8u with a coarser search that trades ratio for speed: the
 * probe stride starts at `acceleration` and probes go four at a time. Acceleration 1
 * is exactly ozrsEncodeLZ4_8u. Errors: a null pointer -> ozrErrNullPointer;
 * srcLen <= 0 -> ozrErrSize; acceleration < 1 -> ozrErrAccelerationRange. */
OzrResult ozrsEncodeLZ4Fast_8u(const Ozr8u* pSrc, int srcLen, Ozr8u* pDst, int* pDstLen, Ozr8u* pHashTable,
                               int acceleration);

/* Encodes srcLen bytes at pSrc against a history of histLen bytes: the last histLen
 * bytes of the dictionary pDict[0, dictLen) (or, when pDict == pSrc - histLen and
 * dictLen == histLen, or pDict is null, the histLen bytes in memory right before
 * pSrc). The table (a dictionary table, prepared by ozrsEncodeLZ4DictHashTableInit_8u
 * and ozrsEncodeLZ4LoadDict_8u, or left from the previous block) is first rebased so
 * that no entry points at or beyond the new input. Output unbounded, as in
 * ozrsEncodeLZ4_8u; the block length goes to *pDstLen. Errors: a null table ->
 * ozrErrNullPointer; dictLen < 0 -> ozrErrSize; a null pointer -> ozrErrNullPointer;
 * srcLen <= 0 -> ozrErrSize; histLen < 0 -> ozrErrBadArgument. */
OzrResult ozrsEncodeLZ4Dict_8u(const Ozr8u* pSrc, int histLen, int srcLen, Ozr8u* pDst, int* pDstLen,
                               Ozr8u* pHashTable, const Ozr8u* pDict, int dictLen);

/* ozrsEncodeLZ4Dict_8u with bounded output and in/out *pSrcLen and *pDstLen as in
 * ozrsEncodeLZ4Safe_8u (ozrWarnDstSizeLess when only a prefix fits). */
OzrResult ozrsEncodeLZ4DictSafe_8u(const Ozr8u* pSrc, int histLen, int* pSrcLen, Ozr8u* pDst, int* pDstLen,
                                   Ozr8u* pHashTable, const Ozr8u* pDict, int dictLen);

/* Decodes the block pSrc[0, srcLen) into pDst. *pDstLen: in, the capacity; out, the
 * bytes written. Statuses: ozrOk, the block decoded to its end (or the output filled
 * exactly at the end of a literal run); ozrWarnDstSizeLess, the output filled inside
 * a run (what fits is written); ozrWarnSrcSizeLess, the block is cut short (a literal
 * run cut by the input's end, or ending in its last 7 bytes without being the last;
 * also a block of exactly one byte, which decodes to nothing); ozrErrFailed, a match
 * reaches before the start of the output (the bytes written so far stay, *pDstLen is
 * not updated); ozrErrSize, a length field overflows 32 bits. Errors before decoding:
 * a null pointer -> ozrErrNullPointer; srcLen or *pDstLen <= 0 -> ozrErrSize. */
OzrResult ozrsDecodeLZ4_8u(const Ozr8u* pSrc, int srcLen, Ozr8u* pDst, int* pDstLen);

/* Decodes a block with history into pDst + dstIdx. *pSrcLen: in, the block length;
 * out, the input bytes consumed. *pDstLen: in, the capacity from pDst + dstIdx; out,
 * the bytes written from there. The history is chosen by the dictionary:
 *   - pDict null or dictSize 0: none;
 *   - pDict + dictSize == pDst + dstIdx: the dictSize bytes in memory right before
 *     the write start (a prefix: earlier output, or the dictionary copied there);
 *   - otherwise an external dictionary that stands virtually in place of
 *     pDst[0, dictSize): call with dstIdx = dictSize. Matches may reach back to pDst
 *     and no further.
 * Statuses as in ozrsDecodeLZ4_8u. Errors: a null pointer -> ozrErrNullPointer;
 * *pSrcLen or *pDstLen <= 0 -> ozrErrSize; external dictionary with dictSize < 0
 * -> ozrErrSize. */
OzrResult ozrsDecodeLZ4Dict_8u(const Ozr8u* pSrc, int* pSrcLen, Ozr8u* pDst, int dstIdx, int* pDstLen,
                               const Ozr8u* pDict, int dictSize);


/* ---- LZ4 high compression ----------------------------------------------------
 *
 * The same block format, found with hash chains: levels 1-8 parse lazily (the
 * longest match at each position, unless one starting a byte or two later is
 * longer), levels 9-12 parse optimally over windows of up to 4096 positions,
 * choosing the cheapest sequence of literals and matches in bytes. Higher levels
 * follow longer chains and are slower. Level 0 selects the default,
 * OZR_LZ4HC_DEFAULT_LEVEL (9): blocks about as small as the usual level-9 LZ4 HC at
 * about its speed; level 12 is the smallest and much slower.
 *
 * The work buffer (hash heads, chains and the parser's window; size from
 * ozrsEncodeLZ4HCHashTableGetSize_8u) belongs to the caller, who prepares it once
 * with ozrsEncodeLZ4HCHashTableInit_8u. Each call resets what it needs, so the buffer
 * carries nothing from one call to the next and may be reused for any input; one
 * buffer per concurrent call.
 *
 * Output is bounded: *pDstLen holds the capacity on entry and the block length on
 * return. If the whole input does not fit, the block is a complete, valid block of
 * the first *pSrcLen bytes (each of its sequences is whole, and it ends with at
 * least 5 literals when the covered input allows) and the status is
 * ozrWarnDstSizeLess. A capacity of n + n / 255 + 16 always holds the whole input.
 */
#define OZR_LZ4HC_DEFAULT_LEVEL 9
#define OZR_LZ4HC_MAX_LEVEL 12

/* Writes the byte size of the high-compression work buffer to *pHashTableSize.
 * Errors: null -> ozrErrNullPointer. */
OzrResult ozrsEncodeLZ4HCHashTableGetSize_8u(int* pHashTableSize);

/* Prepares (clears) a work buffer of the size given above. Errors: null ->
 * ozrErrNullPointer. */
OzrResult ozrsEncodeLZ4HCHashTableInit_8u(Ozr8u* pHashTable);

/* Encodes pSrc[0, *pSrcLen) as one independent block at the given level (0..12).
 * *pSrcLen: in, the input length; out, the bytes covered. *pDstLen: in, the
 * capacity; out, the block length. Statuses: ozrOk, or ozrWarnDstSizeLess when only
 * a prefix fits. Errors: a null pointer -> ozrErrNullPointer; *pSrcLen or *pDstLen
 * <= 0 -> ozrErrSize; level outside 0..12 -> ozrErrBadArgument. */
OzrResult ozrsEncodeLZ4HC_8u(const Ozr8u* pSrc, int* pSrcLen, Ozr8u* pDst, int* pDstLen, Ozr8u* pHashTable,
                             int level);

/* Encodes a block that continues earlier data in the same buffer: the block is
 * pSrc[srcIdx, srcIdx + *pSrcLen), and its matches may reach back into
 * pSrc[dictLimit, srcIdx) (at most 65535 bytes back). Decode it with the same
 * history right before the output (ozrsDecodeLZ4Dict_8u with a prefix, or an external
 * dictionary holding those bytes). dictLimit = srcIdx gives an independent block.
 * In/out lengths and statuses as in ozrsEncodeLZ4HC_8u. Errors: a null pointer ->
 * ozrErrNullPointer; *pSrcLen or *pDstLen <= 0, srcIdx < 0, dictLimit < 0 or
 * dictLimit > srcIdx -> ozrErrSize; level outside 0..12 -> ozrErrBadArgument. */
OzrResult ozrsEncodeLZ4HCDictLimit_8u(const Ozr8u* pSrc, int srcIdx, int* pSrcLen, Ozr8u* pDst, int* pDstLen,
                                      Ozr8u* pHashTable, int dictLimit, int level);

/* ==== LZO1X =================================================================== */
/*
 * LZO1X block coding in one call per buffer, plus a small multi-part container.
 *
 * Compressing: ozrsEncodeLZOGetSize(method, ...) gives the size of the state record
 * (always 131104 bytes); allocate it, prepare it with ozrsEncodeLZOInit_8u(method,
 * ...), then call ozrsEncodeLZO_8u once per buffer. Each call writes one complete
 * LZO1X stream ending with the end marker 17, 0, 0, readable by any LZO1X decoder.
 * The state may be reused for any number of calls (it is reset by every call, so
 * equal inputs give equal outputs). An output room of
 *     srcLen + srcLen / 16 + 64 + 3
 * bytes is always enough; with less the call may stop with ozrWarnDstSizeLess.
 *
 * The multi-part container: after Init, a caller sets `method` to
 * OZR_LZO_METHOD_CONTAINER and `numParts` to n (1..32); the next calls of
 * ozrsEncodeLZO_8u split their input into n equal slices (the last takes the
 * remainder), code each by itself with the default coder and write
 *     0x55, n, n XOR 0x55, total size (LE32), sizes of parts 0..n-2 (LE32 each),
 *     the n streams back to back, each with its own end marker.
 * The parts are independent, so a decoder could run them in parallel.
 *
 * Decompressing: ozrsDecodeLZOSafe_8u checks every read and write and is the one to
 * use on data from outside; ozrsDecodeLZO_8u trusts its input and output room. Both
 * take a plain LZO1X stream (several streams back to back decode as their
 * concatenation; a stream may also end at an instruction boundary without the end
 * marker) or the container above. Neither needs a state.
 */

/* Methods of ozrsEncodeLZOGetSize / ozrsEncodeLZOInit_8u. */
#define OZR_LZO_METHOD_DEFAULT   0u /* single-probe hash coder, all distances up to 49151 */
#define OZR_LZO_METHOD_DEFAULT_1 1u /* the same coder as method 0 */
#define OZR_LZO_METHOD_FAST      2u /* faster, 49152-byte segments, skips incompressible data */
/* Method word a caller may store in OzrLZOState.method after Init (never stored by Init). */
#define OZR_LZO_METHOD_CONTAINER 1u

/* Encoder state: caller-owned, 131104 bytes, no pointers into itself (may be moved). */
typedef struct OzrLZOState {
    Ozr32u method;     /* coder of the next ozrsEncodeLZO_8u call: 0 default, 2 fast,
                          1 the multi-part container (set by the caller, see above) */
    Ozr32u numParts;   /* container part count n, 1..32 (its low byte); 0 after Init */
    Ozr8u  reserved[24];
    Ozr64u dict[16384];/* match-finder dictionary; contents are internal */
} OzrLZOState;

/* Size in bytes of the encoder state: *pSize = 131104 for method 0, 1 or 2 whatever
 * maxInputLen is. Errors: pSize null -> ozrErrNullPointer; another method ->
 * *pSize = 0 and ozrErrBadArgument. */
OzrResult ozrsEncodeLZOGetSize(Ozr32u method, Ozr32u maxInputLen, Ozr32u* pSize);

/* Prepares a state for `method` (0, 1 or 2; 1 selects the same coder as 0 and stores
 * method word 0) and sets numParts to 0. maxInputLen is not used. Errors: pState
 * null -> ozrErrNullPointer; another method -> ozrErrBadArgument (nothing written). */
OzrResult ozrsEncodeLZOInit_8u(Ozr32u method, Ozr32u maxInputLen, OzrLZOState* pState);

/* Compresses srcLen bytes at pSrc into one LZO1X stream (or the container) at pDst.
 * *pDstLen: in, the output room; out, the bytes written. srcLen 0 writes nothing
 * (*pDstLen = 0) and returns ozrOk. When the room runs out the call stops before the
 * instruction that does not fit and returns ozrWarnDstSizeLess with *pDstLen = the
 * bytes written (never more than the room; the output is then not a complete
 * stream). Errors: pSrc, pDst, pDstLen or pState null -> ozrErrNullPointer; a method
 * word other than 0, 1 or 2, or a container part count outside 1..32 ->
 * ozrErrBadArgument. The state is the caller's; the call uses it as work space. */
OzrResult ozrsEncodeLZO_8u(const Ozr8u* pSrc, Ozr32u srcLen, Ozr8u* pDst, Ozr32u* pDstLen,
                           OzrLZOState* pState);

/* Decompresses srcLen bytes of LZO1X data (or the container) at pSrc into pDst,
 * checking nothing but the pointers: the input must be a valid stream and the output
 * large enough for all of it. *pDstLen: out only, the bytes written. srcLen 0 gives
 * *pDstLen = 0 and ozrOk. Errors: pSrc, pDst or pDstLen null -> ozrErrNullPointer. */
OzrResult ozrsDecodeLZO_8u(const Ozr8u* pSrc, Ozr32u srcLen, Ozr8u* pDst, Ozr32u* pDstLen);

/* As ozrsDecodeLZO_8u, but never reads past pSrc + srcLen nor writes past the room.
 * *pDstLen: in, the output room; out, the bytes written. Corrupt data (a read past the
 * input, a write past the room, a match before the start of the output) ->
 * ozrErrLZOBroken with *pDstLen unchanged; bytes before the fault may have been
 * written. For the container, each part decodes into its own slice of the output
 * (part i at i * (total / n)); a corrupt part gives ozrErrLZOBroken while the others
 * still decode, and *pDstLen is the sum of what the good parts wrote. Errors: pSrc,
 * pDst or pDstLen null -> ozrErrNullPointer. */
OzrResult ozrsDecodeLZOSafe_8u(const Ozr8u* pSrc, Ozr32u srcLen, Ozr8u* pDst, Ozr32u* pDstLen);

/* ==== LZSS ==================================================================== */
/*
 * A streaming LZSS coder with a 32 KB window and a fixed bit layout. The stream is a
 * sequence of tokens packed most significant bit first (the first token bit is the
 * top bit of the first byte):
 *     literal  9 bits: 1, then the byte;
 *     match   24 bits: 0, then the 15-bit distance (bytes back, 1..32767), then
 *                      8 bits of length - 3 (lengths 3..258).
 * There is no end-of-stream token: the encoder's flush pads the last byte with zero
 * bits, which the decoder ignores as an incomplete token.
 *
 * One state record serves either direction: ozrsLZSSGetSize_8u gives its size
 * (327744 bytes); allocate it, prepare it with ozrsEncodeLZSSInit_8u or
 * ozrsDecodeLZSSInit_8u, and pass it to every call of one stream.
 *
 * Compressing: call ozrsEncodeLZSS_8u with successive pieces of input, then
 * ozrsEncodeLZSSFlush_8u once (again while it returns ozrWarnDstSizeLess). Matches
 * reach into the earlier pieces (up to 32767 bytes back), but each call ends its
 * piece with two literal tokens, since its last two bytes cannot start a match: the
 * stream depends on how the input was cut, and larger pieces compress better. The
 * search is greedy: the longest match among the 16 most recent positions that share
 * the hash of the next three bytes (the nearest of equally long ones). After the
 * flush the stream is complete; start another one with ozrsEncodeLZSSInit_8u.
 *
 * Decompressing: call ozrsDecodeLZSS_8u with the stream in pieces of any size and
 * output room of any size; a call stops when its input runs out (ozrOk) or its
 * output is full (ozrWarnDstSizeLess), even inside a match, and the next call goes
 * on from there. Concatenating the outputs gives the original data.
 *
 * In/out arguments of the streaming calls: *ppSrc and *ppDst point at the next byte
 * to read and to write, *pSrcLen and *pDstLen hold the bytes left to read and the
 * room left to write; on return both pointers are advanced and both lengths reduced
 * by exactly what was consumed and written. On an error status nothing is changed.
 *
 * The record holds pointers into itself and to a library table; the calls do not
 * rely on them (they are rewritten by every call), so the record may be moved or
 * copied between calls: a copy continues the stream as the original would.
 */

/* Encoder view of the record (as ozrsEncodeLZSSInit_8u prepares it). */
typedef struct OzrLZSSEncoderState {
    const Ozr16s* pRandVec;  /* the hash-mixing table: 3 rows of 256 values in 0..32767 */
    Ozr32s* pChain;          /* = chain below */
    Ozr32s* pHead;           /* = head below */
    Ozr8u*  pWindow;         /* = window below */
    Ozr8u*  pWindowEnd;      /* end of the bytes kept in window */
    Ozr32u  histLen;         /* bytes of earlier input that matches may reach (<= 32768) */
    Ozr32u  bitCount;        /* stream bits not yet written (< 8, or up to 31 after a
                                call that stopped on a full output) */
    Ozr32u  bitBuf;          /* those bits in the low bitCount bits, the oldest highest */
    Ozr32u  bitBufExt;       /* 0 (the pending bits always fit bitBuf) */
    Ozr32s  position;        /* position of the next input byte in the chains' scale */
    Ozr32u  reserved;        /* 0 */
    Ozr32s  chain[32768];    /* previous position of the same hash, by position & 0x7FFF */
    Ozr32s  head[32768];     /* latest position of each hash; -32768: none */
    Ozr8u   window[65536];   /* earlier input (the last histLen bytes before pWindowEnd) */
} OzrLZSSEncoderState;

/* Decoder view of the record (as ozrsDecodeLZSSInit_8u prepares it). */
typedef struct OzrLZSSDecoderState {
    Ozr64u  reserved[3];     /* 0 */
    Ozr8u*  pWindow;         /* = window below */
    Ozr32s  bitCount;        /* stream bits read but not yet decoded (0..32) */
    Ozr32u  bitBuf;          /* those bits from the top down (the rest are 0) */
    Ozr32u  pendDist;        /* distance of a match cut off by a full output */
    Ozr32u  pendLen;         /* bytes of that match still to write (0: none) */
    Ozr8u   window[32768];   /* the last 32768 bytes of output, the latest last */
} OzrLZSSDecoderState;

/* The state record: 327744 bytes, caller-owned, 8-byte aligned. */
typedef struct OzrLZSSState {
    union {
        OzrLZSSEncoderState enc;
        OzrLZSSDecoderState dec;
        Ozr8u size[327744];
    } u;
} OzrLZSSState;

/* Writes the size of OzrLZSSState, 327744, to *pLZSSStateSize. Errors: null ->
 * ozrErrNullPointer. */
OzrResult ozrsLZSSGetSize_8u(int* pLZSSStateSize);

/* Prepares the record for a new compressed stream: sets its pointers, clears the bit
 * buffer and the history, and marks every hash head and chain entry empty (-32768).
 * Errors: null -> ozrErrNullPointer. */
OzrResult ozrsEncodeLZSSInit_8u(OzrLZSSState* pLZSSState);

/* Compresses the *pSrcLen bytes at *ppSrc into whole bytes of the stream at *ppDst
 * (room *pDstLen); bits of an unfinished last byte stay in the record. Bits still
 * pending from an earlier call that stopped on a full output are written first.
 * Returns ozrOk when all input is consumed and every whole byte written.
 * ozrWarnDstSizeLess: the output filled up (on entry, when *pDstLen is 0); the in/out
 * arguments show what was consumed and written, the record holds the bits not yet
 * written, and the caller calls again with more room and the input not consumed
 * (the stream is then the same as with enough room). Bytes of the room past those
 * written may have been changed. *pSrcLen 0 (with some room): ozrOk, nothing done
 * (pending bits stay pending). Errors: any of the five pointers, *ppSrc or *ppDst
 * null -> ozrErrNullPointer; *pSrcLen or *pDstLen negative -> ozrErrSize. */
OzrResult ozrsEncodeLZSS_8u(Ozr8u** ppSrc, int* pSrcLen, Ozr8u** ppDst, int* pDstLen,
                            OzrLZSSState* pLZSSState);

/* Ends the stream: writes the pending bits, the last byte padded with zero bits.
 * ozrOk when all are written; ozrWarnDstSizeLess when the room ran out first (what
 * is left stays pending: flush again). *ppDst and *pDstLen as for ozrsEncodeLZSS_8u.
 * Errors: any of the three pointers or *ppDst null -> ozrErrNullPointer;
 * *pDstLen < 1 -> ozrErrSize. */
OzrResult ozrsEncodeLZSSFlush_8u(Ozr8u** ppDst, int* pDstLen, OzrLZSSState* pLZSSState);

/* Prepares the record for decoding a new stream: clears the bit buffer and the
 * pending match and points pWindow at the window. The window is not cleared: a
 * match that reaches before the first byte of the stream (malformed data) copies
 * whatever the window area held. Errors: null -> ozrErrNullPointer. */
OzrResult ozrsDecodeLZSSInit_8u(OzrLZSSState* pLZSSState);

/* Decodes the *pSrcLen bytes at *ppSrc (0 allowed: finishes a pending match) into
 * *ppDst (room *pDstLen). Returns ozrOk when the input ran out, i.e. the bits left
 * (kept in the record) do not form a whole token; ozrWarnDstSizeLess when the
 * output is full and more is to come (a token or the rest of a match): call again
 * with more room. Input is read a byte at a time into a 32-bit buffer, which each
 * token start tops up to more than 24 bits; those bytes count as consumed. Bytes
 * of the room past those written may have been changed. Every stream decodes to
 * some output: no status reports malformed data (a distance of 0 writes zero
 * bytes). Errors: any of the five pointers, *ppSrc or *ppDst null ->
 * ozrErrNullPointer; *pDstLen < 1 or *pSrcLen < 0 -> ozrErrSize. */
OzrResult ozrsDecodeLZSS_8u(Ozr8u** ppSrc, int* pSrcLen, Ozr8u** ppDst, int* pDstLen,
                            OzrLZSSState* pLZSSState);

/* ==== bzip2 block-sorting stages ============================================== */
/*
 * The stages of the bzip2 block-sorting pipeline as separate operations. They
 * read and write the bzip2 format's intermediate forms exactly, so a caller can
 * build a bzip2-compatible compressor from them (or a better one: every stage is
 * usable on its own). None writes stream or block headers, and none computes the
 * block CRC (ozrsCRC32_BZ2_8u does).
 *
 * Compressing one block:
 *   1. RLE: ozrsRLEGetSize_BZ2_8u -> allocate the 264-byte state ->
 *      ozrsEncodeRLEInit_BZ2_8u -> ozrsEncodeRLE_BZ2_8u on the raw data (any
 *      number of calls) -> ozrsEncodeRLEFlush_BZ2_8u. The state's inUse table
 *      (ozrsRLEGetInUseTable_8u) then lists the byte values of the coded block.
 *   2. Alphabet reduction: ozrsReduceDictionary_8u_I maps the coded block onto
 *      0..nInUse-1, which is what bzip2's later stages work on (the BWT may run
 *      before or after it: the mapping keeps the byte order).
 *   3. BWT: ozrsBWTFwdGetSize_8u(n) -> a work buffer of that size ->
 *      ozrsBWTFwd_8u, giving the last column and the primary index.
 *   4. MTF and Z1Z2: ozrsMTFInit_8u, ozrsMTFFwd_8u on the last column, then
 *      ozrsEncodeZ1Z2_BZ2_8u16u, which also counts the symbol frequencies for the
 *      Huffman stage (append the end-of-block symbol nInUse + 1 yourself).
 * Decompressing runs the inverses in the opposite order: ozrsDecodeZ1Z2_BZ2_16u8u,
 * ozrsMTFInv_8u, ozrsExpandDictionary_8u_I, ozrsBWTInv_8u, and the RLE decoder
 * (ozrsDecodeRLEStateInit_BZ2_8u -> ozrsDecodeRLEState_BZ2_8u ->
 * ozrsDecodeRLEStateFlush_BZ2_8u); ozrsDecodeBlock_BZ2_16u8u below does the
 * first four at once.
 *
 * Note the two length conventions of the RLE stage: the encoder's *pDstLen is the
 * room on entry and the count written on return; the decoder's is the room on
 * entry and the room left on return, and its output pointer advances.
 */

/* State of the RLE stage, shared by encoder and decoder (264 bytes, no pointers:
 * it may be copied or moved between calls). */
typedef struct OzrsRLEState_BZ2 {
    Ozr8u  inUse[256]; /* encoder: 1 for every byte value written since Init, else 0 */
    Ozr32s lastSym;    /* byte value of the current run, -1 when none */
    Ozr32s runLen;     /* encoder: length of the current run so far (the up to four
                          copies already written included); decoder: copies of
                          lastSym still owed to the output */
} OzrsRLEState_BZ2;

/* Move-to-front list: 256 bytes. Forward: entry v is the current rank of byte v.
 * Inverse: entry r is the byte at rank r. Init gives the identity for both. */
typedef Ozr8u OzrsMTFState_8u;

/* -- Run-length coding (bzip2's initial RLE: 4 to 259 equal bytes are written as
 *    four copies and a count byte 0..255) -- */

/* Writes 264, the byte size of OzrsRLEState_BZ2. Errors: null -> ozrErrNullPointer. */
OzrResult ozrsRLEGetSize_BZ2_8u(int* pSize);

/* Prepares a state for encoding: inUse cleared, no open run. Errors: null ->
 * ozrErrNullPointer. */
OzrResult ozrsEncodeRLEInit_BZ2_8u(OzrsRLEState_BZ2* pState);

/* Run-length codes *pSrcLen bytes at *ppSrc into pDst. In: *pDstLen is the room.
 * Out: *ppSrc advanced and *pSrcLen reduced by the bytes consumed, *pDstLen = bytes
 * written. A run open at the end of the input stays in the state and continues in
 * the next call (its count byte is written when a different byte arrives, the run
 * reaches 259, or at Flush), so the output does not depend on how the input is
 * split. Every byte written is marked in inUse. Returns ozrWarnDstSizeLess when
 * input is left (room ran out), else ozrOk. Errors: ppSrc, pDst, pSrcLen, pDstLen,
 * *ppSrc or pState null -> ozrErrNullPointer; *pSrcLen or *pDstLen <= 0 ->
 * ozrErrSize. */
OzrResult ozrsEncodeRLE_BZ2_8u(const Ozr8u** ppSrc, int* pSrcLen, Ozr8u* pDst, int* pDstLen,
                               OzrsRLEState_BZ2* pState);

/* Ends the block: writes the count byte of a run of 4 or more that is still open.
 * *pDstLen: in, the room (at least 1); out, bytes written (0 or 1). Errors: a null
 * pointer -> ozrErrNullPointer; *pDstLen <= 0 -> ozrErrSize. */
OzrResult ozrsEncodeRLEFlush_BZ2_8u(Ozr8u* pDst, int* pDstLen, OzrsRLEState_BZ2* pState);

/* Prepares a state for decoding (lastSym -1, nothing owed; inUse is not touched).
 * Errors: null -> ozrErrNullPointer. */
OzrResult ozrsDecodeRLEStateInit_BZ2_8u(OzrsRLEState_BZ2* pState);

/* Decodes run-length coded bytes. *ppSrc and *pSrcLen advance and shrink by the input
 * consumed; *ppDst advances and *pDstLen (in: the room) shrinks by the bytes
 * written. Give the whole coded block as input in one call (the last three input
 * bytes of a call are always taken as literals); the output may be drained in
 * pieces: copies of a run that do not fit are owed in the state, written by the next
 * call or by Flush. Returns ozrWarnDstSizeLess when the room ran out inside a run or
 * filled during literals with input left, ozrOk otherwise (also when the room
 * filled exactly at the end of a run: *pSrcLen then tells whether input is left).
 * Any input decodes to something; there is no data error. Errors: ppSrc, pSrcLen,
 * ppDst, pDstLen, *ppSrc, *ppDst or pState null -> ozrErrNullPointer; *pSrcLen or
 * *pDstLen <= 0 -> ozrErrSize. */
OzrResult ozrsDecodeRLEState_BZ2_8u(const Ozr8u** ppSrc, int* pSrcLen, Ozr8u** ppDst, int* pDstLen,
                                    OzrsRLEState_BZ2* pState);

/* Writes the copies still owed, as far as *pDstLen allows; *ppDst advances and
 * *pDstLen shrinks by the count written. Returns ozrWarnDstSizeLess when copies are
 * still owed, else ozrOk. A room of 0 is allowed. Errors: pState, ppDst, pDstLen or
 * *ppDst null -> ozrErrNullPointer. */
OzrResult ozrsDecodeRLEStateFlush_BZ2_8u(OzrsRLEState_BZ2* pState, Ozr8u** ppDst, int* pDstLen);

/* Copies the 256-byte inUse table out of an RLE encoder state. Errors: null ->
 * ozrErrNullPointer. */
OzrResult ozrsRLEGetInUseTable_8u(Ozr8u inUse[256], const OzrsRLEState_BZ2* pRLEState);

/* -- Burrows-Wheeler transform -- */

/* Work-buffer size of ozrsBWTFwd_8u for blocks of n bytes: max(6n + 524484,
 * 18n + 80), computed in 32-bit arithmetic (so meaningful for n up to
 * 119 304 642). Errors: null -> ozrErrNullPointer; n <= 0 -> ozrErrSize. */
OzrResult ozrsBWTFwdGetSize_8u(int n, int* pSize);

/* Forward transform of the n-byte block pSrc: sorts its n cyclic rotations as
 * unsigned byte strings and writes the last byte of each, in sorted order, to pDst
 * (n bytes); *pIndex = the sorted position of the block itself (rotation 0).
 * Equal rotations (periodic blocks) give the same output in any order. pBuffer is
 * the caller's work area of ozrsBWTFwdGetSize_8u(n) bytes (no alignment needed).
 * pSrc and pDst must not overlap the buffer. Time is linear in n on any data (an
 * induced suffix sort of the block's least rotation). Errors: a null pointer ->
 * ozrErrNullPointer; n <= 0 -> ozrErrSize. */
OzrResult ozrsBWTFwd_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int* pIndex, Ozr8u* pBuffer);

/* Work-buffer size of ozrsBWTFwd_SelectSort_8u by mode: 0 or 1 (any mode below 2)
 * -> 6n + 524484; 2 -> 18n + 80; 3 -> the larger. Another mode writes nothing and
 * returns ozrOk. Errors: null -> ozrErrNullPointer; n == 0 -> ozrErrSize. */
OzrResult ozrsBWTFwdGetBufSize_SelectSort_8u(int n, int* pSize, int mode);

/* ozrsBWTFwd_8u with the sorting method chosen by mode:
 *   0  bucket sort on the first two bytes with a work limit (100 n for blocks
 *      under 99 900 bytes, else 25 n): when the limit is used up the call stops
 *      and returns ozrWarnBWTSortLimit (pDst and *pIndex are then undefined).
 *      Repetitive blocks (long runs, short periods, long repeats) reach it;
 *   1  bucket sort without that status: where the limit would stop it, it goes
 *      on with the induced sort (or, if the buffer cannot hold that, with the
 *      bucket sort to its end);
 *   2  the induced sort alone (linear time on any data; buffer 18 n + 80);
 *   3  bucket sort with the limit, then the induced sort;
 *   other: nothing is done, ozrOk.
 * Blocks under 100 bytes are sorted directly whatever the mode (also an unknown
 * one), and never return ozrWarnBWTSortLimit. All modes give the same pDst and
 * *pIndex, which is also what ozrsBWTFwd_8u gives (it runs the induced sort
 * directly). Errors: as ozrsBWTFwd_8u. */
OzrResult ozrsBWTFwd_SelectSort_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int* pIndex, Ozr8u* pBuffer,
                                   int mode);

/* Work-buffer size of ozrsBWTInv_8u: 4n + 1024. Errors: null -> ozrErrNullPointer;
 * n <= 0 -> ozrErrSize. */
OzrResult ozrsBWTInvGetSize_8u(int n, int* pSize);

/* Inverse transform: restores the n-byte block into pDst from its last column pSrc
 * and primary index `index`. pBuffer: ozrsBWTInvGetSize_8u(n) bytes. Errors: pSrc,
 * pDst or pBuffer null -> ozrErrNullPointer; n <= 0 or index >= n -> ozrErrSize.
 * A negative index is not refused: it is taken as 0. Any index and last column
 * decode to n bytes without error (for a genuine last column, a wrong index gives
 * a rotation of the block). */
OzrResult ozrsBWTInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int n, int index, Ozr8u* pBuffer);

/* -- Move-to-front and zero-run (Z1Z2) coding -- */

/* Writes 256, the byte size of OzrsMTFState_8u. Errors: null -> ozrErrNullPointer. */
OzrResult ozrsMTFGetSize_8u(int* pSize);

/* Sets the list to 0, 1, ..., 255 (once per block, and before switching direction).
 * Errors: null -> ozrErrNullPointer. */
OzrResult ozrsMTFInit_8u(OzrsMTFState_8u* pMTFState);

/* For each of the len bytes of pSrc writes its current rank to pDst and moves it to
 * the front. The list is read at the start and written back at the end, so a block
 * may be coded in several calls. pSrc == pDst is allowed. Errors: a null pointer ->
 * ozrErrNullPointer; len <= 0 -> ozrErrSize. */
OzrResult ozrsMTFFwd_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len, OzrsMTFState_8u* pMTFState);

/* For each of the len ranks of pSrc writes the byte at that rank to pDst and moves
 * it to the front. pSrc == pDst is allowed. Errors: as ozrsMTFFwd_8u. */
OzrResult ozrsMTFInv_8u(const Ozr8u* pSrc, Ozr8u* pDst, int len, OzrsMTFState_8u* pMTFState);

/* Zero-run codes MTF ranks into 16-bit symbols: a run of z zero ranks becomes z
 * written in bijective base 2 with RUNA = 0 and RUNB = 1 (least significant digit
 * first), a rank r > 0 the symbol r + 1. No end-of-block symbol is written.
 * In: *pSrcLen ranks at *ppSrc, *pDstLen the room in symbols. Out: *ppSrc advanced
 * and *pSrcLen reduced by the ranks consumed, *pDstLen = symbols written, and
 * pFreqTable[s] (at least 257 entries, cleared by the caller before the block)
 * increased for every symbol s written. A zero run pending at the end of the call
 * is written, so one that spans two calls becomes two runs (which decode to the
 * same ranks). Near the end of the room a run is cut to what the room holds and
 * the rest left unconsumed. Returns ozrWarnDstSizeLess when ranks are left, else
 * ozrOk. Errors: ppSrc, pDst, pSrcLen, pDstLen, *ppSrc or pFreqTable null ->
 * ozrErrNullPointer; *pSrcLen or *pDstLen <= 0 -> ozrErrSize. */
OzrResult ozrsEncodeZ1Z2_BZ2_8u16u(const Ozr8u** ppSrc, int* pSrcLen, Ozr16u* pDst, int* pDstLen,
                                   int* pFreqTable);

/* Decodes Z1Z2 symbols back to ranks: a run of RUNA/RUNB digits gives that many
 * zeros, a symbol s >= 2 the rank s - 1 (low 8 bits). Out: *ppSrc advanced and
 * *pSrcLen reduced by the symbols consumed, *pDstLen = ranks written. Returns
 * ozrWarnDstSizeLess when symbols are left; a run that does not fit is counted as
 * consumed but none of its zeros is written, so give a room that holds the whole
 * block. Errors: ppSrc, pDst, pSrcLen, pDstLen or *ppSrc null ->
 * ozrErrNullPointer; *pSrcLen or *pDstLen <= 0 -> ozrErrSize. */
OzrResult ozrsDecodeZ1Z2_BZ2_16u8u(const Ozr16u** ppSrc, int* pSrcLen, Ozr8u* pDst, int* pDstLen);

/* -- In-use alphabet reduction -- */

/* Maps each of the len bytes x of pSrcDst to the number of in-use values below x
 * (inUse: 256 entries of 0 or 1), so the values in use become 0..n-1 in order;
 * *pSizeDictionary = n. Errors: a null pointer -> ozrErrNullPointer; len <= 0 ->
 * ozrErrSize. */
OzrResult ozrsReduceDictionary_8u_I(const Ozr8u inUse[256], Ozr8u* pSrcDst, int len, int* pSizeDictionary);

/* The inverse: maps each byte k (< sizeDictionary) to the k-th value in use.
 * Errors: inUse or pSrcDst null -> ozrErrNullPointer; len or sizeDictionary <= 0 ->
 * ozrErrSize; sizeDictionary not the number of in-use values -> ozrErrFailed,
 * with the buffer untouched. */
OzrResult ozrsExpandDictionary_8u_I(const Ozr8u inUse[256], Ozr8u* pSrcDst, int len, int sizeDictionary);


/* ==== bzip2 block Huffman coding ============================================== */
/*
 * The last stage of a bzip2 block and its decoding: the Z1Z2 symbols of a block
 * (RUNA 0, RUNB 1, rank r as r + 1, and the end-of-block symbol alphaSize - 1 that
 * the caller appends) coded with 2 to 6 Huffman tables that switch every 50
 * symbols, with the table section of the block header (table count, selectors,
 * code lengths), exactly as bzip2 lays them out; and the decoder that turns such a
 * section and its coded symbols back into the run-length-coded block.
 *
 * Bits go most significant first through a caller-held accumulator shared by all
 * these calls: `*pCode` holds the pending bits left-aligned (the first at bit 31)
 * and `*pCodeLenBits` their count. Start a stream with both 0; a caller writes or
 * reads its own header fields (block magic, block CRC, randomised bit, origin
 * pointer, in-use bitmap) in the same convention and hands the accumulator on.
 *
 * Encoding a block of n symbols (end-of-block included) with frequencies freq[]:
 *   ozrsEncodeHuffGetSize_BZ2_16u8u(n) -> allocate -> ozrsEncodeHuffInit_BZ2_16u8u
 *   -> ozrsPackHuffContext_BZ2_16u8u (the table section) -> ozrsEncodeHuff_BZ2_16u8u
 *   (all n symbols in one call).
 * Decoding a block:
 *   ozrsDecodeHuffGetSize_BZ2_8u16u(n) -> allocate -> ozrsDecodeHuffInit_BZ2_8u16u
 *   (alphaSize = in-use count + 2) -> ozrsUnpackHuffContext_BZ2_8u16u until ozrOk
 *   -> ozrsDecodeHuff_BZ2_8u16u until ozrOk (end of block seen) ->
 *   ozrsDecodeBlock_BZ2_16u8u on the symbols without the end-of-block symbol ->
 *   the RLE decoder. Init again before the next block.
 */

/* Encoder state. Caller-owned, ozrsEncodeHuffGetSize_BZ2_16u8u bytes (7780 + two
 * bytes per 50-symbol group), so larger than sizeof: the selectors follow `lens`.
 * Init stores pointers into the record itself: do not move or copy it after Init.
 * The fields may be read after Init. */
typedef struct OzrsEncodeHuffState_BZ2 {
    Ozr32s  alphaSize;      /* symbol values 0 .. alphaSize - 1, at most 258 */
    Ozr32s  numSelectors;   /* 50-symbol groups: (n + 49) / 50 */
    Ozr32s  numTables;      /* 2..6 */
    Ozr32u* pCodes;         /* -> codes */
    Ozr8u*  pLens;          /* -> lens */
    Ozr8u*  pSelectors;     /* -> the selectors behind lens: numSelectors table
                               indexes, then their move-to-front ranks */
    Ozr32u  codes[6 * 258]; /* code word of symbol s in table t at [t * 258 + s] */
    Ozr8u   lens[6 * 258];  /* its length in bits, 1..17 */
} OzrsEncodeHuffState_BZ2;

/* Decoder state: caller-owned, ozrsDecodeHuffGetSize_BZ2_8u16u bytes; its layout is
 * internal. Init stores pointers into it: do not move or copy it after Init. */
typedef struct OzrsDecodeHuffState_BZ2 OzrsDecodeHuffState_BZ2;

/* *pSize = (n + 49) / 50 * 2 + 7780, the encoder state for a block of n symbols.
 * Errors: pSize null -> ozrErrNullPointer; n < 1 -> ozrErrSize. */
OzrResult ozrsEncodeHuffGetSize_BZ2_16u8u(int n, int* pSize);

/* Builds the tables and selectors for the n symbols at pSrc (values below
 * alphaSize, at most 258) whose counts are pFreqTable[0 .. alphaSize): the table
 * count by n (fewer than 200 symbols 2, then 3, 4, 5 from 600, 1200, 2400 on 6),
 * bzip2's initial partition of the alphabet, four passes of choosing the cheapest
 * table per 50-symbol group and rebuilding the codes (lengths limited to 17 bits),
 * canonical code words. Symbols with count 0 get codes too. Errors: pFreqTable,
 * pSrc or pState null -> ozrErrNullPointer; alphaSize < 1 or n < 1 -> ozrErrSize
 * (alphaSize above 258 also -> ozrErrSize). */
OzrResult ozrsEncodeHuffInit_BZ2_16u8u(int alphaSize, const int* pFreqTable, const Ozr16u* pSrc, int n,
                                       OzrsEncodeHuffState_BZ2* pState);

/* Writes the table section: table count (3 bits), selector count (15 bits), each
 * selector's move-to-front rank j as j one-bits and a zero-bit, then per table the
 * first length in 5 bits and per symbol the steps 10 (+1) / 11 (-1) ended by 0.
 * *pDstLen: in, the room; out, the bytes written. Whole bytes are written while room
 * remains; up to 7 bits stay pending in the accumulator. Returns
 * ozrWarnDstSizeLess when the room ran out with 33 or more bits pending (the output
 * is then unusable: retry with more room), else ozrOk. Errors: any pointer null ->
 * ozrErrNullPointer; *pDstLen < 1 -> ozrErrSize. */
OzrResult ozrsPackHuffContext_BZ2_16u8u(Ozr32u* pCode, int* pCodeLenBits, Ozr8u* pDst, int* pDstLen,
                                        const OzrsEncodeHuffState_BZ2* pState);

/* Codes the *pSrcLen symbols at *ppSrc, group g with table selector g (the group
 * count restarts at 0 on every call: pass the whole block). Out: *ppSrc advanced
 * and *pSrcLen 0, *pDstLen = bytes written, the accumulator holds what is pending.
 * Status as for ozrsPackHuffContext_BZ2_16u8u. Errors: pCode, pCodeLenBits, ppSrc,
 * pSrcLen null, then *ppSrc, pDst, pDstLen or pState null -> ozrErrNullPointer;
 * *pDstLen < 1 -> ozrErrSize. */
OzrResult ozrsEncodeHuff_BZ2_16u8u(Ozr32u* pCode, int* pCodeLenBits, const Ozr16u** ppSrc, int* pSrcLen,
                                   Ozr8u* pDst, int* pDstLen, const OzrsEncodeHuffState_BZ2* pState);

/* *pSize = (n + 49) / 50 + 9364: a decoder state for blocks of at most n symbols
 * (one selector byte per 50-symbol group). Unpacking stores as many selectors as
 * the table section announces (up to 18002) and the state cannot know the n it was
 * sized for: for input from outside, size it with n = 900050 (18002 groups, the
 * bzip2 maximum at every level). Errors: pSize null -> ozrErrNullPointer; n < 1 ->
 * ozrErrSize. */
OzrResult ozrsDecodeHuffGetSize_BZ2_8u16u(int n, int* pSize);

/* Prepares a state for one block whose symbols are 0 .. alphaSize - 1, the last
 * being end-of-block: stores alphaSize, clears the progress of a block or of an
 * unpack, sets the internal pointers. Errors: pState null -> ozrErrNullPointer;
 * alphaSize < 1 or above 258 -> ozrErrSize. */
OzrResult ozrsDecodeHuffInit_BZ2_8u16u(int alphaSize, OzrsDecodeHuffState_BZ2* pState);

/* Reads the table section from the accumulator and the *pSrcLen bytes at *ppSrc,
 * and builds the decoding tables. Resumable: when the input ends inside the section
 * it returns ozrWarnSrcSizeLess having consumed all of it, and the next call with
 * more input goes on where it stopped (keep the accumulator). *ppSrc / *pSrcLen
 * advance and shrink by the bytes taken in; after ozrOk up to 32 bits of what
 * follows may be pending. Errors: any pointer null or *ppSrc null ->
 * ozrErrNullPointer; *pSrcLen < 1 -> ozrErrSize; a table count outside 2..6, a
 * selector count of 0 or above 18002, a selector rank
 * not below the table count, a length leaving 1..20, or lengths that do not form a
 * complete prefix code -> ozrErrHuffTable. */
OzrResult ozrsUnpackHuffContext_BZ2_8u16u(Ozr32u* pCode, int* pCodeLenBits, const Ozr8u** ppSrc, int* pSrcLen,
                                          OzrsDecodeHuffState_BZ2* pState);

/* Decodes symbols into pDst until the end-of-block symbol (written too, and counted),
 * until the *pDstLen room is full, or until the pending bits and the input hold no
 * complete code. Resumable across input pieces: the group position is kept in the
 * state. Out: *ppSrc / *pSrcLen advance and shrink by the bytes taken in, *pDstLen =
 * symbols written, the accumulator holds the pending bits. Returns ozrOk at the end
 * of the block, ozrWarnSrcSizeLess when the input is used up first,
 * ozrWarnDstSizeLess when the room filled first, ozrErrFailed for a block with more
 * groups than selectors. Errors: pCode, pCodeLenBits, ppSrc, pSrcLen null, then
 * *ppSrc, pDst, pDstLen or pState null -> ozrErrNullPointer; *pDstLen < 1 ->
 * ozrErrSize; a state whose table section was not unpacked -> ozrErrFailed. */
OzrResult ozrsDecodeHuff_BZ2_8u16u(Ozr32u* pCode, int* pCodeLenBits, const Ozr8u** ppSrc, int* pSrcLen,
                                   Ozr16u* pDst, int* pDstLen, OzrsDecodeHuffState_BZ2* pState);

/* *pSize = 4 * n, the work buffer of ozrsDecodeBlock_BZ2_16u8u for a block of up to
 * n bytes. Errors: pSize null -> ozrErrNullPointer; n >= 2^24 (or negative) ->
 * ozrErrSize. */
OzrResult ozrsDecodeBlockGetSize_BZ2_8u(int n, int* pSize);

/* Turns srcLen Z1Z2 symbols (without end-of-block) into the run-length-coded block:
 * zero runs and move-to-front ranks, mapped through the sizeDictionary byte values
 * marked 1 in inUse, then the inverse Burrows-Wheeler transform with origin pointer
 * `index`. *pDstLen: in, the room (at most 16777215 bytes); out, the block length.
 * pBuffer: ozrsDecodeBlockGetSize_BZ2_8u(room) bytes of work space. Errors: pSrc,
 * pDst, pDstLen, inUse or pBuffer null -> ozrErrNullPointer; srcLen < 1, a room
 * outside 0..16777215, index < 0 or index >= the room, sizeDictionary above 256 ->
 * ozrErrSize; sizeDictionary not the number of values in use, a rank beyond the
 * alphabet, a block longer than the room (*pDstLen = the length reached), or an
 * index not below the decoded length -> ozrErrFailed. */
OzrResult ozrsDecodeBlock_BZ2_16u8u(const Ozr16u* pSrc, int srcLen, Ozr8u* pDst, int* pDstLen, int index,
                                    int sizeDictionary, const Ozr8u inUse[256], Ozr8u* pBuffer);



/* ==== ZFP ===================================================================== */
/*
 * Lossy compression of 32-bit floats in blocks of 4x4x4 values with the ZFP block
 * coder: a common block exponent, conversion to 32-bit integers, a decorrelating
 * lifting transform, reordering by sequency, negabinary conversion and embedded
 * bit-plane coding. The output is the bare concatenation of the coded blocks (no
 * header); the decoder must be given the parameters that the encoder used.
 *
 * Encoding: ozrsEncodeZfpGetStateSize_32f -> allocate the record (576 bytes) ->
 * ozrsEncodeZfpInit_32f over the output buffer -> optionally ozrsEncodeZfpSet_32f or
 * ozrsEncodeZfpSetAccuracy_32f -> ozrsEncodeZfp444_32f once per block ->
 * ozrsEncodeZfpFlush_32f -> ozrsEncodeZfpGetCompressedSize_32f for the byte count.
 * Decoding: ozrsDecodeZfpInit_32f over the compressed bytes -> the same parameters
 * -> ozrsDecodeZfp444_32f once per block, in the order the blocks were encoded.
 *
 * The four parameters and the published coder's modes (libzfp 1.0, 3-D float):
 *   minBits  every block is padded with zero bits to at least this many bits;
 *   maxBits  at most this many bits are spent on a block (header included);
 *   maxPrec  at most this many bit planes are coded (32 or more: all of them);
 *   minExp   bit planes below 2^minExp are not coded (the absolute error bound).
 *   Defaults: minBits 0, maxBits 4171, maxPrec 64, minExp -10740: every plane of
 *   every block is coded.
 *   - fixed rate R bits per value (zfp_stream_set_rate(zfp, R, zfp_type_float, 3,
 *     zfp_false)): minBits = maxBits = the rounded 64 x R (at least 9, libzfp's
 *     minimum), maxPrec 64, minExp -10740. Every block then costs exactly maxBits.
 *   - fixed precision P (zfp_stream_set_precision): minBits 0, maxBits 4171 (or
 *     more), maxPrec P, minExp -10740.
 *   - fixed accuracy T (zfp_stream_set_accuracy): minBits 0, maxBits 4171,
 *     maxPrec 64, and minExp = floor(log2(T)), which ozrsEncodeZfpSetAccuracy_32f
 *     sets from T.
 *   - libzfp's expert mode (zfp_stream_set_params(minbits, maxbits, maxprec,
 *     minexp)) maps one to one onto ozrsEncodeZfpSet_32f.
 *   With these settings the bit streams equal libzfp's bit for bit, and each side
 *   decodes the other's streams to the same floats, for every block whose largest
 *   magnitude is at least 2^-98. Below that, libzfp's float scale factor
 *   2^(30 - emax) overflows single precision and its output is meaningless; this
 *   library clamps the scale at 2^127 (and the decoder's inverse at 2^-127), so such
 *   tiny blocks still round-trip, with fewer significant bits. libzfp flushes its
 *   stream to a byte (its Debian build uses 8-bit stream words); this library
 *   flushes to a 64-bit word while room allows, so its streams may carry up to 7
 *   more zero bytes at the end.
 */

/* The state record of both directions (576 bytes, caller-owned, movable). Its
 * fields may be read; the library keeps them consistent after every call. A
 * container that puts bits of its own right before the first block (as the zfp
 * tool's header does) may, right after Init, store its last partial word in
 * bitBuffer with bitCount (< 64) bits: the encoder appends the blocks to them. A
 * decoder may likewise be started in mid-byte: Init after that byte and put its
 * unread bits in bitBuffer / bitCount. */
typedef struct OzrsZfpState_32f {
    Ozr32u magic;          /* 0x4B617398 once initialised */
    Ozr32s minBits;        /* minimum bits per block (zero-padded up to it) */
    Ozr32s maxBits;        /* maximum bits per block */
    Ozr32s maxPrec;        /* maximum number of bit planes coded */
    Ozr32s minExp;         /* smallest bit-plane exponent coded */
    Ozr32s bitCount;       /* valid bits in bitBuffer */
    Ozr64u bitBuffer;      /* pending (encoder) or loaded unread (decoder) bits, lowest first */
    Ozr8u* pCur;           /* next 64-bit word to write / next byte to load */
    Ozr8u* pStart;         /* start of the buffer given to Init */
    Ozr8u* pEnd;           /* end of that buffer */
    Ozr8u* pLimit;         /* pEnd minus the largest block in bytes, rounded up to 8 */
    Ozr32f block[64];      /* working copy of the current block */
    Ozr8u  reserved[256];  /* pads the record to 576 bytes */
} OzrsZfpState_32f;

/* Writes the size of OzrsZfpState_32f, 576, to *pSize. pSize null -> ozrErrNullPointer. */
OzrResult ozrsEncodeZfpGetStateSize_32f(Ozr32s* pSize);

/* Prepares *pState to encode into pDst[0 .. dstLen): sets the magic and the default
 * parameters, empties the bit buffer. pDst or pState null -> ozrErrNullPointer;
 * dstLen < 1 -> ozrErrSize. */
OzrResult ozrsEncodeZfpInit_32f(Ozr8u* pDst, Ozr32s dstLen, OzrsZfpState_32f* pState);

/* As ozrsEncodeZfpInit_32f with a 64-bit length; dstLen == 0 -> ozrErrSize. */
OzrResult ozrsEncodeZfpInitLong_32f(Ozr8u* pDst, Ozr64u dstLen, OzrsZfpState_32f* pState);

/* Stores the four coding parameters as given (no range checks) and recomputes
 * pLimit from maxBits. pState null -> ozrErrNullPointer; not initialised ->
 * ozrErrBadParameter. */
OzrResult ozrsEncodeZfpSet_32f(Ozr32s minBits, Ozr32s maxBits, Ozr32s maxPrec, Ozr32s minExp,
                               OzrsZfpState_32f* pState);

/* Fixed accuracy: sets minExp to the binary exponent of `tolerance` (its unbiased
 * IEEE exponent, floor(log2(tolerance)) for normal values) when tolerance > 0, else
 * to -10740 (all planes). Nothing else changes. Errors as ozrsEncodeZfpSet_32f. */
OzrResult ozrsEncodeZfpSetAccuracy_32f(OzrsZfpState_32f* pState, Ozr64f tolerance);

/* Encodes one 4x4x4 block: value (x, y, z) is read from the byte address
 * pSrc + z * srcPlaneStep + y * srcStep + 4 * x. The bits go to the state's bit
 * buffer; every complete 64-bit word is stored little-endian at pCur.
 * pSrc or pState null -> ozrErrNullPointer; not initialised -> ozrErrBadParameter;
 * a word that does not fit before pEnd -> ozrErrOutOfRange: the words before it are
 * stored, the word that did not fit stays in bitBuffer (bitCount then reads 64), so
 * that ozrsEncodeZfpGetCompressedBitSize_32f still counts every bit produced; later
 * blocks are refused with the same status and ozrsEncodeZfpFlush_32f stores what
 * bytes still fit.
 * The values must be finite: a block holding an infinity or a NaN has exponent
 * field 255, whose 8-bit header wraps to 0, so the decoder reads a different
 * precision and the rest of the stream is out of step (it still only returns
 * statuses). */
OzrResult ozrsEncodeZfp444_32f(const Ozr32f* pSrc, Ozr32s srcStep, Ozr32s srcPlaneStep,
                               OzrsZfpState_32f* pState);

/* Writes pCur - pStart, the bytes stored so far (pending bits are not counted until
 * flushed), to *pSize. Either pointer null -> ozrErrNullPointer; not initialised ->
 * ozrErrBadParameter. */
OzrResult ozrsEncodeZfpGetCompressedSize_32f(const OzrsZfpState_32f* pState, Ozr32u* pSize);
OzrResult ozrsEncodeZfpGetCompressedSizeLong_32f(const OzrsZfpState_32f* pState, Ozr64u* pSize);

/* Writes the exact bit length of the stream so far, pending bits included:
 * bitCount + 8 * (pCur - pStart). Errors as ozrsEncodeZfpGetCompressedSize_32f. */
OzrResult ozrsEncodeZfpGetCompressedBitSize_32f(const OzrsZfpState_32f* pState, Ozr64u* pBits);

/* Stores the pending bits: as one 64-bit word (high bits zero) while 8 bytes fit,
 * else byte by byte, lowest first. Nothing pending -> ozrOk with nothing written.
 * pState null -> ozrErrNullPointer; not initialised -> ozrErrBadParameter; no room
 * for every pending byte -> ozrErrOutOfRange, with pCur at the first byte not
 * written and the unwritten bits still pending. */
OzrResult ozrsEncodeZfpFlush_32f(OzrsZfpState_32f* pState);

/* Decoder set-up: the encoder's functions of the same shape, with the compressed
 * input in place of the output buffer (the decoder never writes to it). Set the
 * parameters that were used to encode. */
OzrResult ozrsDecodeZfpGetStateSize_32f(Ozr32s* pSize);
OzrResult ozrsDecodeZfpInit_32f(const Ozr8u* pSrc, Ozr32s srcLen, OzrsZfpState_32f* pState);
OzrResult ozrsDecodeZfpInitLong_32f(const Ozr8u* pSrc, Ozr64u srcLen, OzrsZfpState_32f* pState);
OzrResult ozrsDecodeZfpSet_32f(Ozr32s minBits, Ozr32s maxBits, Ozr32s maxPrec, Ozr32s minExp,
                               OzrsZfpState_32f* pState);
OzrResult ozrsDecodeZfpSetAccuracy_32f(OzrsZfpState_32f* pState, Ozr64f tolerance);

/* Writes pCur - pStart, the input bytes loaded so far, to *pSize (64-bit in the
 * Long form). Errors as ozrsEncodeZfpGetCompressedSize_32f. */
OzrResult ozrsDecodeZfpGetDecompressedSize_32f(const OzrsZfpState_32f* pState, Ozr32u* pSize);
OzrResult ozrsDecodeZfpGetDecompressedSizeLong_32f(const OzrsZfpState_32f* pState, Ozr64u* pSize);

/* Decodes one block into pDst: value (x, y, z) goes to the byte address
 * pDst + z * dstPlaneStep + y * dstStep + 4 * x. Input bits are loaded as 64-bit
 * little-endian words while 8 bytes remain, then byte by byte.
 * pState or pDst null -> ozrErrNullPointer; not initialised -> ozrErrBadParameter;
 * the input ends while bits are needed -> ozrErrOutOfRange: all input is then
 * consumed and pDst is left untouched. */
OzrResult ozrsDecodeZfp444_32f(OzrsZfpState_32f* pState, Ozr32f* pDst, Ozr32s dstStep,
                               Ozr32s dstPlaneStep);

#ifdef __cplusplus
}
#endif

#endif /* OZRDC_H */
