#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/orbs3_config.h"
#include "core/orbs3_prefix.h"
#include "memory/orbs3_palloc.h"

namespace {

namespace fs = std::filesystem;

// Points the daemon's paths at a fresh directory with an empty etc/orbmux, and puts the old prefix back.
class ConfigFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const char* old = std::getenv("ORBMUX_PREFIX"))
            old_prefix_ = old;
        char tmpl[] = "/tmp/orbs3_config_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        fs::create_directories(dir_ / "etc/orbmux");
        setenv("ORBMUX_PREFIX", dir_.c_str(), 1);
        orbs3_prefix_reload();
    }

    void TearDown() override
    {
        std::error_code ec;
        fs::remove_all(dir_, ec);
        if (old_prefix_)
            setenv("ORBMUX_PREFIX", old_prefix_->c_str(), 1);
        else
            unsetenv("ORBMUX_PREFIX");
        orbs3_prefix_reload();
    }

    void write(const char* name, const std::string& text)
    {
        std::ofstream out(dir_ / "etc/orbmux" / name, std::ios::trunc);
        out << text;
    }
    void remove(const char* name) { fs::remove(dir_ / "etc/orbmux" / name); }
    std::string read(const char* name)
    {
        std::ifstream in(dir_ / "etc/orbmux" / name);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    fs::path dir_;
    std::optional<std::string> old_prefix_;
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
    uint64_t head = 4096, in = 4096, out = 4096, space = 4096, pool = 32608, conns = 256;
    uint64_t total = 32608 * 256;
    int ticket = 0, engine = 1;
    std::string engine_name;
    int qty = 10240, refresh = 1800, recycle = 172800, bits = 16;
    CacheFiles files{{0, "/tmp/orbs3/cache/"}};
};

TEST_F(ConfigFiles, HttpConfFillsSysconfigAsItsElementsSay)
{
    struct Case {
        const char* name;
        const char* file;  // null: no http.conf
        std::function<void(SysExpect&)> expect;
    };
    const Case cases[] = {
        {"no file keeps the built-in values", nullptr,
         [](SysExpect& e) {
             e.rc = -1;
             e.in = e.out = 1048576;
             e.pool = 4210528;
             e.total = 0;
             e.refresh = 900;
             e.files.clear();
         }},
        {"empty http element", "<http/>", [](SysExpect&) {}},
        {"respones is read, response and range are not", R"(<http respones="8192" response="1000" head="100000"/>)",
         [](SysExpect& e) {
             e.out = 8192;
             e.head = 100000;
             e.pool = (4096 + 8192 + 4096 + 4016) * 2;
             e.total = e.pool * 256;
         }},
        {"all four sizes", R"(<http head="1" request="2000" respones="3000" space="400"/>)",
         [](SysExpect& e) {
             e.head = 1;
             e.in = 2000;
             e.out = 3000;
             e.space = 400;
             e.pool = (2000 + 3000 + 400 + 4016) * 2;
             e.total = e.pool * 256;
         }},
        {"text that is no number is 0", R"(<http request="abc"/>)",
         [](SysExpect& e) {
             e.in = 0;
             e.pool = (0 + 4096 + 4096 + 4016) * 2;
             e.total = e.pool * 256;
         }},
        {"https on words", R"(<https ticket="on" engine="on"/>)",
         [](SysExpect& e) {
             e.ticket = 1;
             e.engine = 0;
             e.engine_name = "on";
         }},
        {"https off words", R"(<https ticket="off" engine="dev2"/>)",
         [](SysExpect& e) {
             e.ticket = 0;
             e.engine = 1;
             e.engine_name = "dev2";
         }},
        {"https without attributes names qat", "<https/>", [](SysExpect& e) { e.engine_name = "qat"; }},
        {"cache with file children in order",
         R"(<conf><cache qty="5" refresh="60" recycle="2" bits="20">
              <file size="10M" path="/a/"/><other size="1K" path="/x/"/><file path="/b/"/><file size="1g"/>
            </cache><file size="1" path="/outside/"/></conf>)",
         [](SysExpect& e) {
             e.qty = 5;
             e.refresh = 60;
             e.recycle = 7200;
             e.bits = 20;
             e.files = {{10485760, "/a/"}, {0, "/b/"}, {1073741824, ""}};
         }},
        {"cache without attributes or files", "<cache/>", [](SysExpect& e) { e.files.clear(); }},
        {"declaration with elements behind it",
         "<?xml version=\"1.0\"?>\n<http request=\"2048\"/>\n<https ticket=\"on\"/>\n<cache qty=\"7\"/>\n",
         [](SysExpect& e) {
             e.in = 2048;
             e.pool = (2048 + 4096 + 4096 + 4016) * 2;
             e.total = e.pool * 256;
             e.ticket = 1;
             e.engine_name = "qat";
             e.qty = 7;
             e.files.clear();
         }},
        {"malformed file counts as no elements", "<http request=\"1\"><https></http>", [](SysExpect&) {}},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.file)
            write("http.conf", c.file);
        else
            remove("http.conf");
        SysExpect e;
        c.expect(e);

        EXPECT_EQ(http_read_sysconfig_xml(), e.rc);
        EXPECT_EQ(sysconfig.http_limit_header, e.head);
        EXPECT_EQ(sysconfig.http_header_in_size, e.in);
        EXPECT_EQ(sysconfig.http_header_out_size, e.out);
        EXPECT_EQ(sysconfig.http_work_space, e.space);
        EXPECT_EQ(sysconfig.request_pool_size, e.pool);
        EXPECT_EQ(sysconfig.http_limit_conns, e.conns);
        EXPECT_EQ(sysconfig.http_pool_total, e.total);
        EXPECT_EQ(sysconfig.ssl_ticket, e.ticket);
        EXPECT_EQ(sysconfig.ssl_engine, e.engine);
        EXPECT_STREQ(sysconfig.ssl_engine_name, e.engine_name.c_str());
        EXPECT_EQ(sysconfig.ssl_shm_zone_size, 10240000);
        EXPECT_EQ(sysconfig.cache_qty, e.qty);
        EXPECT_EQ(sysconfig.cache_refresh, e.refresh);
        EXPECT_EQ(sysconfig.cache_recycle, e.recycle);
        EXPECT_EQ(sysconfig.cache_bits, e.bits);
        EXPECT_EQ(cache_files(), e.files);
        // Fields the file cannot name keep their built-in values.
        EXPECT_EQ(sysconfig.conn_pool_size, 4100u);
        EXPECT_EQ(sysconfig.recv_buffer, 1048576u);
        EXPECT_EQ(sysconfig.http_timeout, 120);
    }

    remove("http.conf");
    EXPECT_EQ(orbs3_get_sysconfig(), 0);
    EXPECT_EQ(sysconfig.request_pool_size, 4210528u);
}

