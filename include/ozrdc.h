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
/* (LZO declarations go here) */

/* ==== ZFP ===================================================================== */
/* (ZFP declarations go here) */

#ifdef __cplusplus
}
#endif

#endif /* OZRDC_H */
