#include "s3/orbs3_s3_aws_chunked.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "memory/neo_string.h"
#include "s3/orbs3_s3_sign_parts.h"

namespace {

enum : int {
    ST_SIZE_LINE = 0,
    ST_DATA,
    ST_DATA_CR,
    ST_DATA_LF,
    ST_TRAILER_LINE,
    ST_END,
};

struct mode_row {
    std::string_view value;
    unsigned mode;
};

constexpr mode_row kModes[] = {
    {"STREAMING-AWS4-HMAC-SHA256-PAYLOAD", ORBS3_AWS_CHUNKED_SIGNED},
    {"STREAMING-AWS4-HMAC-SHA256-PAYLOAD-TRAILER", ORBS3_AWS_CHUNKED_SIGNED | ORBS3_AWS_CHUNKED_TRAILER},
    {"STREAMING-UNSIGNED-PAYLOAD-TRAILER", ORBS3_AWS_CHUNKED_TRAILER},
};

constexpr std::string_view kEmptyHash = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr std::string_view kSigExt = "chunk-signature=";
constexpr std::string_view kTrailerSig = "x-amz-trailer-signature";
constexpr std::string_view kChecksumPrefix = "x-amz-checksum-";

bool istarts_with(std::string_view s, std::string_view prefix)
{
    return s.size() >= prefix.size() && orbs3_http_iequals(s.substr(0, prefix.size()), prefix);
}

// Index of `name` among the announced trailer names, or -1.
int announced_index(const orbs3_aws_chunked_t* st, std::string_view name)
{
    std::string_view rest(st->announced, st->announced_len);
    for (int i = 0; !rest.empty(); i++) {
        std::size_t comma = rest.find(',');
        if (orbs3_http_iequals(rest.substr(0, comma), name))
            return i;
        rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
    }
    return -1;
}

std::size_t announced_count(const orbs3_aws_chunked_t* st)
{
    if (st->announced_len == 0)
        return 0;
    return 1 + static_cast<std::size_t>(std::count(st->announced, st->announced + st->announced_len, ','));
}

// hex(HMAC(key, word "\n" date "\n" scope "\n" previous signature "\n" tail)) equals `sent`.
bool signature_matches(const orbs3_aws_chunked_t* st, std::string_view word, std::string_view tail,
                       std::string_view sent)
{
    orbs3_sign_area_t<512> sts;
    orbs3_sign_append(&sts.t, word);
    orbs3_sign_append(&sts.t, "\n");
    orbs3_sign_append(&sts.t, std::string_view(st->date_scope, st->date_scope_len));
    orbs3_sign_append(&sts.t, std::string_view(st->prev_sig, sizeof st->prev_sig));
    orbs3_sign_append(&sts.t, "\n");
    orbs3_sign_append(&sts.t, tail);
    uint8_t md[ORBS3_SHA256_LEN];
    char hex[ORBS3_SHA256_HEX_LEN + 1];
    if (sts.t.overflow ||
        orbs3_hmac_sha256(std::string_view(reinterpret_cast<const char*>(st->key), sizeof st->key), sts.t.view(),
                          md) != 0)
        return false;
    orbs3_hexdigest(md, hex);
    return orbs3_sign_equal(std::string_view(hex, ORBS3_SHA256_HEX_LEN), sent);
}

// Finishes the running digest into hex; false when OpenSSL fails.
bool digest_hex(orbs3_aws_chunked_t* st, char hex[ORBS3_SHA256_HEX_LEN + 1])
{
    uint8_t md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (EVP_DigestFinal_ex(st->md.get(), md, &n) != 1 || n != ORBS3_SHA256_LEN)
        return false;
    orbs3_hexdigest(md, hex);
    return true;
}

// The signature of the chunk just read, whose data went through st->md (or, for the zero-size chunk,
// is empty). On success it becomes the previous signature of the next one.
int check_chunk(orbs3_aws_chunked_t* st, bool empty)
{
    char data_hash[ORBS3_SHA256_HEX_LEN + 1];
    std::string_view data_hex = kEmptyHash;
    if (!empty) {
        if (!digest_hex(st, data_hash))
            return ORBS3_AWS_CHUNKED_BAD_SIGNATURE;
        data_hex = std::string_view(data_hash, ORBS3_SHA256_HEX_LEN);
    }
    char tail[2 * ORBS3_SHA256_HEX_LEN + 2];
    std::memcpy(tail, kEmptyHash.data(), ORBS3_SHA256_HEX_LEN);
    tail[ORBS3_SHA256_HEX_LEN] = '\n';
    std::memcpy(tail + ORBS3_SHA256_HEX_LEN + 1, data_hex.data(), ORBS3_SHA256_HEX_LEN);
    const std::string_view sent(st->chunk_sig, sizeof st->chunk_sig);
    if (!signature_matches(st, "AWS4-HMAC-SHA256-PAYLOAD", std::string_view(tail, sizeof tail - 1), sent))
        return ORBS3_AWS_CHUNKED_BAD_SIGNATURE;
    std::memcpy(st->prev_sig, st->chunk_sig, sizeof st->prev_sig);
    return ORBS3_AWS_CHUNKED_MORE;
}

// A complete size line, CR removed: "<hex>" or "<hex>;chunk-signature=<64 hex>".
int size_line(orbs3_aws_chunked_t* st, std::string_view line)
{
    uint64_t size = 0;
    std::size_t i = 0;
    for (; i < line.size() && neo_hex_value(line[i]) >= 0; i++) {
        if (size > (ORBS3_AWS_CHUNKED_MAX_CHUNK >> 4))
            return ORBS3_AWS_CHUNKED_BAD_FRAMING;
        size = (size << 4) | static_cast<uint64_t>(neo_hex_value(line[i]));
    }
    if (i == 0 || size > ORBS3_AWS_CHUNKED_MAX_CHUNK || (i < line.size() && line[i] != ';'))
        return ORBS3_AWS_CHUNKED_BAD_FRAMING;
    std::string_view ext = line.substr(i);
    const bool is_signed = (st->mode & ORBS3_AWS_CHUNKED_SIGNED) != 0;
    if (is_signed) {
        // The signature is the only extension a signer writes; anything else would go unsigned.
        if (ext.empty())
            return ORBS3_AWS_CHUNKED_BAD_SIGNATURE;
        ext.remove_prefix(1);
        if (!ext.starts_with(kSigExt))
            return ORBS3_AWS_CHUNKED_BAD_FRAMING;
        ext.remove_prefix(kSigExt.size());
        if (ext.size() != ORBS3_SHA256_HEX_LEN)
            return ORBS3_AWS_CHUNKED_BAD_SIGNATURE;
        std::memcpy(st->chunk_sig, ext.data(), ORBS3_SHA256_HEX_LEN);
    }
    // Unsigned, extensions are ignored as in HTTP chunked coding; the line bound keeps them short.

    if (st->decoded_length >= 0 && size > static_cast<uint64_t>(st->decoded_length) - st->decoded_total)
        return ORBS3_AWS_CHUNKED_BAD_LENGTH;
    st->decoded_total += size;
    st->chunk_left = size;

    if (size > 0) {
        if (is_signed && EVP_DigestInit_ex(st->md.get(), EVP_sha256(), nullptr) != 1)
            return ORBS3_AWS_CHUNKED_BAD_SIGNATURE;
        st->state = ST_DATA;
        return ORBS3_AWS_CHUNKED_MORE;
    }

    if (is_signed) {
        int rc = check_chunk(st, true);
        if (rc != ORBS3_AWS_CHUNKED_MORE)
            return rc;
    }
    if (st->decoded_length >= 0 && st->decoded_total != static_cast<uint64_t>(st->decoded_length))
        return ORBS3_AWS_CHUNKED_BAD_LENGTH;
    if ((st->mode & ORBS3_AWS_CHUNKED_TRAILER) && is_signed &&
        EVP_DigestInit_ex(st->md.get(), EVP_sha256(), nullptr) != 1)
        return ORBS3_AWS_CHUNKED_BAD_SIGNATURE;
    st->state = ST_TRAILER_LINE;
    return ORBS3_AWS_CHUNKED_MORE;
}

// The empty line that ends the body.
int trailer_end(orbs3_aws_chunked_t* st)
{
    if (st->mode & ORBS3_AWS_CHUNKED_TRAILER) {
        if ((st->mode & ORBS3_AWS_CHUNKED_SIGNED) && !st->trailer_signed)
            return ORBS3_AWS_CHUNKED_BAD_SIGNATURE;
        if (st->trailers_seen != (1u << announced_count(st)) - 1)
            return ORBS3_AWS_CHUNKED_BAD_TRAILER;  // announced but not sent
    }
    st->state = ST_END;
    return ORBS3_AWS_CHUNKED_DONE;
}

// A complete non-empty trailer line, CR removed: "name:value".
int trailer_line(orbs3_aws_chunked_t* st, std::string_view line)
{
    const bool is_signed = (st->mode & ORBS3_AWS_CHUNKED_SIGNED) != 0;
    if (!(st->mode & ORBS3_AWS_CHUNKED_TRAILER) || st->trailer_signed)
        return ORBS3_AWS_CHUNKED_BAD_TRAILER;  // no trailer expected, or a line behind the signature
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0)
        return ORBS3_AWS_CHUNKED_BAD_TRAILER;
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = line.substr(colon + 1);

