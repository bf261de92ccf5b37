#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "control/orbs3_service.h"
#include "storage/orbs3_bucket_store.h"
#include "control/orbs3_vhost_file.h"
#include "core/orbs3_config.h"
#include "core/orbs3_prefix.h"
#include "storage/orbs3_record.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

struct vhost_deleter {
    void operator()(orbs3_vhost_t* vh) const noexcept { orbs3_free_vhost_data(vh); }
};
using vhost_ptr = std::unique_ptr<orbs3_vhost_t, vhost_deleter>;

// The records of a list of nodes, in order.
template <typename T>
std::vector<T*> items(neo_list_head_t* head)
{
    std::vector<T*> out;
    neo_list_head_t* pos;
    list_for_each(pos, head) out.push_back(static_cast<T*>(orbs3_list_node(pos)->data));
    return out;
}

// A list head that frees its records.
template <void (*Free)(neo_list_head_t*)>
struct List {
    neo_list_head_t head;
    List() { INIT_LIST_HEAD(&head); }
    ~List() { Free(&head); }
    template <typename T>
    std::vector<T*> items()
    {
        return ::items<T>(&head);
    }
};
using Vhosts = List<orbs3_free_vhost_list>;
using Users = List<orbs3_free_user_list>;

std::string s(const orbs3_str_t& str)
{
    return neo_getstr(&str);
}

void set(orbs3_str_t* str, const std::string& v)
{
    neo_strfree(str);
    neo_strdup(str, v.c_str(), v.size());
}

std::string group_doc(const std::string& group_attrs, const std::string& hosts)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<orbmux>\n<group " + group_attrs + ">\n" + hosts +
           "</group>\n</orbmux>\n";
}

std::string host_xml(const std::string& id, const std::string& name, const std::string& key,
                     const std::string& extra = "", const std::string& inner = "")
{
    return "\t<host id=\"" + id + "\" name=\"" + name + "\" key=\"" + key + "\" " + extra + ">\n" + inner +
           "\t</host>\n";
}

// A sandbox: the daemon's paths under a fresh directory, the cluster file names the cluster c1 under
// fs_/c1 with the tiers t1 and t2, and this node's key is "nodeA".
class VhostFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        fs::create_directories(prefix_ / "etc/orbmux");
        std::memcpy(old_key_, orbs3_conf.shost_id, sizeof old_key_);
        set_node_key("nodeA");
        write_cluster("<cluster alias=\"c1\" path=\"" + c1().string() +
                      "\">\n<tier alias=\"t1\" path=\"tier1\"/>\n<tier alias=\"t2\" path=\"tier2\"/>\n</cluster>\n");
    }

    void TearDown() override
    {
        orbs3_free_endpoint_list(&orbs3_endpoints);
        std::memcpy(orbs3_conf.shost_id, old_key_, sizeof old_key_);
    }

    static void set_node_key(const char* key)
    {
        std::memset(orbs3_conf.shost_id, 0, sizeof orbs3_conf.shost_id);
        std::memcpy(orbs3_conf.shost_id, key, strnlen(key, sizeof orbs3_conf.shost_id - 1));
    }

    fs::path c1() const { return fs_ / "c1"; }
    static fs::path sysdir(const fs::path& root) { return root / "ombr/system/orbmux"; }

    void write_cluster(const std::string& body) { write(prefix_ / "etc/kelvane/conf/cluster-h.xml", body); }

    static void write(const fs::path& p, const std::string& text) { unit_test::write_file(p, text); }
    static std::string read(const fs::path& p) { return unit_test::read_file(p); }

    // The hosts of a group file as this node reads them; the test fails unless there are `n`.
    static std::vector<orbs3_vhost_t*> load(Vhosts& l, const fs::path& file, std::size_t n = 1)
    {
        EXPECT_EQ(orbs3_read_vhost_file(&l.head, file.c_str(), "/r"), 0);
        auto v = l.items<orbs3_vhost_t>();
        EXPECT_EQ(v.size(), n);
        static orbs3_vhost_t blank{};  // what a failed check reads instead of a host
        return v.size() == n ? v : std::vector<orbs3_vhost_t*>(n, &blank);
    }

    // The hosts of a group file that carry `key`, as the loader would read them.
    std::vector<std::string> ids_for(const fs::path& file, const char* key)
    {
        set_node_key(key);
        Vhosts l;
        EXPECT_EQ(orbs3_read_vhost_file(&l.head, file.c_str(), "/r"), 0);
        set_node_key("nodeA");
        std::vector<std::string> out;
        for (auto* vh : l.items<orbs3_vhost_t>())
            out.push_back(s(vh->id));
        return out;
    }

    static vhost_ptr make_vhost(const std::string& id, const std::string& name, const std::string& key,
                                const std::string& cluster = "c1", const std::string& tiered = "")
    {
        vhost_ptr vh(orbs3_vhost_new());
        using V = orbs3_vhost_t;
        const std::pair<orbs3_str_t V::*, std::string> texts[] = {
            {&V::id, id}, {&V::name, name}, {&V::node_key, key}, {&V::group, "g"}, {&V::group_path, "tenants/g"},
            {&V::cluster, cluster}, {&V::tiered, tiered}, {&V::domain, "example.test"}, {&V::ipversion, "ipv4"},
            {&V::ipaddr, "10.0.0.1"}, {&V::ca, "/pki/ca.pem"}, {&V::cert, "/pki/cert.pem"},
            {&V::ssl_key, "/pki/key.pem"}, {&V::key_pwd, "secret"}};
        for (const auto& [field, value] : texts)
            set(&(vh.get()->*field), value);
        vh->port = 9000;
        vh->ssl = 0;
        vh->status = ORBS3_STATUS_ACTIVE;
        set(&vh->admin.UserId, "admin-" + id);
        set(&vh->admin.DisPlayName, "Admin " + id);
        set(&vh->admin.accesskeyid, "AK" + id);
        set(&vh->admin.accesskeysecret, "SK" + id);
        return vh;
    }

    unit_test::prefix_sandbox sandbox_;
    const fs::path dir_ = sandbox_.path, prefix_ = dir_, fs_ = dir_ / "fs";
    char old_key_[sizeof orbs3_conf.shost_id];
};

