// Version listings against a model: trees of live records and old contents (versions, delete markers,
// contents without a record, half-moved ones) laid out as the server lays them out, every listing
// compared with the rows the model says, and every page size walked to the end through the resume markers.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "memory/neo_files.h"
#include "memory/neo_string.h"
#include "s3/orbs3_s3_documents.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_record.h"
#include "temp_dir.h"
#include "versions/orbs3_version_list.h"
#include "versions/orbs3_version_name.h"

namespace {

using unit_test::temp_dir;
using unit_test::write_file;

// What an old content is on disk.
enum class old_kind {
    version,    // bytes and record
    marker,     // a delete marker: record only
    bare,       // bytes only (written before contents kept records)
    half,       // record only, no marker: a crash between the two moves; never listed
};

struct old_entry {
    std::string suffix;
    old_kind kind;
    bool null_id = false;  // the record says "null" (kept while versioning was off)
};

struct key_history {
    std::string key;
    bool live = false;
    std::string live_id;        // empty: "null"
    std::vector<old_entry> olds;  // newest first
};

struct row {
    std::string kind;  // "V", "D" or "CP"
    std::string key;
    std::string id;
    bool latest = false;
    bool operator==(const row&) const = default;
};

std::ostream& operator<<(std::ostream& os, const row& r)
{
    return os << r.kind << " " << r.key << " " << r.id << (r.latest ? " latest" : "");
}

std::string suffix_of(int minute, int second, unsigned tail)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, "2026_11_24_10_%02d_%02d-%06u%08x", minute, second, tail % 1000000, tail);
    return buf;
}

std::string record_text(const std::string& key, uint64_t size, const std::string& id, bool marker,
                        const std::string& time)
{
    orbs3_object_t* o = orbs3_create_object_block();
    EXPECT_NE(o, nullptr);
    INIT_LIST_HEAD(&o->tags);
    INIT_LIST_HEAD(&o->meta);
    auto set = [o](orbs3_str_t* s, const std::string& t) {
        EXPECT_EQ(orbs3_pstr_set(o->pool, s, t.data(), t.size()), 0);
    };
    set(&o->name, key);
    set(&o->etag, "e-" + std::to_string(size));
    set(&o->last_modified, time);
    set(&o->owner_id, "u-1");
    set(&o->owner_display_name, "alice");
    if (!id.empty())
        set(&o->version_id, id);
    o->delete_marker = marker ? 1 : 0;
    o->size = size;
    char* text = nullptr;
    EXPECT_EQ(orbs3_make_object_xml(o, &text), 0);
    orbs3_free_object(o);
    std::string out(text != nullptr ? text : "");
    std::free(text);
    return out;
}

// Bytes of each content differ in length, so a row that carries another content's size is caught.
uint64_t size_of(const std::string& key, const std::string& suffix)
{
    return (std::hash<std::string>{}(key + "|" + suffix) % 5000) + 1;
}

// A bucket's meta and version trees laid out from key histories, with things in them that are no content.
struct trees {
    temp_dir dir;
    std::string meta = dir("meta"), version = dir("version");

    void lay(const std::vector<key_history>& keys)
    {
        ASSERT_EQ(neo_mkdir_p(meta.c_str(), 0700), 0);
        ASSERT_EQ(neo_mkdir_p(version.c_str(), 0700), 0);
        for (const key_history& k : keys) {
            if (k.live) {
                const std::string path = meta + "/" + k.key + (k.key.ends_with('/') ? ".orbs3-dir" : "");
                write_file(path, record_text(k.key, size_of(k.key, ""), k.live_id, false, "2026-11-24T11:00:00.000Z"));
            }
            for (const old_entry& o : k.olds) {
                orbs3_version_file_t f;
                ASSERT_EQ(orbs3_version_paths(version, k.key, o.suffix, &f), 0) << k.key;
                const uint64_t size = size_of(k.key, o.suffix);
                if (o.kind == old_kind::version || o.kind == old_kind::bare)
                    write_file(f.data, std::string(size, 'x'));
                if (o.kind != old_kind::bare)
                    write_file(f.record, record_text(k.key, size, o.null_id ? "" : o.suffix,
                                                     o.kind == old_kind::marker, "2026-11-24T10:00:00.000Z"));
            }
        }
        // Temporary files and a record that does not parse are nobody's content.
        write_file(version + "/.orbs3-tmp-1234", "x");
        write_file(version + "/.orbs3-v-.orbs3-tmp..2026_11_24_10_00_00", "<object");
        write_file(version + "/no-stamp..here", "x");
        write_file(meta + "/.orbs3-tmp-99", "<object");
    }
};

