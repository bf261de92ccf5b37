// PutObject. The body goes into a temporary file in the key's own directory, its MD5 (and, when the
// request signs its payload, its SHA-256) taken as the bytes pass; only a body that is whole and
// verified is renamed over the object, and its record follows. A reader meets the old object or the new
// one, never a mix; a client that goes away, or a crash, leaves the old object as it was.
#include <fcntl.h>
#include <pthread.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "access/orbs3_access_check.h"
#include "control/orbs3_service.h"
#include "core/orbs3_log.h"
#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_request_body.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_files.h"
#include "memory/neo_md5.h"
#include "memory/neo_string.h"
#include "core/orbs3_config.h"
#include "s3/orbs3_s3_aws_chunked.h"
#include "s3/orbs3_s3_dispatch.h"
#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_sign_parts.h"
#include "s3/orbs3_s3_signature.h"
#include "storage/orbs3_bucket_ops.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_checksum.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"
#include "storage/orbs3_record.h"

namespace {

// Body bytes move through one buffer of this size, whatever the object's size.
constexpr std::size_t kPutBuffer = 256 * 1024;
// Every this many bytes written, the kernel is asked to start writing them out, so that the flush of
// the commit finds little left to do instead of the whole object.
constexpr int64_t kWritebackStep = 8 << 20;

// The digests of a large upload run on a thread of their own while the epoll thread goes on reading the
// socket and writing the file: two buffers take turns, one being digested while the other fills. The
// epoll thread waits only when it wants a buffer whose digest has not finished, at most the time of one
// buffer's MD5.
constexpr int64_t kDigestThreadFrom = 8 << 20;  // bodies at least this long get the thread

struct digest_worker_t {
    pthread_t thread{};
    bool started = false;
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    const uint8_t* data[2] = {};
    std::size_t len[2] = {};
    bool full[2] = {false, false};
    int next = 0;  // the slot the thread digests next
    bool stop = false;
    neo_md5_t* md5 = nullptr;
    orbs3_checksum_t* checksum = nullptr;

    static void* run(void* arg)
    {
        auto* w = static_cast<digest_worker_t*>(arg);
        pthread_mutex_lock(&w->lock);
        for (;;) {
            while (!w->full[w->next] && !w->stop)
                pthread_cond_wait(&w->cond, &w->lock);
            if (!w->full[w->next])
                break;
            const int slot = w->next;
            pthread_mutex_unlock(&w->lock);
            (void)neo_md5_update(w->md5, w->data[slot], w->len[slot]);
            if (w->checksum != nullptr && w->checksum->alg != orbs3_checksum_alg::none)
                orbs3_checksum_update(w->checksum, w->data[slot], w->len[slot]);
            pthread_mutex_lock(&w->lock);
            w->full[slot] = false;
            w->next = slot ^ 1;
            pthread_cond_broadcast(&w->cond);
        }
        pthread_mutex_unlock(&w->lock);
        return nullptr;
    }

    bool start()
    {
        started = pthread_create(&thread, nullptr, run, this) == 0;
        return started;
    }
    // Waits until the buffer of `slot` may be filled again.
    void wait_free(int slot)
    {
        pthread_mutex_lock(&lock);
        while (full[slot])
            pthread_cond_wait(&cond, &lock);
        pthread_mutex_unlock(&lock);
    }
    void submit(int slot, const uint8_t* p, std::size_t n)
    {
        pthread_mutex_lock(&lock);
        while (full[slot])
            pthread_cond_wait(&cond, &lock);
        data[slot] = p;
        len[slot] = n;
        full[slot] = true;
        pthread_cond_broadcast(&cond);
        pthread_mutex_unlock(&lock);
    }
    // Every buffer handed over has been digested.
    void drain()
    {
        pthread_mutex_lock(&lock);
        while (full[0] || full[1])
            pthread_cond_wait(&cond, &lock);
        pthread_mutex_unlock(&lock);
    }

