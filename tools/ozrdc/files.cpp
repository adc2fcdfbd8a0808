#include "files.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>

#include "codec.h"

namespace ozrdc_tool {
namespace {

// The temporary output file to remove when a signal ends the process. Set and
// cleared with the signals blocked, so that the handler never sees half a name.
char g_tmpPath[PATH_MAX + 32];
volatile sig_atomic_t g_haveTmp = 0;
volatile sig_atomic_t g_progressShown = 0;
mode_t g_umask = 022;

constexpr char kEraseLine[] = "\r\033[K";

void onFatalSignal(int sig) {
    if (g_haveTmp) ::unlink(g_tmpPath);
    if (g_progressShown) (void)!::write(STDERR_FILENO, kEraseLine, sizeof kEraseLine - 1);
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

// Blocks the clean-up signals for its lifetime.
class SignalsHeld {
public:
    SignalsHeld() {
        sigset_t s;
        sigemptyset(&s);
        for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&s, sig);
        sigprocmask(SIG_BLOCK, &s, &old_);
    }
    ~SignalsHeld() { sigprocmask(SIG_SETMASK, &old_, nullptr); }

private:
    sigset_t old_;
};

std::string errnoText() { return std::strerror(errno); }

// Follows symbolic links to the path that will really be written (a dangling
// link gives the path it points to).
std::string resolveLinks(const std::string& path) {
    std::string p = path;
    for (int hops = 0; hops < 40; ++hops) {
        struct stat st;
        if (::lstat(p.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return p;
        std::string target(PATH_MAX, '\0');
        ssize_t n = ::readlink(p.c_str(), target.data(), target.size());
        if (n < 0) return p;
        target.resize(static_cast<size_t>(n));
        size_t slash = p.rfind('/');
        p = target[0] == '/' || slash == std::string::npos ? target : p.substr(0, slash + 1) + target;
    }
    errno = ELOOP;
    throw ToolError(path + ": " + errnoText());
}

double nowSeconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

std::string humanBytes(double n) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int u = 0;
    while (n >= 1024 && u < 4) n /= 1024, ++u;
    char buf[32];
    std::snprintf(buf, sizeof buf, u == 0 ? "%.0f %s" : "%.1f %s", n, units[u]);
    return buf;
}

}  // namespace

void installSignalHandlers() {
    g_umask = ::umask(0);
    ::umask(g_umask);
    struct sigaction sa {};
    sa.sa_handler = onFatalSignal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction old;
        // A signal ignored by the parent (nohup, background jobs) stays ignored.
        if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
        sigaction(sig, &sa, nullptr);
    }
    std::signal(SIGXFSZ, SIG_IGN);
}

// ---- Input ---------------------------------------------------------------------------

InputFile::InputFile(const std::string& p) : path(p) {
    if (path == "-") {
        f = stdin;
        ::fstat(STDIN_FILENO, &st);
        return;
    }
    int fd = ::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) throw ToolError(path + ": " + errnoText());
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        ::close(fd);
        if (S_ISDIR(st.st_mode)) throw ToolWarning(path + " is a directory -- ignored");
        throw ToolError(path + ": " + errnoText());
    }
    f = ::fdopen(fd, "rb");
    if (!f) {
        ::close(fd);
        throw ToolError(path + ": " + errnoText());
    }
}

InputFile::~InputFile() {
    if (f && f != stdin) std::fclose(f);
}

// ---- Output --------------------------------------------------------------------------

OutputFile::OutputFile(const std::string& path, bool force, const struct stat* like)
    : path_(path), force_(force) {
    if (like) like_ = *like, haveLike_ = true;
    if (path_ == "-") {
        f_ = stdout;
        inPlace_ = true;
        ::fstat(STDOUT_FILENO, &target_);
        existed_ = true;
        return;
    }
    final_ = resolveLinks(path_);
    existed_ = ::stat(final_.c_str(), &target_) == 0;
    if (!existed_ && errno != ENOENT) throw ToolError(path_ + ": " + errnoText());
    switch (outputAction(existed_, target_.st_mode)) {
        case OutputAction::Refuse:
            throw ToolError(path_ + ": is a directory");
        case OutputAction::WriteInPlace: {
            inPlace_ = true;
            int fd;
            if (S_ISSOCK(target_.st_mode)) {
                // A Unix socket cannot be opened; a stream connection to it is the write.
                sockaddr_un addr{};
                addr.sun_family = AF_UNIX;
                if (final_.size() >= sizeof addr.sun_path) throw ToolError(path_ + ": socket path too long");
                std::memcpy(addr.sun_path, final_.c_str(), final_.size() + 1);
                fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
                if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
                    int e = errno;
                    ::close(fd);
                    errno = e;
                    fd = -1;
                }
            } else {
                fd = ::open(final_.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
            }
            if (fd < 0 || !(f_ = ::fdopen(fd, "wb"))) {
                std::string why = errnoText();
                if (fd >= 0) ::close(fd);
                throw ToolError("cannot write " + path_ + ": " + why);
            }
            return;
        }
        case OutputAction::Replace:
            if (!force_) throw ToolWarning(path_ + " already exists; not overwritten (use -f)");
            break;
        case OutputAction::Create:
            break;
    }
    std::string tmpl = final_ + ".ozrdc-XXXXXX";
    if (tmpl.size() >= sizeof g_tmpPath) throw ToolError(path_ + ": file name too long");
    int fd;
    {
        SignalsHeld held;
        fd = ::mkostemp(tmpl.data(), O_CLOEXEC);
        if (fd >= 0) {
            std::memcpy(g_tmpPath, tmpl.c_str(), tmpl.size() + 1);
            g_haveTmp = 1;
            tmp_ = tmpl;
        }
    }
    if (fd < 0) throw ToolError("cannot create " + path_ + ": " + errnoText());
    f_ = ::fdopen(fd, "wb");
    if (!f_) {
        ::close(fd);
        abandon();
        throw ToolError("cannot create " + path_ + ": " + errnoText());
    }
}

