#include "control/orbs3_vhost_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "core/orbs3_config.h"
#include "core/orbs3_log.h"
#include "core/orbs3_prefix.h"
#include "core/orbs3_xml.h"
#include "memory/neo_files.h"
#include "storage/orbs3_bucket_store.h"
#include "storage/orbs3_record.h"

neo_list_head_t orbs3_endpoints = {&orbs3_endpoints, &orbs3_endpoints};
pthread_mutex_t orbs3_endpoints_lock = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr std::size_t kSslCap = 128;
constexpr std::size_t kStatusCap = 256;
// The user and lifecycle files pass their values through 1024-byte buffers: the request parsers' work
// areas are that size, so nothing longer ever comes in.
constexpr std::size_t kValueCap = 1023;
constexpr std::size_t kEndpointPortLen = 8;
constexpr std::string_view kGroupPrefix = "group_";

// ---- text ----

// Length of the longest prefix of s[0, n) that does not end inside a UTF-8 sequence. A value cut in the
// middle of a character would, once written back, make the whole file unreadable.
std::size_t utf8_whole(const char* s, std::size_t n)
{
    std::size_t i = n;
    std::size_t tail = 0;
    while (i > 0 && tail < 3 && (static_cast<unsigned char>(s[i - 1]) & 0xC0) == 0x80) {
        --i;
        ++tail;
    }
    if (i == 0)
        return n;
    const auto lead = static_cast<unsigned char>(s[i - 1]);
    std::size_t need = 1;
    if ((lead & 0xE0) == 0xC0)
        need = 2;
    else if ((lead & 0xF0) == 0xE0)
        need = 3;
    else if ((lead & 0xF8) == 0xF0)
        need = 4;
    return tail + 1 < need ? i - 1 : n;
}

// At most `cap` bytes of the text, never ending inside a character.
std::string cut_text(const char* s, std::size_t cap)
{
    std::size_t n = strnlen(s, cap + 1);
    if (n > cap)
        n = utf8_whole(s, cap);
    return std::string(s, n);
}

// Mini-XML refuses a whole document for one control byte or one broken UTF-8 sequence, so such a value
// is never written: it would take every other host or user of the file with it. Tabs and line breaks,
// which XML could hold, have no place in these names either.
bool xml_text_ok(std::string_view s)
{
    return orbs3_xml_text_ok(s) && s.find_first_of("\t\r\n") == std::string_view::npos;
}

// root + sub without a doubled slash at the join.
std::string under(std::string_view root, std::string_view sub)
{
    std::string s(root);
    if (!s.empty() && s.back() == '/' && !sub.empty() && sub.front() == '/')
        sub.remove_prefix(1);
    s.append(sub);
    return s;
}

// "/<cluster>/<tier>", or "/<cluster>" when the tier's path is empty. The cluster file may write a path
// with or without its leading slash; the joins are cut to one slash so that one directory always gives
// one text, the one vhosts carry as cluster_path.
std::string join_root(std::string_view cluster, std::string_view tier)
{
    auto trim = [](std::string_view p) {
        while (!p.empty() && p.front() == '/')
            p.remove_prefix(1);
        while (!p.empty() && p.back() == '/')
            p.remove_suffix(1);
        return p;
    };
    cluster = trim(cluster);
    tier = trim(tier);
    std::string s = "/";
    s.append(cluster);
    if (!tier.empty()) {
        if (!cluster.empty())
            s += '/';
        s.append(tier);
    }
    return s;
}

// ---- XML reading ----

// The attribute's value cut to `cap` bytes on a character boundary; empty when it is missing.
std::string read_attr(mxml_node_t* node, const char* attr, std::size_t cap)
{
    std::string buf(cap + 1, '\0');
    if (orbs3_xml_get_str(node, attr, buf.data(), buf.size()) != 0)
        return {};
    std::size_t n = std::strlen(buf.c_str());
    if (n == cap && mxmlElementGetAttr(node, attr)[cap] != '\0')
        n = utf8_whole(buf.data(), n);
    buf.resize(n);
    return buf;
}

bool is_element(mxml_node_t* n, const char* name)
{
    return mxmlGetType(n) == MXML_ELEMENT && std::strcmp(mxmlGetElement(n), name) == 0;
}

// The elements `name` directly below `parent`, in file order; stops early when `f` returns false.
template <typename F>
bool for_each_child(mxml_node_t* parent, const char* name, F f)
{
    for (mxml_node_t* n = mxmlGetFirstChild(parent); n != nullptr; n = mxmlGetNextSibling(n))
        if (is_element(n, name) && !f(n))
            return false;
    return true;
}

// The elements `name` anywhere in the tree, in document order.
template <typename F>
bool for_each_element(mxml_node_t* top, const char* name, F f)
{
    for (mxml_node_t* n = orbs3_xml_find(top, name); n != nullptr;
         n = mxmlFindElement(n, top, name, nullptr, nullptr, MXML_DESCEND))
        if (!f(n))
            return false;
    return true;
}

// True when the last byte of the file that is not white space closes a tag.
bool ends_with_tag(FILE* fp)
{
    char tail[64];
    if (std::fseek(fp, 0, SEEK_END) != 0)
        return false;
    long end = std::ftell(fp);
    while (end > 0) {
        const long n = end < static_cast<long>(sizeof tail) ? end : static_cast<long>(sizeof tail);
        if (std::fseek(fp, end - n, SEEK_SET) != 0 || std::fread(tail, 1, n, fp) != static_cast<std::size_t>(n))
            return false;
        for (long i = n; i > 0; --i) {
            const char c = tail[i - 1];
            if (c != ' ' && c != '\t' && c != '\n' && c != '\r')
                return c == '>';
        }
        end -= n;
    }
    return false;
}

