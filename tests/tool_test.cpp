// The ozrdc command-line tool as a user runs it: exit statuses, messages, and that a
// failed conversion leaves no output file behind.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {

struct ToolRun {
    int status;
    std::string output;  // stdout and stderr together
};

ToolRun runTool(const std::string& args) {
    std::string cmd = std::string(OZRDC_TOOL_PATH) + " " + args + " 2>&1";
    ToolRun r{-1, {}};
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.output.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

class ToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("ozrdc_tool_test_" + std::to_string(::getpid()));
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }
    fs::path dir;
};

}  // namespace

TEST_F(ToolTest, VersionPrintsTheLibraryRecord) {
    ToolRun r = runTool("version");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.output.find("ozrDC SSE3 (m7) 2021.6 (r0xbffe3c5b)"), std::string::npos) << r.output;
}

TEST_F(ToolTest, UnknownFormatIsRefusedWithoutOutput) {
    fs::path in = dir / "in.bin";
    std::ofstream(in) << "hello";
    ToolRun r = runTool("compress -F nosuch " + in.string() + " -o " + (dir / "out").string());
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.output.find("unknown format"), std::string::npos) << r.output;
    EXPECT_FALSE(fs::exists(dir / "out"));
}

TEST_F(ToolTest, UnrecognisedInputFailsAndLeavesNoFile) {
    fs::path in = dir / "plain.txt";
    std::ofstream(in) << "this is not a compressed file";
    ToolRun r = runTool("decompress " + in.string() + " -o " + (dir / "out").string());
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.output.find("not a file of a known format"), std::string::npos) << r.output;
    for (const auto& e : fs::directory_iterator(dir)) EXPECT_EQ(e.path().filename(), "plain.txt");
}

TEST_F(ToolTest, MissingInputFileIsReported) {
    ToolRun r = runTool("decompress " + (dir / "missing.lz4").string());
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.output.find("No such file or directory"), std::string::npos) << r.output;
}

TEST_F(ToolTest, BenchRunsOnAGivenCorpus) {
    std::ofstream(dir / "sample") << std::string(100000, 'x');
    ToolRun r = runTool("bench --seconds 0.01 --corpus " + dir.string());
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("corpus: " + dir.string()), std::string::npos) << r.output;
}
