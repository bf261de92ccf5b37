#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "s3/orbs3_s3_documents.h"

namespace {

std::string take(char* text)
{
    std::string s = text != nullptr ? text : "<null>";
    std::free(text);
    return s;
}

// boto3 and the AWS CLI send Quiet as "true"; anything else, or no element, asks for the full reply.
TEST(S3CopyDeleteDocuments, QuietOnlyWhenTheDocumentSaysTrue)
{
    struct row {
        const char* doc;
        bool quiet;
    };
    const row rows[] = {
        {"<Delete><Quiet>true</Quiet><Object><Key>a</Key></Object></Delete>", true},
        {"<Delete xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Object><Key>a</Key></Object>"
         "<Quiet>TRUE</Quiet></Delete>",
         true},
        {"<Delete><Quiet>false</Quiet><Object><Key>a</Key></Object></Delete>", false},
        {"<Delete><Quiet></Quiet><Object><Key>a</Key></Object></Delete>", false},
        {"<Delete><Quiet>truest</Quiet></Delete>", false},
        {"<Delete><Object><Key>true</Key></Object></Delete>", false},
        {"<Delete><Quiet>true</Quiet>", false},  // not a whole document
        {"", false},
    };
    for (const row& c : rows)
        EXPECT_EQ(parse_del_objects_quiet(c.doc), c.quiet) << c.doc;
}

TEST(S3CopyDeleteDocuments, CopyResultHoldsTimeAndQuotedEtagEscaped)
{
    EXPECT_EQ(take(make_copy_object_result_xmlstring("2026-11-23T16:13:01.000Z", "\"0123abcd\"")),
              "<?xml version=\"1.0\" encoding=\"utf-8\"?><CopyObjectResult><LastModified>2026-11-23T16:13:01.000Z"
              "</LastModified><ETag>&quot;0123abcd&quot;</ETag></CopyObjectResult>\n");
}

}  // namespace
