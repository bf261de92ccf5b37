#include "storage/orbs3_object_copy.h"

#include <cstring>
#include <string_view>

#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_sign_parts.h"
#include "s3/orbs3_s3_signature.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_object.h"

namespace {

constexpr int status(uint32_t code)
{
    return static_cast<int>(code);
}

bool is_hex(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// A "%" that does not start an escape would be dropped by the decoder and name another key than the
// client meant: such a source is refused instead.
bool escapes_well_formed(std::string_view text)
{
    for (std::size_t i = 0; i < text.size(); i++) {
        if (text[i] != '%')
            continue;
        if (i + 2 >= text.size() || !is_hex(text[i + 1]) || !is_hex(text[i + 2]))
            return false;
        i += 2;
    }
    return true;
}

}  // namespace

int orbs3_parse_copy_source(orbs3_http_request_t* r, orbs3_pool_t* pool, orbs3_str_t* bucket, orbs3_str_t* key)
{
    std::string_view source;
    if (!orbs3_sign_find_header(r, "x-amz-copy-source", &source) &&
        !orbs3_sign_find_header(r, "x-copy-source", &source))
        return status(ORBS3_S3_INVALID_ARGUMENT);
    if (source.starts_with('/'))
        source.remove_prefix(1);
    // The version suffix is cut before decoding: a "?" that belongs to the key arrives as %3F.
    if (std::size_t q = source.find("?versionId="); q != std::string_view::npos)
        source = source.substr(0, q);
    if (source.empty() || !escapes_well_formed(source))
        return status(ORBS3_S3_INVALID_ARGUMENT);

    auto* text = static_cast<char*>(orbs3_pnalloc(pool, source.size() + 1));
    if (text == nullptr)
        return status(ORBS3_S3_INTERNAL_ERROR);
    std::memcpy(text, source.data(), source.size());
    const std::size_t len = orbs3_uri_decode(text, source.size());
    text[len] = '\0';

    // Bucket names hold no "/", so the first one of the decoded text ends the bucket whether the client
    // sent it plain or as %2F.
    const std::string_view decoded(text, len);
    const std::size_t slash = decoded.find('/');
    if (slash == std::string_view::npos || slash == 0 || slash + 1 == decoded.size())
        return status(ORBS3_S3_INVALID_ARGUMENT);
    const std::string_view b = decoded.substr(0, slash);
    const std::string_view k = decoded.substr(slash + 1);
    if (orbs3_check_bucketname(b) != 0)
        return status(ORBS3_S3_INVALID_ARGUMENT);
    if (int st = orbs3_object_key_status(k); st != 0)
        return st;
    if (orbs3_pstr_set(pool, bucket, b.data(), b.size()) != 0 || orbs3_pstr_set(pool, key, k.data(), k.size()) != 0)
        return status(ORBS3_S3_INTERNAL_ERROR);
    return 0;
}