    digest_worker_t() = default;
    ~digest_worker_t()
    {
        if (started) {
            pthread_mutex_lock(&lock);
            stop = true;
            pthread_cond_broadcast(&cond);
            pthread_mutex_unlock(&lock);
            pthread_join(thread, nullptr);
        }
        pthread_cond_destroy(&cond);
        pthread_mutex_destroy(&lock);
    }
    digest_worker_t(const digest_worker_t&) = delete;
    digest_worker_t& operator=(const digest_worker_t&) = delete;
};

// Everything a PUT keeps between read events. Made with pool_new: when the request goes, by whatever
// path, the destructor removes a temporary file that was never committed and frees the bucket.
struct put_state_t {
    orbs3_upload_file_t file{};  // the temporary file: path, size, running MD5
    orbs3_bucket_t* bucket = nullptr;
    std::string_view key;
    char final_path[ORBS3_PATH_AREA] = "";
    char meta_path[ORBS3_PATH_AREA] = "";
    bool committed = false;
    bool want_md5 = false;
    uint8_t md5_expected[NEO_MD5_LEN] = {};
    evp_md_ctx_ptr sha256;  // set when the payload's SHA-256 is signed
    uint8_t sha256_expected[32] = {};
    int64_t limit = -1;  // file_threshold in bytes; -1 none
    orbs3_object_meta_t meta;
    uint8_t* buf = nullptr;  // bytes as read from the body
    // A large plain body: the digest thread, and the second buffer it takes turns with.
    digest_worker_t* digest = nullptr;
    uint8_t* bufs[2] = {};
    int turn = 0;
    // An aws-chunked body: decoded from buf into out, which is what the object holds.
    bool chunked = false;
    orbs3_aws_chunked_t aws;
    uint8_t* out = nullptr;
    // An additional checksum, sent as a header or announced for the trailer of an aws-chunked body.
    orbs3_checksum_t checksum;
    char checksum_sent[ORBS3_CHECKSUM_BASE64_MAX + 1] = "";  // empty: it comes in the trailer
    char checksum_value[ORBS3_CHECKSUM_BASE64_MAX + 1] = "";

