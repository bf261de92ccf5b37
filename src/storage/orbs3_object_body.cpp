#include "storage/orbs3_object_body.h"

#include <fcntl.h>
#include <pthread.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>

#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "http/orbs3_http_header.h"
#include "http/orbs3_http_parse.h"
#include "http/orbs3_http_response.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_dispatch.h"
#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_signature.h"

namespace {

// Body bytes move through one buffer of this size, whatever the object's size.
constexpr std::size_t kBodyBuffer = 256 * 1024;
// Every this many bytes written, the kernel is asked to start writing them out, so that the flush of
// the commit finds little left to do instead of the whole object.
constexpr int64_t kWritebackStep = 8 << 20;
// Bodies at least this long get the digest thread.
constexpr int64_t kDigestThreadFrom = 8 << 20;

}  // namespace

// The digests of a large body run on a thread of their own while the epoll thread goes on reading the
// socket and writing the file: two buffers take turns, one being digested while the other fills. The
// epoll thread waits only when it wants a buffer whose digest has not finished, at most the time of one
// buffer's MD5.
struct orbs3_body_digest_t {
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
        auto* w = static_cast<orbs3_body_digest_t*>(arg);
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

    orbs3_body_digest_t() = default;
    ~orbs3_body_digest_t()
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
    orbs3_body_digest_t(const orbs3_body_digest_t&) = delete;
    orbs3_body_digest_t& operator=(const orbs3_body_digest_t&) = delete;
};

orbs3_object_body_t::~orbs3_object_body_t()
{
    // The thread stops before anything it reads goes.
    if (digest != nullptr)
        digest->~orbs3_body_digest_t();
    if (file.fd >= 0)
        close(file.fd);
    if (!committed && file.path[0] != '\0')
        unlink(file.path);
}

namespace {

void body_again(orbs3_event_t* ev);

// Appends object bytes to the temporary file and to the digests. 0 or a status.
int store(orbs3_object_body_t* st, const uint8_t* p, std::size_t n)
{
    orbs3_upload_file_t* file = &st->file;
    if (st->limit >= 0 && file->size + static_cast<int64_t>(n) > st->limit)
        return ORBS3_S3_ENTITY_TOO_LARGE;
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
            return ORBS3_S3_INTERNAL_ERROR;
        }
        p += w;
        n -= static_cast<std::size_t>(w);
    }
    return 0;
}

// The aws-chunked framing of `n` bytes of buf taken off; the object's bytes stored.
int decode_and_store(orbs3_object_body_t* st, std::size_t n)
{
    std::size_t at = 0;
    for (;;) {
        std::size_t consumed = 0, produced = 0;
        int rc = orbs3_aws_chunked_decode(&st->aws, st->buf + at, n - at, st->out, kBodyBuffer, &consumed, &produced);
        at += consumed;
        if (produced != 0) {
            if (int status = store(st, st->out, produced); status != 0)
                return status;
        }
        if (rc == ORBS3_AWS_CHUNKED_BAD_SIGNATURE)
            return ORBS3_S3_SIGNATURE_DOES_NOT_MATCH;
        if (rc < 0)
            return ORBS3_S3_INCOMPLETE_BODY;
        // Bytes behind the framing's end are no part of an object.
        if (rc == ORBS3_AWS_CHUNKED_DONE)
            return at == n ? 0 : ORBS3_S3_INCOMPLETE_BODY;
        if (at == n)
            return 0;
    }
}

// The value of the additional checksum: the one sent, in the header or the trailer, must be the one
// computed. 0 or a status.
int check_checksum(orbs3_http_request_t* r, orbs3_object_body_t* st)
{
    if (st->checksum.alg == orbs3_checksum_alg::none)
        return 0;
    std::string_view sent = st->checksum_sent;
    std::string_view name, value;
    if (st->chunked && orbs3_aws_chunked_checksum(&st->aws, &name, &value)) {
        if (orbs3_checksum_alg_of_header(name) != st->checksum.alg)
            return ORBS3_S3_INVALID_REQUEST;
        sent = value;
    }
    if (orbs3_checksum_final_base64(&st->checksum, st->checksum_value, sizeof st->checksum_value) == 0)
        return ORBS3_S3_INTERNAL_ERROR;
    if (sent.empty())
        return st->checksum_own ? 0 : ORBS3_S3_INVALID_REQUEST;
    if (sent == st->checksum_value)
        return 0;
    r->resp.message = orbs3_checksum_mismatch_message(st->checksum.alg);
    return ORBS3_S3_CHECKSUM_MISMATCH;
}

