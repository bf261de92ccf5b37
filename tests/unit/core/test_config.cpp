#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/orbs3_config.h"
#include "core/orbs3_prefix.h"
#include "memory/orbs3_palloc.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;
using unit_test::read_file;
using unit_test::write_file;

// The daemon's paths under a fresh directory with an empty etc/orbmux.
class ConfigFiles : public ::testing::Test {
protected:
    void write(const char* name, const std::string& text) { write_file(dir_ / "etc/orbmux" / name, text); }
    std::string read(const char* name) { return read_file(dir_ / "etc/orbmux" / name); }

    unit_test::prefix_sandbox sandbox;
    const fs::path dir_ = sandbox.path;
};

using CacheFiles = std::vector<std::pair<uint64_t, std::string>>;

CacheFiles cache_files()
{
    CacheFiles out;
    for (const auto& f : sysconfig.cache_files)
        out.emplace_back(f.size, f.path);
    return out;
}

// What http.conf yields when the file exists and names no element at all.
struct SysExpect {
    int rc = 0;
    uint64_t head = 4096, in = 4096, out = 4096, space = 4096, pool = 32608, total = 32608 * 256;
    int ticket = 0, engine = 1, handshake = 10;
    std::string engine_name;
    int qty = 10240, refresh = 1800, recycle = 172800, bits = 16;
    CacheFiles files{{0, "/tmp/orbs3/cache/"}};
    // The request pool holds the in, out and work buffers and the request record, twice.
    void sizes(uint64_t i, uint64_t o, uint64_t sp)
    {
        in = i, out = o, space = sp, pool = (i + o + sp + 4016) * 2, total = pool * 256;
    }
};

TEST_F(ConfigFiles, HttpConfFillsSysconfigAsItsElementsSay)
{
    const std::pair<const char*, std::function<void(SysExpect&)>> cases[] = {
        {nullptr, [](SysExpect& e) {  // no file keeps the built-in values
             e = {.rc = -1, .in = 1048576, .out = 1048576, .pool = 4210528, .total = 0, .refresh = 900, .files = {}};
         }},
        {"<http/>", [](SysExpect&) {}},
        {R"(<http respones="8192" response="1000" head="100000"/>)",
         [](SysExpect& e) { e.sizes(4096, 8192, 4096), e.head = 100000; }},
        {R"(<http head="1" request="2000" respones="3000" space="400"/>)",
         [](SysExpect& e) { e.sizes(2000, 3000, 400), e.head = 1; }},
        {R"(<http request="abc"/>)", [](SysExpect& e) { e.sizes(0, 4096, 4096); }},
        {R"(<https ticket="on" engine="on"/>)", [](SysExpect& e) { e.ticket = 1, e.engine = 0, e.engine_name = "on"; }},
        {R"(<https ticket="off" engine="dev2"/>)", [](SysExpect& e) { e.engine_name = "dev2"; }},
        {"<https/>", [](SysExpect& e) { e.engine_name = "qat"; }},
        {R"(<https handshake_timeout="3"/>)", [](SysExpect& e) { e.engine_name = "qat", e.handshake = 3; }},
        {R"(<https handshake_timeout="0"/>)", [](SysExpect& e) { e.engine_name = "qat"; }},  // a deadline stays
        {R"(<conf><cache qty="5" refresh="60" recycle="2" bits="20">
              <file size="10M" path="/a/"/><other size="1K" path="/x/"/><file path="/b/"/><file size="1g"/>
            </cache><file size="1" path="/outside/"/></conf>)",
         [](SysExpect& e) {
             e.qty = 5, e.refresh = 60, e.recycle = 7200, e.bits = 20;
             e.files = {{10485760, "/a/"}, {0, "/b/"}, {1073741824, ""}};
         }},
        {"<cache/>", [](SysExpect& e) { e.files.clear(); }},
        {"<?xml version=\"1.0\"?>\n<http request=\"2048\"/>\n<https ticket=\"on\"/>\n<cache qty=\"7\"/>\n",
         [](SysExpect& e) {
             e.sizes(2048, 4096, 4096), e.ticket = 1, e.engine_name = "qat", e.qty = 7;
             e.files.clear();
         }},
        {"<http request=\"1\"><https></http>", [](SysExpect&) {}},  // malformed: no elements
    };
    for (const auto& [file, expect] : cases) {
        SCOPED_TRACE(file ? file : "(no file)");
        fs::remove(dir_ / "etc/orbmux/http.conf");
        if (file)
            write("http.conf", file);
        SysExpect e;
        expect(e);
        EXPECT_EQ(http_read_sysconfig_xml(), e.rc);
        EXPECT_EQ((std::vector<uint64_t>{sysconfig.http_limit_header, sysconfig.http_header_in_size,
                                         sysconfig.http_header_out_size, sysconfig.http_work_space,
                                         sysconfig.request_pool_size, sysconfig.http_pool_total}),
                  (std::vector<uint64_t>{e.head, e.in, e.out, e.space, e.pool, e.total}));
        EXPECT_EQ((std::vector<int>{sysconfig.ssl_ticket, sysconfig.ssl_engine, sysconfig.cache_qty,
                                    sysconfig.cache_refresh, sysconfig.cache_recycle, sysconfig.cache_bits,
                                    sysconfig.ssl_handshake_timeout}),
                  (std::vector<int>{e.ticket, e.engine, e.qty, e.refresh, e.recycle, e.bits, e.handshake}));
        EXPECT_STREQ(sysconfig.ssl_engine_name, e.engine_name.c_str());
        EXPECT_EQ(cache_files(), e.files);
        // Fields the file cannot name keep their built-in values.
        EXPECT_EQ(sysconfig.http_limit_conns, 256u);
        EXPECT_EQ(sysconfig.ssl_shm_zone_size, 10240000);
        EXPECT_EQ(sysconfig.conn_pool_size, 4100u);
        EXPECT_EQ(sysconfig.recv_buffer, 1048576u);
        EXPECT_EQ(sysconfig.http_timeout, 120);
    }
    fs::remove(dir_ / "etc/orbmux/http.conf");
    EXPECT_EQ(orbs3_get_sysconfig(), 0);
    EXPECT_EQ(sysconfig.request_pool_size, 4210528u);
}

