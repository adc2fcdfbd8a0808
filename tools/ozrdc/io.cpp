#include <algorithm>
#include <cerrno>
#include <cstring>

#include "codec.h"
#include "files.h"

namespace ozrdc_tool {

std::vector<Format>& formats() {
    static std::vector<Format> all;
    return all;
}

size_t Reader::read(void* dst, size_t n) {
    auto* out = static_cast<unsigned char*>(dst);
    size_t got = std::min(n, pending_.size());
    std::copy_n(pending_.begin(), got, out);
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(got));
    while (got < n) {
        size_t r = std::fread(out + got, 1, n - got, f_);
        if (r == 0) {
            if (std::ferror(f_)) throw ToolError(name_ + ": read error: " + std::strerror(errno));
            break;
        }
        got += r;
    }
    consumed_ += got;
    if (progress_) progress_->tick(false);
    return got;
}

void Reader::readExact(void* dst, size_t n, const char* what) {
    if (read(dst, n) != n) throw ToolError(name_ + ": truncated input (" + what + ")");
}

size_t Reader::peek(void* dst, size_t n) {
    if (pending_.size() < n) {
        size_t have = pending_.size();
        pending_.resize(n);
        size_t r = 0;
        while (have + r < n) {
            size_t k = std::fread(pending_.data() + have + r, 1, n - have - r, f_);
            if (k == 0) break;
            r += k;
        }
        pending_.resize(have + r);
    }
    size_t k = std::min(n, pending_.size());
    std::copy_n(pending_.begin(), k, static_cast<unsigned char*>(dst));
    return k;
}

void Writer::write(const void* src, size_t n) {
    if (n == 0) return;
    if (f_ && std::fwrite(src, 1, n, f_) != n)
        throw ToolError((name_.empty() ? "" : name_ + ": ") + "write error: " + std::strerror(errno));
    written_ += n;
    if (progress_) progress_->tick(true);
}

}  // namespace ozrdc_tool