// The whole body is in the temporary file: every digest the request named must match it. 0 or a status.
int verify_body(orbs3_http_request_t* r, orbs3_object_body_t* st)
{
    orbs3_upload_file_t* file = &st->file;
    if (st->digest != nullptr)
        st->digest->drain();
    if (neo_md5_final(st->md5, &file->md5) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    *neo_hex(file->etag, st->md5, sizeof st->md5) = '\0';
    if (st->want_md5 && std::memcmp(st->md5, st->md5_expected, sizeof st->md5) != 0)
        return ORBS3_S3_BAD_DIGEST;
    if (st->chunked && st->aws.result != ORBS3_AWS_CHUNKED_DONE)
        return ORBS3_S3_INCOMPLETE_BODY;
    if (int status = check_checksum(r, st); status != 0)
        return status;
    if (st->sha256) {
        uint8_t sha[32];
        unsigned len = 0;
        if (EVP_DigestFinal_ex(st->sha256.get(), sha, &len) != 1 || len != sizeof sha)
            return ORBS3_S3_INTERNAL_ERROR;
        if (std::memcmp(sha, st->sha256_expected, sizeof sha) != 0)
            return ORBS3_S3_SHA256_MISMATCH;
    }
    return 0;
}

// One pass of the body: from the socket into the temporary file until the socket runs dry or the body
// ends. The status to answer, 0 once answered, -2 while waiting, ORBS3_HTTP_CLOSED when nobody is left.
int pass_body(orbs3_http_request_t* r, orbs3_object_body_t* st)
{
    orbs3_upload_file_t* file = &st->file;
    // The file is opened for each pass and closed at each pause: a slow client holds no descriptor.
    file->fd = open(file->path, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (file->fd < 0) {
        const int err = errno;
        ipd_log(LOG_ERR, "open %s failed: %s", file->path, std::strerror(err));
        return err == ENOENT ? st->vanished : ORBS3_S3_INTERNAL_ERROR;
    }
    for (;;) {
        if (st->digest != nullptr) {
            st->digest->wait_free(st->turn);
            st->buf = st->bufs[st->turn];
        }
        ssize_t n = orbs3_http_read_body(r, st->buf, kBodyBuffer);
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
            if (orbs3_http_wait_read(r->connection, body_again) != 0) {
                orbs3_http_close_request_and_connection(r);
                return ORBS3_HTTP_CLOSED;
            }
            return ORBS3_AGAIN;
        }
        if (n == ORBS3_HTTP_BODY_INVALID)
            return ORBS3_S3_INCOMPLETE_BODY;
        if (n != 0) {
            // The client went away or the socket failed: nobody to answer, nothing committed.
            ipd_log(LOG_INFO, "%s %.*s: body ended after %lld bytes, nothing stored", st->action,
                    static_cast<int>(r->uri.len), r->uri.data, static_cast<long long>(file->size));
            orbs3_http_close_request_and_connection(r);
            return ORBS3_HTTP_CLOSED;
        }
        break;
    }

    if (int status = verify_body(r, st); status != 0)
        return status;
    return st->done(r, st);
}

// A refused upload gives its temporary file up at once: the request itself may live on a while (its
// connection drains the rest of the body before it closes).
int pass(orbs3_http_request_t* r, orbs3_object_body_t* st)
{
    int status = pass_body(r, st);
    if (status > 0 && !st->committed && st->file.path[0] != '\0') {
        unlink(st->file.path);
        st->file.path[0] = '\0';
    }
    return status;
}

void body_again(orbs3_event_t* ev)
{
    orbs3_http_request_t* r = orbs3_http_read_event_request(ev, "the body");
    if (r == nullptr)
        return;
    auto* st = static_cast<orbs3_object_body_t*>(r->op_state);
    int status = pass(r, st);
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

// The text behind `name` in an Authorization value, up to the next ',' ("Signature=" → the signature).
std::string_view auth_field(std::string_view auth, std::string_view name)
{
    std::size_t at = auth.find(name);
    if (at == std::string_view::npos)
        return {};
    std::string_view rest = auth.substr(at + name.size());
    return orbs3_http_trim(rest.substr(0, rest.find(',')));
}

// An aws-chunked body: its framing is taken off as it arrives, and with signatures verified each chunk's
// signature is checked against the chain that starts at the request's own signature.
int init_aws_chunked(orbs3_http_request_t* r, orbs3_object_body_t* st)
{
    std::string_view value, date, announced;
    int mode = orbs3_http_find_header(r, "x-amz-content-sha256", &value) ? orbs3_aws_chunked_mode(value) : -1;
    if (mode < 0) {
        r->resp.message = "This payload signing method is not supported; send the body with a plain payload hash "
                          "or as STREAMING-AWS4-HMAC-SHA256-PAYLOAD or STREAMING-UNSIGNED-PAYLOAD-TRAILER.";
        return ORBS3_S3_NOT_IMPLEMENTED;
    }
    int64_t decoded = -1;
    if (orbs3_http_find_header(r, "x-amz-decoded-content-length", &value) && !orbs3_parse_length(value, &decoded))
        return ORBS3_S3_INVALID_ARGUMENT;
    (void)orbs3_http_find_header(r, "x-amz-trailer", &announced);
    uint8_t key[ORBS3_SHA256_LEN] = {};
    std::string_view seed, scope;
    if ((mode & ORBS3_AWS_CHUNKED_SIGNED) && orbs3_conf.verify_signatures) {
        std::string_view auth;
        (void)orbs3_http_find_header(r, "authorization", &auth);
        std::string_view credential = auth_field(auth, "Credential=");
        seed = auth_field(auth, "Signature=");
        std::size_t slash = credential.find('/');
        if (slash == std::string_view::npos || !orbs3_http_find_header(r, "x-amz-date", &date))
            return ORBS3_S3_AUTH_HEADER_MALFORMED;
        scope = credential.substr(slash + 1);
        char key_id[ORBS3_ACCESS_KEY_ID_LEN];
        std::string_view id = credential.substr(0, slash);
        if (id.size() >= sizeof key_id)
            return ORBS3_S3_AUTH_HEADER_MALFORMED;
        const char* secret = orbs3_s3_user_secret(r->user, id);
        if (secret == nullptr || orbs3_get_signkey(ORBS3_SIGN_AWS4, secret, scope, key) != 0)
            return ORBS3_S3_SIGNATURE_DOES_NOT_MATCH;
    } else {
        // Nobody checks signatures on this node: the chunks' signatures are framing only.
        mode &= ~static_cast<int>(ORBS3_AWS_CHUNKED_SIGNED);
    }
    if (orbs3_aws_chunked_init(&st->aws, static_cast<unsigned>(mode), key, seed, date, scope, decoded, announced) != 0)
        return ORBS3_S3_AUTH_HEADER_MALFORMED;
    st->chunked = true;
    return 0;
}

// The additional checksum the request names: a value in an x-amz-checksum-* header, or an algorithm
// announced for the trailer of an aws-chunked body.
int init_checksum(orbs3_http_request_t* r, orbs3_object_body_t* st)
{
    orbs3_checksum_alg alg = orbs3_checksum_alg::none;
    std::string_view value;
    for (orbs3_checksum_alg a : {orbs3_checksum_alg::crc32, orbs3_checksum_alg::crc32c, orbs3_checksum_alg::crc64nvme,
                                 orbs3_checksum_alg::sha1, orbs3_checksum_alg::sha256}) {
        if (orbs3_http_find_header(r, orbs3_checksum_header_name(a), &value)) {
            if (alg != orbs3_checksum_alg::none || value.empty() || value.size() > ORBS3_CHECKSUM_BASE64_MAX)
                return ORBS3_S3_INVALID_REQUEST;
            alg = a;
            std::memcpy(st->checksum_sent, value.data(), value.size());
            st->checksum_sent[value.size()] = '\0';
        }
    }
    if (alg == orbs3_checksum_alg::none && st->chunked && orbs3_http_find_header(r, "x-amz-trailer", &value))
        alg = orbs3_checksum_alg_of_header(value);
    if (alg == orbs3_checksum_alg::none)
        return 0;
    return orbs3_checksum_init(&st->checksum, alg) == 0 ? 0 : ORBS3_S3_INTERNAL_ERROR;
}

}  // namespace

bool orbs3_parse_sha256_hex(std::string_view text, uint8_t out[32])
{
    return neo_unhex(text, out, 32);
}

bool orbs3_parse_content_md5(std::string_view text, uint8_t out[NEO_MD5_LEN])
{
    if (text.size() != 24 || text[22] != '=' || text[23] != '=')
        return false;
    uint8_t raw[18];
    if (EVP_DecodeBlock(raw, reinterpret_cast<const unsigned char*>(text.data()), 24) != 18)
        return false;
    std::memcpy(out, raw, NEO_MD5_LEN);
    return true;
}

bool orbs3_parse_length(std::string_view text, int64_t* out)
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

int orbs3_object_body_length(orbs3_http_request_t* r, int64_t* length)
{
    std::string_view value;
    *length = r->content_length;
    if (orbs3_http_find_header(r, "x-amz-decoded-content-length", &value) && !orbs3_parse_length(value, length))
        return ORBS3_S3_INVALID_ARGUMENT;
    return 0;
}

int orbs3_object_body_prepare(orbs3_http_request_t* r, orbs3_object_body_t* body)
{
    std::string_view value;
    if (orbs3_http_find_header(r, "content-md5", &value)) {
        if (!orbs3_parse_content_md5(value, body->md5_expected))
            return ORBS3_S3_INVALID_DIGEST;
        body->want_md5 = true;
    }
    if (orbs3_http_find_header(r, "x-amz-content-sha256", &value) &&
        orbs3_parse_sha256_hex(value, body->sha256_expected)) {
        body->sha256 = evp_md_ctx_new();
        if (!body->sha256 || EVP_DigestInit_ex(body->sha256.get(), EVP_sha256(), nullptr) != 1)
            return ORBS3_S3_INTERNAL_ERROR;
    }
    if (orbs3_s3_streaming_payload(r)) {
        if (int rc = init_aws_chunked(r, body); rc != 0)
            return rc;
    }
    return init_checksum(r, body);
}

int orbs3_object_body_start(orbs3_http_request_t* r, orbs3_object_body_t* st)
{
    st->buf = static_cast<uint8_t*>(orbs3_pnalloc(r->pool, kBodyBuffer));
    if (st->chunked)
        st->out = static_cast<uint8_t*>(orbs3_pnalloc(r->pool, kBodyBuffer));
    if (st->buf == nullptr || (st->chunked && st->out == nullptr) || neo_md5_init(&st->file.md5) != 0)
        return ORBS3_S3_INTERNAL_ERROR;
    // A large plain body: its digests go to a thread of their own. Without one, they stay here.
    if (!st->chunked && r->content_length >= kDigestThreadFrom) {
        auto* second = static_cast<uint8_t*>(orbs3_pnalloc(r->pool, kBodyBuffer));
        void* mem = orbs3_palloc(r->pool, sizeof(orbs3_body_digest_t));
        if (second != nullptr && mem != nullptr) {
            auto* w = ::new (mem) orbs3_body_digest_t();
            w->md5 = &st->file.md5;
            w->checksum = &st->checksum;
            if (w->start()) {
                st->digest = w;
                st->bufs[0] = st->buf;
                st->bufs[1] = second;
            } else {
                w->~orbs3_body_digest_t();
            }
        }
    }
    r->op_state = st;
    return pass(r, st);
}

std::string orbs3_object_body_checksum_line(const orbs3_object_body_t& body)
{
    const std::string_view name = orbs3_checksum_header_name(body.checksum.alg);
    if (name.empty() || body.checksum_value[0] == '\0')
        return {};
    std::string line(name);
    line.append(": ").append(body.checksum_value);
    return line;
}
