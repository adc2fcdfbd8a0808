// ozrdc — command-line front end of the ozrdc library: version, checksums, file
// compression in standard container formats, and the side-by-side benchmark.
//
// compress and decompress behave like the format tools their users know (gzip,
// bzip2, lz4, lzop): -c, -k, -t, -f, -q, -v, several files per command, stdin to
// stdout by default, the input's mode and times on the output, exit status 0, 1
// (error) or 2 (warning: a file was skipped).
#include <CLI/CLI.hpp>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "bench.h"
#include "codec.h"
#include "commands.h"
#include "files.h"
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

bool g_quiet = false, g_warned = false;  // -q of the running command; a warning seen

}  // namespace

void conversionWarning(const std::string& message) {
    g_warned = true;
    if (!g_quiet) std::fprintf(stderr, "ozrdc: %s\n", message.c_str());
}

namespace {

enum class Mode { Compress, Decompress, Test };

// What one compress or decompress command was asked to do.
struct Settings {
    Mode mode = Mode::Compress;
    const Format* format = nullptr;  // compress: the -F format
    CompressOptions copts;
    std::vector<std::string> inputs;
    std::string output;  // -o
    bool test = false, toStdout = false, keep = false, remove = false;
    bool force = false, quiet = false, verbose = false;
};

const Format* findFormat(const std::string& name) {
    for (const auto& f : formats())
        if (f.name == name) return &f;
    return nullptr;
}

std::string formatNames() {
    std::string names;
    for (const auto& f : formats()) names += (names.empty() ? "" : "|") + f.name;
    return names;
}

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() > suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0 &&
           s[s.size() - suffix.size() - 1] != '/';
}

// The name decompress gives the output of FILE: FILE without the detected format's
// suffix, or without any known format's suffix (a .lz4 file holding gzip data).
std::string strippedName(const std::string& in, const Format& detected) {
    if (endsWith(in, detected.extension)) return in.substr(0, in.size() - detected.extension.size());
    for (const auto& f : formats())
        if (endsWith(in, f.extension)) return in.substr(0, in.size() - f.extension.size());
    throw ToolWarning(in + ": unknown suffix -- ignored");
}