// Loads a document; null when it can't be opened or isn't whole. Mini-XML takes a document cut inside a
// tag at its top level (a half-written last user or group) for a complete one and drops the cut element
// without a word; such a document ends in something else than '>'.
orbs3_xml_ptr load_doc(const char* path)
{
    orbs3_file_ptr fp(std::fopen(path, "re"));
    if (!fp)
        return nullptr;
    orbs3_xml_ptr tree = orbs3_xml_load_file(fp.get());
    if (!tree || !ends_with_tag(fp.get()))
        return nullptr;
    return tree;
}

orbs3_xml_ptr load_system_file(std::string_view path)
{
    return load_doc(orbs3_prefix_path(path).c_str());
}

// ---- owners ----

struct vhost_deleter {
    void operator()(orbs3_vhost_t* vh) const noexcept { orbs3_free_vhost_data(vh); }
};
using vhost_ptr = std::unique_ptr<orbs3_vhost_t, vhost_deleter>;

struct user_deleter {
    void operator()(orbs3_user_t* u) const noexcept { orbs3_free_user_data(u); }
};
using user_ptr = std::unique_ptr<orbs3_user_t, user_deleter>;

// A list head that releases its records with `Free` on every path.
template <void (*Free)(neo_list_head_t*)>
struct owned_list {
    neo_list_head_t head;
    owned_list() { INIT_LIST_HEAD(&head); }
    ~owned_list() { Free(&head); }
    owned_list(const owned_list&) = delete;
    owned_list& operator=(const owned_list&) = delete;
};
using vhost_list = owned_list<orbs3_free_vhost_list>;
using endpoint_list = owned_list<orbs3_free_endpoint_list>;

template <typename T>
T* record_of(neo_list_head_t* pos)
{
    return static_cast<T*>(orbs3_list_node(pos)->data);
}

// ---- replacing a file ----

enum : int { kReplaceOpen = NEO_REPLACE_OPEN, kReplaceWrite = NEO_REPLACE_WRITE };

// The new content goes into a temporary file beside `target` and is renamed over it, so a reader sees
// the old file or the new one, whole. The temporary name begins with "." so the group scan never takes
// it for a group file. Group and user files hold secrets: they are 0600. 0, kReplaceOpen or
// kReplaceWrite, with errno.
int replace_file(const std::string& target, const std::function<bool(FILE*)>& fill, mode_t mode = 0644)
{
    const std::size_t slash = target.rfind('/');
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    return neo_replace_file(target, "." + base + ".", fill, mode);
}

// Mini-XML's whitespace rule of the user and lifecycle files.
const char* record_whitespace(mxml_node_t* node, int where)
{
    const char* name = mxmlGetElement(node);
    if (name == nullptr)
        return nullptr;
    if (std::strcmp(name, "AccessKey") == 0)
        return (where == MXML_WS_BEFORE_OPEN || where == MXML_WS_BEFORE_CLOSE) ? "\n\t" : nullptr;
    if (std::strcmp(name, "User") == 0 || std::strcmp(name, "Lifecycle") == 0)
        return where == MXML_WS_BEFORE_OPEN ? "\n" : nullptr;
    return nullptr;
}

int save_tree(const std::string& path, mxml_node_t* tree, mode_t mode = 0644)
{
    return replace_file(path, [tree](FILE* fp) {
        // A wrapped line would break the whitespace rule (not the document). The margin is the thread's;
        // the other writers of the process keep Mini-XML's default of 72.
        mxmlSetWrapMargin(0);
        const bool saved = mxmlSaveFile(tree, fp, record_whitespace) == 0;
        mxmlSetWrapMargin(72);
        return saved;
    }, mode);
}

// ---- group files ----

struct vhost_field {
    const char* attr;
    orbs3_str_t orbs3_vhost_t::*field;
    std::size_t cap;
};

// The group's attributes, in the order the group line writes them (port and ssl aside); each host of
// the group gets a copy.
constexpr vhost_field kGroupFields[] = {
    {"alias", &orbs3_vhost_t::group, ORBS3_NAME_CAP},
    {"path", &orbs3_vhost_t::group_path, ORBS3_PATH_CAP},
    {"cluster", &orbs3_vhost_t::cluster, ORBS3_NAME_CAP},
    {"tiered", &orbs3_vhost_t::tiered, ORBS3_NAME_CAP},
    {"domain", &orbs3_vhost_t::domain, ORBS3_NAME_CAP},
    {"ca", &orbs3_vhost_t::ca, ORBS3_PATH_CAP},
    {"cert", &orbs3_vhost_t::cert, ORBS3_PATH_CAP},
    {"key", &orbs3_vhost_t::ssl_key, ORBS3_PATH_CAP},
    {"key_pwd", &orbs3_vhost_t::key_pwd, ORBS3_PWD_CAP},
};
constexpr std::size_t kGroupFieldCount = std::size(kGroupFields);

