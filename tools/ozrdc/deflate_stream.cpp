// Deflate container writers: not built yet (the library's Deflate encoder comes first).
#include "deflate_stream.h"

namespace ozrdc_tool {

namespace {
[[noreturn]] void notBuilt() { throw ToolError("Deflate compression is not available in this build"); }
}  // namespace

void compressDeflateRaw(Reader&, Writer&, const CompressOptions&) { notBuilt(); }
void compressZlib(Reader&, Writer&, const CompressOptions&) { notBuilt(); }
void compressGzip(Reader&, Writer&, const CompressOptions&) { notBuilt(); }

}  // namespace ozrdc_tool
