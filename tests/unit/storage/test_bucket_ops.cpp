#include "storage/orbs3_bucket_ops.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "control/orbs3_service.h"
#include "core/orbs3_config.h"
#include "http/orbs3_http_request_body.h"
#include "http/http_test_request.h"
#include "s3/orbs3_s3_errors.h"
#include "socketpair_connection.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_record.h"
#include "storage/storage_fixture.h"

namespace fs = std::filesystem;
using namespace storage_test;

namespace {

// The body of a reply: what follows the blank line of its head.
std::string body_of(const std::string& reply)
{
    std::size_t end = reply.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : reply.substr(end + 4);
}

struct user_deleter {
    void operator()(orbs3_user_t* u) const { orbs3_free_user_data(u); }
};
using user_ptr = std::unique_ptr<orbs3_user_t, user_deleter>;

using handler_t = int (*)(orbs3_http_request_t*);

// What a handler left behind: its result, the bytes that reached the client, the error resource.
struct outcome {
    int rc = -100;
    std::string reply;
    std::string resource;
};

// A handler that answered the client itself with `status` ("200 OK", "204 No Content").
void expect_answered(const outcome& o, const char* status = "200 OK")
{
    EXPECT_EQ(o.rc, 0) << o.resource;
    EXPECT_TRUE(o.reply.starts_with(std::string("HTTP/1.1 ") + status)) << o.reply;
}

// A refusal left to the error path: its code, the resource it names when given, and nothing sent yet.
void expect_refused(const outcome& o, int rc, const char* resource = nullptr)
{
    EXPECT_EQ(o.rc, rc);
    if (resource != nullptr) {
        EXPECT_EQ(o.resource, resource);
    }
    EXPECT_TRUE(o.reply.empty()) << o.reply;
}

class BucketOps : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(vh_, nullptr);
        neo_strdup(&vh_->domain, "s3.example", ORBS3_NAME_CAP);
        ASSERT_EQ(tenant_.roots(), 0);
        data_ = tenant_.data_root();
        meta_ = tenant_.meta_root();
        version_ = tenant_.version_root();
        recycle_ = tenant_.recycle_root();
        // A loaded service record without lists in force.
        vh_->service_rec = orbs3_get_service((tenant_.dir.path + "/no-service-file").c_str());
        ASSERT_NE(vh_->service_rec, nullptr);