const std::string kFullGroup =
    R"(alias="g1" path="tenants/g1" cluster="c1" tiered="t1" port=9000 domain="d.test" ca="/ca" cert="/cert" )"
    R"(key="/key" key_pwd="pw" ssl="true")";

// Elements and attributes the format does not name (a comment, an element beside the group, one beside
// the host, a host-like element, attributes of the root, group, host and admin) are passed over.
TEST_F(VhostFiles, GroupFileFillsEveryFieldOfTheHostAndIgnoresTheUnknown)
{
    const fs::path file = dir_ / "group_g1.xml";
    write(file, "<?xml version=\"1.0\"?>\n<!-- made by hand -->\n<orbmux version=\"7\">\n<extra a=\"b\"><x/></extra>\n"
                "<group " + kFullGroup + " colour=\"red\">\n<note>text</note>\n" +
                    host_xml("h1", "n1", "nodeA", R"(ipversion="ipv6" ipaddr="::1" status="active" weight="3")",
                             "\t\t<tag/>\n\t\t<admin uid=\"u\" uname=\"U\" accesskeyid=\"AK\" "
                             "accesskeysecret=\"SK\" role=\"x\" />\n") +
                    "<hostx id=\"z\" name=\"z\" key=\"nodeA\"/>\n</group>\n</orbmux>\n");
    Vhosts l;
    ASSERT_EQ(orbs3_read_vhost_file(&l.head, file.c_str(), "/root/t1"), 0);
    auto v = l.items<orbs3_vhost_t>();
    ASSERT_EQ(v.size(), 1u);
    const orbs3_vhost_t* vh = v[0];
    const std::vector<std::pair<std::string, std::string>> fields = {
        {s(vh->id), "h1"},          {s(vh->name), "n1"},          {s(vh->node_key), "nodeA"},
        {s(vh->ipversion), "ipv6"}, {s(vh->ipaddr), "::1"},       {s(vh->group), "g1"},
        {s(vh->group_path), "tenants/g1"}, {s(vh->cluster), "c1"}, {s(vh->tiered), "t1"},
        {s(vh->domain), "d.test"},  {s(vh->ca), "/ca"},           {s(vh->cert), "/cert"},
        {s(vh->ssl_key), "/key"},   {s(vh->key_pwd), "pw"},       {s(vh->cluster_path), "/root/t1"},
        {s(vh->admin.UserId), "u"}, {s(vh->admin.DisPlayName), "U"}, {s(vh->admin.accesskeyid), "AK"},
        {s(vh->admin.accesskeysecret), "SK"}, {s(vh->admin.vhost_id), "h1"},
    };
    for (std::size_t i = 0; i < fields.size(); ++i)
        EXPECT_EQ(fields[i].first, fields[i].second) << "field " << i;
    EXPECT_EQ((std::vector<int64_t>{vh->port, vh->ssl, vh->status, vh->running, vh->admin.is_admin}),
              (std::vector<int64_t>{9000, 0, ORBS3_STATUS_ACTIVE, 0, 0}));
    EXPECT_TRUE(list_empty(&vh->users));
    EXPECT_EQ(vh->service_rec, nullptr);
}

TEST_F(VhostFiles, GroupWordsAndPortReadAsTheWordTablesSay)
{
    struct Case {
        const char* group;
        const char* host;
        uint32_t port, ssl;
        int32_t status;
    };
    const Case cases[] = {
        {R"(port=9000 ssl="true")", R"(status="ACTIVE")", 9000, 0, 1},
        {R"(port="443" ssl="TRUE")", R"(status="active ")", 443, 0, 0},
        {"", "", 0, 1, 0},
        {R"(port="abc" ssl="ture")", R"(status="Starting")", 0, 1, 4},
        {R"(port="70000" ssl="false")", R"(status="del_error")", 0, 1, 9},
        {R"(port="-5" ssl="")", R"(status="up")", 0, 1, 0},
    };
    const fs::path file = dir_ / "group_w.xml";
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.group) + " / " + c.host);
        write(file, group_doc(std::string("alias=\"w\" ") + c.group, host_xml("h", "n", "nodeA", c.host)));
        Vhosts l;
        auto v = load(l, file);
        EXPECT_EQ((std::vector<int64_t>{v[0]->port, v[0]->ssl, v[0]->status}),
                  (std::vector<int64_t>{c.port, c.ssl, c.status}));
    }
}

TEST_F(VhostFiles, BrokenGroupFilesAreRefusedAndTheListKept)
{
    const std::string good = group_doc(kFullGroup, host_xml("h1", "n1", "nodeA"));
    struct Case {
        const char* name;
        std::optional<std::string> text;
    };
    const Case cases[] = {
        {"missing", std::nullopt},
        {"empty", ""},
        {"not XML", "hello, world\n"},
        {"truncated", good.substr(0, good.size() / 2)},
        {"two roots", "<orbmux/><orbmux/>"},
        // Cut inside the tag of a second group: Mini-XML alone would take the first group for the file.
        {"cut at the top level", "<orbmux>\n<group alias=\"a\">\n" + host_xml("h2", "n2", "nodeA") +
                                     "</group>\n<grou"},
    };
    const fs::path ok = dir_ / "group_ok.xml";
    write(ok, good);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path file = dir_ / "group_bad.xml";
        fs::remove(file);
        if (c.text)
            write(file, *c.text);
        Vhosts l;
        ASSERT_EQ(orbs3_read_vhost_file(&l.head, ok.c_str(), "/r"), 0);
        EXPECT_EQ(orbs3_read_vhost_file(&l.head, file.c_str(), "/r"), -1);
        EXPECT_EQ(l.items<orbs3_vhost_t>().size(), 1u);
    }
}

