// The .bz2 stream writer and reader of the ozrdc tool, also timed by the benchmarks.
#pragma once

#include "codec.h"

namespace ozrdc_tool {

// Compresses all of `in` into one bzip2 stream at `level` (1..9) with `threads`
// workers coding blocks in parallel.
void bzip2CompressStream(Reader& in, Writer& out, int level, int threads);
// Decompresses every stream of `in`; `threads` workers finish blocks in parallel.
// Throws ToolError on corrupt or truncated input.
void bzip2DecompressStream(Reader& in, Writer& out, int threads);

}  // namespace ozrdc_tool
