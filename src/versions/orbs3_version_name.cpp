#include "versions/orbs3_version_name.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "s3/orbs3_s3_errors.h"

namespace {

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_tail_char(char c)
{
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Reads "N_N_N_N_N_N" from the front of `s` into f[6]; *used gets the bytes read. A number is 1 to 4
// digits: stamps are written "%04d_%02d_...", and six longer numbers would overflow the stamp number.
bool read_stamp(std::string_view s, int f[6], std::size_t* used)
{
    std::size_t at = 0;
    for (int i = 0; i < 6; i++) {
        if (i != 0) {
            if (at >= s.size() || s[at] != '_')
                return false;
            at++;
        }
        std::size_t start = at;
        int v = 0;
        while (at < s.size() && is_digit(s[at]) && at - start < 4)
            v = v * 10 + (s[at++] - '0');
        if (at == start)
            return false;
        f[i] = v;
    }
    *used = at;
    return true;
}

// A suffix as a whole: the stamp, then the end or "-" and a tail of letters and digits.
bool suffix_valid(std::string_view s, int f[6])
{
    std::size_t used = 0;
    if (!read_stamp(s, f, &used))
        return false;
    if (used == s.size())
        return true;
    if (s[used] != '-' || used + 1 == s.size())
        return false;
    return std::all_of(s.begin() + static_cast<std::ptrdiff_t>(used) + 1, s.end(), is_tail_char);
}

int64_t stamp_number(const int f[6])
{
    return ((((static_cast<int64_t>(f[0]) * 100 + f[1]) * 100 + f[2]) * 100 + f[3]) * 100 + f[4]) * 100 + f[5];
}

std::string_view last_component(std::string_view key)
{
    std::size_t slash = key.rfind('/');
    return slash == std::string_view::npos ? key : key.substr(slash + 1);
}

struct dir_close {
    void operator()(DIR* d) const noexcept { closedir(d); }
};

}  // namespace

int orbs3_version_new_suffix(std::string_view stamp, char (&out)[ORBS3_VERSION_SUFFIX_LEN + 1])
{
    out[0] = '\0';
    // "YYYY-MM-DDThh:mm:ss": the record's own form, nothing looser.
    if (stamp.size() < 19 || stamp[4] != '-' || stamp[7] != '-' || stamp[10] != 'T' || stamp[13] != ':' ||
        stamp[16] != ':')
        return -1;
    for (std::size_t i : {0, 1, 2, 3, 5, 6, 8, 9, 11, 12, 14, 15, 17, 18})
        if (!is_digit(stamp[i]))
            return -1;
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    uint32_t rnd = 0;
    if (getrandom(&rnd, sizeof rnd, 0) != static_cast<ssize_t>(sizeof rnd)) {
        // Without the kernel's randomness the microseconds and the address of this frame still differ
        // between two writers of one second in all but freak cases; a clash is caught by the no-replace move.
        rnd = static_cast<uint32_t>(now.tv_nsec) ^ static_cast<uint32_t>(reinterpret_cast<uintptr_t>(&now));
    }
    int n = std::snprintf(out, sizeof out, "%.4s_%.2s_%.2s_%.2s_%.2s_%.2s-%06ld%08x", stamp.data(),
                          stamp.data() + 5, stamp.data() + 8, stamp.data() + 11, stamp.data() + 14,
                          stamp.data() + 17, static_cast<long>(now.tv_nsec / 1000), rnd);
    if (n != static_cast<int>(ORBS3_VERSION_SUFFIX_LEN)) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}

void orbs3_version_record_stamp(time_t t, char (&out)[32])
{
    struct tm tm {};
    gmtime_r(&t, &tm);
    // Years past 9999 can't be written in the form; such a clock is clamped rather than cut.
    if (tm.tm_year + 1900 > 9999 || tm.tm_year + 1900 < 0) {
        tm = {};
        tm.tm_mday = 1;
        tm.tm_year = 70;
    }
    // Each field reduced to its width, so the text always fits.
    auto field = [](int v, unsigned mod) { return static_cast<unsigned>(v) % mod; };
    std::snprintf(out, sizeof out, "%04u-%02u-%02uT%02u:%02u:%02u.000Z", field(tm.tm_year + 1900, 10000),
                  field(tm.tm_mon + 1, 100), field(tm.tm_mday, 100), field(tm.tm_hour, 100), field(tm.tm_min, 100),
                  field(tm.tm_sec, 100));
}

int orbs3_version_leaving_suffix(const orbs3_object_t* rec, const char* data_path,
                                 char (&out)[ORBS3_VERSION_SUFFIX_LEN + 1])
{
    const std::string_view id = orbs3_object_version_id(rec);
    if (id != ORBS3_NULL_VERSION_ID && id.size() <= ORBS3_VERSION_SUFFIX_LEN && orbs3_version_id_valid(id)) {
        std::snprintf(out, sizeof out, "%.*s", static_cast<int>(id.size()), id.data());
        return 0;
    }
    if (rec != nullptr && rec->last_modified.len != 0 &&
        orbs3_version_new_suffix(orbs3_str_view(rec->last_modified), out) == 0)
        return 0;
    struct stat st {};
    char stamp[32];
    orbs3_version_record_stamp(lstat(data_path, &st) == 0 ? st.st_mtime : time(nullptr), stamp);
    return orbs3_version_new_suffix(stamp, out);
}

bool orbs3_version_id_valid(std::string_view id)
{
    if (id == ORBS3_NULL_VERSION_ID)
        return true;
    int f[6];
    // Ids this server hands out are suffixes; one longer than a suffix could not name a file of ours.
    return id.size() <= ORBS3_VERSION_SUFFIX_LEN && suffix_valid(id, f);
}

int64_t orbs3_check_date(std::string_view from_dots)
{
    if (from_dots.size() <= 2)
        return -1;
    int f[6];
    std::size_t used = 0;
    if (!read_stamp(from_dots.substr(2), f, &used))
        return -1;
    return stamp_number(f);
}

int orbs3_split_stamped_key(std::string_view stamped, orbs3_stamped_key_t* out)
{
    const std::string_view name = last_component(stamped);
    const std::size_t dots = name.rfind("..");
    if (dots == std::string_view::npos || dots == 0)
        return ORBS3_VERSION_BAD_NAME;
    const std::string_view suffix = name.substr(dots + 2);
    int f[6];
    if (!suffix_valid(suffix, f))
        return ORBS3_VERSION_BAD_NAME;
    const std::size_t name_at = stamped.size() - name.size();
    out->stamped_name = name;
    out->live_name = name.substr(0, dots);
    out->live_key = stamped.substr(0, name_at + dots);
    out->suffix = suffix;
    out->stamp = stamp_number(f);
    return 0;
}

bool orbs3_version_is_record_name(std::string_view name)
{
    return name.starts_with(ORBS3_VERSION_RECORD_PREFIX);
}

int orbs3_version_paths(std::string_view tree, std::string_view key, std::string_view suffix,
                        orbs3_version_file_t* out)
{
    out->data[0] = out->record[0] = '\0';
    const std::string_view name = last_component(key);
    if (name.empty() || suffix.empty() ||
        name.size() + 2 + suffix.size() + ORBS3_VERSION_RECORD_PREFIX.size() > ORBS3_VERSION_NAME_MAX)
        return -1;
    char live[ORBS3_PATH_AREA];
    if (orbs3_tree_path(tree, key, live) != 0)
        return -1;
    const std::size_t dir_len = std::strlen(live) - name.size();
    int n = std::snprintf(out->data, sizeof out->data, "%s..%.*s", live, static_cast<int>(suffix.size()),
                          suffix.data());
    int m = std::snprintf(out->record, sizeof out->record, "%.*s%.*s%.*s..%.*s", static_cast<int>(dir_len), live,
                          static_cast<int>(ORBS3_VERSION_RECORD_PREFIX.size()), ORBS3_VERSION_RECORD_PREFIX.data(),
                          static_cast<int>(name.size()), name.data(), static_cast<int>(suffix.size()),
                          suffix.data());
    if (n < 0 || m < 0 || static_cast<std::size_t>(n) >= sizeof out->data ||
        static_cast<std::size_t>(m) >= sizeof out->record) {
        out->data[0] = out->record[0] = '\0';
        return -1;
    }
    return 0;
}

int orbs3_version_list_key(std::string_view tree, std::string_view key, std::vector<orbs3_version_entry_t>* out)
{
    out->clear();
    const std::string_view name = last_component(key);
    if (name.empty())
        return 0;
    char live[ORBS3_PATH_AREA];
    if (orbs3_tree_path(tree, key, live) != 0)
        return ORBS3_VERSION_DIR_UNREADABLE;
    live[std::strlen(live) - name.size()] = '\0';
    std::unique_ptr<DIR, dir_close> dir(opendir(live));
    if (!dir)
        return errno == ENOENT || errno == ENOTDIR ? 0 : ORBS3_VERSION_DIR_UNREADABLE;
    while (struct dirent* de = readdir(dir.get())) {
        std::string_view entry(de->d_name);
        const bool record = orbs3_version_is_record_name(entry);
        if (record)
            entry.remove_prefix(ORBS3_VERSION_RECORD_PREFIX.size());
        // Exactly "<name>..<suffix>": the name must be followed by the dots, and what follows them must
        // hold no further "..", or the entry belongs to a longer key such as "<name>..x".
        if (entry.size() <= name.size() + 2 || !entry.starts_with(name) || entry.substr(name.size(), 2) != "..")
            continue;
        const std::string_view suffix = entry.substr(name.size() + 2);
        int f[6];
        if (suffix.size() > ORBS3_VERSION_SUFFIX_LEN || suffix.find('.') != std::string_view::npos ||
            !suffix_valid(suffix, f))
            continue;
        auto it = std::find_if(out->begin(), out->end(), [&](const orbs3_version_entry_t& e) {
            return suffix == e.suffix;
        });
        if (it == out->end()) {
            orbs3_version_entry_t e{};
            std::memcpy(e.suffix, suffix.data(), suffix.size());
            e.suffix[suffix.size()] = '\0';
            e.stamp = stamp_number(f);
            out->push_back(e);
            it = out->end() - 1;
        }
        (record ? it->has_record : it->has_data) = true;
    }
    std::sort(out->begin(), out->end(), orbs3_version_newer);
    return 0;
}

bool orbs3_version_newer(const orbs3_version_entry_t& a, const orbs3_version_entry_t& b)
{
    if (a.stamp != b.stamp)
        return a.stamp > b.stamp;
    return std::strcmp(a.suffix, b.suffix) > 0;
}

std::string_view orbs3_object_version_id(const orbs3_object_t* rec)
{
    if (rec == nullptr || rec->version_id.len == 0)
        return ORBS3_NULL_VERSION_ID;
    return {rec->version_id.data, rec->version_id.len};
}

int orbs3_version_find(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id,
                       orbs3_version_ref_t* ref)
{
    if (!orbs3_version_id_valid(id))
        return ORBS3_S3_INVALID_ARGUMENT;
    if (key.empty() || key.back() == '/')
        return ORBS3_S3_NO_SUCH_VERSION;
    ref->delete_marker = false;
    // The live object first: its record tells its id.
    if (orbs3_get_object_path(bucket, key, ref->file.data, ref->file.record, nullptr, nullptr) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    // A live data file without a record carries no id: it is the "null" content.
    const orbs3_object_ptr live(orbs3_create_object_from_file(ref->file.record));
    const bool match = live ? orbs3_object_version_id(live.get()) == id : id == ORBS3_NULL_VERSION_ID;
    struct stat st {};
    if (match && stat(ref->file.data, &st) == 0 && S_ISREG(st.st_mode)) {
        ref->place = orbs3_version_place_t::live;
        return 0;
    }
    ref->place = orbs3_version_place_t::version;
    const std::string_view tree(neo_getstr(&bucket->version_dir));
    auto found = [&](std::string_view suffix) {
        if (orbs3_version_paths(tree, key, suffix, &ref->file) != 0)
            return false;
        const orbs3_object_ptr rec(orbs3_create_object_from_file(ref->file.record));
        const bool marker = rec && rec->delete_marker != 0;
        const bool same_id = rec ? orbs3_object_version_id(rec.get()) == id : id == suffix;
        struct stat st {};
        const bool bytes = stat(ref->file.data, &st) == 0 && S_ISREG(st.st_mode);
        if (!same_id || (!bytes && !marker))
            return false;
        ref->delete_marker = marker;
        return true;
    };
    if (id != ORBS3_NULL_VERSION_ID)
        return found(id) ? 0 : ORBS3_S3_NO_SUCH_VERSION;
    std::vector<orbs3_version_entry_t> list;
    if (orbs3_version_list_key(tree, key, &list) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    for (const orbs3_version_entry_t& e : list)
        if (e.has_record && found(e.suffix))
            return 0;
    return ORBS3_S3_NO_SUCH_VERSION;
}

int orbs3_move_noreplace(const char* from, const char* to)
{
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP)
        return -1;
    struct stat st {};
    if (lstat(to, &st) == 0) {
        errno = EEXIST;
        return -1;
    }
    if (errno != ENOENT)
        return -1;
    return rename(from, to);
}
