#include "storage/orbs3_multipart_engine.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <tuple>
#include <string>

#include "event/orbs3_fd.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_checksum.h"
#include "storage/orbs3_file_helpers.h"
#include "storage/storage_fixture.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kId = "0123456789abcdef0123456789abcdef";

orbs3_multipart_part_t part(int number, int64_t size, const char* md5_hex)
{
    orbs3_multipart_part_t p;
    p.number = number;
    p.size = size;
    for (int i = 0; i < 16; i++)
        p.md5[i] = static_cast<uint8_t>(std::strtoul(std::string(md5_hex + 2 * i, 2).c_str(), nullptr, 16));
    return p;
}

// MD5 of "a" and of "b".
constexpr const char* kMd5A = "0cc175b9c0f1b6a831c399e269772661";
constexpr const char* kMd5B = "92eb5ffee6ae2fec3ad71c777531578f";
constexpr const char* kMd5BUpper = "92EB5FFEE6AE2FEC3AD71C777531578F";

TEST(MultipartRecords, UploadRecordKeepsKeysAndMetadataOfAnyBytes)
{
    orbs3_multipart_upload_t up;
    up.key = "dir/a key with spaces\n%25 and \xc3\xa9\x01";
    up.upload_id = kId;
    up.initiator_id = "u-1";
    up.initiator_name = "Alice Smith";
    up.created = "2026-11-23T16:13:01.000Z";
    up.content_type = "text/plain; charset=utf-8";
    up.expires = "";
    up.meta = {{"origin", "a b"}, {"md5chksum", "x%y"}};
    up.acl = "1048577";  // the ACL the object gets at Complete
    up.tags = {{"team a", "x y\n"}, {"k", ""}};
    const std::string text = orbs3_multipart_render_upload(up);
    // One field a line, whatever the key holds.
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 16);

    orbs3_multipart_upload_t back;
    ASSERT_EQ(orbs3_multipart_parse_upload(text, &back), 0);
    EXPECT_EQ(orbs3_multipart_render_upload(back), text);  // every field read back as it was
    EXPECT_EQ(back.key, up.key);
    EXPECT_EQ(back.acl, up.acl);
    EXPECT_EQ(back.meta, up.meta);
    EXPECT_EQ(back.tags, up.tags);  // the tags of Create stay apart from the metadata

    // A record cut short, of another kind, with a broken escape or an id that could walk a path is none.
    std::string broken = text;
    broken.replace(broken.find("%0A"), 3, "%0");
    for (std::string bad : {text.substr(0, text.size() - 1), text.substr(0, text.find("created")),
                            "orbs3-part 1\n" + text.substr(text.find('\n') + 1), std::string(), broken}) {
        EXPECT_EQ(orbs3_multipart_parse_upload(bad, &back), -1) << bad;
        EXPECT_TRUE(back.key.empty());
    }
    up.upload_id = "../../../../etc/passwd/aaaaaaaaa";
    EXPECT_EQ(orbs3_multipart_parse_upload(orbs3_multipart_render_upload(up), &back), -1);
    // Fields a later writer adds are passed over.
    std::string later = text + "storage-class GLACIER\n";
    EXPECT_EQ(orbs3_multipart_parse_upload(later, &back), 0);
}

