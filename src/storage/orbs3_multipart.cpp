// The multipart handlers. What an upload is on disk, and why, is told in orbs3_multipart.h.
#include "event/orbs3_fd.h"
#include "storage/orbs3_multipart.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "access/orbs3_access_check.h"
#include "control/orbs3_service.h"
#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "core/orbs3_xml.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_files.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_cgi.h"
#include "s3/orbs3_s3_dispatch.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_sign_parts.h"
#include "storage/orbs3_bucket_ops.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_checksum.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_object_body.h"
#include "storage/orbs3_object_commit.h"
#include "storage/orbs3_object_copy.h"
#include "storage/orbs3_record.h"

namespace {

constexpr std::size_t kCopyBuffer = 256 * 1024;  // the one buffer of a copy that can't stay in the kernel
constexpr std::size_t kRecordMax = 64 * 1024;    // an upload record with 2 KiB of metadata is far below
constexpr std::string_view kClaimSuffix = ".claimed";
constexpr std::string_view kPartRecordSuffix = ".etag";
// The deepest name an upload makes for its key: a temporary part in the staging directory,
// "<data path>.orbs3-<id>/.orbs3-tmp-<uuid>" with the key's last component moved behind the id. Keys are
// taken only with that much room to spare.
static_assert(ORBS3_RESERVED_PREFIX.size() + ORBS3_UUID_HEX_LEN + 1 + ORBS3_RECORD_TMP_PREFIX.size() +
                  ORBS3_UUID_HEX_LEN <=
              ORBS3_KEY_PATH_RESERVE);

struct bucket_free {
    void operator()(orbs3_bucket_t* b) const noexcept { orbs3_free_bucket(b); }
};
using bucket_ptr = std::unique_ptr<orbs3_bucket_t, bucket_free>;

int status(uint32_t s)
{
    return static_cast<int>(s);
}

std::string now_stamp()
{
    char stamp[64];
    get_gmt_meta_time(stamp, sizeof stamp);
    return stamp;
}

// A small file read whole; false when it is missing, unreadable or larger than `max`.
bool read_small_file(const char* path, std::string* out, std::size_t max = kRecordMax)
{
    out->clear();
    orbs3_fd f(open(path, O_RDONLY | O_CLOEXEC));
    if (f.get() < 0)
        return false;
    char buf[4096];
    for (;;) {
        ssize_t n = read(f.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        if (out->size() + static_cast<std::size_t>(n) > max)
            return false;
        out->append(buf, static_cast<std::size_t>(n));
    }
}

void xml_elem(std::string* out, std::string_view name, std::string_view text)
{
    out->push_back('<');
    out->append(name);
    out->push_back('>');
    orbs3_xml_escape(out, text);
    out->append("</");
    out->append(name);
    out->push_back('>');
}

int send_document(orbs3_http_request_t* r, const std::string& doc)
{
    return orbs3_http_send_msg(r->connection, 200, doc.c_str(), r->resp.connection, r->resp.origin) == 0 ? 0 : -1;
}

std::string index_dir_of(const orbs3_bucket_t* b)
{
    std::string dir(neo_getstr(&b->data_dir));
    if (dir.empty() || dir.back() != '/')
        dir.push_back('/');
    dir.append(ORBS3_MULTIPART_INDEX_DIR);
    return dir;
}

// The upload a request names, found through its record; the record's key must be the request's key.
struct upload_ctx {
    bucket_ptr bucket;
    std::string_view key;
    orbs3_multipart_upload_t up;
    std::string index_path;  // the record
    std::string stale_claim;  // a claim whose holder is gone, which a Complete or Abort may take over
    char staging[ORBS3_PATH_AREA] = "";
};

// This node's name, as claims carry it.
std::string node_name()
{
    char host[256] = "";
    if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0')
        std::snprintf(host, sizeof host, "node");
    std::string name(host);
    std::replace(name.begin(), name.end(), '/', '_');
    return name;
}

// A claim names its holder ("<id>.claimed.<node>.<pid>"): when the worker that claimed an upload died
// in the middle of a Complete, a later Complete or Abort of the upload on the same node finds the claim
// with no process behind it and takes it over, instead of the upload being lost to its client. A claim
// of another node is never taken: its holder can't be seen from here.
std::string claim_path(const upload_ctx& ctx)
{
    return ctx.index_path + std::string(kClaimSuffix) + "." + node_name() + "." + std::to_string(getpid());
}

bool find_stale_claim(const std::string& index_path, std::string* out)
{
    const std::string dir = index_path.substr(0, index_path.rfind('/'));
    const std::string prefix =
        index_path.substr(index_path.rfind('/') + 1) + std::string(kClaimSuffix) + "." + node_name() + ".";
    neo_dir_ptr d(opendir(dir.c_str()));
    if (!d)
        return false;
    while (dirent* e = readdir(d.get())) {
        std::string_view name(e->d_name);
        if (!name.starts_with(prefix))
            continue;
        std::string_view pid_text = name.substr(prefix.size());
        int64_t pid = 0;
        if (!orbs3_parse_length(pid_text, &pid) || pid <= 0 || pid > INT32_MAX)
            continue;
        if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
            *out = dir + "/" + std::string(name);
            return true;
        }
    }
    return false;
}

// Takes the upload for this request: of two Completes (or a Complete and an Abort) exactly one renames
// the record. 0 with *claimed set, or NoSuchUpload.
int claim_upload(const upload_ctx& ctx, std::string* claimed)
{
    *claimed = claim_path(ctx);
    if (rename(ctx.index_path.c_str(), claimed->c_str()) == 0)
        return 0;
    if (errno != ENOENT)
        return status(ORBS3_S3_INTERNAL_ERROR);
    if (!ctx.stale_claim.empty() && rename(ctx.stale_claim.c_str(), claimed->c_str()) == 0) {
        ipd_log(LOG_WARNING, "upload %s: the claim of a worker that is gone taken over", ctx.up.upload_id.c_str());
        return 0;
    }
    return status(ORBS3_S3_NO_SUCH_UPLOAD);
}

int open_upload(orbs3_http_request_t* r, int object_code, upload_ctx* ctx, bool take_over = false)
{
    orbs3_bucket_t* raw = nullptr;
    int rc = orbs3_object_request_bucket(r, object_code, &raw, &ctx->key);
    if (rc != 0)
        return rc;
    ctx->bucket.reset(raw);
    const std::string_view id = orbs3_str_view(r->req_msg.uploadId);
    if (!orbs3_multipart_valid_id(id))
        return status(ORBS3_S3_NO_SUCH_UPLOAD);
    ctx->index_path = index_dir_of(raw) + "/" + std::string(id);
    std::string text;
    if (!read_small_file(ctx->index_path.c_str(), &text) &&
        (!take_over || !find_stale_claim(ctx->index_path, &ctx->stale_claim) ||
         !read_small_file(ctx->stale_claim.c_str(), &text)))
        return status(ORBS3_S3_NO_SUCH_UPLOAD);
    if (orbs3_multipart_parse_upload(text, &ctx->up) != 0) {
        ipd_log(LOG_ERR, "upload record %s unreadable", ctx->index_path.c_str());
        return status(ORBS3_S3_NO_SUCH_UPLOAD);
    }
    // An id is only good for the key it was made for.
    if (ctx->up.key != ctx->key || ctx->up.upload_id != id)
        return status(ORBS3_S3_NO_SUCH_UPLOAD);
    if (orbs3_multipart_staging_path(raw, ctx->key, id, ctx->staging, sizeof ctx->staging) != 0)
        return status(ORBS3_S3_KEY_TOO_LONG);
    return 0;
}

// A part file name: its number in decimal without leading zeros, 1..10000; 0 for anything else.
int part_number_of(std::string_view name)
{
    if (name.empty() || name.size() > 5 || name[0] == '0')
        return 0;
    int n = 0;
    for (char c : name) {
        if (c < '0' || c > '9')
            return 0;
        n = n * 10 + (c - '0');
    }
    return n <= ORBS3_MULTIPART_MAX_PART ? n : 0;
}

// MD5 of a whole file through one bounded buffer. 0 or -1.
int md5_of_file(int fd, uint8_t out[NEO_MD5_LEN])
{
    neo_md5_t md5;
    if (neo_md5_init(&md5) != 0)
        return -1;
    std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[kCopyBuffer]);
    if (!buf)
        return -1;
    off_t at = 0;
    for (;;) {
        ssize_t n = pread(fd, buf.get(), kCopyBuffer, at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        (void)neo_md5_update(&md5, buf.get(), static_cast<std::size_t>(n));
        at += n;
    }
    return neo_md5_final(out, &md5);
}

// The part `number` of the staging directory with its record. A record that is missing or describes
// other bytes than the part's (the two renames of a part were cut apart, or two senders of one part
// crossed) is made again from the part's bytes. 0, 1 when there is no such part, -1 on error.
int load_part(const char* staging, int number, orbs3_multipart_part_t* part)
{
    char data[ORBS3_PATH_AREA], rec[ORBS3_PATH_AREA];
    int n1 = std::snprintf(data, sizeof data, "%s/%d", staging, number);
    int n2 = std::snprintf(rec, sizeof rec, "%s/%d%.*s", staging, number, static_cast<int>(kPartRecordSuffix.size()),
                           kPartRecordSuffix.data());
    if (n1 < 0 || n2 < 0 || static_cast<std::size_t>(n2) >= sizeof rec)
        return -1;
    orbs3_fd f(open(data, O_RDONLY | O_CLOEXEC));
    if (f.get() < 0)
        return errno == ENOENT ? 1 : -1;
    struct stat st;
    if (fstat(f.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return -1;
    std::string text;
    if (read_small_file(rec, &text) && orbs3_multipart_parse_part(text, part) == 0 &&
        part->ino == static_cast<uint64_t>(st.st_ino) && part->size == static_cast<int64_t>(st.st_size)) {
        part->number = number;
        return 0;
    }
    *part = orbs3_multipart_part_t{};
    part->number = number;
    part->size = st.st_size;
    part->ino = st.st_ino;
    part->modified = now_stamp();
    if (md5_of_file(f.get(), part->md5) != 0)
        return -1;
    ipd_log(LOG_INFO, "part record %s made again from its bytes", rec);
    std::string fresh = orbs3_multipart_render_part(*part);
    if (orbs3_record_replace(rec, fresh.data(), fresh.size()) != 0)
        ipd_log(LOG_ERR, "part record %s not written: %s", rec, std::strerror(errno));
    return 0;
}

// Every part of the staging directory, by ascending number. 0 or -1.
int load_parts(const char* staging, std::vector<orbs3_multipart_part_t>* parts)
{
    parts->clear();
    neo_dir_ptr dir(opendir(staging));
    if (!dir)
        return -1;
    std::vector<int> numbers;
    while (dirent* e = readdir(dir.get())) {
        if (int n = part_number_of(e->d_name); n != 0)
            numbers.push_back(n);
    }
    std::sort(numbers.begin(), numbers.end());
    for (int n : numbers) {
        orbs3_multipart_part_t p;
        int rc = load_part(staging, n, &p);
        if (rc < 0)
            return -1;
        if (rc == 0)
            parts->push_back(std::move(p));
    }
    return 0;
}

// A new temporary file in `dir` (ending in "/" or not). Its descriptor, or -1 with errno.
int make_temp(const char* dir, char* path, std::size_t size)
{
    char uuid[ORBS3_UUID_HEX_LEN + 1];
    orbs3_get_uuid_ex(uuid);
    std::string_view d(dir);
    const char* sep = !d.empty() && d.back() == '/' ? "" : "/";
    int n = std::snprintf(path, size, "%s%s%.*s%s", dir, sep, static_cast<int>(ORBS3_RECORD_TMP_PREFIX.size()),
                          ORBS3_RECORD_TMP_PREFIX.data(), uuid);
    if (n < 0 || static_cast<std::size_t>(n) >= size) {
        path[0] = '\0';
        errno = ENAMETOOLONG;
        return -1;
    }
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        path[0] = '\0';
    return fd;
}

// `len` bytes of `in` from `offset` appended to `out`: copy_file_range, so the kernel (or the file
// system, sharing extents) moves them; through one bounded buffer where it can't. 0 or -1.
int copy_bytes(int in, int out, int64_t offset, int64_t len)
{
    loff_t at = offset;
    bool kernel = true;
    std::unique_ptr<uint8_t[]> buf;
    while (len > 0) {
        if (kernel) {
            const auto want = static_cast<std::size_t>(std::min<int64_t>(len, 1 << 30));
            ssize_t n = copy_file_range(in, &at, out, nullptr, want, 0);
            if (n > 0) {
                len -= n;
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n == 0)
                return -1;  // the part is shorter than its record says
            if (errno != EXDEV && errno != ENOSYS && errno != EOPNOTSUPP && errno != EINVAL)
                return -1;
            kernel = false;
        }
        if (!buf) {
            buf.reset(new (std::nothrow) uint8_t[kCopyBuffer]);
            if (!buf)
                return -1;
        }
        ssize_t n = pread(in, buf.get(), static_cast<std::size_t>(std::min<int64_t>(len, kCopyBuffer)), at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        for (ssize_t done = 0; done < n;) {
            ssize_t w = write(out, buf.get() + done, static_cast<std::size_t>(n - done));
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                return -1;
            done += w;
        }
        at += n;
        len -= n;
    }
    return 0;
}

int fsync_path(const char* path)
{
    orbs3_fd f(open(path, O_WRONLY | O_CLOEXEC));
    return f.get() >= 0 && fsync(f.get()) == 0 ? 0 : -1;
}

// A part whose bytes are whole in the temporary file `tmp` goes into place: the file flushed and renamed
// to its number, then its record written. 0 or a status.
int install_part(const char* staging, int number, const char* tmp, int64_t size, const uint8_t md5[NEO_MD5_LEN],
                 std::string_view checksum_algorithm = {}, std::string_view checksum = {})
{
    if (fsync_path(tmp) != 0) {
        ipd_log(LOG_ERR, "fsync %s failed: %s", tmp, std::strerror(errno));
        return errno == ENOENT ? status(ORBS3_S3_NO_SUCH_UPLOAD) : status(ORBS3_S3_INTERNAL_ERROR);
    }
    struct stat st;
    if (stat(tmp, &st) != 0)
        return errno == ENOENT ? status(ORBS3_S3_NO_SUCH_UPLOAD) : status(ORBS3_S3_INTERNAL_ERROR);
    orbs3_multipart_part_t part;
    part.number = number;
    part.size = size;
    std::memcpy(part.md5, md5, NEO_MD5_LEN);
    part.ino = st.st_ino;
    part.modified = now_stamp();
    if (!checksum.empty()) {
        part.checksum_algorithm = checksum_algorithm;
        part.checksum = checksum;
    }
    char data[ORBS3_PATH_AREA], rec[ORBS3_PATH_AREA];
    std::snprintf(data, sizeof data, "%s/%d", staging, number);
    int n = std::snprintf(rec, sizeof rec, "%s/%d%.*s", staging, number, static_cast<int>(kPartRecordSuffix.size()),
                          kPartRecordSuffix.data());
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof rec)
        return status(ORBS3_S3_KEY_TOO_LONG);
    if (rename(tmp, data) != 0) {
        // The staging directory went with an Abort or a Complete meanwhile.
        if (errno == ENOENT)
            return status(ORBS3_S3_NO_SUCH_UPLOAD);
        ipd_log(LOG_ERR, "rename %s to %s failed: %s", tmp, data, std::strerror(errno));
        return status(ORBS3_S3_INTERNAL_ERROR);
    }
    std::string text = orbs3_multipart_render_part(part);
    // Without its record the part is still whole: the next reader makes the record again.
    if (orbs3_record_replace(rec, text.data(), text.size()) != 0 && errno != ENOENT)
        ipd_log(LOG_ERR, "part record %s not written: %s", rec, std::strerror(errno));
    return 0;
}

int send_part_etag(orbs3_http_request_t* r, const char* hex, const std::string& checksum_line = {})
{
    char etag[40];
    std::snprintf(etag, sizeof etag, "\"%s\"", hex);
    return orbs3_http_send_upload_part_object_msg(r->connection, 200, etag, r->resp.connection, r->resp.origin,
                                                  checksum_line.c_str()) == 0
               ? 0
               : -1;
}

// ---- UploadPart ----

struct part_state_t {
    orbs3_object_body_t body;
    upload_ctx ctx;
    int number = 0;
};

int part_done(orbs3_http_request_t* r, orbs3_object_body_t* body)
{
    auto* st = static_cast<part_state_t*>(body->owner);
    const bool has_checksum = body->checksum.alg != orbs3_checksum_alg::none;
    int rc = install_part(st->ctx.staging, st->number, body->file.path, body->file.size, body->md5,
                          orbs3_checksum_word(body->checksum.alg), has_checksum ? body->checksum_value : "");
    if (rc != 0)
        return rc;
    body->committed = true;
    return send_part_etag(r, body->file.etag, orbs3_object_body_checksum_line(*body));
}

// A part's additional checksum is of the upload's algorithm, when it declared one: a part sent with
// another is refused, a part sent without one gets it computed. 0 or a status.
int part_checksum(orbs3_http_request_t* r, const upload_ctx& ctx, orbs3_object_body_t* body)
{
    const orbs3_checksum_alg want = orbs3_checksum_alg_of_word(ctx.up.checksum_algorithm);
    if (want == orbs3_checksum_alg::none || body->checksum.alg == want)
        return 0;
    if (body->checksum.alg != orbs3_checksum_alg::none) {
        r->resp.message = "The checksum algorithm of the part is not the one its upload was created with.";
        return status(ORBS3_S3_INVALID_REQUEST);
    }
    body->checksum_own = true;
    return orbs3_checksum_init(&body->checksum, want) == 0 ? 0 : status(ORBS3_S3_INTERNAL_ERROR);
}

// "<ChecksumCRC32>value</ChecksumCRC32>" and so on, as S3's documents carry a checksum.
void checksum_elem(std::string* doc, std::string_view algorithm, std::string_view value)
{
    if (!algorithm.empty() && !value.empty())
        xml_elem(doc, "Checksum" + std::string(algorithm), value);
}

// x-amz-checksum-<alg> on a Complete: the client's own value of the whole object (without the part count
// of a composite one, or with it) must be the one its parts give. 0 or a status.
int check_whole_checksum(orbs3_http_request_t* r, std::string_view alg, std::string_view value)
{
    std::string_view sent;
    const orbs3_checksum_alg a = orbs3_checksum_alg_of_word(alg);
    if (value.empty() || !orbs3_sign_find_header(r, orbs3_checksum_header_name(a), &sent))
        return 0;
    if (sent == value || sent == value.substr(0, value.find('-')))
        return 0;
    r->resp.message = orbs3_checksum_mismatch_message(a);
    return status(ORBS3_S3_CHECKSUM_MISMATCH);
}

// UploadPartCopy: the part's bytes come from an object (a range of it) of this vhost. They are read once
// for their MD5 and written into the part through one bounded buffer.
int upload_part_copy(orbs3_http_request_t* r, upload_ctx* ctx, int number)
{
    orbs3_str_t sb{}, sk{};
    if (int rc = orbs3_parse_copy_source(r, r->pool, &sb, &sk); rc != 0)
        return rc;
    bucket_ptr src(orbs3_get_bucket(r->vhost, r->user, orbs3_str_view(sb)));
    if (!src)
        return status(ORBS3_S3_NO_SUCH_BUCKET);
    int read_code = ORBS3_ACCESS_READ;
    if (orbs3_access_check_chain(r->vhost, r->user, src.get(), r->connection->peer, nullptr, &read_code,
                                 orbs3_access_chain_t::full) != 0)
        return status(ORBS3_S3_ACCESS_DENIED);
    if (orbs3_bucket_init_path(r->vhost, r->user, src.get(), orbs3_str_view(sb)) != 0)
        return status(ORBS3_S3_INTERNAL_ERROR);
    char src_path[ORBS3_PATH_AREA];
    if (orbs3_get_object_path(src.get(), orbs3_str_view(sk), src_path, nullptr, nullptr, nullptr) != 0)
        return status(ORBS3_S3_NO_SUCH_KEY);
    orbs3_fd in(open(src_path, O_RDONLY | O_CLOEXEC));
    struct stat st;
    if (in.get() < 0 || fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return status(ORBS3_S3_NO_SUCH_KEY);
    int64_t first = 0, len = st.st_size;
    std::string_view range;
    if (orbs3_sign_find_header(r, "x-amz-copy-source-range", &range)) {
        const int rc = orbs3_multipart_parse_copy_range(range, st.st_size, &first, &len);
        if (rc == status(ORBS3_S3_INVALID_ARGUMENT))
            r->resp.message = "The x-amz-copy-source-range value must be of the form bytes=first-last where first "
                              "and last are the zero-based offsets of the first and last bytes to copy";
        if (rc != 0)
            return rc;
    }
    if (orbs3_check_upload_part_size(len, r->vhost, ctx->bucket.get()) != 0)
        return status(ORBS3_S3_ENTITY_TOO_LARGE);

    char tmp[ORBS3_PATH_AREA];
    orbs3_fd out(make_temp(ctx->staging, tmp, sizeof tmp));
    if (out.get() < 0)
        return errno == ENOENT ? status(ORBS3_S3_NO_SUCH_UPLOAD) : status(ORBS3_S3_INTERNAL_ERROR);
    neo_md5_t md5;
    std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[kCopyBuffer]);
    bool ok = buf != nullptr && neo_md5_init(&md5) == 0;
    // The copied bytes get the upload's checksum, as a part sent with it would.
    orbs3_checksum_t checksum;
    const orbs3_checksum_alg alg = orbs3_checksum_alg_of_word(ctx->up.checksum_algorithm);
    ok = ok && (alg == orbs3_checksum_alg::none || orbs3_checksum_init(&checksum, alg) == 0);
    for (int64_t at = first, left = len; ok && left > 0;) {
        ssize_t n = pread(in.get(), buf.get(), static_cast<std::size_t>(std::min<int64_t>(left, kCopyBuffer)), at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        (void)neo_md5_update(&md5, buf.get(), static_cast<std::size_t>(n));
        orbs3_checksum_update(&checksum, buf.get(), static_cast<std::size_t>(n));
        for (ssize_t done = 0; ok && done < n;) {
            ssize_t w = write(out.get(), buf.get() + done, static_cast<std::size_t>(n - done));
            if (w < 0 && errno == EINTR)
                continue;
            ok = w > 0;
            done += w > 0 ? w : 0;
        }
        at += n;
        left -= n;
    }
    uint8_t digest[NEO_MD5_LEN];
    char value[ORBS3_CHECKSUM_BASE64_MAX + 1] = "";
    if (!ok || neo_md5_final(digest, &md5) != 0 ||
        (alg != orbs3_checksum_alg::none && orbs3_checksum_final_base64(&checksum, value, sizeof value) == 0)) {
        unlink(tmp);
        return status(ORBS3_S3_INTERNAL_ERROR);
    }
    int rc = install_part(ctx->staging, number, tmp, len, digest, ctx->up.checksum_algorithm, value);
    if (rc != 0) {
        unlink(tmp);
        return rc;
    }
    char hex[2 * NEO_MD5_LEN + 1];
    *neo_hex(hex, digest, NEO_MD5_LEN) = '\0';
    std::string doc = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<CopyPartResult>";
    xml_elem(&doc, "ETag", "\"" + std::string(hex) + "\"");
    xml_elem(&doc, "LastModified", now_stamp());
    checksum_elem(&doc, ctx->up.checksum_algorithm, value);
    doc.append("</CopyPartResult>");
    return send_document(r, doc);
}

// ---- Complete ----

// The object assembled from `parts` into a new temporary file in `data_dir` (its path to `tmp`), flushed.
// 0 or a status; on failure no temporary file is left.
int assemble(const char* staging, const char* data_dir, const std::vector<const orbs3_multipart_part_t*>& parts,
             char tmp[ORBS3_PATH_AREA], int64_t* total)
{
    orbs3_fd out(make_temp(data_dir, tmp, ORBS3_PATH_AREA));
    if (out.get() < 0) {
        ipd_log(LOG_ERR, "temporary file in %s: %s", data_dir, std::strerror(errno));
        return status(ORBS3_S3_INTERNAL_ERROR);
    }
    *total = 0;
    for (const orbs3_multipart_part_t* p : parts) {
        char path[ORBS3_PATH_AREA];
        std::snprintf(path, sizeof path, "%s/%d", staging, p->number);
        orbs3_fd in(open(path, O_RDONLY | O_CLOEXEC));
        if (in.get() < 0 || copy_bytes(in.get(), out.get(), 0, p->size) != 0) {
            ipd_log(LOG_ERR, "part %s not copied: %s", path, std::strerror(errno));
            unlink(tmp);
            return status(ORBS3_S3_INTERNAL_ERROR);
        }
        *total += p->size;
    }
    if (fsync(out.get()) != 0) {
        ipd_log(LOG_ERR, "fsync %s failed: %s", tmp, std::strerror(errno));
        unlink(tmp);
        return status(ORBS3_S3_INTERNAL_ERROR);
    }
    return 0;
}

// The reply of a Complete, the same for the first request and for one sent again.
int send_complete_result(orbs3_http_request_t* r, const orbs3_bucket_t* b, std::string_view key, const char* etag,
                         std::string_view checksum_alg, std::string_view checksum)
{
    std::string doc = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                      "<CompleteMultipartUploadResult xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">";
    std::string_view host = r->headers_in.host != nullptr ? orbs3_str_view(r->headers_in.host->value) : std::string_view();
    xml_elem(&doc, "Location",
             "http://" + std::string(host) + "/" + std::string(neo_getstr(&b->name)) + "/" + std::string(key));
    xml_elem(&doc, "Bucket", neo_getstr(&b->name));
    xml_elem(&doc, "Key", key);
    xml_elem(&doc, "ETag", "\"" + std::string(etag) + "\"");
    if (!checksum.empty()) {
        checksum_elem(&doc, checksum_alg, checksum);
        xml_elem(&doc, "ChecksumType", checksum.find('-') != std::string_view::npos ? "COMPOSITE" : "FULL_OBJECT");
    }
    doc.append("</CompleteMultipartUploadResult>");
    return send_document(r, doc);
}

// A Complete of an upload that is no more. When it was completed and the key still holds its result
// (the object's record names the upload, with the ETag this document's parts make, and the data file
// has the record's size), the request is that Complete sent again, its first reply lost: it gets that
// reply again. An upload whose object was replaced or deleted since is gone: NoSuchUpload. The evidence
// lives in the object's record, so it goes with the object and nothing accumulates.
int answer_completed(orbs3_http_request_t* r, const upload_ctx& ctx, std::string_view id,
                     const std::vector<orbs3_multipart_request_part_t>& req)
{
    char etag[40];
    orbs3_object_path_t path;
    if (!orbs3_multipart_document_etag(req, etag) || orbs3_make_object_path(ctx.bucket.get(), ctx.key, "", &path) != 0)
        return status(ORBS3_S3_NO_SUCH_UPLOAD);
    std::unique_ptr<orbs3_object_t, void (*)(orbs3_object_t*)> rec(orbs3_create_object_from_file(path.meta_path),
                                                                    orbs3_free_object);
    const orbs3_object_before_t now = orbs3_object_before_commit(path.data_path);
    if (!rec || orbs3_str_view(rec->upload_id) != id || orbs3_str_view(rec->etag) != etag || !now.existed ||
        now.size != static_cast<int64_t>(rec->size))
        return status(ORBS3_S3_NO_SUCH_UPLOAD);
    ipd_log(LOG_INFO, "upload %.*s: Complete sent again, answered with its result", static_cast<int>(id.size()),
            id.data());
    return send_complete_result(r, ctx.bucket.get(), ctx.key, etag, orbs3_str_view(rec->checksum_algorithm), orbs3_str_view(rec->checksum));
}

// The staging directory and the claimed record go; the index directory too once it is empty (so that an
// emptied bucket can be deleted).
void drop_upload(const upload_ctx& ctx, const std::string& claimed)
{
    for (int i = 0; i < 3 && neo_remove_tree(ctx.staging) != 0; i++) {
        // A part arriving at this moment may add a file behind the walk: walk again.
    }
    if (unlink(claimed.c_str()) != 0 && errno != ENOENT)
        ipd_log(LOG_ERR, "remove %s failed: %s", claimed.c_str(), std::strerror(errno));
    (void)rmdir(index_dir_of(ctx.bucket.get()).c_str());
}

// After an Abort, the key's directories that only the staging directory needed go again, so that an
// upload that never finished leaves the bucket as empty as it found it. A directory whose twin stands in
// the meta tree holds keys or is a directory object, and stays, with everything above it.
void prune_key_dirs(const orbs3_bucket_t* b, std::string_view key)
{
    orbs3_object_path_t path;
    if (orbs3_make_object_path(b, key, "", &path) != 0)
        return;
    std::string data(path.data_dir), meta(path.meta_dir);
    std::string root(neo_getstr(&b->data_dir));
    while (!root.empty() && root.back() == '/')
        root.pop_back();
    auto strip = [](std::string* s) {
        while (!s->empty() && s->back() == '/')
            s->pop_back();
    };
    strip(&data);
    strip(&meta);
    while (data.size() > root.size() && data.starts_with(root)) {
        struct stat st;
        if (stat(meta.c_str(), &st) == 0 || rmdir(data.c_str()) != 0)
            return;
        data.resize(data.rfind('/'));
        meta.resize(meta.rfind('/'));
    }
}

// The additional checksum an upload declares: x-amz-checksum-algorithm, and x-amz-checksum-type for the
// form of the object's (COMPOSITE unless said, FULL_OBJECT for CRC64NVME, which has no other). 0 or a
// status.
int declared_checksum(orbs3_http_request_t* r, orbs3_multipart_upload_t* up)
{
    std::string_view word, type;
    const bool has_alg = orbs3_sign_find_header(r, "x-amz-checksum-algorithm", &word);
    const bool has_type = orbs3_sign_find_header(r, "x-amz-checksum-type", &type);
    if (!has_alg && !has_type)
        return 0;
    if (!has_alg) {
        r->resp.message = "The x-amz-checksum-type header can only be used with the x-amz-checksum-algorithm header.";
        return status(ORBS3_S3_INVALID_REQUEST);
    }
    const orbs3_checksum_alg alg = orbs3_checksum_alg_of_word(word);
    if (alg == orbs3_checksum_alg::none) {
        r->resp.message = "Checksum algorithm provided is unsupported. Please try again with any of the valid types: "
                          "[CRC32, CRC32C, CRC64NVME, SHA1, SHA256]";
        return status(ORBS3_S3_INVALID_REQUEST);
    }
    bool full = alg == orbs3_checksum_alg::crc64nvme;
    if (has_type && !orbs3_sign_iequals(type, "FULL_OBJECT") && !orbs3_sign_iequals(type, "COMPOSITE")) {
        r->resp.message = "Value for x-amz-checksum-type header is invalid.";
        return status(ORBS3_S3_INVALID_REQUEST);
    }
    if (has_type)
        full = orbs3_sign_iequals(type, "FULL_OBJECT");
    orbs3_checksum_parts_t probe;
    if (orbs3_checksum_parts_init(&probe, alg, full) != 0) {
        r->resp.message = full ? "The FULL_OBJECT checksum type cannot be used with this checksum algorithm."
                               : "The COMPOSITE checksum type cannot be used with this checksum algorithm.";
        return status(ORBS3_S3_INVALID_REQUEST);
    }
    up->checksum_algorithm = orbs3_checksum_word(alg);
    up->checksum_type = full ? "FULL_OBJECT" : "COMPOSITE";
    return 0;
}

}  // namespace

int orbs3_create_multipart_upload_object(orbs3_http_request_t* r)
{
    orbs3_bucket_t* raw = nullptr;
    std::string_view key;
    int rc = orbs3_object_request_bucket(r, ORBS3_ACCESS_WRITE, &raw, &key);
    if (rc != 0)
        return rc;
    bucket_ptr b(raw);
    // A directory object has no bytes to assemble.
    if (key.back() == '/')
        return status(ORBS3_S3_INVALID_ARGUMENT);
    orbs3_object_meta_t meta;
    if (rc = orbs3_object_meta_from_request(r, &meta); rc != 0)
        return rc;
    rc = orbs3_check_key_conflict(raw, key);
    if (rc == ORBS3_KEY_CONFLICT_FILE || rc == ORBS3_KEY_CONFLICT_DIR)
        return status(ORBS3_S3_KEY_CONFLICT);
    if (rc != 0)
        return status(ORBS3_S3_INTERNAL_ERROR);

    orbs3_multipart_upload_t up;
    char id[ORBS3_UUID_HEX_LEN + 1];
    orbs3_get_uuid_ex(id);
    up.key = key;
    up.upload_id = id;
    up.initiator_id = orbs3_str_view(r->user->UserId);
    up.initiator_name = orbs3_str_view(r->user->DisPlayName);
    up.created = now_stamp();
    up.content_type = meta.content_type;
    up.cache_control = meta.cache_control;
    up.content_disposition = meta.content_disposition;
    up.content_encoding = meta.content_encoding;
    up.expires = meta.expires;
    for (std::size_t i = 0; i < meta.n; i++)
        up.meta.emplace_back(meta.keys[i], meta.values[i]);
    if (rc = declared_checksum(r, &up); rc != 0)
        return rc;

    char staging[ORBS3_PATH_AREA];
    if (orbs3_multipart_staging_path(raw, key, id, staging, sizeof staging) != 0)
        return status(ORBS3_S3_KEY_TOO_LONG);
    if (neo_mkdir_p(staging, ORBS3_DIR_MODE) != 0) {
        ipd_log(LOG_ERR, "staging directory %s: %s", staging, std::strerror(errno));
        return errno == ENAMETOOLONG ? status(ORBS3_S3_KEY_TOO_LONG) : status(ORBS3_S3_INTERNAL_ERROR);
    }
    const std::string index_dir = index_dir_of(raw);
    const std::string index_path = index_dir + "/" + id;
    const std::string text = orbs3_multipart_render_upload(up);
    // The index directory may vanish between the two steps when the bucket's last other upload ends.
    bool written = false;
    for (int i = 0; i < 3 && !written; i++)
        written = neo_mkdir_p(index_dir.c_str(), ORBS3_DIR_MODE) == 0 &&
                  orbs3_record_replace(index_path.c_str(), text.data(), text.size()) == 0;
    if (!written) {
        ipd_log(LOG_ERR, "upload record %s: %s", index_path.c_str(), std::strerror(errno));
        (void)neo_remove_tree(staging);
        return status(ORBS3_S3_INTERNAL_ERROR);
    }
    neo_cstr_ptr doc(make_create_multipartupload_xmlstring(neo_getstr(&raw->name), up.key.c_str(), id));
    if (!doc)
        return status(ORBS3_S3_INTERNAL_ERROR);
    return orbs3_http_send_create_mulitipart_object_msg(r->connection, 200, doc.get(), r->resp.connection,
                                                        r->resp.origin) == 0
               ? 0
               : -1;
}

int orbs3_upload_part_object(orbs3_http_request_t* r)
{
    auto* st = pool_new<part_state_t>(r->pool);
    if (st == nullptr)
        return status(ORBS3_S3_INTERNAL_ERROR);
    if (int rc = open_upload(r, ORBS3_ACCESS_WRITE, &st->ctx); rc != 0)
        return rc;
    st->number = r->req_msg.part_number;
    if (st->number < 1 || st->number > ORBS3_MULTIPART_MAX_PART) {
        r->resp.message = "Part number must be an integer between 1 and 10000, inclusive.";
        return status(ORBS3_S3_INVALID_ARGUMENT);
    }
    std::string_view copy_source;
    if (r->headers_in.x_copy_source != nullptr || orbs3_sign_find_header(r, "x-amz-copy-source", &copy_source))
        return upload_part_copy(r, &st->ctx, st->number);

    if (r->headers_in.content_length == nullptr && !r->headers_in.chunked)
        return status(ORBS3_S3_MISSING_CONTENT_LENGTH);
    int64_t length = -1;
    if (int rc = orbs3_object_body_length(r, &length); rc != 0)
        return rc;
    if (orbs3_check_upload_part_size(length, r->vhost, st->ctx.bucket.get()) != 0)
        return status(ORBS3_S3_ENTITY_TOO_LARGE);
    // An aws-chunked body's length is checked again as it decodes.
    st->body.limit = orbs3_upload_part_size_limit(r->vhost, st->ctx.bucket.get());
    if (int rc = orbs3_object_body_prepare(r, &st->body); rc != 0)
        return rc;
    if (int rc = part_checksum(r, st->ctx, &st->body); rc != 0)
        return rc;
    int fd = make_temp(st->ctx.staging, st->body.file.path, sizeof st->body.file.path);
    if (fd < 0)
        return errno == ENOENT ? status(ORBS3_S3_NO_SUCH_UPLOAD) : status(ORBS3_S3_INTERNAL_ERROR);
    close(fd);
    st->body.done = part_done;
    st->body.owner = st;
    st->body.action = "UploadPart";
    // An Abort that removes the staging directory while the body streams ends the part the same way.
    st->body.vanished = status(ORBS3_S3_NO_SUCH_UPLOAD);
    return orbs3_object_body_start(r, &st->body);
}

int orbs3_list_parts_object(orbs3_http_request_t* r)
{
    upload_ctx ctx;
    if (int rc = open_upload(r, ORBS3_ACCESS_READ, &ctx); rc != 0)
        return rc;
    int marker = r->req_msg.part_number_marker;
    int max = r->req_msg.max_parts;
    if (marker < 0 || max < 0)
        return status(ORBS3_S3_INVALID_ARGUMENT);
    if (max == 0 || max > 1000)
        max = 1000;
    std::vector<orbs3_multipart_part_t> parts;
    if (load_parts(ctx.staging, &parts) != 0)
        return status(ORBS3_S3_NO_SUCH_UPLOAD);

    std::string doc = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                      "<ListPartsResult xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">";
    xml_elem(&doc, "Bucket", neo_getstr(&ctx.bucket->name));
    xml_elem(&doc, "Key", ctx.key);
    xml_elem(&doc, "UploadId", ctx.up.upload_id);
    doc.append("<Initiator>");
    xml_elem(&doc, "ID", ctx.up.initiator_id);
    xml_elem(&doc, "DisplayName", ctx.up.initiator_name);
    doc.append("</Initiator><Owner>");
    xml_elem(&doc, "ID", ctx.up.initiator_id);
    xml_elem(&doc, "DisplayName", ctx.up.initiator_name);
    doc.append("</Owner><StorageClass>STANDARD</StorageClass>");
    xml_elem(&doc, "PartNumberMarker", std::to_string(marker));
    std::string body;
    int shown = 0, last = 0;
    bool truncated = false;
    for (const auto& p : parts) {
        if (p.number <= marker)
            continue;
        if (shown == max) {
            truncated = true;
            break;
        }
        char hex[2 * NEO_MD5_LEN + 1];
        *neo_hex(hex, p.md5, NEO_MD5_LEN) = '\0';
        body.append("<Part>");
        xml_elem(&body, "PartNumber", std::to_string(p.number));
        xml_elem(&body, "LastModified", p.modified);
        xml_elem(&body, "ETag", "\"" + std::string(hex) + "\"");
        xml_elem(&body, "Size", std::to_string(p.size));
        checksum_elem(&body, p.checksum_algorithm, p.checksum);
        body.append("</Part>");
        shown++;
        last = p.number;
    }
    xml_elem(&doc, "NextPartNumberMarker", std::to_string(last));
    xml_elem(&doc, "MaxParts", std::to_string(max));
    xml_elem(&doc, "IsTruncated", truncated ? "true" : "false");
    if (!ctx.up.checksum_algorithm.empty()) {
        xml_elem(&doc, "ChecksumAlgorithm", ctx.up.checksum_algorithm);
        xml_elem(&doc, "ChecksumType", ctx.up.checksum_type);
    }
    doc.append(body);
    doc.append("</ListPartsResult>");
    return send_document(r, doc);
}

int orbs3_complete_multipart_upload_object(orbs3_http_request_t* r)
{
    std::vector<orbs3_multipart_request_part_t> req;
    auto read_document = [&]() {
        const char* text = orbs3_http_body_document(r);
        if (text == nullptr)
            return status(ORBS3_S3_INTERNAL_ERROR);
        neo_list_head_t list;
        INIT_LIST_HEAD(&list);
        if (parse_complete_multipart_upload_xmlstring(text, &list, r->pool) != 0)
            return status(ORBS3_S3_MALFORMED_XML);
        neo_list_head_t* pos;
        list_for_each(pos, &list)
        {
            auto* p = list_entry(pos, orbs3_part_t, link);
            req.push_back({p->part_number, orbs3_str_view(p->etag),
                           p->checksum_algorithm != nullptr ? std::string_view(p->checksum_algorithm)
                                                            : std::string_view(),
                           orbs3_str_view(p->checksum)});
        }
        return req.empty() ? status(ORBS3_S3_MALFORMED_XML) : 0;
    };
    upload_ctx ctx;
    if (int rc = open_upload(r, ORBS3_ACCESS_WRITE, &ctx, true); rc != 0) {
        const std::string_view id = orbs3_str_view(r->req_msg.uploadId);
        if (rc != status(ORBS3_S3_NO_SUCH_UPLOAD) || !ctx.bucket || !orbs3_multipart_valid_id(id) ||
            read_document() != 0)
            return rc;
        return answer_completed(r, ctx, id, req);
    }
    if (int rc = read_document(); rc != 0)
        return rc;

    orbs3_bucket_t* b = ctx.bucket.get();
    orbs3_object_path_t path;
    if (orbs3_make_object_path(b, ctx.key, "", &path) != 0)
        return status(ORBS3_S3_KEY_TOO_LONG);
    // A Complete whose condition already fails costs no claim and no copy; the commit checks again.
    const orbs3_conditional_t cond = orbs3_object_conditions(r);
    if (int rc = orbs3_object_check_conditions(&cond, path.data_path, path.meta_path); rc != 0)
        return rc;

    std::string claimed;
    if (int rc = claim_upload(ctx, &claimed); rc != 0)
        return rc;
    // A refusal gives the upload back, so the client may correct its document and try again.
    auto release = [&](int st) {
        if (rename(claimed.c_str(), ctx.index_path.c_str()) != 0)
            ipd_log(LOG_ERR, "upload %s not given back: %s", ctx.index_path.c_str(), std::strerror(errno));
        return st;
    };

    std::vector<orbs3_multipart_part_t> stored;
    if (load_parts(ctx.staging, &stored) != 0)
        return release(status(ORBS3_S3_INTERNAL_ERROR));
    std::size_t bad = 0;
    if (int rc = orbs3_multipart_check_complete(req, stored, orbs3_conf.multipart_min_part, &bad); rc != 0)
        return release(rc);
    std::vector<const orbs3_multipart_part_t*> chosen;
    for (const auto& q : req) {
        auto it = std::lower_bound(stored.begin(), stored.end(), q.number,
                                   [](const orbs3_multipart_part_t& p, int n) { return p.number < n; });
        chosen.push_back(&*it);
    }
    // The object's additional checksum, from its parts' (none when it is not known exactly); a value the
    // client computed of the whole must be that one.
    std::string checksum_alg, part_checksums;
    char checksum[ORBS3_CHECKSUM_TEXT_MAX + 1] = "";
    if (!orbs3_multipart_object_checksum(ctx.up, chosen, &checksum_alg, checksum, &part_checksums)) {
        checksum_alg.clear();
        part_checksums.clear();
        checksum[0] = '\0';
    }
    if (int rc = check_whole_checksum(r, checksum_alg, checksum); rc != 0)
        return release(rc);

    // The assembled object obeys the same file_threshold as one sent whole.
    int64_t sum = 0;
    for (const orbs3_multipart_part_t* p : chosen)
        sum += p->size;
    if (orbs3_check_object_size(r->vhost, b, sum) != 0)
        return release(status(ORBS3_S3_ENTITY_TOO_LARGE));
    int rc = orbs3_check_key_conflict(b, ctx.key);
    if (rc == ORBS3_KEY_CONFLICT_FILE || rc == ORBS3_KEY_CONFLICT_DIR)
        return release(status(ORBS3_S3_KEY_CONFLICT));
    if (rc != 0 || orbs3_make_dir_by_name(ctx.key, path.data_path) != 0)
        return release(status(ORBS3_S3_INTERNAL_ERROR));

    char tmp[ORBS3_PATH_AREA];
    int64_t total = 0;
    if (rc = assemble(ctx.staging, path.data_dir, chosen, tmp, &total); rc != 0)
        return release(rc);

    char etag[40];
    orbs3_multipart_etag(chosen, etag);
    orbs3_object_meta_t meta;
    meta.content_type = ctx.up.content_type;
    meta.cache_control = ctx.up.cache_control;
    meta.content_disposition = ctx.up.content_disposition;
    meta.content_encoding = ctx.up.content_encoding;
    meta.expires = ctx.up.expires;
    for (const auto& [k, v] : ctx.up.meta) {
        if (meta.n == ORBS3_OBJECT_META_MAX)
            break;
        meta.keys[meta.n] = k;
        meta.values[meta.n] = v;
        meta.n++;
    }
    meta.upload_id = ctx.up.upload_id;
    // The parts stay known, for GetObject ?partNumber.
    const std::string parts_text = orbs3_multipart_parts_text(chosen);
    meta.parts = parts_text;
    meta.checksum_algorithm = checksum_alg;
    meta.checksum = checksum;
    meta.part_checksums = part_checksums;
    orbs3_object_before_t before;
    {
        orbs3_commit_lock_t lock;
        if (orbs3_commit_lock(path.data_path, &lock) != 0) {
            ipd_log(LOG_ERR, "commit lock for %s: %s", path.data_path, std::strerror(errno));
            unlink(tmp);
            return release(status(ORBS3_S3_INTERNAL_ERROR));
        }
        if (rc = orbs3_object_commit_file(&cond, tmp, path.data_path, path.meta_path, &before); rc != 0) {
            unlink(tmp);
            return release(rc);
        }
        const std::string stamp = now_stamp();
        if (orbs3_object_write_record(r->user, ctx.key, path.meta_path, path.data_path, etag, total, stamp.c_str(),
                                      &meta) != 0)
            ipd_log(LOG_ERR, "record %s not written: the object is served without it", path.meta_path);
    }
    orbs3_object_count_commit(r->vhost, b, before, total);
    drop_upload(ctx, claimed);
    return send_complete_result(r, b, ctx.key, etag, checksum_alg, checksum);
}

int orbs3_abort_multipart_upload_object(orbs3_http_request_t* r)
{
    upload_ctx ctx;
    if (int rc = open_upload(r, ORBS3_ACCESS_WRITE, &ctx, true); rc != 0)
        return rc;
    std::string claimed;
    if (int rc = claim_upload(ctx, &claimed); rc != 0)
        return rc;
    drop_upload(ctx, claimed);
    prune_key_dirs(ctx.bucket.get(), ctx.key);
    return orbs3_http_send_abort_mulitipart_object_msg(r->connection, 204, r->resp.connection, r->resp.origin) == 0
               ? 0
               : -1;
}

int orbs3_list_multipart_uploads(orbs3_http_request_t* r)
{
    static constexpr int list_code = ORBS3_ACCESS_LIST;
    orbs3_bucket_t* raw = nullptr;
    if (int rc = orbs3_request_bucket(r, &list_code, nullptr, orbs3_access_chain_t::full, &raw); rc != 0)
        return rc;
    bucket_ptr b(raw);

    std::string args(orbs3_str_view(r->args));
    orbs3_cgi_form form(args.empty() ? nullptr : cgiParseGetFormInput(args.c_str()));
    auto param = [&](const char* name) {
        std::string v(ORBS3_PATH_AREA, '\0');
        if (cgiFormString(form.get(), name, v.data(), v.size()) != cgiFormSuccess)
            return std::string();
        v.resize(std::strlen(v.c_str()));
        return v;
    };
    const std::string prefix = param("prefix"), delimiter = param("delimiter"), key_marker = param("key-marker"),
                      id_marker = param("upload-id-marker"), max_text = param("max-uploads");
    const bool url = param("encoding-type") == "url";
    int max = 1000;
    if (!max_text.empty()) {
        int64_t v = 0;
        if (!orbs3_parse_length(max_text, &v))
            return status(ORBS3_S3_INVALID_ARGUMENT);
        max = v == 0 || v > 1000 ? (v == 0 ? 0 : 1000) : static_cast<int>(v);
    }

    std::vector<orbs3_multipart_upload_t> ups;
    const std::string index_dir = index_dir_of(raw);
    if (neo_dir_ptr dir{opendir(index_dir.c_str())}) {
        while (dirent* e = readdir(dir.get())) {
            if (!orbs3_multipart_valid_id(e->d_name))
                continue;
            std::string text;
            orbs3_multipart_upload_t up;
            if (read_small_file((index_dir + "/" + e->d_name).c_str(), &text) &&
                orbs3_multipart_parse_upload(text, &up) == 0 && up.key.starts_with(prefix))
                ups.push_back(std::move(up));
        }
    }
    // By key, then by upload id: the id marker of a page then stays a place in the order even when that
    // upload has ended meanwhile.
    std::sort(ups.begin(), ups.end(), [](const auto& a, const auto& x) {
        return a.key != x.key ? a.key < x.key : a.upload_id < x.upload_id;
    });

    auto enc = [&](std::string_view s) { return url ? orbs3_list_url_encode(s) : std::string(s); };
    std::string rows, prefixes, next_key, next_id, last_prefix;
    int count = 0;
    bool truncated = false;
    for (const auto& up : ups) {
        if (up.key < key_marker)
            continue;
        // Without an id marker every upload of the marker key has been listed; with one, those up to and
        // including it.
        if (up.key == key_marker && (id_marker.empty() || up.upload_id <= id_marker))
            continue;
        std::string common;
        if (!delimiter.empty()) {
            std::size_t at = up.key.find(delimiter, prefix.size());
            if (at != std::string::npos)
                common = up.key.substr(0, at + delimiter.size());
        }
        if (!common.empty() && common == last_prefix)
            continue;
        if (!common.empty() && !key_marker.empty() && key_marker.starts_with(common))
            continue;
        if (count == max) {
            truncated = true;
            break;
        }
        count++;
        if (!common.empty()) {
            last_prefix = common;
            prefixes.append("<CommonPrefixes>");
            xml_elem(&prefixes, "Prefix", enc(common));
            prefixes.append("</CommonPrefixes>");
            next_key = common;
            next_id.clear();
            continue;
        }
        rows.append("<Upload>");
        xml_elem(&rows, "Key", enc(up.key));
        xml_elem(&rows, "UploadId", up.upload_id);
        for (const char* who : {"Initiator", "Owner"}) {
            rows.append("<").append(who).append(">");
            xml_elem(&rows, "ID", up.initiator_id);
            xml_elem(&rows, "DisplayName", up.initiator_name);
            rows.append("</").append(who).append(">");
        }
        rows.append("<StorageClass>STANDARD</StorageClass>");
        xml_elem(&rows, "Initiated", up.created);
        rows.append("</Upload>");
        next_key = up.key;
        next_id = up.upload_id;
    }

    std::string doc = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                      "<ListMultipartUploadsResult xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">";
    xml_elem(&doc, "Bucket", neo_getstr(&b->name));
    xml_elem(&doc, "KeyMarker", enc(key_marker));
    xml_elem(&doc, "UploadIdMarker", id_marker);
    xml_elem(&doc, "NextKeyMarker", truncated ? enc(next_key) : "");
    xml_elem(&doc, "NextUploadIdMarker", truncated ? next_id : "");
    if (!delimiter.empty())
        xml_elem(&doc, "Delimiter", enc(delimiter));
    xml_elem(&doc, "Prefix", enc(prefix));
    if (url)
        xml_elem(&doc, "EncodingType", "url");
    xml_elem(&doc, "MaxUploads", std::to_string(max));
    xml_elem(&doc, "IsTruncated", truncated ? "true" : "false");
    doc.append(rows);
    doc.append(prefixes);
    doc.append("</ListMultipartUploadsResult>");
    return send_document(r, doc);
}