// Converts (or tests) one input. Throws ToolError or ToolWarning; the output of a
// failed conversion is gone when this returns.
void convertOne(const Settings& s, const std::string& inPath) {
    const bool named = inPath != "-";
    const std::string inName = named ? inPath : "stdin";
    if (s.mode != Mode::Compress && !named && ::isatty(STDIN_FILENO) && !s.force)
        throw ToolError("compressed data not read from a terminal (use -f to force)");
    InputFile in(inPath);
    struct stat link;
    const bool isLink = named && ::lstat(inPath.c_str(), &link) == 0 && S_ISLNK(link.st_mode);
    const bool toStdout = s.toStdout || s.output == "-" || (s.output.empty() && !named);
    const bool nameFromInput = s.mode != Mode::Test && !toStdout && s.output.empty();
    if (nameFromInput && (!in.isRegular() || isLink) && !s.force)
        throw ToolWarning(inPath + " is not a regular file -- ignored");

    Reader r(in.f, inName);
    const Format* fmt = s.format;
    if (s.mode != Mode::Compress) {
        unsigned char head[16];
        const size_t n = r.peek(head, sizeof head);
        fmt = nullptr;
        for (const auto& f : formats())
            if (f.detect(head, n)) fmt = &f;
        if (!fmt) throw ToolError(inName + ": not a file of a known format (" + formatNames() + ")");
    }

    // A link named as input is followed for reading; removing it would remove the link.
    const bool removeInput = named && in.isRegular() && !isLink && s.mode != Mode::Test && !toStdout && !s.keep &&
                             (s.remove || (nameFromInput && !fmt->keepsInput));
    if (removeInput && in.st.st_nlink > 1 && !s.force)
        throw ToolWarning(inPath + " has " + std::to_string(in.st.st_nlink - 1) + " other link(s) -- unchanged");

    std::string outPath;
    if (toStdout) {
        outPath = "-";
    } else if (!s.output.empty()) {
        outPath = s.output;
    } else if (s.mode == Mode::Compress) {
        if (endsWith(inPath, fmt->extension))
            throw ToolWarning(inPath + " already has " + fmt->extension + " suffix -- unchanged");
        outPath = inPath + fmt->extension;
    } else if (s.mode == Mode::Decompress) {
        outPath = strippedName(inPath, *fmt);
    }

    std::optional<OutputFile> out;
    if (s.mode != Mode::Test) {
        out.emplace(outPath, s.force, named && in.isRegular() ? &in.st : nullptr);
        if (in.isRegular() && out->sameFileAs(in.st)) throw ToolError(inName + ": input and output are the same file");
        if (s.mode == Mode::Compress && out->isTerminal() && !s.force)
            throw ToolError("compressed data not written to a terminal (use -f to force)");
    }
    Writer w(out ? out->file() : nullptr, outPath == "-" ? "stdout" : outPath);
    {
        std::optional<uint64_t> size;
        if (in.isRegular()) size = static_cast<uint64_t>(in.st.st_size);
        std::optional<Progress> progress;
        // Not over data going to the same terminal either.
        const bool lineFree = ::isatty(STDERR_FILENO) && !(out && out->isTerminal());
        if (progressWanted(s.verbose, lineFree, size))
            progress.emplace(inName, size, s.mode == Mode::Compress, r, w);
        if (s.mode == Mode::Compress) fmt->compress(r, w, s.copts);
        else fmt->decompress(r, w);
    }
    if (out) out->commit();

    bool removed = false;
    if (removeInput) {
        if (::unlink(inPath.c_str()) != 0)
            throw ToolWarning(inPath + ": not removed after conversion: " + std::strerror(errno));
        removed = true;
    }
    if (s.verbose) {
        if (s.mode == Mode::Test) {
            std::fprintf(stderr, "%s:\t OK\n", inName.c_str());
            return;
        }
        // gzip's figure: the share of the uncompressed size that compression saved.
        const double plain = double(s.mode == Mode::Compress ? r.consumed() : w.written());
        const double packed = double(s.mode == Mode::Compress ? w.written() : r.consumed());
        const double saved = plain > 0 ? 100.0 * (1.0 - packed / plain) : 0.0;
        std::string tail;
        if (!toStdout) tail = (removed ? " -- replaced with " : " -- created ") + outPath;
        std::fprintf(stderr, "%s:\t%5.1f%%%s\n", inName.c_str(), saved, tail.c_str());
    }
}

// Runs every input; the status is 1 if any failed, else 2 if any was skipped.
int convertAll(Settings& s) {
    if (s.inputs.empty()) s.inputs.push_back("-");
    if (s.test && (s.toStdout || !s.output.empty())) throw ToolError("-t writes nothing: no -c or -o with it");
    if (s.toStdout && !s.output.empty()) throw ToolError("-c and -o name two outputs: give one");
    if (!s.output.empty() && s.output != "-" && s.inputs.size() > 1)
        throw ToolError("-o names one output, for one input; several files each get their own name");
    if (s.keep && s.remove) throw ToolError("-k and --rm contradict each other");
    if (s.mode != Mode::Compress && s.test) s.mode = Mode::Test;
    g_quiet = s.quiet;
    bool failed = false;
    for (const auto& in : s.inputs) {
        try {
            convertOne(s, in);
        } catch (const ToolWarning& w) {
            conversionWarning(w.what());
        } catch (const std::exception& e) {
            failed = true;
            std::fprintf(stderr, "ozrdc: %s\n", e.what());
        }
    }
    std::fflush(stdout);
    return failed ? 1 : g_warned ? 2 : 0;
}

void addFileOptions(CLI::App* cmd, Settings& s) {
    cmd->add_option("files", s.inputs, "input files, - for standard input (default: standard input)");
    cmd->add_option("-o,--output", s.output, "output file for a single input, - for standard output");
    cmd->add_flag("-c,--stdout,--to-stdout", s.toStdout, "write to standard output and keep the input files");
    cmd->add_flag("-k,--keep", s.keep, "keep the input files");
    cmd->add_flag("--rm", s.remove, "remove each input file after success (also with -o)");
    cmd->add_flag("-f,--force", s.force,
                  "overwrite existing outputs; read or write a terminal; take inputs that are not regular files");
    cmd->add_flag("-q,--quiet", s.quiet, "suppress warnings");
    cmd->add_flag("-v,--verbose", s.verbose, "print each file's ratio; show progress when stderr is a terminal");
}