TEST_F(ConfigFiles, PathLongerThanItsFieldIsRefusedNotCut)
{
    const std::string fits_256(255, 'p');
    const std::string over_256(256, 'q');
    write("http.conf", "<cache><file size=\"1\" path=\"" + over_256 + "\"/><file size=\"2\" path=\"" + fits_256 +
                           "\"/></cache>");
    ASSERT_EQ(http_read_sysconfig_xml(), 0);
    EXPECT_EQ(cache_files(), (CacheFiles{{2048, fits_256}}));

    const std::string fits_1024(1023, 'c');
    const std::string over_1024(1024, 'd');
    write("orbmux.conf",
          "<r><orbmux conf_path=\"" + over_1024 + "\"/><cache tmp=\"" + over_1024 + "\"/></r>");
    ASSERT_EQ(orbs3_read_conf_xml(), 0);
    EXPECT_STREQ(orbs3_conf.conf_path, "/etc/orbmux");
    EXPECT_STREQ(orbs3_conf.cache_tmp, "/tmp/orbmux/");

    write("orbmux.conf", "<r><orbmux conf_path=\"" + fits_1024 + "\"/><cache tmp=\"" + fits_1024 + "\"/></r>");
    ASSERT_EQ(orbs3_read_conf_xml(), 0);
    EXPECT_EQ(std::string(orbs3_conf.conf_path), fits_1024);
    EXPECT_EQ(std::string(orbs3_conf.cache_tmp), fits_1024);
}

TEST_F(ConfigFiles, OrbmuxConfMissingOrMalformedFails)
{
    std::snprintf(orbs3_conf.shost_id, sizeof orbs3_conf.shost_id, "%s", "node-1");
    EXPECT_EQ(orbs3_read_conf_xml(), -1);
    EXPECT_STREQ(orbs3_conf.shost_id, "") << "the record is cleared before the file is read";

    for (const char* bad : {"", "not xml", "<orbmux interval=\"1\"><cache></orbmux>", "<orbmux/><cache/>"}) {
        SCOPED_TRACE(bad);
        write("orbmux.conf", bad);
        EXPECT_EQ(orbs3_read_conf_xml(), -1);
    }
}