        neo_strdup(&vh_->admin.UserId, "u-admin", ORBS3_NAME_CAP);
        neo_strdup(&vh_->admin.DisPlayName, "root", ORBS3_NAME_CAP);
        neo_strdup(&vh_->admin.accesskeyid, "ADMINKEY", ORBS3_KEY_CAP);
        vh_->admin.is_admin = 1;
        alice_.reset(make_user("u-alice", "alice"));
        bob_.reset(make_user("u-bob", "bob"));
        ASSERT_NE(alice_, nullptr);
        ASSERT_NE(bob_, nullptr);
    }

    static orbs3_user_t* make_user(const char* id, const char* name)
    {
        orbs3_user_t* u = orbs3_user_new();
        if (u == nullptr)
            return nullptr;
        neo_strdup(&u->UserId, id, ORBS3_NAME_CAP);
        neo_strdup(&u->DisPlayName, name, ORBS3_NAME_CAP);
        return u;
    }

    // Runs a handler for `user` on a request naming `bucket`; `prepare` may add to the request.
    outcome call(handler_t h, orbs3_user_t* user, std::string_view bucket,
                 const std::function<void(orbs3_http_request_t*)>& prepare = {})
    {
        outcome out;
        http_test::test_request t("");
        unit_test::socketpair_connection sp;
        if (t.r == nullptr || sp.c == nullptr)
            return out;
        orbs3_http_request_t* r = t.r;
        r->connection = sp.c;
        r->vhost = vh_;
        r->user = user;
        r->req_msg.bucket = pool_text(r->pool, bucket);
        std::memcpy(r->resp.connection, "keep-alive", sizeof "keep-alive");
        if (prepare)
            prepare(r);
        out.rc = h(r);
        out.reply = sp.drain();
        out.resource = r->resp.resource;
        return out;
    }

    void put_ok(orbs3_user_t* user, const std::string& name)
    {
        SCOPED_TRACE(name);
        expect_answered(call(orbs3_put_bucket, user, name));
    }

    std::vector<std::string> bucket_paths(const std::string& owner, const std::string& name) const
    {
        return {data_ + "/" + owner + "/" + name, meta_ + "/" + owner + "/bucket/" + name,
                meta_ + "/" + owner + "/object/" + name, version_ + "/" + owner + "/" + name,
                recycle_ + "/" + owner + "/" + name};
    }

    std::string record_path(const std::string& owner, const std::string& name) const
    {
        return meta_ + "/" + owner + "/bucket/" + name;
    }

    bucket_ptr record(const std::string& owner, const std::string& name) const
    {
        return bucket_ptr(orbs3_create_bucket_from_file(record_path(owner, name).c_str()));
    }

    // Changes the bucket's record on disk through a copy, as a handler would.
    void edit(const std::string& name, const std::function<void(orbs3_bucket_t*)>& change)
    {
        bucket_ptr b(orbs3_get_bucket(vh_, alice_.get(), name));
        ASSERT_NE(b, nullptr) << name;
        change(b.get());
        ASSERT_EQ(orbs3_bucket_init_path(vh_, nullptr, b.get(), name), 0);
        ASSERT_EQ(orbs3_save_bucket(b.get(), b->meta_file.data), 0);
    }

    // A document body in the request pool, as the body reader leaves a complete one.
    // full: the text ends exactly at the end of its buffer, without room for a terminator.
    static void set_body(orbs3_http_request_t* r, std::string_view text, bool full = false)
    {
        auto* rb = static_cast<orbs3_http_request_body_t*>(orbs3_pcalloc(r->pool, sizeof(orbs3_http_request_body_t)));
        orbs3_str_t data = pool_text(r->pool, text);
        ASSERT_NE(rb, nullptr);
        ASSERT_NE(data.data, nullptr);
        rb->pool = r->pool;
        rb->ended = 1;
        rb->buf = http_test::make_buf(r->pool, reinterpret_cast<uint8_t*>(data.data), text.size() + (full ? 0 : 1),
                                   text.size());
        r->request_body = rb;
    }

    static void set_copy_source(orbs3_http_request_t* r, std::string_view old_name)
    {
        auto* h = static_cast<orbs3_header_t*>(orbs3_pcalloc(r->pool, sizeof(orbs3_header_t)));
        ASSERT_NE(h, nullptr);
        h->value = pool_text(r->pool, old_name);
        r->headers_in.x_copy_source = h;
    }

    storage_test::conf_limits limits_;
    storage_test::temp_tenant tenant_;
    orbs3_vhost_t* vh_ = tenant_.vh;
    std::string data_, meta_, version_, recycle_;
    user_ptr alice_, bob_;
};

