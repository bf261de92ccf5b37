#include "core/orbs3_config.h"

#include <mxml.h>
#include <strings.h>

#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <type_traits>

#include "core/orbs3_log.h"
#include "core/orbs3_prefix.h"
#include "core/orbs3_xml.h"
#include "memory/neo_files.h"
#include "memory/orbs3_palloc.h"

namespace {

constexpr uint64_t kCycleSize = 1024000;
constexpr int kSslShmZoneSize = 10240000;
constexpr int kSecondsPerHour = 3600;
constexpr int kHandshakeTimeout = 10;
// What a size of the http element is when http.conf exists but does not give it.
constexpr uint64_t kHttpSizeInFile = 4096;
constexpr const char* kCacheDirDefault = "/tmp/orbs3/cache/";

// orbmux.conf defaults, written back for fields that are 0 or empty.
constexpr int kConfInterval = 10;
constexpr const char* kConfPath = "/etc/orbmux";
constexpr int kConfBucketMaxLen = 127;
constexpr int kConfObjectMaxLen = 127;
constexpr int kConfObjectPathLen = 1023;
constexpr int kConfObjectDirNum = 10;
// S3's own least part size; tests lower it to keep their uploads small.
constexpr int kConfMultipartMinPart = 5 << 20;
constexpr int kConfLifecycleHour = 0;
constexpr int kConfLifecycleThreadMin = 10;
constexpr int kConfLifecycleThreadMax = 100;
constexpr int kConfLifecycleThreadEvent = 100;
constexpr int kConfCacheRetry = 3;
constexpr int kConfCacheInterval = 3;
constexpr const char* kConfCacheTmp = "/tmp/orbmux/";
// Only the first 8 characters of a numeric attribute of orbmux.conf count ("123456789" reads as 12345678).
constexpr std::size_t kConfNumChars = 8;


// A path cut to fit its field would name another directory, so a path that does not fit is refused:
// the caller keeps its default (or skips the entry) and the operator sees why.
bool path_fits(const char* path, std::size_t field_size, const char* what)
{
    std::size_t n = std::strlen(path);
    if (n < field_size)
        return true;
    ipd_log(LOG_WARNING, "%s path of %zu bytes refused, the limit is %zu", what, n, field_size - 1);
    return false;
}

// Bounded copy into a fixed field, always terminated; callers have checked the length where cutting matters.
void copy_str(char* dest, std::size_t size, const char* text)
{
    std::size_t n = strnlen(text, size - 1);
    std::memcpy(dest, text, n);
    dest[n] = '\0';
}

uint64_t http_size(mxml_node_t* http, const char* attr)
{
    int v = static_cast<int>(kHttpSizeInFile);
    orbs3_xml_get_int(http, attr, &v);
    // A negative number wraps, as the field is unsigned; the setter's trace line reports it.
    return static_cast<uint64_t>(static_cast<int64_t>(v));
}

void read_http(mxml_node_t* http)
{
    sysconfig.http_limit_header = http_size(http, "head");
    sysconfig.http_header_in_size = http_size(http, "request");
    // "respones" is the attribute name the installed files use; "response" is not read.
    sysconfig.http_header_out_size = http_size(http, "respones");
    sysconfig.http_work_space = http_size(http, "space");
    if (http == nullptr)
        sysconfig.http_limit_conns = 256;
    // The file's number stands even out of range; the setters only leave a trace of it.
    set_http_limit_header(sysconfig.http_limit_header);
    set_http_header_in_size(sysconfig.http_header_in_size);
    set_http_header_out_size(sysconfig.http_header_out_size);
    set_http_work_space(sysconfig.http_work_space);
    // Seconds a connection may wait for the rest of a head, the next body bytes, its next request, or a
    // client to take more of a reply; 0 turns the deadlines off. Absent: the built-in 120.
    if (http != nullptr && mxmlElementGetAttr(http, "timeout") != nullptr) {
        int v = sysconfig.http_timeout;
        orbs3_xml_get_int(http, "timeout", &v);
        set_http_timeout(v);
    }
    sysconfig.request_pool_size = orbs3_request_pool_size();
    sysconfig.http_pool_total = sysconfig.request_pool_size * sysconfig.http_limit_conns;
}

template <typename T>
bool in_range(T v, T lo, T hi, const char* name);

void read_https(mxml_node_t* https)
{
    sysconfig.ssl_ticket = 0;
    sysconfig.ssl_engine = 1;
    sysconfig.ssl_handshake_timeout = kHandshakeTimeout;
    if (https == nullptr)
        return;
    if (mxmlElementGetAttr(https, "handshake_timeout") != nullptr) {
        int v = kHandshakeTimeout;
        orbs3_xml_get_int(https, "handshake_timeout", &v);
        if (in_range(v, 1, INT_MAX, "handshake_timeout"))
            sysconfig.ssl_handshake_timeout = v;
    }
    if (const char* ticket = mxmlElementGetAttr(https, "ticket"))
        sysconfig.ssl_ticket = std::strcmp(ticket, "off") == 0 ? 0 : 1;
    if (const char* engine = mxmlElementGetAttr(https, "engine")) {
        sysconfig.ssl_engine = std::strcmp(engine, "on") == 0 ? 0 : 1;
        orbs3_xml_get_str(https, "engine", sysconfig.ssl_engine_name, sizeof sysconfig.ssl_engine_name);
    } else {
        copy_str(sysconfig.ssl_engine_name, sizeof sysconfig.ssl_engine_name, "qat");
    }
}

void read_cache(mxml_node_t* cache)
{
    sysconfig.cache_qty = 10240;
    sysconfig.cache_refresh = 1800;
    sysconfig.cache_recycle = 48 * kSecondsPerHour;
    if (cache == nullptr) {
        sysconfig.cache_files.push_back(orbs3_cache_file_t{0, {}});
        copy_str(sysconfig.cache_files.back().path, sizeof(orbs3_cache_file_t::path), kCacheDirDefault);
        return;
    }
    orbs3_xml_get_int(cache, "qty", &sysconfig.cache_qty);
    orbs3_xml_get_int(cache, "refresh", &sysconfig.cache_refresh);
    int hours = 0;
    if (orbs3_xml_get_int(cache, "recycle", &hours) == 0) {
        int64_t secs = static_cast<int64_t>(hours) * kSecondsPerHour;
        sysconfig.cache_recycle = secs > INT_MAX ? INT_MAX : secs < INT_MIN ? INT_MIN : static_cast<int>(secs);
    }
    orbs3_xml_get_int(cache, "bits", &sysconfig.cache_bits);

    for (mxml_node_t* f = mxmlFindElement(cache, cache, "file", nullptr, nullptr, MXML_DESCEND_FIRST);
         f != nullptr; f = mxmlFindElement(f, cache, "file", nullptr, nullptr, MXML_NO_DESCEND)) {
        orbs3_cache_file_t entry{0, {}};
        if (const char* size = mxmlElementGetAttr(f, "size"))
            entry.size = static_cast<uint64_t>(get_size_in_bytes(size));
        if (const char* path = mxmlElementGetAttr(f, "path")) {
            if (!path_fits(path, sizeof entry.path, "cache file"))
                continue;
            copy_str(entry.path, sizeof entry.path, path);
        }
        sysconfig.cache_files.push_back(entry);
    }
}

// A numeric attribute of orbmux.conf: only its first 8 characters are looked at.
int conf_num(mxml_node_t* node, const char* attr, int def)
{
    char buf[kConfNumChars + 1];
    if (orbs3_xml_get_str(node, attr, buf, sizeof buf) != 0)
        return def;
    return orbs3_xml_to_int(buf);
}

uint64_t conf_size(mxml_node_t* node, const char* attr)
{
    char buf[kConfNumChars + 1];
    if (orbs3_xml_get_str(node, attr, buf, sizeof buf) != 0)
        return 0;
    return static_cast<uint64_t>(get_size_in_bytes(buf));
}

void conf_path_attr(mxml_node_t* node, const char* attr, char* dest, std::size_t size, const char* def,
                    const char* what)
{
    copy_str(dest, size, def);
    const char* v = node ? mxmlElementGetAttr(node, attr) : nullptr;
    if (v != nullptr && path_fits(v, size, what))
        copy_str(dest, size, v);
}

void conf_clear()
{
    std::memset(orbs3_conf.shost_id, 0, sizeof orbs3_conf.shost_id);
    std::memset(orbs3_conf.conf_path, 0, sizeof orbs3_conf.conf_path);
    orbs3_conf.lifecyclehour = 0;
    orbs3_conf.lifecyclethread_min = 0;
    orbs3_conf.lifecyclethread_max = 0;
    orbs3_conf.lifecyclethread_event = 0;
    orbs3_conf.interval = 0;
    orbs3_conf.bucketmaxlen = 0;
    orbs3_conf.objectmaxlen = 0;
    orbs3_conf.objectpathlen = 0;
    orbs3_conf.objectdirnum = 0;
    orbs3_conf.verify_signatures = 1;
    orbs3_conf.multipart_min_part = kConfMultipartMinPart;
    orbs3_conf.cache_max_mem = 0;
    orbs3_conf.cache_max_file = 0;
    std::memset(orbs3_conf.cache_tmp, 0, sizeof orbs3_conf.cache_tmp);
    orbs3_conf.cache_retry = 0;
    orbs3_conf.cache_interval = 0;
    orbs3_conf.cache_used = 0;
}

void set_int_attr(mxml_node_t* node, const char* attr, int v, int def)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "%d", v != 0 ? v : def);
    mxmlElementSetAttr(node, attr, buf);
}

