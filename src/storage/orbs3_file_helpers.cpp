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