constexpr vhost_field kHostFields[] = {
    {"id", &orbs3_vhost_t::id, ORBS3_NAME_CAP},
    {"name", &orbs3_vhost_t::name, ORBS3_NAME_CAP},
    {"key", &orbs3_vhost_t::node_key, ORBS3_NAME_CAP},
    {"ipversion", &orbs3_vhost_t::ipversion, ORBS3_ADDR_CAP},
    {"ipaddr", &orbs3_vhost_t::ipaddr, ORBS3_ADDR_CAP},
};

struct user_field {
    const char* attr;
    orbs3_str_t orbs3_user_t::*field;
    std::size_t cap;
};

constexpr user_field kAdminFields[] = {
    {"uid", &orbs3_user_t::UserId, ORBS3_NAME_CAP},
    {"uname", &orbs3_user_t::DisPlayName, ORBS3_NAME_CAP},
    {"accesskeyid", &orbs3_user_t::accesskeyid, ORBS3_KEY_CAP},
    {"accesskeysecret", &orbs3_user_t::accesskeysecret, ORBS3_KEY_CAP},
};

struct group_attrs {
    std::string text[kGroupFieldCount];
    uint32_t port = 0;
    uint32_t ssl = 1;
};

group_attrs read_group(mxml_node_t* group)
{
    group_attrs g;
    for (std::size_t i = 0; i < kGroupFieldCount; ++i)
        g.text[i] = read_attr(group, kGroupFields[i].attr, kGroupFields[i].cap);
    int port = 0;
    (void)orbs3_xml_get_int(group, "port", &port);
    // A number that is no port counts as a missing one.
    g.port = (port >= 0 && port <= 65535) ? static_cast<uint32_t>(port) : 0;
    g.ssl = static_cast<uint32_t>(orbs3_get_bool(read_attr(group, "ssl", kSslCap).c_str()));
    return g;
}

bool name_taken(neo_list_head_t* list, const orbs3_vhost_t* vh)
{
    neo_list_head_t* pos;
    list_for_each(pos, list)
    {
        auto* other = record_of<orbs3_vhost_t>(pos);
        if (other != nullptr && std::strcmp(neo_getstr(&other->name), neo_getstr(&vh->name)) == 0)
            return true;
    }
    return false;
}

enum class host_filter { this_node, all };

// Appends the hosts of one group file. this_node keeps the hosts with this node's key whose name is not
// in the list yet; all keeps every host in file order, as a rewrite needs them.
int read_group_file(neo_list_head_t* list, const char* file, const char* root, host_filter filter)
{
    orbs3_xml_ptr tree = load_doc(file);
    if (!tree)
        return -1;
    const std::string node_key(orbs3_conf.shost_id, strnlen(orbs3_conf.shost_id, sizeof orbs3_conf.shost_id));

    auto read_host = [&](mxml_node_t* host, const group_attrs& g) {
        vhost_ptr vh(orbs3_vhost_new());
        if (!vh)
            return false;
        for (const vhost_field& f : kHostFields)
            neo_strdup(&(vh.get()->*f.field), read_attr(host, f.attr, f.cap).c_str(), f.cap);
        vh->status = orbs3_get_status(read_attr(host, "status", kStatusCap).c_str());
        for (std::size_t i = 0; i < kGroupFieldCount; ++i)
            neo_strdup(&(vh.get()->*kGroupFields[i].field), g.text[i].c_str(), kGroupFields[i].cap);
        neo_strdup(&vh->cluster_path, root, ORBS3_PATH_CAP);
        vh->port = g.port;
        vh->ssl = g.ssl;
        mxml_node_t* admin = mxmlFindElement(host, host, "admin", nullptr, nullptr, MXML_DESCEND_FIRST);
        if (admin != nullptr)
            for (const user_field& f : kAdminFields)
                neo_strdup(&(vh->admin.*f.field), read_attr(admin, f.attr, f.cap).c_str(), f.cap);
        neo_strdup(&vh->admin.vhost_id, neo_getstr(&vh->id), ORBS3_NAME_CAP);

        if (filter == host_filter::this_node) {
            if (node_key != neo_getstr(&vh->node_key))
                return true;
            // The name is the host's identity on this node; a second one would answer for the first.
            if (name_taken(list, vh.get())) {
                ipd_log(LOG_WARNING, "vhost name[%s] of file[%s] already loaded, host skipped",
                        neo_getstr(&vh->name), file);
                return true;
            }
        }
        if (orbs3_list_append(list, vh.get()) != 0)
            return false;
        vh.release();
        return true;
    };

    // Every `group` element counts; each host takes the attributes of its own group.
    const bool whole = for_each_element(tree.get(), "group", [&](mxml_node_t* group) {
        const group_attrs g = read_group(group);
        return for_each_child(group, "host", [&](mxml_node_t* host) { return read_host(host, g); });
    });
    return whole ? 0 : -1;
}

bool same_group(const orbs3_vhost_t* a, const orbs3_vhost_t* b)
{
    for (const vhost_field& f : kGroupFields)
        if (std::strcmp(neo_getstr(&(a->*f.field)), neo_getstr(&(b->*f.field))) != 0)
            return false;
    return a->port == b->port && a->ssl == b->ssl;
}

// One host to write and the vhost whose group attributes it is written under.
struct host_entry {
    const orbs3_vhost_t* group;
    const orbs3_vhost_t* host;
};

// The escaped texts of one host entry; false when a value can't stand in the file.
struct host_text {
    std::string group[kGroupFieldCount];
    std::string host[std::size(kHostFields)];
    std::string admin[std::size(kAdminFields)];
};