TEST_F(VhostFiles, OverlongValuesAreCutToTheirCapsAndTerminated)
{
    enum Where { kGroup, kHost, kAdmin };
    using V = orbs3_vhost_t;
    using U = orbs3_user_t;
    struct Case {
        Where where;
        const char* attr;
        orbs3_str_t V::*field;  // or, for the admin, U::*
        orbs3_str_t U::*admin;
        std::size_t cap;
    };
    const Case cases[] = {
        {kGroup, "alias", &V::group, {}, 256},          {kGroup, "path", &V::group_path, {}, 1024},
        {kGroup, "cluster", &V::cluster, {}, 256},      {kGroup, "tiered", &V::tiered, {}, 256},
        {kGroup, "domain", &V::domain, {}, 256},        {kGroup, "ca", &V::ca, {}, 1024},
        {kGroup, "cert", &V::cert, {}, 1024},           {kGroup, "key", &V::ssl_key, {}, 1024},
        {kGroup, "key_pwd", &V::key_pwd, {}, 128},      {kHost, "id", &V::id, {}, 256},
        {kHost, "name", &V::name, {}, 256},             {kHost, "ipversion", &V::ipversion, {}, 48},
        {kHost, "ipaddr", &V::ipaddr, {}, 48},          {kAdmin, "uid", {}, &U::UserId, 256},
        {kAdmin, "uname", {}, &U::DisPlayName, 256},    {kAdmin, "accesskeyid", {}, &U::accesskeyid, 64},
        {kAdmin, "accesskeysecret", {}, &U::accesskeysecret, 64},
    };
    const std::string longv(5000, 'x');
    const fs::path file = dir_ / "group_long.xml";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.attr);
        const std::string attr = std::string(c.attr) + "=\"" + longv + "\"";
        std::string group = c.where == kGroup ? attr : "alias=\"g\"";
        std::string host = c.where == kHost ? attr : "";
        std::string admin = "\t\t<admin " + (c.where == kAdmin ? attr : "") + " />\n";
        // The host's own id and name attributes come first; a long one replaces them for the read.
        std::string doc = "<orbmux><group " + group + "><host " + (c.where == kHost ? host : "id=\"h\" name=\"n\"") +
                          " key=\"nodeA\">" + admin + "</host></group></orbmux>";
        write(file, doc);
        Vhosts l;
        auto v = load(l, file);
        const orbs3_str_t& f = c.field ? v[0]->*c.field : v[0]->admin.*c.admin;
        EXPECT_EQ(f.len, c.cap);
        ASSERT_NE(f.data, nullptr);
        EXPECT_EQ(std::strlen(f.data), c.cap);
        EXPECT_EQ(std::string(f.data), longv.substr(0, c.cap));
    }

    // A cut never splits a character: 100 three-byte characters cut at 256 bytes keep 85 of them, and
    // the host can be written back and read again.
    std::string euros;
    for (int i = 0; i < 100; ++i)
        euros += "\xE2\x82\xAC";
    write(file, group_doc("alias=\"g\" cluster=\"c1\"", host_xml("h", euros, "nodeA")));
    Vhosts l;
    auto v = load(l, file);
    EXPECT_EQ(s(v[0]->name), euros.substr(0, 255));
    ASSERT_EQ(orbs3_add_vhost_to_file(v[0]), 0);
    EXPECT_EQ(ids_for(sysdir(c1()) / "group_g.xml", "nodeA"), std::vector<std::string>{"h"});
}

TEST_F(VhostFiles, OnlyHostsWithThisNodesKeyAreLoaded)
{
    const fs::path file = dir_ / "group_k.xml";
    write(file, group_doc("alias=\"k\"", host_xml("a", "na", "nodeA") + host_xml("b", "nb", "nodeB") +
                                             host_xml("e", "ne", "") + host_xml("p", "np", "nodeAX") +
                                             "\t<host id=\"m\" name=\"nm\"></host>\n"));
    EXPECT_EQ(ids_for(file, "nodeA"), std::vector<std::string>{"a"});
    EXPECT_EQ(ids_for(file, "nodeB"), std::vector<std::string>{"b"});
    // Two empty keys are equal: a node without its key serves only the hosts without one.
    EXPECT_EQ(ids_for(file, ""), (std::vector<std::string>{"e", "m"}));
}

TEST_F(VhostFiles, EachGroupElementCountsAndADuplicateNameIsSkipped)
{
    const fs::path file = dir_ / "group_two.xml";
    write(file, "<orbmux>\n<group alias=\"g1\" port=\"1\">" + host_xml("a", "n1", "nodeA") +
                    host_xml("b", "n2", "nodeA") + "</group>\n<group alias=\"g2\" port=\"2\">" +
                    host_xml("c", "n1", "nodeA") + host_xml("d", "n3", "nodeA") + "</group>\n</orbmux>\n");
    const fs::path other = dir_ / "group_other.xml";
    write(other, group_doc("alias=\"g3\"", host_xml("e", "n2", "nodeA") + host_xml("f", "n4", "nodeA")));
    Vhosts l;
    ASSERT_EQ(orbs3_read_vhost_file(&l.head, file.c_str(), "/r"), 0);
    ASSERT_EQ(orbs3_read_vhost_file(&l.head, other.c_str(), "/r"), 0);
    std::vector<std::string> got;
    for (auto* vh : l.items<orbs3_vhost_t>())
        got.push_back(s(vh->id) + ":" + s(vh->group) + ":" + std::to_string(vh->port));
    EXPECT_EQ(got, (std::vector<std::string>{"a:g1:1", "b:g1:1", "d:g2:2", "f:g3:0"}));
}