TEST_F(ConfigFiles, PathLongerThanItsFieldIsRefusedNotCut)
{
    const std::string fits_256(255, 'p'), over_256(256, 'q');
    write("http.conf", "<cache><file size=\"1\" path=\"" + over_256 + "\"/><file size=\"2\" path=\"" + fits_256 +
                           "\"/></cache>");
    ASSERT_EQ(http_read_sysconfig_xml(), 0);
    EXPECT_EQ(cache_files(), (CacheFiles{{2048, fits_256}}));

    for (const std::string& path : {std::string(1024, 'd'), std::string(1023, 'c')}) {
        write("orbmux.conf", "<r><orbmux conf_path=\"" + path + "\"/><cache tmp=\"" + path + "\"/></r>");
        ASSERT_EQ(orbs3_read_conf_xml(), 0);
        const bool fits = path.size() < 1024;
        EXPECT_EQ(std::string(orbs3_conf.conf_path), fits ? path : "/etc/orbmux");
        EXPECT_EQ(std::string(orbs3_conf.cache_tmp), fits ? path : "/tmp/orbmux/");
    }
}

TEST_F(ConfigFiles, OrbmuxConfMissingMalformedOrUnwritableFails)
{
    std::snprintf(orbs3_conf.shost_id, sizeof orbs3_conf.shost_id, "%s", "node-1");
    EXPECT_EQ(orbs3_read_conf_xml(), -1);
    EXPECT_STREQ(orbs3_conf.shost_id, "") << "the record is cleared before the file is read";
    for (const char* bad : {"", "not xml", "<orbmux interval=\"1\"><cache></orbmux>", "<orbmux/><cache/>"}) {
        SCOPED_TRACE(bad);
        write("orbmux.conf", bad);
        EXPECT_EQ(orbs3_read_conf_xml(), -1);
    }
    fs::remove(dir_ / "etc/orbmux/orbmux.conf");
    fs::create_directories(dir_ / "etc/orbmux/orbmux.conf");
    EXPECT_EQ(orbs3_write_conf_xml(), -1);
}