bool render_host(const host_entry& e, host_text* out, const char** bad)
{
    auto put = [bad](const orbs3_str_t& s, const char* attr, std::string* dst) {
        const char* v = neo_getstr(&s);
        if (!xml_text_ok(v)) {
            *bad = attr;
            return false;
        }
        dst->clear();
        orbs3_xml_escape(dst, v);
        return true;
    };
    for (std::size_t i = 0; i < kGroupFieldCount; ++i)
        if (!put(e.group->*kGroupFields[i].field, kGroupFields[i].attr, &out->group[i]))
            return false;
    for (std::size_t i = 0; i < std::size(kHostFields); ++i)
        if (!put(e.host->*kHostFields[i].field, kHostFields[i].attr, &out->host[i]))
            return false;
    for (std::size_t i = 0; i < std::size(kAdminFields); ++i)
        if (!put(e.host->admin.*kAdminFields[i].field, kAdminFields[i].attr, &out->admin[i]))
            return false;
    return true;
}

// A host starts a new `group` element when its group attributes differ from those of the host before
// it, so that a file with several groups keeps them; a file written here has one.
int write_group_file(const std::string& file, const std::vector<host_entry>& entries)
{
    std::vector<host_text> texts(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const char* bad = nullptr;
        if (!render_host(entries[i], &texts[i], &bad)) {
            ipd_log(LOG_ERR, "vhost[%s] attribute[%s] is not XML text, file[%s] left unchanged",
                    neo_getstr(&entries[i].host->id), bad, file.c_str());
            return -1;
        }
    }
    auto fill = [&](FILE* fp) {
        std::fputs("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n", fp);
        std::fputs("<orbmux>\n", fp);
        for (std::size_t i = 0; i < entries.size(); ++i) {
            const host_entry& e = entries[i];
            const host_text& t = texts[i];
            if (i == 0 || !same_group(entries[i - 1].group, e.group)) {
                if (i != 0)
                    std::fputs("</group>\n", fp);
                std::fprintf(fp,
                             "<group alias=\"%s\" path=\"%s\" cluster=\"%s\" tiered=\"%s\" port=%d domain=\"%s\" "
                             "ca=\"%s\" cert=\"%s\" key=\"%s\" key_pwd=\"%s\" ssl=\"%s\">\n",
                             t.group[0].c_str(), t.group[1].c_str(), t.group[2].c_str(), t.group[3].c_str(),
                             static_cast<int>(e.group->port), t.group[4].c_str(), t.group[5].c_str(),
                             t.group[6].c_str(), t.group[7].c_str(), t.group[8].c_str(),
                             orbs3_get_bool_string(static_cast<int>(e.group->ssl)));
            }
            std::fprintf(fp, "\t<host id=\"%s\" name=\"%s\" key=\"%s\" ipversion=\"%s\" ipaddr=\"%s\" status=\"%s\">\n",
                         t.host[0].c_str(), t.host[1].c_str(), t.host[2].c_str(), t.host[3].c_str(),
                         t.host[4].c_str(), orbs3_get_status_string(e.host->status));
            std::fprintf(fp, "\t\t<admin uid=\"%s\" uname=\"%s\" accesskeyid=\"%s\" accesskeysecret=\"%s\" />\n",
                         t.admin[0].c_str(), t.admin[1].c_str(), t.admin[2].c_str(), t.admin[3].c_str());
            std::fputs("\t</host>\n", fp);
        }
        std::fputs("</group>\n", fp);
        std::fputs("</orbmux>\n", fp);
        return std::ferror(fp) == 0;
    };
    const int rc = replace_file(file, fill, 0600);
    if (rc == kReplaceOpen)
        ipd_log(LOG_ERR, "vhost file[%s] open fail, error=%s", file.c_str(), strerror(errno));
    else if (rc != 0)
        ipd_log(LOG_ERR, "vhost file[%s] write fail, error=%s", file.c_str(), strerror(errno));
    return rc == 0 ? 0 : -1;
}

// Path of the vhost's group file, its directory made. Add and delete work in the directory the loader
// scans, so that a host written here is found again at the next start; only a vhost whose cluster is
// unknown falls back to its group's own path.
int group_file_path(const orbs3_vhost_t* vh, std::string* file)
{
    const char* alias = neo_getstr(&vh->group);
    if (std::strchr(alias, '/') != nullptr) {
        ipd_log(LOG_ERR, "group alias[%s] names no file", alias);
        return -1;
    }
    std::string dir;
    orbs3_cluster_path_ptr cpath(orbs3_get_cluster_path(neo_getstr(&vh->cluster), neo_getstr(&vh->tiered)));
    if (cpath) {
        dir = under(cpath.get(), ORBS3_SERVICE_SUBDIR);
    } else {
        const char* gp = neo_getstr(&vh->group_path);
        if (*gp == '\0') {
            ipd_log(LOG_ERR, "vhost[%s] has neither cluster path nor group path", neo_getstr(&vh->id));
            return -1;
        }
        dir = under(gp, "/");
    }
    if (mkdir_p(dir.c_str(), 0755) != 0) {
        ipd_log(LOG_ERR, "mkdir[%s] failure, error=%s", dir.c_str(), strerror(errno));
        return -1;
    }
    *file = dir;
    file->append(kGroupPrefix).append(alias).append(".xml");
    return 0;
}