TEST_F(VhostFiles, ClusterPathComesFromTheFirstClusterElementOnly)
{
    // The paths are written without their leading slash and with a trailing one: the result is the
    // same directory, written once.
    const std::string fsrel = fs_.string().substr(1);
    write_cluster("<clusters>\n<cluster alias=\"c1\" path=\"" + fsrel + "/c1/\">\n"
                  "<tier alias=\"t1\" path=\"/tier1/\"/>\n<tier alias=\"t2\" path=\"\"/>\n"
                  "<tier alias=\"t1\" path=\"later\"/>\n</cluster>\n"
                  "<cluster alias=\"c2\" path=\"/c2\"><tier alias=\"t3\" path=\"t3\"/></cluster>\n</clusters>\n");
    struct Case {
        const char* cluster;
        const char* tier;
        std::optional<std::string> path;
    };
    const Case cases[] = {
        {"c1", "", fs_.string() + "/c1"},
        {"c1", nullptr, fs_.string() + "/c1"},
        {"c1", "t1", fs_.string() + "/c1/tier1"},
        {"c1", "t2", fs_.string() + "/c1"},
        {"c1", "t9", std::nullopt},
        {"c2", "", std::nullopt},
        {"c2", "t3", std::nullopt},
        {"c9", "t1", std::nullopt},
        {"C1", "", std::nullopt},
        {nullptr, "", std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.cluster ? c.cluster : "(null)") + "/" + (c.tier ? c.tier : "(null)"));
        orbs3_cluster_path_ptr p(orbs3_get_cluster_path(c.cluster, c.tier));
        if (c.path) {
            ASSERT_NE(p, nullptr);
            EXPECT_EQ(std::string(p.get()), *c.path);
        } else {
            EXPECT_EQ(p, nullptr);
        }
    }
    fs::remove(prefix_ / "etc/kelvane/conf/cluster-h.xml");
    EXPECT_EQ(orbs3_cluster_path_ptr(orbs3_get_cluster_path("c1", "")), nullptr);
}

TEST_F(VhostFiles, LoadAllReadsTiersFirstAndTheClusterLast)
{
    write_cluster("<cluster alias=\"c1\" path=\"" + c1().string() +
                  "\">\n<tier alias=\"t1\" path=\"tier1\"/>\n<tier alias=\"t2\" path=\"tier2\"/>\n"
                  "<tier alias=\"t3\" path=\"missing\"/>\n</cluster>\n");
    const std::string cl = c1().string();
    // Not read: a directory named like a group file, a file not named group_*, a link, a broken file.
    write(sysdir(c1()) / "group_a.xml", group_doc("alias=\"a\" cluster=\"c1\"", host_xml("root", "n0", "nodeA")));
    write(sysdir(c1() / "tier1") / "group_b.xml",
          group_doc("alias=\"b\" cluster=\"c1\" tiered=\"t1\"", host_xml("tier1", "n1", "nodeA")));
    write(sysdir(c1() / "tier2") / "group_c.xml",
          group_doc("alias=\"c\" cluster=\"c1\" tiered=\"t2\"", host_xml("tier2", "n2", "nodeA")));
    const std::string stray = group_doc("alias=\"x\"", host_xml("stray", "nx", "nodeA"));
    write(sysdir(c1()) / "group_x" / "group_y.xml", stray);
    write(sysdir(c1()) / "other.xml", stray);
    write(dir_ / "elsewhere.xml", stray);
    fs::create_symlink(dir_ / "elsewhere.xml", sysdir(c1()) / "group_link.xml");
    write(sysdir(c1()) / "group_broken.xml", "<orbmux><group>");

    Vhosts l;
    ASSERT_EQ(orbs3_load_all_vhost(&l.head), 0);
    std::vector<std::string> got;
    for (auto* vh : l.items<orbs3_vhost_t>())
        got.push_back(s(vh->id) + "@" + s(vh->cluster_path));
    EXPECT_EQ(got, (std::vector<std::string>{"tier1@" + cl + "/tier1", "tier2@" + cl + "/tier2", "root@" + cl}));

    fs::remove(prefix_ / "etc/kelvane/conf/cluster-h.xml");
    Vhosts none;
    EXPECT_EQ(orbs3_load_all_vhost(&none.head), -1);
    EXPECT_TRUE(list_empty(&none.head));
    EXPECT_EQ(orbs3_filter_vhost_file(&none.head, (dir_ / "nowhere").c_str()), -1);
}

TEST_F(VhostFiles, AddedHostIsWrittenAsTheFormatSaysAndFoundAtTheNextLoad)
{
    vhost_ptr vh = make_vhost("h1", "n1", "nodeA");
    ASSERT_EQ(orbs3_add_vhost_to_file(vh.get()), 0);
    const fs::path file = sysdir(c1()) / "group_g.xml";
    EXPECT_EQ(read(file),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<orbmux>\n"
              "<group alias=\"g\" path=\"tenants/g\" cluster=\"c1\" tiered=\"\" port=9000 domain=\"example.test\" "
              "ca=\"/pki/ca.pem\" cert=\"/pki/cert.pem\" key=\"/pki/key.pem\" key_pwd=\"secret\" ssl=\"true\">\n"
              "\t<host id=\"h1\" name=\"n1\" key=\"nodeA\" ipversion=\"ipv4\" ipaddr=\"10.0.0.1\" status=\"active\">\n"
              "\t\t<admin uid=\"admin-h1\" uname=\"Admin h1\" accesskeyid=\"AKh1\" accesskeysecret=\"SKh1\" />\n"
              "\t</host>\n</group>\n</orbmux>\n");

    Vhosts l;
    ASSERT_EQ(orbs3_load_all_vhost(&l.head), 0);
    auto v = l.items<orbs3_vhost_t>();
    ASSERT_EQ(v.size(), 1u);
    const orbs3_vhost_t* r = v[0];
    EXPECT_EQ(s(r->id) + s(r->admin.accesskeysecret), "h1SKh1");
    EXPECT_EQ(s(r->cluster_path), c1().string());
    EXPECT_EQ(std::distance(fs::directory_iterator(sysdir(c1())), {}), 1) << "nothing but the group file is left";
}

