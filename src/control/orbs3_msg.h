// The control plane's messages: a 44-byte header (version, type, status, length, all 32-bit in the host's
// order) and a JSON body, one request and one reply per connection. The master and every worker serve
// them; orbmux is a client of the cluster controller and the lifecycle daemon with the same framing.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr uint32_t ORBS3_MSG_VERSION = 0x00060001;
inline constexpr uint32_t ORBS3_MSG_REPLY = 0x10000000;  // a reply's type: the request's with this bit
inline constexpr uint32_t ORBS3_MSG_FAILED = 0x20000000;  // general failure reply; body starts with the code
inline constexpr uint32_t ORBS3_MSG_STATUS_OK = 0x10010000;
inline constexpr uint32_t ORBS3_MSG_STATUS_BAD_VERSION = 0x0c00002f;
inline constexpr std::size_t ORBS3_MSG_HEAD_LEN = 44;
// The longest body orbmux reads or sends: a tenant with its users is a few KiB.
inline constexpr uint32_t ORBS3_MSG_BODY_MAX = 64 * 1024;

// Request types.
inline constexpr uint32_t ORBS3_MSG_LIST_VHOST = 0x1001;
inline constexpr uint32_t ORBS3_MSG_GET_VHOST = 0x1002;
inline constexpr uint32_t ORBS3_MSG_ADD_VHOST = 0x1003;
inline constexpr uint32_t ORBS3_MSG_EDIT_VHOST = 0x1004;
inline constexpr uint32_t ORBS3_MSG_DELETE_VHOST = 0x1005;
inline constexpr uint32_t ORBS3_MSG_START_VHOST = 0x1007;
inline constexpr uint32_t ORBS3_MSG_STOP_VHOST = 0x1008;
inline constexpr uint32_t ORBS3_MSG_ADD_USER = 0x1011;
inline constexpr uint32_t ORBS3_MSG_VHOST_STATUS = 0x6004;
inline constexpr uint32_t ORBS3_MSG_ALIVE = 0x6001;
inline constexpr uint32_t ORBS3_MSG_REGISTER = 0x6002;
inline constexpr uint32_t ORBS3_MSG_BUCKET_CREATED = 0x1045;
inline constexpr uint32_t ORBS3_MSG_QUOTA_SET = 0x1056;
inline constexpr uint32_t ORBS3_MSG_LIFECYCLE_RELOAD = 0x2001;

// The header as it travels.
struct orbs3_msg_head_t {
    uint32_t version;
    uint32_t type;
    uint32_t status;
    uint32_t reserved;
    uint32_t length;  // body bytes behind the header
    uint32_t reserved2[6];
};
static_assert(sizeof(orbs3_msg_head_t) == ORBS3_MSG_HEAD_LEN);

// One message: its header and its body (null when there is none). A received body has a zero byte
// behind its `length` bytes, so handlers read it as text. Server-side records come from ha_malloc.
struct orbs3_msg_t {
    orbs3_msg_head_t* head;
    char* data;
};

// A cleared header and no body; null when out of memory.
[[nodiscard]] orbs3_msg_t* orbs3_msg_new();
// Frees the header, the body and the record; null is ignored.
void orbs3_msg_del(orbs3_msg_t* msg);
// Header and body in one ha_malloc block of 44 + length bytes; null when out of memory or when a length
// is announced without a body.
[[nodiscard]] char* orbs3_msg2string(const orbs3_msg_t* msg);
// The reverse: a record of `len` bytes of wire format, or null when they are fewer than 44, when the
// header's length is not the rest, or when it is above ORBS3_MSG_BODY_MAX.
[[nodiscard]] orbs3_msg_t* orbs3_package2msg(const char* data, std::size_t len);
// Reads one message before the deadline: null when the peer closes or stalls before a whole one has
// come, or announces a body above ORBS3_MSG_BODY_MAX (then the rest is not read).
[[nodiscard]] orbs3_msg_t* orbs3_readmsg_from_unixdomain(int fd);
// Sends the record and frees it, whatever happens. 0 or -1.
int orbs3_send_msg_to_unixdomain(int fd, orbs3_msg_t* msg);
// A reply to a request of `type`: the type with the reply bit, `status`, a copy of the body. A type that
// is a reply already is refused (-1, nothing sent): a reply is never answered. 0 once built and handed
// to the send, whose own failure is not told.
int orbs3_make_and_send_reply_msg_to_unixdomain(int fd, uint32_t type, uint32_t status, const char* body,
                                                std::size_t len);
// A request of `type`, as built above without the reply bit. 0 or -1.
int orbs3_make_and_send_request_msg_to_unixdomain(int fd, uint32_t type, uint32_t status, const char* body,
                                                  std::size_t len);
// 0 for the protocol's version; otherwise answers with status ORBS3_MSG_STATUS_BAD_VERSION and no body,
// logs "message version mismatch." and gives -1.
int orbs3_msg_is_valid(int fd, const orbs3_msg_t* msg);

// Client side: connect, send one request, receive one reply, disconnect.
[[nodiscard]] int orbs3_connect_to_daemon(const char* path, int* fd);
void orbs3_disconnect_from_daemon(int fd);
// A header with the version, `type` and `len`, and the body, in one send. 0 or -1.
int orbs3_send_msg_to_daemon(int fd, uint32_t type, const char* body, std::size_t len);
// The reply, calloc'd: 0 with *out set, or -1 (a short or oversized reply included).
int orbs3_recv_msg_from_daemon(int fd, orbs3_msg_t** out);
void orbs3_free_recv_msg(orbs3_msg_t* msg);

// One whole client call: connects to `path`, sends `type` with `body`, reads the reply. The result: 0 for
// the request's own reply type or the general success, the code in the body of a general failure, -1 when
// the exchange failed. The reply's body, when it has one, is a new zero-terminated block in *reply (free
// it with std::free), its status in *status; either may be null.
int orbs3_daemon_call(const char* path, uint32_t type, const char* body, std::size_t len, char** reply,
                      uint32_t* status);