// Every host of an existing group file, of every node, so that a rewrite keeps the others' hosts. A
// file that exists but can't be read is refused: rewriting it would drop what it holds.
int read_existing_group(const std::string& file, neo_list_head_t* hosts, bool* exists)
{
    *exists = false;
    struct stat st;
    if (stat(file.c_str(), &st) != 0) {
        if (errno == ENOENT)
            return 0;
        ipd_log(LOG_ERR, "group file[%s] stat fail, error=%s", file.c_str(), strerror(errno));
        return -1;
    }
    *exists = true;
    ipd_log(LOG_INFO, "group file[%s] exist", file.c_str());
    if (st.st_size == 0)
        return 0;  // an empty file holds no host to keep
    if (read_group_file(hosts, file.c_str(), "", host_filter::all) != 0) {
        ipd_log(LOG_ERR, "group file[%s] unreadable, left unchanged", file.c_str());
        return -1;
    }
    return 0;
}

// Removes every host with this id; the number removed.
std::size_t drop_hosts(neo_list_head_t* hosts, const char* id)
{
    std::size_t removed = 0;
    neo_list_head_t *pos, *n;
    list_for_each_safe(pos, n, hosts)
    {
        orbs3_list_node_t* node = orbs3_list_node(pos);
        auto* vh = static_cast<orbs3_vhost_t*>(node->data);
        if (vh != nullptr && std::strcmp(neo_getstr(&vh->id), id) == 0) {
            list_del(pos);
            orbs3_free_vhost_data(vh);
            std::free(node);
            ++removed;
        }
    }
    return removed;
}

std::vector<host_entry> entries_of(neo_list_head_t* hosts)
{
    std::vector<host_entry> entries;
    neo_list_head_t* pos;
    list_for_each(pos, hosts)
    {
        auto* vh = record_of<orbs3_vhost_t>(pos);
        entries.push_back({vh, vh});
    }
    return entries;
}

int service_dir(char* path, const orbs3_vhost_t* vh, std::string_view sub)
{
    if (path == nullptr || vh == nullptr)
        return -1;
    path[0] = '\0';
    orbs3_cluster_path_ptr cpath(orbs3_get_cluster_path(neo_getstr(&vh->cluster), neo_getstr(&vh->tiered)));
    if (!cpath)
        return -1;
    const std::string dir = under(cpath.get(), sub);
    if (dir.size() >= ORBS3_PATH_CAP) {
        ipd_log(LOG_ERR, "directory[%s] too long", dir.c_str());
        return -1;
    }
    if (mkdir_p(dir.c_str(), 0755) != 0) {
        ipd_log(LOG_ERR, "mkdir[%s] failure, error=%s", dir.c_str(), strerror(errno));
        return -1;
    }
    std::memcpy(path, dir.c_str(), dir.size() + 1);
    return 0;
}

void free_endpoint(void* data)
{
    auto* ep = static_cast<orbs3_endpoint_t*>(data);
    if (ep == nullptr)
        return;
    neo_strfree(&ep->url);
    neo_strfree(&ep->addr);
    std::free(ep);
}

// Moves every node of `from` onto the empty head `to`.
void move_list(neo_list_head_t* from, neo_list_head_t* to)
{
    if (list_empty(from)) {
        INIT_LIST_HEAD(to);
        return;
    }
    to->next = from->next;
    to->prev = from->prev;
    to->next->prev = to;
    to->prev->next = to;
    INIT_LIST_HEAD(from);
}

}  // namespace

// ---- cluster file ----

char* orbs3_get_cluster_path(const char* cluster, const char* tiered)
{
    if (cluster == nullptr)
        return nullptr;
    if (tiered == nullptr)
        tiered = "";
    orbs3_xml_ptr tree = load_system_file(ORBS3_CLUSTER_FILE);
    mxml_node_t* cl = orbs3_xml_find(tree.get(), "cluster");
    if (cl == nullptr)
        return nullptr;
    // Only the first cluster element counts: a later one with the alias asked for is another product's.
    if (read_attr(cl, "alias", ORBS3_NAME_CAP) != cluster)
        return nullptr;
    const std::string cpath = read_attr(cl, "path", ORBS3_PATH_CAP);
    std::string root;
    bool found = *tiered == '\0';
    if (found) {
        root = join_root(cpath, "");
    } else {
        for_each_child(cl, "tier", [&](mxml_node_t* tier) {
            if (read_attr(tier, "alias", ORBS3_NAME_CAP) != tiered)
                return true;
            root = join_root(cpath, read_attr(tier, "path", ORBS3_PATH_CAP));
            found = true;
            return false;
        });
    }
    if (!found || root.size() >= ORBS3_PATH_CAP)
        return nullptr;  // a cut path would name another directory
    auto* out = static_cast<char*>(std::calloc(1, ORBS3_PATH_CAP));
    if (out != nullptr)
        std::memcpy(out, root.c_str(), root.size() + 1);
    return out;
}