TEST_F(VhostFiles, AddKeepsOtherNodesHostsAndTheGroupOfTheFile)
{
    const fs::path file = sysdir(c1()) / "group_g.xml";
    // A hand-made second group keeps its own attributes through a rewrite.
    write(file, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<orbmux>\n"
                "<group alias=\"g\" cluster=\"c1\" port=8000 domain=\"old.test\" ssl=\"false\">\n" +
                    host_xml("b1", "nb", "nodeB") + host_xml("a1", "na", "nodeA") +
                    "</group>\n<group alias=\"g\" port=\"7000\">\n" + host_xml("b2", "nb2", "nodeB") +
                    "</group>\n</orbmux>\n");
    vhost_ptr vh = make_vhost("a2", "na2", "nodeA");
    ASSERT_EQ(orbs3_add_vhost_to_file(vh.get()), 0);
    EXPECT_EQ(ids_for(file, "nodeB"), (std::vector<std::string>{"b1", "b2"}));
    EXPECT_EQ(ids_for(file, "nodeA"), (std::vector<std::string>{"a1", "a2"}));
    set_node_key("nodeB");
    Vhosts others;
    auto b = load(others, file, 2);
    set_node_key("nodeA");
    EXPECT_EQ(b[0]->port, 8000u);
    EXPECT_EQ(b[1]->port, 7000u);
    Vhosts l;
    for (auto* r : load(l, file, 2)) {
        EXPECT_EQ(r->port, 8000u);  // the new host joined the group as the file had it
        EXPECT_EQ(s(r->domain), "old.test");
        EXPECT_EQ(r->ssl, 1u);
    }
    // A repeated add replaces the host instead of writing it twice.
    set(&vh->name, "renamed");
    ASSERT_EQ(orbs3_add_vhost_to_file(vh.get()), 0);
    const std::string text = read(file);
    EXPECT_EQ(text.find("id=\"a2\""), text.rfind("id=\"a2\""));
    EXPECT_NE(text.find("name=\"renamed\""), std::string::npos);
    EXPECT_EQ(ids_for(file, "nodeB"), (std::vector<std::string>{"b1", "b2"}));
}

TEST_F(VhostFiles, AddEscapesValuesAndRefusesTextTheFileCannotHold)
{
    vhost_ptr vh = make_vhost("h1", "n1", "nodeA");
    const std::string odd = "a\"b&c<d>e'f";
    set(&vh->domain, odd);
    set(&vh->admin.accesskeysecret, odd);
    ASSERT_EQ(orbs3_add_vhost_to_file(vh.get()), 0);
    const fs::path file = sysdir(c1()) / "group_g.xml";
    Vhosts l;
    auto v = load(l, file);
    EXPECT_EQ(s(v[0]->domain), odd);
    EXPECT_EQ(s(v[0]->admin.accesskeysecret), odd);

    const std::string before = read(file);
    for (const char* bad : {"x\x01y", "x\xffy", "x\xe2\x82", "line\nbreak"}) {
        SCOPED_TRACE(bad);
        vhost_ptr b = make_vhost("h2", "n2", "nodeA");
        set(&b->name, bad);
        EXPECT_EQ(orbs3_add_vhost_to_file(b.get()), -1);
        EXPECT_EQ(read(file), before);
    }
}

TEST_F(VhostFiles, AddFallsBackToTheGroupPathWhenTheClusterIsUnknown)
{
    vhost_ptr vh = make_vhost("h1", "n1", "nodeA", "unknown");
    set(&vh->group_path, (dir_ / "gp").string());
    ASSERT_EQ(orbs3_add_vhost_to_file(vh.get()), 0);
    EXPECT_EQ(ids_for(dir_ / "gp" / "group_g.xml", "nodeA"), std::vector<std::string>{"h1"});

    set(&vh->group_path, "");
    EXPECT_EQ(orbs3_add_vhost_to_file(vh.get()), -1);
    vhost_ptr escape = make_vhost("h2", "n2", "nodeA");
    set(&escape->group, "../../etc");
    EXPECT_EQ(orbs3_add_vhost_to_file(escape.get()), -1);
}

TEST_F(VhostFiles, DeleteRemovesTheHostAndTheFileGoesWithItsLast)
{
    const fs::path file = sysdir(c1()) / "group_g.xml";
    write(file, group_doc(R"(alias="g" cluster="c1" port=8000)",
                          host_xml("a1", "na", "nodeA") + host_xml("b1", "nb", "nodeB")));
    vhost_ptr a1 = make_vhost("a1", "na", "nodeA");
    vhost_ptr b1 = make_vhost("b1", "nb", "nodeA");
    vhost_ptr zz = make_vhost("zz", "nz", "nodeA");

    const std::string before = read(file);
    EXPECT_EQ(orbs3_del_vhost_from_file(zz.get()), 0);
    EXPECT_EQ(read(file), before);

    ASSERT_EQ(orbs3_del_vhost_from_file(a1.get()), 0);
    EXPECT_TRUE(ids_for(file, "nodeA").empty());
    EXPECT_EQ(ids_for(file, "nodeB"), std::vector<std::string>{"b1"});
    EXPECT_NE(read(file).find("port=8000 "), std::string::npos);

    ASSERT_EQ(orbs3_del_vhost_from_file(b1.get()), 0);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(orbs3_del_vhost_from_file(b1.get()), 0);
}

