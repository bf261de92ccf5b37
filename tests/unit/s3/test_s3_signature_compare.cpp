// The signature compare goes through OpenSSL's constant-time CRYPTO_memcmp. This binary defines that
// symbol itself, which takes precedence over libcrypto's, to count the calls; it compares correctly, so
// every other user in the binary is served as before.
#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <cstddef>
#include <string>

#include "http/http_test_request.h"
#include "s3/orbs3_s3_errors.h"
#include "s3/orbs3_s3_signature.h"
#include "s3/signature_vectors.h"

namespace {
std::atomic<int> g_memcmp_calls{0};
std::atomic<std::size_t> g_memcmp_len{0};
}  // namespace

extern "C" int CRYPTO_memcmp(const void* in_a, const void* in_b, std::size_t len)
{
    g_memcmp_calls++;
    g_memcmp_len = len;
    const auto* a = static_cast<const volatile unsigned char*>(in_a);
    const auto* b = static_cast<const volatile unsigned char*>(in_b);
    unsigned char x = 0;
    for (std::size_t i = 0; i < len; i++)
        x |= a[i] ^ b[i];
    return x;
}

namespace {

const signature_vector_t* vector_named(const char* name)
{
    for (const signature_vector_t& v : kSignatureVectors) {
        if (std::string_view(v.name) == name)
            return &v;
    }
    return nullptr;
}

TEST(S3SignatureCompare, SignaturesAreComparedInConstantTime)
{
    struct row_t {
        const char* vector;
        bool tamper;
        std::size_t len;
        uint32_t status;
    };
    const row_t rows[] = {
        {"V4PathStyleGet", false, 64, 0},
        {"V4PathStyleGet", true, 64, ORBS3_S3_SIGNATURE_DOES_NOT_MATCH},
        {"PresignedV4Get", true, 64, ORBS3_S3_SIGNATURE_DOES_NOT_MATCH},
        {"V2PathStyleGet", false, 28, 0},
        {"V2PathStyleGet", true, 28, ORBS3_S3_SIGNATURE_DOES_NOT_MATCH},
        {"PresignedV2Get", false, 28, 0},
    };
    http_test::ensure_headers_hash();
    for (const row_t& row : rows) {
        SCOPED_TRACE(row.vector);
        const signature_vector_t* v = vector_named(row.vector);
        ASSERT_NE(v, nullptr);
        std::string head = v->head;
        if (row.tamper) {
            // The last hex digit or base64 letter: a mismatch found only at the end of the compare.
            std::size_t at = head.find(v->signature) + std::string_view(v->signature).size() - 1;
            while (!std::isalnum(static_cast<unsigned char>(head[at])) || head[at - 1] == '%' || head[at - 2] == '%')
                at--;
            head[at] = head[at] == '0' ? '1' : '0';
        }
        http_test::test_request t(head);
        ASSERT_EQ(parser_http_request_handler(t.r), 0);
        t.r->host_style = v->host_style;
        int before = g_memcmp_calls;
        EXPECT_EQ(orbs3_s3_authenticate(t.r, v->secret, static_cast<time_t>(v->now), nullptr), row.status);
        EXPECT_EQ(g_memcmp_calls - before, 1);
        EXPECT_EQ(g_memcmp_len, row.len);
    }
}

}  // namespace
