// The S3 XML documents: exact bytes of every reply, and request parsers fed valid, broken and hostile
// bodies.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "control/orbs3_service.h"
#include "memory/orbs3_palloc.h"
#include "s3/orbs3_s3_documents.h"
#include "storage/orbs3_bucket.h"

namespace {

struct doc_deleter {
    void operator()(char* p) const noexcept { std::free(p); }
};
using doc_ptr = std::unique_ptr<char, doc_deleter>;

std::string take(char* text)
{
    doc_ptr owner(text);
    return text == nullptr ? std::string("<null>") : std::string(text);
}

orbs3_str_t S(const char* text)
{
    return orbs3_str_t{std::strlen(text), const_cast<char*>(text)};
}

orbs3_pool_ptr new_pool()
{
    return orbs3_pool_ptr(orbs3_create_mem_block(4096));
}

template <typename T>
std::vector<T*> records(neo_list_head_t* list)
{
    std::vector<T*> out;
    neo_list_head_t* pos;
    list_for_each(pos, list) out.push_back(list_entry(pos, T, link));
    return out;
}

std::string repeat(const std::string& s, int n)
{
    std::string out;
    for (int i = 0; i < n; ++i)
        out += s;
    return out;
}

// Links the records into a fresh list through their `link` members, in order.
template <typename T>
neo_list_head_t* chain(neo_list_head_t* head, std::initializer_list<T*> rows)
{
    INIT_LIST_HEAD(head);
    for (T* r : rows)
        list_add_tail(&r->link, head);
    return head;
}

// A request body parsed into a fresh list: the parser's result and the records it took.
template <typename T>
std::pair<int, std::vector<T*>> parse_into(int (*parse)(const char*, neo_list_head_t*, orbs3_pool_t*),
                                           const std::string& body, orbs3_pool_t* pool)
{
    neo_list_head_t list;
    INIT_LIST_HEAD(&list);
    const int rc = parse(body.c_str(), &list, pool);
    return {rc, records<T>(&list)};
}

auto parse_del(const std::string& body, orbs3_pool_t* pool)
{
    return parse_into<orbs3_del_key_t>(parse_del_objects_xmlstring, body, pool);
}

auto parse_parts(const std::string& body, orbs3_pool_t* pool)
{
    return parse_into<orbs3_part_t>(parse_complete_multipart_upload_xmlstring, body, pool);
}

const std::string kDecl = "<?xml version=\"1.0\" encoding=\"utf-8\"?>";

orbs3_user_t admin_user()
{
    orbs3_user_t u{};
    u.accesskeyid = S("AK1");
    u.DisPlayName = S("root");
    INIT_LIST_HEAD(&u.keys);
    return u;
}

TEST(S3Documents, BucketListIndentsWithLineFeedAndCarriageReturns)
{
    orbs3_user_t user = admin_user();
    std::string got = take(make_list_buckets_xml({{"b1", "al", "2024-01-02T03:04:05.000Z", 3}}, &user));
    EXPECT_EQ(got, kDecl +
                       "\n<ListAllMyBucketsResult>"
                       "\n\r<Owner>\n\r\r<ID>AK1</ID>\n\r\r<DisplayName>root</DisplayName>\n\r</Owner>"
                       "\n\r<Buckets>\n\r\r<Bucket>\n\r\r\r<Name>b1</Name><Alias>al</Alias>"
                       "\n\r\r\r<CreationDate>2024-01-02T03:04:05.000Z</CreationDate>\n\r\r\r<KeyCount>3</KeyCount>"
                       "\n\r\r</Bucket>\n\r</Buckets>\n</ListAllMyBucketsResult>\n");

    // A page that is not the last names its token, and the prefix asked for is echoed, behind Buckets.
    got = take(make_list_buckets_xml({{"b1", {}, {}, 0}}, &user, "YjE", std::string_view("b&")));
    EXPECT_NE(got.find("\n\r</Buckets>\n\r<ContinuationToken>YjE</ContinuationToken>\n\r<Prefix>b&amp;</Prefix>"
                       "\n</ListAllMyBucketsResult>"),
              std::string::npos) << got;

    // No bucket and a user without a key: empty elements, still the same frame.
    orbs3_user_t plain{};
    plain.DisPlayName = S("u");
    EXPECT_EQ(take(make_list_buckets_xml({}, &plain)),
              kDecl + "\n<ListAllMyBucketsResult>\n\r<Owner>\n\r\r<ID></ID>\n\r\r<DisplayName>u</DisplayName>"
                      "\n\r</Owner>\n\r<Buckets />\n</ListAllMyBucketsResult>\n");
}

TEST(S3Documents, ObjectListV2GivesContentsThenPrefixesAndTheTokenOfATruncatedPage)
{
    orbs3_list_entry_t dir{};
    dir.is_dir = true;
    dir.key = S("a/d/");
    orbs3_list_entry_t file{};
    file.key = S("a/x.txt");
    file.last_modified = S("2024-01-02T03:04:05.000Z");
    file.etag = S("abc");
    file.size = 5000000000ULL;
    file.owner_id = S("u1");
    file.owner_display_name = S("alice");
    neo_list_head_t list;
    orbs3_list_doc_t doc;
    doc.bucket = "bk";
    doc.prefix = "a/";
    doc.delimiter = "/";
    doc.start_after = "a/c";
    doc.continuation = "YS9i";
    doc.next = "YS94LnR4dA";
    doc.max_keys = 2;
    doc.key_count = 2;
    doc.truncated = true;
    doc.list = chain(&list, {&dir, &file});
    const std::string contents = "\n  <Contents>\n    <Key>a/x.txt</Key>\n    <LastModified>2024-01-02T03:04:05.000Z"
                                 "</LastModified>\n    <ETag>&quot;abc&quot;</ETag>\n    <Size>5000000000</Size>";
    EXPECT_EQ(take(make_list_objects_xml(&doc)),
              kDecl + "\n<ListBucketResult>\n  <Name>bk</Name>\n  <Prefix>a/</Prefix>\n  <StartAfter>a/c</StartAfter>"
                      "\n  <ContinuationToken>YS9i</ContinuationToken>\n  <KeyCount>2</KeyCount>"
                      "\n  <MaxKeys>2</MaxKeys>\n  <Delimiter>/</Delimiter>\n  <IsTruncated>true</IsTruncated>" +
                      contents + "\n    <StorageClass>STANDARD</StorageClass>\n  </Contents>"
                      "\n  <CommonPrefixes>\n    <Prefix>a/d/</Prefix>\n  </CommonPrefixes>"
                      "\n  <NextContinuationToken>YS94LnR4dA</NextContinuationToken>\n</ListBucketResult>\n");

    // With fetch-owner the V2 rows carry their owner; a last page has no token and no Delimiter when none.
    doc.fetch_owner = true;
    doc.truncated = false;
    doc.delimiter = {};
    doc.start_after.reset();
    doc.continuation.reset();
    EXPECT_EQ(take(make_list_objects_xml(&doc)),
              kDecl + "\n<ListBucketResult>\n  <Name>bk</Name>\n  <Prefix>a/</Prefix>\n  <KeyCount>2</KeyCount>"
                      "\n  <MaxKeys>2</MaxKeys>\n  <IsTruncated>false</IsTruncated>" +
                      contents + "\n    <Owner>\n      <ID>u1</ID>\n      <DisplayName>alice</DisplayName>\n    </Owner>"
                      "\n    <StorageClass>STANDARD</StorageClass>\n  </Contents>"
                      "\n  <CommonPrefixes>\n    <Prefix>a/d/</Prefix>\n  </CommonPrefixes>\n</ListBucketResult>\n");
}

TEST(S3Documents, ObjectListV1AlwaysNamesItsMarkerAndUrlEncodesKeyTexts)
{
    orbs3_list_entry_t file{};
    file.key = S("a b+c/\xc3\xa9\x01&.txt");
    file.etag = S("e");
    neo_list_head_t list;
    orbs3_list_doc_t doc;
    doc.v2 = false;
    doc.bucket = "bk";
    doc.list = chain(&list, {&file});
    doc.key_count = 1;
    doc.max_keys = 1;
    // A first V1 page: an empty Marker, no KeyCount, no NextMarker on the last page.
    std::string got = take(make_list_objects_xml(&doc));
    EXPECT_NE(got.find("<Prefix />\n  <Marker />\n  <MaxKeys>1</MaxKeys>\n  <IsTruncated>false</IsTruncated>"),
              std::string::npos) << got;
    EXPECT_EQ(got.find("KeyCount"), std::string::npos) << got;
    EXPECT_EQ(got.find("NextMarker"), std::string::npos) << got;
    EXPECT_NE(got.find("<ID />"), std::string::npos) << got;  // V1 rows always carry their owner

    // Truncated, with a delimiter or without: NextMarker is the last entry. encoding-type=url encodes what
    // comes from keys (Prefix, Marker, NextMarker, Delimiter, Key) and keeps "/" as it is.
    doc.truncated = true;
    doc.prefix = "a b";
    doc.delimiter = "+";
    doc.marker = "m&n";
    doc.next = "a b+c/\xc3\xa9\x01&.txt";
    doc.url_encode = true;
    got = take(make_list_objects_xml(&doc));
    for (const char* want : {"<Prefix>a%20b</Prefix>", "<Marker>m%26n</Marker>", "<Delimiter>%2B</Delimiter>",
                             "<NextMarker>a%20b%2Bc/%C3%A9%01%26.txt</NextMarker>",
                             "<Key>a%20b%2Bc/%C3%A9%01%26.txt</Key>",
                             "\n  <EncodingType>url</EncodingType>\n</ListBucketResult>"})
        EXPECT_NE(got.find(want), std::string::npos) << want << "\n" << got;

    // Without encoding, texts are whole however long: a key is never cut to an element cap.
    const std::string long_key(1023, 'k');
    file.key = S(long_key.c_str());
    doc.url_encode = false;
    doc.next = long_key;
    got = take(make_list_objects_xml(&doc));
    EXPECT_NE(got.find("<Key>" + long_key + "</Key>"), std::string::npos);
    EXPECT_NE(got.find("<NextMarker>" + long_key + "</NextMarker>"), std::string::npos);
}

TEST(S3Documents, BucketLocationIsTheEmptyConstraint)
{
    EXPECT_EQ(take(make_bucket_location_xml()),
              kDecl + "\n<LocationConstraint xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"/>\n");
}

TEST(S3Documents, ListingUrlEncodingKeepsUnreservedBytesAndSlashOnly)
{
    // A blank must not become "+": a client that decodes without taking "+" for a blank would read a key
    // that is not stored.
    const struct {
        std::string_view in, out;
    } cases[] = {
        {"", ""},
        {"AZaz09-_.~/", "AZaz09-_.~/"},
        {"a b", "a%20b"},
        {"a+b", "a%2Bb"},
        {" leading", "%20leading"},
        {"%41", "%2541"},
        {"?&=#<>\"'", "%3F%26%3D%23%3C%3E%22%27"},
        {"caf\xc3\xa9/\xe6\x97\xa5", "caf%C3%A9/%E6%97%A5"},
        {std::string_view("\x00\x01\x7f\xff", 4), "%00%01%7F%FF"},
        {"\t\n\r", "%09%0A%0D"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(orbs3_list_url_encode(c.in), c.out) << c.in;
}

// The owner the record names (not the requester) is Owner and the grantee of every permission bit; each
// grantee carries its xsi:type, which clients read; group bits follow as Group grants.
TEST(S3Documents, AclReplyNamesTheOwnerAndTypesEveryGrantee)
{
    const uint32_t acl = ORBS3_ACL_READ | ORBS3_ACL_WRITE_ACP | ORBS3_ACL_ALL_USERS_READ | ORBS3_ACL_AUTH_USERS_READ;
    const std::string owner = "\n\r<Owner>\n\r\r\r\r<ID>u-7</ID>\n\r\r\r\r<DisplayName>alice</DisplayName>\n\r</Owner>";
    const std::string user = "\n\r\r\r<Grantee xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
                             "xsi:type=\"CanonicalUser\">\n\r\r\r\r<ID>u-7</ID>\n\r\r\r\r<DisplayName>alice</DisplayName>"
                             "\n\r\r\r</Grantee>";
    const std::string group = "\n\r\r\r<Grantee xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
                              "xsi:type=\"Group\">\n\r\r\r\r<URI>http://acs.amazonaws.com/groups/global/";
    EXPECT_EQ(take(make_acl_xmlstring(acl, "u-7", "alice")),
              kDecl + "\n<AccessControlPolicy>" + owner + "\n\r<AccessControlList>" +
                  "\n\r\r<Grant>" + user + "\n\r\r\r<Permission>READ</Permission>\n\r\r</Grant>" +
                  "\n\r\r<Grant>" + user + "\n\r\r\r<Permission>WRITE_ACP</Permission>\n\r\r</Grant>" +
                  "\n\r\r<Grant>" + group + "AllUsers</URI>\n\r\r\r</Grantee>\n\r\r\r<Permission>READ</Permission>\n\r\r</Grant>" +
                  "\n\r\r<Grant>" + group +
                  "AuthenticatedUsers</URI>\n\r\r\r</Grantee>\n\r\r\r<Permission>READ</Permission>\n\r\r</Grant>" +
                  "\n\r</AccessControlList>\n</AccessControlPolicy>\n");
}

TEST(S3Documents, AclParserOrsPermissionsOfEveryGrant)
{
    struct row {
        const char* body;
        int rc;
        uint32_t acl;
    } rows[] = {
        {"<AccessControlPolicy><Owner><ID>x</ID></Owner><AccessControlList>"
         "<Grant><Grantee><ID>a</ID></Grantee><Permission>READ</Permission></Grant>"
         "<Grant><Grantee><ID>b</ID></Grantee><Permission>WRITE_ACP</Permission></Grant>"
         "<Grant><Permission>read</Permission></Grant><Grant><Permission>BOGUS</Permission></Grant>"
         "</AccessControlList></AccessControlPolicy>",
         0, ORBS3_ACL_READ | ORBS3_ACL_WRITE_ACP},
        {"<?xml version=\"1.0\"?><AccessControlPolicy><AccessControlList><Grant><Permission>FULL_CONTROL"
         "</Permission></Grant><Grant><Permission>WRITE</Permission></Grant><Grant><Permission>READ_ACP"
         "</Permission></Grant></AccessControlList></AccessControlPolicy>",
         0, ORBS3_ACL_FULL_CONTROL | ORBS3_ACL_WRITE | ORBS3_ACL_READ_ACP},
        // Group grantees set the group bits, not the owner's permissions.
        {"<AccessControlPolicy><AccessControlList>"
         "<Grant><Grantee xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xsi:type=\"Group\"><URI>"
         "http://acs.amazonaws.com/groups/global/AllUsers</URI></Grantee><Permission>READ</Permission></Grant>"
         "<Grant><Grantee xsi:type=\"Group\"><URI>http://acs.amazonaws.com/groups/global/AllUsers</URI></Grantee>"
         "<Permission>WRITE</Permission></Grant>"
         "<Grant><Grantee xsi:type=\"Group\"><URI>http://acs.amazonaws.com/groups/global/AuthenticatedUsers</URI>"
         "</Grantee><Permission>READ</Permission></Grant>"
         "<Grant><Grantee><ID>o</ID></Grantee><Permission>FULL_CONTROL</Permission></Grant>"
         "</AccessControlList></AccessControlPolicy>",
         0, ORBS3_ACL_FULL_CONTROL | ORBS3_ACL_ALL_USERS_READ | ORBS3_ACL_ALL_USERS_WRITE | ORBS3_ACL_AUTH_USERS_READ},
        {"<AccessControlPolicy><AccessControlList><Grant><Grantee><URI>http://acs.amazonaws.com/groups/s3/LogDelivery"
         "</URI></Grantee><Permission>WRITE</Permission></Grant></AccessControlList></AccessControlPolicy>",
         -1, 0},
        {"<AccessControlPolicy><AccessControlList /></AccessControlPolicy>", 0, 0},
        {"<AccessControlPolicy><Owner /></AccessControlPolicy>", -1, 0},
        {"<AccessControlPolicy><AccessControlList><Grant>", -1, 0},
        {"not xml at all", -1, 0},
        {"", -1, 0},
    };
    for (const row& r : rows) {
        uint32_t acl = 0;
        EXPECT_EQ(parse_bucket_acl_xmlstring(r.body, &acl), r.rc) << r.body;
        EXPECT_EQ(acl, r.acl) << r.body;
    }
    uint32_t acl = 0;
    EXPECT_EQ(parse_bucket_acl_xmlstring(nullptr, &acl), -1);
}

// The multipart replies as the server sends them: one line, texts escaped (the ETag's quotes too), a
// checksum with its element and type, keys URL-encoded when asked, the next page named only when truncated.
TEST(S3Documents, MultipartRepliesHaveTheirLayout)
{
    EXPECT_EQ(take(make_create_multipartupload_xmlstring("bk", "a/b", "u1")),
              kDecl + "\n<InitiateMultipartUploadResult>\n\r<Bucket>bk</Bucket>\n\r<Key>a/b</Key>"
                      "\n\r<UploadId>u1</UploadId>\n</InitiateMultipartUploadResult>\n");
    const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n", ns = " xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">";
    const std::string who = "<ID>id</ID><DisplayName>Al</DisplayName>",
                      ids = "<Initiator>" + who + "</Initiator><Owner>" + who + "</Owner><StorageClass>STANDARD</StorageClass>";
    const std::string done = head + "<CompleteMultipartUploadResult" + ns + "<Location>l</Location><Bucket>b</Bucket>"
                                    "<Key>k&amp;</Key><ETag>&quot;e-2&quot;</ETag>";
    orbs3_list_parts_doc_t parts{"bk", "k<", "u", "id", "Al", 1, 3, 2, true, "CRC32", "COMPOSITE",
                                 {{2, "t", "e2", 7, "", ""}, {3, "t", "e3", 5368709121, "CRC32", "v"}}};
    orbs3_list_uploads_doc_t ups{"bk", "a b/", "/", "a b/m", "", "a b/z+", "u9", 1, true, true,
                                 {{"a b/k&", "u1", "id", "Al", "t"}}, {"a b/d/"}};
    const std::pair<std::string, std::string> rows[] = {
        {orbs3_complete_upload_xml("l", "b", "k&", "e-2", "", ""), done + "</CompleteMultipartUploadResult>"},
        {orbs3_complete_upload_xml("l", "b", "k&", "e-2", "CRC32", "A==-2"),
         done + "<ChecksumCRC32>A==-2</ChecksumCRC32><ChecksumType>COMPOSITE</ChecksumType></CompleteMultipartUploadResult>"},
        {orbs3_complete_upload_xml("l", "b", "k&", "e-2", "CRC32", "A=="),
         done + "<ChecksumCRC32>A==</ChecksumCRC32><ChecksumType>FULL_OBJECT</ChecksumType></CompleteMultipartUploadResult>"},
        {orbs3_copy_part_result_xml("e", "t", "SHA1", "v"),
         head + "<CopyPartResult><ETag>&quot;e&quot;</ETag><LastModified>t</LastModified><ChecksumSHA1>v</ChecksumSHA1>"
                "</CopyPartResult>"},
        {orbs3_list_parts_xml(parts),
         head + "<ListPartsResult" + ns + "<Bucket>bk</Bucket><Key>k&lt;</Key><UploadId>u</UploadId>" + ids +
             "<PartNumberMarker>1</PartNumberMarker><NextPartNumberMarker>3</NextPartNumberMarker><MaxParts>2</MaxParts>"
             "<IsTruncated>true</IsTruncated><ChecksumAlgorithm>CRC32</ChecksumAlgorithm><ChecksumType>COMPOSITE"
             "</ChecksumType><Part><PartNumber>2</PartNumber><LastModified>t</LastModified><ETag>&quot;e2&quot;</ETag>"
             "<Size>7</Size></Part><Part><PartNumber>3</PartNumber><LastModified>t</LastModified><ETag>&quot;e3&quot;"
             "</ETag><Size>5368709121</Size><ChecksumCRC32>v</ChecksumCRC32></Part></ListPartsResult>"},
        {orbs3_list_uploads_xml(ups),
         head + "<ListMultipartUploadsResult" + ns + "<Bucket>bk</Bucket><KeyMarker>a%20b/m</KeyMarker><UploadIdMarker>"
                "</UploadIdMarker><NextKeyMarker>a%20b/z%2B</NextKeyMarker><NextUploadIdMarker>u9</NextUploadIdMarker>"
                "<Delimiter>/</Delimiter><Prefix>a%20b/</Prefix><EncodingType>url</EncodingType><MaxUploads>1"
                "</MaxUploads><IsTruncated>true</IsTruncated><Upload><Key>a%20b/k%26</Key><UploadId>u1</UploadId>" +
             ids + "<Initiated>t</Initiated></Upload><CommonPrefixes><Prefix>a%20b/d/</Prefix></CommonPrefixes>"
                   "</ListMultipartUploadsResult>"},
    };
    for (const auto& [got, want] : rows)
        EXPECT_EQ(got, want);
    parts.checksum_algorithm = "";  // an upload that declared none: only the part's own checksum is shown
    EXPECT_EQ(orbs3_list_parts_xml(parts).find("<Checksum"), orbs3_list_parts_xml(parts).find("<ChecksumCRC32>v"));
    ups.url_encode = ups.truncated = false;
    ups.delimiter = "";
    const std::string plain = orbs3_list_uploads_xml(ups);
    EXPECT_NE(plain.find("<Key>a b/k&amp;</Key>"), std::string::npos);
    EXPECT_NE(plain.find("<NextKeyMarker></NextKeyMarker><NextUploadIdMarker></NextUploadIdMarker>"), std::string::npos);
    for (const char* none : {"<Delimiter>", "<EncodingType>"})
        EXPECT_EQ(plain.find(none), std::string::npos) << none;
}

TEST(S3Documents, CompleteUploadTakesEveryPartAnywhere)
{
    auto pool = new_pool();
    auto [rc, got] = parse_parts("<Whatever><Part><PartNumber>1</PartNumber><ETag>\"a\"</ETag></Part><X><Part><ETag>b c"
                                 "</ETag><PartNumber>99999999999</PartNumber></Part></X><Part /></Whatever>",
                                 pool.get());
    ASSERT_EQ(rc, 0);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0]->part_number, 1);
    EXPECT_STREQ(neo_getstr(&got[0]->etag), "\"a\"");
    EXPECT_EQ(got[1]->part_number, 2147483647);
    EXPECT_STREQ(neo_getstr(&got[1]->etag), "b c");
    EXPECT_EQ(got[2]->part_number, 0);
}

TEST(S3Documents, BatchDeleteReadsKeysAndEchoesThem)
{
    auto pool = new_pool();
    neo_list_head_t list;
    INIT_LIST_HEAD(&list);
    ASSERT_EQ(parse_del_objects_xmlstring("<Delete><Quiet>true</Quiet><Object><Key>a b</Key></Object>"
                                          "<Object><Key>c/d&amp;e</Key><VersionId>1</VersionId></Object></Delete>",
                                          &list, pool.get()),
              0);
    auto got = records<orbs3_del_key_t>(&list);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_STREQ(neo_getstr(&got[0]->key), "a b");
    EXPECT_STREQ(neo_getstr(&got[1]->key), "c/d&e");
    EXPECT_EQ(got[0]->version_id.data, nullptr);
    EXPECT_STREQ(neo_getstr(&got[1]->version_id), "1");

    // The version sent is echoed; a marker made or removed says so, with its id, as S3 orders them.
    got[0]->delete_marker = true;
    got[0]->delete_marker_version_id = S("m1");
    EXPECT_EQ(take(make_del_objects_xmlstring(&list, &list)),
              kDecl + "\n<DeleteResult>\n\r<Deleted>\n\r\r<Key>a b</Key>\n\r\r<DeleteMarker>true</DeleteMarker>"
                      "\n\r\r<DeleteMarkerVersionId>m1</DeleteMarkerVersionId>\n\r</Deleted>\n\r<Deleted>"
                      "\n\r\r<Key>c/d&amp;e</Key>\n\r\r<VersionId>1</VersionId>"
                      "\n\r</Deleted>\n\r<Error>\n\r\r<Key>a b</Key>\n\r</Error>\n\r<Error>\n\r\r<Key>c/d&amp;e</Key>"
                      "\n\r\r<VersionId>1</VersionId>\n\r</Error>\n</DeleteResult>\n");
}

// The bounds of a batch delete: key and version id lengths, the object count, the nesting depth and the
// element count; each taken at its limit and refused one over.
TEST(S3Documents, BatchDeleteLimits)
{
    auto obj = [](const std::string& inner) { return "<Delete><Object>" + inner + "</Object></Delete>"; };
    auto nested = [](int levels) {
        return "<Delete>" + repeat("<W>", levels) + "<Object><Key>k</Key></Object>" + repeat("</W>", levels) +
               "</Delete>";
    };
    auto flood = [](int n) { return "<Delete><Object><Key>k</Key></Object>" + repeat("<X/>", n) + "</Delete>"; };
    const std::string k1023(1023, 'k');
    const struct {
        const char* name;
        std::string body;
        int rc;
        std::size_t first_key_len;  // when taken
    } rows[] = {
        {"version id of 1024", obj("<Key>k</Key><VersionId>" + std::string(1024, 'v') + "</VersionId>"), -1, 0},
        {"key of 1023", obj("<Key>" + k1023 + "</Key>"), 0, 1023},
        {"key of 1024", obj("<Key>" + k1023 + "x</Key>"), -1, 0},
        {"one object too many",
         "<Delete>" + repeat("<Object><Key>k</Key></Object>", static_cast<int>(ORBS3_XML_MAX_DEL_OBJECTS) + 1) + "</Delete>", -1, 0},
        // Within the depth bound the same document is taken; one level more is refused.
        {"29 levels", nested(29), 0, 1},
        {"30 levels", nested(30), -1, 0},
        // A flood of empty elements beside one valid key is refused by the element cap.
        {"few empty elements", flood(10), 0, 1},
        {"flood of empty elements", flood(100000), -1, 0},
    };
    auto pool = new_pool();
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        auto [rc, keys] = parse_del(r.body, pool.get());
        ASSERT_EQ(rc, r.rc);
        if (rc == 0) {
            ASSERT_EQ(keys.size(), 1u);
            EXPECT_EQ(keys[0]->key.len, r.first_key_len);
        }
    }
}

TEST(S3Documents, WritersCutTextsAtTheWorkAreaSize)
{
    const std::string longkey(5000, 'z');
    std::string got = take(make_create_multipartupload_xmlstring("bk", longkey.c_str(), "u"));
    EXPECT_NE(got.find("<Key>" + std::string(ORBS3_XML_TEXT_MAX, 'z') + "</Key>"), std::string::npos);
    EXPECT_EQ(got.find(std::string(ORBS3_XML_TEXT_MAX + 1, 'z')), std::string::npos);

    // Replies beyond the 8 KiB stack buffer come out whole.
    std::vector<orbs3_del_key_t> keys(40);
    neo_list_head_t list;
    INIT_LIST_HEAD(&list);
    for (auto& k : keys) {
        k.key = S(longkey.c_str());
        list_add_tail(&k.link, &list);
    }
    got = take(make_del_objects_xmlstring(&list, nullptr));
    EXPECT_GT(got.size(), 40 * ORBS3_XML_TEXT_MAX);
    EXPECT_EQ(got.substr(got.size() - 17), "\n</DeleteResult>\n");
}

// Every request parser the server calls: the number that took the text.
int parse_all(const char* text, orbs3_pool_t* pool)
{
    neo_list_head_t parts, keys;
    INIT_LIST_HEAD(&parts);
    INIT_LIST_HEAD(&keys);
    uint32_t acl = 0;
    int ok = 0;
    ok += parse_bucket_acl_xmlstring(text, &acl) == 0;
    ok += parse_complete_multipart_upload_xmlstring(text, &parts, pool) == 0;
    ok += parse_del_objects_xmlstring(text, &keys, pool) == 0;
    orbs3_versioning_doc_t versioning;
    ok += parse_bucket_versioning_xmlstring(text, &versioning) == 0;
    int32_t days = 0;
    ok += parse_bucket_recycle_conf_xmlstring(text, &days) == 0;
    orbs3_tag_set_t tags;
    ok += parse_object_tagging_xml(text, &tags) == 0;
    return ok;
}

TEST(S3Documents, HostileBodiesAreRefusedCleanly)
{
    const std::string full =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Delete><Object><Key>abc</Key></Object>"
        "<Object><Key>de</Key></Object></Delete>";
    auto pool = new_pool();
    for (std::size_t n = 0; n < full.size(); ++n) {
        std::string cut = full.substr(0, n);
        // A body cut anywhere inside the root never yields the whole list.
        auto [rc, keys] = parse_del(cut, pool.get());
        if (rc == 0) {
            EXPECT_LT(keys.size(), 2u) << cut;
        }
        parse_all(cut.c_str(), pool.get());
    }

    const std::string deep = std::string(100000, '<') + "a>";
    const std::string nested = repeat("<Object>", 20000), closed = nested + repeat("</Object>", 20000);
    const char* bad[] = {
        "",
        "<",
        "<<<>>>",
        "<Delete><Object><Key>a</Key></Object>",
        "<Delete></Object></Delete>",
        "<a><b></a></b>",
        "<Tagging><TagSet><Tag><Key>k</Key></Tag></TagSet></Tagging><Tagging/>",
        "<!-- only a comment -->",
        "<?xml version=\"1.0\"?>",
        "\xff\xfe<\x00",
        "<a attr=\"unterminated><b/></a>",
        "<a>&unknown;&#99999999999;</a>",
        deep.c_str(),
        nested.c_str(),
        // A stray close tag at the top once made Mini-XML free a node it still held.
        "-C><ETag>\"e1\"</ETag></\xff\xffPart><Part><PartNumber>2</PartNumber></Part>\xff</Com~e>",
        "<a/><b/>",
        // An empty close tag must not close the holder the body loads under.
        "ys>7</>7</Days></Re<RecycleConf></Re<nf><Days>7</Days></RecycleConf>",
        "<RecycleConf></orbs3 body><Days>7</Days></RecycleConf>",
    };
    for (const char* b : bad)
        EXPECT_EQ(parse_all(b, pool.get()), 0) << std::string(b).substr(0, 60);

    // Deep but well-formed: the walk is bounded by the element cap, not by recursion.
    EXPECT_EQ(parse_del(closed, pool.get()).first, -1);

    // A wrong root: the rooted parser refuses.
    uint32_t acl = 0;
    EXPECT_EQ(parse_bucket_acl_xmlstring("<Tagging><TagSet/></Tagging>", &acl), -1);
}

// Texts of the kinds keys, tag values and rule names hold: blanks and tabs anywhere, leading and trailing
// ones, line breaks, markup characters, '+', non-ASCII; fixed cases first, then generated ones.
std::vector<std::string> sample_texts()
{
    std::vector<std::string> out = {"with", "with space/and+plus.txt", "a b", "a", "report 2024.pdf", " leading",
                                    "trailing ", "  ", "\t", "a\tb\nc\r\nd", "&<>\"'", "&amp; is not decoded twice",
                                    "]]>", "\xc3\xa9t\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "x+y=z%20"};
    static const char* pieces[] = {"a", "Z", "0", "/", " ", "  ", "\t", "\n", "\r", "&", "<", ">", "\"", "'", "+", "%",
                                   "=", ";", "&amp;", "]]>", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80"};
    std::mt19937 rng(18);
    for (int i = 0; i < 300; ++i) {
        std::string t;
        const int n = 1 + static_cast<int>(rng() % 24);
        for (int k = 0; k < n; ++k)
            t += pieces[rng() % std::size(pieces)];
        out.push_back(t);
    }
    return out;
}

// The text as clients write it in a document: markup escaped, and each ASCII character at random raw, as a
// decimal or a hex reference; now and then the whole text as a CDATA section.
std::string client_text(const std::string& t, std::mt19937& rng)
{
    if (rng() % 5 == 0 && t.find("]]>") == std::string::npos)
        return "<![CDATA[" + t + "]]>";
    std::string out;
    for (unsigned char c : t) {
        const unsigned form = c < 0x80 ? rng() % 4 : 0;
        if (form == 1)
            out += "&#" + std::to_string(c) + ";";
        else if (form == 2)
            out += "&#x" + std::string(1, "0123456789ABCDEF"[c >> 4]) + "0123456789abcdef"[c & 15] + ";";
        else if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else
            out += static_cast<char>(c);
    }
    return out;
}

std::string str(const orbs3_str_t& s)
{
    return std::string(neo_getstr(&s), s.len);
}

// Every request parser reads back exactly the texts a client sent: batch-delete keys and part ETags.
TEST(S3Documents, EveryParserReadsBackTheWholeTextItWasSent)
{
    const std::vector<std::string> texts = sample_texts();
    std::mt19937 rng(7);
    auto pool = new_pool();
    auto x = [&](const std::string& t) { return client_text(t, rng); };

    std::string del = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                      "<Delete xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">"
                      "<Quiet>false</Quiet>";
    std::string complete = "<CompleteMultipartUpload>";
    for (std::size_t i = 0; i < texts.size(); ++i) {
        del += "<Object><Key>" + x(texts[i]) + "</Key></Object>";
        complete += "<Part><ETag>" + x(texts[i]) + "</ETag><PartNumber>" + std::to_string(i + 1) +
                    "</PartNumber></Part>";
    }
    del += "</Delete>";
    complete += "</CompleteMultipartUpload>";

    auto [del_rc, k] = parse_del(del, pool.get());
    ASSERT_EQ(del_rc, 0);
    ASSERT_EQ(k.size(), texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i)
        EXPECT_EQ(str(k[i]->key), texts[i]) << del;

    auto [parts_rc, p] = parse_parts(complete, pool.get());
    ASSERT_EQ(parts_rc, 0);
    ASSERT_EQ(p.size(), texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i) {
        EXPECT_EQ(str(p[i]->etag), texts[i]);
        EXPECT_EQ(p[i]->part_number, static_cast<int>(i + 1));
    }
}

// A client's XML parser turns a raw carriage return into a line feed and refuses other control bytes, so
// a reply writes them as references; the indentation's own carriage returns stay raw.
TEST(S3Documents, RepliesWriteControlBytesOfTextsAsReferences)
{
    orbs3_del_key_t k{};
    const std::string key = std::string("a\rb\x01") + "c\td\ne \x1f";
    k.key = orbs3_str_t{key.size(), const_cast<char*>(key.c_str())};
    neo_list_head_t list, rows;
    EXPECT_EQ(take(make_del_objects_xmlstring(chain(&list, {&k}), nullptr)),
              kDecl + "\n<DeleteResult>\n\r<Deleted>\n\r\r<Key>a&#13;b&#1;c\td\ne &#31;</Key>\n\r</Deleted>"
                      "\n</DeleteResult>\n");

    orbs3_list_entry_t e{};
    e.key = k.key;
    orbs3_list_doc_t doc;
    doc.bucket = "b";
    doc.prefix = "p\r";
    doc.list = chain(&rows, {&e});
    const std::string listing = take(make_list_objects_xml(&doc));
    EXPECT_NE(listing.find("<Prefix>p&#13;</Prefix>"), std::string::npos) << listing;
    EXPECT_NE(listing.find("<Key>a&#13;b&#1;c\td\ne &#31;</Key>"), std::string::npos) << listing;
}

// Nesting is refused before the loader sees it: a CompleteMultipartUpload 100,000 levels deep took a worker
// thread 13 s to refuse. A real document of 10,000 parts with every checksum still passes.
TEST(S3Documents, DeepOrHugeBodiesAreRefusedBeforeLoading)
{
    auto pool = new_pool();
    const std::string deep = "<CompleteMultipartUpload>" + repeat("<Part>", 100000) +
                             "<PartNumber>1</PartNumber><ETag>e</ETag>" + repeat("</Part>", 100000) +
                             "</CompleteMultipartUpload>";
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(parse_parts(deep, pool.get()).first, -1);
    EXPECT_EQ(parse_all(deep.c_str(), pool.get()), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));

    std::string full = "<CompleteMultipartUpload>";
    for (int i = 1; i <= 10000; ++i)
        full += "<Part><PartNumber>" + std::to_string(i) +
                "</PartNumber><ETag>\"0123456789abcdef0123456789abcdef\"</ETag><ChecksumCRC32>AAAAAA==</ChecksumCRC32>"
                "<ChecksumCRC32C>AAAAAA==</ChecksumCRC32C><ChecksumSHA1>x</ChecksumSHA1><ChecksumSHA256>y"
                "</ChecksumSHA256><ChecksumCRC64NVME>z</ChecksumCRC64NVME></Part>";
    full += "</CompleteMultipartUpload>";
    auto [rc, parts] = parse_parts(full, pool.get());
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(parts.size(), 10000u);
    static_assert(ORBS3_XML_MAX_PARTS == 10000);  // one part more refuses the whole document
    full.insert(full.rfind("</CompleteMultipartUpload>"), "<Part/>");
    EXPECT_EQ(parse_parts(full, pool.get()).first, -1);
}


// The versioning setting a client sends: S3's clients send Status in its own spelling, and anything they
// cannot have meant is refused rather than read as "suspended"; SaveNum is ours and defaults to 10.
TEST(S3Documents, VersioningBodiesParseOrAreRefused)
{
    const std::string ns = " xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"";
    struct row {
        std::string body;
        int rc;
        uint32_t status;
        int32_t save_num;
    };
    auto vc = [](const std::string& inner) {
        return "<VersioningConfiguration>" + inner + "</VersioningConfiguration>";
    };
    const row rows[] = {
        {"<VersioningConfiguration" + ns + "><Status>Enabled</Status></VersioningConfiguration>", 0, 1, 10},
        {vc("<Status>Suspended</Status>"), 0, 0, 10},
        {vc("<Status> eNaBlEd\n</Status>"), 0, 1, 10},
        {vc("<Status>SUSPENDED</Status><SaveNum>3</SaveNum>"), 0, 0, 3},
        {vc("<MfaDelete>Disabled</MfaDelete><Status>Enabled</Status><SaveNum> 0 </SaveNum>"), 0, 1, 0},
        {vc("<Status>Enabled</Status><SaveNum>-2</SaveNum>"), 0, 1, -2},
        {vc("<Status>Enabled</Status><SaveNum>2147483647</SaveNum>"), 0, 1, 2147483647},
        {vc("<Status>bogus</Status>"), -1, 0, 0},
        {vc("<Status></Status>"), -1, 0, 0},
        {vc("<Status>Enabledx</Status>"), -1, 0, 0},
        {vc("<SaveNum>3</SaveNum>"), -1, 0, 0},
        {"<VersioningConfiguration/>", -1, 0, 0},
        {vc("<Status>Enabled</Status><SaveNum>ten</SaveNum>"), -1, 0, 0},
        {vc("<Status>Enabled</Status><SaveNum></SaveNum>"), -1, 0, 0},
        {vc("<Status>Enabled</Status><SaveNum>3x</SaveNum>"), -1, 0, 0},
        {vc("<Status>Enabled</Status><SaveNum>2147483648</SaveNum>"), -1, 0, 0},
        {"<Other>" + vc("<Status>Enabled</Status>") + "</Other>", -1, 0, 0},
        {"<VersioningConfiguration><Status>Enabled</Status>", -1, 0, 0},
        {"", -1, 0, 0},
    };
    for (const row& r : rows) {
        orbs3_versioning_doc_t got{7, 7};
        EXPECT_EQ(parse_bucket_versioning_xmlstring(r.body.c_str(), &got), r.rc) << r.body;
        if (r.rc == 0) {
            EXPECT_EQ(got.status, r.status) << r.body;
            EXPECT_EQ(got.save_num, r.save_num) << r.body;
        } else {
            EXPECT_EQ(got.status, 7u) << "a refused body leaves the setting alone: " << r.body;
        }
    }
}

TEST(S3Documents, VersioningReplyShowsWhatIsSet)
{
    const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<VersioningConfiguration"
                             " xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"";
    struct row {
        uint32_t status;
        int32_t save_num;
        std::string tail;
    } rows[] = {
        {0, 0, "/>"},  // never set
        {1, 10, "><Status>Enabled</Status><SaveNum>10</SaveNum></VersioningConfiguration>"},
        {0, 10, "><Status>Suspended</Status><SaveNum>10</SaveNum></VersioningConfiguration>"},
        {1, 0, "><Status>Enabled</Status></VersioningConfiguration>"},
        {0, -1, "><Status>Suspended</Status></VersioningConfiguration>"},
    };
    for (const row& r : rows)
        EXPECT_EQ(make_bucket_versioning_xmlstring(r.status, r.save_num), head + r.tail) << r.status << r.save_num;
    // What the writer says, the parser reads back.
    orbs3_versioning_doc_t back;
    ASSERT_EQ(parse_bucket_versioning_xmlstring(make_bucket_versioning_xmlstring(1, 4).c_str(), &back), 0);
    EXPECT_EQ(back.status, 1u);
    EXPECT_EQ(back.save_num, 4);
}

TEST(S3Documents, RecycleConfBodiesParseOrAreRefused)
{
    struct row {
        const char* body;
        int rc;
        int32_t days;
    } rows[] = {
        {"<RecycleConf><Days>7</Days></RecycleConf>", 0, 7},
        {"<RecycleConf><Days> 0 </Days></RecycleConf>", 0, 0},
        {"<RecycleConf/>", 0, 0},
        {"<RecycleConf><Days>2147483647</Days></RecycleConf>", 0, 2147483647},
        {"<RecycleConf><Days>-1</Days></RecycleConf>", -1, 0},
        {"<RecycleConf><Days>seven</Days></RecycleConf>", -1, 0},
        {"<RecycleConf><Days></Days></RecycleConf>", -1, 0},
        {"<RecycleConf><Days>99999999999</Days></RecycleConf>", -1, 0},
        {"<Other><RecycleConf><Days>7</Days></RecycleConf></Other>", -1, 0},
        {"<RecycleConf><Days>7</Days>", -1, 0},
        {"", -1, 0},
    };
    for (const row& r : rows) {
        int32_t got = 55;
        EXPECT_EQ(parse_bucket_recycle_conf_xmlstring(r.body, &got), r.rc) << r.body;
        EXPECT_EQ(got, r.rc == 0 ? r.days : 55) << r.body;
    }
    EXPECT_EQ(take(make_bucket_recycle_conf_xmlstring(7)),
              kDecl + "\n<RecycleConf>\n\r<Days>7</Days>\n</RecycleConf>\n");
}

// A version listing: rows in their order with CommonPrefixes last, a marker without size and ETag, a
// content of unknown ETag without one, key texts URL-encoded on request and control bytes as references.
TEST(S3Documents, VersionListLayout)
{
    orbs3_version_row_t rows[4]{};
    rows[0] = {{}, orbs3_version_row_kind::version, true, S("k"), S("null"), S("2026-11-24T10:00:00.000Z"), S("abc"),
               5, S("u"), S("alice")};
    rows[1] = {{}, orbs3_version_row_kind::common_prefix, false, S("a b/"), {}, {}, {}, 0, {}, {}};
    rows[2] = {{}, orbs3_version_row_kind::delete_marker, false, S("k"), S("v2"), S("t2"), S("e"), 9, S("u"), S("alice")};
    rows[3] = {{}, orbs3_version_row_kind::version, false, S("k\x01+"), S("v1"), S("t1"), {}, 7, S("u"), S("alice")};
    neo_list_head_t list;
    orbs3_list_versions_doc_t doc;
    doc.bucket = "b";
    doc.prefix = "k";
    doc.rows = chain(&list, {&rows[0], &rows[1], &rows[2], &rows[3]});
    const std::string owner = "<Owner><ID>u</ID><DisplayName>alice</DisplayName></Owner>";
    EXPECT_EQ(orbs3_list_versions_xml(doc),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ListVersionsResult "
              "xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Name>b</Name><Prefix>k</Prefix><KeyMarker></KeyMarker>"
              "<VersionIdMarker></VersionIdMarker><MaxKeys>1000</MaxKeys><IsTruncated>false</IsTruncated>"
              "<Version><Key>k</Key><VersionId>null</VersionId><IsLatest>true</IsLatest>"
              "<LastModified>2026-11-24T10:00:00.000Z</LastModified><ETag>&quot;abc&quot;</ETag><Size>5</Size>"
              "<StorageClass>STANDARD</StorageClass>" + owner + "</Version>"
              "<DeleteMarker><Key>k</Key><VersionId>v2</VersionId><IsLatest>false</IsLatest>"
              "<LastModified>t2</LastModified>" + owner + "</DeleteMarker>"
              "<Version><Key>k&#1;+</Key><VersionId>v1</VersionId><IsLatest>false</IsLatest>"
              "<LastModified>t1</LastModified><Size>7</Size><StorageClass>STANDARD</StorageClass>" + owner +
              "</Version><CommonPrefixes><Prefix>a b/</Prefix></CommonPrefixes></ListVersionsResult>");
    // Truncated: the next markers, the id only when the page ended on a version; encoded texts.
    doc.truncated = true;
    doc.url_encode = true;
    doc.delimiter = "/";
    doc.key_marker = "a b";
    doc.next_key_marker = "k\x01+";
    doc.next_version_id_marker = "v1";
    std::string got = orbs3_list_versions_xml(doc);
    for (const char* part : {"<KeyMarker>a%20b</KeyMarker>", "<Delimiter>/</Delimiter><EncodingType>url</EncodingType>"
                             "<IsTruncated>true</IsTruncated><NextKeyMarker>k%01%2B</NextKeyMarker>"
                             "<NextVersionIdMarker>v1</NextVersionIdMarker>",
                             "<Key>k%01%2B</Key>", "<Prefix>a%20b/</Prefix>"})
        EXPECT_NE(got.find(part), std::string::npos) << part << "\n" << got;
    doc.next_version_id_marker = {};
    got = orbs3_list_versions_xml(doc);
    EXPECT_EQ(got.find("NextVersionIdMarker"), std::string::npos) << got;
}



std::string tag_text(const orbs3_tag_set_t& tags)
{
    std::string out;
    for (const orbs3_tag_pair_t& t : tags)
        out += "[" + t.key + "=" + t.value + "]";
    return out;
}

std::string tagging_body(const std::string& tags)
{
    return "<Tagging xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><TagSet>" + tags + "</TagSet></Tagging>";
}

// A parsed tagging input: the parser's result, then its texts (when given) and the limits' verdict.
void expect_tags(int got_rc, const orbs3_tag_set_t& tags, int rc, const char* parsed, bool valid)
{
    ASSERT_EQ(got_rc, rc);
    if (rc != 0)
        return;
    if (parsed != nullptr) {
        EXPECT_EQ(tag_text(tags), parsed);
    }
    EXPECT_EQ(orbs3_tag_set_valid(tags), valid);
}

std::string tag_elems(int n)
{
    std::string d;
    for (int i = 0; i < n; ++i)
        d += "<Tag><Key>k" + std::to_string(i) + "</Key><Value>v</Value></Tag>";
    return d;
}

}  // namespace

// A Tagging body: parsed texts whole, refused when it is no tag set, then judged by S3's limits, which
// count characters of UTF-8, not bytes.
TEST(S3Documents, TaggingBodiesParseAndAreJudgedByTheLimits)
{
    const std::string e_acute = "\xc3\xa9";   // two bytes, one character
    const std::string g_clef = "\xf0\x9d\x84\x9e";  // four bytes, one character
    struct row {
        const char* name;
        std::string body;
        int rc;
        const char* parsed;  // tag_text of the result when rc is 0
        bool valid;
    };
    const row rows[] = {
        {"two tags in order", tagging_body("<Tag><Key>b</Key><Value>2</Value></Tag><Tag><Key>a</Key><Value>1</Value></Tag>"),
         0, "[b=2][a=1]", true},
        {"empty set", tagging_body(""), 0, "", true},
        {"blanks kept", tagging_body("<Tag><Key> k </Key><Value> v w </Value></Tag>"), 0, "[ k = v w ]", true},
        {"missing value is empty", tagging_body("<Tag><Key>k</Key></Tag>"), 0, "[k=]", true},
        {"entities decoded", tagging_body("<Tag><Key>a&amp;b</Key><Value>&lt;x&gt;</Value></Tag>"), 0, "[a&b=<x>]", true},
        {"ten tags", tagging_body(tag_elems(10)), 0, nullptr, true},
        {"eleven tags", tagging_body(tag_elems(11)), 0, nullptr, false},
        {"empty key", tagging_body("<Tag><Key></Key><Value>v</Value></Tag>"), 0, "[=v]", false},
        {"same key twice", tagging_body("<Tag><Key>k</Key><Value>1</Value></Tag><Tag><Key>k</Key><Value>2</Value></Tag>"),
         0, "[k=1][k=2]", false},
        {"key of 128", tagging_body("<Tag><Key>" + std::string(128, 'k') + "</Key></Tag>"), 0, nullptr, true},
        {"key of 129", tagging_body("<Tag><Key>" + std::string(129, 'k') + "</Key></Tag>"), 0, nullptr, false},
        {"key of 128 two-byte chars", tagging_body("<Tag><Key>" + repeat(e_acute, 128) + "</Key></Tag>"), 0, nullptr, true},
        {"value of 256 four-byte chars",
         tagging_body("<Tag><Key>k</Key><Value>" + repeat(g_clef, 256) + "</Value></Tag>"), 0, nullptr, true},
        {"value of 257 four-byte chars",
         tagging_body("<Tag><Key>k</Key><Value>" + repeat(g_clef, 257) + "</Value></Tag>"), 0, nullptr, false},
        {"value of 257", tagging_body("<Tag><Key>k</Key><Value>" + std::string(257, 'v') + "</Value></Tag>"), 0,
         nullptr, false},
        {"tag without key", tagging_body("<Tag><Value>v</Value></Tag>"), -1, nullptr, false},
        {"no tag set", "<Tagging><Tag><Key>k</Key></Tag></Tagging>", -1, nullptr, false},
        {"other root", "<TagSet><Tag><Key>k</Key></Tag></TagSet>", -1, nullptr, false},
        {"cut short", tagging_body("<Tag><Key>k</Key>").substr(0, 40), -1, nullptr, false},
        {"flood of tags", tagging_body(tag_elems(1001)), -1, nullptr, false},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        orbs3_tag_set_t tags;
        expect_tags(parse_object_tagging_xml(r.body.c_str(), &tags), tags, r.rc, r.parsed, r.valid);
    }
}

// x-amz-tagging is a URL-encoded form: '+' and %20 are blanks, '=' and '&' inside texts come encoded.
TEST(S3Documents, TaggingHeaderDecodesTheForm)
{
    struct row {
        const char* header;
        int rc;
        const char* parsed;
        bool valid;
    };
    const row rows[] = {
        {"a=1&b=2", 0, "[a=1][b=2]", true},
        {"", 0, "", true},
        {"k", 0, "[k=]", true},
        {"k=", 0, "[k=]", true},
        {"a%3Db=c%26d", 0, "[a=b=c&d]", true},
        {"sp+ace=x%20y", 0, "[sp ace=x y]", true},
        {"k=%C3%A9", 0, "[k=\xc3\xa9]", true},
        {"a=1&a=2", 0, "[a=1][a=2]", false},
        {"=v", -1, nullptr, false},
        {"a=1&&b=2", -1, nullptr, false},
        {"k=%4", -1, nullptr, false},
        {"k=%zz", -1, nullptr, false},
        {"k=%", -1, nullptr, false},
        {"k0=&k1=&k2=&k3=&k4=&k5=&k6=&k7=&k8=&k9=&k10=", 0, nullptr, false},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.header);
        orbs3_tag_set_t tags;
        expect_tags(parse_object_tagging_header(r.header, &tags), tags, r.rc, r.parsed, r.valid);
    }
}

TEST(S3Documents, TaggingReplyEscapesTextsAndReadsBack)
{
    const orbs3_tag_set_t tags = {{"a<&>", " v\r"}, {"k", ""}};
    const std::string doc = make_object_tagging_xml(tags);
    EXPECT_EQ(doc, "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Tagging xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">"
                   "<TagSet><Tag><Key>a&lt;&amp;&gt;</Key><Value> v&#13;</Value></Tag><Tag><Key>k</Key><Value></Value>"
                   "</Tag></TagSet></Tagging>");
    orbs3_tag_set_t back;
    ASSERT_EQ(parse_object_tagging_xml(doc.c_str(), &back), 0);
    EXPECT_EQ(tag_text(back), tag_text(tags));
    EXPECT_EQ(make_object_tagging_xml({}), "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Tagging "
                                           "xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><TagSet></TagSet></Tagging>");
}