TEST(MultipartRecords, PartRecordHoldsSixtyFourBitSizesAndRefusesDamage)
{
    orbs3_multipart_part_t p = part(10000, (int64_t{5} << 30) + 1, kMd5A);
    p.ino = 0xfedcba9876543210ULL;
    p.modified = "2026-11-23T16:13:01.000Z";
    const std::string text = orbs3_multipart_render_part(p);
    orbs3_multipart_part_t back;
    ASSERT_EQ(orbs3_multipart_parse_part(text, &back), 0);
    EXPECT_EQ(orbs3_multipart_render_part(back), text);  // every field read back as it was
    EXPECT_EQ(back.size, (int64_t{5} << 30) + 1);
    EXPECT_TRUE(back.checksum.empty());
    p.checksum_algorithm = "SHA256";
    p.checksum = "ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=";
    ASSERT_EQ(orbs3_multipart_parse_part(orbs3_multipart_render_part(p), &back), 0);
    EXPECT_EQ(orbs3_multipart_render_part(back), orbs3_multipart_render_part(p));

    auto without = [&](const std::string& field) {
        std::string t = text;
        std::size_t at = t.find(field);
        return t.erase(at, t.find('\n', at) - at + 1);
    };
    auto with = [&](const std::string& from, const std::string& to) {
        std::string t = text;
        return t.replace(t.find(from), from.size(), to);
    };
    for (const std::string& bad : {without("md5 "), without("size "), without("number "), with(kMd5A, std::string(kMd5A, 31) + "g"),
                                   with("number 10000", "number 10001"), with("size ", "size -"),
                                   with("ino ", "ino 9"),  // past 64 bits
                                   text.substr(0, text.size() - 3)})
        EXPECT_EQ(orbs3_multipart_parse_part(bad, &back), -1) << bad;
}

TEST(MultipartRecords, OnlyThirtyTwoLowerHexDigitsAreIds)
{
    EXPECT_TRUE(orbs3_multipart_valid_id(kId));
    for (const char* bad : {"", "0123456789ABCDEF0123456789abcdef", "0123456789abcdef0123456789abcde",
                            "0123456789abcdef0123456789abcdef0", "../3456789abcdef0123456789abcdef",
                            "0123456789abcdef0123456789abcde/"})
        EXPECT_FALSE(orbs3_multipart_valid_id(bad)) << bad;
}

TEST(MultipartComplete, DocumentCheckedForOrderPartsETagsAndSizes)
{
    const int64_t min = 5 << 20;
    std::vector<orbs3_multipart_part_t> stored = {part(1, min, kMd5A), part(2, min - 1, kMd5B),
                                                  part(3, 1, kMd5A), part(5, min, kMd5B)};
    stored[0].checksum_algorithm = "CRC32";
    stored[0].checksum = "AAAAAA==";
    const std::string qa = std::string("\"") + kMd5A + "\"", qb = std::string("\"") + kMd5B + "\"";
    const std::string cut = "\"" + std::string(kMd5A, 31), up_b = kMd5BUpper;
    std::size_t bad = 99;
    // The document's parts, the result, the index of the part at fault.
    const std::tuple<std::vector<orbs3_multipart_request_part_t>, int, std::size_t> cases[] = {
        {{}, ORBS3_S3_MALFORMED_XML, 0},
        // Quoted or not, any case: the ETag as a client gives it back. A small part may be the last.
        {{{1, qa}, {5, up_b}, {3, kMd5A}}, ORBS3_S3_INVALID_PART_ORDER, 2},
        {{{1, qa}, {1, qa}}, ORBS3_S3_INVALID_PART_ORDER, 1},
        {{{1, qa}, {4, qa}}, ORBS3_S3_INVALID_PART, 1},  // never sent
        {{{1, qb}}, ORBS3_S3_INVALID_PART, 0},           // other bytes
        {{{1, cut}}, ORBS3_S3_INVALID_PART, 0},
        {{{0, qa}}, ORBS3_S3_INVALID_PART, 0},
        {{{1, qa}, {2, qb}, {3, qa}}, ORBS3_S3_ENTITY_TOO_SMALL, 1},  // 2 is one byte short and not last
        {{{1, qa}, {5, up_b}}, 0, 0},
        {{{1, kMd5A}, {2, qb}}, 0, 0},
        {{{3, qa}}, 0, 0},
        // A checksum named in the document is the part's own, of its algorithm.
        {{{1, qa, "CRC32", "AAAAAA=="}, {5, qb}}, 0, 0},
        {{{1, qa, "CRC32", "AAAAAB=="}}, ORBS3_S3_INVALID_PART, 0},
        {{{1, qa, "CRC32C", "AAAAAA=="}}, ORBS3_S3_INVALID_PART, 0},
        {{{1, qa}, {5, qb, "CRC32", "AAAAAA=="}}, ORBS3_S3_INVALID_PART, 1},
    };
    for (const auto& [req, want, at] : cases) {
        EXPECT_EQ(orbs3_multipart_check_complete(req, stored, min, &bad), want)
            << req.size() << " parts, first " << (req.empty() ? 0 : req[0].number);
        EXPECT_EQ(bad, at);
    }
    // With the least size lowered, the same middle part passes.
    EXPECT_EQ(orbs3_multipart_check_complete({{1, qa}, {2, qb}, {3, qa}}, stored, 1, &bad), 0);
}