// The rules compress and decompress share, with each format's default for its input.
std::string filesFooter() {
    std::string keeps, removes;
    for (const auto& f : formats()) {
        std::string& list = f.keepsInput ? keeps : removes;
        list += (list.empty() ? "" : ", ") + f.name;
    }
    std::string text =
        "Each FILE gets its own output: compress writes FILE plus the format's suffix, decompress\n"
        "FILE without it. With no FILE, or FILE -, standard input goes to standard output.\n"
        "\n"
        "Input files: when the output is named from the input, each format does what its own tool\n"
        "does after success:";
    if (!removes.empty()) text += " " + removes + " remove the input;";
    if (!keeps.empty()) text += " " + keeps + " keep it;";
    text +=
        "\n-k keeps, --rm removes (also with -o); -c, -o and -t keep it.\n"
        "\n"
        "Outputs: a regular file is written to a temporary file beside it and renamed into place\n"
        "only when complete, with the input's mode and modification time, so a failed or\n"
        "interrupted run leaves no partial output; an existing file is replaced only with -f.\n"
        "Character and block devices, FIFOs and sockets are written in place, never replaced.\n"
        "An output that is a symbolic link is written through: the link stays and its target\n"
        "gets the data (by the same rules). Compressed data is not written to a terminal\n"
        "without -f.\n"
        "\n"
        "Progress: a one-line display on standard error with -v, or for inputs over 64 MiB, when\n"
        "standard error is a terminal.\n"
        "\n"
        "Exit status: 0 success, 1 error, 2 warning (a file was skipped; -q hides the message).";
    return text;
}

// gzip's habits on the top level: "ozrdc -d FILE", "ozrdc -z -F lz4 FILE", "ozrdc -t
// FILE" and bundles such as -dc or -kz stand for the subcommand; -1 .. -12 for -L N.
std::vector<std::string> expandAliases(int argc, char** argv, const CLI::App& app) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string sub;
    if (!args.empty())
        for (const CLI::App* c : app.get_subcommands([](const CLI::App*) { return true; }))
            if (c->get_name() == args[0]) sub = args[0];
    if (sub.empty()) {
        auto setSub = [&](const char* name) {
            if (!sub.empty() && sub != name) throw ToolError("-d (decompress) and -z (compress) together");
            sub = name;
        };
        std::vector<std::string> kept;
        bool optionsOver = false;
        for (const auto& a : args) {
            optionsOver = optionsOver || a == "--";
            if (!optionsOver && (a == "--decompress" || a == "--uncompress")) {
                setSub("decompress");
            } else if (!optionsOver && a == "--compress") {
                setSub("compress");
            } else if (!optionsOver && a == "--test") {
                setSub("decompress");
                kept.push_back(a);
            } else if (!optionsOver && a.size() > 1 && a[0] == '-' && a[1] != '-' &&
                       a.find_first_not_of("dzcktfqv", 1) == std::string::npos) {
                std::string rest = "-";
                for (char c : a.substr(1)) {
                    if (c == 'd') setSub("decompress");
                    else if (c == 'z') setSub("compress");
                    else rest += c;
                    if (c == 't') setSub("decompress");
                }
                if (rest.size() > 1) kept.push_back(rest);
            } else {
                kept.push_back(a);
            }
        }
        if (sub.empty()) return args;
        args = std::move(kept);
        args.insert(args.begin(), sub);
    }
    if (sub == "compress") {
        std::vector<std::string> out;
        bool optionsOver = false;
        for (const auto& a : args) {
            optionsOver = optionsOver || a == "--";
            if (!optionsOver && a.size() > 1 && a[0] == '-' && a.find_first_not_of("0123456789", 1) == std::string::npos) {
                out.push_back("-L");
                out.push_back(a.substr(1));
            } else {
                out.push_back(a);
            }
        }
        args = std::move(out);
    }
    return args;
}

}  // namespace
}  // namespace ozrdc_tool

