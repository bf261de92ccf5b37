#include "storage/orbs3_file_helpers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "event/orbs3_fd.h"
#include "memory/neo_string.h"

namespace {

struct file_closer {
    void operator()(FILE* f) const noexcept { std::fclose(f); }
};

struct content_type_row {
    std::string_view suffix;
    const char* type;
};

// Walked in order, first match wins.
constexpr content_type_row content_types[] = {
    {".html", "text/html"},       {".htm", "text/html"},       {".css", "text/css"},
    {".js", "text/javascript"},   {".json", "application/json"}, {".pdf", "application/pdf"},
    {".png", "image/png"},        {".jpg", "image/jpeg"},      {".svg", "image/svg+xml"},
    {".gif", "image/gif"},
};

}  // namespace

int orbs3_write_data_into_file(const char* path, const void* data, std::size_t length)
{
    if (path == nullptr || (data == nullptr && length != 0))
        return -1;
    std::unique_ptr<FILE, file_closer> f(std::fopen(path, "we"));
    if (!f)
        return -1;
    const auto* p = static_cast<const char*>(data);
    std::size_t done = 0;
    while (done < length) {
        std::size_t n = std::fwrite(p + done, 1, length - done, f.get());
        if (n == 0)
            return -1;
        done += n;
    }
    return std::fclose(f.release()) == 0 ? 0 : -1;
}

int orbs3_read_data_from_file(const char* path, char** data, std::size_t* length)
{
    if (data == nullptr)
        return -1;
    *data = nullptr;
    if (length != nullptr)
        *length = 0;
    if (path == nullptr)
        return -1;
    orbs3_fd f(open(path, O_RDONLY | O_CLOEXEC));
    if (!f.valid())
        return -1;
    struct stat st;
    if (fstat(f.get(), &st) != 0 || st.st_size < 0)
        return -1;
    auto size = static_cast<std::size_t>(st.st_size);
    neo_cstr_ptr buf(static_cast<char*>(std::calloc(1, size + 1)));
    if (!buf)
        return -1;
    std::size_t got = 0;
    while (got < size) {
        ssize_t n = read(f.get(), buf.get() + got, size - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    if (length != nullptr)
        *length = got;
    *data = buf.release();
    return 0;
}

int orbs3_access_file(const char* path)
{
    if (path == nullptr)
        return -1;
    return access(path, F_OK) == 0 ? 0 : -1;
}

int64_t file_attributes(const char* path)
{
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0)
        return -1;
    if (S_ISDIR(st.st_mode))
        return -2;
    if (!S_ISREG(st.st_mode))
        return -1;
    // Only what others may read is served: a file a tenant keeps to itself stays unreadable over S3.
    if ((st.st_mode & S_IROTH) == 0)
        return -3;
    return static_cast<int64_t>(st.st_size);
}

uint64_t orbs3_get_file_size(const char* path)
{
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0)
        return 0;
    return static_cast<uint64_t>(st.st_size);
}

const char* get_content_type(std::string_view name)
{
    for (const content_type_row& row : content_types)
        if (name.ends_with(row.suffix))
            return row.type;
    return nullptr;
}

int set_file_time(const char* path, time_t /*unused*/, time_t mtime)
{
    if (path == nullptr)
        return -1;
    struct timeval tv[2] = {};
    tv[0].tv_sec = time(nullptr);
    tv[1].tv_sec = mtime;
    return utimes(path, tv) == 0 ? 0 : -1;
}

int orbs3_open_tempfile(const char* path, int flags, mode_t mode)
{
    if (path == nullptr)
        return -1;
    int fd = open(path, flags | O_CLOEXEC, mode == 0 ? 0600 : mode);
    if (fd < 0)
        return -1;
    if (flags == 0)
        (void)unlink(path);  // the descriptor keeps the bytes; a failed unlink leaves only a stray file
    return fd;
}

int orbs3_open_tempfile_end(const char* path, int flags, mode_t mode)
{
    if (path == nullptr)
        return -1;
    orbs3_fd f(open(path, flags | O_CLOEXEC, mode == 0 ? 0600 : mode));
    if (!f.valid() || lseek(f.get(), 0, SEEK_END) < 0)
        return -1;
    return f.release();
}

int orbs3_copy_file(const char* src, const char* dst, uint64_t* copied)
{
    if (copied != nullptr)
        *copied = 0;
    if (src == nullptr || dst == nullptr)
        return -1;
    orbs3_fd in(open(src, O_RDONLY | O_CLOEXEC));
    if (!in.valid())
        return -1;
    struct stat st;
    if (fstat(in.get(), &st) != 0)
        return -1;
    // Truncated: a shorter copy over a longer old file must not keep the old tail.
    orbs3_fd out(open(dst, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, st.st_mode & 0777));
    if (!out.valid())
        return -1;

    const auto size = static_cast<uint64_t>(st.st_size);
    uint64_t done = 0;
    char block[1024];
    while (done < size) {
        ssize_t n = read(in.get(), block, static_cast<std::size_t>(std::min<uint64_t>(sizeof(block), size - done)));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;  // the source shrank or failed: the copy is not whole
        std::size_t put = 0;
        while (put < static_cast<std::size_t>(n)) {
            ssize_t w = write(out.get(), block + put, static_cast<std::size_t>(n) - put);
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                return -1;
            put += static_cast<std::size_t>(w);
            if (copied != nullptr)
                *copied += static_cast<uint64_t>(w);
        }
        done += static_cast<uint64_t>(n);
    }
    // Closed here, not by the owner: a late write error shows up only in the close.
    if (close(out.release()) != 0)
        return -1;
    return set_file_time(dst, 0, st.st_mtime);
}

void orbs3_get_uuid_ex(char (&buf)[ORBS3_UUID_HEX_LEN + 1])
{
    uuid_t id;
    uuid_generate(id);
    char* end = neo_hex(buf, id, sizeof(id));
    *end = '\0';
}