void set_str_attr(mxml_node_t* node, const char* attr, const char* v, const char* def)
{
    mxmlElementSetAttr(node, attr, v[0] != '\0' ? v : def);
}

// One element per line, so that an operator can read and edit the file.
const char* conf_whitespace(mxml_node_t*, int where)
{
    return (where == MXML_WS_AFTER_OPEN || where == MXML_WS_AFTER_CLOSE) ? "\n" : nullptr;
}

template <typename T>
bool in_range(T v, T lo, T hi, const char* name)
{
    if (v >= lo && v <= hi)
        return true;
    if constexpr (std::is_signed_v<T>)
        ipd_debug("%s: %lld lies outside %lld to %lld, unchanged", name, static_cast<long long>(v),
                  static_cast<long long>(lo), static_cast<long long>(hi));
    else
        ipd_debug("%s: %llu lies outside %llu to %llu, unchanged", name, static_cast<unsigned long long>(v),
                  static_cast<unsigned long long>(lo), static_cast<unsigned long long>(hi));
    return false;
}

constexpr uint64_t request_pool_size_for(uint64_t in, uint64_t out, uint64_t space)
{
    return (in + out + space + 4016) * 2;
}

// The values that stand before http.conf is read, and when it cannot be opened.
orbs3_sysconfig_t builtin_sysconfig()
{
    return orbs3_sysconfig_t{
        .http_pool_total = 0,
        .cycle_size = 16384,
        .listen_nsize = 16,
        .epoll_notify_conn = 4096,
        .epoll_events = 1024,
        .epoll_events_timeout = 500,
        .listenfd_size = 512,
        .recv_buffer = 1048576,
        .send_buffer = 1048576,
        .conn_pool_size = 4100,
        .request_pool_size = request_pool_size_for(1048576, 1048576, 4096),
        .http_limit_header = 4096,
        .http_header_in_size = 1048576,
        .http_header_out_size = 1048576,
        .http_work_space = 4096,
        .http_limit_conns = 256,
        .http_header_line = 20,
        .http_timeout = 120,
        .ssl_engine_name = {},
        .ssl_shm_zone_size = kSslShmZoneSize,
        .ssl_ticket = 0,
        .ssl_engine = 1,
        .ssl_handshake_timeout = kHandshakeTimeout,
        .cache_qty = 10240,
        .cache_refresh = 900,
        .cache_recycle = 48 * kSecondsPerHour,
        .cache_bits = 16,
        .cache_files = {},
    };
}

}  // namespace