// One numeric field of orbmux.conf: its default, a text given in the file and what that text reads as,
// and a value that survives a write and a read.
struct ConfField {
    const char* attr;
    std::function<int64_t()> get;
    std::function<void(int64_t)> set;
    int64_t def;
    const char* given;
    int64_t read, wrote;
};
#define FIELD(attr, m, ...)                                                                               \
    ConfField{attr, [] { return int64_t(orbs3_conf.m); },                                                  \
              [](int64_t v) { orbs3_conf.m = decltype(orbs3_conf.m)(v); }, __VA_ARGS__}
const ConfField kFields[] = {
    FIELD("interval", interval, 10, "123456789", 12345678, 20),  // eight characters are read
    FIELD("bucketmaxlen", bucketmaxlen, 127, "63", 63, 63),
    FIELD("objectmaxlen", objectmaxlen, 127, "x", 0, 0),  // 0 is written as the default
    FIELD("objectpathlen", objectpathlen, 1023, "511", 511, 2047),
    FIELD("objectdirnum", objectdirnum, 10, "3", 3, 5),
    FIELD("multipart_min_part", multipart_min_part, 5 << 20, "1024", 1024, 4096),
    FIELD("lifecyclehour", lifecyclehour, 0, "4", 4, 3),
    FIELD("lifecyclethread_min", lifecyclethread_min, 10, "-12", -12, 4),
    FIELD("lifecyclethread_max", lifecyclethread_max, 100, "200", 200, 8),
    FIELD("lifecyclethread_event", lifecyclethread_event, 100, "300", 300, 16),
    FIELD("cache max_mem", cache_max_mem, 0, "2G", int64_t{2} << 30, int64_t{64} << 20),
    FIELD("cache max_file", cache_max_file, 0, "123456789M", 12345678LL * 1024, int64_t{2} << 30),
    FIELD("cache retry", cache_retry, 3, "5", 5, 9),
    FIELD("cache interval", cache_interval, 3, "7", 7, 11),
};
#undef FIELD

TEST_F(ConfigFiles, OrbmuxConfReadsAttributesWithDefaultsAndEightCharacters)
{
    write("orbmux.conf", "<orbmux/>");
    ASSERT_EQ(orbs3_read_conf_xml(), 0);
    for (const auto& f : kFields)
        EXPECT_EQ(f.get(), f.def) << f.attr;
    EXPECT_STREQ(orbs3_conf.conf_path, "/etc/orbmux");
    EXPECT_STREQ(orbs3_conf.cache_tmp, "/tmp/orbmux/");

    std::string om = "<orbmux conf_path=\"/mnt/conf\"", cache = "<cache tmp=\"/scratch/\"";
    for (const auto& f : kFields) {
        std::string attr = f.attr;
        bool in_cache = attr.starts_with("cache ");
        (in_cache ? cache : om) += " " + attr.substr(in_cache ? 6 : 0) + "=\"" + f.given + "\"";
    }
    // The elements may sit anywhere in the tree, in either order.
    write("orbmux.conf", "<root><x>" + cache + "/></x>" + om + "/></root>");
    ASSERT_EQ(orbs3_read_conf_xml(), 0);
    for (const auto& f : kFields)
        EXPECT_EQ(f.get(), f.read) << f.attr;
    EXPECT_STREQ(orbs3_conf.conf_path, "/mnt/conf");
    EXPECT_STREQ(orbs3_conf.cache_tmp, "/scratch/");
}