// The rows the model says for `keys` under prefix and delimiter.
std::vector<row> model(std::vector<key_history> keys, const std::string& prefix, const std::string& delim)
{
    std::sort(keys.begin(), keys.end(), [](const key_history& a, const key_history& b) { return a.key < b.key; });
    std::vector<row> out;
    std::string last_cp;
    for (const key_history& k : keys) {
        std::vector<row> rows;
        if (k.live)
            rows.push_back({"V", k.key, k.live_id.empty() ? "null" : k.live_id, true});
        for (const old_entry& o : k.olds) {
            if (o.kind == old_kind::half)
                continue;
            const std::string id = o.kind == old_kind::bare ? o.suffix : o.null_id ? "null" : o.suffix;
            rows.push_back({o.kind == old_kind::marker ? "D" : "V", k.key, id, rows.empty()});
        }
        if (rows.empty() || !k.key.starts_with(prefix))
            continue;
        if (!delim.empty()) {
            std::size_t at = k.key.find(delim, prefix.size());
            if (at != std::string::npos) {
                std::string cp = k.key.substr(0, at + delim.size());
                if (cp != last_cp)
                    out.push_back({"CP", cp, "", false});
                last_cp = cp;
                continue;
            }
        }
        out.insert(out.end(), rows.begin(), rows.end());
    }
    return out;
}

struct page_result {
    std::vector<row> rows;
    bool truncated = false;
    std::string next_key, next_id;
};

page_result run_page(const trees& t, const std::string& prefix, const std::string& delim, const std::string& key_marker,
                     const std::string& id_marker, int max_keys)
{
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    const orbs3_version_trees_t tr{t.meta, t.version, "u-owner", "owner"};
    orbs3_version_query_t q;
    q.prefix = prefix;
    q.delimiter = delim;
    q.key_marker = key_marker;
    q.version_id_marker = id_marker;
    q.max_keys = max_keys;
    orbs3_version_page_t page;
    page_result res;
    EXPECT_EQ(orbs3_version_list_page(&tr, &q, pool.get(), &page), 0);
    neo_list_head_t* pos;
    list_for_each(pos, &page.rows) {
        const auto* r = list_entry(pos, orbs3_version_row_t, link);
        const char* kind = r->kind == orbs3_version_row_kind::common_prefix ? "CP"
                           : r->kind == orbs3_version_row_kind::delete_marker ? "D"
                                                                                : "V";
        res.rows.push_back({kind, std::string(neo_getstr(&r->key)), std::string(neo_getstr(&r->version_id)),
                            r->is_latest});
    }
    EXPECT_EQ(page.count, static_cast<int>(res.rows.size()));
    res.truncated = page.truncated;
    res.next_key = std::string(page.next_key);
    res.next_id = std::string(page.next_version_id);
    return res;
}

// Every page size from 1 to past the whole listing: the pages, resumed through their markers, are the
// whole listing exactly, each no longer than asked, truncated exactly when a row follows.
void check_paging(const trees& t, const std::vector<row>& whole, const std::string& prefix, const std::string& delim)
{
    for (int max = 1; max <= static_cast<int>(whole.size()) + 1; max++) {
        SCOPED_TRACE("max-keys " + std::to_string(max));
        std::vector<row> got;
        std::string key_marker, id_marker;
        for (int pages = 0; pages <= static_cast<int>(whole.size()) + 1; pages++) {
            page_result p = run_page(t, prefix, delim, key_marker, id_marker, max);
            ASSERT_LE(p.rows.size(), static_cast<std::size_t>(max));
            got.insert(got.end(), p.rows.begin(), p.rows.end());
            if (!p.truncated)
                break;
            ASSERT_EQ(p.rows.size(), static_cast<std::size_t>(max));
            ASSERT_EQ(p.next_key, p.rows.back().key);
            ASSERT_EQ(p.next_id, p.rows.back().id);
            key_marker = p.next_key;
            id_marker = p.next_id;
        }
        ASSERT_EQ(got, whole);
    }
}