orbs3_sysconfig_t sysconfig = builtin_sysconfig();
orbs3_conf_t orbs3_conf{};
orbs3_cycle_t* orbs3_cycle = nullptr;

void orbs3_sysconfig_defaults()
{
    sysconfig = builtin_sysconfig();
}

uint64_t orbs3_request_pool_size()
{
    return request_pool_size_for(sysconfig.http_header_in_size, sysconfig.http_header_out_size,
                                 sysconfig.http_work_space);
}

int orbs3_get_sysconfig()
{
    // Without the file the built-in values serve; the reader has said so in the log.
    (void)http_read_sysconfig_xml();
    return 0;
}

int http_read_sysconfig_xml()
{
    orbs3_sysconfig_defaults();

    std::string path = orbs3_prefix_path(ORBS3_HTTP_CONF);
    orbs3_xml_ptr tree;
    {
        orbs3_file_ptr fp(std::fopen(path.c_str(), "r"));
        if (!fp) {
            ipd_log(LOG_WARNING, "No system configuration file");
            return -1;
        }
        // A file that is not well-formed gives no tree: every element then counts as absent.
        tree = orbs3_xml_load_file(fp.get());
    }
    read_http(orbs3_xml_find(tree.get(), "http"));
    read_https(orbs3_xml_find(tree.get(), "https"));
    read_cache(orbs3_xml_find(tree.get(), "cache"));
    sysconfig.ssl_shm_zone_size = kSslShmZoneSize;
    return 0;
}