TEST_F(VhostFiles, UnreadableGroupFileIsLeftAsItIs)
{
    const fs::path file = sysdir(c1()) / "group_g.xml";
    vhost_ptr vh = make_vhost("h1", "n1", "nodeA");
    for (const char* text : {"not xml at all", "<orbmux><group alias=\"g\"><host id=\"x\""}) {
        SCOPED_TRACE(text);
        write(file, text);
        EXPECT_EQ(orbs3_add_vhost_to_file(vh.get()), -1);
        EXPECT_EQ(orbs3_del_vhost_from_file(vh.get()), -1);
        EXPECT_EQ(read(file), text);
    }
    // An empty file holds nothing to lose.
    write(file, "");
    ASSERT_EQ(orbs3_add_vhost_to_file(vh.get()), 0);
    EXPECT_EQ(ids_for(file, "nodeA"), std::vector<std::string>{"h1"});
}

TEST_F(VhostFiles, SaveDirectoriesAreMadeBelowTheClusterPath)
{
    struct Case {
        const char* cluster;
        const char* tier;
        int (*fn)(char*, const orbs3_vhost_t*);
        std::optional<std::string> path;
    };
    const Case cases[] = {
        {"c1", "", orbs3_get_service_file_save_path, c1().string() + "/ombr/system/orbmux/"},
        {"c1", "t2", orbs3_get_service_file_save_path, c1().string() + "/tier2/ombr/system/orbmux/"},
        {"c1", "", orbs3_get_lifecycle_file_save_path, c1().string() + "/ombr/system/lifecycle/"},
        {"c1", "t1", orbs3_get_lifecycle_file_save_path, c1().string() + "/tier1/ombr/system/lifecycle/"},
        {"c2", "", orbs3_get_service_file_save_path, std::nullopt},
        {"c1", "t9", orbs3_get_lifecycle_file_save_path, std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.cluster) + "/" + c.tier);
        vhost_ptr vh = make_vhost("h", "n", "nodeA", c.cluster, c.tier);
        char path[ORBS3_PATH_CAP];
        std::memset(path, 'z', sizeof path);
        if (c.path) {
            ASSERT_EQ(c.fn(path, vh.get()), 0);
            EXPECT_EQ(std::string(path), *c.path);
            EXPECT_TRUE(fs::is_directory(*c.path));
        } else {
            EXPECT_EQ(c.fn(path, vh.get()), -1);
            EXPECT_EQ(path[0], '\0');
        }
    }
}

orbs3_user_t* add_user(neo_list_head_t* list, const std::string& id, const std::string& name, uint32_t status,
                       const std::vector<std::pair<std::string, std::string>>& keys)
{
    orbs3_user_t* u = orbs3_user_new();
    set(&u->UserId, id);
    set(&u->DisPlayName, name);
    u->Status = status;
    for (const auto& [kid, secret] : keys) {
        auto* k = static_cast<orbs3_accesskey_t*>(std::calloc(1, sizeof(orbs3_accesskey_t)));
        if (!kid.empty())
            set(&k->AccessKeyId, kid);
        if (!secret.empty())
            set(&k->AccessKeySecret, secret);
        EXPECT_EQ(orbs3_list_append(&u->keys, k), 0);
    }
    EXPECT_EQ(orbs3_list_append(list, u), 0);
    return u;
}

std::string describe(Users& l)
{
    std::string out;
    for (auto* u : l.items<orbs3_user_t>()) {
        out += s(u->vhost_id) + "|" + s(u->UserId) + "|" + s(u->DisPlayName) + "|" +
               std::to_string(static_cast<int32_t>(u->Status));
        for (auto* k : items<orbs3_accesskey_t>(&u->keys))
            out += "|" + s(k->AccessKeyId) + "=" + s(k->AccessKeySecret);
        out += "\n";
    }
    return out;
}

TEST_F(VhostFiles, UsersFileKeepsUsersKeysAndStatusAcrossAWriteAndARead)
{
    Users l;
    add_user(&l.head, "u1", "d\"&<", 7, {{"K1", "S1"}, {"K2", ""}});
    ASSERT_EQ(orbs3_list_append(&l.head, nullptr), 0);  // a node without record is skipped
    add_user(&l.head, "u2", "", static_cast<uint32_t>(-1), {});
    add_user(&l.head, "u3", "long", 0, {{std::string(2000, 'k'), "s"}});
    const fs::path file = dir_ / "h.user";
    ASSERT_EQ(write_user_data(file.c_str(), &l.head), 0);
    EXPECT_EQ(read(file), "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                          "<User UserId=\"u1\" DisPlayName=\"d&quot;&amp;&lt;\" Status=\"7\">\n"
                          "\t<AccessKey AccessKeyId=\"K1\" AccessKeySecret=\"S1\" />\n"
                          "\t<AccessKey AccessKeyId=\"K2\" /></User>\n"
                          "<User UserId=\"u2\" DisPlayName=\"\" Status=\"-1\" />\n"
                          "<User UserId=\"u3\" DisPlayName=\"long\" Status=\"0\">\n"
                          "\t<AccessKey AccessKeyId=\"" + std::string(1023, 'k') +
                          "\" AccessKeySecret=\"s\" /></User>\n");

    Users back;
    ASSERT_EQ(read_user_data(file.c_str(), &back.head, "vh"), 0);
    EXPECT_EQ(describe(back), "vh|u1|d\"&<|7|K1=S1|K2=\nvh|u2||-1\nvh|u3|long|0|" + std::string(1023, 'k') + "=s\n");

    // A user that the file can't hold leaves the old file standing.
    const std::string before = read(file);
    add_user(&l.head, "bad\x01", "x", 0, {});
    EXPECT_EQ(write_user_data(file.c_str(), &l.head), -1);
    EXPECT_EQ(read(file), before);

    Users none;
    EXPECT_EQ(read_user_data((dir_ / "missing.user").c_str(), &none.head, "vh"), -1);
    EXPECT_EQ(write_user_data((dir_ / "no/such/dir/h.user").c_str(), &none.head), -1);
    for (std::size_t cut : {before.size() - 3, before.size() / 2, before.find("<User UserId=\"u2\"") + 5}) {
        SCOPED_TRACE(cut);
        write(dir_ / "broken.user", before.substr(0, cut));
        EXPECT_EQ(read_user_data((dir_ / "broken.user").c_str(), &none.head, "vh"), -1);
    }
    EXPECT_TRUE(list_empty(&none.head));
}