TEST_F(ConfigFiles, OrbmuxConfWriteReplacesTheFileAndReadsBack)
{
    std::string old = "<root>";
    for (int i = 0; i < 1000; ++i)
        old += "<pad/>";
    write("orbmux.conf", old + "</root>");
    // A second name of the old file: a rewrite in place would show through it, a replacement does not.
    const auto conf = dir_ / "etc/orbmux/orbmux.conf";
    fs::create_hard_link(conf, dir_ / "etc/orbmux/old.conf");

    std::snprintf(orbs3_conf.conf_path, sizeof orbs3_conf.conf_path, "%s", "/mnt/cluster/conf");
    orbs3_conf.cache_tmp[0] = '\0';  // written as its default
    for (const auto& f : kFields)
        f.set(f.wrote);
    ASSERT_EQ(orbs3_write_conf_xml(), 0);
    ASSERT_EQ(orbs3_read_conf_xml(), 0);
    for (const auto& f : kFields)
        EXPECT_EQ(f.get(), f.wrote != 0 ? f.wrote : f.def) << f.attr;
    EXPECT_STREQ(orbs3_conf.conf_path, "/mnt/cluster/conf");
    EXPECT_STREQ(orbs3_conf.cache_tmp, "/tmp/orbmux/");

    const std::string text = read("orbmux.conf");
    EXPECT_EQ(text.find("pad"), std::string::npos) << "the old file was not truncated";
    EXPECT_EQ(read("old.conf"), old + "</root>") << "the file was rewritten in place, not replaced";
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_ / "etc/orbmux"), fs::directory_iterator{}), 2)
        << "a temporary file was left behind";
    EXPECT_TRUE(text.starts_with("<?xml version=\"1.0\"")) << text;
    std::size_t at = 0;
    for (const char* piece : {"<orbmux ", "interval=", "conf_path=", "bucketmaxlen=", "objectmaxlen=",
                              "objectpathlen=", "objectdirnum=", "multipart_min_part=", "lifecyclehour=",
                              "lifecyclethread_min=", "lifecyclethread_max=", "lifecyclethread_event=", "<cache ", "max_mem=\"64M\"",
                              "max_file=\"2G\"", "retry=", "interval=\"11\"", "tmp="}) {
        at = text.find(piece, at);
        ASSERT_NE(at, std::string::npos) << piece << " in order in " << text;
    }

    orbs3_conf.cache_max_mem = orbs3_conf.cache_max_file = 0;
    ASSERT_EQ(orbs3_write_conf_xml(), 0);
    const std::string zero = read("orbmux.conf");
    EXPECT_NE(zero.find("max_mem=\"0B\""), std::string::npos) << zero;
    EXPECT_NE(zero.find("max_file=\"\""), std::string::npos) << zero;
    ASSERT_EQ(orbs3_read_conf_xml(), 0);
    EXPECT_EQ(orbs3_conf.cache_max_mem, 0u);
    EXPECT_EQ(orbs3_conf.cache_max_file, 0u);
}

TEST(ConfigSize, SizeTextCountsKibibytesUnlessGOrM)
{
    const std::pair<const char*, int64_t> cases[] = {
        {"10", 10240}, {"10K", 10240}, {"10M", 10485760}, {"10g", 10737418240}, {"120M", 125829120},
        {"512B", 524288}, {"2m", 2097152}, {"2047G", int64_t{2047} << 30},
        {"4096G", int64_t{4096} << 30},  // past the 32-bit shift: taken in 64 bits
        {"-1M", -1024},                  // the unit is the byte behind the leading digits
        {" 10M", 10240}, {"", 0}, {"abc", 0}, {"M", 0}, {nullptr, 0},
    };
    for (const auto& [text, bytes] : cases)
        EXPECT_EQ(get_size_in_bytes(text), bytes) << '"' << (text ? text : "(null)") << '"';
}

TEST(ConfigSize, BytesStringTruncatesToLargestUnitInAPerThreadBuffer)
{
    const std::pair<int64_t, const char*> cases[] = {
        {0, "0B"}, {1023, "1023B"}, {1024, "1K"}, {1536, "1K"}, {1048575, "1023K"}, {1048576, "1M"},
        {1073741823, "1023M"}, {1073741824, "1G"}, {(int64_t{5} << 40) + 7, "5120G"},
    };
    for (const auto& [size, text] : cases)
        EXPECT_STREQ(get_bytes_string(size), text) << size;

    const char* mine = get_bytes_string(2048);
    std::string theirs;
    std::thread([&] {
        const char* p = get_bytes_string(3 << 20);
        theirs = (p == mine) ? "shared" : p;
    }).join();
    EXPECT_EQ(theirs, "3M");
    EXPECT_STREQ(mine, "2K");
}

