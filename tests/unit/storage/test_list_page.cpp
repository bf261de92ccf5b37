// The listing against a model: random key sets laid out as real record files in a meta tree, every page
// of every combination of prefix, delimiter, page size and resume style compared with what the sorted key
// list says the pages must be. Any lost, duplicated or misplaced key fails here.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "memory/neo_files.h"
#include "s3/orbs3_s3_cgi.h"
#include "s3/orbs3_s3_documents.h"
#include "s3/orbs3_s3_errors.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_list_object.h"
#include "storage/orbs3_list_page.h"
#include "storage/orbs3_record.h"
#include "storage/storage_fixture.h"

using namespace storage_test;

namespace {

// What a page entry is, for comparison: a common prefix or an object key.
struct row {
    bool prefix;
    std::string text;
    bool operator==(const row&) const = default;
};

std::ostream& operator<<(std::ostream& os, const row& r)
{
    return os << (r.prefix ? "CP " : "K ") << r.text;
}

std::string etag_of(const std::string& key)
{
    // Distinct per key, so a row that carries another key's record is caught.
    char buf[33];
    std::snprintf(buf, sizeof buf, "%032zx", std::hash<std::string>{}(key));
    return buf;
}

class meta_tree {
public:
    explicit meta_tree(const std::string& root) : root_(root) {}

    // The record of `key` where the server keeps it: a directory object in its directory's marker.
    void put(const std::string& key)
    {
        std::string path = root_ + "/" + key;
        if (key.back() == '/')
            path += std::string(ORBS3_DIR_MARKER);
        std::string dir = path.substr(0, path.rfind('/'));
        ASSERT_EQ(neo_mkdir_p(dir.c_str(), 0700), 0) << dir;
        orbs3_object_t* o = orbs3_create_object_block();
        ASSERT_NE(o, nullptr);
        INIT_LIST_HEAD(&o->tags);
        INIT_LIST_HEAD(&o->meta);
        auto set = [o](orbs3_str_t* s, const std::string& t) { ASSERT_EQ(orbs3_pstr_set(o->pool, s, t.data(), t.size()), 0); };
        set(&o->name, key);
        set(&o->etag, etag_of(key));
        set(&o->last_modified, "2026-11-23T16:13:01.000Z");
        set(&o->owner_id, "u-1");
        set(&o->owner_display_name, "alice");
        o->size = key.size() * 1000003ULL;
        // The server's own record text, written without the flush of a real commit: only its place and
        // content matter here, and hundreds of flushes would make the test slow.
        char* text = nullptr;
        EXPECT_EQ(orbs3_make_object_xml(o, &text), 0) << key;
        orbs3_free_object(o);
        ASSERT_NE(text, nullptr);
        write_file(path, text);
        std::free(text);
    }

