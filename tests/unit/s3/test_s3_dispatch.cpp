// Admission of a classified request: who sends it, whether the key exists, the CORS origin, and what the
// reply says when any of it fails. Signatures are switched off here (their own tests check them); one
// case switches them on to see that the check runs between the owner's lookup and the handler.

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>

#include "core/orbs3_config.h"
#include "http/http_test_request.h"
#include "http/orbs3_http_parse.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_classify.h"
#include "s3/orbs3_s3_dispatch.h"
#include "s3/orbs3_s3_errors.h"
#include "service_fixture.h"
#include "socketpair_connection.h"
#include "storage/orbs3_storage_handlers.h"

namespace {

using http_test::test_request;
using unit_test::service_fixture;

class Dispatch : public ::testing::Test {
protected:
    void SetUp() override
    {
        http_test::ensure_headers_hash();
        ASSERT_EQ(orbs3_storage_install_handlers(), 0);
        saved_verify_ = orbs3_conf.verify_signatures;
        orbs3_conf.verify_signatures = 0;
        ASSERT_FALSE(service_.vhosts.empty());
        orbs3_vhost_t* vh = service_.vhosts[0];
        neo_strdup(&vh->admin.accesskeyid, "ADMINKEY", ORBS3_KEY_CAP);
        neo_strdup(&vh->admin.accesskeysecret, "adminsecret", ORBS3_KEY_CAP);
        ASSERT_NE(conn_.c, nullptr);
        c_ = conn_.c;
        c_->listening = &service_.listening;
    }
    void TearDown() override
    {
        orbs3_conf.verify_signatures = saved_verify_;
    }

    // The status the dispatcher returns for the head, and the reply it sent.
    int run(const std::string& head, std::string* reply)
    {
        test_request t(head);
        if (t.r == nullptr || parser_http_request_handler(t.r) != 0)
            return -100;
        t.r->connection = c_;
        (void)orbs3_find_virtual_server(t.r);
        (void)orbs3_parse_req_msg(t.r);
        int rc = orbs3_events_process(t.r);
        *reply = conn_.drain();
        return rc;
    }