TEST(MultipartComplete, ObjectETagIsTheMd5OfThePartMd5sAndTheirCountAsTheDocumentNamesIt)
{
    orbs3_multipart_part_t a = part(1, 1, kMd5A), b = part(2, 1, kMd5B);
    char etag[40], got[40];
    orbs3_multipart_etag({&a, &b}, etag);
    // hashlib.md5(md5(b"a").digest() + md5(b"b").digest()).hexdigest()
    EXPECT_STREQ(etag, "96e024ba2074fe77e8e965ba43a704be-2");
    // The document's ETags, quoted or not, in any case, name the same object; another list another one.
    const std::string qa = std::string("\"") + kMd5A + "\"";
    EXPECT_TRUE(orbs3_multipart_document_etag({{1, qa}, {2, kMd5BUpper}}, got));
    EXPECT_STREQ(got, etag);
    EXPECT_TRUE(orbs3_multipart_document_etag({{1, qa}}, got));
    EXPECT_STRNE(got, etag);
    EXPECT_FALSE(orbs3_multipart_document_etag({{1, qa}, {2, "\"not-an-md5\""}}, got));
    EXPECT_FALSE(orbs3_multipart_document_etag({}, got));
    orbs3_multipart_etag(std::vector<const orbs3_multipart_part_t*>(10000, &a), etag);
    EXPECT_EQ(std::string(etag).substr(32), "-10000");
}

TEST(MultipartComplete, CopySourceRangesStayInsideTheSource)
{
    // Text, object size, result, first, length. Well formed but past the end: not satisfiable, as S3 answers.
    const std::tuple<const char*, int64_t, int, int64_t, int64_t> rows[] = {
        {"bytes=0-9", 10, 0, 0, 10},
        {"bytes=5368709120-5368709120", (int64_t{5} << 30) + 1, 0, int64_t{5} << 30, 1},
        {"bytes=0-10", 10, ORBS3_S3_INVALID_RANGE, -1, -1},
        {"bytes=10-10", 10, ORBS3_S3_INVALID_RANGE, -1, -1},
        {"bytes=0-9999999999999999999", 10, ORBS3_S3_INVALID_RANGE, -1, -1}};
    for (const auto& [text, size, want, first, len] : rows) {
        int64_t f = -1, l = -1;
        EXPECT_EQ(orbs3_multipart_parse_copy_range(text, size, &f, &l), want) << text;
        EXPECT_EQ(std::make_pair(f, l), std::make_pair(first, len)) << text;
    }
    int64_t first = -1, len = -1;
    for (const char* bad : {"bytes=5-4", "bytes=-5", "bytes=5-", "bytes=0-1,3-4", "0-1", "bytes=a-b", "bytes=+1-2",
                            "bytes= 0-1", ""})
        EXPECT_EQ(orbs3_multipart_parse_copy_range(bad, 10, &first, &len), ORBS3_S3_INVALID_ARGUMENT) << bad;
}