    if (orbs3_http_iequals(name, kTrailerSig)) {
        if (!is_signed)
            return ORBS3_AWS_CHUNKED_BAD_TRAILER;
        char hex[ORBS3_SHA256_HEX_LEN + 1];
        if (!digest_hex(st, hex) ||
            !signature_matches(st, "AWS4-HMAC-SHA256-TRAILER", std::string_view(hex, ORBS3_SHA256_HEX_LEN), value))
            return ORBS3_AWS_CHUNKED_BAD_SIGNATURE;
        st->trailer_signed = true;
        return ORBS3_AWS_CHUNKED_MORE;
    }

    // Only what x-amz-trailer announced, each once: the announcement is signed, the trailer may not be.
    const int index = announced_index(st, name);
    if (index < 0 || (st->trailers_seen & (1u << index)))
        return ORBS3_AWS_CHUNKED_BAD_TRAILER;
    st->trailers_seen |= 1u << index;
    if (is_signed &&
        (EVP_DigestUpdate(st->md.get(), line.data(), line.size()) != 1 || EVP_DigestUpdate(st->md.get(), "\n", 1) != 1))
        return ORBS3_AWS_CHUNKED_BAD_SIGNATURE;
    if (istarts_with(name, kChecksumPrefix)) {
        const std::string_view v = orbs3_http_trim(value);
        if (st->checksum_name_len != 0 || name.size() > sizeof st->checksum_name ||
            v.size() > sizeof st->checksum_value)
            return ORBS3_AWS_CHUNKED_BAD_TRAILER;
        std::memcpy(st->checksum_name, name.data(), name.size());
        st->checksum_name_len = name.size();
        std::memcpy(st->checksum_value, v.data(), v.size());
        st->checksum_value_len = v.size();
    }
    return ORBS3_AWS_CHUNKED_MORE;
}

}  // namespace