TEST_F(BucketOps, PutBucketMakesFiveEntriesAndAWholeRecord)
{
    outcome o = call(orbs3_put_bucket, alice_.get(), "photos");
    expect_answered(o);
    EXPECT_NE(o.reply.find("Location:/photos"), std::string::npos) << o.reply;
    EXPECT_EQ(vh_->bucket_count.load(), 1);

    for (const std::string& p : bucket_paths("alice", "photos"))
        EXPECT_TRUE(fs::exists(p)) << p;
    EXPECT_TRUE(fs::is_directory(data_ + "/alice/photos"));
    EXPECT_TRUE(fs::is_regular_file(record_path("alice", "photos")));

    bucket_ptr b = record("alice", "photos");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(str(b->name), "photos");
    EXPECT_EQ(str(b->owner_name), "alice");
    EXPECT_EQ(str(b->owner_id), "u-alice");
    EXPECT_EQ(str(b->extranet_endpoint), "photos.s3.example/");
    EXPECT_EQ(b->acl, ORBS3_ACL_FULL_CONTROL);
    EXPECT_NE(read_file(record_path("alice", "photos")).find("acl=\"1\""), std::string::npos);
    EXPECT_FALSE(str(b->created_date).empty());

    // The name space is shared: neither the owner nor anyone else gets the name again (the owner is told
    // it is its own), and the refused request leaves nothing of its own behind.
    for (orbs3_user_t* u : {alice_.get(), bob_.get()}) {
        SCOPED_TRACE(str(u->DisPlayName));
        expect_refused(call(orbs3_put_bucket, u, "photos"),
                       u == alice_.get() ? ORBS3_S3_BUCKET_ALREADY_OWNED_BY_YOU : ORBS3_S3_BUCKET_ALREADY_EXISTS, "photos");
    }
    EXPECT_FALSE(fs::exists(data_ + "/bob/photos"));
    EXPECT_TRUE(fs::exists(data_ + "/alice/photos"));
    EXPECT_EQ(vh_->bucket_count.load(), 1);
}

TEST_F(BucketOps, PutBucketRefusesIllegalNamesWithoutTouchingTheTrees)
{
    const std::string too_long(64, 'x');
    for (std::string_view name : {std::string_view(""), std::string_view("."), std::string_view(".."),
                                  std::string_view("a/b"), std::string_view(too_long),
                                  std::string_view("nul\0x", 5)}) {
        SCOPED_TRACE(name);
        expect_refused(call(orbs3_put_bucket, alice_.get(), name), ORBS3_S3_INVALID_BUCKET_NAME);
    }
    EXPECT_FALSE(fs::exists(data_ + "/alice"));
    EXPECT_FALSE(fs::exists(meta_ + "/alice"));
    EXPECT_EQ(vh_->bucket_count.load(), 0);

    // An owner whose name can't be a directory holds no bucket, and nothing is made for it.
    user_ptr dots(make_user("u-dots", ".."));
    expect_refused(call(orbs3_put_bucket, dots.get(), "fine"), ORBS3_S3_INTERNAL_ERROR);
    EXPECT_FALSE(fs::exists(data_ + "/fine"));
    EXPECT_FALSE(fs::exists(str(vh_->data_root) + "/../fine"));
    EXPECT_EQ(orbs3_check_bucket_exist(vh_, alice_.get(), "fine"), -1);

    // The longest legal name is fine.
    put_ok(alice_.get(), std::string(63, 'y'));
}

