#include <gtest/gtest.h>

#include <ctime>
#include <string_view>

#include "http/orbs3_http_conditional.h"

namespace {

constexpr time_t kNov6 = 784111777;  // Sun, 06 Nov 1994 08:49:37 GMT
constexpr std::string_view kEtag = "9b2cf535f27731c974343645a3985328";

constexpr const char* OLD = "Sat, 05 Nov 1994 08:49:37 GMT";
constexpr const char* SAME = "Sun, 06 Nov 1994 08:49:37 GMT";
constexpr const char* NEW = "Sun, 06 Nov 1994 08:49:38 GMT";
constexpr const char* BAD = "yesterday";
constexpr const char* TAG = "\"9b2cf535f27731c974343645a3985328\"";
constexpr const char* OTHER = "\"0000\"";

}  // namespace

TEST(HttpConditional, HeadersApplyInS3Order)
{
    struct row {
        const char* im;
        const char* inm;
        const char* ims;
        const char* ius;
        int want;
    };
    const int P = ORBS3_CONDITIONAL_PROCEED, N = ORBS3_CONDITIONAL_NOT_MODIFIED,
              F = ORBS3_CONDITIONAL_PRECONDITION_FAILED;
    const row rows[] = {
        {"", "", "", "", P},
        // Each header alone.
        {TAG, "", "", "", P},
        {OTHER, "", "", "", F},
        {"*", "", "", "", P},
        {"", TAG, "", "", N},
        {"", OTHER, "", "", P},
        {"", "*", "", "", N},
        {"", "", OLD, "", P},   // modified since then
        {"", "", SAME, "", N},  // not modified since
        {"", "", NEW, "", N},
        {"", "", BAD, "", P},
        {"", "", "", OLD, F},   // modified after it
        {"", "", "", SAME, P},
        {"", "", "", NEW, P},
        {"", "", "", BAD, P},
        // If-Match decides, If-Unmodified-Since is then ignored.
        {TAG, "", "", OLD, P},
        {TAG, "", "", NEW, P},
        {OTHER, "", "", NEW, F},
        {OTHER, "", "", OLD, F},
        // If-None-Match decides, If-Modified-Since is then ignored.
        {"", TAG, OLD, "", N},
        {"", TAG, NEW, "", N},
        {"", OTHER, NEW, "", P},
        {"", OTHER, SAME, "", P},
        {"", OTHER, OLD, "", P},
        // A failed precondition wins over not modified.
        {OTHER, TAG, "", "", F},
        {"", TAG, "", OLD, F},
        {"", "", SAME, OLD, F},
        {OTHER, "", SAME, "", F},
        // Both steps passed or skipped.
        {TAG, TAG, "", "", N},
        {TAG, OTHER, "", "", P},
        {TAG, "", SAME, "", N},
        {TAG, "", OLD, "", P},
        {"", OTHER, "", NEW, P},
        {"", "", SAME, NEW, N},
        {"", "", OLD, NEW, P},
        {"", "", SAME, BAD, N},
        {"", "", BAD, OLD, F},
        {TAG, OTHER, SAME, OLD, P},
        {OTHER, OTHER, OLD, NEW, F},
        // A value of only whitespace is no header at all.
        {" \t", "", "", OLD, F},
        {"", "  ", SAME, "", N},
    };
    for (const row& r : rows) {
        orbs3_conditional_t c{r.im, r.inm, r.ims, r.ius};
        EXPECT_EQ(orbs3_http_conditional_result(&c, kEtag, kNov6), r.want)
            << "If-Match '" << r.im << "' If-None-Match '" << r.inm << "' If-Modified-Since '" << r.ims
            << "' If-Unmodified-Since '" << r.ius << "'";
    }
}