int orbs3_read_conf_xml()
{
    conf_clear();

    std::string path = orbs3_prefix_path(ORBS3_CONF);
    orbs3_xml_ptr tree;
    {
        orbs3_file_ptr fp(std::fopen(path.c_str(), "r"));
        if (!fp)
            return -1;
        tree = orbs3_xml_load_file(fp.get());
    }
    if (!tree)
        return -1;

    mxml_node_t* om = orbs3_xml_find(tree.get(), "orbmux");
    mxml_node_t* cache = orbs3_xml_find(tree.get(), "cache");

    orbs3_conf.interval = conf_num(om, "interval", kConfInterval);
    conf_path_attr(om, "conf_path", orbs3_conf.conf_path, sizeof orbs3_conf.conf_path, kConfPath, "conf_path");
    orbs3_conf.bucketmaxlen = conf_num(om, "bucketmaxlen", kConfBucketMaxLen);
    orbs3_conf.objectmaxlen = conf_num(om, "objectmaxlen", kConfObjectMaxLen);
    orbs3_conf.objectpathlen = conf_num(om, "objectpathlen", kConfObjectPathLen);
    orbs3_conf.objectdirnum = conf_num(om, "objectdirnum", kConfObjectDirNum);
    orbs3_conf.multipart_min_part = conf_num(om, "multipart_min_part", kConfMultipartMinPart);
    orbs3_conf.lifecyclehour = conf_num(om, "lifecyclehour", kConfLifecycleHour);
    orbs3_conf.lifecyclethread_min = conf_num(om, "lifecyclethread_min", kConfLifecycleThreadMin);
    orbs3_conf.lifecyclethread_max = conf_num(om, "lifecyclethread_max", kConfLifecycleThreadMax);
    orbs3_conf.lifecyclethread_event = conf_num(om, "lifecyclethread_event", kConfLifecycleThreadEvent);
    // Only the word "off" turns the check off; a misspelt value keeps it on.
    const char* sig = om != nullptr ? mxmlElementGetAttr(om, "signatures") : nullptr;
    orbs3_conf.verify_signatures = sig != nullptr && std::strcmp(sig, "off") == 0 ? 0 : 1;
    if (!orbs3_conf.verify_signatures)
        ipd_log(LOG_WARNING, "request signatures are not verified: signatures=\"off\" in %s", path.c_str());

    orbs3_conf.cache_max_mem = conf_size(cache, "max_mem");
    orbs3_conf.cache_max_file = conf_size(cache, "max_file");
    orbs3_conf.cache_retry = conf_num(cache, "retry", kConfCacheRetry);
    orbs3_conf.cache_interval = conf_num(cache, "interval", kConfCacheInterval);
    conf_path_attr(cache, "tmp", orbs3_conf.cache_tmp, sizeof orbs3_conf.cache_tmp, kConfCacheTmp, "cache tmp");
    return 0;
}

