// Compression-only registration of the Deflate containers, until the formats with
// their readers (format_gzip.cpp) land; the writers are in deflate_stream.cpp.
#include "codec.h"
#include "deflate_stream.h"

namespace ozrdc_tool {
namespace {

[[noreturn]] void noReader(Reader&, Writer&) { throw ToolError("this build writes Deflate containers but cannot read them yet"); }

const RegisterFormat kGzip({"gzip", ".gz", "gzip (RFC 1952); -L 1..9 as gzip's levels, 10..29 more tunings, --fastest one pass",
                            [](const unsigned char* h, size_t n) { return n >= 2 && h[0] == 0x1F && h[1] == 0x8B; },
                            compressGzip, noReader});
const RegisterFormat kZlib({"zlib", ".zz", "zlib (RFC 1950); -L as for gzip", [](const unsigned char*, size_t) { return false; },
                            compressZlib, noReader});
const RegisterFormat kDeflate({"deflate", ".deflate", "raw Deflate (RFC 1951); -L as for gzip",
                               [](const unsigned char*, size_t) { return false; }, compressDeflateRaw, noReader});

}  // namespace
}  // namespace ozrdc_tool
