// The multipart engine: an upload's files, records and claims, and the assembly of its object. What an
// upload is on disk, and why, is told in orbs3_multipart_engine.h.
#include "storage/orbs3_multipart_engine.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>

#include "core/orbs3_log.h"
#include "event/orbs3_fd.h"
#include "http/orbs3_http_response.h"  // get_gmt_meta_time, the records' time stamps
#include "memory/neo_files.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_record.h"

namespace {

constexpr std::size_t kRecordMax = 64 * 1024;  // an upload record with 2 KiB of metadata is far below
constexpr std::string_view kClaimSuffix = ".claimed";
constexpr std::string_view kPartRecordSuffix = ".etag";
// The deepest name an upload makes for its key: a temporary part in the staging directory,
// "<data path>.orbs3-<id>/.orbs3-tmp-<uuid>" with the key's last component moved behind the id. Keys are
// taken only with that much room to spare.
static_assert(ORBS3_RESERVED_PREFIX.size() + ORBS3_UUID_HEX_LEN + 1 + ORBS3_RECORD_TMP_PREFIX.size() +
                  ORBS3_UUID_HEX_LEN <=
              ORBS3_KEY_PATH_RESERVE);

std::string now_stamp()
{
    char stamp[64];
    get_gmt_meta_time(stamp, sizeof stamp);
    return stamp;
}

// A record file read whole; false when it is missing, unreadable or larger than any record this engine
// writes.
bool read_record(const char* path, std::string* out)
{
    out->clear();
    char* data = nullptr;
    std::size_t len = 0;
    if (orbs3_read_data_from_file(path, &data, &len) != 0)
        return false;
    neo_cstr_ptr owner(data);
    if (len > kRecordMax)
        return false;
    out->assign(data, len);
    return true;
}

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
std::string claim_prefix(const std::string& index_path)
{
    return index_path + std::string(kClaimSuffix) + "." + node_name() + ".";
}

bool find_stale_claim(const std::string& index_path, std::string* out)
{
    const std::size_t slash = index_path.rfind('/');
    const std::string dir = index_path.substr(0, slash);
    const std::string prefix = claim_prefix(index_path).substr(slash + 1);
    neo_dir_ptr d(opendir(dir.c_str()));
    if (!d)
        return false;
    while (dirent* e = readdir(d.get())) {
        std::string_view name(e->d_name);
        if (!name.starts_with(prefix))
            continue;
        const std::string_view pid_text = name.substr(prefix.size());
        int32_t pid = 0;
        const auto [end, ec] = std::from_chars(pid_text.data(), pid_text.data() + pid_text.size(), pid);
        if (ec != std::errc() || end != pid_text.data() + pid_text.size() || pid <= 0)
            continue;
        if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
            *out = dir + "/" + std::string(name);
            return true;
        }
    }
    return false;
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

// "<staging>/<number>" and "<staging>/<number>.etag". False when they do not fit.
bool part_paths(const char* staging, int number, char (&data)[ORBS3_PATH_AREA], char (&rec)[ORBS3_PATH_AREA])
{
    const int n1 = std::snprintf(data, sizeof data, "%s/%d", staging, number);
    const int n2 = std::snprintf(rec, sizeof rec, "%s/%d%.*s", staging, number,
                                 static_cast<int>(kPartRecordSuffix.size()), kPartRecordSuffix.data());
    return n1 >= 0 && n2 >= 0 && static_cast<std::size_t>(n2) < sizeof rec;
}

// The part `number` of the staging directory with its record. A record that is missing or describes
// other bytes than the part's (the two renames of a part were cut apart, or two senders of one part
// crossed) is made again from the part's bytes. 0, 1 when there is no such part, -1 on error.
int load_part(const char* staging, int number, orbs3_multipart_part_t* part)
{
    char data[ORBS3_PATH_AREA], rec[ORBS3_PATH_AREA];
    if (!part_paths(staging, number, data, rec))
        return -1;
    orbs3_fd f(open(data, O_RDONLY | O_CLOEXEC));
    if (f.get() < 0)
        return errno == ENOENT ? 1 : -1;
    struct stat st;
    if (fstat(f.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return -1;
    std::string text;
    if (read_record(rec, &text) && orbs3_multipart_parse_part(text, part) == 0 &&
        part->ino == static_cast<uint64_t>(st.st_ino) && part->size == static_cast<int64_t>(st.st_size)) {
        part->number = number;
        return 0;
    }
    *part = orbs3_multipart_part_t{};
    part->number = number;
    part->size = st.st_size;
    part->ino = st.st_ino;
    part->modified = now_stamp();
    neo_md5_t md5;
    if (neo_md5_init(&md5) != 0 ||
        orbs3_copy_range(f.get(), -1, 0, st.st_size,
                         [&](const uint8_t* p, std::size_t n) { (void)neo_md5_update(&md5, p, n); }) != 0 ||
        neo_md5_final(part->md5, &md5) != 0)
        return -1;
    ipd_log(LOG_INFO, "part record %s made again from its bytes", rec);
    const std::string fresh = orbs3_multipart_render_part(*part);
    if (orbs3_record_replace(rec, fresh.data(), fresh.size()) != 0)
        ipd_log(LOG_ERR, "part record %s not written: %s", rec, std::strerror(errno));
    return 0;
}

int gone_or_internal()
{
    return errno == ENOENT ? ORBS3_S3_NO_SUCH_UPLOAD : ORBS3_S3_INTERNAL_ERROR;
}

}  // namespace

std::string orbs3_multipart_index_dir(const orbs3_bucket_t* b)
{
    std::string dir(neo_getstr(&b->data_dir));
    if (dir.empty() || dir.back() != '/')
        dir.push_back('/');
    dir.append(ORBS3_MULTIPART_INDEX_DIR);
    return dir;
}

int orbs3_multipart_create(const orbs3_bucket_t* bucket, orbs3_multipart_upload_t* up)
{
    char id[ORBS3_UUID_HEX_LEN + 1];
    orbs3_get_uuid_ex(id);
    up->upload_id = id;
    up->created = now_stamp();
    char staging[ORBS3_PATH_AREA];
    if (orbs3_multipart_staging_path(bucket, up->key, up->upload_id, staging, sizeof staging) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    if (neo_mkdir_p(staging, ORBS3_DIR_MODE) != 0) {
        ipd_log(LOG_ERR, "staging directory %s: %s", staging, std::strerror(errno));
        return errno == ENAMETOOLONG ? ORBS3_S3_KEY_TOO_LONG : ORBS3_S3_INTERNAL_ERROR;
    }
    const std::string index_dir = orbs3_multipart_index_dir(bucket);
    const std::string index_path = index_dir + "/" + up->upload_id;
    const std::string text = orbs3_multipart_render_upload(*up);
    // The index directory may vanish between the two steps when the bucket's last other upload ends.
    bool written = false;
    for (int i = 0; i < 3 && !written; i++)
        written = neo_mkdir_p(index_dir.c_str(), ORBS3_DIR_MODE) == 0 &&
                  orbs3_record_replace(index_path.c_str(), text.data(), text.size()) == 0;
    if (!written) {
        ipd_log(LOG_ERR, "upload record %s: %s", index_path.c_str(), std::strerror(errno));
        (void)neo_remove_tree(staging);
        return ORBS3_S3_INTERNAL_ERROR;
    }
    return 0;
}

int orbs3_multipart_open(const orbs3_bucket_t* bucket, std::string_view key, std::string_view id, bool take_over,
                         orbs3_multipart_handle_t* h)
{
    h->bucket = bucket;
    if (!orbs3_multipart_valid_id(id))
        return ORBS3_S3_NO_SUCH_UPLOAD;
    h->index_path = orbs3_multipart_index_dir(bucket) + "/" + std::string(id);
    std::string text;
    if (!read_record(h->index_path.c_str(), &text) &&
        (!take_over || !find_stale_claim(h->index_path, &h->stale_claim) ||
         !read_record(h->stale_claim.c_str(), &text)))
        return ORBS3_S3_NO_SUCH_UPLOAD;
    if (orbs3_multipart_parse_upload(text, &h->up) != 0) {
        ipd_log(LOG_ERR, "upload record %s unreadable", h->index_path.c_str());
        return ORBS3_S3_NO_SUCH_UPLOAD;
    }
    // An id is only good for the key it was made for.
    if (h->up.key != key || h->up.upload_id != id)
        return ORBS3_S3_NO_SUCH_UPLOAD;
    if (orbs3_multipart_staging_path(bucket, key, id, h->staging, sizeof h->staging) != 0)
        return ORBS3_S3_KEY_TOO_LONG;
    return 0;
}

int orbs3_multipart_load_parts(const char* staging, std::vector<orbs3_multipart_part_t>* parts)
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
        const int rc = load_part(staging, n, &p);
        if (rc < 0)
            return -1;
        if (rc == 0)
            parts->push_back(std::move(p));
    }
    return 0;
}

int orbs3_multipart_install_part(const char* staging, const char* tmp, orbs3_multipart_part_t* part)
{
    char data[ORBS3_PATH_AREA], rec[ORBS3_PATH_AREA];
    if (!part_paths(staging, part->number, data, rec))
        return ORBS3_S3_KEY_TOO_LONG;
    // The record names the inode of these bytes: a rename keeps it.
    struct stat st;
    if (stat(tmp, &st) != 0)
        return gone_or_internal();
    part->ino = st.st_ino;
    part->modified = now_stamp();
    if (orbs3_temp_commit(tmp, data) != 0) {
        // The staging directory went with an Abort or a Complete meanwhile.
        if (errno != ENOENT)
            ipd_log(LOG_ERR, "part %s not put in place: %s", data, std::strerror(errno));
        return gone_or_internal();
    }
    const std::string text = orbs3_multipart_render_part(*part);
    // Without its record the part is still whole: the next reader makes the record again.
    if (orbs3_record_replace(rec, text.data(), text.size()) != 0 && errno != ENOENT)
        ipd_log(LOG_ERR, "part record %s not written: %s", rec, std::strerror(errno));
    return 0;
}

int orbs3_multipart_copy_part(const orbs3_multipart_handle_t& h, int number, int in, int64_t first, int64_t len,
                              orbs3_multipart_part_t* part)
{
    orbs3_temp_file tmp;
    if (tmp.open(h.staging) < 0)
        return gone_or_internal();
    neo_md5_t md5;
    // The copied bytes get the upload's checksum, as a part sent with it would.
    orbs3_checksum_t ck;
    const orbs3_checksum_alg alg = orbs3_checksum_alg_of_word(h.up.checksum_algorithm);
    if (neo_md5_init(&md5) != 0 || (alg != orbs3_checksum_alg::none && orbs3_checksum_init(&ck, alg) != 0))
        return ORBS3_S3_INTERNAL_ERROR;
    const int copied = orbs3_copy_range(in, tmp.fd, first, len, [&](const uint8_t* p, std::size_t n) {
        (void)neo_md5_update(&md5, p, n);
        orbs3_checksum_update(&ck, p, n);
    });
    char value[ORBS3_CHECKSUM_BASE64_MAX + 1] = "";
    *part = orbs3_multipart_part_t{};
    if (copied != 0 || neo_md5_final(part->md5, &md5) != 0 ||
        (alg != orbs3_checksum_alg::none && orbs3_checksum_final_base64(&ck, value, sizeof value) == 0))
        return ORBS3_S3_INTERNAL_ERROR;
    part->number = number;
    part->size = len;
    if (value[0] != '\0') {
        part->checksum_algorithm = h.up.checksum_algorithm;
        part->checksum = value;
    }
    const int rc = orbs3_multipart_install_part(h.staging, tmp.path, part);
    if (rc == 0)
        tmp.keep();
    return rc;
}

int orbs3_multipart_claim(const orbs3_multipart_handle_t& h, std::string* claimed)
{
    *claimed = claim_prefix(h.index_path) + std::to_string(getpid());
    if (rename(h.index_path.c_str(), claimed->c_str()) == 0)
        return 0;
    if (errno != ENOENT)
        return ORBS3_S3_INTERNAL_ERROR;
    if (!h.stale_claim.empty() && rename(h.stale_claim.c_str(), claimed->c_str()) == 0) {
        ipd_log(LOG_WARNING, "upload %s: the claim of a worker that is gone taken over", h.up.upload_id.c_str());
        return 0;
    }
    return ORBS3_S3_NO_SUCH_UPLOAD;
}

void orbs3_multipart_release(const orbs3_multipart_handle_t& h, const std::string& claimed)
{
    if (rename(claimed.c_str(), h.index_path.c_str()) != 0)
        ipd_log(LOG_ERR, "upload %s not given back: %s", h.index_path.c_str(), std::strerror(errno));
}

void orbs3_multipart_drop(const orbs3_multipart_handle_t& h, const std::string& claimed)
{
    for (int i = 0; i < 3 && neo_remove_tree(h.staging) != 0; i++) {
        // A part arriving at this moment may add a file behind the walk: walk again.
    }
    if (unlink(claimed.c_str()) != 0 && errno != ENOENT)
        ipd_log(LOG_ERR, "remove %s failed: %s", claimed.c_str(), std::strerror(errno));
    (void)rmdir(orbs3_multipart_index_dir(h.bucket).c_str());
}

// An upload that never finished leaves the bucket as empty as it found it. A directory whose twin stands in
// the meta tree holds keys or is a directory object, and stays, with everything above it.
void orbs3_multipart_prune_key_dirs(const orbs3_bucket_t* b, std::string_view key)
{
    orbs3_object_path_t path;
    if (orbs3_make_object_path(b, key, "", &path) != 0)
        return;
    auto strip = [](std::string s) {
        while (!s.empty() && s.back() == '/')
            s.pop_back();
        return s;
    };
    std::string data = strip(path.data_dir), meta = strip(path.meta_dir);
    const std::string root = strip(neo_getstr(&b->data_dir));
    while (data.size() > root.size() && data.starts_with(root)) {
        struct stat st;
        if (stat(meta.c_str(), &st) == 0 || rmdir(data.c_str()) != 0)
            return;
        data.resize(data.rfind('/'));
        meta.resize(meta.rfind('/'));
    }
}

int orbs3_multipart_plan(const orbs3_multipart_handle_t& h, const std::vector<orbs3_multipart_request_part_t>& req,
                         int64_t min_part, orbs3_multipart_plan_t* plan)
{
    if (orbs3_multipart_load_parts(h.staging, &plan->stored) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    std::size_t bad = 0;
    if (int rc = orbs3_multipart_check_complete(req, plan->stored, min_part, &bad); rc != 0)
        return rc;
    plan->chosen.clear();
    plan->total = 0;
    for (const auto& q : req) {
        auto it = std::lower_bound(plan->stored.begin(), plan->stored.end(), q.number,
                                   [](const orbs3_multipart_part_t& p, int n) { return p.number < n; });
        plan->chosen.push_back(&*it);
        plan->total += it->size;
    }
    orbs3_multipart_etag(plan->chosen, plan->etag);
    // The parts stay known, for GetObject ?partNumber.
    plan->parts_text = orbs3_multipart_parts_text(plan->chosen);
    if (!orbs3_multipart_object_checksum(h.up, plan->chosen, &plan->checksum_algorithm, plan->checksum,
                                         &plan->part_checksums)) {
        plan->checksum_algorithm.clear();
        plan->part_checksums.clear();
        plan->checksum[0] = '\0';
    }
    return 0;
}

int orbs3_multipart_assemble(const char* staging, const char* data_dir, const orbs3_multipart_plan_t& plan,
                             orbs3_temp_file* tmp)
{
    if (tmp->open(data_dir) < 0) {
        ipd_log(LOG_ERR, "temporary file in %s: %s", data_dir, std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    for (const orbs3_multipart_part_t* p : plan.chosen) {
        char path[ORBS3_PATH_AREA];
        std::snprintf(path, sizeof path, "%s/%d", staging, p->number);
        orbs3_fd in(open(path, O_RDONLY | O_CLOEXEC));
        if (in.get() < 0 || orbs3_copy_range(in.get(), tmp->fd, 0, p->size) != 0) {
            ipd_log(LOG_ERR, "part %s not copied: %s", path, std::strerror(errno));
            return ORBS3_S3_INTERNAL_ERROR;
        }
    }
    if (fsync(tmp->fd) != 0) {
        ipd_log(LOG_ERR, "fsync %s failed: %s", tmp->path, std::strerror(errno));
        return ORBS3_S3_INTERNAL_ERROR;
    }
    return 0;
}

namespace {

// The uploads of the bucket whose keys start with `prefix`, by key, then by upload id: the id marker of a
// page then stays a place in the order even when that upload has ended meanwhile.
std::vector<orbs3_multipart_upload_t> uploads_under(const orbs3_bucket_t* bucket, std::string_view prefix)
{
    std::vector<orbs3_multipart_upload_t> ups;
    const std::string index_dir = orbs3_multipart_index_dir(bucket);
    if (neo_dir_ptr dir{opendir(index_dir.c_str())}) {
        while (dirent* e = readdir(dir.get())) {
            if (!orbs3_multipart_valid_id(e->d_name))
                continue;
            std::string text;
            orbs3_multipart_upload_t up;
            if (read_record((index_dir + "/" + e->d_name).c_str(), &text) &&
                orbs3_multipart_parse_upload(text, &up) == 0 && up.key.starts_with(prefix))
                ups.push_back(std::move(up));
        }
    }
    std::sort(ups.begin(), ups.end(), [](const auto& a, const auto& x) {
        return a.key != x.key ? a.key < x.key : a.upload_id < x.upload_id;
    });
    return ups;
}

// The common prefix a key is rolled into: up to and with the first delimiter behind the prefix; empty for
// none.
std::string common_prefix(const std::string& key, const orbs3_multipart_list_query_t& q)
{
    const std::size_t at = q.delimiter.empty() ? std::string::npos : key.find(q.delimiter, q.prefix.size());
    return at == std::string::npos ? std::string() : key.substr(0, at + q.delimiter.size());
}

}  // namespace

void orbs3_multipart_list_uploads(const orbs3_bucket_t* bucket, const orbs3_multipart_list_query_t& q,
                                  orbs3_multipart_list_page_t* page)
{
    std::vector<orbs3_multipart_upload_t> ups = uploads_under(bucket, q.prefix);
    int count = 0;
    for (auto& up : ups) {
        if (up.key < q.key_marker)
            continue;
        // Without an id marker every upload of the marker key has been listed; with one, those up to and
        // including it.
        if (up.key == q.key_marker && (q.id_marker.empty() || up.upload_id <= q.id_marker))
            continue;
        std::string common = common_prefix(up.key, q);
        // A prefix is one row however many uploads it holds, and one the marker lies in was listed before.
        if (!common.empty() &&
            ((!page->prefixes.empty() && common == page->prefixes.back()) ||
             (!q.key_marker.empty() && q.key_marker.starts_with(common))))
            continue;
        if (count == q.max) {
            page->truncated = true;
            break;
        }
        count++;
        if (!common.empty()) {
            page->next_key = common;
            page->next_id.clear();
            page->prefixes.push_back(std::move(common));
            continue;
        }
        page->next_key = up.key;
        page->next_id = up.upload_id;
        page->uploads.push_back(std::move(up));
    }
}

void orbs3_multipart_part_page(std::vector<orbs3_multipart_part_t>* parts, int marker, int max, bool* truncated)
{
    auto first = std::find_if(parts->begin(), parts->end(),
                              [&](const orbs3_multipart_part_t& p) { return p.number > marker; });
    parts->erase(parts->begin(), first);
    *truncated = parts->size() > static_cast<std::size_t>(max);
    if (*truncated)
        parts->resize(static_cast<std::size_t>(max));
}
