// The control messages on the wire: framing both ways, the bounds a hostile peer meets (short, stalled,
// oversized, wrong version), and the socket a control thread listens on.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "control/orbs3_msg.h"
#include "control/orbs3_ud.h"
#include "memory/orbs3_ha_malloc.h"
#include "temp_dir.h"

namespace {

std::string wire(uint32_t type, std::string_view body, uint32_t version = ORBS3_MSG_VERSION,
                 uint32_t announced = UINT32_MAX)
{
    orbs3_msg_head_t h {};
    h.version = version;
    h.type = type;
    h.length = announced != UINT32_MAX ? announced : static_cast<uint32_t>(body.size());
    std::string out(reinterpret_cast<const char*>(&h), sizeof h);
    out.append(body);
    return out;
}

struct pair_t {
    int fd[2] = {-1, -1};
    pair_t() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
    ~pair_t()
    {
        for (int f : fd)
            if (f >= 0)
                close(f);
    }
    void feed(const std::string& bytes) const { ASSERT_EQ(write(fd[1], bytes.data(), bytes.size()), ssize_t(bytes.size())); }
    void hang_up() { close(fd[1]); fd[1] = -1; }
    std::string drain() const
    {
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = recv(fd[1], buf, sizeof buf, MSG_DONTWAIT)) > 0)
            out.append(buf, size_t(n));
        return out;
    }
};

TEST(ControlMsg, PackagesAreCheckedAgainstTheirHeader)
{
    const std::string body = "{\"id\":\"a\"}";
    struct row {
        std::string bytes;
        bool ok;
        const char* body;  // expected, null for none
    } rows[] = {
        {wire(ORBS3_MSG_GET_VHOST, "").substr(0, 43), false, nullptr},
        {wire(ORBS3_MSG_GET_VHOST, ""), true, nullptr},
        {wire(ORBS3_MSG_GET_VHOST, body), true, body.c_str()},
        {wire(ORBS3_MSG_GET_VHOST, "", ORBS3_MSG_VERSION, 5) + "x", false, nullptr},  // 45 bytes say 5
        {wire(ORBS3_MSG_GET_VHOST, "12345", ORBS3_MSG_VERSION, 4), false, nullptr},
        {wire(ORBS3_MSG_GET_VHOST, "", ORBS3_MSG_VERSION, 0x80000000u), false, nullptr},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.bytes.size());
        orbs3_msg_t* m = orbs3_package2msg(r.bytes.data(), r.bytes.size());
        ASSERT_EQ(m != nullptr, r.ok);
        if (m == nullptr)
            continue;
        if (r.body == nullptr) {
            EXPECT_EQ(m->data, nullptr);
        } else {
            EXPECT_STREQ(m->data, r.body);
        }
        // And back: the same bytes.
        char* flat = orbs3_msg2string(m);
        ASSERT_NE(flat, nullptr);
        EXPECT_EQ(std::string(flat, r.bytes.size()), r.bytes);
        ha_free(flat);
        orbs3_msg_del(m);
    }
}

// The server's reader: a whole message; a body announced beyond the bound is never allocated or waited
// for; a peer that closes half way or stalls gives nothing, the stall within the deadline.
TEST(ControlMsg, ReaderTakesWholeMessagesOnly)
{
    {
        pair_t p;
        p.feed(wire(ORBS3_MSG_ADD_VHOST, "{}"));
        orbs3_msg_t* m = orbs3_readmsg_from_unixdomain(p.fd[0]);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(m->head->type, ORBS3_MSG_ADD_VHOST);
        EXPECT_EQ(std::string(m->data), "{}");
        EXPECT_EQ(m->data[2], '\0');
        orbs3_msg_del(m);
    }
    {
        pair_t p;
        p.feed(wire(ORBS3_MSG_ADD_VHOST, "", ORBS3_MSG_VERSION, 1u << 31));
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(orbs3_readmsg_from_unixdomain(p.fd[0]), nullptr);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << "no wait for the body";
    }
    for (std::size_t cut : {std::size_t(20), ORBS3_MSG_HEAD_LEN + 1}) {
        pair_t p;
        p.feed(wire(ORBS3_MSG_ADD_VHOST, "{\"x\":1}").substr(0, cut));
        p.hang_up();
        EXPECT_EQ(orbs3_readmsg_from_unixdomain(p.fd[0]), nullptr) << cut;
    }
    {
        pair_t p;
        p.feed(wire(ORBS3_MSG_ADD_VHOST, "{}").substr(0, 30));
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(orbs3_readmsg_from_unixdomain(p.fd[0]), nullptr);
        auto took = std::chrono::steady_clock::now() - start;
        EXPECT_GE(took, std::chrono::milliseconds(ORBS3_UD_DEADLINE_MS - 100));
        EXPECT_LT(took, std::chrono::milliseconds(ORBS3_UD_DEADLINE_MS + 2000));
    }
}