    const std::string& root() const { return root_; }

private:
    std::string root_;
};

// Components chosen to sort around "/" (0x2f): "-" and "." below it, "0" and letters above, multi-byte
// UTF-8 far above; "ab" makes a delimiter of two bytes meet keys.
const std::vector<std::string> kParts = {"a", "b", "ab", "a-b", "a.b", "a0", "-", ".x", "0", "z~", "x y",
                                         "\xc3\xa9", "\xe6\x97\xa5\xe6\x9c\xac", "aab", "b-", "+"};

// A random key set the file tree can hold: no key is the directory of another, directory objects
// ("a/b/") among them, plain keys that are prefixes of other keys' directories ("a-b" beside "a/...").
std::vector<std::string> random_keys(unsigned seed, std::size_t n)
{
    std::mt19937 rng(seed);
    std::set<std::string> keys;
    std::set<std::string> dirs;  // every "x/" some key needs as a directory
    auto pick = [&](std::size_t k) { return std::uniform_int_distribution<std::size_t>(0, k - 1)(rng); };
    for (std::size_t tries = 0; keys.size() < n && tries < n * 20; tries++) {
        std::size_t depth = 1 + pick(4);
        std::string key;
        for (std::size_t i = 0; i < depth; i++) {
            if (i)
                key += "/";
            key += kParts[pick(kParts.size())];
        }
        if (pick(6) == 0)
            key += "/";  // a directory object
        // The tree refuses a file where a directory must be, and a directory where a file is.
        bool ok = true;
        std::vector<std::string> needed;
        for (std::size_t at = key.find('/'); at != std::string::npos; at = key.find('/', at + 1)) {
            std::string d = key.substr(0, at + 1);
            if (keys.count(d.substr(0, d.size() - 1)))
                ok = false;
            needed.push_back(d);
        }
        if (key.back() != '/' && dirs.count(key + "/"))
            ok = false;
        if (!ok)
            continue;
        keys.insert(key);
        dirs.insert(needed.begin(), needed.end());
    }
    return {keys.begin(), keys.end()};
}

// The model: the sorted key list rolled up under prefix and delimiter.
std::vector<row> model(const std::vector<std::string>& sorted, const std::string& prefix, const std::string& delim)
{
    std::vector<row> out;
    for (const std::string& k : sorted) {
        if (k.compare(0, prefix.size(), prefix) != 0)
            continue;
        row r{false, k};
        if (!delim.empty()) {
            std::size_t at = k.find(delim, prefix.size());
            if (at != std::string::npos)
                r = {true, k.substr(0, at + delim.size())};
        }
        if (out.empty() || !(out.back() == r))
            out.push_back(r);
    }
    return out;
}

struct page_result {
    std::vector<row> rows;
    int key_count;
    bool truncated;
    std::string next;
};

page_result run_page(const std::string& root, const std::string& prefix, const std::string& delim,
                     const std::string& after, int max_keys, const std::vector<std::string>& keys)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    orbs3_list_query_t q;
    q.prefix = prefix;
    q.delimiter = delim;
    q.after = after;
    q.max_keys = max_keys;
    orbs3_list_page_t page;
    page_result res{};
    EXPECT_EQ(orbs3_list_page(root.c_str(), &q, pool.get(), &page), 0);
    neo_list_head_t* pos;
    list_for_each(pos, &page.entries) {
        auto* e = list_entry(pos, orbs3_list_entry_t, link);
        std::string text(neo_getstr(&e->key));
        res.rows.push_back({e->is_dir, text});
        if (!e->is_dir) {
            // An object's row carries its own record.
            EXPECT_TRUE(std::binary_search(keys.begin(), keys.end(), text)) << text;
            EXPECT_EQ(std::string(neo_getstr(&e->etag)), etag_of(text));
            EXPECT_EQ(e->size, text.size() * 1000003ULL);
            EXPECT_EQ(std::string(neo_getstr(&e->owner_display_name)), "alice");
        }
    }
    res.key_count = page.key_count;
    res.truncated = page.truncated;
    res.next = std::string(page.next);
    return res;
}

// Things in a meta tree that are no objects.
void add_noise(const std::string& root, const std::vector<std::string>& keys)
{
    // A link to a whole record outside the tree is still no object of the bucket.
    const std::string outside = root + "-outside";
    meta_tree(root.substr(0, root.rfind('/'))).put(outside.substr(outside.rfind('/') + 1));
    std::set<std::string> dirs{""};
    for (const auto& k : keys) {
        for (std::size_t at = k.find('/'); at != std::string::npos; at = k.find('/', at + 1))
            dirs.insert(k.substr(0, at + 1));
    }
    for (const auto& d : dirs) {
        std::string base = root + "/" + d;
        write_file(base + ".orbs3-tmp-0123abcd", "<object");           // a record in the making
        write_file(base + ".orbs3-other", "<object/>");                 // any other name of the server
        ASSERT_EQ(neo_mkdir_p((base + "zz-empty-dir/deeper").c_str(), 0700), 0);  // emptied directories
        write_file(base + "zz-empty-dir/deeper/.orbs3-tmp-1", "x");
        write_file(base + "zz-unparsable", "this is not a record");    // a record that does not parse
        ASSERT_EQ(symlink(outside.c_str(), (base + "zz-link").c_str()), 0);
        ASSERT_EQ(symlink(root.c_str(), (base + "zz-dir-link").c_str()), 0);
    }
    // A marker at the root of the tree would be the key "": never an object.
    write_file(root + "/" + std::string(ORBS3_DIR_MARKER), "<object/>");
}

