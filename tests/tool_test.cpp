// The ozrdc command-line tool as a user runs it: exit statuses, messages, and that a
// failed conversion leaves no output file behind.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "shell_run.h"

namespace fs = std::filesystem;

namespace {

ToolRun runTool(const std::string& args) { return runShell(std::string(OZRDC_TOOL_PATH) + " " + args); }

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
    EXPECT_NE(r.output.find("cannot open"), std::string::npos) << r.output;
}

TEST_F(ToolTest, BenchRunsOnAGivenCorpus) {
    std::ofstream(dir / "sample") << std::string(100000, 'x');
    ToolRun r = runTool("bench --seconds 0.01 --corpus " + dir.string());
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("corpus: " + dir.string()), std::string::npos) << r.output;
}
