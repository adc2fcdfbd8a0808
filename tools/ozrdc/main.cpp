// ozrdc — command-line front end of the ozrdc library: version, checksums, file
// compression in standard container formats, and the side-by-side benchmark.
#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <unistd.h>

#include "bench.h"
#include "codec.h"
#include "commands.h"
#include "ozrdc.h"

namespace ozrdc_tool {

std::vector<std::function<void(CLI::App&)>>& extraCommands() {
    static std::vector<std::function<void(CLI::App&)>> all;
    return all;
}

int& decodeThreads() {
    static int n = 1;
    return n;
}

int& exitStatus() {
    static int status = 0;
    return status;
}

namespace {

const Format* findFormat(const std::string& name) {
    for (const auto& f : formats())
        if (f.name == name) return &f;
    return nullptr;
}

// The output goes to a temporary file beside the target, renamed over it only when
// the whole conversion succeeded: a failed run never leaves a file that looks done.
class OutputFile {
public:
    explicit OutputFile(std::string path) : path_(std::move(path)) {
        if (path_ == "-") {
            f_ = stdout;
            return;
        }
        tmp_ = path_ + ".ozrdc-tmp-" + std::to_string(::getpid());
        f_ = std::fopen(tmp_.c_str(), "wb");
        if (!f_) throw ToolError("cannot create " + tmp_ + ": " + std::strerror(errno));
    }
    ~OutputFile() {
        if (f_ && f_ != stdout) {
            std::fclose(f_);
            std::remove(tmp_.c_str());
        }
    }
    std::FILE* file() const { return f_; }
    void commit() {
        if (f_ == stdout) {
            if (std::fflush(stdout) != 0) throw ToolError("write error on standard output");
            return;
        }
        bool ok = std::fflush(f_) == 0 && std::fclose(f_) == 0;
        f_ = nullptr;
        if (!ok || std::rename(tmp_.c_str(), path_.c_str()) != 0) {
            std::remove(tmp_.c_str());
            throw ToolError("cannot write " + path_ + ": " + std::strerror(errno));
        }
    }

private:
    std::string path_, tmp_;
    std::FILE* f_ = nullptr;
};

struct InputFile {
    explicit InputFile(const std::string& path) {
        if (path == "-") {
            f = stdin;
            return;
        }
        if (std::filesystem::is_directory(path)) throw ToolError(path + ": is a directory");
        f = std::fopen(path.c_str(), "rb");
        if (!f) throw ToolError("cannot open " + path + ": " + std::strerror(errno));
    }
    ~InputFile() {
        if (f && f != stdin) std::fclose(f);
    }
    std::FILE* f = nullptr;
};

std::string defaultOutput(const std::string& in, const std::string& ext, bool compressing) {
    if (in == "-") return "-";
    if (compressing) return in + ext;
    if (in.size() > ext.size() && in.compare(in.size() - ext.size(), ext.size(), ext) == 0)
        return in.substr(0, in.size() - ext.size());
    return in + ".out";
}

}  // namespace
}  // namespace ozrdc_tool

