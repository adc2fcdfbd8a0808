// Buffers that end right before an unmapped page, so that a read or write one byte
// past the end faults even without a sanitizer.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

class GuardedBuffer {
public:
    explicit GuardedBuffer(size_t size) : size_(size) {
        size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        size_t body = (size + page - 1) / page * page;
        map_len_ = body + page;
        base_ = static_cast<uint8_t*>(mmap(nullptr, map_len_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(base_ + body, page, PROT_NONE);
        data_ = base_ + body - size;
    }
    GuardedBuffer(const uint8_t* src, size_t size) : GuardedBuffer(size) {
        if (size) std::memcpy(data_, src, size);
    }
    ~GuardedBuffer() { munmap(base_, map_len_); }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;
    uint8_t* data() { return data_; }
    size_t size() const { return size_; }

private:
    uint8_t* base_;
    uint8_t* data_;
    size_t size_, map_len_;
};