TEST(BucketNames, NewNamesFollowS3Rules)
{
    const struct {
        std::string_view name;
        bool creatable;
    } cases[] = {
        {"abc", true},           {"a-b.c9", true},          {"1bucket", true},        {"my.bucket.name", true},
        {"192.168.5.4x", true},  {"10.1.2", true},          {"ab", false},            {"", false},
        {"Abc", false},          {"a_bc", false},           {"a bc", false},          {"-abc", false},
        {"abc-", false},         {".abc", false},           {"abc.", false},          {"a..b", false},
        {"a.-b", false},         {"a-.b", false},           {"192.168.5.4", false},   {"1.2.3.4", false},
        {"xn--abc", false},      {"sthree-abc", false},     {"abc-s3alias", false},   {"abc--ol-s3", false},
        {"a/b", false},          {"caf\xc3\xa9", false},  {std::string_view("ab\0c", 4), false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(orbs3_bucket_name_creatable(c.name), c.creatable) << c.name;
    EXPECT_TRUE(orbs3_bucket_name_creatable(std::string(63, 'a')));
    EXPECT_FALSE(orbs3_bucket_name_creatable(std::string(64, 'a')));
}

TEST_F(BucketOps, PutBucketStopsAtMaxBucketAndZeroMeansNoLimit)
{
    vh_->service_rec->quota.max_bucket = 2;
    put_ok(alice_.get(), "one");
    put_ok(bob_.get(), "two");
    expect_refused(call(orbs3_put_bucket, alice_.get(), "three"), ORBS3_S3_BUCKET_TOO_MUCH);
    EXPECT_FALSE(fs::exists(data_ + "/alice/three"));
    EXPECT_EQ(vh_->bucket_count.load(), 2);

    // Deleting one frees a place.
    expect_answered(call(orbs3_del_bucket, alice_.get(), "one"), "204 No Content");
    put_ok(alice_.get(), "three");

    vh_->service_rec->quota.max_bucket = 0;
    put_ok(alice_.get(), "four");
    put_ok(alice_.get(), "five");
    EXPECT_EQ(vh_->bucket_count.load(), 4);
}

TEST_F(BucketOps, ClaimOfOneNameByTwoOwnersNeverLetsBothWin)
{
    auto make = [&](const char* owner) {
        bucket_ptr b(orbs3_bucket_new());
        if (b) {
            b->name = pool_text(b->pool, "shared");
            b->owner_name = pool_text(b->pool, owner);
            if (orbs3_bucket_init_path(vh_, nullptr, b.get(), "shared") != 0)
                b.reset();
        }
        return b;
    };
    bucket_ptr a = make("alice");
    bucket_ptr b = make("bob");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    // Where a winner writes its record, as PutBucket makes it.
    for (const orbs3_bucket_t* x : {a.get(), b.get()})
        fs::create_directories(fs::path(neo_getstr(&x->meta_file)).parent_path());
    const std::string a_dir = str(a->data_dir), b_dir = str(b->data_dir);

    // Taken by one owner: refused for the other, whose directory goes again, and for the owner itself,
    // whose directory stays.
    ASSERT_EQ(orbs3_claim_bucket_name(vh_, a.get()), 0);
    EXPECT_EQ(orbs3_claim_bucket_name(vh_, b.get()), ORBS3_S3_BUCKET_ALREADY_EXISTS);
    EXPECT_FALSE(fs::exists(b_dir));
    EXPECT_EQ(orbs3_claim_bucket_name(vh_, a.get()), ORBS3_S3_BUCKET_ALREADY_OWNED_BY_YOU);
    EXPECT_TRUE(fs::is_directory(a_dir));
    ASSERT_TRUE(fs::remove(a_dir));

    // Held by an owner that sorts after the taker: with its record the name is its own; without one (it
    // ended half way) the taker waits for it to give way, then gives up.
    ASSERT_EQ(orbs3_claim_bucket_name(vh_, b.get()), 0);
    std::ofstream(neo_getstr(&b->meta_file)) << "record";
    EXPECT_EQ(orbs3_claim_bucket_name(vh_, a.get()), ORBS3_S3_BUCKET_ALREADY_EXISTS);
    EXPECT_FALSE(fs::exists(a_dir));
    ASSERT_TRUE(fs::remove(neo_getstr(&b->meta_file)));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(orbs3_claim_bucket_name(vh_, a.get()), ORBS3_S3_BUCKET_ALREADY_EXISTS);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_FALSE(fs::exists(a_dir));
    EXPECT_TRUE(fs::is_directory(b_dir));
    ASSERT_TRUE(fs::remove(b_dir));

    constexpr int kRounds = 200;
    int a_wins = 0, b_wins = 0, both_lost = 0;
    for (int round = 0; round < kRounds; round++) {
        std::atomic<int> ready{0};
        int ra = -1, rb = -1;
        auto racer = [&](orbs3_bucket_t* mine, int* rc) {
            ready.fetch_add(1);
            while (ready.load() < 2) {
            }
            *rc = orbs3_claim_bucket_name(vh_, mine);
            // A winner goes on to write its record, as PutBucket does.
            if (*rc == 0)
                std::ofstream(neo_getstr(&mine->meta_file)) << "record";
        };
        std::thread ta(racer, a.get(), &ra);
        std::thread tb(racer, b.get(), &rb);
        ta.join();
        tb.join();
        ASSERT_FALSE(ra == 0 && rb == 0) << "round " << round;
        for (int rc : {ra, rb})
            ASSERT_TRUE(rc == 0 || rc == ORBS3_S3_BUCKET_ALREADY_EXISTS) << rc;
        // Only the winner's directory remains.
        ASSERT_EQ(fs::exists(a_dir), ra == 0) << "round " << round;
        ASSERT_EQ(fs::exists(b_dir), rb == 0) << "round " << round;
        a_wins += ra == 0;
        b_wins += rb == 0;
        both_lost += ra != 0 && rb != 0;
        std::error_code ec;
        for (const orbs3_bucket_t* x : {a.get(), b.get()}) {
            fs::remove(neo_getstr(&x->data_dir), ec);
            fs::remove(neo_getstr(&x->meta_file), ec);
        }
    }
    // Owners that take a name at the same moment settle it among themselves: every round has its winner.
    // Which owner wins is the scheduler's choice: on a busy machine one thread may win every round.
    EXPECT_EQ(both_lost, 0) << a_wins << " " << b_wins;
}

TEST_F(BucketOps, DeleteBucketRefusesObjectsAndRemovesEverythingOfAnEmptyBucket)
{
    put_ok(alice_.get(), "full");
    put_ok(alice_.get(), "dirobj");
    put_ok(alice_.get(), "empty");
    ASSERT_EQ(vh_->bucket_count.load(), 3);
    write_file(data_ + "/alice/full/key", "x");
    ASSERT_TRUE(fs::create_directory(data_ + "/alice/dirobj/folder"));

    // An object of either kind keeps the bucket, whole.
    for (const char* name : {"full", "dirobj"}) {
        expect_refused(call(orbs3_del_bucket, alice_.get(), name), ORBS3_S3_BUCKET_NOT_EMPTY, name);
        for (const std::string& p : bucket_paths("alice", name))
            EXPECT_TRUE(fs::exists(p)) << p;
    }
    EXPECT_TRUE(fs::exists(data_ + "/alice/full/key"));

    // A version or a delete marker (a record alone), however deep, keeps the bucket too.
    for (const char* left : {"/alice/empty/a/b/k..2026_11_24_18_00_01-00000100000001",
                             "/alice/empty/.orbs3-v-k..2026_11_24_18_00_01-00000100000002"}) {
        write_file(version_ + left, "v");
        SCOPED_TRACE(left);
        expect_refused(call(orbs3_del_bucket, alice_.get(), "empty"), ORBS3_S3_BUCKET_NOT_EMPTY);
        fs::remove(version_ + left);
    }
    // A left-over temporary of a record replace, recycled copies and empty directories of the version
    // tree are not objects.
    write_file(data_ + "/alice/empty/" + std::string(ORBS3_RECORD_TMP_PREFIX) + "123", "t");
    write_file(version_ + "/alice/empty/sub/" + std::string(ORBS3_RECORD_TMP_PREFIX) + "9", "t");
    write_file(recycle_ + "/alice/empty/recycled", "r");
    ASSERT_TRUE(fs::create_directories(version_ + "/alice/empty/sub/dir"));
    expect_answered(call(orbs3_del_bucket, alice_.get(), "empty"), "204 No Content");
    for (const std::string& p : bucket_paths("alice", "empty"))
        EXPECT_FALSE(fs::exists(p)) << p;
    EXPECT_EQ(vh_->bucket_count.load(), 2);
    EXPECT_EQ(orbs3_check_bucket_exist(vh_, alice_.get(), "empty"), -1);

    // Gone now, and never there.
    for (const char* name : {"empty", "never"})
        expect_refused(call(orbs3_del_bucket, alice_.get(), name), ORBS3_S3_NO_SUCH_BUCKET, name);
    expect_refused(call(orbs3_del_bucket, alice_.get(), ""), ORBS3_S3_INVALID_BUCKET_NAME);
    EXPECT_EQ(vh_->bucket_count.load(), 2);

    // The name is free for another owner again.
    put_ok(bob_.get(), "empty");
}

TEST_F(BucketOps, ListBucketsShowsOwnBucketsAndEveryOwnersToTheAdmin)
{
    put_ok(alice_.get(), "a-one");
    put_ok(alice_.get(), "a-two");
    put_ok(bob_.get(), "b-one");
    auto names = [](const std::string& reply) {
        std::vector<std::string> out;
        for (std::size_t pos = reply.find("<Name>"); pos != std::string::npos; pos = reply.find("<Name>", pos + 1)) {
            std::size_t end = reply.find("</Name>", pos);
            out.push_back(reply.substr(pos + 6, end - pos - 6));
        }
        std::sort(out.begin(), out.end());
        return out;
    };

    user_ptr carol(make_user("u-carol", "carol"));  // without a directory: an empty list, not an error
    const struct {
        orbs3_user_t* user;
        std::vector<std::string> names;
    } rows[] = {
        {alice_.get(), {"a-one", "a-two"}},
        {bob_.get(), {"b-one"}},
        {&vh_->admin, {"a-one", "a-two", "b-one"}},
        {carol.get(), {}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(str(r.user->DisPlayName));
        outcome o = call(orbs3_list_buckets, r.user, "");
        expect_answered(o);
        EXPECT_NE(o.reply.find("<ListAllMyBucketsResult>"), std::string::npos) << o.reply;
        EXPECT_EQ(names(o.reply), r.names);
    }
}

TEST_F(BucketOps, BucketInfoAndStatAnswerInJson)
{
    put_ok(alice_.get(), "info");
    edit("info", [](orbs3_bucket_t* b) {
        b->stat.storage_in_bytes = 123456789012ull;
        b->stat.object_count = 42;
        b->stat.multipart_upload_count = 3;
    });
    const std::string text = read_file(record_path("alice", "info"));
    ASSERT_FALSE(text.empty());

    outcome o = call(orbs3_get_bucket_info, bob_.get(), "info");
    expect_answered(o);
    EXPECT_EQ(body_of(o.reply), text);

    o = call(orbs3_get_bucket_stat, bob_.get(), "info");
    expect_answered(o);
    EXPECT_EQ(body_of(o.reply),
              "{\"result\":{\"stat\":{\"storage_in_bytes\":123456789012,\"object_count\":42,"
              "\"multipart_upload_count\":3}}}");

    // Their failures are answered here, in JSON, never handed to the XML error path.
    for (handler_t h : {orbs3_get_bucket_info, orbs3_get_bucket_stat}) {
        o = call(h, alice_.get(), "missing");
        expect_answered(o, "404");
        EXPECT_EQ(body_of(o.reply), "{\"error_code\":\"NoSuchBucket\",\"error_msg\":\"bucket does not exist\"}");

        o = call(h, alice_.get(), "a/b");
        expect_answered(o);
        EXPECT_EQ(body_of(o.reply), "");
    }

    // A record cut short reads as no bucket.
    write_file(record_path("alice", "info"), text.substr(0, text.size() / 2));
    o = call(orbs3_get_bucket_info, alice_.get(), "info");
    EXPECT_TRUE(o.reply.starts_with("HTTP/1.1 404")) << o.reply;
}

TEST_F(BucketOps, BucketAclIsStoredAsItsMaskAndReadBack)
{
    put_ok(alice_.get(), "acl");
    const std::string grant_rw =
        "<AccessControlPolicy><Owner><ID>x</ID></Owner><AccessControlList>"
        "<Grant><Grantee><ID>a</ID></Grantee><Permission>READ</Permission></Grant>"
        "<Grant><Grantee><ID>b</ID></Grantee><Permission>WRITE</Permission></Grant>"
        "</AccessControlList></AccessControlPolicy>";
    auto put_acl = [&](const char* bucket, const std::string& body, bool full = false) {
        return call(orbs3_put_bucket_acl, alice_.get(), bucket,
                    [&](orbs3_http_request_t* r) { set_body(r, body, full); });
    };
    auto stored_acl = [&] {
        bucket_ptr b = record("alice", "acl");
        EXPECT_NE(b, nullptr);
        return b ? b->acl : ~0u;
    };
    expect_answered(put_acl("acl", grant_rw));
    EXPECT_EQ(stored_acl(), ORBS3_ACL_READ | ORBS3_ACL_WRITE);
    EXPECT_NE(read_file(record_path("alice", "acl")).find("acl=\"272\""), std::string::npos);

    outcome o = call(orbs3_get_bucket_acl, alice_.get(), "acl");
    expect_answered(o);
    EXPECT_NE(o.reply.find("<Permission>READ</Permission>"), std::string::npos) << o.reply;
    EXPECT_NE(o.reply.find("<Permission>WRITE</Permission>"), std::string::npos) << o.reply;
    EXPECT_EQ(o.reply.find("FULL_CONTROL"), std::string::npos) << o.reply;

    // No known permission (a malformed ACL), or no body and no ACL headers: the stored mask stays.
    expect_refused(put_acl("acl", "<AccessControlPolicy><AccessControlList><Grant><Permission>BOGUS</Permission>"
                                  "</Grant></AccessControlList></AccessControlPolicy>"),
                   ORBS3_S3_MALFORMED_ACL_ERROR, "acl");
    expect_refused(call(orbs3_put_bucket_acl, alice_.get(), "acl"), ORBS3_S3_MISSING_REQUEST_BODY);
    EXPECT_EQ(stored_acl(), ORBS3_ACL_READ | ORBS3_ACL_WRITE);

    // A document that fills its buffer to the last byte reads the same.
    expect_answered(put_acl("acl", "<AccessControlPolicy><AccessControlList><Grant><Permission>READ_ACP"
                                   "</Permission></Grant></AccessControlList></AccessControlPolicy>", true));
    EXPECT_EQ(stored_acl(), ORBS3_ACL_READ_ACP);

    expect_refused(put_acl("nope", grant_rw), ORBS3_S3_NO_SUCH_BUCKET);
    expect_refused(call(orbs3_get_bucket_acl, alice_.get(), "nope"), ORBS3_S3_NO_SUCH_BUCKET, "nope");
}

TEST_F(BucketOps, RenameChangesOnlyTheRecordsName)
{
    put_ok(alice_.get(), "old");
    auto rename = [&](const char* bucket, const char* old_name) {
        return call(orbs3_put_bucket_rename, alice_.get(), bucket,
                    [&](orbs3_http_request_t* r) { set_copy_source(r, old_name); });
    };
    expect_answered(rename("new", "old"));

    bucket_ptr b(orbs3_get_bucket(vh_, alice_.get(), "old"));
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(str(b->name), "new");
    for (const std::string& p : bucket_paths("alice", "old"))
        EXPECT_TRUE(fs::exists(p)) << p;
    for (const std::string& p : bucket_paths("alice", "new"))
        EXPECT_FALSE(fs::exists(p)) << p;
    EXPECT_EQ(orbs3_get_bucket(vh_, alice_.get(), "new"), nullptr);

    // The listing shows the new name.
    const std::string listing = call(orbs3_list_buckets, alice_.get(), "").reply;
    EXPECT_NE(listing.find("<Name>new</Name>"), std::string::npos) << listing;

    expect_refused(rename("other", "gone"), ORBS3_S3_NO_SUCH_BUCKET, "gone");
    // Without the header, or with an unsafe old name, there is nothing to rename.
    expect_refused(call(orbs3_put_bucket_rename, alice_.get(), "other"), ORBS3_S3_INVALID_BUCKET_NAME, "other");
    expect_refused(rename("other", "../old"), ORBS3_S3_INVALID_BUCKET_NAME);
}

TEST_F(BucketOps, BucketAuthorityListRefusesUsersWithoutARuleButNotTheAdmin)
{
    put_ok(alice_.get(), "guarded");
    // Only bob may delete; the list is in force.
    const std::string path = record_path("alice", "guarded");
    std::string text = read_file(path);
    const std::string rules = "<authak_list><rule id=\"r1\" name=\"del\" status=\"start\">"
                              "<user name=\"bob\" userid=\"u-bob\" /><bucket delete=\"yes\" /><object /></rule>"
                              "</authak_list>";
    std::size_t empty = text.find("<authak_list />");
    ASSERT_NE(empty, std::string::npos) << text;
    text.replace(empty, std::strlen("<authak_list />"), rules);
    std::size_t status = text.find("authak_status=\"stop\"");
    ASSERT_NE(status, std::string::npos) << text;
    text.replace(status, std::strlen("authak_status=\"stop\""), "authak_status=\"start\"");
    write_file(path, text);
    bucket_ptr b = record("alice", "guarded");
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(b->authak_status, 1u);
    ASSERT_FALSE(list_empty(&b->authak_list));

    // The owner is an ordinary user without a rule.
    expect_refused(call(orbs3_del_bucket, alice_.get(), "guarded"), ORBS3_S3_ACCESS_DENIED, "/");
    expect_refused(call(orbs3_get_bucket_acl, alice_.get(), "guarded"), ORBS3_S3_ACCESS_DENIED);
    // bob's rule grants delete, not the authority of the ACL.
    expect_refused(call(orbs3_get_bucket_acl, bob_.get(), "guarded"), ORBS3_S3_ACCESS_DENIED);
    for (const std::string& p : bucket_paths("alice", "guarded"))
        EXPECT_TRUE(fs::exists(p)) << p;

    // The administrator is above the lists.
    expect_answered(call(orbs3_get_bucket_acl, &vh_->admin, "guarded"));

    expect_answered(call(orbs3_del_bucket, bob_.get(), "guarded"), "204 No Content");
    EXPECT_FALSE(fs::exists(data_ + "/alice/guarded"));

    put_ok(alice_.get(), "guarded");
    edit("guarded", [](orbs3_bucket_t* b) { b->authak_status = 1; });
    expect_refused(call(orbs3_del_bucket, bob_.get(), "guarded"), ORBS3_S3_ACCESS_DENIED);
    expect_answered(call(orbs3_del_bucket, &vh_->admin, "guarded"), "204");
}

TEST_F(BucketOps, ServiceAuthorityAndBucketAddressListsGateOrdinaryUsers)
{
    // The service's authority list in force without a rule for alice: she can't create a bucket.
    vh_->service_rec->authak_status = 1;
    expect_refused(call(orbs3_put_bucket, alice_.get(), "svc"), ORBS3_S3_ACCESS_DENIED, "/");
    EXPECT_FALSE(fs::exists(data_ + "/alice/svc"));
    put_ok(&vh_->admin, "svc");
    EXPECT_TRUE(fs::is_directory(data_ + "/root/svc"));
    vh_->service_rec->authak_status = 0;

    // A whitelist in force admits only its hosts; this peer has no address it could name.
    put_ok(alice_.get(), "walled");
    edit("walled", [](orbs3_bucket_t* b) { b->whitelist_status = 1; });
    expect_refused(call(orbs3_put_bucket_rename, alice_.get(), "renamed",
                        [](orbs3_http_request_t* r) { set_copy_source(r, "walled"); }),
                   ORBS3_S3_ACCESS_DENIED, "/");
    bucket_ptr b = record("alice", "walled");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(str(b->name), "walled");
    expect_refused(call(orbs3_head_bucket, alice_.get(), "walled"), ORBS3_S3_ACCESS_DENIED);
    expect_answered(call(orbs3_head_bucket, &vh_->admin, "walled"));
}

}  // namespace