TEST(ConfigWords, WordsAndIndexesMapBothWays)
{
    const std::pair<const char*, int> bools[] = {
        {"true", 0}, {"TRUE", 0}, {"false", 1}, {"False", 1}, {"yes", 1}, {"", 1}, {nullptr, 1}};
    for (const auto& [text, index] : bools)
        EXPECT_EQ(orbs3_get_bool(text), index) << (text ? text : "(null)");
    for (const auto& [index, word] : {std::pair{0, "true"}, {1, "false"}, {2, "false"}, {-1, "false"}})
        EXPECT_STREQ(orbs3_get_bool_string(index), word) << index;

    const std::pair<const char*, int> status[] = {
        {"inactive", 0}, {"Active", 1},  {"STOPING", 2}, {"stop_error", 3}, {"starting", 4}, {"start_error", 5},
        {"adding", 6},   {"add_error", 7}, {"deling", 8}, {"Del_Error", 9},  {"up", 0},       {"", 0},
        {nullptr, 0}};
    for (const auto& [text, index] : status)
        EXPECT_EQ(orbs3_get_status(text), index) << (text ? text : "(null)");
    for (const auto& [index, word] : {std::pair{0, "inactive"}, {1, "active"}, {5, "start_error"},
                                      {9, "del_error"}, {10, "inactive"}, {-1, "inactive"}})
        EXPECT_STREQ(orbs3_get_status_string(index), word) << index;
}

TEST(ConfigSetters, SettersStoreOnlyInsideTheirRange)
{
    struct Setter {
        const char* name;
        std::function<void(int64_t)> set;
        std::function<int64_t()> get;
        int64_t lo;
        std::optional<int64_t> hi;  // none: no upper bound
    };
#define SETTER(f, type, lo, hi) \
    Setter{#f, [](int64_t v) { set_##f(type(v)); }, [] { return int64_t(sysconfig.f); }, lo, hi}
    const Setter setters[] = {
        SETTER(http_limit_header, int64_t, 1, 57344),   SETTER(http_header_in_size, int64_t, 1, 57344),
        SETTER(http_header_out_size, int64_t, 1, 57344), SETTER(http_work_space, int64_t, 1, 57344),
        SETTER(http_timeout, int, 0, std::nullopt),
    };
#undef SETTER
    for (const auto& s : setters) {
        SCOPED_TRACE(s.name);
        orbs3_sysconfig_defaults();
        s.set(s.lo);
        EXPECT_EQ(s.get(), s.lo);
        if (s.lo > 0) {
            s.set(s.lo - 1);
            EXPECT_EQ(s.get(), s.lo) << "below the range";
        }
        int64_t top = s.hi.value_or(2000000000);
        s.set(top);
        EXPECT_EQ(s.get(), top);
        if (s.hi) {
            s.set(*s.hi + 1);
            EXPECT_EQ(s.get(), top) << "above the range";
        }
    }
    orbs3_sysconfig_defaults();
}

TEST(ConfigCycle, InitCycleCreatesRecordInItsOwnPool)
{
    sysconfig.cycle_size = 16384;
    orbs3_cycle = nullptr;
    ASSERT_EQ(orbs3_init_cycle(), 0);
    EXPECT_EQ(sysconfig.cycle_size, 1024000u);
    ASSERT_NE(orbs3_cycle, nullptr);
    ASSERT_NE(orbs3_cycle->pool, nullptr);
    EXPECT_EQ(orbs3_cycle->connections, nullptr);
    EXPECT_EQ(orbs3_cycle->connection_n + orbs3_cycle->free_connection_n, 0);
    // The connection tables that follow fit in the same pool.
    EXPECT_NE(orbs3_palloc(orbs3_cycle->pool, 512000), nullptr);
    orbs3_destroy_pool(orbs3_cycle->pool);
    orbs3_cycle = nullptr;
}

}  // namespace
