#include "storage/orbs3_file_helpers.h"

#include <fcntl.h>
#include <sys/stat.h>
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

const char* get_content_type(std::string_view name)
{
    for (const content_type_row& row : content_types)
        if (name.ends_with(row.suffix))
            return row.type;
    return nullptr;
}

void orbs3_get_uuid_ex(char (&buf)[ORBS3_UUID_HEX_LEN + 1])
{
    uuid_t id;
    uuid_generate(id);
    char* end = neo_hex(buf, id, sizeof(id));
    *end = '\0';
}

// ---- temporary files and bounded copies ----

#include <fcntl.h>

#include <cstring>
#include <string>

#include "event/orbs3_fd.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_record.h"

static_assert(sizeof(orbs3_temp_file{}.path) == ORBS3_PATH_AREA);

int orbs3_temp_open(const char* dir, char* path, std::size_t size)
{
    char uuid[ORBS3_UUID_HEX_LEN + 1];
    orbs3_get_uuid_ex(uuid);
    const std::string_view d(dir);
    const char* sep = !d.empty() && d.back() == '/' ? "" : "/";
    const int n = std::snprintf(path, size, "%s%s%.*s%s", dir, sep, static_cast<int>(ORBS3_RECORD_TMP_PREFIX.size()),
                                ORBS3_RECORD_TMP_PREFIX.data(), uuid);
    if (n < 0 || static_cast<std::size_t>(n) >= size) {
        path[0] = '\0';
        errno = ENAMETOOLONG;
        return -1;
    }
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        path[0] = '\0';
    return fd;
}

int orbs3_temp_commit(const char* tmp, const char* target)
{
    {
        orbs3_fd f(open(tmp, O_WRONLY | O_CLOEXEC));
        if (!f.valid() || fsync(f.get()) != 0)
            return -1;
    }
    if (rename(tmp, target) != 0)
        return -1;
    const std::string_view t(target);
    const std::size_t slash = t.rfind('/');
    const std::string dir = slash == std::string_view::npos ? "." : std::string(t.substr(0, slash == 0 ? 1 : slash));
    // Without it a crash may bring the old name back; the file itself is already whole, so a failure here
    // does not undo the commit.
    orbs3_fd d(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (d.valid())
        (void)fsync(d.get());
    return 0;
}

orbs3_temp_file::~orbs3_temp_file()
{
    if (fd >= 0)
        close(fd);
    if (path[0] != '\0')
        (void)unlink(path);
}

void orbs3_temp_file::keep()
{
    if (fd >= 0)
        close(fd);
    fd = -1;
    path[0] = '\0';
}

namespace {

constexpr std::size_t kCopyBuffer = 256 * 1024;  // the one buffer of a copy that can't stay in the kernel

int write_all(int out, const uint8_t* data, std::size_t len)
{
    for (std::size_t done = 0; done < len;) {
        const ssize_t w = write(out, data + done, len - done);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return -1;
        done += static_cast<std::size_t>(w);
    }
    return 0;
}

}  // namespace

int orbs3_copy_range(int in, int out, int64_t offset, int64_t len, const orbs3_copy_observer& observe)
{
    loff_t at = offset;
    bool kernel = out >= 0 && !observe;
    std::unique_ptr<uint8_t[]> buf;
    while (len > 0) {
        if (kernel) {
            const auto want = static_cast<std::size_t>(std::min<int64_t>(len, 1 << 30));
            const ssize_t n = copy_file_range(in, &at, out, nullptr, want, 0);
            if (n > 0) {
                len -= n;
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n == 0)
                return -1;  // `in` ends early
            if (errno != EXDEV && errno != ENOSYS && errno != EOPNOTSUPP && errno != EINVAL)
                return -1;
            kernel = false;
        }
        if (!buf) {
            buf.reset(new (std::nothrow) uint8_t[kCopyBuffer]);
            if (!buf)
                return -1;
        }
        const ssize_t n = pread(in, buf.get(), static_cast<std::size_t>(std::min<int64_t>(len, kCopyBuffer)), at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        if (observe)
            observe(buf.get(), static_cast<std::size_t>(n));
        if (out >= 0 && write_all(out, buf.get(), static_cast<std::size_t>(n)) != 0)
            return -1;
        at += n;
        len -= n;
    }
    return 0;
}