int orbs3_load_all_vhost(neo_list_head_t* list)
{
    if (list == nullptr)
        return -1;
    orbs3_xml_ptr tree = load_system_file(ORBS3_CLUSTER_FILE);
    if (!tree) {
        ipd_log(LOG_ERR, "cluster file[%s] open or parse failure", orbs3_prefix_path(ORBS3_CLUSTER_FILE).c_str());
        return -1;
    }
    mxml_node_t* cl = orbs3_xml_find(tree.get(), "cluster");
    if (cl == nullptr)
        return 0;
    const std::string cpath = read_attr(cl, "path", ORBS3_PATH_CAP);
    auto scan = [list](const std::string& root) {
        if (orbs3_filter_vhost_file(list, root.c_str()) != 0)
            ipd_log(LOG_ERR, "filter vhost file[%s] failure.", root.c_str());
    };
    // Tiers first, the cluster itself last: that is the order of the list.
    for_each_child(cl, "tier", [&](mxml_node_t* tier) {
        scan(join_root(cpath, read_attr(tier, "path", ORBS3_PATH_CAP)));
        return true;
    });
    scan(join_root(cpath, ""));
    return 0;
}

int orbs3_filter_vhost_file(neo_list_head_t* list, const char* root)
{
    if (list == nullptr || root == nullptr)
        return -1;
    const std::string dir = under(root, "/ombr/system/orbmux");
    neo_dir_ptr d(opendir(dir.c_str()));
    if (!d) {
        ipd_log(LOG_ERR, "opendir:%s", strerror(errno));
        return -1;
    }
    while (struct dirent* e = readdir(d.get())) {
        const std::string_view name = e->d_name;
        if (name == "." || name == ".." || !name.starts_with(kGroupPrefix))
            continue;
        struct stat st;
        if (fstatat(dirfd(d.get()), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode))
            continue;
        const std::string file = under(dir, "/").append(name);
        if (orbs3_read_vhost_file(list, file.c_str(), root) != 0)
            ipd_log(LOG_ERR, "read vhost file[%s] failure", file.c_str());
    }
    return 0;
}

int orbs3_read_vhost_file(neo_list_head_t* list, const char* file, const char* root)
{
    if (list == nullptr || file == nullptr || root == nullptr)
        return -1;
    return read_group_file(list, file, root, host_filter::this_node);
}

// ---- adding and deleting ----

int orbs3_add_vhost_to_file(const orbs3_vhost_t* vh)
{
    if (vh == nullptr)
        return -1;
    std::string file;
    if (group_file_path(vh, &file) != 0)
        return -1;
    vhost_list hosts;
    bool exists;
    if (read_existing_group(file, &hosts.head, &exists) != 0)
        return -1;
    // A host already in the file under this id is replaced, so a repeated add leaves one entry.
    (void)drop_hosts(&hosts.head, neo_getstr(&vh->id));
    std::vector<host_entry> entries = entries_of(&hosts.head);
    // The new host joins the group as the file has it.
    const orbs3_vhost_t* group = entries.empty() ? vh : entries.front().group;
    entries.push_back({group, vh});
    return write_group_file(file, entries);
}

int orbs3_save_vhost_to_file(const orbs3_vhost_t* vh)
{
    if (vh == nullptr)
        return -1;
    std::string file;
    if (group_file_path(vh, &file) != 0)
        return -1;
    vhost_list hosts;
    bool exists;
    if (read_existing_group(file, &hosts.head, &exists) != 0)
        return -1;
    // The host keeps its place and takes its own group attributes: a host whose domain or certificate
    // was edited gets a group element of its own, the others of the file stay as they were.
    std::vector<host_entry> entries;
    bool placed = false;
    neo_list_head_t* pos;
    list_for_each(pos, &hosts.head)
    {
        auto* other = record_of<orbs3_vhost_t>(pos);
        if (std::strcmp(neo_getstr(&other->id), neo_getstr(&vh->id)) != 0) {
            entries.push_back({other, other});
        } else if (!placed) {
            entries.push_back({vh, vh});
            placed = true;
        }
    }
    if (!placed)
        entries.push_back({vh, vh});
    return write_group_file(file, entries);
}

int orbs3_del_vhost_from_file(const orbs3_vhost_t* vh)
{
    if (vh == nullptr)
        return -1;
    std::string file;
    if (group_file_path(vh, &file) != 0)
        return -1;
    vhost_list hosts;
    bool exists;
    if (read_existing_group(file, &hosts.head, &exists) != 0)
        return -1;
    if (!exists || drop_hosts(&hosts.head, neo_getstr(&vh->id)) == 0)
        return 0;  // the host isn't in the file: nothing to change
    if (list_empty(&hosts.head)) {
        if (unlink(file.c_str()) != 0 && errno != ENOENT) {
            ipd_log(LOG_ERR, "unlink group file[%s] fail, error=%s", file.c_str(), strerror(errno));
            return -1;
        }
        return 0;
    }
    return write_group_file(file, entries_of(&hosts.head));
}

int orbs3_get_service_file_save_path(char* path, const orbs3_vhost_t* vh)
{
    return service_dir(path, vh, ORBS3_SERVICE_SUBDIR);
}

int orbs3_get_lifecycle_file_save_path(char* path, const orbs3_vhost_t* vh)
{
    return service_dir(path, vh, ORBS3_LIFECYCLE_SUBDIR);
}

// ---- users ----