int orbs3_aws_chunked_mode(std::string_view content_sha256)
{
    for (const mode_row& row : kModes)
        if (row.value == content_sha256)
            return static_cast<int>(row.mode);
    return -1;
}

int orbs3_aws_chunked_init(orbs3_aws_chunked_t* st, unsigned mode, const uint8_t* signing_key, std::string_view seed,
                           std::string_view date, std::string_view scope, int64_t decoded_length,
                           std::string_view announced)
{
    evp_md_ctx_ptr md = std::move(st->md);
    *st = orbs3_aws_chunked_t{};
    st->md = std::move(md);
    st->result = ORBS3_AWS_CHUNKED_BAD_FRAMING;  // stays so when init fails
    if (mode > (ORBS3_AWS_CHUNKED_SIGNED | ORBS3_AWS_CHUNKED_TRAILER))
        return -1;
    st->mode = mode;
    st->decoded_length = decoded_length < 0 ? -1 : decoded_length;

    if (mode & ORBS3_AWS_CHUNKED_SIGNED) {
        if (signing_key == nullptr || seed.size() != ORBS3_SHA256_HEX_LEN || date.empty() || date.size() > 16 ||
            scope.empty() || scope.size() > ORBS3_AWS_CHUNKED_SCOPE_LEN)
            return -1;
        if (!st->md && !(st->md = evp_md_ctx_new()))
            return -1;
        std::memcpy(st->key, signing_key, sizeof st->key);
        std::memcpy(st->prev_sig, seed.data(), sizeof st->prev_sig);
        char* p = st->date_scope;
        std::memcpy(p, date.data(), date.size());
        p += date.size();
        *p++ = '\n';
        std::memcpy(p, scope.data(), scope.size());
        p += scope.size();
        *p++ = '\n';
        st->date_scope_len = static_cast<std::size_t>(p - st->date_scope);
    }

    // Kept as "a,b": names without blanks, joined by single commas.
    std::string_view rest = announced;
    std::size_t count = 0;
    while (!rest.empty()) {
        std::size_t comma = rest.find(',');
        std::string_view name = orbs3_http_trim(rest.substr(0, comma));
        rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
        if (name.empty())
            continue;
        const std::size_t need = name.size() + (st->announced_len != 0 ? 1 : 0);
        if (++count > ORBS3_AWS_CHUNKED_ANNOUNCED_MAX || st->announced_len + need > sizeof st->announced)
            return -1;
        if (st->announced_len != 0)
            st->announced[st->announced_len++] = ',';
        std::memcpy(st->announced + st->announced_len, name.data(), name.size());
        st->announced_len += name.size();
    }
    st->result = ORBS3_AWS_CHUNKED_MORE;
    return 0;
}

