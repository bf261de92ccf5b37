// Feeding a parser its input the way the network delivers it: whole, or in two reads cut at every
// offset, with the bytes of the first read ending right before an unreadable page, so that a parser
// reading one byte past what it was given faults at once, in every build.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "memory/orbs3_palloc.h"

namespace feed {

// One mapping: the first `cut` bytes end on a page boundary, and the page behind them stays unreadable
// until the second read arrives. cut == size is the input in one read, ending right before a page that
// is never readable; after a second read the end lies inside a page, so the one-read feed is what
// guards the end of the input.
class bytes {
public:
    explicit bytes(std::string_view in) : bytes(in, in.size()) {}
    bytes(std::string_view in, std::size_t cut) : in_(in), cut_(cut)
    {
        const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t head = (cut + page - 1) / page * page;
        rest_ = (in.size() - cut + page - 1) / page * page;
        len_ = head + rest_ + page;
        void* m = mmap(nullptr, len_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (m == MAP_FAILED)
            std::abort();
        map_ = static_cast<uint8_t*>(m);
        data_ = map_ + head - cut;
        if (mprotect(map_ + head, rest_ + page, PROT_NONE) != 0)
            std::abort();
        if (cut != 0)
            std::memcpy(data_, in.data(), cut);
    }
    ~bytes() { munmap(map_, len_); }
    bytes(const bytes&) = delete;
    bytes& operator=(const bytes&) = delete;

    uint8_t* data() const { return data_; }
    const char* chars() const { return reinterpret_cast<const char*>(data_); }
    uint8_t* cut() const { return data_ + cut_; }
    uint8_t* end() const { return data_ + in_.size(); }

    // The second read: the rest becomes readable behind the first part. False when it has come already.
    bool arrive()
    {
        if (arrived_ || cut_ == in_.size())
            return false;
        arrived_ = true;
        if (mprotect(data_ + cut_, rest_, PROT_READ | PROT_WRITE) != 0)
            std::abort();
        std::memcpy(data_ + cut_, in_.data() + cut_, in_.size() - cut_);
        return true;
    }

    // A receive buffer over the bytes read so far; next_read() moves its last on to the end.
    orbs3_buf_t buf() const
    {
        orbs3_buf_t b{};
        b.start = b.pos = data_;
        b.last = cut();
        b.end = end();
        return b;
    }
    bool next_read(orbs3_buf_t* b)
    {
        if (!arrive())
            return false;
        b->last = end();
        return true;
    }

private:
    std::string_view in_;
    std::size_t cut_;
    std::size_t rest_ = 0;
    std::size_t len_ = 0;
    uint8_t* map_ = nullptr;
    uint8_t* data_ = nullptr;
    bool arrived_ = false;
};

// Calls f(cut) for every cut from 0 to the size, the last being the input in one read.
template <typename F>
void every_split(std::string_view in, F&& f)
{
    for (std::size_t cut = 0; cut <= in.size(); cut++) {
        SCOPED_TRACE("split at " + std::to_string(cut));
        f(cut);
    }
}

}  // namespace feed
