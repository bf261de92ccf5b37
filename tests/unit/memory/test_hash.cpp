#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "memory/orbs3_hash.h"
#include "memory/orbs3_palloc.h"

namespace {

const char* const header_names[] = {
    "Host", "Connection", "If-Modified-Since", "If-Unmodified-Since", "If-Match", "If-None-Match",
    "User-Agent", "Referer", "Content-Length", "Content-Range", "Content-Type", "Content-MD5",
    "Content-Encoding", "Content-Language", "Content-Disposition", "Cache-Control", "Expires", "Range",
    "If-Range", "Transfer-Encoding", "TE", "Expect", "Upgrade", "Accept", "Accept-Encoding",
    "Accept-Language", "Accept-Charset", "Authorization", "Keep-Alive", "X-Forwarded-For", "X-Real-IP",
    "Via", "Cookie", "Origin", "Date", "Pragma", "Access-Control-Request-Method",
    "Access-Control-Request-Headers", "X-Amz-Date", "X-Amz-Content-Sha256", "X-Amz-Acl",
    "X-Amz-Copy-Source", "X-Amz-Copy-Source-Range", "X-Amz-Metadata-Directive", "X-Amz-Storage-Class",
    "X-Amz-Security-Token", "X-Amz-Tagging", "X-Amz-Request-Payer", "X-Amz-Grant-Read",
    "X-Amz-Grant-Write", "X-Amz-Grant-Read-Acp", "X-Amz-Grant-Write-Acp", "X-Amz-Grant-Full-Control",
    "X-Amz-Server-Side-Encryption", "X-Amz-Decoded-Content-Length", "X-Amz-Version-Id",
    "X-Amz-Bucket-Object-Lock-Enabled", "X-Copy-Source", "OrbAction", "Proxy-Authorization",
    "Max-Forwards", "Last-Modified", "ETag",
};

std::string lower(const char* s)
{
    std::string out(s);
    for (char& c : out)
        c = (c >= 'A' && c <= 'Z') ? static_cast<char>(c | 0x20) : c;
    return out;
}

orbs3_hash_key_t key_of(const char* name, void* value)
{
    orbs3_hash_key_t k{};
    k.key.data = const_cast<char*>(name);
    k.key.len = std::strlen(name);
    k.key_hash = orbs3_hash_key_lc(name, k.key.len);
    k.value = value;
    return k;
}

uint64_t elt_bytes(std::size_t len)
{
    return 8 + ((len + 2 + 7) & ~std::size_t{7});
}

}  // namespace

TEST(Hash, KeyFunctionsAgreeOnLowerCase)
{
    EXPECT_EQ(orbs3_hash_key("", 0), 0u);
    EXPECT_EQ(orbs3_hash_key("ab", 2), uint64_t{'a'} * 31 + 'b');
    EXPECT_EQ(orbs3_hash_key_lc("Host", 4), orbs3_hash_key("host", 4));
    EXPECT_NE(orbs3_hash_key("Host", 4), orbs3_hash_key("host", 4));

    // A long name: the 64-bit value must survive the lower-casing copy whole.
    const char name[] = "X-Amz-Bucket-Object-Lock-Enabled";
    char low[sizeof(name)] = {};
    uint64_t h = orbs3_hash_strlow(low, name, sizeof(name) - 1);
    EXPECT_STREQ(low, "x-amz-bucket-object-lock-enabled");
    EXPECT_EQ(h, orbs3_hash_key_lc(name, sizeof(name) - 1));
    EXPECT_GT(h, uint64_t{UINT32_MAX});

    uint64_t k = 0;
    for (char c : std::string(low))
        k = orbs3_hash(k, static_cast<uint8_t>(c));
    EXPECT_EQ(k, h) << "byte-wise steps give the same hash";
}