int main(int argc, char** argv) {
    using namespace ozrdc_tool;
    installSignalHandlers();
    CLI::App app{"ozrdc: data-compression building blocks — checksums, codecs and benchmarks"};
    app.require_subcommand(1);
    app.footer(
        "As with gzip: ozrdc -d FILE... decompresses, ozrdc -t FILE... tests, ozrdc -z -F FORMAT FILE...\n"
        "compresses (bundles such as -dc, -kz work too; -1 .. -12 stand for -L N).");

    app.add_subcommand("version", "print the library's version record")->callback([] {
        const OzrVersionInfo* v = ozrdcGetLibVersion();
        std::printf("%s %s, built %s, cpu %s (%d.%d.%d.%u)\n", v->Name, v->Version, v->BuildDate, v->targetCpu,
                    v->major, v->minor, v->majorBuild, static_cast<unsigned>(v->build));
    });

    const std::string names = formatNames();
    Settings cs, ds;
    cs.mode = Mode::Compress;
    ds.mode = Mode::Decompress;
    std::string cFormat, dims;
    auto* comp = app.add_subcommand("compress", "compress files into a standard container (" + names + "); alias -z");
    comp->add_option("-F,--format", cFormat, "container format: " + names)->required();
    addFileOptions(comp, cs);
    comp->add_option("-l,-L,--level", cs.copts.level, "compression level where the format has levels (also -1 .. -12)");
    comp->add_flag("--fastest", cs.copts.fastest, "gzip, zlib, deflate: the library's one-pass fastest mode");
    comp->add_option("-T,--threads", cs.copts.threads, "bzip2: compress blocks on this many threads")
        ->check(CLI::Range(1, 256));
    comp->add_option("--dims", dims, "zfp: array dimensions NX[,NY[,NZ]] of little-endian float32 values");
    comp->add_option("--rate", cs.copts.rate, "zfp: fixed rate, bits per value");
    comp->add_option("--precision", cs.copts.precision, "zfp: fixed precision, bit planes");
    comp->add_option("--accuracy", cs.copts.accuracy, "zfp: fixed accuracy, absolute error tolerance");
    comp->footer(filesFooter());

    auto* dec = app.add_subcommand(
        "decompress", "restore files written by compress or by the format's own tool (detected); alias -d");
    addFileOptions(dec, ds);
    dec->add_flag("-t,--test", ds.test, "decode and check every checksum, write nothing");
    dec->add_option("-T,--threads", decodeThreads(), "bzip2: decode blocks on this many threads")
        ->check(CLI::Range(1, 256));
    dec->footer(filesFooter());

    std::string corpusDir;
    bool json = false;
    std::vector<std::string> only;
    ozrdc_bench::Options bopts;
    auto* bench = app.add_subcommand("bench", "benchmark every operation side by side with the peer libraries");
    bench->add_option("--corpus", corpusDir, "directory of files to use instead of the built-in sample corpus");
    bench->add_flag("--json", json, "print the results as JSON");
    bench->add_option("--only", only, "run only these families (e.g. checksum lz4)");
    bench->add_option("--seconds", bopts.minSeconds, "minimum time per measurement");
    bench->add_flag("--dirty-upper", bopts.dirtyUpper,
                    "leave the upper vector register halves dirty before each timed pass (AVX2 processors)");
    bench->add_flag("--cpu-time", bopts.cpuTime,
                    "time by the thread's CPU time instead of the wall clock (steadier on a busy machine)");

    for (auto& add : extraCommands()) add(app);

    comp->callback([&] {
        cs.format = findFormat(cFormat);
        if (!cs.format) throw ToolError("unknown format '" + cFormat + "' (known: " + names + ")");
        if (!dims.empty()) {
            size_t pos = 0;
            while (pos <= dims.size()) {
                size_t comma = dims.find(',', pos);
                std::string part = dims.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
                try {
                    cs.copts.dims.push_back(std::stoull(part));
                } catch (...) {
                    throw ToolError("--dims: '" + dims + "' is not a list of numbers");
                }
                if (comma == std::string::npos) break;
                pos = comma + 1;
            }
        }
        exitStatus() = convertAll(cs);
    });
    dec->callback([&] { exitStatus() = convertAll(ds); });

    bench->callback([&] {
        ozrdc_bench::Corpus c = corpusDir.empty() ? ozrdc_bench::builtinCorpus() : ozrdc_bench::loadCorpus(corpusDir);
        exitStatus() = ozrdc_bench::runBench(c, bopts, only, json);
    });

    try {
        std::vector<std::string> args = expandAliases(argc, argv, app);
        std::reverse(args.begin(), args.end());  // CLI11 takes the arguments last first
        app.parse(args);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "ozrdc: %s\n", e.what());
        return 1;
    }
    return exitStatus();
}
