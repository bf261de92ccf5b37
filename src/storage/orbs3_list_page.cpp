#include "storage/orbs3_list_page.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "memory/orbs3_assert.h"
#include "core/orbs3_log.h"
#include "memory/neo_files.h"
#include "s3/orbs3_s3_documents.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_record.h"

namespace {

}  // namespace

bool orbs3_key_walk::bound_t::passes(std::string_view k) const
{
    if (k.compare(key) <= 0)
        return false;
    return !(whole && k.starts_with(key));
}

// Whether a directory whose keys all start with `p` may hold a key past the bound.
bool orbs3_key_walk::bound_t::may_enter(std::string_view p) const
{
    if (std::string_view(key).starts_with(p))
        return true;
    if (whole && p.starts_with(key))
        return false;
    return p.compare(key) > 0;
}

orbs3_key_walk::orbs3_key_walk(std::string_view root, std::string_view prefix, std::size_t chunk,
                               orbs3_walk_group_pt group)
    : root_(root), prefix_(prefix), chunk_(std::max<std::size_t>(chunk, 16)), group_(group)
{
}

void orbs3_key_walk::raise(std::string_view key, bool whole)
{
    bound_.key.assign(key);
    bound_.whole = whole;
}

int orbs3_key_walk::next(orbs3_walk_key_t* out)
{
    if (!started_) {
        started_ = true;
        // Every key under the prefix lies in the directory its last "/" names: start there.
        std::size_t slash = prefix_.rfind('/');
        std::string start(slash == std::string::npos ? std::string() : prefix_.substr(0, slash + 1));
        int rc = push(start);
        if (rc < 0)
            return errno == ENOENT || errno == ENOTDIR ? 0 : -1;
    }
    while (!stack_.empty()) {
        frame_t& f = stack_.back();
        // A directory whose keys all lie behind the bound now (a common prefix given out covers it)
        // is left without looking at the rest of its entries.
        if (!f.prefix.empty() && !bound_.may_enter(f.prefix)) {
            stack_.pop_back();
            continue;
        }
        if (f.marker) {
            f.marker = false;
            if (!wanted(f.prefix))
                continue;
            out->key = f.prefix;
            out->rel = f.prefix + std::string(ORBS3_DIR_MARKER);
            out->files.clear();
            return 1;
        }
        if (f.pos == f.entries.size()) {
            stack_.pop_back();
            continue;
        }
        sort_ahead(f);
        ORBS3_ASSERT(f.pos < f.sorted);  // keys leave in order only if their place is sorted first
        entry_t& e = f.entries[f.pos++];
        std::string k = f.prefix + e.sort_name;
        if (e.dir) {
            if (bound_.may_enter(k) && compatible(k))
                (void)push(k);  // a directory that can't be read holds nothing this walk can give
            continue;
        }
        if (!wanted(k))
            continue;
        out->files.clear();
        for (uint32_t i = e.first; i != kNone; i = f.files[i].next)
            out->files.emplace_back(f.names, f.files[i].at, f.files[i].len);
        out->rel = k;
        out->key = std::move(k);
        return 1;
    }
    return 0;
}

// A directory whose keys start with `p` holds keys of the prefix, or the prefix lies inside it.
bool orbs3_key_walk::compatible(std::string_view p) const
{
    return p.starts_with(prefix_) || std::string_view(prefix_).starts_with(p);
}

bool orbs3_key_walk::wanted(std::string_view k) const
{
    return !k.empty() && bound_.passes(k) && k.starts_with(prefix_);
}

void orbs3_key_walk::sort_ahead(frame_t& f)
{
    if (f.pos < f.sorted)
        return;
    auto less = [](const entry_t& a, const entry_t& b) { return a.sort_name < b.sort_name; };
    std::size_t end = std::min(f.entries.size(), f.pos + chunk_);
    auto first = f.entries.begin() + static_cast<std::ptrdiff_t>(f.pos);
    std::partial_sort(first, f.entries.begin() + static_cast<std::ptrdiff_t>(end), f.entries.end(), less);
    f.sorted = end;
}

