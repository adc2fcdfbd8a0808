// The ozrdc tool's registry of file formats. Each format lives in its own
// tools/ozrdc/format_<name>.cpp and registers itself with a static RegisterFormat.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace ozrdc_tool {

// A failure the user should read: printed as "ozrdc: <message>", exit status 1.
struct ToolError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Progress;  // the progress display (files.h), fed by a Reader and a Writer

// A problem the conversion survives (e.g. trailing bytes after the last member):
// printed as "ozrdc: <message>" unless -q; the exit status becomes 2 (as gzip's
// warnings) unless an error makes it 1.
void conversionWarning(const std::string& message);

// Buffered input with look-ahead, so that a format can be recognised on a pipe.
class Reader {
public:
    Reader(std::FILE* f, std::string name) : f_(f), name_(std::move(name)) {}
    // Reads up to n bytes; fewer only at the end of the input. Throws on a read error.
    size_t read(void* dst, size_t n);
    // Reads exactly n bytes or throws "truncated" with `what`.
    void readExact(void* dst, size_t n, const char* what);
    // Looks at up to n bytes without consuming them.
    size_t peek(void* dst, size_t n);
    const std::string& name() const { return name_; }
    // Bytes handed out by read() and readExact() so far.
    uint64_t consumed() const { return consumed_; }
    void watch(Progress* p) { progress_ = p; }

private:
    std::FILE* f_;
    std::string name_;
    std::vector<unsigned char> pending_;
    uint64_t consumed_ = 0;
    Progress* progress_ = nullptr;
};

// Output sink. A Writer on no file (nullptr) counts and discards: decompress run
// into it checks every checksum of a file without writing anything (-t).
class Writer {
public:
    explicit Writer(std::FILE* f) : f_(f) {}
    Writer(std::FILE* f, std::string name) : f_(f), name_(std::move(name)) {}
    void write(const void* src, size_t n);
    uint64_t written() const { return written_; }
    void watch(Progress* p) { progress_ = p; }

private:
    std::FILE* f_;
    std::string name_;  // for messages; empty: "write error: ..."
    uint64_t written_ = 0;
    Progress* progress_ = nullptr;
};

struct CompressOptions {
    std::vector<size_t> dims;          // zfp: NX,NY,NZ
    std::optional<double> rate;        // zfp fixed rate, bits per value
    std::optional<int> precision;      // zfp fixed precision, bit planes
    std::optional<double> accuracy;    // zfp fixed accuracy, absolute error bound
    std::optional<int> level;          // codec-specific compression level
    bool fastest = false;              // deflate family: the one-pass fastest mode
    int threads = 1;                   // block formats: worker threads (the tool's, not the library's)
};

// Worker threads for decompression of formats with independent blocks (-T).
int& decodeThreads();

struct Format {
    std::string name;         // the -F value
    std::string extension;    // file name suffix, with the dot
    std::string description;
    // True when the first bytes of a file (up to 16) are this format's.
    std::function<bool(const unsigned char* head, size_t n)> detect;
    std::function<void(Reader&, Writer&, const CompressOptions&)> compress;
    std::function<void(Reader&, Writer&)> decompress;
    // Whether the format's own tool keeps its input file after converting it (lz4,
    // lzop) or removes it (gzip, bzip2): the default of compress and decompress when
    // they name the output themselves.
    bool keepsInput = false;
};

std::vector<Format>& formats();

struct RegisterFormat {
    explicit RegisterFormat(Format f) { formats().push_back(std::move(f)); }
};

// Little-endian field helpers for container headers.
inline void putLE32(unsigned char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}
inline uint32_t getLE32(const unsigned char* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline void putBE32(unsigned char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (24 - 8 * i));
}
inline uint32_t getBE32(const unsigned char* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}

}  // namespace ozrdc_tool