std::vector<key_history> hand_keys()
{
    return {
        // ".." in names and directories: a version name splits at its last "..".
        {"a", true, "", {{suffix_of(5, 0, 1), old_kind::version}, {suffix_of(4, 0, 2), old_kind::version}}},
        {"a.", false, "", {{suffix_of(1, 0, 3), old_kind::version, true}}},
        {"a..b", true, suffix_of(9, 0, 4), {{suffix_of(3, 0, 5), old_kind::version}}},
        {"a..2026_01_01_00_00_00", true, "", {{suffix_of(2, 0, 6), old_kind::version}}},
        {"d..x/k", true, "", {}},
        {"d/k", false, "", {{suffix_of(7, 0, 7), old_kind::marker}, {suffix_of(6, 0, 8), old_kind::version}}},
        {"d/k..y", true, "", {{suffix_of(7, 0, 9), old_kind::marker}}},
        // Only markers; a marker between versions; two contents of one second ordered by their tail.
        {"m1", false, "", {{suffix_of(8, 0, 10), old_kind::marker}}},
        {"m2", true, "", {{suffix_of(8, 1, 12), old_kind::version}, {suffix_of(8, 1, 11), old_kind::marker},
                          {suffix_of(8, 0, 13), old_kind::version}}},
        // Contents without a record, and a half-moved one that never shows (nor makes its key show).
        {"legacy", false, "", {{suffix_of(3, 3, 14), old_kind::bare}, {suffix_of(3, 2, 15), old_kind::half},
                               {suffix_of(3, 1, 16), old_kind::bare}}},
        {"ghost", false, "", {{suffix_of(3, 0, 17), old_kind::half}}},
        {"ghost-dir/x", false, "", {{suffix_of(3, 0, 18), old_kind::half}}},
        {"dir/", true, "", {}},
        {"dir/in", false, "", {{suffix_of(1, 1, 19), old_kind::version}}},
        {"z/y/x", true, "", {{suffix_of(1, 2, 20), old_kind::version}}},
    };
}

TEST(VersionList, ListsLiveAndOldContentsInKeyOrderNewestFirst)
{
    const std::vector<key_history> keys = hand_keys();
    trees t;
    t.lay(keys);
    struct view {
        std::string prefix, delim;
    };
    for (const view& v : std::vector<view>{{"", ""}, {"", "/"}, {"d", "/"}, {"d/", "/"}, {"a", ""}, {"a.", "."},
                                           {"z/", "/"}, {"ghost", "/"}, {"nothing", ""}, {"../", ""}}) {
        SCOPED_TRACE("prefix '" + v.prefix + "' delimiter '" + v.delim + "'");
        const std::vector<row> whole = model(keys, v.prefix, v.delim);
        EXPECT_EQ(run_page(t, v.prefix, v.delim, "", "", 1000).rows, whole);
        check_paging(t, whole, v.prefix, v.delim);
    }
}

TEST(VersionList, RowsCarryTheirOwnContentsFields)
{
    const std::vector<key_history> keys = hand_keys();
    trees t;
    t.lay(keys);
    orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
    const orbs3_version_trees_t tr{t.meta, t.version, "u-owner", "owner"};
    orbs3_version_query_t q;
    q.prefix = "legacy";
    orbs3_version_page_t page;
    ASSERT_EQ(orbs3_version_list_page(&tr, &q, pool.get(), &page), 0);
    ASSERT_EQ(page.count, 2);
    const auto* first = list_entry(page.rows.next, orbs3_version_row_t, link);
    // Without a record: the stamp, the file's size, the bucket owner, no ETag.
    EXPECT_EQ(std::string(neo_getstr(&first->last_modified)), "2026-11-24T10:03:03.000Z");
    EXPECT_EQ(first->size, size_of("legacy", suffix_of(3, 3, 14)));
    EXPECT_EQ(first->etag.len, 0u);
    EXPECT_EQ(std::string(neo_getstr(&first->owner_display_name)), "owner");

    q.prefix = "m2";
    ASSERT_EQ(orbs3_version_list_page(&tr, &q, pool.get(), &page), 0);
    std::vector<std::pair<std::string, uint64_t>> got;
    neo_list_head_t* pos;
    list_for_each(pos, &page.rows) {
        const auto* r = list_entry(pos, orbs3_version_row_t, link);
        got.emplace_back(std::string(neo_getstr(&r->etag)), r->size);
        EXPECT_EQ(std::string(neo_getstr(&r->owner_display_name)), "alice");
    }
    const std::string v1 = suffix_of(8, 1, 12), v2 = suffix_of(8, 0, 13);
    const std::vector<std::pair<std::string, uint64_t>> want = {
        {"e-" + std::to_string(size_of("m2", "")), size_of("m2", "")},
        {"e-" + std::to_string(size_of("m2", v1)), size_of("m2", v1)},
        {"e-" + std::to_string(size_of("m2", suffix_of(8, 1, 11))), 0},  // a marker has no size
        {"e-" + std::to_string(size_of("m2", v2)), size_of("m2", v2)},
    };
    EXPECT_EQ(got, want);
}

