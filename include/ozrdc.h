/*
 * ozrdc.h — the public interface of libozrdcm7 (data-compression building blocks,
 * x86-64, SSE3 variant "m7").
 *
 * The library gives the pieces that compressors and file formats are built from:
 * checksums, LZ4 and LZO1X block coding, ZFP float blocks and more. It allocates
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

/* ==== LZ4 ===================================================================== */
/* (LZ4 declarations go here) */

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

/* ==== ZFP ===================================================================== */
/* (ZFP declarations go here) */

#ifdef __cplusplus
}
#endif

#endif /* OZRDC_H */
