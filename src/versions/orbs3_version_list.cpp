#include "versions/orbs3_version_list.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "core/orbs3_log.h"
#include "memory/neo_files.h"
#include "s3/orbs3_s3_documents.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_record.h"
#include "versions/orbs3_version_name.h"

namespace {

// The key component a file of the version tree belongs to: "<name>..<suffix>" and its record
// ".orbs3-v-<name>..<suffix>" both belong to <name>. Temporary files and names that are no content of a
// key a client could have stored belong to none.
std::string_view old_content_key_name(std::string_view file)
{
    std::string_view n = file;
    if (orbs3_version_is_record_name(n))
        n.remove_prefix(ORBS3_VERSION_RECORD_PREFIX.size());
    else if (n.starts_with(ORBS3_RESERVED_PREFIX))
        return {};
    orbs3_stamped_key_t s;
    if (orbs3_split_stamped_key(n, &s) != 0 || s.suffix.size() > ORBS3_VERSION_SUFFIX_LEN)
        return {};
    if (s.live_name == "." || s.live_name == ".." || s.live_name.starts_with(ORBS3_RESERVED_PREFIX))
        return {};
    return s.live_name;
}

// The contents a walk grouped for one key, joined by suffix, newest first, as orbs3_version_list_key
// lists them.
std::vector<orbs3_version_entry_t> entries_of(const std::vector<std::string>& files)
{
    std::vector<orbs3_version_entry_t> out;
    for (std::string_view name : files) {
        const bool record = orbs3_version_is_record_name(name);
        if (record)
            name.remove_prefix(ORBS3_VERSION_RECORD_PREFIX.size());
        orbs3_stamped_key_t s;
        if (orbs3_split_stamped_key(name, &s) != 0 || s.suffix.size() > ORBS3_VERSION_SUFFIX_LEN)
            continue;
        auto it = std::find_if(out.begin(), out.end(),
                               [&](const orbs3_version_entry_t& e) { return s.suffix == e.suffix; });
        if (it == out.end()) {
            orbs3_version_entry_t e{};
            std::memcpy(e.suffix, s.suffix.data(), s.suffix.size());
            e.stamp = s.stamp;
            out.push_back(e);
            it = out.end() - 1;
        }
        (record ? it->has_record : it->has_data) = true;
    }
    std::sort(out.begin(), out.end(), orbs3_version_newer);
    return out;
}

// "YYYY-MM-DDThh:mm:ss.000Z", the records' time form.
void format_time(const struct tm& tm, char (&out)[64])
{
    std::snprintf(out, sizeof out, "%04d-%02d-%02dT%02d:%02d:%02d.000Z", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
}

void format_stamp(int64_t stamp, char (&out)[64])
{
    struct tm tm {};
    tm.tm_sec = static_cast<int>(stamp % 100);
    tm.tm_min = static_cast<int>(stamp / 100 % 100);
    tm.tm_hour = static_cast<int>(stamp / 10000 % 100);
    tm.tm_mday = static_cast<int>(stamp / 1000000 % 100);
    tm.tm_mon = static_cast<int>(stamp / 100000000 % 100) - 1;
    tm.tm_year = static_cast<int>(stamp / 10000000000 % 10000) - 1900;
    format_time(tm, out);
}

// A row of one key before it goes on the page.
struct candidate_t {
    orbs3_version_row_kind kind = orbs3_version_row_kind::version;
    orbs3_object_ptr rec;                // null for a content without a record
    bool live = false;
    orbs3_version_entry_t entry{};  // the version tree's entry (not for the live object)
    std::string id;
    char time[64] = {};            // a content without a record: its stamp
    uint64_t size = 0;
};

// The rows of `key`: its live record (null for none) and its version tree entries, newest first.
void rows_of(const orbs3_version_trees_t* trees, std::string_view key, orbs3_object_ptr live,
             const std::vector<orbs3_version_entry_t>& olds, std::vector<candidate_t>* out)
{
    out->clear();
    if (live) {
        candidate_t c;
        c.id = orbs3_object_version_id(live.get());
        c.live = true;
        c.size = live->size;
        c.rec = std::move(live);
        out->push_back(std::move(c));
    }
    for (const orbs3_version_entry_t& e : olds) {
        orbs3_version_file_t file;
        if (orbs3_version_paths(trees->version_dir, key, e.suffix, &file) != 0)
            continue;
        candidate_t c;
        c.entry = e;
        if (e.has_record)
            c.rec.reset(orbs3_create_object_from_file(file.record));
        if (c.rec && c.rec->delete_marker != 0) {
            c.kind = orbs3_version_row_kind::delete_marker;
        } else if (!e.has_data) {
            continue;  // bytes gone and no marker: a crash between the two moves of a content
        } else if (c.rec) {
            c.size = c.rec->size;
        } else {
            // Bytes without a (readable) record: what the file itself tells.
            struct stat st {};
            if (lstat(file.data, &st) != 0 || !S_ISREG(st.st_mode))
                continue;
            c.size = static_cast<uint64_t>(st.st_size);
            format_stamp(e.stamp, c.time);
        }
        c.id = c.rec ? std::string(orbs3_object_version_id(c.rec.get())) : std::string(e.suffix);
        out->push_back(std::move(c));
    }
}

bool pool_copy(orbs3_pool_t* pool, orbs3_str_t* s, std::string_view text)
{
    if (text.empty()) {
        s->data = nullptr;
        s->len = 0;
        return true;
    }
    return orbs3_pstr_set(pool, s, text.data(), text.size()) == 0;
}

// The page being filled: rows go on until it is full, and a row offered then marks it truncated.
class page_writer {
public:
    page_writer(const orbs3_version_trees_t* trees, orbs3_pool_t* pool, orbs3_version_page_t* page, int max)
        : trees_(trees), pool_(pool), page_(page), max_(max)
    {
    }

    // 1 when the row went on, 0 when the page was full (now truncated), -1 when the pool ran out.
    int add(std::string_view key, const candidate_t& c, bool latest)
    {
        orbs3_version_row_t* row = take();
        if (row == nullptr)
            return page_->truncated ? 0 : -1;
        row->kind = c.kind;
        row->is_latest = latest;
        const orbs3_object_t* o = c.rec.get();
        const std::string_view time = o != nullptr ? orbs3_str_view(o->last_modified) : std::string_view(c.time);
        const std::string_view owner_id = o != nullptr ? orbs3_str_view(o->owner_id) : trees_->owner_id;
        const std::string_view owner_name = o != nullptr ? orbs3_str_view(o->owner_display_name) : trees_->owner_name;
        if (!pool_copy(pool_, &row->key, key) || !pool_copy(pool_, &row->version_id, c.id) ||
            !pool_copy(pool_, &row->last_modified, time) ||
            !pool_copy(pool_, &row->etag, o != nullptr ? orbs3_str_view(o->etag) : std::string_view()) ||
            !pool_copy(pool_, &row->owner_id, owner_id) || !pool_copy(pool_, &row->owner_display_name, owner_name))
            return -1;
        row->size = c.kind == orbs3_version_row_kind::delete_marker ? 0 : c.size;
        return put(row);
    }

    int add_prefix(std::string_view cp)
    {
        orbs3_version_row_t* row = take();
        if (row == nullptr)
            return page_->truncated ? 0 : -1;
        row->kind = orbs3_version_row_kind::common_prefix;
        if (!pool_copy(pool_, &row->key, cp))
            return -1;
        return put(row);
    }

    void finish()
    {
        if (!page_->truncated || last_ == nullptr)
            return;
        page_->next_key = orbs3_str_view(last_->key);
        page_->next_version_id = orbs3_str_view(last_->version_id);
    }

private:
    orbs3_version_row_t* take()
    {
        if (page_->count == max_) {
            page_->truncated = true;
            return nullptr;
        }
        return static_cast<orbs3_version_row_t*>(orbs3_pcalloc(pool_, sizeof(orbs3_version_row_t)));
    }
    int put(orbs3_version_row_t* row)
    {
        list_add_tail(&row->link, &page_->rows);
        page_->count++;
        last_ = row;
        return 1;
    }

    const orbs3_version_trees_t* trees_;
    orbs3_pool_t* pool_;
    orbs3_version_page_t* page_;
    int max_;
    orbs3_version_row_t* last_ = nullptr;
};

// One tree's walk with the key it gave and that is not yet taken.
struct side_t {
    orbs3_key_walk walk;
    orbs3_walk_key_t cur;
    bool have = false;
    bool done = false;

    int fill()
    {
        if (have || done)
            return 0;
        int rc = walk.next(&cur);
        if (rc < 0)
            return -1;
        (rc == 0 ? done : have) = true;
        return 0;
    }
};

orbs3_object_ptr live_record(std::string_view meta_dir, std::string_view rel)
{
    char path[ORBS3_PATH_AREA];
    if (orbs3_tree_path(meta_dir, rel, path) != 0)
        return nullptr;
    return orbs3_object_ptr(orbs3_create_object_from_file(path));
}

// The rows of the key marker behind its version id marker, read straight from the key's own files.
int resume_inside_key(const orbs3_version_trees_t* trees, const orbs3_version_query_t* q, page_writer* w)
{
    const std::string_view key = q->key_marker;
    char probe[ORBS3_PATH_AREA];
    if (orbs3_tree_path(trees->meta_dir, key, probe) != 0)
        return 1;  // no key of the bucket: nothing of it to give
    std::string rel(key);
    if (key.ends_with('/'))
        rel.append(ORBS3_DIR_MARKER);
    std::vector<orbs3_version_entry_t> olds;
    if (!key.ends_with('/') && orbs3_version_list_key(trees->version_dir, key, &olds) != 0)
        return -1;
    std::vector<candidate_t> rows;
    rows_of(trees, key, live_record(trees->meta_dir, rel), olds, &rows);

    const std::string_view id = q->version_id_marker;
    std::size_t from = rows.size();
    // Ids are unique within a key but for a "null" that a crash left twice: resuming behind the last row
    // with the id keeps a client's paging moving, where the first could hand the same page out for ever.
    auto it = std::find_if(rows.rbegin(), rows.rend(), [&](const candidate_t& c) { return c.id == id; });
    if (it != rows.rend()) {
        from = rows.size() - static_cast<std::size_t>(it - rows.rbegin());
    } else if (id != ORBS3_NULL_VERSION_ID && id.size() <= ORBS3_VERSION_SUFFIX_LEN) {
        // Gone since the page that named it: resume behind the contents newer than it was.
        orbs3_version_entry_t gone{};
        std::memcpy(gone.suffix, id.data(), id.size());
        gone.stamp = orbs3_check_date(".." + std::string(id));
        from = 0;
        while (from < rows.size() && (rows[from].live || !orbs3_version_newer(gone, rows[from].entry)))
            from++;
    }
    for (std::size_t i = from; i < rows.size(); i++) {
        int rc = w->add(key, rows[i], i == 0);
        if (rc <= 0)
            return rc;
    }
    return 1;
}

}  // namespace

int orbs3_version_list_page(const orbs3_version_trees_t* trees, const orbs3_version_query_t* query,
                            orbs3_pool_t* pool, orbs3_version_page_t* page)
{
    INIT_LIST_HEAD(&page->rows);
    page->count = 0;
    page->truncated = false;
    page->next_key = page->next_version_id = {};
    const int max_keys = std::clamp(query->max_keys, 0, ORBS3_LIST_MAX_KEYS);
    if (max_keys == 0)
        return 0;
    page_writer w(trees, pool, page, max_keys);

    const auto chunk = static_cast<std::size_t>(max_keys) + 1;
    side_t live{orbs3_key_walk(trees->meta_dir, query->prefix, chunk)};
    side_t old{orbs3_key_walk(trees->version_dir, query->prefix, chunk, old_content_key_name)};
    auto raise = [&](std::string_view key, bool whole) {
        live.walk.raise(key, whole);
        old.walk.raise(key, whole);
    };
    if (!query->key_marker.empty()) {
        // A marker under a common prefix was given out with that prefix: start behind all of it.
        std::string_view cp = orbs3_list_rollup(query->key_marker, query->prefix, query->delimiter);
        raise(cp.empty() ? query->key_marker : cp, !cp.empty());
        if (cp.empty() && !query->version_id_marker.empty() && query->key_marker.starts_with(query->prefix)) {
            int rc = resume_inside_key(trees, query, &w);
            if (rc <= 0) {
                w.finish();
                return rc;
            }
        }
    }

    std::vector<candidate_t> rows;
    for (;;) {
        if (live.fill() != 0 || old.fill() != 0) {
            ipd_log(LOG_ERR, "listing the versions of %.*s failed: %s", static_cast<int>(trees->meta_dir.size()),
                    trees->meta_dir.data(), std::strerror(errno));
            return -1;
        }
        if (!live.have && !old.have)
            break;
        const std::string key = !old.have || (live.have && live.cur.key <= old.cur.key) ? live.cur.key : old.cur.key;
        const bool from_live = live.have && live.cur.key == key;
        const bool from_old = old.have && old.cur.key == key;
        // A key that shows no row (a record that does not parse, contents a crash left half moved) is
        // no key: it makes no common prefix either, as in the object listing.
        rows_of(trees, key, from_live ? live_record(trees->meta_dir, live.cur.rel) : nullptr,
                from_old ? entries_of(old.cur.files) : std::vector<orbs3_version_entry_t>(), &rows);
        live.have = live.have && !from_live;
        old.have = old.have && !from_old;
        if (rows.empty())
            continue;
        std::string_view cp = orbs3_list_rollup(key, query->prefix, query->delimiter);
        if (!cp.empty()) {
            const std::string prefix(cp);
            int rc = w.add_prefix(prefix);
            if (rc <= 0) {
                w.finish();
                return rc;
            }
            // Everything under the common prefix is given out with it, also what a walk holds already.
            raise(prefix, true);
            for (side_t* s : {&live, &old})
                s->have = s->have && !std::string_view(s->cur.key).starts_with(prefix);
            continue;
        }
        for (std::size_t i = 0; i < rows.size(); i++) {
            int rc = w.add(key, rows[i], i == 0);
            if (rc <= 0) {
                w.finish();
                return rc;
            }
        }
    }
    w.finish();
    return 0;
}

int orbs3_tree_dir_page(std::string_view tree, const orbs3_tree_dir_query_t* query, orbs3_pool_t* pool,
                        orbs3_list_page_t* page)
{
    INIT_LIST_HEAD(&page->entries);
    page->key_count = 0;
    page->truncated = false;
    page->next = {};
    char path[ORBS3_PATH_AREA];
    if (orbs3_tree_path(tree, query->dir, path) != 0)
        return 0;
    int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT || errno == ENOTDIR ? 0 : -1;
    neo_dir_ptr dir(fdopendir(fd));
    if (!dir) {
        close(fd);
        return -1;
    }
    struct item_t {
        std::string key;  // "<dir><name>", a directory's with "/"
        bool is_dir;
    };
    std::vector<item_t> items;
    while (struct dirent* d = readdir(dir.get())) {
        std::string_view name(d->d_name);
        if (name == "." || name == ".." || name.starts_with(ORBS3_RESERVED_PREFIX))
            continue;
        unsigned char type = d->d_type;
        if (type == DT_UNKNOWN) {
            struct stat st;
            if (fstatat(dirfd(dir.get()), d->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            type = S_ISREG(st.st_mode) ? DT_REG : S_ISDIR(st.st_mode) ? DT_DIR : DT_UNKNOWN;
        }
        if (type != DT_REG && type != DT_DIR)
            continue;
        item_t it{std::string(query->dir).append(name), type == DT_DIR};
        if (it.is_dir)
            it.key.push_back('/');
        if (std::string_view(it.key).compare(query->after) > 0)
            items.push_back(std::move(it));
    }
    const std::size_t take = std::min<std::size_t>(items.size(), ORBS3_TREE_DIR_MAX);
    auto less = [](const item_t& a, const item_t& b) { return a.key < b.key; };
    std::partial_sort(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(std::min(items.size(), take + 1)),
                      items.end(), less);
    for (std::size_t i = 0; i < take; i++) {
        const item_t& it = items[i];
        auto* e = static_cast<orbs3_list_entry_t*>(orbs3_pcalloc(pool, sizeof(orbs3_list_entry_t)));
        if (e == nullptr || !pool_copy(pool, &e->key, it.key))
            return -1;
        e->is_dir = it.is_dir;
        if (!it.is_dir) {
            const std::string name = it.key.substr(query->dir.size());
            struct stat st {};
            if (fstatat(dirfd(dir.get()), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
                continue;  // gone since the directory was read
            struct tm tm {};
            gmtime_r(&st.st_mtime, &tm);
            char time[64];
            format_time(tm, time);
            e->size = query->sizes ? static_cast<uint64_t>(st.st_size) : 0;
            if (!pool_copy(pool, &e->last_modified, time) || !pool_copy(pool, &e->owner_id, query->owner_id) ||
                !pool_copy(pool, &e->owner_display_name, query->owner_name))
                return -1;
        }
        list_add_tail(&e->link, &page->entries);
        page->key_count++;
    }
    page->truncated = items.size() > take;
    if (page->truncated && !list_empty(&page->entries))
        page->next = orbs3_str_view(list_entry(page->entries.prev, orbs3_list_entry_t, link)->key);
    return 0;
}