TEST_F(ConfigFiles, OrbmuxConfReadsAttributesWithDefaultsAndEightCharacters)
{
    struct Field {
        const char* name;
        std::function<int64_t()> get;
        int64_t def;
        const char* given;
        int64_t read;
    };
    const Field fields[] = {
        {"interval", [] { return orbs3_conf.interval; }, 10, "123456789", 12345678},
        {"bucketmaxlen", [] { return orbs3_conf.bucketmaxlen; }, 127, "63", 63},
        {"objectmaxlen", [] { return orbs3_conf.objectmaxlen; }, 127, "x", 0},
        {"objectpathlen", [] { return orbs3_conf.objectpathlen; }, 1023, "511", 511},
        {"objectdirnum", [] { return orbs3_conf.objectdirnum; }, 10, "3", 3},
        {"lifecyclehour", [] { return orbs3_conf.lifecyclehour; }, 0, "4", 4},
        {"lifecyclethread_min", [] { return orbs3_conf.lifecyclethread_min; }, 10, "-12", -12},
        {"lifecyclethread_max", [] { return orbs3_conf.lifecyclethread_max; }, 100, "200", 200},
        {"lifecyclethread_event", [] { return orbs3_conf.lifecyclethread_event; }, 100, "300", 300},
        {"max_mem", [] { return int64_t(orbs3_conf.cache_max_mem); }, 0, "2G", int64_t{2} << 30},
        {"max_file", [] { return int64_t(orbs3_conf.cache_max_file); }, 0, "123456789M", 12345678LL * 1024},
        {"retry", [] { return orbs3_conf.cache_retry; }, 3, "5", 5},
        {"cache interval", [] { return orbs3_conf.cache_interval; }, 3, "7", 7},
    };

    write("orbmux.conf", "<orbmux/>");
    ASSERT_EQ(orbs3_read_conf_xml(), 0);
    for (const auto& f : fields)
        EXPECT_EQ(f.get(), f.def) << f.name;
    EXPECT_STREQ(orbs3_conf.conf_path, "/etc/orbmux");
    EXPECT_STREQ(orbs3_conf.cache_tmp, "/tmp/orbmux/");

    std::string om = "<orbmux conf_path=\"/mnt/conf\"";
    std::string cache = "<cache tmp=\"/scratch/\"";
    for (const auto& f : fields) {
        std::string attr = f.name;
        bool in_cache = attr.starts_with("max_") || attr == "retry" || attr.starts_with("cache ");
        if (attr.starts_with("cache "))
            attr = attr.substr(6);
        (in_cache ? cache : om) += " " + attr + "=\"" + f.given + "\"";
    }
    // The elements may sit anywhere in the tree, in either order.
    write("orbmux.conf", "<root><x>" + cache + "/></x>" + om + "/></root>");
    ASSERT_EQ(orbs3_read_conf_xml(), 0);
    for (const auto& f : fields)
        EXPECT_EQ(f.get(), f.read) << f.name;
    EXPECT_STREQ(orbs3_conf.conf_path, "/mnt/conf");
    EXPECT_STREQ(orbs3_conf.cache_tmp, "/scratch/");
}