class ListPageModel : public ::testing::TestWithParam<unsigned> {};

TEST_P(ListPageModel, EveryPageOfEveryQueryMatchesTheSortedKeyList)
{
    temp_dir dir;
    const std::string root = dir.path + "/meta";
    meta_tree tree(root);
    const std::vector<std::string> keys = random_keys(GetParam(), 140);
    ASSERT_GT(keys.size(), 60u);
    for (const auto& k : keys)
        tree.put(k);
    add_noise(root, keys);

    std::vector<std::string> prefixes = {"", "a", "a/", "a-", "ab", "\xc3", "\xc3\xa9/", "nothing-here", "zz-empty-dir/"};
    std::mt19937 rng(GetParam() * 7 + 1);
    for (int i = 0; i < 6; i++) {
        const std::string& k = keys[rng() % keys.size()];
        prefixes.push_back(k.substr(0, 1 + rng() % k.size()));
    }
    const std::vector<std::string> delimiters = {"", "/", "-", "ab"};
    for (const auto& prefix : prefixes) {
        for (const auto& delim : delimiters) {
            const std::vector<row> want = model(keys, prefix, delim);
            for (int max_keys : {1, 2, 7, 1000}) {
                for (bool v2 : {false, true}) {
                    SCOPED_TRACE("prefix '" + prefix + "' delimiter '" + delim + "' max-keys " +
                                 std::to_string(max_keys) + (v2 ? " V2" : " V1"));
                    std::vector<row> all;
                    std::string after;
                    for (int pages = 0;; pages++) {
                        ASSERT_LE(pages, static_cast<int>(want.size()) + 1) << "the walk does not end";
                        page_result p = run_page(root, prefix, delim, after, max_keys, keys);
                        // The page is exactly the next max_keys rows of the model.
                        std::size_t from = all.size();
                        std::size_t n = std::min<std::size_t>(max_keys, want.size() - from);
                        std::vector<row> expect(want.begin() + from, want.begin() + from + n);
                        ASSERT_EQ(p.rows, expect) << "page " << pages;
                        EXPECT_EQ(p.key_count, static_cast<int>(n));
                        EXPECT_EQ(p.truncated, from + n < want.size());
                        all.insert(all.end(), p.rows.begin(), p.rows.end());
                        if (!p.truncated) {
                            EXPECT_EQ(p.next, "");
                            break;
                        }
                        ASSERT_EQ(p.next, p.rows.back().text);
                        if (v2) {
                            // A V2 client hands back the token, not the entry.
                            std::string token = orbs3_list_token_encode(p.next);
                            ASSERT_TRUE(orbs3_list_token_decode(token, &after));
                        } else {
                            after = p.next;
                        }
                    }
                    EXPECT_EQ(all, want);
                }
            }
        }
    }
}