TEST(VersionList, ResumePoints)
{
    const std::vector<key_history> keys = hand_keys();
    trees t;
    t.lay(keys);
    const std::vector<row> all = model(keys, "", "");
    auto from = [&](const std::string& key, std::size_t skip) {
        auto it = std::find_if(all.begin(), all.end(), [&](const row& r) { return r.key == key; });
        return std::vector<row>(it + static_cast<std::ptrdiff_t>(skip), all.end());
    };
    auto behind = [&](const std::string& key) {
        auto it = std::find_if(all.begin(), all.end(), [&](const row& r) { return r.key > key; });
        return std::vector<row>(it, all.end());
    };
    struct resume_case {
        const char* what;
        std::string key_marker, id_marker;
        std::vector<row> want;
    };
    const std::vector<resume_case> cases = {
        {"key marker alone: behind every row of the key", "m2", "", behind("m2")},
        {"a key marker that is no key", "m1x", "", behind("m1x")},
        {"behind the live row", "m2", "null", from("m2", 1)},
        {"behind a marker", "m2", suffix_of(8, 1, 11), from("m2", 3)},
        {"behind the key's last row", "m2", suffix_of(8, 0, 13), behind("m2")},
        {"a version gone since: behind the newer ones", "m2", suffix_of(8, 0, 999), from("m2", 3)},
        {"a null id the key does not hold", "m1", "null", behind("m1")},
        {"behind a content without a record", "legacy", suffix_of(3, 3, 14), from("legacy", 1)},
        {"a marker outside the tree", "../../x", "null", behind("../../x")},
    };
    for (const resume_case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(run_page(t, "", "", c.key_marker, c.id_marker, 1000).rows, c.want);
    }
    // Two "null" rows in one key (a crash between the moves of a write can leave them): a page that
    // ends on either resumes behind the last, so paging moves on.
    {
        trees twice;
        twice.lay({{"n", true, "", {{suffix_of(5, 0, 1), old_kind::version}, {suffix_of(4, 0, 2), old_kind::version, true}}},
                    {"o", true, "", {}}});
        EXPECT_EQ(run_page(twice, "", "", "n", "null", 1000).rows, (std::vector<row>{{"V", "o", "null", true}}));
    }
    // A marker under a common prefix resumes behind the whole prefix.
    std::vector<row> rolled = model(keys, "", "/");
    auto it = std::find_if(rolled.begin(), rolled.end(), [](const row& r) { return r.key > "d/"; });
    EXPECT_EQ(run_page(t, "", "/", "d/k", suffix_of(7, 0, 7), 1000).rows, std::vector<row>(it, rolled.end()));
    // max-keys 0 is an empty page that is not truncated.
    page_result none = run_page(t, "", "", "", "", 0);
    EXPECT_TRUE(none.rows.empty());
    EXPECT_FALSE(none.truncated);
}

// Random trees: keys from parts that sort around "/" and hold "..", each with a random history.
std::vector<key_history> random_keys(unsigned seed)
{
    static const std::vector<std::string> parts = {"a", "a.", "a..b", "b", "-", "0", "x y", "\xc3\xa9", "k..", "ab"};
    std::mt19937 rng(seed);
    auto pick = [&](std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng); };
    std::map<std::string, key_history> keys;
    std::set<std::string> dirs;
    unsigned tail = 1;
    for (int i = 0; i < 14; i++) {
        std::string key;
        for (std::size_t d = 0, depth = 1 + pick(3); d < depth; d++)
            key += (d ? "/" : "") + parts[pick(parts.size())];
        // No key where another key needs a directory, nor the other way round.
        bool ok = !dirs.count(key);
        for (std::size_t at = key.find('/'); at != std::string::npos; at = key.find('/', at + 1))
            ok = ok && !keys.count(key.substr(0, at));
        if (!ok || keys.count(key))
            continue;
        for (std::size_t at = key.find('/'); at != std::string::npos; at = key.find('/', at + 1))
            dirs.insert(key.substr(0, at));
        key_history k{key, pick(3) != 0, "", {}};
        if (k.live && pick(2) == 0)
            k.live_id = suffix_of(59, 0, tail++);
        for (std::size_t v = 0, n = pick(4); v < n; v++) {
            const old_kind kind = std::array{old_kind::version, old_kind::version, old_kind::marker, old_kind::bare,
                                             old_kind::half}[pick(5)];
            k.olds.push_back({suffix_of(static_cast<int>(50 - v * 5), 0, tail++), kind, false});
        }
        keys[key] = k;
    }
    std::vector<key_history> out;
    for (auto& [_, k] : keys)
        out.push_back(k);
    return out;
}

