// Side-by-side benchmarks: every operation of the library runs next to its peer
// implementations on the same buffers in one run, and the table reports each one's
// throughput and its ratio to the best peer. Each family adds a suite in
// bench/bench_<family>.cpp with a static RegisterSuite.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ozrdc_bench {

struct Sample {
    std::string name;
    std::vector<uint8_t> data;
};

struct Corpus {
    std::string origin;  // "built-in" or the directory
    std::vector<Sample> files;
    uint64_t totalBytes() const;
};

// A deterministic sample corpus: text-like, binary-like, repetitive and random data.
Corpus builtinCorpus();
// Every regular file of a directory (sorted by name).
Corpus loadCorpus(const std::string& dir);

struct Row {
    std::string op;          // e.g. "crc32", "lz4 compress"
    std::string impl;        // "ozrdc", "zlib", ...
    bool ours = false;
    double mbps = 0;         // input MB/s (1 MB = 1e6 bytes)
    uint64_t inBytes = 0;
    uint64_t outBytes = 0;   // compressed size where it applies, else 0
    std::string note;        // e.g. "level 9"
};

struct Options {
    double minSeconds = 0.25;  // per measurement
    int repeats = 3;           // best of
    // Leave the upper halves of the vector registers dirty before each timed pass, as
    // a caller's AVX code that returns without vzeroupper would (both sides alike).
    bool dirtyUpper = false;
    // Time passes by the thread's CPU time instead of the wall clock: steadier when
    // other processes compete for the cores (it still counts their cache damage).
    bool cpuTime = false;
};

// ---- The caller's AVX state ----------------------------------------------------------
// Code compiled for AVX that returns without vzeroupper (isa-l's hand-written kernels,
// for one) leaves the upper register halves dirty, and every legacy SSE instruction
// that runs afterwards, ours or a peer's, pays for it. The benchmark must not let one
// side's leftovers slow the next: measure() cleans after each pass, runBench() after
// each suite, and a peer call that may leave the state dirty outside measure() (or
// inside a pass that also calls us) goes through afterPeer().

// The processor and the OS have AVX state (vzeroupper runs); AVX2 (256-bit integer
// writes, used to dirty the state on purpose).
bool hasAvxState();
bool hasAvx2();
// vzeroupper where the processor has AVX state, else nothing.
void cleanUpperState();
// A 256-bit VEX write without vzeroupper, where the processor has AVX2, else nothing.
void dirtyUpperState();

// Runs a peer's call and clears the upper state it may leave behind:
//   auto crc = afterPeer([&] { return crc32_gzip_refl(0, p, n); });
template <class F>
auto afterPeer(F&& f) -> decltype(f()) {
    struct Clean {
        ~Clean() { cleanUpperState(); }
    } clean;
    return f();
}

class Table {
public:
    void add(Row r) { rows_.push_back(std::move(r)); }
    const std::vector<Row>& rows() const { return rows_; }
    void print(bool json) const;

private:
    std::vector<Row> rows_;
};

// Runs fn (which processes `bytes` input bytes per call) repeatedly and returns the
// best throughput in MB/s. Each pass starts from the upper state the options ask for
// (clean, or dirty with o.dirtyUpper) and is followed by a clean-up.
double measure(const Options& o, uint64_t bytes, const std::function<void()>& fn);

struct Suite {
    std::string family;
    std::function<void(const Corpus&, const Options&, Table&)> run;
    bool onRequest = false;  // runs only when named in --only
};

std::vector<Suite>& suites();

struct RegisterSuite {
    explicit RegisterSuite(Suite s) { suites().push_back(std::move(s)); }
};

// Runs every suite (or those whose family is listed) and prints the table.
int runBench(const Corpus& c, const Options& o, const std::vector<std::string>& only, bool json);

}  // namespace ozrdc_bench
