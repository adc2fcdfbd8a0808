// `ozrdc checksum`: the library's running checksums over whole files, one line per
// file, streamed in 1 MiB pieces so that files of any size work.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "ozrdc.h"

namespace ozrdc_tool {
namespace {

struct Algorithm {
    const char* name;
    Ozr32u start;
    // Folds n (1 .. 1 MiB) bytes into the running value.
    OzrResult (*update)(const Ozr8u* p, size_t n, Ozr32u* v);
    Ozr32u (*finish)(Ozr32u v);
};

Ozr32u asIs(Ozr32u v) { return v; }

const Algorithm kAlgorithms[] = {
    {"crc32", 0, [](const Ozr8u* p, size_t n, Ozr32u* v) { return ozrsCRC32_8u(p, Ozr32s(n), v); }, asIs},
    // The library leaves CRC-32C's pre- and post-inversion to the caller.
    {"crc32c", 0xFFFFFFFFu, [](const Ozr8u* p, size_t n, Ozr32u* v) { return ozrsCRC32C_8u(p, Ozr32u(n), v); },
     [](Ozr32u v) { return ~v; }},
    {"crc32-bzip2", 0, [](const Ozr8u* p, size_t n, Ozr32u* v) { return ozrsCRC32_BZ2_8u(p, Ozr32s(n), v); },
     asIs},
    {"adler32", 1, [](const Ozr8u* p, size_t n, Ozr32u* v) { return ozrsAdler32_8u(p, Ozr32s(n), v); }, asIs},
};

constexpr size_t kChunk = size_t(1) << 20;

// Sums one file ("-" is standard input) and prints its line; false after printing
// an error to stderr.
bool sumFile(const Algorithm& alg, const std::string& path, std::vector<Ozr8u>& buf) {
    std::FILE* f = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
    if (!f) {
        std::fprintf(stderr, "ozrdc checksum: %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    Ozr32u v = alg.start;
    unsigned long long total = 0;
    bool ok = true;
    for (;;) {
        size_t k = std::fread(buf.data(), 1, kChunk, f);
        if (k > 0) {
            OzrResult r = alg.update(buf.data(), k, &v);
            if (r != ozrOk) {
                std::fprintf(stderr, "ozrdc checksum: %s: library status %d\n", path.c_str(), r);
                ok = false;
                break;
            }
            total += k;
        }
        if (k < kChunk) {
            if (std::ferror(f)) {
                std::fprintf(stderr, "ozrdc checksum: %s: read error: %s\n", path.c_str(), std::strerror(errno));
                ok = false;
            }
            break;
        }
    }
    if (f != stdin) std::fclose(f);
    if (ok) std::printf("%08x %llu %s\n", static_cast<unsigned>(alg.finish(v)), total, path.c_str());
    return ok;
}

const RegisterCommand reg([](CLI::App& app) {
    auto algorithm = std::make_shared<std::string>("crc32");
    auto files = std::make_shared<std::vector<std::string>>();
    auto* cmd = app.add_subcommand(
        "checksum",
        "print the checksum of each file: 8 hex digits, the byte count and the file name, one line per file");
    cmd->footer(
        "Values are the standard finished checksums: crc32 as zlib/gzip, crc32c the\n"
        "complemented CRC-32C (iSCSI), crc32-bzip2 the bzip2 stream CRC, adler32 as zlib.\n"
        "An unreadable file is reported on stderr; the others are still summed and the\n"
        "exit status is 1.");
    cmd->add_option("-a,--algorithm", *algorithm, "crc32 (default), crc32c, crc32-bzip2 or adler32")
        ->check(CLI::IsMember({"crc32", "crc32c", "crc32-bzip2", "adler32"}));
    cmd->add_option("files", *files, "files to sum, - for standard input")->required();
    cmd->callback([algorithm, files] {
        const Algorithm* alg = nullptr;
        for (const auto& a : kAlgorithms)
            if (*algorithm == a.name) alg = &a;
        std::vector<Ozr8u> buf(kChunk);
        for (const auto& path : *files)
            if (!sumFile(*alg, path, buf)) exitStatus() = 1;
        std::fflush(stdout);
    });
});

}  // namespace
}  // namespace ozrdc_tool