TEST(HttpConditional, EtagListsMatchQuotedBareListedAndWeak)
{
    struct row {
        const char* list;
        bool strong;  // as If-Match compares
        bool weak;    // as If-None-Match compares
    };
    const row rows[] = {
        {"\"9b2cf535f27731c974343645a3985328\"", true, true},
        {"9b2cf535f27731c974343645a3985328", true, true},
        {"  \"9b2cf535f27731c974343645a3985328\"  ", true, true},
        {"\"a\", \"9b2cf535f27731c974343645a3985328\"", true, true},
        {"\"a\",9b2cf535f27731c974343645a3985328 ,\"b\"", true, true},
        {",,\"9b2cf535f27731c974343645a3985328\",", true, true},
        {"W/\"9b2cf535f27731c974343645a3985328\"", false, true},
        {"\"x\", W/\"9b2cf535f27731c974343645a3985328\"", false, true},
        {"*", true, true},
        {"\"a\", *", true, true},
        {"\"*\"", false, false},  // a tag spelled *, not the wildcard
        {"W/*", false, false},
        {"\"9b2cf535f27731c974343645a3985328,x\"", false, false},  // the comma is inside the tag
        {"\"a,9b2cf535f27731c974343645a3985328\"", false, false},
        {"\"9b2cf535f27731c974343645a398532\"", false, false},    // one character short
        {"\"9B2CF535F27731C974343645A3985328\"", false, false},  // tags compare byte for byte
        {"\"9b2cf535f27731c974343645a3985328", true, true},      // unclosed quote: up to the end
        {"\"a\" junk, \"9b2cf535f27731c974343645a3985328\"", true, true},
        {"", false, false},
        {",", false, false},
    };
    for (const row& r : rows) {
        EXPECT_EQ(orbs3_http_etag_list_match(r.list, kEtag, false), r.strong) << r.list;
        EXPECT_EQ(orbs3_http_etag_list_match(r.list, kEtag, true), r.weak) << r.list;
    }
    // The object's tag may come with its quotes.
    EXPECT_TRUE(orbs3_http_etag_list_match("\"abc-2\"", "\"abc-2\"", false));
    EXPECT_TRUE(orbs3_http_etag_list_match("abc-2", "\"abc-2\"", false));
}

TEST(HttpConditional, DatesInAllThreeFormsAndRefusals)
{
    struct row {
        const char* text;
        bool ok;
        time_t want;
    };
    const row rows[] = {
        {"Sun, 06 Nov 1994 08:49:37 GMT", true, kNov6},
        {"  Sun, 06 Nov 1994 08:49:37 GMT\t", true, kNov6},
        {"Sunday, 06-Nov-94 08:49:37 GMT", true, kNov6},
        {"Sun Nov  6 08:49:37 1994", true, kNov6},
        {"Sun Nov 06 08:49:37 1994", true, kNov6},
        {"Wed, 05 Mar 2025 00:00:00 GMT", true, 1741132800},
        {"Wednesday, 05-Mar-25 00:00:00 GMT", true, 1741132800},  // two-digit year below 70: 20xx
        {"Wed Mar  5 00:00:00 2025", true, 1741132800},
        {"Thu, 01 Jan 1970 00:00:00 GMT", true, 0},
        {"", false, 0},
        {"yesterday", false, 0},
        {"Sun, 06 Nov 1994 08:49:37", false, 0},      // no zone
        {"Sun, 06 Nov 1994 08:49:37 gmt", false, 0},
        {"Sun, 06 Nov 1994 08:49:37 UTC", false, 0},
        {"Sun, 6 Nov 1994 08:49:37 GMT", false, 0},   // one-digit day
        {"Sux, 06 Nov 1994 08:49:37 GMT", false, 0},
        {"Sun, 06 Nox 1994 08:49:37 GMT", false, 0},
        {"Sun, 06 Nov 1994 24:00:00 GMT", false, 0},
        {"Sun, 06 Nov 1994 08:60:00 GMT", false, 0},
        {"Sun, 06 Nov 1969 08:49:37 GMT", false, 0},
        {"Sun, 00 Nov 1994 08:49:37 GMT", false, 0},
        {"Sun, 32 Nov 1994 08:49:37 GMT", false, 0},
        {"Sun, 06 Nov 1994 08-49-37 GMT", false, 0},
        {"Sun, 06-Nov-94 08:49:37 GMT", false, 0},    // the long day name belongs to this form
        {"Sunday, 06-Nov-1994 08:49:37 GMT", false, 0},
        {"Sunday, 06 Nov 94 08:49:37 GMT", false, 0},
        {"Sun Nov  6 08:49:37 94", false, 0},
        {"Sun Nov 6 08:49:37 1994", false, 0},
        {"Sun Nov   6 08:49:37 1994", false, 0},
        {"Sun Nov  x 08:49:37 1994", false, 0},
        {"Sun Nov 6  08:49:37 1994", false, 0},
        {"Sun Nov    08:49:37 1994", false, 0},
        {"2025-03-05T00:00:00Z", false, 0},
    };
    for (const row& r : rows) {
        time_t t = -5;
        EXPECT_EQ(orbs3_http_parse_date(r.text, &t), r.ok) << r.text;
        if (r.ok) {
            EXPECT_EQ(t, r.want) << r.text;
        }
    }
}