int read_user_data(const char* path, neo_list_head_t* list, const char* vhost_id)
{
    if (path == nullptr || list == nullptr)
        return -1;
    orbs3_xml_ptr tree = load_doc(path);
    if (!tree)
        return -1;
    if (vhost_id == nullptr)
        vhost_id = "";
    auto read_key = [](mxml_node_t* node, orbs3_user_t* user) {
        auto* key = static_cast<orbs3_accesskey_t*>(std::calloc(1, sizeof(orbs3_accesskey_t)));
        if (key == nullptr)
            return false;
        neo_strdup(&key->AccessKeyId, read_attr(node, "AccessKeyId", kValueCap).c_str(), kValueCap);
        neo_strdup(&key->AccessKeySecret, read_attr(node, "AccessKeySecret", kValueCap).c_str(), kValueCap);
        if (orbs3_list_append(&user->keys, key) != 0) {
            neo_strfree(&key->AccessKeyId);
            neo_strfree(&key->AccessKeySecret);
            std::free(key);
            return false;
        }
        return true;
    };
    // On a failed allocation the users read so far stay in the list.
    const bool whole = for_each_element(tree.get(), "User", [&](mxml_node_t* node) {
        user_ptr user(orbs3_user_new());
        if (!user)
            return false;
        neo_strdup(&user->vhost_id, vhost_id, ORBS3_NAME_CAP);
        neo_strdup(&user->UserId, read_attr(node, "UserId", ORBS3_NAME_CAP).c_str(), ORBS3_NAME_CAP);
        neo_strdup(&user->DisPlayName, read_attr(node, "DisPlayName", ORBS3_NAME_CAP).c_str(), ORBS3_NAME_CAP);
        int status = 0;
        (void)orbs3_xml_get_int(node, "Status", &status);
        user->Status = static_cast<uint32_t>(status);
        if (!for_each_child(node, "AccessKey", [&](mxml_node_t* k) { return read_key(k, user.get()); }))
            return false;
        if (orbs3_list_append(list, user.get()) != 0)
            return false;
        user.release();
        return true;
    });
    return whole ? 0 : -1;
}

int write_user_data(const char* path, neo_list_head_t* list)
{
    if (path == nullptr || list == nullptr)
        return -1;
    orbs3_xml_ptr tree(mxmlNewXML("1.0"));
    if (!tree)
        return -1;
    const char* bad_user = nullptr;
    auto set = [&bad_user](mxml_node_t* node, const char* attr, const char* value, const orbs3_user_t* u) {
        const std::string v = cut_text(value, kValueCap);
        if (!xml_text_ok(v)) {
            bad_user = neo_getstr(&u->UserId);
            return false;
        }
        mxmlElementSetAttr(node, attr, v.c_str());
        return true;
    };
    neo_list_head_t* pos;
    list_for_each(pos, list)
    {
        auto* u = record_of<orbs3_user_t>(pos);
        if (u == nullptr)
            continue;
        mxml_node_t* node = mxmlNewElement(tree.get(), "User");
        if (node == nullptr)
            return -1;
        if (!set(node, "UserId", neo_getstr(&u->UserId), u) ||
            !set(node, "DisPlayName", neo_getstr(&u->DisPlayName), u) ||
            !set(node, "Status", std::to_string(static_cast<int32_t>(u->Status)).c_str(), u))
            break;
        neo_list_head_t* kpos;
        list_for_each(kpos, &u->keys)
        {
            auto* key = record_of<orbs3_accesskey_t>(kpos);
            if (key == nullptr)
                continue;
            mxml_node_t* knode = mxmlNewElement(node, "AccessKey");
            if (knode == nullptr)
                return -1;
            if (key->AccessKeyId.len != 0 && !set(knode, "AccessKeyId", neo_getstr(&key->AccessKeyId), u))
                break;
            if (key->AccessKeySecret.len != 0 &&
                !set(knode, "AccessKeySecret", neo_getstr(&key->AccessKeySecret), u))
                break;
        }
        if (bad_user != nullptr)
            break;
    }
    if (bad_user != nullptr) {
        ipd_log(LOG_ERR, "user[%s] holds text that is not XML, file[%s] left unchanged", bad_user, path);
        return -1;
    }
    if (save_tree(path, tree.get(), 0600) != 0) {
        ipd_log(LOG_ERR, "user file[%s] write fail, error=%s", path, strerror(errno));
        return -1;
    }
    return 0;
}

// ---- node key, endpoints, lifecycle ----

int orbs3_read_shost_data_file()
{
    orbs3_xml_ptr tree = load_system_file(ORBS3_SHOST_FILE);
    char id[sizeof orbs3_conf.shost_id] = {};
    if (!tree || orbs3_xml_get_str(orbs3_xml_find(tree.get(), "shost"), "id", id, sizeof id) != 0) {
        ipd_log(LOG_ERR, "read shost data file[%s] failure", orbs3_prefix_path(ORBS3_SHOST_FILE).c_str());
        return -1;
    }
    std::memcpy(orbs3_conf.shost_id, id, sizeof id);
    return 0;
}

void orbs3_free_endpoint_list(neo_list_head_t* head)
{
    orbs3_free_list(head, free_endpoint);
}