    int saved_verify_ = 1;
    service_fixture service_{"s3.example"};
    unit_test::socketpair_connection conn_;
    orbs3_connection_t* c_ = nullptr;
};

std::string code_of(const std::string& reply)
{
    std::size_t a = reply.find("<Code>");
    std::size_t b = reply.find("</Code>");
    return a == std::string::npos || b == std::string::npos ? "" : reply.substr(a + 6, b - a - 6);
}

TEST_F(Dispatch, AdmissionRefusesWhatItCannotPlaceAndRunsTheHandlerOfAKnownKey)
{
    struct row {
        const char* auth;  // Authorization line, or empty
        int status;
        const char* code;
        const char* resource;
    };
    const row rows[] = {
        // No credentials: DeleteObject is no action a public request may try.
        {"", static_cast<int>(ORBS3_S3_ACCESS_DENIED), "AccessDenied", "/"},
        {"Authorization: Bearer x\r\n", static_cast<int>(ORBS3_S3_AUTH_HEADER_MALFORMED),
         "AuthorizationHeaderMalformed", "/"},
        {"Authorization: AWS NOSUCHKEY:abc\r\n", static_cast<int>(ORBS3_S3_INVALID_ACCESS_KEY_ID), "InvalidAccessKeyId",
         "/"},
        // Admitted on the key alone while signatures are off: the handler's answer (DeleteObject's name
        // check, with the name limits of an unconfigured process).
        {"Authorization: AWS ADMINKEY:abc\r\n", static_cast<int>(ORBS3_S3_INVALID_BUCKET_NAME), "InvalidBucketName", "b/k"},
        {"Authorization: AWS4-HMAC-SHA256 Credential=ADMINKEY/20260101/us-east-1/s3/aws4_request, "
         "SignedHeaders=host, Signature=00\r\n",
         static_cast<int>(ORBS3_S3_INVALID_BUCKET_NAME), "InvalidBucketName", "b/k"},
    };
    for (const row& w : rows) {
        SCOPED_TRACE(w.auth);
        std::string reply;
        EXPECT_EQ(run(std::string("DELETE /b/k HTTP/1.1\r\nHost: s3.example\r\n") + w.auth + "\r\n", &reply), w.status);
        EXPECT_EQ(code_of(reply), w.code);
        EXPECT_NE(reply.find(std::string("<Resource>") + w.resource + "</Resource>"), std::string::npos) << reply;
        EXPECT_NE(reply.find("\r\nConnection: keep-alive\r\n"), std::string::npos);
    }
    // Classified, but no action row: OperationNotSupported with "/", before any key is looked at.
    std::string reply;
    EXPECT_EQ(run("PUT /b?accesskey HTTP/1.1\r\nHost: s3.example\r\n\r\n", &reply),
              static_cast<int>(ORBS3_S3_OPERATION_NOT_SUPPORTED));
    EXPECT_NE(reply.find("HTTP/1.1 400 Bad Request"), std::string::npos);
    EXPECT_NE(reply.find("<Message></Message><Resource>/</Resource>"), std::string::npos);

    // With signatures on, the same admitted key fails on its made-up signature.
    orbs3_conf.verify_signatures = 1;
    char date[64];
    const time_t now = std::time(nullptr);
    struct tm tm;
    std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", gmtime_r(&now, &tm));
    EXPECT_EQ(run(std::string("DELETE /b/k HTTP/1.1\r\nHost: s3.example\r\nDate: ") + date +
                      "\r\nAuthorization: AWS ADMINKEY:abcdefghijklmnopqrstuvwxyz0=\r\n\r\n",
                  &reply),
              static_cast<int>(ORBS3_S3_SIGNATURE_DOES_NOT_MATCH));
}

// Only reads of objects and listings and writes of objects get to their handler without credentials; a
// presigned query or a failed credential never counts as none.
TEST_F(Dispatch, RequestsWithoutCredentialsReachOnlyThePublicActions)
{
    const struct {
        const char* head;
        const char* code;
    } rows[] = {
        // Reached the handler: the bucket's name check answers (an unconfigured process has no buckets).
        {"GET /b/k HTTP/1.1", "InvalidBucketName"},
        {"HEAD /b/k HTTP/1.1", ""},
        {"GET /b HTTP/1.1", "InvalidBucketName"},
        {"GET /b?list-type=2 HTTP/1.1", "InvalidBucketName"},
        {"PUT /b/k HTTP/1.1\r\nContent-Length: 0", "InvalidBucketName"},
        // Refused before any handler.
        {"GET / HTTP/1.1", "AccessDenied"},
        {"GET /b?acl HTTP/1.1", "AccessDenied"},
        {"GET /b/k?uploadId=1 HTTP/1.1", "AccessDenied"},
        {"GET /b?versions HTTP/1.1", "AccessDenied"},
        {"POST /b/k HTTP/1.1\r\nContent-Length: 0", "AccessDenied"},
        {"PUT /b HTTP/1.1\r\nContent-Length: 0", "AccessDenied"},
        {"PUT /b/k HTTP/1.1\r\nx-amz-copy-source: /a/k\r\nContent-Length: 0", "AccessDenied"},
        {"DELETE /b HTTP/1.1", "AccessDenied"},
        {"GET /b/k?X-Amz-Credential=NOSUCHKEY%2F20260101%2Fus-east-1%2Fs3%2Faws4_request HTTP/1.1",
         "InvalidAccessKeyId"},
    };
    for (const auto& w : rows) {
        SCOPED_TRACE(w.head);
        std::string reply;
        (void)run(std::string(w.head) + "\r\nHost: s3.example\r\n\r\n", &reply);
        EXPECT_EQ(code_of(reply), w.code) << reply;
        if (w.head[0] == 'H') {
            EXPECT_NE(reply.find("HTTP/1.1 400"), std::string::npos) << reply;
        }
    }
}

TEST_F(Dispatch, OriginOtherThanHostIsEchoedUnlessItDoesNotFit)
{
    const std::string auth = "Authorization: AWS ADMINKEY:abc\r\n";
    std::string reply;
    run("DELETE /b/k HTTP/1.1\r\nHost: s3.example\r\nOrigin: s3.example\r\n" + auth + "\r\n", &reply);
    EXPECT_EQ(reply.find("Access-Control-Allow-Origin"), std::string::npos);
    run("DELETE /b/k HTTP/1.1\r\nHost: s3.example\r\nOrigin: http://app.example\r\n" + auth + "\r\n", &reply);
    EXPECT_NE(reply.find("\r\nAccess-Control-Allow-Origin:http://app.example\r\n"), std::string::npos) << reply;
    const std::string fits(ORBS3_RESP_ORIGIN_LEN - 1, 'o');
    run("DELETE /b/k HTTP/1.1\r\nHost: s3.example\r\nOrigin: " + fits + "\r\n" + auth + "\r\n", &reply);
    EXPECT_NE(reply.find("Access-Control-Allow-Origin:" + fits + "\r\n"), std::string::npos);
    run("DELETE /b/k HTTP/1.1\r\nHost: s3.example\r\nOrigin: " + fits + "o\r\n" + auth + "\r\n", &reply);
    EXPECT_EQ(reply.find("Access-Control-Allow-Origin"), std::string::npos) << "a cut origin would name another site";
    EXPECT_EQ(code_of(reply), "InvalidBucketName");
}

TEST_F(Dispatch, JsonErrorRepliesCarryTheRowOrAnEmptySuccess)
{
    test_request t("GET / HTTP/1.1\r\nHost: s3.example\r\n\r\n");
    ASSERT_EQ(parser_http_request_handler(t.r), 0);
    t.r->connection = c_;
    std::strcpy(t.r->resp.connection, "close");
    ASSERT_EQ(orbs3_send_http_respones(-4, t.r), 0);
    std::string reply = conn_.drain();
    EXPECT_EQ(reply.rfind("HTTP/1.1 404 Not Found\r\n", 0), 0u);
    EXPECT_EQ(reply.substr(reply.find("\r\n\r\n") + 4),
              "{\"error_code\":\"NoSuchBucket\",\"error_msg\":\"bucket does not exist\"}");
    ASSERT_EQ(orbs3_send_http_respones(12345, t.r), 0);
    reply = conn_.drain();
    EXPECT_EQ(reply.rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
    EXPECT_NE(reply.find("Content-Length:0\r\n"), std::string::npos);
}

}  // namespace
