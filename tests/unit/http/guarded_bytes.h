// Bytes placed right before an unreadable page: a read one byte past them faults at once, in every build.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

class guarded_bytes {
public:
    explicit guarded_bytes(std::string_view s)
    {
        std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        std::size_t data_pages = (s.size() + page) / page;
        len_ = (data_pages + 1) * page;
        void* m = mmap(nullptr, len_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (m == MAP_FAILED)
            std::abort();
        map_ = static_cast<uint8_t*>(m);
        uint8_t* guard = map_ + data_pages * page;
        if (mprotect(guard, page, PROT_NONE) != 0)
            std::abort();
        data_ = guard - s.size();
        std::memcpy(data_, s.data(), s.size());
    }
    ~guarded_bytes() { munmap(map_, len_); }
    guarded_bytes(const guarded_bytes&) = delete;
    guarded_bytes& operator=(const guarded_bytes&) = delete;

    uint8_t* data() const { return data_; }

private:
    uint8_t* map_;
    uint8_t* data_;
    std::size_t len_;
};
