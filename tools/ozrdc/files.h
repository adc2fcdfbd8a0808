// Files as compress and decompress touch them: the input, the output (a temporary
// file renamed into place, or a device, FIFO or socket written as it is), the
// clean-up on interrupt, and the progress display.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>

namespace ozrdc_tool {

class Reader;
class Writer;

// A file skipped for a reason the user may ignore (output exists, wrong suffix,
// not a regular file): printed unless -q, exit status 2 when nothing worse happened.
struct ToolWarning : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What happens to an output path, decided from stat() of the path with symbolic
// links already followed (an output that is a link is written through: its target
// gets the data and the link stays).
enum class OutputAction {
    Create,        // nothing there: temporary file beside it, renamed into place
    Replace,       // a regular file: the same, once overwriting is allowed (-f)
    WriteInPlace,  // character or block device, FIFO, socket: opened and written as it
                   // is; never renamed over (that would replace /dev/null) nor refused
    Refuse,        // a directory
};

inline OutputAction outputAction(bool exists, mode_t mode) {
    if (!exists) return OutputAction::Create;
    if (S_ISREG(mode)) return OutputAction::Replace;
    if (S_ISCHR(mode) || S_ISBLK(mode) || S_ISFIFO(mode) || S_ISSOCK(mode)) return OutputAction::WriteInPlace;
    return OutputAction::Refuse;
}

// Inputs above this size show the progress display without -v.
constexpr uint64_t kProgressThreshold = uint64_t(64) << 20;

// The progress line goes to a terminal only: with -v, or for a large input.
inline bool progressWanted(bool verbose, bool stderrIsTerminal, std::optional<uint64_t> inputSize) {
    if (!stderrIsTerminal) return false;
    return verbose || (inputSize && *inputSize > kProgressThreshold);
}

// Once at start: SIGINT, SIGTERM and SIGHUP remove the temporary output file before
// the process dies of the signal; SIGXFSZ is ignored so that a file-size limit
// shows as a write error ("File too large") with the same clean-up.
void installSignalHandlers();

struct InputFile {
    // "-" is standard input. Throws ToolError when the file cannot be opened.
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    std::string path;
    std::FILE* f = nullptr;
    struct stat st {};
    bool isRegular() const { return S_ISREG(st.st_mode); }
};

// An output being written. Regular files (new or replaced) go to a temporary file
// beside the final one, with the final mode and times given to it before it is
// renamed into place by commit(); anything else that fails leaves nothing. Devices,
// FIFOs and sockets are written directly. "-" is standard output.
class OutputFile {
public:
    // `like`: the input's stat when it is a regular file (mode, owner and times to
    // copy), else nullptr. Throws ToolWarning when the output exists and !force,
    // ToolError when it cannot be written.
    OutputFile(const std::string& path, bool force, const struct stat* like);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    std::FILE* file() const { return f_; }
    bool isTerminal() const;
    // The file the data goes to (a link's target), for "same file as the input" checks.
    bool sameFileAs(const struct stat& st) const;
    void commit();

private:
    void abandon();
    std::string path_, final_, tmp_;
    std::FILE* f_ = nullptr;
    bool inPlace_ = false, force_ = false, existed_ = false;
    struct stat target_ {};
    struct stat like_ {};
    bool haveLike_ = false;
};

// The one-line progress display on standard error: bytes done, rate, ratio.
// Redrawn in place at most a few times a second; erased when done.
class Progress {
public:
    Progress(std::string name, std::optional<uint64_t> total, bool compressing, Reader& in, Writer& out);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    // Called after each read (wrote false) and write (true).
    void tick(bool wrote);

private:
    void draw(double now);
    std::string name_;
    std::optional<uint64_t> total_;
    bool compressing_;
    Reader& in_;
    Writer& out_;
    double start_, next_;
    // Bytes in and out as of the last write: the input read ahead of the output
    // (a block being coded) would distort the ratio.
    uint64_t ratioIn_ = 0, ratioOut_ = 0;
    // The clock is read after 64 KiB or 256 calls, whichever comes first: cheap for
    // a format that reads a byte at a time, prompt for one that reads megabytes.
    uint64_t checkedAt_ = 0;
    unsigned calls_ = 0;
};

}  // namespace ozrdc_tool