TEST(Hash, EveryTypicalHeaderIsFoundInTheSmallestFittingTable)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    ASSERT_TRUE(pool);
    const std::size_t count = std::size(header_names);
    ASSERT_GE(count, 60u);
    std::vector<int> values(count);
    std::vector<orbs3_hash_key_t> keys;
    for (std::size_t i = 0; i < count; i++)
        keys.push_back(key_of(header_names[i], &values[i]));

    // No table record given: it is made in the pool.
    orbs3_hash_init_t hinit{nullptr, 512, 64, pool.get(), "headers_in_hash"};
    ASSERT_EQ(orbs3_hash_init(&hinit, keys.data(), keys.size()), 0);
    orbs3_hash_t* hash = hinit.hash;
    ASSERT_NE(hash, nullptr);

    for (std::size_t i = 0; i < count; i++) {
        std::string low = lower(header_names[i]);
        EXPECT_EQ(orbs3_hash_find(hash, orbs3_hash_key(low.data(), low.size()), low.data(), low.size()), &values[i])
            << low;
        if (low != header_names[i]) {
            EXPECT_EQ(orbs3_hash_find(hash, orbs3_hash_key_lc(header_names[i], low.size()), header_names[i],
                                      low.size()),
                      nullptr)
                << header_names[i];
        }
    }
    EXPECT_EQ(orbs3_hash_find(hash, orbs3_hash_key_lc("x-unknown", 9), "x-unknown", 9), nullptr);
    // The length must match exactly.
    EXPECT_EQ(orbs3_hash_find(hash, orbs3_hash_key_lc("hos", 3), "hos", 3), nullptr);
    EXPECT_EQ(orbs3_hash_find(hash, orbs3_hash_key_lc("host", 4), "hostx", 5), nullptr);

    // Sizes from count / (56 / 16) are tried; the chosen one keeps each bucket within 56 bytes and
    // the one before it does not.
    auto fits = [&](uint64_t size) {
        std::vector<uint64_t> used(size);
        for (const auto& k : keys)
            if ((used[k.key_hash % size] += elt_bytes(k.key.len)) > 56)
                return false;
        return true;
    };
    const uint64_t start = count / 3;
    ASSERT_GE(hash->size, start);
    ASSERT_LE(hash->size, 512u);
    EXPECT_TRUE(fits(hash->size));
    for (uint64_t s = start; s < hash->size; s++)
        EXPECT_FALSE(fits(s)) << s;

    for (uint64_t i = 0; i < hash->size; i++) {
        if (hash->buckets[i] != nullptr) {
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(hash->buckets[i]) % 64, 0u) << "bucket " << i;
        }
    }
}

TEST(Hash, RejectsBucketsTooSmallAndAZeroMaximum)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    ASSERT_TRUE(pool);
    int v = 0;
    // "content-length": 8 + 16 bytes plus the 8-byte terminator.
    const orbs3_hash_key_t keys[] = {key_of("Host", &v), key_of("Content-Length", &v)};
    orbs3_hash_t hash{};

    orbs3_hash_init_t small{&hash, 512, 31, pool.get(), "small"};
    EXPECT_EQ(orbs3_hash_init(&small, keys, 2), -1);
    orbs3_hash_init_t exact{&hash, 512, 32, pool.get(), "exact"};
    EXPECT_EQ(orbs3_hash_init(&exact, keys, 2), 0);
    orbs3_hash_init_t zero{&hash, 0, 64, pool.get(), "zero"};
    EXPECT_EQ(orbs3_hash_init(&zero, keys, 2), -1);
}

TEST(Hash, NullNamesAreLeftOutAndCrowdedTablesStillWork)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    ASSERT_TRUE(pool);
    int a = 1, b = 2, c = 3;
    std::vector<orbs3_hash_key_t> keys = {key_of("alpha", &a), key_of("beta", &b), key_of("gamma", &c)};
    keys.push_back(orbs3_hash_key_t{});  // null name, would not fit any bucket
    keys.back().key.len = 1000;

    // All on one hash: with a bucket of one element no size up to max_size fits, so max_size is used
    // and the buckets grow beyond bucket_size.
    for (auto& k : keys)
        k.key_hash = 7;
    orbs3_hash_t hash{};
    orbs3_hash_init_t hinit{&hash, 5, 32, pool.get(), "crowded"};
    ASSERT_EQ(orbs3_hash_init(&hinit, keys.data(), keys.size()), 0);
    EXPECT_EQ(hash.size, 5u);
    EXPECT_EQ(orbs3_hash_find(&hash, 7, "alpha", 5), &a);
    EXPECT_EQ(orbs3_hash_find(&hash, 7, "beta", 4), &b);
    EXPECT_EQ(orbs3_hash_find(&hash, 7, "gamma", 5), &c);
    EXPECT_EQ(orbs3_hash_find(&hash, 7, "delta", 5), nullptr);
    EXPECT_EQ(orbs3_hash_find(&hash, 8, "alpha", 5), nullptr);
}

TEST(Hash, LargeMaximumWithFewSlotsPerEntryStartsNearTheMaximum)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    ASSERT_TRUE(pool);
    std::vector<std::string> names;
    for (int i = 0; i < 300; i++) {
        names.emplace_back("h");
        names.back() += std::to_string(i);
    }
    std::vector<orbs3_hash_key_t> keys;
    for (const auto& n : names)
        keys.push_back(key_of(n.c_str(), const_cast<char*>(n.c_str())));

    // 20000 / 300 is below 100: the sizes tried start at 20000 - 1000.
    orbs3_hash_t hash{};
    orbs3_hash_init_t near{&hash, 20000, 64, pool.get(), "near"};
    ASSERT_EQ(orbs3_hash_init(&near, keys.data(), keys.size()), 0);
    EXPECT_EQ(hash.size, 19000u);

    // 20000 / 150 is not: the search starts low and stops at the first fit.
    orbs3_hash_t small{};
    orbs3_hash_init_t low{&small, 20000, 64, pool.get(), "low"};
    ASSERT_EQ(orbs3_hash_init(&low, keys.data(), 150), 0);
    EXPECT_LT(small.size, 1000u);

    for (const auto& n : names)
        EXPECT_EQ(orbs3_hash_find(&hash, orbs3_hash_key(n.data(), n.size()), n.data(), n.size()), n.c_str()) << n;
}
