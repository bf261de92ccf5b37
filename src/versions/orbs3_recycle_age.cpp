#include "versions/orbs3_recycle_age.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <string>
#include <string_view>

#include "core/orbs3_log.h"
#include "core/orbs3_tenant.h"
#include "memory/neo_files.h"
#include "memory/neo_string.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_layout.h"
#include "versions/orbs3_version_name.h"

namespace {

constexpr int kMaxDepth = 64;
constexpr time_t kDirGraceSec = 60;
constexpr time_t kDaySec = 24 * 60 * 60;

struct walk_t {
    time_t cutoff;   // a content whose bytes changed before this is old enough to go
    time_t dir_old;  // a directory unchanged since before this may go when empty
    orbs3_recycle_expired_t* out;
    orbs3_recycle_stop_pt stop;
};

// The directory `name` below `parent`, not through a symbolic link; null when it can't be opened.
DIR* open_below(int parent, const char* name)
{
    const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    DIR* d = fdopendir(fd);
    if (d == nullptr)
        close(fd);
    return d;
}

// Removes one file of a content; a file another remover took first counts for nothing.
bool remove_file(int dir, const std::string& name, walk_t* w)
{
    if (unlinkat(dir, name.c_str(), 0) == 0)
        return true;
    if (errno != ENOENT)
        w->out->failed++;
    return false;
}

// One entry that is a regular file: a content's bytes take their record along; a record goes alone only
// when its bytes are gone.
void age_file(int dir, std::string_view name, const struct stat& st, walk_t* w)
{
    const bool is_record = orbs3_version_is_record_name(name);
    const std::string_view content = is_record ? name.substr(ORBS3_VERSION_RECORD_PREFIX.size()) : name;
    // The server's other files (temporaries) carry the reserved prefix too; no key's name does.
    orbs3_stamped_key_t parts;
    if (content.starts_with(ORBS3_RESERVED_PREFIX) || orbs3_split_stamped_key(content, &parts) != 0)
        return;
    if (st.st_ctime >= w->cutoff)
        return;
    const std::string bytes_name(content);
    if (is_record) {
        struct stat bytes_st;
        if (fstatat(dir, bytes_name.c_str(), &bytes_st, AT_SYMLINK_NOFOLLOW) == 0 || errno != ENOENT)
            return;  // the bytes decide, when their entry comes
        if (remove_file(dir, std::string(name), w))
            w->out->contents++;
        return;
    }
    // The record first: bytes without a record are still a content, a record without bytes is not.
    (void)remove_file(dir, std::string(ORBS3_VERSION_RECORD_PREFIX) + bytes_name, w);
    if (remove_file(dir, bytes_name, w)) {
        w->out->contents++;
        w->out->bytes += static_cast<uint64_t>(st.st_size);
    }
}

// False when the walk was asked to stop.
bool walk(DIR* d, int depth, walk_t* w)
{
    const int fd = dirfd(d);
    while (const dirent* e = readdir(d)) {
        const std::string_view name(e->d_name);
        if (name == "." || name == "..")
            continue;
        struct stat st;
        if (fstatat(fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT)
                w->out->failed++;
            continue;
        }
        if (S_ISREG(st.st_mode)) {
            age_file(fd, name, st, w);
            continue;
        }
        if (!S_ISDIR(st.st_mode) || depth >= kMaxDepth)
            continue;
        if (w->stop != nullptr && w->stop())
            return false;
        neo_dir_ptr sub(open_below(fd, e->d_name));
        if (!sub) {
            w->out->failed++;
            continue;
        }
        const bool go_on = walk(sub.get(), depth + 1, w);
        sub.reset();
        if (!go_on)
            return false;
        // Removing the directory fails while it holds anything, which is the test of its being empty.
        if (fstatat(fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode) &&
            st.st_mtime < w->dir_old && unlinkat(fd, e->d_name, AT_REMOVEDIR) == 0)
            w->out->dirs++;
    }
    return true;
}

}  // namespace

int orbs3_recycle_expire(const char* recycle_dir, int32_t days, time_t now, orbs3_recycle_expired_t* out,
                         orbs3_recycle_stop_pt stop)
{
    if (recycle_dir == nullptr || recycle_dir[0] == '\0' || out == nullptr)
        return -1;
    if (days <= 0)
        return 0;
    neo_dir_ptr root(open_below(AT_FDCWD, recycle_dir));
    if (!root)
        return errno == ENOENT ? 0 : -1;
    walk_t w{now - static_cast<time_t>(days) * kDaySec, now - kDirGraceSec, out, stop};
    (void)walk(root.get(), 0, &w);
    return 0;
}

int orbs3_recycle_expire_vhost(const orbs3_vhost_t* vhost, time_t now, orbs3_recycle_expired_t* out,
                               orbs3_recycle_stop_pt stop)
{
    neo_list_head_t list;
    INIT_LIST_HEAD(&list);
    if (orbs3_load_all_bucket_list(vhost, nullptr, &list) != 0) {
        orbs3_free_bucket_list(&list);
        return 0;
    }
    int walked = 0;
    orbs3_bucket_t* b;
    neo_list_head_t* pos;
    list_for_each(pos, &list)
    {
        b = list_entry(pos, orbs3_bucket_t, link);
        if (b->recycle_days <= 0 || (stop != nullptr && stop()))
            continue;
        const std::string name(orbs3_str_view(b->name));
        if (orbs3_bucket_init_path(vhost, nullptr, b, name) != 0)
            continue;
        orbs3_recycle_expired_t one;
        if (orbs3_recycle_expire(neo_getstr(&b->recycle_dir), b->recycle_days, now, &one, stop) != 0) {
            ipd_log(LOG_ERR, "recycle bin of bucket %s unreadable: %s", name.c_str(), std::strerror(errno));
            continue;
        }
        walked++;
        if (one.contents != 0 || one.dirs != 0 || one.failed != 0)
            ipd_log(LOG_INFO,
                    "recycle bin of bucket %s: %" PRIu64 " contents (%" PRIu64
                    " bytes) older than %d days removed, %" PRIu64 " empty directories, %" PRIu64 " failures",
                    name.c_str(), one.contents, one.bytes, b->recycle_days, one.dirs, one.failed);
        out->contents += one.contents;
        out->bytes += one.bytes;
        out->dirs += one.dirs;
        out->failed += one.failed;
    }
    orbs3_free_bucket_list(&list);
    return walked;
}