TEST(VersionList, EveryPageSizeOfRandomTreesGivesEveryRowOnce)
{
    for (unsigned seed : {1u, 2u, 3u, 4u}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const std::vector<key_history> keys = random_keys(seed);
        trees t;
        t.lay(keys);
        for (const char* delim : {"", "/", ".."}) {
            SCOPED_TRACE(std::string("delimiter ") + delim);
            const std::vector<row> whole = model(keys, "", delim);
            EXPECT_EQ(run_page(t, "", delim, "", "", 1000).rows, whole);
            check_paging(t, whole, "", delim);
        }
    }
}

// The flat listing of one directory of an old-contents tree.
TEST(VersionList, OneDirectoryOfATreeInKeyOrder)
{
    temp_dir tree;
    for (const char* f : {"d/b..2026_11_24_10_00_00", "d/a..2026_11_24_10_00_00", "d/.orbs3-v-a..2026_11_24_10_00_00",
                          "d/.orbs3-tmp-1", "d/a-b..2026_11_24_10_00_00", "d/sub/deep..2026_11_24_10_00_00",
                          "top..2026_11_24_10_00_00"})
        write_file(tree(f), "12345");
    ASSERT_EQ(neo_mkdir_p(tree("d/a").c_str(), 0700), 0);  // sorts as "d/a/", behind "d/a-b.."
    struct flat_case {
        const char* dir;
        const char* after;
        bool sizes;
        std::vector<std::string> want;  // directories end in "/"
        uint64_t size;
    };
    const std::vector<flat_case> cases = {
        {"d/", "", true,
         {"d/a-b..2026_11_24_10_00_00", "d/a..2026_11_24_10_00_00", "d/a/", "d/b..2026_11_24_10_00_00", "d/sub/"}, 5},
        {"d/", "d/a/", false, {"d/b..2026_11_24_10_00_00", "d/sub/"}, 0},
        {"", "", true, {"d/", "top..2026_11_24_10_00_00"}, 5},
        {"nowhere/", "", true, {}, 0},
        {"../", "", true, {}, 0},
    };
    for (const flat_case& c : cases) {
        SCOPED_TRACE(std::string(c.dir) + " after " + c.after);
        orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
        orbs3_tree_dir_query_t q;
        q.dir = c.dir;
        q.after = c.after;
        q.sizes = c.sizes;
        orbs3_list_page_t page;
        ASSERT_EQ(orbs3_tree_dir_page(tree.path, &q, pool.get(), &page), 0);
        std::vector<std::string> got;
        neo_list_head_t* pos;
        list_for_each(pos, &page.entries) {
            const auto* e = list_entry(pos, orbs3_list_entry_t, link);
            got.emplace_back(neo_getstr(&e->key));
            if (!e->is_dir) {
                EXPECT_EQ(e->size, c.size) << got.back();
            }
        }
        EXPECT_EQ(got, c.want);
        EXPECT_FALSE(page.truncated);
    }
}

TEST(VersionList, OneDirectoryPagesAtAThousand)
{
    temp_dir tree;
    for (int i = 0; i < ORBS3_TREE_DIR_MAX + 3; i++) {
        char name[32];
        std::snprintf(name, sizeof name, "k%04d..2026_11_24_10_00_00", i);
        write_file(tree(name), "");
    }
    std::vector<std::string> got;
    std::string after;
    for (int pages = 0; pages < 3; pages++) {
        orbs3_pool_ptr pool(orbs3_create_mem_block(4096));
        orbs3_tree_dir_query_t q;
        q.after = after;
        orbs3_list_page_t page;
        ASSERT_EQ(orbs3_tree_dir_page(tree.path, &q, pool.get(), &page), 0);
        neo_list_head_t* pos;
        list_for_each(pos, &page.entries) {
            got.emplace_back(neo_getstr(&list_entry(pos, orbs3_list_entry_t, link)->key));
        }
        EXPECT_EQ(page.key_count, pages == 0 ? ORBS3_TREE_DIR_MAX : 3);
        if (!page.truncated)
            break;
        after = std::string(page.next);
    }
    ASSERT_EQ(got.size(), static_cast<std::size_t>(ORBS3_TREE_DIR_MAX + 3));
    EXPECT_TRUE(std::is_sorted(got.begin(), got.end()));
    EXPECT_EQ(std::set<std::string>(got.begin(), got.end()).size(), got.size());
}

}  // namespace
