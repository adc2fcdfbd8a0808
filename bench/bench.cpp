#include "bench.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

#include <time.h>

namespace ozrdc_bench {

uint64_t Corpus::totalBytes() const {
    uint64_t n = 0;
    for (const auto& f : files) n += f.data.size();
    return n;
}

namespace {

// xorshift64*: a fixed generator so that the built-in corpus is the same everywhere.
struct Rng {
    uint64_t s;
    uint64_t next() {
        s ^= s >> 12; s ^= s << 25; s ^= s >> 27;
        return s * 0x2545F4914F6CDD1Dull;
    }
    uint32_t below(uint32_t n) { return static_cast<uint32_t>((next() >> 32) % n); }
};

std::vector<uint8_t> textLike(size_t n, Rng& r) {
    static const char* words[] = {"the", "of", "and", "to", "in", "a", "is", "that", "for", "it", "as", "was",
        "with", "be", "by", "on", "not", "he", "this", "are", "or", "his", "from", "at", "which", "but",
        "have", "an", "had", "they", "you", "were", "their", "one", "all", "we", "can", "her", "has",
        "there", "been", "if", "more", "when", "will", "would", "who", "so", "no", "compression", "block",
        "stream", "buffer", "library", "Mr.", "Pickwick", "said", "little", "time", "upon", "very"};
    constexpr size_t nw = sizeof(words) / sizeof(words[0]);
    std::vector<uint8_t> out;
    out.reserve(n + 32);
    size_t sentence = 0;
    while (out.size() < n) {
        // Zipf-like choice: small indices far more often.
        uint32_t a = r.below(nw), b = r.below(nw);
        const char* w = words[std::min(a, b) * std::min(a, b) / nw];
        if (sentence == 0 && w[0] >= 'a') out.push_back(static_cast<uint8_t>(w[0] - 32)), ++w;
        while (*w) out.push_back(static_cast<uint8_t>(*w++));
        if (++sentence > 6 + r.below(12)) {
            out.push_back('.');
            out.push_back(r.below(5) == 0 ? '\n' : ' ');
            sentence = 0;
        } else {
            out.push_back(r.below(12) == 0 ? ',' : ' ');
            if (out.back() == ',') out.push_back(' ');
        }
    }
    out.resize(n);
    return out;
}

std::vector<uint8_t> binaryLike(size_t n, Rng& r) {
    // Records of little-endian integers with small deltas, flags and a few strings:
    // the shape of executables' data sections and database pages.
    std::vector<uint8_t> out;
    out.reserve(n + 64);
    uint32_t id = 1000, t = 0x5F000000;
    while (out.size() < n) {
        id += 1 + r.below(3);
        t += r.below(1000);
        uint32_t fields[4] = {id, t, r.below(16), r.below(1 << 20)};
        for (uint32_t f : fields)
            for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(f >> (8 * i)));
        if (r.below(4) == 0) {
            const char* tag = r.below(2) ? "GetProcAddress\0" : "kernel32.dll\0\0\0";
            for (int i = 0; i < 15; ++i) out.push_back(static_cast<uint8_t>(tag[i]));
        }
        for (uint32_t k = r.below(8); k > 0; --k) out.push_back(0);
    }
    out.resize(n);
    return out;
}

std::vector<uint8_t> repetitive(size_t n, Rng& r) {
    std::vector<uint8_t> out;
    out.reserve(n + 512);
    std::string line = "<record id=\"0000\" status=\"active\" kind=\"sample\"/>\n";
    while (out.size() < n) {
        for (int i = 0; i < 4; ++i) line[12 + i] = static_cast<char>('0' + r.below(10));
        uint32_t reps = 1 + r.below(40);
        for (uint32_t k = 0; k < reps; ++k) out.insert(out.end(), line.begin(), line.end());
        out.insert(out.end(), 1 + r.below(200), static_cast<uint8_t>('a' + r.below(26)));
    }
    out.resize(n);
    return out;
}

std::vector<uint8_t> randomBytes(size_t n, Rng& r) {
    std::vector<uint8_t> out(n);
    for (auto& b : out) b = static_cast<uint8_t>(r.next() >> 56);
    return out;
}

}  // namespace

Corpus builtinCorpus() {
    Corpus c;
    c.origin = "built-in";
    Rng r{0x0123456789ABCDEFull};
    constexpr size_t mb = 1 << 20;
    c.files.push_back({"text", textLike(2 * mb, r)});
    c.files.push_back({"binary", binaryLike(mb, r)});
    c.files.push_back({"repetitive", repetitive(mb, r)});
    c.files.push_back({"random", randomBytes(mb / 2, r)});
    return c;
}