int orbs3_aws_chunked_decode(orbs3_aws_chunked_t* st, const uint8_t* in, std::size_t len, uint8_t* out,
                             std::size_t cap, std::size_t* consumed, std::size_t* produced)
{
    std::size_t i = 0, o = 0;
    int rc = st->result;
    bool full = false;
    while (rc == ORBS3_AWS_CHUNKED_MORE && i < len && !full) {
        switch (st->state) {
        case ST_DATA: {
            std::size_t n = len - i;
            if (n > st->chunk_left)
                n = static_cast<std::size_t>(st->chunk_left);
            if (n > cap - o)
                n = cap - o;
            if (n == 0) {
                full = true;
                break;
            }
            std::memcpy(out + o, in + i, n);
            if ((st->mode & ORBS3_AWS_CHUNKED_SIGNED) && EVP_DigestUpdate(st->md.get(), in + i, n) != 1)
                rc = ORBS3_AWS_CHUNKED_BAD_SIGNATURE;
            i += n;
            o += n;
            st->chunk_left -= n;
            if (rc == ORBS3_AWS_CHUNKED_MORE && st->chunk_left == 0) {
                if (st->mode & ORBS3_AWS_CHUNKED_SIGNED)
                    rc = check_chunk(st, false);
                st->state = ST_DATA_CR;
            }
            break;
        }
        case ST_DATA_CR:
        case ST_DATA_LF:
            if (in[i++] != (st->state == ST_DATA_CR ? '\r' : '\n')) {
                rc = ORBS3_AWS_CHUNKED_BAD_FRAMING;
                break;
            }
            st->state = st->state == ST_DATA_CR ? ST_DATA_LF : ST_SIZE_LINE;
            break;
        case ST_SIZE_LINE:
        case ST_TRAILER_LINE: {
            const bool trailer = st->state == ST_TRAILER_LINE;
            const int too_long = trailer ? ORBS3_AWS_CHUNKED_BAD_TRAILER : ORBS3_AWS_CHUNKED_BAD_FRAMING;
            // Up to the line's LF at most; a line is never longer than the area.
            const uint8_t* lf = static_cast<const uint8_t*>(std::memchr(in + i, '\n', len - i));
            const std::size_t n = (lf != nullptr ? static_cast<std::size_t>(lf - (in + i)) + 1 : len - i);
            const std::size_t keep = lf != nullptr ? n - 1 : n;
            if (keep > sizeof st->line - st->line_len) {
                rc = too_long;
                break;
            }
            std::memcpy(st->line + st->line_len, in + i, keep);
            st->line_len += keep;
            i += n;
            if (lf == nullptr)
                break;
            // Lines end in CRLF, strictly: a bare LF or a stray CR is a framing a signer never writes.
            std::string_view line(st->line, st->line_len);
            st->line_len = 0;
            if (line.empty() || line.back() != '\r' || line.find('\r') != line.size() - 1) {
                rc = ORBS3_AWS_CHUNKED_BAD_FRAMING;
                break;
            }
            line.remove_suffix(1);
            if (!trailer)
                rc = size_line(st, line);
            else if (line.empty())
                rc = trailer_end(st);
            else
                rc = trailer_line(st, line);
            break;
        }
        default:
            rc = ORBS3_AWS_CHUNKED_BAD_FRAMING;
            break;
        }
    }
    st->result = rc;
    *consumed = i;
    *produced = o;
    return rc;
}

bool orbs3_aws_chunked_checksum(const orbs3_aws_chunked_t* st, std::string_view* name, std::string_view* value)
{
    if (st->result != ORBS3_AWS_CHUNKED_DONE || st->checksum_name_len == 0)
        return false;
    *name = std::string_view(st->checksum_name, st->checksum_name_len);
    *value = std::string_view(st->checksum_value, st->checksum_value_len);
    return true;
}