int orbs3_write_conf_xml()
{
    orbs3_xml_ptr tree(mxmlNewXML("1.0"));
    if (!tree)
        return -1;
    mxml_node_t* om = mxmlNewElement(tree.get(), "orbmux");
    mxml_node_t* cache = mxmlNewElement(tree.get(), "cache");
    if (om == nullptr || cache == nullptr)
        return -1;

    const orbs3_conf_t& c = orbs3_conf;
    set_int_attr(om, "interval", c.interval, kConfInterval);
    set_str_attr(om, "conf_path", c.conf_path, kConfPath);
    set_int_attr(om, "bucketmaxlen", c.bucketmaxlen, kConfBucketMaxLen);
    set_int_attr(om, "objectmaxlen", c.objectmaxlen, kConfObjectMaxLen);
    set_int_attr(om, "objectpathlen", c.objectpathlen, kConfObjectPathLen);
    set_int_attr(om, "objectdirnum", c.objectdirnum, kConfObjectDirNum);
    set_int_attr(om, "multipart_min_part", c.multipart_min_part, kConfMultipartMinPart);
    set_int_attr(om, "lifecyclehour", c.lifecyclehour, kConfLifecycleHour);
    set_int_attr(om, "lifecyclethread_min", c.lifecyclethread_min, kConfLifecycleThreadMin);
    set_int_attr(om, "lifecyclethread_max", c.lifecyclethread_max, kConfLifecycleThreadMax);
    set_int_attr(om, "lifecyclethread_event", c.lifecyclethread_event, kConfLifecycleThreadEvent);
    if (!c.verify_signatures)
        mxmlElementSetAttr(om, "signatures", "off");

    mxmlElementSetAttr(cache, "max_mem", get_bytes_string(static_cast<int64_t>(c.cache_max_mem)));
    // A max_file of 0 is an empty value in the file; it reads back as 0.
    mxmlElementSetAttr(cache, "max_file",
                       c.cache_max_file != 0 ? get_bytes_string(static_cast<int64_t>(c.cache_max_file)) : "");
    set_int_attr(cache, "retry", c.cache_retry, kConfCacheRetry);
    set_int_attr(cache, "interval", c.cache_interval, kConfCacheInterval);
    set_str_attr(cache, "tmp", c.cache_tmp, kConfCacheTmp);

    // Replaced whole: a crash or a full disk in the middle leaves the old file, never half of the new one
    // that the next start would read.
    const int rc = neo_replace_file(orbs3_prefix_path(ORBS3_CONF), ".orbmux.conf.",
                                    [&](FILE* fp) { return mxmlSaveFile(tree.get(), fp, conf_whitespace) == 0; });
    return rc == 0 ? 0 : -1;
}