TEST_F(VhostFiles, InitUserLoadsTheUsersFromTheServiceDirectory)
{
    Users l;
    add_user(&l.head, "u1", "one", 1, {{"K1", "S1"}});
    write(sysdir(c1()) / "h1.user", "");
    ASSERT_EQ(write_user_data((sysdir(c1()) / "h1.user").c_str(), &l.head), 0);

    vhost_ptr vh = make_vhost("h1", "n1", "nodeA");
    EXPECT_EQ(orbs3_init_user(vh.get()), 0);
    auto users = items<orbs3_user_t>(&vh->users);
    ASSERT_EQ(users.size(), 1u);
    EXPECT_EQ(s(users[0]->UserId) + "@" + s(users[0]->vhost_id), "u1@h1");
    // No service file: a record without limits or lists.
    ASSERT_NE(vh->service_rec, nullptr);
    EXPECT_EQ(vh->service_rec->quota.max_bucket, 0u);
    EXPECT_EQ(vh->service_rec->blacklist_status, 0u);

    vhost_ptr fresh = make_vhost("h2", "n2", "nodeA");
    write(sysdir(c1()) / "h2", "<?xml version=\"1.0\"?>\n<service><quota max_bucket=\"3\"/></service>\n");
    EXPECT_EQ(orbs3_init_user(fresh.get()), 0);
    EXPECT_TRUE(list_empty(&fresh->users));
    ASSERT_NE(fresh->service_rec, nullptr);
    EXPECT_EQ(fresh->service_rec->quota.max_bucket, 3u);

    // A service file cut short is not read as one without lists: the record stays unloaded.
    vhost_ptr cut = make_vhost("h3", "n3", "nodeA");
    write(sysdir(c1()) / "h3", "<?xml version=\"1.0\"?>\n<service><quota max_bu");
    EXPECT_EQ(orbs3_init_user(cut.get()), -1);
    EXPECT_EQ(cut->service_rec, nullptr);

    vhost_ptr lost = make_vhost("h1", "n1", "nodeA", "c9");
    EXPECT_EQ(orbs3_init_user(lost.get()), -1);
    EXPECT_TRUE(list_empty(&lost->users));
}

TEST_F(VhostFiles, AccessKeyBelongsToTheAdminFirstThenToTheFirstUserWithIt)
{
    vhost_ptr vh = make_vhost("h", "n", "nodeA");
    set(&vh->admin.accesskeyid, "ADMINKEY");
    orbs3_user_t* u1 = add_user(&vh->users, "u1", "one", 0, {{"K1", "s"}, {"SHARED", "s"}});
    orbs3_user_t* u2 = add_user(&vh->users, "u2", "two", 0, {{"SHARED", "s"}, {"K2LONG", "s"}, {"ADMINKEY", "s"}});

    struct Case {
        const char* key;
        orbs3_user_t* owner;
    };
    const Case cases[] = {
        {"ADMINKEY", &vh->admin}, {"SHARED", u1}, {"K1", u1}, {"K2LONG", u2}, {"K2", nullptr},
        {"K1X", nullptr},         {"ADMINKE", nullptr}, {"", nullptr}, {"k1", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.key);
        EXPECT_EQ(orbs3_check_accesskeyid_exist(&vh->admin, c.key, vh.get()), c.owner);
    }
    EXPECT_EQ(vh->admin.is_admin, 1u);
    EXPECT_EQ(orbs3_check_accesskeyid_exist(nullptr, "K1", vh.get()), nullptr);
    EXPECT_EQ(orbs3_check_accesskeyid_exist(&vh->admin, nullptr, vh.get()), nullptr);
    EXPECT_EQ(orbs3_check_accesskeyid_exist(&vh->admin, "K1", nullptr), nullptr);
}

TEST_F(VhostFiles, NodeKeyIsReadFromTheShostFileAndKeptOnFailure)
{
    struct Case {
        const char* name;
        std::optional<std::string> text;
        int rc;
        std::string key;
    };
    const Case cases[] = {
        {"good", R"(<?xml version="1.0"?><shost id="node-9"/>)", 0, "node-9"},
        {"missing", std::nullopt, -1, "nodeA"},
        {"no shost element", R"(<other id="x"/>)", -1, "nodeA"},
        {"no id", R"(<shost/>)", -1, "nodeA"},
        {"not XML", "garbage", -1, "nodeA"},
        {"overlong", "<shost id=\"" + std::string(400, 'k') + "\"/>", 0, std::string(255, 'k')},
    };
    const fs::path file = prefix_ / "etc/kelvane/.shost.dat";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        set_node_key("nodeA");
        fs::remove(file);
        if (c.text)
            write(file, *c.text);
        EXPECT_EQ(orbs3_read_shost_data_file(), c.rc);
        EXPECT_EQ(std::string(orbs3_conf.shost_id), c.key);
    }
}

