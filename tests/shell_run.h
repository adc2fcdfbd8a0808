// Runs a shell command for the tests that drive the ozrdc tool (and the system's own
// compressors): its exit status and its standard output and error together.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

struct ToolRun {
    int status;
    std::string output;  // stdout and stderr together
};

inline ToolRun runShell(const std::string& cmd) {
    ToolRun r{-1, {}};
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.output.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}