// Reads the directory of key prefix `p` onto the stack. -1 with errno when it can't be opened. A
// prefix no key can start with ("../", "a//", "/") names no directory: nothing is pushed and the
// walk ends empty, as S3 lists such a prefix.
int orbs3_key_walk::push(const std::string& p)
{
    char path[ORBS3_PATH_AREA];
    if (orbs3_tree_path(root_, p, path) != 0)
        return 0;
    int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return -1;
    neo_dir_ptr dir(fdopendir(fd));
    if (!dir) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    frame_t f;
    f.prefix = p;
    std::unordered_map<std::string, std::size_t> groups;  // a grouping tree: key component -> entry
    std::string k, gk;
    while (struct dirent* d = readdir(dir.get())) {
        std::string_view name(d->d_name);
        if (name == "." || name == "..")
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
        std::string_view key_name = name;
        if (group_ != nullptr && type == DT_REG) {
            key_name = group_(name);
            if (key_name.empty())
                continue;
        } else if (name.starts_with(ORBS3_RESERVED_PREFIX)) {
            // The directory object's record; every other such name is the server's own.
            if (group_ == nullptr && type == DT_REG && name == ORBS3_DIR_MARKER && !p.empty())
                f.marker = true;
            continue;
        }
        k.assign(p).append(key_name);
        if (type == DT_DIR)
            k.push_back('/');
        if (type == DT_DIR ? !(bound_.may_enter(k) && compatible(k)) : !wanted(k))
            continue;
        if (group_ != nullptr && type == DT_REG) {
            gk.assign(key_name);
            auto [at, fresh] = groups.try_emplace(gk, f.entries.size());
            if (fresh)
                f.entries.push_back(entry_t{gk, false});
            if (f.files.size() >= kNone || f.names.size() + name.size() >= kNone)
                continue;  // billions of names in one directory: the rest is not listed
            entry_t& e = f.entries[at->second];
            const auto i = static_cast<uint32_t>(f.files.size());
            f.files.push_back({static_cast<uint32_t>(f.names.size()), static_cast<uint32_t>(name.size()), kNone});
            f.names.append(name);
            (e.first == kNone ? e.first : f.files[e.last].next) = i;
            e.last = i;
            continue;
        }
        f.entries.push_back(entry_t{k.substr(p.size()), type == DT_DIR});
    }
    stack_.push_back(std::move(f));
    return 0;
}

namespace {

bool pool_copy(orbs3_pool_t* pool, orbs3_str_t* s, std::string_view text)
{
    if (text.empty()) {
        s->data = nullptr;
        s->len = 0;
        return true;
    }
    return orbs3_pstr_set(pool, s, text.data(), text.size()) == 0;
}

}  // namespace

std::string_view orbs3_list_rollup(std::string_view key, std::string_view prefix, std::string_view delimiter)
{
    if (delimiter.empty() || !key.starts_with(prefix))
        return {};
    std::size_t at = key.find(delimiter, prefix.size());
    if (at == std::string_view::npos)
        return {};
    return key.substr(0, at + delimiter.size());
}

int orbs3_list_page(const char* meta_dir, const orbs3_list_query_t* query, orbs3_pool_t* pool,
                    orbs3_list_page_t* page)
{
    INIT_LIST_HEAD(&page->entries);
    page->key_count = 0;
    page->truncated = false;
    page->next = {};
    const int max_keys = std::clamp(query->max_keys, 0, ORBS3_LIST_MAX_KEYS);
    if (max_keys == 0)
        return 0;

    orbs3_key_walk walk(meta_dir, query->prefix, static_cast<std::size_t>(max_keys) + 1);
    // A resume point under a common prefix was given out with that prefix: start behind all of it.
    if (!query->after.empty()) {
        std::string_view cp = orbs3_list_rollup(query->after, query->prefix, query->delimiter);
        walk.raise(cp.empty() ? query->after : cp, !cp.empty());
    }

    orbs3_list_entry_t* last = nullptr;
    orbs3_walk_key_t item;
    for (;;) {
        int rc = walk.next(&item);
        if (rc < 0) {
            ipd_log(LOG_ERR, "listing %s failed: %s", meta_dir, std::strerror(errno));
            return -1;
        }
        if (rc == 0)
            break;
        // A record that does not parse is no object, and makes no common prefix either.
        orbs3_object_ptr rec;
        char path[ORBS3_PATH_AREA];
        if (orbs3_tree_path(meta_dir, item.rel, path) == 0)
            rec.reset(orbs3_create_object_from_file(path));
        if (!rec)
            continue;
        std::string_view cp = orbs3_list_rollup(item.key, query->prefix, query->delimiter);
        if (page->key_count == max_keys) {
            page->truncated = true;
            break;
        }
        auto* e = static_cast<orbs3_list_entry_t*>(orbs3_pcalloc(pool, sizeof(orbs3_list_entry_t)));
        if (e == nullptr)
            return -1;
        if (!cp.empty()) {
            e->is_dir = true;
            if (!pool_copy(pool, &e->key, cp))
                return -1;
            // Everything under the common prefix is given out with it.
            walk.raise(cp, true);
        } else {
            const orbs3_object_t* o = rec.get();
            if (!pool_copy(pool, &e->key, item.key) || !pool_copy(pool, &e->last_modified, orbs3_str_view(o->last_modified)) ||
                !pool_copy(pool, &e->etag, orbs3_str_view(o->etag)) || !pool_copy(pool, &e->owner_id, orbs3_str_view(o->owner_id)) ||
                !pool_copy(pool, &e->owner_display_name, orbs3_str_view(o->owner_display_name)))
                return -1;
            e->size = o->size;
            walk.raise(item.key, false);
        }
        list_add_tail(&e->link, &page->entries);
        page->key_count++;
        last = e;
    }
    if (page->truncated && last != nullptr)
        page->next = orbs3_str_view(last->key);
    return 0;
}