std::vector<std::string> endpoints()
{
    std::vector<std::string> out;
    pthread_mutex_lock(&orbs3_endpoints_lock);
    for (auto* ep : items<orbs3_endpoint_t>(&orbs3_endpoints))
        out.push_back(s(ep->url) + " " + s(ep->addr) + " " + std::to_string(ep->port));
    pthread_mutex_unlock(&orbs3_endpoints_lock);
    return out;
}

TEST_F(VhostFiles, EndpointListIsReplacedAsAWhole)
{
    const fs::path file = prefix_ / "etc/orbmux/.cluster.dat";
    write(file, "<endpoints>\n<endpoint url=\"http://a\" addr=\"10.0.0.1\" port=\"9100\"/>\n"
                "<endpoint url=\"http://b\" addr=\"10.0.0.2\"/>\n"
                "<endpoint url=\"http://c\" addr=\"" + std::string(100, '9') + "\" port=\"12345678\"/>\n"
                "<endpoint url=\"http://d\" port=\"x\"/>\n</endpoints>\n");
    ASSERT_EQ(reload_cluster_data(), 0);
    const std::vector<std::string> first = {"http://a 10.0.0.1 9100", "http://b 10.0.0.2 9001",
                                            "http://c " + std::string(48, '9') + " 9001", "http://d  9001"};
    EXPECT_EQ(endpoints(), first);

    fs::remove(file);
    EXPECT_EQ(reload_cluster_data(), -1);
    write(file, "<endpoints><endpoint url=");
    EXPECT_EQ(reload_cluster_data(), -1);
    EXPECT_EQ(endpoints(), first);

    write(file, "<endpoint url=\"http://e\" addr=\"e\" port=\"1\"/>");
    ASSERT_EQ(reload_cluster_data(), 0);
    EXPECT_EQ(endpoints(), std::vector<std::string>{"http://e e 1"});
}

TEST_F(VhostFiles, LifecycleDateIsSavedAndReadBack)
{
    char buf[64] = "untouched";
    EXPECT_EQ(read_lifecycle_date(buf, sizeof buf), -1);
    ASSERT_EQ(write_lifecycle_date("2024-01-02"), 0);
    EXPECT_EQ(read(prefix_ / "etc/orbmux/.lifecycle.dat"),
              "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Lifecycle Date=\"2024-01-02\" />\n");
    ASSERT_EQ(read_lifecycle_date(buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "2024-01-02");
    char small[5];
    ASSERT_EQ(read_lifecycle_date(small, sizeof small), 0);
    EXPECT_STREQ(small, "2024");

    ASSERT_EQ(write_lifecycle_date(nullptr), 0);
    std::memcpy(buf, "untouched", sizeof "untouched");
    ASSERT_EQ(read_lifecycle_date(buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "untouched");
}

}  // namespace

// A saved host keeps its place among the others and carries its own group attributes (an edited domain
// makes a group element of its own); group and user files are 0600, since both hold secrets.
TEST_F(VhostFiles, SavedHostKeepsItsPlaceAndItsOwnGroupInAPrivateFile)
{
    const fs::path file = sysdir(c1()) / "group_g.xml";
    vhost_ptr a = make_vhost("a", "na", "nodeA"), b = make_vhost("b", "nb", "nodeB"), c = make_vhost("c", "nc", "nodeA");
    for (auto* vh : {a.get(), b.get(), c.get()})
        ASSERT_EQ(orbs3_add_vhost_to_file(vh), 0);
    set(&a->domain, "edited.test");
    a->status = ORBS3_STATUS_INACTIVE;
    ASSERT_EQ(orbs3_save_vhost_to_file(a.get()), 0);
    EXPECT_EQ(fs::status(file).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(ids_for(file, "nodeA"), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(ids_for(file, "nodeB"), (std::vector<std::string>{"b"}));
    Vhosts l;
    auto v = load(l, file, 2);
    EXPECT_EQ(s(v[0]->domain) + "/" + s(v[1]->domain), "edited.test/example.test");
    EXPECT_EQ(v[0]->status, ORBS3_STATUS_INACTIVE);
    vhost_ptr d = make_vhost("d", "nd", "nodeA");
    ASSERT_EQ(orbs3_save_vhost_to_file(d.get()), 0);
    EXPECT_EQ(ids_for(file, "nodeA"), (std::vector<std::string>{"a", "c", "d"})) << "a new host goes last";

    Users users;
    ASSERT_EQ(write_user_data((dir_ / "u.user").c_str(), &users.head), 0);
    EXPECT_EQ(fs::status(dir_ / "u.user").permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
}

// The provisioning tool's flock on the same file keeps a change out until it is released.
TEST_F(VhostFiles, TenantFilesLockWaitsForTheToolsFlock)
{
    const fs::path lock_file = sysdir(c1()) / ".orbmux-tenant.lock";
    {
        orbs3_tenant_files_lock first(c1().c_str(), 0);
        ASSERT_TRUE(first.held());
        ASSERT_TRUE(fs::exists(lock_file));
    }
    const int fd = open(lock_file.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    {
        orbs3_tenant_files_lock busy(c1().c_str(), 50);
        EXPECT_FALSE(busy.held());
    }
    close(fd);
    orbs3_tenant_files_lock after(c1().c_str(), 50);
    EXPECT_TRUE(after.held());
    EXPECT_FALSE(orbs3_tenant_files_lock("", 0).held());
}