Corpus loadCorpus(const std::string& dir) {
    Corpus c;
    c.origin = dir;
    std::vector<std::filesystem::path> paths;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        if (e.is_regular_file()) paths.push_back(e.path());
    std::sort(paths.begin(), paths.end());
    for (const auto& p : paths) {
        std::ifstream in(p, std::ios::binary);
        std::vector<uint8_t> d((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (!d.empty()) c.files.push_back({p.filename().string(), std::move(d)});
    }
    if (c.files.empty()) throw std::runtime_error("no files in corpus directory " + dir);
    return c;
}

bool hasAvxState() {
    static const bool yes = __builtin_cpu_supports("avx");  // checks XCR0 as well
    return yes;
}

bool hasAvx2() {
    static const bool yes = __builtin_cpu_supports("avx2");
    return yes;
}

void cleanUpperState() {
    if (hasAvxState()) __asm__ volatile("vzeroupper");
}

void dirtyUpperState() {
    // All ones, not a zeroing idiom, so that the upper half really holds data.
    if (hasAvx2()) __asm__ volatile("vpcmpeqd %%ymm15, %%ymm15, %%ymm15" ::: "xmm15");
}

namespace {
// Seconds on the wall clock, or on this thread's CPU clock (which stops while other
// processes run on a busy machine).
double now(bool cpuTime) {
    if (!cpuTime)
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + 1e-9 * double(ts.tv_nsec);
}
}  // namespace

double measure(const Options& o, uint64_t bytes, const std::function<void()>& fn) {
    auto pass = [&] {
        if (o.dirtyUpper) dirtyUpperState();
        fn();
        cleanUpperState();
    };
    pass();  // warm caches and tables
    double best = 0;
    for (int rep = 0; rep < o.repeats; ++rep) {
        uint64_t iters = 0;
        const double t0 = now(o.cpuTime);
        double secs = 0;
        do {
            pass();
            ++iters;
            secs = now(o.cpuTime) - t0;
        } while (secs < o.minSeconds / o.repeats);
        best = std::max(best, double(bytes) * double(iters) / secs / 1e6);
    }
    return best;
}

std::vector<Suite>& suites() {
    static std::vector<Suite> all;
    return all;
}

void Table::print(bool json) const {
    // Ratio: this row's throughput over the best peer's for the same operation.
    std::map<std::string, double> bestPeer;
    for (const auto& r : rows_)
        if (!r.ours) bestPeer[r.op] = std::max(bestPeer[r.op], r.mbps);
    auto ratioOf = [&](const Row& r) {
        auto it = bestPeer.find(r.op);
        return it == bestPeer.end() || it->second == 0 ? 0.0 : r.mbps / it->second;
    };
    if (json) {
        std::printf("[\n");
        for (size_t i = 0; i < rows_.size(); ++i) {
            const Row& r = rows_[i];
            std::printf("  {\"op\": \"%s\", \"impl\": \"%s\", \"ours\": %s, \"mbps\": %.1f, \"ratio\": %.3f, "
                        "\"in_bytes\": %llu, \"out_bytes\": %llu, \"note\": \"%s\"}%s\n",
                        r.op.c_str(), r.impl.c_str(), r.ours ? "true" : "false", r.mbps, ratioOf(r),
                        static_cast<unsigned long long>(r.inBytes), static_cast<unsigned long long>(r.outBytes),
                        r.note.c_str(), i + 1 < rows_.size() ? "," : "");
        }
        std::printf("]\n");
        return;
    }
    std::printf("%-28s %-22s %10s %8s %14s %8s  %s\n", "operation", "implementation", "MB/s", "ratio",
                "output bytes", "out/in", "");
    std::string lastOp;
    for (const auto& r : rows_) {
        if (!lastOp.empty() && r.op != lastOp) std::printf("\n");
        lastOp = r.op;
        double ratio = ratioOf(r);
        char ratioText[16] = "-";
        if (ratio > 0) std::snprintf(ratioText, sizeof ratioText, "%.2fx", ratio);
        char outText[24] = "", pct[16] = "";
        if (r.outBytes) {
            std::snprintf(outText, sizeof outText, "%llu", static_cast<unsigned long long>(r.outBytes));
            std::snprintf(pct, sizeof pct, "%.2f%%", 100.0 * double(r.outBytes) / double(r.inBytes));
        }
        std::printf("%-28s %-22s %10.1f %8s %14s %8s  %s\n", r.op.c_str(),
                    (r.impl + (r.ours ? " *" : "")).c_str(), r.mbps, ratioText, outText, pct, r.note.c_str());
    }
    std::printf("\n* = this library; ratio = MB/s over the best peer's MB/s for the same operation.\n");
}

int runBench(const Corpus& c, const Options& o, const std::vector<std::string>& only, bool json) {
    if (!json) {
        std::printf("corpus: %s, %zu files, %llu bytes\n", c.origin.c_str(), c.files.size(),
                    static_cast<unsigned long long>(c.totalBytes()));
        for (const auto& f : c.files) std::printf("  %-24s %10zu\n", f.name.c_str(), f.data.size());
        if (o.dirtyUpper)
            std::printf("upper register state: %s\n",
                        hasAvx2() ? "dirtied (256-bit VEX write, no vzeroupper) before each timed pass"
                                  : "clean (no AVX2 on this processor: --dirty-upper has no effect)");
        std::printf("\n");
    }
    Table t;
    for (const auto& s : suites()) {
        const bool named = std::find(only.begin(), only.end(), s.family) != only.end();
        if (only.empty() ? s.onRequest : !named) continue;
        s.run(c, o, t);
        cleanUpperState();  // whatever the suite's last peer call left
    }
    t.print(json);
    return 0;
}

}  // namespace ozrdc_bench
