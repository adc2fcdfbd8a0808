// The ozrdc command-line tool as a user runs it, through the real binary: what it
// does to special outputs, the habits of the format tools (-c -d -z -t -k -q -v,
// several files, exit statuses, terminals), the progress display, bad input and
// interruption, and that every --help lists what its command accepts.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "../tools/ozrdc/files.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// ---- Running the binary --------------------------------------------------------------

struct Invocation {
    std::vector<std::string> args;
    std::string input;               // fed to standard input through a pipe
    size_t chunk = 0;                // feed in pieces of this size ...
    std::chrono::milliseconds pause{0};  // ... with this pause between them
    bool stdinTerminal = false, stdoutTerminal = false, stderrTerminal = false;
    rlim_t fileSizeLimit = RLIM_INFINITY;
    bool asNobody = false;           // root drops to uid/gid 65534, so that permissions hold
    fs::path cwd;
    // Called once with the child's pid after `input` has gone in whole; standard
    // input stays open meanwhile.
    std::function<void(pid_t)> whenFed;
};

struct Result {
    int status = -1;  // exit status, -1 when killed
    int signal = 0;   // the signal that ended it
    std::string out, err;
};

// A pseudo-terminal pair 120 columns wide; the child gets the slave.
struct Pty {
    int master = -1;
    std::string slave;
    Pty() {
        master = posix_openpt(O_RDWR | O_NOCTTY);
        if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) return;
        slave = ptsname(master);
        winsize ws{};
        ws.ws_col = 120;
        ws.ws_row = 40;
        ioctl(master, TIOCSWINSZ, &ws);
    }
};