int reload_cluster_data()
{
    orbs3_xml_ptr tree = load_system_file(ORBS3_ENDPOINT_FILE);
    if (!tree) {
        ipd_log(LOG_ERR, "read cluster data file[%s] failure", orbs3_prefix_path(ORBS3_ENDPOINT_FILE).c_str());
        return -1;
    }
    endpoint_list fresh;
    const bool whole = for_each_element(tree.get(), "endpoint", [&](mxml_node_t* node) {
        auto* ep = static_cast<orbs3_endpoint_t*>(std::calloc(1, sizeof(orbs3_endpoint_t)));
        if (ep == nullptr)
            return false;
        neo_strdup(&ep->url, read_attr(node, "url", ORBS3_PATH_CAP).c_str(), ORBS3_PATH_CAP);
        neo_strdup(&ep->addr, read_attr(node, "addr", ORBS3_ADDR_CAP).c_str(), ORBS3_ADDR_CAP);
        ep->port = ORBS3_ENDPOINT_PORT;
        char port[kEndpointPortLen] = {};
        if (orbs3_xml_get_str(node, "port", port, sizeof port) == 0) {
            // A text that is no port counts as a missing one.
            const int v = orbs3_xml_to_int(port);
            if (v > 0 && v <= 65535)
                ep->port = static_cast<uint32_t>(v);
        }
        if (orbs3_list_append(&fresh.head, ep) != 0) {
            free_endpoint(ep);
            return false;
        }
        return true;
    });
    if (!whole)
        return -1;
    endpoint_list old;
    pthread_mutex_lock(&orbs3_endpoints_lock);
    move_list(&orbs3_endpoints, &old.head);
    move_list(&fresh.head, &orbs3_endpoints);
    pthread_mutex_unlock(&orbs3_endpoints_lock);
    return 0;
}

int write_lifecycle_date(const char* date)
{
    orbs3_xml_ptr tree(mxmlNewXML("1.0"));
    mxml_node_t* node = tree ? mxmlNewElement(tree.get(), "Lifecycle") : nullptr;
    if (node == nullptr)
        return -1;
    if (date != nullptr) {
        const std::string v = cut_text(date, kValueCap);
        if (!xml_text_ok(v)) {
            ipd_log(LOG_ERR, "lifecycle date is not XML text, not saved");
            return -1;
        }
        mxmlElementSetAttr(node, "Date", v.c_str());
    }
    const std::string path = orbs3_prefix_path(ORBS3_LIFECYCLE_FILE);
    if (save_tree(path, tree.get()) != 0) {
        ipd_log(LOG_ERR, "lifecycle file[%s] write fail, error=%s", path.c_str(), strerror(errno));
        return -1;
    }
    return 0;
}

int read_lifecycle_date(char* buf, std::size_t len)
{
    if (buf == nullptr || len == 0)
        return -1;
    orbs3_xml_ptr tree = load_system_file(ORBS3_LIFECYCLE_FILE);
    if (!tree)
        return -1;
    (void)orbs3_xml_get_str(orbs3_xml_find(tree.get(), "Lifecycle"), "Date", buf, len);
    return 0;
}

// ---- the provisioning lock ----

orbs3_tenant_files_lock::orbs3_tenant_files_lock(const char* cluster_path, int wait_ms)
{
    if (cluster_path == nullptr || *cluster_path == '\0')
        return;
    const std::string dir = under(cluster_path, ORBS3_SERVICE_SUBDIR);
    if (mkdir_p(dir.c_str(), 0755) != 0) {
        ipd_log(LOG_ERR, "mkdir[%s] failure, error=%s", dir.c_str(), strerror(errno));
        return;
    }
    const std::string path = dir + std::string(ORBS3_TENANT_LOCK_NAME);
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) {
        ipd_log(LOG_ERR, "lock file[%s] open fail, error=%s", path.c_str(), strerror(errno));
        return;
    }
    // A tool that holds the lock for ever must not hold the control plane with it.
    for (int waited = 0;; waited += 10) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            fd_ = fd;
            return;
        }
        if (errno != EWOULDBLOCK || waited >= wait_ms)
            break;
        usleep(10 * 1000);
    }
    ipd_log(LOG_ERR, "lock file[%s] busy, error=%s", path.c_str(), strerror(errno));
    close(fd);
}

orbs3_tenant_files_lock::~orbs3_tenant_files_lock()
{
    if (fd_ >= 0)
        close(fd_);  // the flock goes with the descriptor
}

// ---- the tenant in the worker ----

int orbs3_init_user(orbs3_vhost_t* vh)
{
    if (vh == nullptr)
        return -1;
    const char* id = neo_getstr(&vh->id);
    char dir[ORBS3_PATH_CAP];
    if (orbs3_get_service_file_save_path(dir, vh) != 0) {
        ipd_log(LOG_ERR, "service directory of vhost[%s] unknown, users not loaded", id);
        return -1;
    }
    if (*id == '\0' || std::strchr(id, '/') != nullptr) {
        ipd_log(LOG_ERR, "vhost id[%s] names no file, users not loaded", id);
        return -1;
    }
    const std::string path = std::string(dir).append(id).append(".user");
    int rc = 0;
    if (access(path.c_str(), F_OK) == 0 && read_user_data(path.c_str(), &vh->users, id) != 0) {
        ipd_log(LOG_ERR, "read user file[%s] failure", path.c_str());
        rc = -1;
    }
    // A missing or empty service file is a record without limits or lists; one that exists but does not
    // read stays unloaded, so the checks refuse everyone but the administrator rather than drop its lists.
    const std::string rec_path = std::string(dir).append(id);
    orbs3_free_service(vh->service_rec);
    vh->service_rec = orbs3_get_service(rec_path.c_str());
    if (vh->service_rec == nullptr) {
        ipd_log(LOG_ERR, "service file[%s] unreadable, only the administrator is served", rec_path.c_str());
        rc = -1;
    }
    return rc;
}
