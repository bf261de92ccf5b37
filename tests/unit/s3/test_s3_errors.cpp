// The S3 error table, the error document and the reply each status goes out with.

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "core/orbs3_config.h"
#include "http/orbs3_http_request.h"
#include "memory/orbs3_palloc.h"
#include "s3/orbs3_s3_dispatch.h"
#include "s3/orbs3_s3_errors.h"
#include "socketpair_connection.h"
#include "storage/orbs3_storage_handlers.h"

namespace {

struct doc_deleter {
    void operator()(char* p) const noexcept { __free__(p); }
};
using doc_ptr = std::unique_ptr<char, doc_deleter>;

// The search is what the reply path relies on; the rows themselves are pinned byte-exact by the
// end-to-end replies.
TEST(S3Errors, SearchFindsTheFirstRowOfACodeAndNothingForAnUnknownOne)
{
    for (uint32_t code : {ORBS3_S3_SHA256_MISMATCH, ORBS3_S3_PRECONDITION_FAILED, ORBS3_S3_KEY_CONFLICT,
                          ORBS3_S3_CHECKSUM_MISMATCH, ORBS3_S3_AUTH_QUERY_MALFORMED, ORBS3_S3_INVALID_PART_NUMBER}) {
        const orbs3_s3_error_t* row = orbs3_s3_find_error(code);
        ASSERT_NE(row, nullptr) << std::hex << code;
        EXPECT_EQ(row->code, code) << row->name;
    }
    // Seven names share 0xc000062; the search finds the first.
    EXPECT_STREQ(orbs3_s3_find_error(0xc000062)->name, "NoLoggingStatusForKey");
    EXPECT_EQ(orbs3_s3_find_error(0xc000096), nullptr);
}

TEST(S3Errors, DocumentIsOneLineWithEscapedTextsAndUnknownCodesSayUnknownError)
{
    doc_ptr doc(make_s3_error_resp_xml("NoSuchKey", "The specified key does not exist.", "photos/a.jpg",
                                       "0af3c2d15e7b4c7f9d3e8a1b2c4d6e8f"));
    ASSERT_TRUE(doc);
    EXPECT_STREQ(doc.get(),
                 "<?xml version=\"1.0\" encoding=\"utf-8\"?><Error><Code>NoSuchKey</Code><Message>The specified key "
                 "does not exist.</Message><Resource>photos/a.jpg</Resource><RequestId>"
                 "0af3c2d15e7b4c7f9d3e8a1b2c4d6e8f</RequestId></Error>\n");
    // A key is the client's text: it must not break the document.
    doc.reset(make_s3_error_resp_xml("NoSuchKey", "m", "b/<a&b>", "id"));
    EXPECT_NE(std::strstr(doc.get(), "<Resource>b/&lt;a&amp;b&gt;</Resource>"), nullptr);
    uint32_t status = 0;
    doc.reset(make_s3_error_resp_xml_ex(0xc000097, "b/o", "id", &status));
    EXPECT_EQ(status, 500u);
    EXPECT_NE(std::strstr(doc.get(), "<Code>unknown error</Code><Message>unknown error</Message>"), nullptr);
    doc.reset(make_s3_error_resp_xml_ex(ORBS3_S3_OPERATION_NOT_SUPPORTED, "/", "id", &status));
    EXPECT_NE(std::strstr(doc.get(), "<Code>OperationNotSupported</Code><Message></Message>"), nullptr);
}

// A key may hold control bytes: raw, a carriage return would reach the client as a line feed and any other
// would make its XML parser refuse the whole error document. Quotes stay as clients already read them.
TEST(S3Errors, DocumentWritesControlBytesOfTheResourceAsReferences)
{
    doc_ptr doc(make_s3_error_resp_xml("NoSuchKey", "m", "b/a\rb\x01" "c\td'e\"", "id"));
    ASSERT_TRUE(doc);
    EXPECT_NE(std::strstr(doc.get(), "<Resource>b/a&#13;b&#1;c\td'e\"</Resource>"), nullptr) << doc.get();
}

class S3ErrorReply : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(conn_.c, nullptr);
        pool_.reset(orbs3_create_mem_block(16384));
        r_ = static_cast<orbs3_http_request_t*>(orbs3_pcalloc(pool_.get(), sizeof(orbs3_http_request_t)));
        ASSERT_NE(r_, nullptr);
        r_->connection = conn_.c;
        r_->pool = pool_.get();
        r_->method = ORBS3_HTTP_GET;
        std::strcpy(r_->resp.connection, "keep-alive");
        std::strcpy(r_->resp.request_id, "0123456789abcdef0123456789abcdef");
    }

    std::string reply() { return conn_.drain(); }

    unit_test::socketpair_connection conn_;
    orbs3_pool_ptr pool_;
    orbs3_http_request_t* r_ = nullptr;
};