Result runTool(const Invocation& run) {
    Result res;
    int inPipe[2], outPipe[2], errPipe[2];
    if (pipe(inPipe) != 0 || pipe(outPipe) != 0 || pipe(errPipe) != 0) return res;
    Pty inPty, outPty, errPty;
    // Built before fork: the child of a threaded test must not allocate.
    std::vector<char*> argv{const_cast<char*>(OZRDC_TOOL_PATH)};
    for (const auto& a : run.args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        auto attach = [](bool terminal, const Pty& pty, int pipeEnd, int fd, int flags) {
            int src = terminal ? open(pty.slave.c_str(), flags | O_NOCTTY) : pipeEnd;
            dup2(src, fd);
        };
        attach(run.stdinTerminal, inPty, inPipe[0], 0, O_RDONLY);
        attach(run.stdoutTerminal, outPty, outPipe[1], 1, O_WRONLY);
        attach(run.stderrTerminal, errPty, errPipe[1], 2, O_WRONLY);
        for (int fd = 3; fd < 256; ++fd) close(fd);
        if (!run.cwd.empty() && chdir(run.cwd.c_str()) != 0) _exit(126);
        rlimit lim{run.fileSizeLimit, run.fileSizeLimit};
        setrlimit(RLIMIT_FSIZE, &lim);
        signal(SIGINT, SIG_DFL);
        if (run.asNobody && geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(126);
        execv(OZRDC_TOOL_PATH, argv.data());
        _exit(127);
    }
    close(inPipe[0]);
    close(outPipe[1]);
    close(errPipe[1]);
    // Output is read from the pipe or the terminal's master side; the slave's
    // end shows as EIO on the master.
    int outFd = run.stdoutTerminal ? outPty.master : outPipe[0];
    int errFd = run.stderrTerminal ? errPty.master : errPipe[0];
    int inFd = run.stdinTerminal ? -1 : inPipe[1];
    if (run.stdinTerminal) close(inPipe[1]);
    fcntl(inPipe[1], F_SETFL, O_NONBLOCK);
    size_t fed = 0, chunkLeft = run.chunk;
    bool calledBack = false;
    auto nextFeed = std::chrono::steady_clock::now();
    for (;;) {
        if (inFd >= 0 && fed == run.input.size() && !calledBack) {
            calledBack = true;
            if (run.whenFed) run.whenFed(pid);
            else close(inFd), inFd = -1;
        }
        pollfd p[3] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}, {-1, POLLOUT, 0}};
        int timeout = -1;
        if (inFd >= 0 && fed < run.input.size()) {
            auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(nextFeed - std::chrono::steady_clock::now());
            if (wait.count() <= 0) p[2].fd = inFd;
            else timeout = static_cast<int>(wait.count());
        }
        if (outFd < 0 && errFd < 0) break;
        if (poll(p, 3, timeout) < 0) break;
        for (int i = 0; i < 2; ++i) {
            if (p[i].fd < 0 || !(p[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buf[65536];
            ssize_t n = read(p[i].fd, buf, sizeof buf);
            if (n > 0) (i == 0 ? res.out : res.err).append(buf, static_cast<size_t>(n));
            else (i == 0 ? outFd : errFd) = -1;
        }
        if (p[2].fd >= 0 && (p[2].revents & (POLLOUT | POLLERR))) {
            size_t want = run.input.size() - fed;
            if (run.chunk) want = std::min(want, chunkLeft);
            ssize_t n = write(inFd, run.input.data() + fed, want);
            if (n > 0) fed += static_cast<size_t>(n), chunkLeft -= run.chunk ? static_cast<size_t>(n) : 0;
            else if (errno != EAGAIN) fed = run.input.size();
            if (run.chunk && chunkLeft == 0) {
                chunkLeft = run.chunk;
                nextFeed = std::chrono::steady_clock::now() + run.pause;
            }
        }
    }
    if (inFd >= 0) close(inFd);
    int st = 0;
    waitpid(pid, &st, 0);
    for (int fd : {outPipe[0], errPipe[0], inPty.master, outPty.master, errPty.master})
        if (fd >= 0) close(fd);
    if (WIFEXITED(st)) res.status = WEXITSTATUS(st);
    if (WIFSIGNALED(st)) res.signal = WTERMSIG(st);
    return res;
}

Result tool(std::vector<std::string> args, std::string input = {}) {
    Invocation r;
    r.args = std::move(args);
    r.input = std::move(input);
    return runTool(r);
}

// ---- Files ---------------------------------------------------------------------------

std::string readAll(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

void writeAll(const fs::path& p, const std::string& data) { std::ofstream(p, std::ios::binary) << data; }

// Text with enough repetition to compress, different per seed.
std::string sampleText(size_t n, unsigned seed) {
    std::string s;
    uint32_t x = seed * 2654435761u + 1;
    while (s.size() < n) {
        x = x * 1103515245u + 12345u;
        s += "line " + std::to_string((x >> 16) % 5000) + " of the sample, seed " + std::to_string(seed) + "\n";
    }
    s.resize(n);
    return s;
}

// Random bytes: compression does not shrink them, so an encoder never races ahead.
std::string noise(size_t n, uint32_t seed) {
    std::string s(n, '\0');
    for (auto& c : s) seed = seed * 1664525u + 1013904223u, c = static_cast<char>(seed >> 24);
    return s;
}

std::vector<std::string> namesIn(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Collects what is written into a FIFO while the tool runs. The FIFO is held open
// for reading and writing, so that the tool's open never blocks and a tool that
// fails before opening it cannot hang the test.
class FifoDrain {
public:
    explicit FifoDrain(const fs::path& fifo) : fd_(open(fifo.c_str(), O_RDWR | O_NONBLOCK)) {
        thread_ = std::thread([this] {
            for (;;) {
                const bool last = done_;
                pollfd p{fd_, POLLIN, 0};
                poll(&p, 1, 20);
                char buf[65536];
                ssize_t n;
                while ((n = read(fd_, buf, sizeof buf)) > 0) data_.append(buf, static_cast<size_t>(n));
                if (last) return;
            }
        });
    }
    // What arrived, once the tool has finished.
    std::string finish() {
        done_ = true;
        thread_.join();
        close(fd_);
        return data_;
    }

private:
    int fd_;
    std::atomic<bool> done_{false};
    std::string data_;
    std::thread thread_;
};

class ToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() /
              ("ozrdc_tool_test_" + std::to_string(::getpid()) + "_" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string path(const std::string& name) const { return (dir / name).string(); }
    // A file and its .lz4 made by the tool; returns the plain content.
    std::string makeLz4(const std::string& name, size_t size = 200000, unsigned seed = 1) {
        std::string data = sampleText(size, seed);
        writeAll(dir / name, data);
        EXPECT_EQ(tool({"compress", "-F", "lz4", path(name), "-o", path(name + ".lz4")}).status, 0);
        return data;
    }
    fs::path dir;
};

std::string decodeLz4(const std::string& packed) {
    Result r = tool({"decompress", "-c"}, packed);
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
}

// ---- Special outputs -----------------------------------------------------------------

TEST(ToolOutputRule, OnlyRegularFilesAreRenamedOverAndDevicesAreWrittenInPlace) {
    using ozrdc_tool::OutputAction;
    using ozrdc_tool::outputAction;
    EXPECT_EQ(outputAction(false, 0), OutputAction::Create);
    EXPECT_EQ(outputAction(true, S_IFREG | 0644), OutputAction::Replace);
    for (mode_t m : {S_IFCHR, S_IFBLK, S_IFIFO, S_IFSOCK})
        EXPECT_EQ(outputAction(true, m | 0666), OutputAction::WriteInPlace) << std::oct << m;
    EXPECT_EQ(outputAction(true, S_IFDIR | 0755), OutputAction::Refuse);
    struct stat st;
    ASSERT_EQ(stat("/dev/null", &st), 0);
    EXPECT_EQ(outputAction(true, st.st_mode), OutputAction::WriteInPlace) << "/dev/null";
}

TEST_F(ToolTest, FifoOutputIsWrittenInPlaceNotReplaced) {
    const std::string data = makeLz4("x");
    const fs::path fifo = dir / "p";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
    for (const char* force : {"-f", "-q"}) {  // neither forced nor refused as "already exists"
        FifoDrain drain(fifo);
        Result r = tool({"decompress", force, path("x.lz4"), "-o", fifo.string()});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(drain.finish(), data) << force;
        EXPECT_TRUE(fs::is_fifo(fifo));
    }
    EXPECT_EQ(namesIn(dir), (std::vector<std::string>{"p", "x", "x.lz4"}));
}

TEST_F(ToolTest, DeviceOutputIsWrittenInPlaceNotReplaced) {
    // A node of the null device inside the test's own folder: should the tool rename
    // over it, only this node is lost.
    const fs::path node = dir / "null";
    if (mknod(node.c_str(), S_IFCHR | 0666, makedev(1, 3)) != 0) GTEST_SKIP() << "cannot make a device node here";
    makeLz4("x");
    Result r = tool({"decompress", path("x.lz4"), "-o", node.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    r = tool({"compress", "-F", "lzo", path("x"), "-o", node.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    struct stat st;
    ASSERT_EQ(lstat(node.c_str(), &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(st.st_rdev, makedev(1, 3));
    EXPECT_EQ(namesIn(dir), (std::vector<std::string>{"null", "x", "x.lz4"}));
}

TEST_F(ToolTest, SocketOutputGetsTheDataThroughAConnection) {
    const fs::path sock = dir / "s";
    int ls = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, sock.c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(bind(ls, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(ls, 1), 0);
    const std::string data = makeLz4("x");
    std::string got;
    std::thread server([&] {
        pollfd p{ls, POLLIN, 0};
        if (poll(&p, 1, 10000) != 1) return;  // the tool never connected
        int c = accept(ls, nullptr, nullptr);
        char buf[65536];
        ssize_t n;
        while (c >= 0 && (n = read(c, buf, sizeof buf)) > 0) got.append(buf, static_cast<size_t>(n));
        if (c >= 0) close(c);
    });
    Result r = tool({"decompress", path("x.lz4"), "-o", sock.string()});
    server.join();
    close(ls);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(got, data);
    EXPECT_TRUE(fs::is_socket(sock));
}

TEST_F(ToolTest, SymlinkOutputIsWrittenThroughToItsTarget) {
    const std::string data = makeLz4("x");
    writeAll(dir / "target", "old");
    fs::create_symlink("target", dir / "link");
    Result r = tool({"decompress", path("x.lz4"), "-o", path("link")});
    EXPECT_EQ(r.status, 2) << "the target exists: a warning without -f";
    EXPECT_EQ(readAll(dir / "target"), "old");
    r = tool({"decompress", "-f", path("x.lz4"), "-o", path("link")});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::is_symlink(dir / "link"));
    EXPECT_EQ(readAll(dir / "target"), data);
    // A link to a FIFO: the FIFO is written in place.
    ASSERT_EQ(mkfifo(path("p").c_str(), 0600), 0);
    fs::create_symlink("p", dir / "plink");
    FifoDrain drain(dir / "p");
    r = tool({"decompress", path("x.lz4"), "-o", path("plink")});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(drain.finish(), data);
    EXPECT_TRUE(fs::is_fifo(dir / "p"));
}

TEST_F(ToolTest, OutputTakesTheInputsModeAndModificationTime) {
    writeAll(dir / "a", sampleText(50000, 2));
    ASSERT_EQ(chmod(path("a").c_str(), 0640), 0);
    const timespec times[2] = {{1577934245, 0}, {1577934245, 123456789}};
    ASSERT_EQ(utimensat(AT_FDCWD, path("a").c_str(), times, 0), 0);
    ASSERT_EQ(tool({"compress", "-F", "lz4", path("a")}).status, 0);
    struct stat st;
    ASSERT_EQ(stat(path("a.lz4").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_mtim.tv_sec, times[1].tv_sec);
    EXPECT_EQ(st.st_mtim.tv_nsec, times[1].tv_nsec);
    fs::rename(dir / "a", dir / "a.orig");
    ASSERT_EQ(tool({"decompress", path("a.lz4")}).status, 0);
    ASSERT_EQ(stat(path("a").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_mtim.tv_sec, times[1].tv_sec);
    // From standard input, a replaced file keeps its own mode.
    ASSERT_EQ(chmod(path("a").c_str(), 0600), 0);
    Result r = runTool({.args = {"decompress", "-f", "-o", path("a")}, .input = readAll(dir / "a.lz4")});
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(stat(path("a").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST_F(ToolTest, FailedRunLeavesNoFileAndKeepsTheOldOutput) {
    makeLz4("x", 300000);
    std::string packed = readAll(dir / "x.lz4");
    writeAll(dir / "bad.lz4", packed.substr(0, packed.size() / 2));
    writeAll(dir / "out", "previous");
    Result r = tool({"decompress", "-f", path("bad.lz4"), "-o", path("out")});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "truncated")) << r.err;
    EXPECT_EQ(readAll(dir / "out"), "previous");
    r = tool({"decompress", path("bad.lz4")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(namesIn(dir), (std::vector<std::string>{"bad.lz4", "out", "x", "x.lz4"}));
}

// ---- Habits of the format tools ------------------------------------------------------

TEST_F(ToolTest, StdoutFlagWritesStandardOutputAndKeepsTheInputs) {
    const std::string a = makeLz4("a", 1000, 1), b = makeLz4("b", 2000, 2);
    Result r = tool({"decompress", "-c", path("a.lz4"), path("b.lz4")});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, a + b) << "several files go out one after the other";
    r = tool({"compress", "-F", "lz4", "--rm", "--stdout", path("a")});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(decodeLz4(r.out), a);
    EXPECT_EQ(namesIn(dir), (std::vector<std::string>{"a", "a.lz4", "b", "b.lz4"}));
}

TEST_F(ToolTest, StandardInputGoesToStandardOutputWhenNoFileIsNamed) {
    const std::string data = sampleText(100000, 3);
    Result r = tool({"compress", "-F", "lzo"}, data);
    ASSERT_EQ(r.status, 0) << r.err;
    Result back = tool({"decompress"}, r.out);
    EXPECT_EQ(back.status, 0) << back.err;
    EXPECT_EQ(back.out, data);
    back = tool({"-dc", "-"}, r.out);
    EXPECT_EQ(back.out, data) << "- names standard input";
    EXPECT_TRUE(namesIn(dir).empty());
}

TEST_F(ToolTest, DashDAndDashZAreTheSubcommandsAsInGzip) {
    const std::string data = sampleText(40000, 4);
    writeAll(dir / "f", data);
    EXPECT_EQ(tool({"-z", "-F", "lz4", path("f")}).status, 0);
    EXPECT_TRUE(fs::exists(dir / "f.lz4"));
    fs::remove(dir / "f");
    EXPECT_EQ(tool({"-d", path("f.lz4")}).status, 0);
    EXPECT_EQ(readAll(dir / "f"), data);
    Result r = tool({"-dck", path("f.lz4")});
    EXPECT_EQ(r.out, data) << "bundled with -c and -k";
    r = tool({"--decompress", "--stdout", path("f.lz4")});
    EXPECT_EQ(r.out, data);
    r = tool({"-kz", "-F", "lz4", "-9", "-c", path("f")});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(decodeLz4(r.out), data) << "-9 is -L 9";
    r = tool({"-d", "-z", path("f")});
    EXPECT_EQ(r.status, 1);
}

TEST_F(ToolTest, TestModeChecksEveryChecksumAndWritesNothing) {
    makeLz4("x", 300000);
    std::string packed = readAll(dir / "x.lz4");
    Result r = tool({"-t", "-v", path("x.lz4")});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.err, "x.lz4:\t OK")) << r.err;
    EXPECT_TRUE(r.out.empty());
    packed[packed.size() - 3] ^= 1;  // the content checksum
    writeAll(dir / "bad.lz4", packed);
    r = tool({"decompress", "--test", path("x.lz4"), path("bad.lz4")});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "checksum")) << r.err;
    EXPECT_EQ(namesIn(dir), (std::vector<std::string>{"bad.lz4", "x", "x.lz4"}));
}

TEST_F(ToolTest, InputIsKeptOrRemovedAsTheFormatsOwnToolDoes) {
    const std::string data = sampleText(30000, 5);
    writeAll(dir / "a", data);
    // lz4 and lzop keep their input.
    EXPECT_EQ(tool({"compress", "-F", "lz4", path("a")}).status, 0);
    EXPECT_TRUE(fs::exists(dir / "a"));
    EXPECT_EQ(tool({"compress", "-F", "lzo", "--rm", path("a")}).status, 0);
    EXPECT_FALSE(fs::exists(dir / "a")) << "--rm";
    EXPECT_EQ(tool({"decompress", "--rm", "-o", path("b"), path("a.lzo")}).status, 0);
    EXPECT_FALSE(fs::exists(dir / "a.lzo")) << "--rm with -o";
    EXPECT_EQ(readAll(dir / "b"), data);
    EXPECT_EQ(tool({"decompress", "-k", "--rm", path("a.lz4")}).status, 1) << "contradiction";
    // gzip and bzip2 remove theirs, unless -k (where this build has them).
    const std::vector<std::pair<std::string, std::string>> removing = {{"gzip", ".gz"}, {"bzip2", ".bz2"}};
    for (const auto& [fmt, ext] : removing) {
        Result probe = tool({"compress", "-F", fmt, "-c"}, "probe");
        if (probe.status != 0 || tool({"decompress", "-c"}, probe.out).out != "probe") continue;
        writeAll(dir / "g", data);
        EXPECT_EQ(tool({"compress", "-F", fmt, "-k", path("g")}).status, 0) << fmt;
        EXPECT_TRUE(fs::exists(dir / "g")) << fmt << " -k";
        EXPECT_EQ(tool({"compress", "-F", fmt, "-f", path("g")}).status, 0) << fmt;
        EXPECT_FALSE(fs::exists(dir / "g")) << fmt;
        EXPECT_EQ(tool({"decompress", path("g" + ext)}).status, 0) << fmt;
        EXPECT_FALSE(fs::exists(dir / ("g" + ext))) << fmt;
        EXPECT_EQ(readAll(dir / "g"), data) << fmt;
        fs::remove(dir / "g");
    }
}

TEST_F(ToolTest, HardLinkedInputIsNotRemoved) {
    writeAll(dir / "a", "linked");
    fs::create_hard_link(dir / "a", dir / "b");
    Result r = tool({"compress", "-F", "lz4", "--rm", path("a")});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(contains(r.err, "other link")) << r.err;
    EXPECT_EQ(namesIn(dir), (std::vector<std::string>{"a", "b"}));
}

TEST_F(ToolTest, SeveralFilesEachGetTheirOwnOutputAndOneFailureSpoilsNoOther) {
    const std::string a = sampleText(10000, 6), c = sampleText(20000, 7);
    writeAll(dir / "a", a);
    writeAll(dir / "c", c);
    Result r = tool({"compress", "-F", "lz4", path("a"), path("missing"), path("c")});
    EXPECT_EQ(r.status, 1) << "an error";
    EXPECT_TRUE(contains(r.err, "missing: No such file or directory")) << r.err;
    EXPECT_EQ(decodeLz4(readAll(dir / "a.lz4")), a);
    EXPECT_EQ(decodeLz4(readAll(dir / "c.lz4")), c);
    r = tool({"compress", "-F", "lz4", path("a"), path("c"), "-o", path("both")});
    EXPECT_EQ(r.status, 1) << "-o with two inputs";
    EXPECT_FALSE(fs::exists(dir / "both"));
}

TEST_F(ToolTest, ExitStatusIsTwoForAWarningAndOneForAnError) {
    makeLz4("x");
    Result r = tool({"compress", "-F", "lz4", path("x")});
    EXPECT_EQ(r.status, 2) << "output exists";
    EXPECT_TRUE(contains(r.err, "already exists")) << r.err;
    r = tool({"compress", "-F", "lz4", path("x.lz4")});
    EXPECT_EQ(r.status, 2) << "already has the suffix";
    fs::copy_file(dir / "x.lz4", dir / "y.data");
    r = tool({"decompress", path("y.data")});
    EXPECT_EQ(r.status, 2) << "unknown suffix";
    EXPECT_TRUE(contains(r.err, "unknown suffix")) << r.err;
    r = tool({"decompress", path("x.lz4"), path("nothing.lz4")});
    EXPECT_EQ(r.status, 1) << "an error outweighs a warning";
    r = tool({"decompress", "-q", path("x.lz4"), path("y.data")});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.err.empty()) << "-q hides warnings: " << r.err;
    r = tool({"decompress", dir.string()});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(contains(r.err, "is a directory")) << r.err;
    r = tool({"decompress", "--no-such-option"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(namesIn(dir), (std::vector<std::string>{"x", "x.lz4", "y.data"}));
}

TEST_F(ToolTest, VerbosePrintsEachFilesRatioAsGzip) {
    writeAll(dir / "a", std::string(100000, 'a'));
    Result r = tool({"compress", "-v", "-F", "lz4", "--rm", path("a")});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(std::regex_search(r.err, std::regex(path("a") + ":\t 9[0-9]\\.[0-9]% -- replaced with " + path("a.lz4"))))
        << r.err;
    r = tool({"decompress", "-v", "-k", path("a.lz4")});
    EXPECT_TRUE(std::regex_search(r.err, std::regex("a.lz4:\t 9[0-9]\\.[0-9]% -- created " + path("a")))) << r.err;
}

TEST_F(ToolTest, CompressedDataIsNotWrittenToOrReadFromATerminal) {
    writeAll(dir / "a", "hello");
    Invocation run;
    run.args = {"compress", "-F", "lz4", "-c", path("a")};
    run.stdoutTerminal = true;
    Result r = runTool(run);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "not written to a terminal")) << r.err;
    run.args.push_back("-f");
    EXPECT_EQ(runTool(run).status, 0);
    Invocation in;
    in.args = {"decompress"};
    in.stdinTerminal = true;
    r = runTool(in);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "not read from a terminal")) << r.err;
    // Decompressed data may go to a terminal.
    makeLz4("t", 100, 8);
    Invocation out;
    out.args = {"decompress", "-c", path("t.lz4")};
    out.stdoutTerminal = true;
    EXPECT_EQ(runTool(out).status, 0);
}

TEST_F(ToolTest, InputAndOutputTheSameFileIsRefused) {
    writeAll(dir / "a", "data");
    Result r = tool({"compress", "-F", "lz4", "-f", path("a"), "-o", path("a")});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "same file")) << r.err;
    EXPECT_EQ(readAll(dir / "a"), "data");
    EXPECT_EQ(namesIn(dir), std::vector<std::string>{"a"});
}

// ---- Bad input, full disk, interruption ----------------------------------------------

TEST_F(ToolTest, MissingInputAndMissingOutputFolderAreErrors) {
    Result r = tool({"decompress", path("missing.lz4")});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "missing.lz4: No such file or directory")) << r.err;
    makeLz4("x");
    r = tool({"decompress", path("x.lz4"), "-o", path("no/such/dir/x")});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "No such file or directory")) << r.err;
    writeAll(dir / "plain.txt", "this is not a compressed file");
    r = tool({"decompress", path("plain.txt"), "-o", path("out")});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "not a file of a known format")) << r.err;
    r = tool({"compress", "-F", "nosuch", path("plain.txt"), "-o", path("out")});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "unknown format")) << r.err;
    EXPECT_EQ(namesIn(dir), (std::vector<std::string>{"plain.txt", "x", "x.lz4"}));
}