// The number is atoi's; the byte behind the leading digits picks the unit, and a plain number (also
// with K, B or anything else behind it) counts in KiB, so "512B" is 512 KiB. The product is taken in 64
// bits and held at the int64 limits: for every text whose 32-bit shift is defined (a G number below
// 2048, an M number below 2097152, non-negative) the result is the same.
int64_t get_size_in_bytes(const char* text)
{
    if (text == nullptr)
        return 0;
    const char* p = text;
    while (*p >= '0' && *p <= '9')
        ++p;
    int64_t n = orbs3_xml_to_int(text);
    int64_t unit = 1024;
    if (*p == 'G' || *p == 'g')
        unit = int64_t{1} << 30;
    else if (*p == 'M' || *p == 'm')
        unit = int64_t{1} << 20;
    int64_t r = 0;
    if (__builtin_mul_overflow(n, unit, &r))
        return n < 0 ? INT64_MIN : INT64_MAX;
    return r;
}

const char* get_bytes_string(int64_t size)
{
    // One buffer per thread: workers format sizes on their epoll threads at the same time.
    thread_local char buf[32];
    if (size >= (int64_t{1} << 30))
        std::snprintf(buf, sizeof buf, "%" PRId64 "G", size / (int64_t{1} << 30));
    else if (size >= (int64_t{1} << 20))
        std::snprintf(buf, sizeof buf, "%" PRId64 "M", size / (int64_t{1} << 20));
    else if (size >= 1024)
        std::snprintf(buf, sizeof buf, "%" PRId64 "K", size / 1024);
    else
        std::snprintf(buf, sizeof buf, "%" PRId64 "B", size);
    return buf;
}

int orbs3_get_bool(const char* text)
{
    if (text != nullptr && strcasecmp(text, orbs3_bool[0]) == 0)
        return 0;
    return 1;
}

const char* orbs3_get_bool_string(int index)
{
    return (index == 0 || index == 1) ? orbs3_bool[index] : orbs3_bool[1];
}

int orbs3_get_status(const char* text)
{
    if (text == nullptr)
        return 0;
    for (int i = 0; i < static_cast<int>(std::size(orbs3_status)); ++i)
        if (strcasecmp(text, orbs3_status[i]) == 0)
            return i;
    return 0;
}

const char* orbs3_get_status_string(int index)
{
    return (index >= 0 && index < static_cast<int>(std::size(orbs3_status))) ? orbs3_status[index]
                                                                              : orbs3_status[0];
}

void set_http_limit_header(uint64_t v)
{
    if (in_range<uint64_t>(v, 1, 57344, "http_limit_header"))
        sysconfig.http_limit_header = v;
}

void set_http_header_in_size(uint64_t v)
{
    if (in_range<uint64_t>(v, 1, 57344, "http_header_in_size"))
        sysconfig.http_header_in_size = v;
}

void set_http_header_out_size(uint64_t v)
{
    if (in_range<uint64_t>(v, 1, 57344, "http_header_out_size"))
        sysconfig.http_header_out_size = v;
}

void set_http_work_space(uint64_t v)
{
    if (in_range<uint64_t>(v, 1, 57344, "http_work_space"))
        sysconfig.http_work_space = v;
}

void set_http_timeout(int v)
{
    if (in_range(v, 0, INT_MAX, "http_timeout"))
        sysconfig.http_timeout = v;
}

int orbs3_init_cycle()
{
    // The run record's pool has a fixed size; http.conf has no say in it.
    sysconfig.cycle_size = kCycleSize;
    orbs3_pool_t* pool = orbs3_create_mem_block(sysconfig.cycle_size);
    if (pool == nullptr) {
        ipd_debug("the cycle pool create failed");
        ipd_log(LOG_ERR, "cycle data init failed");
        return -1;
    }
    auto* cycle = static_cast<orbs3_cycle_t*>(orbs3_pcalloc(pool, sizeof(orbs3_cycle_t)));
    if (cycle == nullptr) {
        orbs3_destroy_pool(pool);
        ipd_log(LOG_ERR, "cycle data init failed");
        return -1;
    }
    cycle->pool = pool;
    orbs3_cycle = cycle;
    return 0;
}