int main(int argc, char** argv) {
    using namespace ozrdc_tool;
    CLI::App app{"ozrdc: data-compression building blocks — checksums, codecs and benchmarks"};
    app.require_subcommand(1);

    app.add_subcommand("version", "print the library's version record")->callback([] {
        const OzrVersionInfo* v = ozrdcGetLibVersion();
        std::printf("%s %s, built %s, cpu %s (%d.%d.%d.%u)\n", v->Name, v->Version, v->BuildDate, v->targetCpu,
                    v->major, v->minor, v->majorBuild, static_cast<unsigned>(v->build));
    });

    std::string formatNames;
    for (const auto& f : formats()) formatNames += (formatNames.empty() ? "" : "|") + f.name;

    std::string cFormat, cIn = "-", cOut, dIn = "-", dOut, dims;
    CompressOptions copts;
    bool force = false;
    auto* comp = app.add_subcommand("compress", "compress a file into a standard container (" + formatNames + ")");
    comp->add_option("-F,--format", cFormat, "container format: " + formatNames)->required();
    comp->add_option("input", cIn, "input file, - for standard input");
    comp->add_option("-o,--output", cOut, "output file, - for standard output (default: input + extension)");
    comp->add_option("--dims", dims, "zfp: array dimensions NX[,NY[,NZ]] of little-endian float32 values");
    comp->add_option("--rate", copts.rate, "zfp: fixed rate, bits per value");
    comp->add_option("--precision", copts.precision, "zfp: fixed precision, bit planes");
    comp->add_option("--accuracy", copts.accuracy, "zfp: fixed accuracy, absolute error tolerance");
    comp->add_option("-l,-L,--level", copts.level, "compression level where the format has levels");
    comp->add_flag("--fastest", copts.fastest, "gzip, zlib, deflate: the library's one-pass fastest mode");
    comp->add_option("-T,--threads", copts.threads, "bzip2: compress blocks on this many threads")->check(CLI::Range(1, 256));
    comp->add_flag("-f,--force", force, "overwrite an existing output file");

    auto* dec = app.add_subcommand("decompress", "restore a file written by compress or by the format's own tool");
    dec->add_option("input", dIn, "input file, - for standard input");
    dec->add_option("-o,--output", dOut, "output file, - for standard output (default: input without extension)");
    dec->add_flag("-f,--force", force, "overwrite an existing output file");
    dec->add_option("-T,--threads", decodeThreads(), "bzip2: decode blocks on this many threads")->check(CLI::Range(1, 256));

    std::string corpusDir;
    bool json = false;
    std::vector<std::string> only;
    ozrdc_bench::Options bopts;
    auto* bench = app.add_subcommand("bench", "benchmark every operation side by side with the peer libraries");
    bench->add_option("--corpus", corpusDir, "directory of files to use instead of the built-in sample corpus");
    bench->add_flag("--json", json, "print the results as JSON");
    bench->add_option("--only", only, "run only these families (e.g. checksum lz4)");
    bench->add_option("--seconds", bopts.minSeconds, "minimum time per measurement");

    for (auto& add : extraCommands()) add(app);

    auto checkOverwrite = [&](const std::string& out) {
        if (out != "-" && !force && std::filesystem::exists(out))
            throw ToolError(out + " already exists (use -f to overwrite)");
    };

    comp->callback([&] {
        const Format* fmt = findFormat(cFormat);
        if (!fmt) throw ToolError("unknown format '" + cFormat + "' (known: " + formatNames + ")");
        if (!dims.empty()) {
            size_t pos = 0;
            while (pos <= dims.size()) {
                size_t comma = dims.find(',', pos);
                std::string part = dims.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
                try {
                    copts.dims.push_back(std::stoull(part));
                } catch (...) {
                    throw ToolError("--dims: '" + dims + "' is not a list of numbers");
                }
                if (comma == std::string::npos) break;
                pos = comma + 1;
            }
        }
        std::string out = cOut.empty() ? defaultOutput(cIn, fmt->extension, true) : cOut;
        checkOverwrite(out);
        InputFile in(cIn);
        Reader r(in.f, cIn == "-" ? "<stdin>" : cIn);
        OutputFile o(out);
        Writer w(o.file());
        fmt->compress(r, w, copts);
        o.commit();
    });

    dec->callback([&] {
        InputFile in(dIn);
        Reader r(in.f, dIn == "-" ? "<stdin>" : dIn);
        unsigned char head[16];
        size_t n = r.peek(head, sizeof head);
        const Format* fmt = nullptr;
        for (const auto& f : formats())
            if (f.detect(head, n)) fmt = &f;
        // Formats without a magic (raw Deflate) are known by their file name's extension.
        for (const auto& f : formats())
            if (!fmt && dIn.size() > f.extension.size() && dIn.ends_with(f.extension)) fmt = &f;
        if (!fmt) throw ToolError(r.name() + ": not a file of a known format (" + formatNames + ")");
        std::string out = dOut.empty() ? defaultOutput(dIn, fmt->extension, false) : dOut;
        checkOverwrite(out);
        OutputFile o(out);
        Writer w(o.file());
        fmt->decompress(r, w);
        o.commit();
    });

    bench->callback([&] {
        ozrdc_bench::Corpus c = corpusDir.empty() ? ozrdc_bench::builtinCorpus() : ozrdc_bench::loadCorpus(corpusDir);
        exitStatus() = ozrdc_bench::runBench(c, bopts, only, json);
    });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "ozrdc: %s\n", e.what());
        return 1;
    }
    return exitStatus();
}