TEST_F(ConfigFiles, OrbmuxConfWriteReadsBack)
{
    // A longer file in place must be replaced whole.
    std::string old = "<root>";
    for (int i = 0; i < 1000; ++i)
        old += "<pad/>";
    write("orbmux.conf", old + "</root>");

    std::snprintf(orbs3_conf.conf_path, sizeof orbs3_conf.conf_path, "%s", "/mnt/cluster/conf");
    orbs3_conf.interval = 20;
    orbs3_conf.bucketmaxlen = 63;
    orbs3_conf.objectmaxlen = 0;  // written as its default
    orbs3_conf.objectpathlen = 2047;
    orbs3_conf.objectdirnum = 5;
    orbs3_conf.lifecyclehour = 3;
    orbs3_conf.lifecyclethread_min = 4;
    orbs3_conf.lifecyclethread_max = 8;
    orbs3_conf.lifecyclethread_event = 16;
    orbs3_conf.cache_max_mem = uint64_t{64} << 20;
    orbs3_conf.cache_max_file = uint64_t{2} << 30;
    orbs3_conf.cache_retry = 9;
    orbs3_conf.cache_interval = 11;
    orbs3_conf.cache_tmp[0] = '\0';  // written as its default
    ASSERT_EQ(orbs3_write_conf_xml(), 0);

    ASSERT_EQ(orbs3_read_conf_xml(), 0);
    EXPECT_STREQ(orbs3_conf.conf_path, "/mnt/cluster/conf");
    EXPECT_EQ(orbs3_conf.interval, 20);
    EXPECT_EQ(orbs3_conf.bucketmaxlen, 63);
    EXPECT_EQ(orbs3_conf.objectmaxlen, 127);
    EXPECT_EQ(orbs3_conf.objectpathlen, 2047);
    EXPECT_EQ(orbs3_conf.objectdirnum, 5);
    EXPECT_EQ(orbs3_conf.lifecyclehour, 3);
    EXPECT_EQ(orbs3_conf.lifecyclethread_min, 4);
    EXPECT_EQ(orbs3_conf.lifecyclethread_max, 8);
    EXPECT_EQ(orbs3_conf.lifecyclethread_event, 16);
    EXPECT_EQ(orbs3_conf.cache_max_mem, uint64_t{64} << 20);
    EXPECT_EQ(orbs3_conf.cache_max_file, uint64_t{2} << 30);
    EXPECT_EQ(orbs3_conf.cache_retry, 9);
    EXPECT_EQ(orbs3_conf.cache_interval, 11);
    EXPECT_STREQ(orbs3_conf.cache_tmp, "/tmp/orbmux/");

    const std::string text = read("orbmux.conf");
    EXPECT_EQ(text.find("pad"), std::string::npos) << "the old file was not truncated";
    EXPECT_TRUE(text.starts_with("<?xml version=\"1.0\"")) << text;
    const char* order[] = {"<orbmux ",       "interval=",           "conf_path=",          "bucketmaxlen=",
                           "objectmaxlen=",  "objectpathlen=",      "objectdirnum=",       "lifecyclehour=",
                           "lifecyclethread_min=", "lifecyclethread_max=", "lifecyclethread_event=", "<cache ",
                           "max_mem=\"64M\"", "max_file=\"2G\"",     "retry=",              "interval=\"11\"",
                           "tmp="};
    std::size_t at = 0;
    for (const char* piece : order) {
        std::size_t found = text.find(piece, at);
        ASSERT_NE(found, std::string::npos) << piece << " in order in " << text;
        at = found;
    }

    orbs3_conf.cache_max_mem = 0;
    orbs3_conf.cache_max_file = 0;
    ASSERT_EQ(orbs3_write_conf_xml(), 0);
    const std::string zero = read("orbmux.conf");
    EXPECT_NE(zero.find("max_mem=\"0B\""), std::string::npos) << zero;
    EXPECT_NE(zero.find("max_file=\"\""), std::string::npos) << zero;
    ASSERT_EQ(orbs3_read_conf_xml(), 0);
    EXPECT_EQ(orbs3_conf.cache_max_mem, 0u);
    EXPECT_EQ(orbs3_conf.cache_max_file, 0u);
}

TEST_F(ConfigFiles, OrbmuxConfWriteFailsWhenFileCannotBeOpened)
{
    fs::create_directories(dir_ / "etc/orbmux/orbmux.conf");
    EXPECT_EQ(orbs3_write_conf_xml(), -1);
}

TEST(ConfigSize, SizeTextCountsKibibytesUnlessGOrM)
{
    const std::pair<const char*, int64_t> cases[] = {
        {"10", 10240},
        {"10K", 10240},
        {"10M", 10485760},
        {"10g", 10737418240},
        {"120M", 125829120},
        {"512B", 524288},
        {"2m", 2097152},
        {"2047G", int64_t{2047} << 30},
        {"4096G", int64_t{4096} << 30},  // past the 32-bit shift: taken in 64 bits
        {"-1M", -1024},   // the unit is the byte behind the leading digits
        {" 10M", 10240},
        {"", 0},
        {"abc", 0},
        {"M", 0},
    };
    for (const auto& [text, bytes] : cases)
        EXPECT_EQ(get_size_in_bytes(text), bytes) << '"' << text << '"';
    EXPECT_EQ(get_size_in_bytes(nullptr), 0);
}

TEST(ConfigSize, BytesStringTruncatesToLargestUnit)
{
    const std::pair<int64_t, const char*> cases[] = {
        {0, "0B"},
        {1023, "1023B"},
        {1024, "1K"},
        {1536, "1K"},
        {1048575, "1023K"},
        {1048576, "1M"},
        {1073741823, "1023M"},
        {1073741824, "1G"},
        {(int64_t{5} << 40) + 7, "5120G"},
    };
    for (const auto& [size, text] : cases)
        EXPECT_STREQ(get_bytes_string(size), text) << size;

    // Each thread formats into its own buffer.
    const char* mine = get_bytes_string(2048);
    std::string theirs;
    std::thread t([&] {
        const char* p = get_bytes_string(3 << 20);
        theirs = (p == mine) ? "shared" : p;
    });
    t.join();
    EXPECT_EQ(theirs, "3M");
    EXPECT_STREQ(mine, "2K");
}