// Replies: the request's type with the reply bit, the status, the body counted without a terminator; a
// reply is never answered; a wrong version is answered with its status and no body.
TEST(ControlMsg, RepliesAndVersionCheck)
{
    pair_t p;
    ASSERT_EQ(orbs3_make_and_send_reply_msg_to_unixdomain(p.fd[0], ORBS3_MSG_GET_VHOST, ORBS3_MSG_STATUS_OK, "{}", 2), 0);
    EXPECT_EQ(p.drain(), [] {
        std::string w = wire(ORBS3_MSG_GET_VHOST | ORBS3_MSG_REPLY, "{}");
        reinterpret_cast<orbs3_msg_head_t*>(w.data())->status = ORBS3_MSG_STATUS_OK;
        return w;
    }());
    EXPECT_EQ(orbs3_make_and_send_reply_msg_to_unixdomain(p.fd[0], ORBS3_MSG_REPLY | 5, 0, nullptr, 0), -1);
    EXPECT_EQ(p.drain(), "");

    p.feed(wire(ORBS3_MSG_LIST_VHOST, "", 0x00050001));
    orbs3_msg_t* m = orbs3_readmsg_from_unixdomain(p.fd[0]);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(orbs3_msg_is_valid(p.fd[0], m), -1);
    orbs3_msg_del(m);
    std::string got = p.drain();
    ASSERT_EQ(got.size(), ORBS3_MSG_HEAD_LEN);
    const auto* h = reinterpret_cast<const orbs3_msg_head_t*>(got.data());
    EXPECT_EQ(h->type, ORBS3_MSG_LIST_VHOST | ORBS3_MSG_REPLY);
    EXPECT_EQ(h->status, ORBS3_MSG_STATUS_BAD_VERSION);
    EXPECT_EQ(h->length, 0u);
}

// A whole client call against a listening socket made over an old socket file, mode 0600: the request's
// own reply with a body, a general failure with its code, a server that closes without a reply.
TEST(ControlMsg, ClientCallsAndTheListeningSocket)
{
    unit_test::temp_dir dir;
    const std::string path = dir.path + "/ctl.iface";
    { std::ofstream(path) << "left behind"; }
    int ls = -1;
    ASSERT_EQ(ud_create_listen_socket(path.c_str(), &ls), 0);
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    int unused = -1;
    EXPECT_EQ(ud_create_listen_socket(std::string(120, 'x').c_str(), &unused), -1) << "longer than an address holds";

    std::thread server([&] {
        for (int round = 0; round < 3; round++) {
            int c = ud_accept(ls, nullptr, nullptr);
            ASSERT_GE(c, 0);
            EXPECT_TRUE(ud_peer_trusted(c));
            orbs3_msg_t* m = orbs3_readmsg_from_unixdomain(c);
            ASSERT_NE(m, nullptr);
            if (round == 0) {
                (void)orbs3_make_and_send_reply_msg_to_unixdomain(c, m->head->type, ORBS3_MSG_STATUS_OK, "[1,2]", 5);
            } else if (round == 1) {
                const int32_t code = 0x0c000411;
                (void)orbs3_make_and_send_request_msg_to_unixdomain(c, ORBS3_MSG_FAILED, 0,
                                                                    reinterpret_cast<const char*>(&code), 4);
            }
            orbs3_msg_del(m);
            close(c);
        }
    });
    char* reply = nullptr;
    uint32_t status = 0;
    EXPECT_EQ(orbs3_daemon_call(path.c_str(), ORBS3_MSG_LIST_VHOST, "", 0, &reply, &status), 0);
    ASSERT_NE(reply, nullptr);
    EXPECT_STREQ(reply, "[1,2]");
    EXPECT_EQ(status, ORBS3_MSG_STATUS_OK);
    std::free(reply);
    EXPECT_EQ(orbs3_daemon_call(path.c_str(), ORBS3_MSG_GET_VHOST, "{}", 2, &reply, nullptr), 0x0c000411);
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(orbs3_daemon_call(path.c_str(), ORBS3_MSG_GET_VHOST, "{}", 2, &reply, nullptr), -1);
    server.join();
    ud_destory_listen_socket(path.c_str(), ls);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_EQ(orbs3_daemon_call(path.c_str(), ORBS3_MSG_LIST_VHOST, "", 0, nullptr, nullptr), -1);
}

// Only root or the daemon's own user may speak to a control socket.
TEST(ControlMsg, PeersOfAnotherUserAreNotTrusted)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to run a peer as another user";
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    EXPECT_TRUE(ud_peer_trusted(sv[0]));
    close(sv[0]);
    close(sv[1]);
    unit_test::temp_dir dir;
    const std::string path = dir.path + "/ctl.iface";
    int ls = -1;
    ASSERT_EQ(ud_create_listen_socket(path.c_str(), &ls), 0);
    ASSERT_EQ(chmod(dir.path.c_str(), 0755), 0);
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);  // let the other user connect at all: the check is the peer's uid
    pid_t pid = fork();
    if (pid == 0) {
        int fd = -1;
        _exit(setuid(65534) == 0 && ud_connect(path.c_str(), &fd) == 0 ? 0 : 1);
    }
    int c = ud_accept(ls, nullptr, nullptr);
    ASSERT_GE(c, 0);
    EXPECT_FALSE(ud_peer_trusted(c));
    close(c);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    ud_destory_listen_socket(path.c_str(), ls);
}

// A peer that stopped accepting fills its backlog; a connect to it gives up at the deadline.
TEST(ControlMsg, ConnectToAPeerThatDoesNotAcceptEndsAtTheDeadline)
{
    unit_test::temp_dir dir;
    const std::string path = dir.path + "/stuck.iface";
    int ls = -1;
    ASSERT_EQ(ud_create_listen_socket(path.c_str(), &ls), 0);
    ASSERT_EQ(listen(ls, 0), 0);  // room for one waiting connection
    std::vector<int> held;
    const auto start = std::chrono::steady_clock::now();
    int fd = -1, rc = 0;
    while (held.size() < 8 && (rc = ud_connect(path.c_str(), &fd)) == 0)
        held.push_back(fd);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(rc, -1) << "every connect was taken into a backlog of one";
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(held.size(), 1u);
    EXPECT_LT(took, std::chrono::milliseconds(ORBS3_UD_DEADLINE_MS + 2000));
    EXPECT_GE(took, std::chrono::milliseconds(ORBS3_UD_DEADLINE_MS - 100));
    for (int h : held)
        close(h);
    ud_destory_listen_socket(path.c_str(), ls);
}

}  // namespace