OutputFile::~OutputFile() {
    if (f_ && f_ != stdout) std::fclose(f_);
    abandon();
}

void OutputFile::abandon() {
    if (tmp_.empty()) return;
    SignalsHeld held;
    ::unlink(tmp_.c_str());
    g_haveTmp = 0;
    tmp_.clear();
}

bool OutputFile::isTerminal() const { return f_ && ::isatty(::fileno(f_)); }

bool OutputFile::sameFileAs(const struct stat& st) const {
    return existed_ && target_.st_dev == st.st_dev && target_.st_ino == st.st_ino;
}

void OutputFile::commit() {
    if (f_ == stdout) {
        if (std::fflush(stdout) != 0) throw ToolError("write error on standard output: " + errnoText());
        return;
    }
    std::FILE* f = f_;
    f_ = nullptr;
    if (inPlace_) {
        bool ok = std::fflush(f) == 0;
        int e = errno;
        ok = std::fclose(f) == 0 && ok;
        if (!ok) throw ToolError("write error on " + path_ + ": " + std::strerror(ok ? errno : e));
        return;
    }
    // The temporary file becomes the final one whole: data flushed, then owner, mode
    // and times, then the rename.
    bool ok = std::fflush(f) == 0;
    std::string why = errnoText();
    if (ok) {
        const int fd = ::fileno(f);
        mode_t mode = 0666 & ~g_umask;
        if (haveLike_) {
            (void)!::fchown(fd, like_.st_uid, like_.st_gid);  // takes only where allowed, as gzip
            mode = like_.st_mode & 0777;
        } else if (existed_) {
            mode = target_.st_mode & 0777;
        }
        ::fchmod(fd, mode);
        if (haveLike_) {
            const timespec times[2] = {like_.st_atim, like_.st_mtim};
            ::futimens(fd, times);
        }
    }
    if (std::fclose(f) != 0 && ok) ok = false, why = errnoText();
    if (!ok) {
        abandon();
        throw ToolError("write error on " + path_ + ": " + why);
    }
    // Whatever appeared at the path meanwhile, a special file is never renamed over.
    struct stat now;
    if (::lstat(final_.c_str(), &now) == 0 && !S_ISREG(now.st_mode)) {
        abandon();
        throw ToolError(path_ + ": no longer a regular file; not replaced");
    }
    SignalsHeld held;
    int r;
    if (!existed_ && !force_) {
        r = ::renameat2(AT_FDCWD, tmp_.c_str(), AT_FDCWD, final_.c_str(), RENAME_NOREPLACE);
        if (r != 0 && (errno == EINVAL || errno == ENOSYS)) r = ::rename(tmp_.c_str(), final_.c_str());
    } else {
        r = ::rename(tmp_.c_str(), final_.c_str());
    }
    if (r != 0) {
        const bool exists = errno == EEXIST;
        why = errnoText();
        abandon();
        if (exists) throw ToolWarning(path_ + " already exists; not overwritten (use -f)");
        throw ToolError("cannot write " + path_ + ": " + why);
    }
    g_haveTmp = 0;
    tmp_.clear();
}

// ---- Progress ------------------------------------------------------------------------

Progress::Progress(std::string name, std::optional<uint64_t> total, bool compressing, Reader& in, Writer& out)
    : name_(std::move(name)), total_(total), compressing_(compressing), in_(in), out_(out) {
    start_ = nowSeconds();
    next_ = start_ + 0.5;  // short runs stay quiet
    in_.watch(this);
    out_.watch(this);
}

Progress::~Progress() {
    in_.watch(nullptr);
    out_.watch(nullptr);
    if (g_progressShown) {
        (void)!::write(STDERR_FILENO, kEraseLine, sizeof kEraseLine - 1);
        g_progressShown = 0;
    }
}

void Progress::tick(bool wrote) {
    if (wrote) ratioIn_ = in_.consumed(), ratioOut_ = out_.written();
    const uint64_t moved = in_.consumed() + out_.written();
    if (moved - checkedAt_ < 65536 && ++calls_ < 256) return;
    checkedAt_ = moved;
    calls_ = 0;
    const double t = nowSeconds();
    if (t < next_) return;
    next_ = t + 0.25;
    draw(t);
}

void Progress::draw(double now) {
    const double done = double(in_.consumed());
    std::string line = name_ + ": " + humanBytes(done);
    char buf[64];
    if (total_ && *total_ > 0) {
        std::snprintf(buf, sizeof buf, " of %s (%.0f%%)", humanBytes(double(*total_)).c_str(),
                      100.0 * done / double(*total_));
        line += buf;
    }
    line += ", " + humanBytes(done / (now - start_)) + "/s";
    const double plain = double(compressing_ ? ratioIn_ : ratioOut_);
    const double packed = double(compressing_ ? ratioOut_ : ratioIn_);
    if (plain > 0 && packed > 0) {
        std::snprintf(buf, sizeof buf, ", ratio %.2f", plain / packed);
        line += buf;
    }
    // One terminal line: a wrapped line could not be redrawn in place.
    winsize ws{};
    size_t width = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 1 ? ws.ws_col : 80;
    if (line.size() >= width) line.resize(width - 1);
    line = "\r" + line + "\033[K";
    g_progressShown = 1;
    (void)!::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace ozrdc_tool
