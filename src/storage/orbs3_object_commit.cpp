// The conditional commit of an object's content; why it locks what it locks is told in its header.
#include "storage/orbs3_object_commit.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include "core/orbs3_log.h"
#include "s3/orbs3_s3_errors.h"
#include "http/orbs3_http_header.h"
#include "storage/orbs3_record.h"

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

int orbs3_object_commit_file(const orbs3_conditional_t* c, const char* tmp, const char* data_path,
                             const char* meta_path, orbs3_object_before_t* before)
{
    if (int rc = orbs3_object_check_conditions(c, data_path, meta_path); rc != 0)
        return rc;
    *before = orbs3_object_before_commit(data_path);
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