TEST_P(ListPageModel, ResumingFromAnyPointGivesTheRestOnce)
{
    temp_dir dir;
    const std::string root = dir.path + "/meta";
    meta_tree tree(root);
    const std::vector<std::string> keys = random_keys(GetParam() + 100, 80);
    for (const auto& k : keys)
        tree.put(k);
    add_noise(root, keys);
    // Every key, every key cut short (points inside sub-trees and between keys) and a few beyond all.
    std::set<std::string> points{"", "\xff", "a/\xff", "zzzz"};
    for (const auto& k : keys) {
        points.insert(k);
        points.insert(k.substr(0, k.size() - 1));
        points.insert(k + "\x01");
    }
    for (const auto& [prefix, delim] : {std::pair<std::string, std::string>{"", ""}, {"", "/"}, {"a", "-"}}) {
        {
            const std::vector<row> want = model(keys, prefix, delim);
            for (const auto& after : points) {
                page_result p = run_page(root, prefix, delim, after, 1000, keys);
                std::vector<row> expect;
                for (const auto& r : want) {
                    if (r.text > after)
                        expect.push_back(r);
                }
                ASSERT_EQ(p.rows, expect) << "after '" << after << "' delimiter '" << delim << "'";
                EXPECT_FALSE(p.truncated);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ListPageModel, ::testing::Values(1u, 2u, 3u));

TEST(ListPage, EmptyBucketsAndEmptyPages)
{
    temp_dir dir;
    const std::string root = dir.path + "/meta";
    // No meta directory at all, then one that holds only what is not an object.
    EXPECT_TRUE(run_page(root, "", "", "", 1000, {}).rows.empty());
    ASSERT_EQ(mkdir(root.c_str(), 0700), 0);
    add_noise(root, {"d/x"});
    page_result p = run_page(root, "", "/", "", 1000, {});
    EXPECT_TRUE(p.rows.empty());
    EXPECT_FALSE(p.truncated);
    // max-keys=0 is an empty page that is not truncated, even with objects there.
    meta_tree(root).put("k");
    p = run_page(root, "", "", "", 0, {"k"});
    EXPECT_TRUE(p.rows.empty());
    EXPECT_EQ(p.key_count, 0);
    EXPECT_FALSE(p.truncated);
    // A page size beyond the cap is the cap.
    EXPECT_EQ(run_page(root, "", "", "", 5000, {"k"}).rows.size(), 1u);
}

TEST(ListPage, DirectoryObjectsSortBeforeTheirContentsAndShowOnlyWithTheirRecord)
{
    temp_dir dir;
    const std::string root = dir.path + "/meta";
    meta_tree tree(root);
    for (const char* k : {"d/", "d/a", "d-", "d0", "e/f/", "g/h"})
        tree.put(k);
    // "g/" is only a directory of other keys: no directory object.
    page_result p = run_page(root, "", "", "", 1000, {"d-", "d/", "d/a", "d0", "e/f/", "g/h"});
    std::vector<row> want = {{false, "d-"}, {false, "d/"}, {false, "d/a"}, {false, "d0"}, {false, "e/f/"}, {false, "g/h"}};
    EXPECT_EQ(p.rows, want);
    p = run_page(root, "d/", "/", "", 1000, {"d/", "d/a"});
    want = {{false, "d/"}, {false, "d/a"}};
    EXPECT_EQ(p.rows, want);
    p = run_page(root, "", "/", "", 1000, {"d-", "d0"});
    want = {{false, "d-"}, {true, "d/"}, {false, "d0"}, {true, "e/"}, {true, "g/"}};
    EXPECT_EQ(p.rows, want);
}

// Prefixes and resume points are keys, never paths: one that climbs out of the bucket's tree, or that no
// key can start with, lists nothing, and a resume point only ever orders.
TEST(ListPage, NamesThatLeaveTheTreeListNothingOfWhatLiesOutside)
{
    temp_dir dir;
    const std::string root = dir.path + "/b1";
    meta_tree(root).put("k");
    meta_tree(root).put("d/x");
    meta_tree other(dir.path + "/b2");
    other.put("secret");
    other.put("s/x");
    struct query {
        std::string prefix, delim, after;
    } queries[] = {
        {"../b2/", "", ""},   {"../b2/s/", "", ""}, {"../", "/", ""},  {"../b2/../b2/", "", ""},
        {"d/../../b2/", "", ""}, {"./", "", ""},      {"/", "/", ""},   {"d//", "", ""},
        {"../../../../../../../../etc/", "/", ""},
    };
    for (const query& q : queries) {
        page_result p = run_page(root, q.prefix, q.delim, q.after, 1000, {"d/x", "k"});
        EXPECT_TRUE(p.rows.empty()) << q.prefix << " " << (p.rows.empty() ? "" : p.rows[0].text);
    }
    // Resume points beside the tree's keys order like any text.
    std::vector<row> all = {{false, "d/x"}, {false, "k"}};
    EXPECT_EQ(run_page(root, "", "", "../b2/", 1000, {"d/x", "k"}).rows, all);
    const std::vector<row> behind = {{false, "k"}};
    EXPECT_EQ(run_page(root, "", "", "d/x/../", 1000, {"d/x", "k"}).rows, behind);
}

TEST(ListToken, RoundTripsAnyEntryAndRefusesWhatItNeverMade)
{
    for (std::string entry : {std::string("a"), std::string("ab"), std::string("abc"), std::string("x/y z+\xff\x01"),
                              std::string(1023, 'k')}) {
        std::string token = orbs3_list_token_encode(entry);
        EXPECT_EQ(token.find_first_of("+/=&% "), std::string::npos) << token;
        std::string back;
        ASSERT_TRUE(orbs3_list_token_decode(token, &back));
        EXPECT_EQ(back, entry);
    }
    std::string out;
    for (const char* bad : {"", "a", "ab+c", "a=", "YR", "abc\x80"})
        EXPECT_FALSE(orbs3_list_token_decode(bad, &out)) << bad;
}

TEST(ListQuery, ReadsEveryParameterByVersionAndRefusesWhatS3Refuses)
{
    struct want_t {
        const char* query;
        int rc;
        bool v2;
        int max_keys;
        const char* prefix;
        const char* resume;  // marker (V1) or continuation token, else start-after (V2); null: none
        bool url;
        bool owner;
    };
    const int bad = ORBS3_S3_INVALID_ARGUMENT;
    const std::string long_token(1500, 'A');
    const std::string long_query = "list-type=2&continuation-token=" + long_token;
    const want_t cases[] = {
        {"", 0, false, 1000, "", nullptr, false, false},
        {"list-type=2&prefix=a%2Fb+c&max-keys=7&start-after=x", 0, true, 7, "a/b c", "x", false, false},
        // V1 reads marker only; V2 reads the token before start-after, and never marker.
        {"marker=m&start-after=s&continuation-token=t", 0, false, 1000, "", "m", false, false},
        {"list-type=2&marker=m&start-after=s&continuation-token=t", 0, true, 1000, "", "t", false, false},
        {"list-type=1&max-keys=0", 0, false, 0, "", nullptr, false, false},
        {"list-type=2&max-keys=99999999999999999999&encoding-type=url&fetch-owner=TRUE", 0, true, 1000, "", nullptr,
         true, true},
        {"max-keys=", 0, false, 1000, "", nullptr, false, false},
        {long_query.c_str(), 0, true, 1000, "", long_token.c_str(), false, false},
        {"list-type=3", bad},
        {"max-keys=-1", bad},
        {"max-keys=1e3", bad},
        {"encoding-type=URL", bad},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.query);
        orbs3_cgi_form form(c.query[0] != '\0' ? cgiParseGetFormInput(c.query) : nullptr);
        orbs3_list_params_t p;
        const char* message = nullptr;
        int rc = orbs3_list_params_from_query(form.get(), &p, &message);
        EXPECT_EQ(rc, c.rc);
        if (rc != 0) {
            EXPECT_NE(message, nullptr);
            continue;
        }
        EXPECT_EQ(p.v2, c.v2);
        EXPECT_EQ(p.max_keys, c.max_keys);
        EXPECT_EQ(p.prefix, c.prefix);
        std::optional<std::string_view> resume = p.v2 ? (p.continuation ? p.continuation : p.start_after) : p.marker;
        EXPECT_EQ(resume.has_value(), c.resume != nullptr);
        if (resume && c.resume != nullptr) {
            EXPECT_EQ(*resume, c.resume);
        }
        EXPECT_EQ(p.url, c.url);
        EXPECT_EQ(p.fetch_owner, c.owner);
    }
}

}  // namespace