TEST(MultipartParts, PartSizeLimitIsFiveGibLoweredByEitherSegmentSize)
{
    orbs3_service_rec_t service{};
    orbs3_vhost_t vhost{};
    orbs3_bucket_t bucket{};
    const int64_t five = int64_t{5} << 30;
    EXPECT_EQ(orbs3_upload_part_size_limit(nullptr, nullptr), five);
    vhost.service_rec = &service;
    std::string text;
    auto tenant_kb = [&](std::string t) {
        text = std::move(t);
        service.quota.segment_size = {text.size(), text.data()};
    };
    for (const char* none : {"", "0", "x12", "-5", "99999999999999999999"}) {
        tenant_kb(none);
        EXPECT_EQ(orbs3_upload_part_size_limit(&vhost, &bucket), five) << none;
    }
    tenant_kb("1024");
    EXPECT_EQ(orbs3_upload_part_size_limit(&vhost, &bucket), 1 << 20);
    bucket.quota.segment_size = 512;  // the smaller of the two holds
    EXPECT_EQ(orbs3_upload_part_size_limit(&vhost, &bucket), 512 << 10);
    EXPECT_EQ(orbs3_check_upload_part_size(512 << 10, &vhost, &bucket), 0);
    EXPECT_EQ(orbs3_check_upload_part_size((512 << 10) + 1, &vhost, &bucket), 1);
    tenant_kb("10000000000");  // above 5 GiB: S3's limit stays
    bucket.quota.segment_size = 0;
    EXPECT_EQ(orbs3_check_upload_part_size(five, &vhost, &bucket), 0);
    EXPECT_EQ(orbs3_check_upload_part_size(five + 1, &vhost, &bucket), 1);
}

// The staging name and the copies need a bucket's paths and a directory to write in.
using MultipartPaths = storage_test::bucket_fixture;

TEST_F(MultipartPaths, StagingLiesBesideTheObjectUnderAReservedName)
{
    const std::string data = tenant_.dir.path + "/g/data/alice/bkt/";
    char out[ORBS3_PATH_AREA];
    ASSERT_EQ(orbs3_multipart_staging_path(bucket_, "a/b/file.bin", kId, out, sizeof out), 0);
    EXPECT_EQ(std::string(out), data + "a/b/.orbs3-" + kId + "file.bin");
    ASSERT_EQ(orbs3_multipart_staging_path(bucket_, "top", kId, out, sizeof out), 0);
    EXPECT_EQ(std::string(out), data + ".orbs3-" + kId + "top");
    for (const char* key : {"a/", "", "../x", "a/./b"}) {
        EXPECT_EQ(orbs3_multipart_staging_path(bucket_, key, kId, out, sizeof out), -1) << key;
        EXPECT_STREQ(out, "");
    }
    EXPECT_EQ(orbs3_multipart_staging_path(bucket_, "k", "0123", out, sizeof out), -1);
    EXPECT_EQ(orbs3_multipart_staging_path(bucket_, "k", kId, out, data.size() + 10), -1);
}

// Parts are copied by range into the assembled object and from a source object: a source that ends early
// fails the copy instead of making a shorter object; the temporary a failed copy gave up on is removed.
TEST_F(MultipartPaths, BoundedCopyFailsOnAShortSourceAndLeavesNoTemporary)
{
    orbs3_temp_file src;
    ASSERT_GE(src.open(data_.c_str()), 0);
    ASSERT_EQ(::write(src.fd, "0123456789", 10), 10);
    orbs3_fd in(open(src.path, O_RDONLY));
    const std::tuple<int64_t, int64_t, const char*> rows[] = {{2, 5, "23456"}, {0, 10, "0123456789"}, {5, 6, nullptr}};
    for (const auto& [offset, len, want] : rows) {
        for (int out_fd : {0, 1, -1}) {  // kernel copy, through an observer, observer only
            orbs3_temp_file out;
            ASSERT_GE(out.open(data_.c_str()), 0);
            std::string seen;
            orbs3_copy_observer see = [&](const uint8_t* p, std::size_t n) { seen.append(reinterpret_cast<const char*>(p), n); };
            const int rc = orbs3_copy_range(in.get(), out_fd < 0 ? -1 : out.fd, offset, len, out_fd != 0 ? see : nullptr);
            ASSERT_EQ(rc, want != nullptr ? 0 : -1) << offset << "+" << len;
            if (want != nullptr) {
                EXPECT_EQ(storage_test::read_file(out.path), out_fd < 0 ? "" : want);
                EXPECT_EQ(seen, out_fd != 0 ? want : "");
            }
        }
    }
    std::string gone;
    {
        orbs3_temp_file t;
        ASSERT_GE(t.open(data_.c_str()), 0);
        gone = t.path;
    }
    EXPECT_FALSE(fs::exists(gone));
}

}  // namespace

