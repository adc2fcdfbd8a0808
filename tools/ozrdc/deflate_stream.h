// Writers of the Deflate containers (raw RFC 1951, zlib RFC 1950, gzip RFC 1952),
// built from the library's Deflate encoder. The formats themselves (detection and
// decoding) are registered in format_gzip.cpp.
#pragma once

#include "codec.h"

namespace ozrdc_tool {

void compressDeflateRaw(Reader& in, Writer& out, const CompressOptions& opts);
void compressZlib(Reader& in, Writer& out, const CompressOptions& opts);
void compressGzip(Reader& in, Writer& out, const CompressOptions& opts);

// The raw writer from memory to memory (the benchmark's entry; the same writer, reading
// the input in place instead of through the input buffer).
void deflateRawInMemory(const uint8_t* src, size_t n, std::vector<uint8_t>& dst, const CompressOptions& opts);

}  // namespace ozrdc_tool