TEST(ConfigWords, WordsAndIndexesMapBothWays)
{
    const std::pair<const char*, int> bools[] = {
        {"true", 0}, {"TRUE", 0}, {"false", 1}, {"False", 1}, {"yes", 1}, {"", 1}, {nullptr, 1}};
    for (const auto& [text, index] : bools)
        EXPECT_EQ(orbs3_get_bool(text), index) << (text ? text : "(null)");
    const std::pair<int, const char*> bool_words[] = {{0, "true"}, {1, "false"}, {2, "false"}, {-1, "false"}};
    for (const auto& [index, word] : bool_words)
        EXPECT_STREQ(orbs3_get_bool_string(index), word) << index;

    const std::pair<const char*, int> status[] = {{"inactive", 0}, {"Active", 1},   {"STOPING", 2},
                                                  {"stop_error", 3}, {"starting", 4}, {"start_error", 5},
                                                  {"adding", 6},   {"add_error", 7}, {"deling", 8},
                                                  {"Del_Error", 9}, {"up", 0},       {"", 0},
                                                  {nullptr, 0}};
    for (const auto& [text, index] : status)
        EXPECT_EQ(orbs3_get_status(text), index) << (text ? text : "(null)");
    const std::pair<int, const char*> status_words[] = {
        {0, "inactive"}, {1, "active"}, {5, "start_error"}, {9, "del_error"}, {10, "inactive"}, {-1, "inactive"}};
    for (const auto& [index, word] : status_words)
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
    const Setter setters[] = {
        {"cycle_size", [](int64_t v) { set_cycle_size(v); }, [] { return int64_t(sysconfig.cycle_size); }, 1024, 32768},
        {"listen_nsize", [](int64_t v) { set_listen_nsize(int(v)); }, [] { return sysconfig.listen_nsize; }, 1, 32},
        {"epoll_notify_conn", [](int64_t v) { set_epoll_notify_conn(int(v)); },
         [] { return sysconfig.epoll_notify_conn; }, 1, 12288},
        {"epoll_events", [](int64_t v) { set_epoll_events(int(v)); }, [] { return sysconfig.epoll_events; }, 1,
         12288},
        {"epoll_events_timeout", [](int64_t v) { set_epoll_events_timeout(int(v)); },
         [] { return sysconfig.epoll_events_timeout; }, 1, std::nullopt},
        {"listenfd_size", [](int64_t v) { set_listenfd_size(int(v)); }, [] { return sysconfig.listenfd_size; }, 1,
         12288},
        {"recv_buffer", [](int64_t v) { set_recv_buffer(v); }, [] { return int64_t(sysconfig.recv_buffer); }, 1,
         24576},
        {"send_buffer", [](int64_t v) { set_send_buffer(v); }, [] { return int64_t(sysconfig.send_buffer); }, 1,
         24576},
        {"http_limit_header", [](int64_t v) { set_http_limit_header(v); },
         [] { return int64_t(sysconfig.http_limit_header); }, 1, 57344},
        {"http_limit_conns", [](int64_t v) { set_http_limit_conns(v); },
         [] { return int64_t(sysconfig.http_limit_conns); }, 1, 57344},
        {"http_header_in_size", [](int64_t v) { set_http_header_in_size(v); },
         [] { return int64_t(sysconfig.http_header_in_size); }, 1, 57344},
        {"http_header_out_size", [](int64_t v) { set_http_header_out_size(v); },
         [] { return int64_t(sysconfig.http_header_out_size); }, 1, 57344},
        {"http_header_line", [](int64_t v) { set_http_header_line(int(v)); },
         [] { return sysconfig.http_header_line; }, 1, 48},
        {"http_work_space", [](int64_t v) { set_http_work_space(v); },
         [] { return int64_t(sysconfig.http_work_space); }, 1, 57344},
        {"http_timeout", [](int64_t v) { set_http_timeout(int(v)); }, [] { return sysconfig.http_timeout; }, 0,
         std::nullopt},
        {"ssl_shm_zone_size", [](int64_t v) { set_ssl_shm_zone_size(int(v)); },
         [] { return sysconfig.ssl_shm_zone_size; }, 102400, std::nullopt},
    };
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
    EXPECT_EQ(orbs3_cycle->connection_n, 0);
    EXPECT_EQ(orbs3_cycle->free_connection_n, 0);
    // The connection tables that follow fit in the same pool.
    void* tables = orbs3_palloc(orbs3_cycle->pool, 512000);
    EXPECT_NE(tables, nullptr);
    orbs3_destroy_pool(orbs3_cycle->pool);
    orbs3_cycle = nullptr;
}

}  // namespace