TEST(HttpConditional, WritesCheckExistenceAndTagButNeverDates)
{
    struct row {
        const char* im;
        const char* inm;
        bool exists;
        std::string_view etag;
        int want;
    };
    const row rows[] = {
        {"", "", false, "", ORBS3_WRITE_CONDITION_PROCEED},
        {"", "*", false, "", ORBS3_WRITE_CONDITION_PROCEED},
        {"", " * ", true, kEtag, ORBS3_WRITE_CONDITION_FAILED},
        {"", "*", true, "", ORBS3_WRITE_CONDITION_FAILED},
        // Only "*" is a condition S3 writes take in If-None-Match.
        {"", TAG, false, "", ORBS3_WRITE_CONDITION_NOT_IMPLEMENTED},
        {"", TAG, true, kEtag, ORBS3_WRITE_CONDITION_NOT_IMPLEMENTED},
        {TAG, "", true, kEtag, ORBS3_WRITE_CONDITION_PROCEED},
        {"9b2cf535f27731c974343645a3985328", "", true, kEtag, ORBS3_WRITE_CONDITION_PROCEED},
        {OTHER, "", true, kEtag, ORBS3_WRITE_CONDITION_FAILED},
        {"\"0000\", \"9b2cf535f27731c974343645a3985328\"", "", true, kEtag, ORBS3_WRITE_CONDITION_PROCEED},
        // A weak tag never matches for a write.
        {"W/\"9b2cf535f27731c974343645a3985328\"", "", true, kEtag, ORBS3_WRITE_CONDITION_FAILED},
        {TAG, "", false, "", ORBS3_WRITE_CONDITION_NO_SUCH_KEY},
        {"*", "", false, "", ORBS3_WRITE_CONDITION_NO_SUCH_KEY},
        {"*", "", true, "", ORBS3_WRITE_CONDITION_PROCEED},
        // An object without a known ETag: an empty tag is no match for it.
        {"\"\"", "", true, "", ORBS3_WRITE_CONDITION_FAILED},
        {TAG, "*", true, kEtag, ORBS3_WRITE_CONDITION_FAILED},
    };
    for (const row& w : rows) {
        orbs3_conditional_t c{w.im, w.inm, OLD, NEW};
        EXPECT_EQ(orbs3_http_write_condition_result(&c, w.exists, w.etag), w.want)
            << "If-Match '" << w.im << "' If-None-Match '" << w.inm << "' exists " << w.exists;
        EXPECT_EQ(orbs3_http_write_conditional(&c), w.im[0] != '\0' || w.inm[0] != '\0');
    }
}
