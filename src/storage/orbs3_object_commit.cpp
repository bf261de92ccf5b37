// The conditional commit of an object's content; why it locks what it locks is told in its header.
#include "storage/orbs3_object_commit.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/orbs3_log.h"
#include "s3/orbs3_s3_errors.h"
#include "http/orbs3_http_header.h"
#include "http/orbs3_http_response.h"
#include "storage/orbs3_record.h"
#include "versions/orbs3_object_version.h"

namespace {

int read_test_pause()
{
    const char* text = std::getenv("ORBS3_TEST_VERSION_PAUSE_MS");
    if (text == nullptr)
        return 0;
    int ms = 0;
    const std::string_view v(text);
    const auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), ms);
    return ec == std::errc() && end == v.data() + v.size() && ms > 0 ? ms : 0;
}

// Test hook: the milliseconds a commit waits between keeping the old content and moving the new one in,
// so that a test can kill a worker inside that window (docs/development.md). Read once, before main:
// workers forked from the master inherit it. 0 (no wait) when unset or not a number.
const int g_test_pause_ms = read_test_pause();

}  // namespace

int orbs3_object_versionable(const orbs3_bucket_t* bucket, std::string_view key)
{
    if (!orbs3_versioning_ever_set(bucket) || key.empty() || key.back() == '/')
        return 0;
    // The longest suffix there is: the names of every version of the key are this long at most.
    static constexpr std::string_view kLongest = "0000_00_00_00_00_00-00000000000000";
    static_assert(kLongest.size() == ORBS3_VERSION_SUFFIX_LEN);
    orbs3_version_file_t probe;
    return orbs3_version_paths(neo_getstr(&bucket->version_dir), key, kLongest, &probe) == 0 ? 0
                                                                                            : ORBS3_S3_KEY_TOO_LONG;
}

int orbs3_commit_lock(const char* data_path, orbs3_commit_lock_t* lock)
{
    std::string_view path(data_path);
    const std::size_t slash = path.rfind('/');
    const std::string dir(slash == std::string_view::npos ? std::string_view(".") : path.substr(0, slash + 1));
    lock->dir.reset(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock->dir.valid())
        return -1;
    while (flock(lock->dir.get(), LOCK_EX) != 0) {
        if (errno == EINTR)
            continue;
        const int err = errno;
        lock->dir.reset();
        // A file system that can't lock a directory (NFS emulates flock with write locks, which a
        // directory can't take) still gets its commits, as exact as their renames make them.
        if (err == EBADF || err == ENOLCK || err == EOPNOTSUPP || err == EINVAL) {
            static std::atomic<bool> said{false};
            if (!said.exchange(true))
                ipd_log(LOG_WARNING, "commit lock on %s not supported (%s): If-Match is checked without it",
                        dir.c_str(), std::strerror(err));
            return 0;
        }
        errno = err;
        return -1;
    }
    return 0;
}

int orbs3_object_check_conditions(const orbs3_conditional_t* c, const char* data_path, const char* meta_path)
{
    if (!orbs3_http_write_conditional(c))
        return 0;
    const bool exists = orbs3_object_before_commit(data_path).existed;
    std::string etag;
    if (exists && !c->if_match.empty()) {
        if (orbs3_object_t* rec = orbs3_create_object_from_file(meta_path)) {
            if (rec->etag.data != nullptr)
                etag.assign(rec->etag.data, rec->etag.len);
            orbs3_free_object(rec);
        }
    }
    switch (orbs3_http_write_condition_result(c, exists, etag)) {
    case ORBS3_WRITE_CONDITION_PROCEED:
        return 0;
    case ORBS3_WRITE_CONDITION_NO_SUCH_KEY:
        return ORBS3_S3_NO_SUCH_KEY;
    case ORBS3_WRITE_CONDITION_NOT_IMPLEMENTED:
        return ORBS3_S3_NOT_IMPLEMENTED;
    default:
        return ORBS3_S3_PRECONDITION_FAILED;
    }
}

int orbs3_object_commit_file(const orbs3_conditional_t* c, const char* tmp, orbs3_commit_t* commit)
{
    const char* data_path = commit->path->data_path;
    if (int rc = orbs3_object_check_conditions(c, data_path, commit->path->meta_path); rc != 0)
        return rc;
    // Taken before the old content leaves: the counts judge whether the key was replaced or is new.
    commit->before = orbs3_object_before_commit(data_path);
    get_gmt_meta_time(commit->stamp, sizeof commit->stamp);
    commit->version_id[0] = '\0';
    const std::string_view key = commit->key;
    const bool directory = key.empty() || key.back() == '/';
    if (!directory && commit->bucket->versioning.status == 1 &&
        orbs3_version_new_suffix(commit->stamp, commit->version_id) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    if (int rc = orbs3_object_version_update(commit->bucket, key, commit->path, commit->version_id[0] == '\0');
        rc != 0)
        return rc;
    if (g_test_pause_ms > 0 && orbs3_versioning_ever_set(commit->bucket))
        usleep(static_cast<useconds_t>(g_test_pause_ms) * 1000);
    if (!c->if_none_match.empty()) {
        // Create only: the link fails when anything has taken the name since the check.
        if (link(tmp, data_path) == 0) {
            if (unlink(tmp) != 0)
                ipd_log(LOG_ERR, "remove %s failed: %s", tmp, std::strerror(errno));
            return 0;
        }
        if (errno == EEXIST)
            return ORBS3_S3_PRECONDITION_FAILED;
        // A file system without hard links: the check above, under the lock, stands for the link.
        if (errno != EPERM && errno != EOPNOTSUPP && errno != EMLINK) {
            ipd_log(LOG_ERR, "link %s to %s failed: %s", tmp, data_path, std::strerror(errno));
            return ORBS3_S3_INTERNAL_ERROR;
        }
    }
    if (rename(tmp, data_path) != 0) {
        ipd_log(LOG_ERR, "rename %s to %s failed: %s", tmp, data_path, std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    return 0;
}