TEST_F(ToolTest, UnreadableInputAndUnwritableFolderAreErrorsThatLeaveNothing) {
    writeAll(dir / "secret", "no one may read this");
    ASSERT_EQ(chmod(path("secret").c_str(), 0), 0);
    writeAll(dir / "open", "anyone may read this");
    ASSERT_EQ(chmod(path("open").c_str(), 0644), 0);
    fs::create_directory(dir / "ro");
    ASSERT_EQ(chmod(path("ro").c_str(), 0555), 0);
    Invocation run;
    run.asNobody = true;
    run.args = {"compress", "-F", "lz4", "-k", path("secret")};
    Result r = runTool(run);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "secret: Permission denied")) << r.err;
    run.args = {"compress", "-F", "lz4", path("open"), "-o", path("ro/open.lz4")};
    r = runTool(run);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "cannot create " + path("ro/open.lz4") + ": Permission denied")) << r.err;
    EXPECT_TRUE(fs::is_empty(dir / "ro"));
    EXPECT_EQ(namesIn(dir), (std::vector<std::string>{"open", "ro", "secret"}));
}

TEST_F(ToolTest, FileSizeLimitIsAWriteErrorThatLeavesNothing) {
    writeAll(dir / "big", noise(1 << 20, 9));
    Invocation run;
    run.args = {"compress", "-F", "lz4", path("big")};
    run.fileSizeLimit = 100000;
    Result r = runTool(run);
    EXPECT_EQ(r.status, 1) << "signal " << r.signal;
    EXPECT_TRUE(contains(r.err, "big.lz4: write error: File too large")) << r.err;
    EXPECT_EQ(namesIn(dir), std::vector<std::string>{"big"});
}