TEST_F(S3ErrorReply, EachStatusGoesOutWithItsHttpStatusAndResource)
{
    struct row {
        uint32_t code;
        const char* status_line;
        const char* resource;  // what the Resource element must hold, with "b/o" set by the handler
    };
    const row rows[] = {
        {ORBS3_S3_AUTH_HEADER_MALFORMED, "HTTP/1.1 403 Forbidden", "/"},
        {ORBS3_S3_INVALID_ACCESS_KEY_ID, "HTTP/1.1 403 Forbidden", "/"},
        {ORBS3_S3_SIGNATURE_DOES_NOT_MATCH, "HTTP/1.1 403 Forbidden", "/"},
        {ORBS3_S3_OPERATION_NOT_SUPPORTED, "HTTP/1.1 400 Bad Request", "/"},
        {ORBS3_S3_ACCESS_DENIED, "HTTP/1.1 403 Forbidden", "b/o"},
        {ORBS3_S3_NO_SUCH_BUCKET, "HTTP/1.1 404 Not Found", "b/o"},
        {ORBS3_S3_ENTITY_TOO_LARGE, "HTTP/1.1 400 Bad Request", "b/o"},
        {ORBS3_S3_NO_SUCH_LIFECYCLE, "HTTP/1.1 404 Not Found", "b/o"},
        {ORBS3_S3_DEST_KEY_ALREADY_EXISTS, "HTTP/1.1 404 Not Found", "b/o"},
        {ORBS3_S3_NOT_IMPLEMENTED, "HTTP/1.1 501 Not Implemented", "b/o"},
        {0xc000097, "HTTP/1.1 500 Internal Server Error", "b/o"},
    };
    for (const row& w : rows) {
        SCOPED_TRACE(w.code);
        std::strcpy(r_->resp.resource, "b/o");
        ASSERT_EQ(orbs3_s3_send_error(r_, static_cast<int>(w.code)), static_cast<int>(w.code));
        std::string got = reply();
        EXPECT_EQ(got.rfind(w.status_line, 0), 0u) << got;
        EXPECT_NE(got.find("\r\nConnection: keep-alive\r\n"), std::string::npos);
        EXPECT_NE(got.find(std::string("<Resource>") + w.resource + "</Resource><RequestId>"
                           "0123456789abcdef0123456789abcdef</RequestId>"),
                  std::string::npos)
            << got;
    }
    // Nothing for 0 and -2; an own message replaces the row's.
    EXPECT_EQ(orbs3_s3_send_error(r_, 0), 0);
    EXPECT_EQ(orbs3_s3_send_error(r_, -2), -2);
    EXPECT_EQ(reply(), "");
    r_->resp.message = "Request has expired";
    orbs3_s3_send_error(r_, static_cast<int>(ORBS3_S3_ACCESS_DENIED));
    EXPECT_NE(reply().find("<Code>AccessDenied</Code><Message>Request has expired</Message>"), std::string::npos);
}

TEST_F(S3ErrorReply, UnreadBodySaysCloseAndAnUnnamedResourceIsTheRoot)
{
    r_->content_length = 10;  // announced, never read: the connection closes after the reply
    orbs3_s3_send_error(r_, static_cast<int>(ORBS3_S3_MAX_MESSAGE_LENGTH_EXCEEDED));
    std::string got = reply();
    EXPECT_EQ(got.rfind("HTTP/1.1 400 Bad Request\r\n", 0), 0u);
    EXPECT_NE(got.find("\r\nConnection: close\r\n"), std::string::npos) << got;
    EXPECT_NE(got.find("<Resource>/</Resource>"), std::string::npos) << got;
}

TEST_F(S3ErrorReply, ReplyToHeadCarriesNoBodyAndOriginAddsTheCorsLine)
{
    r_->method = ORBS3_HTTP_HEAD;
    std::strcpy(r_->resp.origin, "http://app.example");
    orbs3_s3_send_error(r_, static_cast<int>(ORBS3_S3_NO_SUCH_KEY));
    std::string got = reply();
    EXPECT_EQ(got.rfind("HTTP/1.1 404 Not Found\r\n", 0), 0u);
    EXPECT_NE(got.find("\r\nContent-Length:0\r\n"), std::string::npos) << got;
    EXPECT_NE(got.find("\r\nAccess-Control-Allow-Origin:http://app.example\r\n"), std::string::npos);
    EXPECT_EQ(got.substr(got.size() - 4), "\r\n\r\n");
}

TEST(S3Events, TableFindsEveryActionByExactNameAndNothingElse)
{
    // Every action has a handler once the storage layer has installed its own.
    ASSERT_EQ(orbs3_storage_install_handlers(), 0);
    EXPECT_EQ(orbs3_s3_install_handler("NoSuchAction", orbs3_s3_not_implemented), -1);
    for (const orbs3_s3_event_t* e = s3_events; e->code != 0; e++) {
        EXPECT_EQ(orbs3_s3_find_event(e->name), e);
        EXPECT_NE(e->handler, nullptr);
    }
    EXPECT_EQ(orbs3_s3_find_event("putobject"), nullptr);
    EXPECT_EQ(orbs3_s3_find_event("PutObjec"), nullptr);
    EXPECT_EQ(orbs3_s3_find_event(""), nullptr);
    EXPECT_EQ(orbs3_s3_find_event("PutAccessKey"), nullptr) << "classified, answered OperationNotSupported";
    EXPECT_EQ(orbs3_s3_find_event("PutObject")->read_body, 0u);
    EXPECT_EQ(orbs3_s3_find_event("DeleteObjects")->read_body, 1u);
    // Only the handlers that decode the aws-chunked framing themselves take such a body.
    for (const orbs3_s3_event_t* e = s3_events; e->code != 0; e++)
        EXPECT_EQ(e->own_body, e->name == "PutObject" || e->name == "UploadPart" ? 1u : 0u) << e->name;
}

}  // namespace