TEST(MultipartParts, SizesKeptInRunsFindEachPart)
{
    std::vector<orbs3_multipart_part_t> p = {part(1, 5, kMd5A), part(2, 5, kMd5A), part(4, 5, kMd5A),
                                             part(7, 3, kMd5A), part(8, 5, kMd5A)};
    std::vector<const orbs3_multipart_part_t*> chosen;
    for (const auto& x : p)
        chosen.push_back(&x);
    const std::string text = orbs3_multipart_parts_text(chosen);
    EXPECT_EQ(text, "5*3 3 5");
    // Part numbers of the object count from 1 whatever the upload's numbers were: number, result, offset, size.
    const std::tuple<int, int, int64_t, int64_t> rows[] = {
        {1, 0, 0, 5}, {3, 0, 10, 5}, {4, 0, 15, 3}, {5, 0, 18, 5}, {6, 1, -1, -1}};
    for (const auto& [number, want, want_offset, want_size] : rows) {
        int64_t offset = -1, size = -1;
        int count = 0;
        EXPECT_EQ(orbs3_multipart_find_part(text, 23, number, &offset, &size, &count), want) << number;
        EXPECT_EQ(std::make_tuple(count, offset, size), std::make_tuple(5, want_offset, want_size)) << number;
    }
    int64_t offset = 0, size = 0;
    int count = 0;
    // A list that does not add up to the object, or is not one, describes no parts of it.
    for (const char* bad : {"5*3 3 5 ", "5*3 3", "5*0 23", "x", "", "5*10001", "23*1*1", "-5 28"})
        EXPECT_EQ(orbs3_multipart_find_part(bad, 23, 1, &offset, &size, &count), -1) << bad;
    for (const auto& [text, n, want] : {std::tuple{"a bb c", 2, "bb"}, {"a bb c", 3, "c"}, {"a bb c", 4, ""}, {"", 1, ""}})
        EXPECT_EQ(orbs3_multipart_nth_word(text, n), want) << text << " " << n;
}

TEST(MultipartParts, ObjectChecksumFollowsTheDeclaredFormOrIsNone)
{
    // CRC32 of "abc" and of "def", and of "abcdef" whole, in header form; the composite value is the CRC32
    // of the two raw values. Values from zlib.
    orbs3_multipart_part_t a = part(1, 3, kMd5A), b = part(2, 3, kMd5B);
    a.checksum_algorithm = b.checksum_algorithm = "CRC32";
    a.checksum = "NSRBwg==";
    b.checksum = "DMThYQ==";
    orbs3_multipart_upload_t up;
    std::string alg, values;
    char value[ORBS3_CHECKSUM_TEXT_MAX + 1];
    // Declared algorithm and type; the object's value, null when none is known.
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"", "", "S4457w=="},  // nothing declared: the parts' CRCs combined
        {"CRC32", "FULL_OBJECT", "S4457w=="},
        {"CRC32", "COMPOSITE", "ZYzvyg==-2"},
        {"CRC32C", "COMPOSITE", nullptr}};  // parts of another algorithm
    for (const auto& [declared, type, want] : rows) {
        up.checksum_algorithm = declared;
        up.checksum_type = type;
        const bool got = orbs3_multipart_object_checksum(up, {&a, &b}, &alg, value, &values);
        ASSERT_EQ(got, want != nullptr) << declared << " " << type;
        if (got) {
            EXPECT_EQ(std::make_tuple(alg, std::string(value), values), std::make_tuple("CRC32", want, "NSRBwg== DMThYQ=="));
        }
    }
    // A part without a value (sent before the upload knew its algorithm) leaves the object without one.
    up.checksum_algorithm = "CRC32";
    up.checksum_type = "COMPOSITE";
    b.checksum.clear();
    EXPECT_FALSE(orbs3_multipart_object_checksum(up, {&a, &b}, &alg, value, &values));
}