TEST_F(ToolTest, FullDeviceIsAWriteErrorAndStaysADevice) {
    const fs::path node = dir / "full";
    if (mknod(node.c_str(), S_IFCHR | 0666, makedev(1, 7)) != 0) GTEST_SKIP() << "cannot make a device node here";
    makeLz4("x");
    Result r = tool({"decompress", path("x.lz4"), "-o", node.string()});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "No space left on device")) << r.err;
    struct stat st;
    ASSERT_EQ(lstat(node.c_str(), &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
}

TEST_F(ToolTest, FullFileSystemLeavesNoPartialFile) {
    // A 256 KiB tmpfs in a mount namespace of its own, gone with the shell.
    writeAll(dir / "big", noise(1 << 20, 12));
    fs::create_directory(dir / "small");
    const std::string script = "mount -t tmpfs -o size=256k none " + path("small") + " || exit 99; " +
                               OZRDC_TOOL_PATH + " compress -F lz4 " + path("big") + " -o " + path("small/big.lz4") +
                               " 2>&1; echo \"status=$?\"; ls -A " + path("small");
    FILE* p = popen(("unshare -m sh -c '" + script + "' 2>/dev/null").c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    const int st = pclose(p);
    if (!WIFEXITED(st) || WEXITSTATUS(st) != 0) GTEST_SKIP() << "no mount namespace for a small tmpfs here";
    EXPECT_TRUE(contains(out, "No space left on device")) << out;
    EXPECT_TRUE(contains(out, "status=1\n")) << out;
    EXPECT_EQ(out.substr(out.find("status=1\n") + 9), "") << "files left: " << out;
}

TEST_F(ToolTest, SymlinkedInputIsSkippedUnlessForcedAndNeverRemoved) {
    writeAll(dir / "a", "data for the link");
    fs::create_symlink("a", dir / "l");
    Result r = tool({"compress", "-F", "lz4", path("l")});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(contains(r.err, "not a regular file")) << r.err;
    EXPECT_EQ(tool({"compress", "-F", "lz4", "-f", "--rm", path("l")}).status, 0);
    EXPECT_TRUE(fs::is_symlink(dir / "l"));
    EXPECT_EQ(decodeLz4(readAll(dir / "l.lz4")), "data for the link");
}

TEST_F(ToolTest, InterruptRemovesTheTemporaryFileAndKeepsTheOldOutput) {
    writeAll(dir / "out", "previous");
    Invocation run;
    run.args = {"compress", "-F", "lz4", "-f", "-", "-o", path("out")};
    run.input = noise(5 << 20, 10);  // more than one block: the tool waits for the rest
    bool sawTemporary = false;
    run.whenFed = [&](pid_t pid) {
        for (int i = 0; i < 100 && !sawTemporary; ++i) {
            std::this_thread::sleep_for(20ms);
            for (const auto& name : namesIn(dir)) sawTemporary = sawTemporary || name.rfind("out.", 0) == 0;
        }
        kill(pid, SIGINT);
    };
    Result r = runTool(run);
    EXPECT_TRUE(sawTemporary);
    EXPECT_EQ(r.signal, SIGINT) << "dies of the signal, as the shell expects";
    EXPECT_EQ(namesIn(dir), std::vector<std::string>{"out"});
    EXPECT_EQ(readAll(dir / "out"), "previous");
}

// ---- Progress --------------------------------------------------------------------------

TEST(ToolProgress, ShownOnATerminalWithVerboseOrForLargeInputs) {
    using ozrdc_tool::progressWanted;
    const uint64_t big = (uint64_t(64) << 20) + 1, small = uint64_t(64) << 20;
    EXPECT_TRUE(progressWanted(false, true, big));
    EXPECT_FALSE(progressWanted(false, true, small));
    EXPECT_FALSE(progressWanted(false, true, std::nullopt));
    EXPECT_TRUE(progressWanted(true, true, std::nullopt));
    EXPECT_FALSE(progressWanted(true, false, big)) << "never without a terminal";
    EXPECT_FALSE(progressWanted(false, false, big));
}

TEST_F(ToolTest, ProgressLineUpdatesInPlaceAndIsErasedWhenDone) {
    Invocation run;
    run.args = {"compress", "-v", "-f", "-F", "lz4", "-o", path("out")};
    run.input = noise(9 << 20, 11);
    run.chunk = 1 << 20;
    run.pause = 100ms;  // about 1 s in all: the second block is read after the display's delay
    run.stderrTerminal = true;
    Result r = runTool(run);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(std::regex_search(r.err, std::regex("\rstdin: [0-9.]+ [KM]iB, [0-9.]+ (B|KiB|MiB)/s, ratio 1"))) << r.err;
    const std::string erase = "\r\033[K";
    ASSERT_GE(r.err.size(), erase.size());
    EXPECT_TRUE(contains(r.err, erase + "stdin:\t")) << "erased before the ratio line: " << r.err;
    // Not a terminal: no display at all.
    run.stderrTerminal = false;
    run.chunk = 0;
    r = runTool(run);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_FALSE(contains(r.err, "\r")) << r.err;
    EXPECT_TRUE(contains(r.err, "% -- created " + path("out") + "\n")) << r.err;
}

// ---- Help ----------------------------------------------------------------------------

TEST(ToolHelp, EveryHelpListsWhatItsCommandAccepts) {
    struct Expect {
        std::vector<std::string> command, mentions;
    };
    const std::vector<std::string> fileOptions = {"files", "-o,--output", "-c,--stdout", "-k,--keep", "--rm",
                                                  "-f,--force", "-q,--quiet", "-v,--verbose"};
    auto with = [&](std::vector<std::string> more) {
        more.insert(more.end(), fileOptions.begin(), fileOptions.end());
        for (const char* rule : {"symbolic link is written through", "keep it", "FIFOs", "Exit status", "64 MiB"})
            more.push_back(rule);
        return more;
    };
    const std::vector<Expect> all = {
        {{"--help"}, {"version", "checksum", "compress", "decompress", "bench", "-d", "-z", "-t"}},
        {{"compress", "--help"},
         with({"-F,--format", "-l,-L,--level", "--fastest", "-T,--threads", "--dims", "--rate", "--precision",
               "--accuracy", "lz4", "lzo", "zfp"})},
        {{"decompress", "--help"}, with({"-t,--test", "-T,--threads"})},
        {{"checksum", "--help"}, {"-a,--algorithm", "files", "crc32c", "adler32"}},
        {{"bench", "--help"}, {"--corpus", "--json", "--only", "--seconds"}},
        {{"version", "--help"}, {"version record"}},
    };
    for (const auto& e : all) {
        Result r = tool(e.command);
        EXPECT_EQ(r.status, 0) << e.command[0];
        for (const auto& m : e.mentions) EXPECT_TRUE(contains(r.out, m)) << e.command[0] << " --help lacks " << m;
    }
    // Every subcommand the top level lists, including those registered from other
    // files, answers --help with its usage and options.
    const std::string top = tool({"--help"}).out;
    const size_t from = top.find("Subcommands:");
    ASSERT_NE(from, std::string::npos) << top;
    std::regex line("\n  ([a-z][a-z0-9-]*) ");
    int seen = 0;
    for (std::sregex_iterator it(top.begin() + static_cast<std::ptrdiff_t>(from), top.end(), line), end; it != end;
         ++it, ++seen) {
        Result r = tool({(*it)[1].str(), "--help"});
        EXPECT_EQ(r.status, 0) << (*it)[1];
        EXPECT_TRUE(contains(r.out, "Usage:") && contains(r.out, "-h,--help")) << (*it)[1] << ": " << r.out;
    }
    EXPECT_GE(seen, 6);
}

TEST_F(ToolTest, VersionPrintsTheLibraryRecord) {
    Result r = tool({"version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(contains(r.out, "ozrDC SSE3 (m7) 2021.6 (r0xbffe3c5b)")) << r.out;
}

TEST_F(ToolTest, BenchRunsOnAGivenCorpus) {
    writeAll(dir / "sample", std::string(100000, 'x'));
    Result r = tool({"bench", "--seconds", "0.01", "--corpus", dir.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.out, "corpus: " + dir.string())) << r.out;
}

}  // namespace