    put_state_t() { file.fd = -1; }
    ~put_state_t()
    {
        // The thread stops before anything it reads goes.
        if (digest != nullptr)
            digest->~digest_worker_t();
        if (file.fd >= 0)
            close(file.fd);
        if (!committed && file.path[0] != '\0')
            unlink(file.path);
        orbs3_free_bucket(bucket);
    }
    put_state_t(const put_state_t&) = delete;
    put_state_t& operator=(const put_state_t&) = delete;
};

int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// 64 hexadecimal digits into 32 bytes; false for anything else (UNSIGNED-PAYLOAD, STREAMING-...).
bool parse_sha256_hex(std::string_view text, uint8_t out[32])
{
    if (text.size() != 64)
        return false;
    for (std::size_t i = 0; i < 32; i++) {
        int hi = hex_value(text[2 * i]), lo = hex_value(text[2 * i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return true;
}

// Content-MD5: the base64 of 16 bytes, nothing else.
bool parse_content_md5(std::string_view text, uint8_t out[NEO_MD5_LEN])
{
    if (text.size() != 24 || text[22] != '=' || text[23] != '=')
        return false;
    uint8_t raw[18];
    if (EVP_DecodeBlock(raw, reinterpret_cast<const unsigned char*>(text.data()), 24) != 18)
        return false;
    std::memcpy(out, raw, NEO_MD5_LEN);
    return true;
}

void put_again(orbs3_event_t* ev);

// The algorithm's name as S3 writes it in x-amz-checksum-algorithm.
std::string_view checksum_word(orbs3_checksum_alg alg)
{
    switch (alg) {
    case orbs3_checksum_alg::crc32:
        return "CRC32";
    case orbs3_checksum_alg::crc32c:
        return "CRC32C";
    case orbs3_checksum_alg::sha1:
        return "SHA1";
    case orbs3_checksum_alg::sha256:
        return "SHA256";
    default:
        return {};
    }
}


// Appends object bytes to the temporary file and to the digests. 0 or a status.
int store(put_state_t* st, const uint8_t* p, std::size_t n)
{
    orbs3_upload_file_t* file = &st->file;
    if (st->limit >= 0 && file->size + static_cast<int64_t>(n) > st->limit)
        return static_cast<int>(ORBS3_S3_ENTITY_TOO_LARGE);
    if (st->digest == nullptr) {
        (void)neo_md5_update(&file->md5, p, n);
        if (st->checksum.alg != orbs3_checksum_alg::none)
            orbs3_checksum_update(&st->checksum, p, n);
    }
    const int64_t before = file->size;
    file->size += static_cast<int64_t>(n);
    if (before / kWritebackStep != file->size / kWritebackStep)
        (void)sync_file_range(file->fd, 0, 0, SYNC_FILE_RANGE_WRITE);
    while (n > 0) {
        ssize_t w = write(file->fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0) {
            ipd_log(LOG_ERR, "write %s failed: %s", file->path, std::strerror(errno));
            return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
        }
        p += w;
        n -= static_cast<std::size_t>(w);
    }
    return 0;
}

// The aws-chunked framing of `n` bytes of buf taken off; the object's bytes stored.
int decode_and_store(put_state_t* st, std::size_t n)
{
    std::size_t at = 0;
    for (;;) {
        std::size_t consumed = 0, produced = 0;
        int rc = orbs3_aws_chunked_decode(&st->aws, st->buf + at, n - at, st->out, kPutBuffer, &consumed, &produced);
        at += consumed;
        if (produced != 0) {
            if (int status = store(st, st->out, produced); status != 0)
                return status;
        }
        if (rc == ORBS3_AWS_CHUNKED_BAD_SIGNATURE)
            return static_cast<int>(ORBS3_S3_SIGNATURE_DOES_NOT_MATCH);
        if (rc < 0)
            return static_cast<int>(ORBS3_S3_INCOMPLETE_BODY);
        // Bytes behind the framing's end are no part of an object.
        if (rc == ORBS3_AWS_CHUNKED_DONE)
            return at == n ? 0 : static_cast<int>(ORBS3_S3_INCOMPLETE_BODY);
        if (at == n)
            return 0;
    }
}

// The value of the additional checksum: the one sent, in the header or the trailer, must be the one
// computed. 0 or a status.
int check_checksum(put_state_t* st)
{
    if (st->checksum.alg == orbs3_checksum_alg::none)
        return 0;
    std::string_view sent = st->checksum_sent;
    std::string_view name, value;
    if (st->chunked && orbs3_aws_chunked_checksum(&st->aws, &name, &value)) {
        if (orbs3_checksum_alg_of_header(name) != st->checksum.alg)
            return static_cast<int>(ORBS3_S3_INVALID_REQUEST);
        sent = value;
    }
    if (orbs3_checksum_final_base64(&st->checksum, st->checksum_value, sizeof st->checksum_value) == 0)
        return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
    if (sent.empty())
        return static_cast<int>(ORBS3_S3_INVALID_REQUEST);
    return sent == st->checksum_value ? 0 : static_cast<int>(ORBS3_S3_CHECKSUM_MISMATCH);
}

// The commit: the whole body is in the temporary file and matched every digest the request named.
int commit(orbs3_http_request_t* r, put_state_t* st)
{
    const char* tmp = st->file.path;
    int fd = open(tmp, O_WRONLY | O_CLOEXEC);
    // An acknowledged object survives a power failure: its bytes reach the disk before it replaces the
    // old one.
    if (fd < 0 || fsync(fd) != 0) {
        ipd_log(LOG_ERR, "fsync %s failed: %s", tmp, std::strerror(errno));
        if (fd >= 0)
            close(fd);
        return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
    }
    close(fd);
    if (rename(tmp, st->final_path) != 0) {
        ipd_log(LOG_ERR, "rename %s to %s failed: %s", tmp, st->final_path, std::strerror(errno));
        return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
    }
    st->committed = true;

    char stamp[64];
    get_gmt_meta_time(stamp, sizeof stamp);
    if (st->checksum.alg != orbs3_checksum_alg::none) {
        st->meta.checksum_algorithm = checksum_word(st->checksum.alg);
        st->meta.checksum = st->checksum_value;
    }
    if (orbs3_object_write_record(r, st->key, st->meta_path, st->final_path, st->file.etag, st->file.size, stamp,
                                  &st->meta) != 0)
        ipd_log(LOG_ERR, "record %s not written: the object is served without it", st->meta_path);
    orbs3_object_count_in_bucket(st->bucket, 1, st->file.size);
    r->vhost->object_count.fetch_add(1);
    char etag[40];
    std::snprintf(etag, sizeof etag, "\"%s\"", st->file.etag);
    return orbs3_http_send_put_object_msg(r->connection, 200, etag, r->resp.connection, r->resp.origin) == 0 ? 0
                                                                                                              : -1;
}

// One pass of the body: from the socket into the temporary file until the socket runs dry or the body
// ends. The status to answer, 0 once answered, -2 while waiting, ORBS3_HTTP_CLOSED when nobody is left.
int put_pass_body(orbs3_http_request_t* r, put_state_t* st)
{
    orbs3_upload_file_t* file = &st->file;
    // The file is opened for each pass and closed at each pause: a slow client holds no descriptor.
    file->fd = open(file->path, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (file->fd < 0) {
        ipd_log(LOG_ERR, "open %s failed: %s", file->path, std::strerror(errno));
        return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
    }
    for (;;) {
        if (st->digest != nullptr) {
            st->digest->wait_free(st->turn);
            st->buf = st->bufs[st->turn];
        }
        ssize_t n = orbs3_http_read_body(r, st->buf, kPutBuffer);
        if (n > 0) {
            // The payload hash covers the bytes as sent; everything else covers the object's bytes.
            if (st->sha256)
                (void)EVP_DigestUpdate(st->sha256.get(), st->buf, static_cast<std::size_t>(n));
            int status = st->chunked ? decode_and_store(st, static_cast<std::size_t>(n))
                                     : store(st, st->buf, static_cast<std::size_t>(n));
            if (status != 0) {
                close(file->fd);
                file->fd = -1;
                return status;
            }
            if (st->digest != nullptr) {
                st->digest->submit(st->turn, st->buf, static_cast<std::size_t>(n));
                st->turn ^= 1;
            }
            continue;
        }
        close(file->fd);
        file->fd = -1;
        if (n == ORBS3_AGAIN) {
            if (orbs3_http_wait_read(r->connection, put_again) != 0) {
                orbs3_http_close_request_and_connection(r);
                return ORBS3_HTTP_CLOSED;
            }
            return ORBS3_AGAIN;
        }
        if (n == ORBS3_HTTP_BODY_INVALID)
            return static_cast<int>(ORBS3_S3_INCOMPLETE_BODY);
        if (n != 0) {
            // The client went away or the socket failed: nobody to answer, nothing committed.
            ipd_log(LOG_INFO, "PutObject %.*s: body ended after %lld bytes, nothing stored",
                    static_cast<int>(r->uri.len), r->uri.data, static_cast<long long>(file->size));
            orbs3_http_close_request_and_connection(r);
            return ORBS3_HTTP_CLOSED;
        }
        break;
    }

    if (st->digest != nullptr)
        st->digest->drain();
    uint8_t md5[NEO_MD5_LEN];
    if (neo_md5_final(md5, &file->md5) != 0)
        return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
    *neo_hex(file->etag, md5, sizeof md5) = '\0';
    if (st->want_md5 && std::memcmp(md5, st->md5_expected, sizeof md5) != 0)
        return static_cast<int>(ORBS3_S3_BAD_DIGEST);
    if (st->chunked && st->aws.result != ORBS3_AWS_CHUNKED_DONE)
        return static_cast<int>(ORBS3_S3_INCOMPLETE_BODY);
    if (int status = check_checksum(st); status != 0)
        return status;
    if (st->sha256) {
        uint8_t sha[32];
        unsigned len = 0;
        if (EVP_DigestFinal_ex(st->sha256.get(), sha, &len) != 1 || len != sizeof sha)
            return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
        if (std::memcmp(sha, st->sha256_expected, sizeof sha) != 0)
            return static_cast<int>(ORBS3_S3_SHA256_MISMATCH);
    }
    return commit(r, st);
}

// A refused upload gives its temporary file up at once: the request itself may live on a while (its
// connection drains the rest of the body before it closes).
int put_pass(orbs3_http_request_t* r, put_state_t* st)
{
    int status = put_pass_body(r, st);
    if (status > 0 && !st->committed && st->file.path[0] != '\0') {
        unlink(st->file.path);
        st->file.path[0] = '\0';
    }
    return status;
}

void put_again(orbs3_event_t* ev)
{
    orbs3_http_request_t* r = orbs3_http_read_event_request(ev, "the body");
    if (r == nullptr)
        return;
    auto* st = static_cast<put_state_t*>(r->op_state);
    int status = put_pass(r, st);
    if (status == ORBS3_AGAIN || status == ORBS3_HTTP_CLOSED)
        return;
    if (status > 0 && orbs3_s3_send_error(r, status) == -1) {
        orbs3_http_close_request_and_connection(r);
        return;
    }
    if (status == -1) {
        orbs3_http_close_request_and_connection(r);
        return;
    }
    (void)orbs3_http_destory_thread_handler(ev);
}

// A key ending in "/": directories in the data and meta trees, no record, no data. A body that comes
// with it is read and dropped.
int put_directory_object(orbs3_http_request_t* r, orbs3_bucket_t* bucket, std::string_view key)
{
    orbs3_object_path_t path;
    if (orbs3_make_object_path(bucket, key, "", &path) != 0)
        return static_cast<int>(ORBS3_S3_KEY_TOO_LONG);
    if (neo_mkdir_p(path.data_path, ORBS3_DIR_MODE) != 0 || neo_mkdir_p(path.meta_path, ORBS3_DIR_MODE) != 0 ||
        (bucket->versioning.status == 1 && neo_mkdir_p(path.version_path, ORBS3_DIR_MODE) != 0))
        return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
    char etag[33], quoted[40];
    Compute_file_md5(key, 0, "", etag);
    std::snprintf(quoted, sizeof quoted, "\"%s\"", etag);
    return orbs3_http_send_put_object_msg(r->connection, 200, quoted, r->resp.connection, r->resp.origin) == 0 ? 0
                                                                                                                : -1;
}

bool parse_length(std::string_view text, int64_t* out)
{
    if (text.empty() || text.size() > 18)
        return false;
    int64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + (c - '0');
    }
    *out = v;
    return true;
}

// The text behind `name` in an Authorization value, up to the next ',' ("Signature=" → the signature).
std::string_view auth_field(std::string_view auth, std::string_view name)
{
    std::size_t at = auth.find(name);
    if (at == std::string_view::npos)
        return {};
    std::string_view rest = auth.substr(at + name.size());
    return orbs3_sign_trim(rest.substr(0, rest.find(',')));
}

// An aws-chunked body: its framing is taken off as it arrives, and with signatures verified each chunk's
// signature is checked against the chain that starts at the request's own signature.
int init_aws_chunked(orbs3_http_request_t* r, put_state_t* st)
{
    std::string_view value, date, announced;
    int mode = orbs3_sign_find_header(r, "x-amz-content-sha256", &value) ? orbs3_aws_chunked_mode(value) : -1;
    if (mode < 0) {
        r->resp.message = "This payload signing method is not supported; send the body with a plain payload hash "
                          "or as STREAMING-AWS4-HMAC-SHA256-PAYLOAD or STREAMING-UNSIGNED-PAYLOAD-TRAILER.";
        return static_cast<int>(ORBS3_S3_NOT_IMPLEMENTED);
    }
    int64_t decoded = -1;
    if (orbs3_sign_find_header(r, "x-amz-decoded-content-length", &value) && !parse_length(value, &decoded))
        return static_cast<int>(ORBS3_S3_INVALID_ARGUMENT);
    (void)orbs3_sign_find_header(r, "x-amz-trailer", &announced);
    uint8_t key[ORBS3_SHA256_LEN] = {};
    std::string_view seed, scope;
    if ((mode & ORBS3_AWS_CHUNKED_SIGNED) && orbs3_conf.verify_signatures) {
        std::string_view auth;
        (void)orbs3_sign_find_header(r, "authorization", &auth);
        std::string_view credential = auth_field(auth, "Credential=");
        seed = auth_field(auth, "Signature=");
        std::size_t slash = credential.find('/');
        if (slash == std::string_view::npos || !orbs3_sign_find_header(r, "x-amz-date", &date))
            return static_cast<int>(ORBS3_S3_AUTH_HEADER_MALFORMED);
        scope = credential.substr(slash + 1);
        char key_id[ORBS3_ACCESS_KEY_ID_LEN];
        std::string_view id = credential.substr(0, slash);
        if (id.size() >= sizeof key_id)
            return static_cast<int>(ORBS3_S3_AUTH_HEADER_MALFORMED);
        const char* secret = orbs3_s3_user_secret(r->user, id);
        if (secret == nullptr || orbs3_get_signkey(ORBS3_SIGN_AWS4, secret, scope, key) != 0)
            return static_cast<int>(ORBS3_S3_SIGNATURE_DOES_NOT_MATCH);
    } else {
        // Nobody checks signatures on this node: the chunks' signatures are framing only.
        mode &= ~static_cast<int>(ORBS3_AWS_CHUNKED_SIGNED);
    }
    if (orbs3_aws_chunked_init(&st->aws, static_cast<unsigned>(mode), key, seed, date, scope, decoded, announced) != 0)
        return static_cast<int>(ORBS3_S3_AUTH_HEADER_MALFORMED);
    st->chunked = true;
    return 0;
}

// The additional checksum the request names: a value in an x-amz-checksum-* header, or an algorithm
// announced for the trailer of an aws-chunked body.
int init_checksum(orbs3_http_request_t* r, put_state_t* st)
{
    orbs3_checksum_alg alg = orbs3_checksum_alg::none;
    std::string_view value;
    for (orbs3_checksum_alg a : {orbs3_checksum_alg::crc32, orbs3_checksum_alg::crc32c, orbs3_checksum_alg::sha1,
                                 orbs3_checksum_alg::sha256}) {
        if (orbs3_sign_find_header(r, orbs3_checksum_header_name(a), &value)) {
            if (alg != orbs3_checksum_alg::none || value.empty() || value.size() > ORBS3_CHECKSUM_BASE64_MAX)
                return static_cast<int>(ORBS3_S3_INVALID_REQUEST);
            alg = a;
            std::memcpy(st->checksum_sent, value.data(), value.size());
            st->checksum_sent[value.size()] = '\0';
        }
    }
    if (alg == orbs3_checksum_alg::none && st->chunked && orbs3_sign_find_header(r, "x-amz-trailer", &value))
        alg = orbs3_checksum_alg_of_header(value);
    if (alg == orbs3_checksum_alg::none)
        return 0;
    return orbs3_checksum_init(&st->checksum, alg) == 0 ? 0 : static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
}

// The same once a body that came with it has been read.
int put_directory_object_after_drain(orbs3_http_request_t* r)
{
    orbs3_bucket_t* b = nullptr;
    std::string_view key;
    int rc = orbs3_object_request_bucket(r, ORBS3_ACCESS_WRITE, &b, &key);
    if (rc != 0)
        return rc;
    rc = put_directory_object(r, b, key);
    orbs3_free_bucket(b);
    return rc;
}

}  // namespace

int orbs3_put_object(orbs3_http_request_t* r)
{
    orbs3_bucket_t* raw = nullptr;
    std::string_view key;
    int rc = orbs3_object_request_bucket(r, ORBS3_ACCESS_WRITE, &raw, &key);
    if (rc != 0)
        return rc;
    auto* st = pool_new<put_state_t>(r->pool);
    if (st == nullptr) {
        orbs3_free_bucket(raw);
        return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
    }
    st->bucket = raw;
    st->key = key;
    std::string_view value;

    // Without a length and without chunked framing the end of the body can't be known.
    if (r->headers_in.content_length == nullptr && !r->headers_in.chunked)
        return static_cast<int>(ORBS3_S3_MISSING_CONTENT_LENGTH);
    // The length of the object: for an aws-chunked body the decoded length, which is checked as it decodes.
    int64_t length = r->content_length;
    if (orbs3_sign_find_header(r, "x-amz-decoded-content-length", &value) && !parse_length(value, &length))
        return static_cast<int>(ORBS3_S3_INVALID_ARGUMENT);
    if (length >= 0 && orbs3_check_object_size(r->vhost, raw, length) != 0)
        return static_cast<int>(ORBS3_S3_ENTITY_TOO_LARGE);
    st->limit = orbs3_object_size_limit(r->vhost, raw);

    if (orbs3_sign_find_header(r, "content-md5", &value)) {
        if (!parse_content_md5(value, st->md5_expected))
            return static_cast<int>(ORBS3_S3_INVALID_DIGEST);
        st->want_md5 = true;
    }
    if (orbs3_sign_find_header(r, "x-amz-content-sha256", &value) &&
        parse_sha256_hex(value, st->sha256_expected)) {
        st->sha256 = evp_md_ctx_new();
        if (!st->sha256 || EVP_DigestInit_ex(st->sha256.get(), EVP_sha256(), nullptr) != 1)
            return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
    }
    rc = orbs3_object_meta_from_request(r, &st->meta);
    if (rc != 0)
        return rc;
    if (orbs3_s3_streaming_payload(r)) {
        rc = init_aws_chunked(r, st);
        if (rc != 0)
            return rc;
    }
    rc = init_checksum(r, st);
    if (rc != 0)
        return rc;

    if (key.back() == '/') {
        if (orbs3_http_has_body(r) && !orbs3_http_body_consumed(r))
            return orbs3_s3_drain_then(r, put_directory_object_after_drain);
        return put_directory_object(r, raw, key);
    }

    rc = orbs3_check_key_conflict(raw, key);
    if (rc == ORBS3_KEY_CONFLICT_FILE || rc == ORBS3_KEY_CONFLICT_DIR)
        return static_cast<int>(ORBS3_S3_KEY_CONFLICT);
    if (rc != 0)
        return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);

    orbs3_object_path_t path;
    if (orbs3_make_object_path(raw, key, "", &path) != 0)
        return static_cast<int>(ORBS3_S3_KEY_TOO_LONG);
    if (orbs3_make_dir_by_name(key, path.data_path) != 0 || orbs3_make_dir_by_name(key, path.recycle_path) != 0 ||
        (raw->versioning.status == 1 && orbs3_make_dir_by_name(key, path.version_path) != 0))
        return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
    std::snprintf(st->final_path, sizeof st->final_path, "%s", path.data_path);
    std::snprintf(st->meta_path, sizeof st->meta_path, "%s", path.meta_path);

    // The temporary file lies beside the object, on the same file system, so the commit is one rename.
    char uuid[ORBS3_UUID_HEX_LEN + 1];
    orbs3_get_uuid_ex(uuid);
    std::string_view dir(path.data_path);
    dir = dir.substr(0, dir.rfind('/') + 1);
    int n = std::snprintf(st->file.path, sizeof st->file.path, "%.*s%.*s%s", static_cast<int>(dir.size()),
                          dir.data(), static_cast<int>(ORBS3_RECORD_TMP_PREFIX.size()),
                          ORBS3_RECORD_TMP_PREFIX.data(), uuid);
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof st->file.path) {
        st->file.path[0] = '\0';
        return static_cast<int>(ORBS3_S3_KEY_TOO_LONG);
    }
    int fd = open(st->file.path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        ipd_log(LOG_ERR, "create %s failed: %s", st->file.path, std::strerror(errno));
        st->file.path[0] = '\0';
        return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
    }
    close(fd);
    st->buf = static_cast<uint8_t*>(orbs3_pnalloc(r->pool, kPutBuffer));
    if (st->chunked)
        st->out = static_cast<uint8_t*>(orbs3_pnalloc(r->pool, kPutBuffer));
    if (st->buf == nullptr || (st->chunked && st->out == nullptr) || neo_md5_init(&st->file.md5) != 0)
        return static_cast<int>(ORBS3_S3_INTERNAL_ERROR);
    // A large plain body: its digests go to a thread of their own. Without one, they stay here.
    if (!st->chunked && r->content_length >= kDigestThreadFrom) {
        auto* second = static_cast<uint8_t*>(orbs3_pnalloc(r->pool, kPutBuffer));
        void* mem = orbs3_palloc(r->pool, sizeof(digest_worker_t));
        if (second != nullptr && mem != nullptr) {
            auto* w = ::new (mem) digest_worker_t();
            w->md5 = &st->file.md5;
            w->checksum = &st->checksum;
            if (w->start()) {
                st->digest = w;
                st->bufs[0] = st->buf;
                st->bufs[1] = second;
            } else {
                w->~digest_worker_t();
            }
        }
    }
    r->op_state = st;
    return put_pass(r, st);
}
