#include "control/orbs3_msg.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "control/orbs3_ud.h"
#include "core/orbs3_log.h"
#include "memory/orbs3_ha_malloc.h"

namespace {

bool body_fits(uint32_t len)
{
    return len <= ORBS3_MSG_BODY_MAX;
}

}  // namespace

orbs3_msg_t* orbs3_msg_new()
{
    auto* msg = static_cast<orbs3_msg_t*>(ha_calloc(1, sizeof(orbs3_msg_t)));
    if (msg == nullptr)
        return nullptr;
    msg->head = static_cast<orbs3_msg_head_t*>(ha_calloc(1, sizeof(orbs3_msg_head_t)));
    if (msg->head == nullptr) {
        ha_free(msg);
        return nullptr;
    }
    return msg;
}

void orbs3_msg_del(orbs3_msg_t* msg)
{
    if (msg == nullptr)
        return;
    if (msg->head != nullptr)
        ha_free(msg->head);
    if (msg->data != nullptr)
        ha_free(msg->data);
    ha_free(msg);
}

char* orbs3_msg2string(const orbs3_msg_t* msg)
{
    if (msg == nullptr || msg->head == nullptr)
        return nullptr;
    const uint32_t len = msg->head->length;
    if ((len > 0 && msg->data == nullptr) || !body_fits(len))
        return nullptr;
    auto* out = static_cast<char*>(ha_malloc(ORBS3_MSG_HEAD_LEN + len));
    if (out == nullptr)
        return nullptr;
    std::memcpy(out, msg->head, ORBS3_MSG_HEAD_LEN);
    if (len > 0)
        std::memcpy(out + ORBS3_MSG_HEAD_LEN, msg->data, len);
    return out;
}

orbs3_msg_t* orbs3_package2msg(const char* data, std::size_t len)
{
    if (data == nullptr || len < ORBS3_MSG_HEAD_LEN) {
        ipd_debug("data too less");
        return nullptr;
    }
    orbs3_msg_head_t head;
    std::memcpy(&head, data, ORBS3_MSG_HEAD_LEN);
    if (head.length != len - ORBS3_MSG_HEAD_LEN || !body_fits(head.length)) {
        ipd_debug("package format error");
        return nullptr;
    }
    orbs3_msg_t* msg = orbs3_msg_new();
    if (msg == nullptr)
        return nullptr;
    *msg->head = head;
    if (head.length > 0) {
        msg->data = static_cast<char*>(ha_calloc(1, head.length + 1));
        if (msg->data == nullptr) {
            orbs3_msg_del(msg);
            return nullptr;
        }
        std::memcpy(msg->data, data + ORBS3_MSG_HEAD_LEN, head.length);
    }
    return msg;
}

orbs3_msg_t* orbs3_readmsg_from_unixdomain(int fd)
{
    orbs3_msg_t* msg = orbs3_msg_new();
    if (msg == nullptr)
        return nullptr;
    ssize_t n = ud_recv(fd, msg->head, ORBS3_MSG_HEAD_LEN);
    if (n != static_cast<ssize_t>(ORBS3_MSG_HEAD_LEN)) {
        if (n < 1)
            ipd_debug("Failed to recv socket, syserror=%s", strerror(errno));
        orbs3_msg_del(msg);
        errno = ECONNRESET;
        return nullptr;
    }
    const uint32_t len = msg->head->length;
    // The header says how much follows; nothing is allocated on its word beyond the protocol's bound.
    if (!body_fits(len)) {
        ipd_log(LOG_ERR, "control message of %u bytes refused", len);
        orbs3_msg_del(msg);
        errno = EMSGSIZE;
        return nullptr;
    }
    if (len > 0) {
        msg->data = static_cast<char*>(ha_calloc(1, len + 1));
        if (msg->data == nullptr || ud_recv(fd, msg->data, len) != static_cast<ssize_t>(len)) {
            orbs3_msg_del(msg);
            return nullptr;
        }
    }
    return msg;
}

int orbs3_send_msg_to_unixdomain(int fd, orbs3_msg_t* msg)
{
    char* wire = orbs3_msg2string(msg);
    int rc = -1;
    if (wire != nullptr) {
        const std::size_t len = ORBS3_MSG_HEAD_LEN + msg->head->length;
        rc = ud_send(fd, wire, len) == static_cast<ssize_t>(len) ? 0 : -1;
        ha_free(wire);
    }
    orbs3_msg_del(msg);
    return rc;
}

namespace {

int make_and_send(int fd, uint32_t type, uint32_t status, const char* body, std::size_t len)
{
    if (len > ORBS3_MSG_BODY_MAX)
        return -1;
    orbs3_msg_t* msg = orbs3_msg_new();
    if (msg == nullptr)
        return -1;
    msg->head->version = ORBS3_MSG_VERSION;
    msg->head->type = type;
    msg->head->status = status;
    if (body != nullptr && len > 0) {
        msg->data = static_cast<char*>(ha_malloc(len));
        if (msg->data == nullptr) {
            orbs3_msg_del(msg);
            return -1;
        }
        std::memcpy(msg->data, body, len);
        msg->head->length = static_cast<uint32_t>(len);
    }
    return orbs3_send_msg_to_unixdomain(fd, msg);
}

}  // namespace

int orbs3_make_and_send_reply_msg_to_unixdomain(int fd, uint32_t type, uint32_t status, const char* body,
                                                std::size_t len)
{
    if ((type & ORBS3_MSG_REPLY) != 0)
        return -1;
    (void)make_and_send(fd, type | ORBS3_MSG_REPLY, status, body, len);
    return 0;
}

int orbs3_make_and_send_request_msg_to_unixdomain(int fd, uint32_t type, uint32_t status, const char* body,
                                                  std::size_t len)
{
    return make_and_send(fd, type, status, body, len);
}

int orbs3_msg_is_valid(int fd, const orbs3_msg_t* msg)
{
    if (msg != nullptr && msg->head != nullptr && msg->head->version == ORBS3_MSG_VERSION)
        return 0;
    (void)orbs3_make_and_send_reply_msg_to_unixdomain(fd, msg != nullptr && msg->head != nullptr ? msg->head->type : 0,
                                                      ORBS3_MSG_STATUS_BAD_VERSION, nullptr, 0);
    ipd_log(LOG_ERR, "message version mismatch.");
    return -1;
}

int orbs3_connect_to_daemon(const char* path, int* fd)
{
    if (path == nullptr || fd == nullptr)
        return -1;
    return ud_connect(path, fd);
}

void orbs3_disconnect_from_daemon(int fd)
{
    if (fd > 0)
        ud_close(fd);
}

int orbs3_send_msg_to_daemon(int fd, uint32_t type, const char* body, std::size_t len)
{
    if (len > ORBS3_MSG_BODY_MAX || (len > 0 && body == nullptr))
        return -1;
    orbs3_msg_head_t head {};
    head.version = ORBS3_MSG_VERSION;
    head.type = type;
    head.length = static_cast<uint32_t>(len);
    std::string wire(reinterpret_cast<const char*>(&head), sizeof head);
    wire.append(body != nullptr ? body : "", len);
    return ud_send(fd, wire.data(), wire.size()) == static_cast<ssize_t>(wire.size()) ? 0 : -1;
}

int orbs3_recv_msg_from_daemon(int fd, orbs3_msg_t** out)
{
    if (out == nullptr)
        return -1;
    *out = nullptr;
    auto* msg = static_cast<orbs3_msg_t*>(std::calloc(1, sizeof(orbs3_msg_t)));
    if (msg == nullptr)
        return -1;
    msg->head = static_cast<orbs3_msg_head_t*>(std::calloc(1, sizeof(orbs3_msg_head_t)));
    if (msg->head == nullptr || ud_recv(fd, msg->head, ORBS3_MSG_HEAD_LEN) != static_cast<ssize_t>(ORBS3_MSG_HEAD_LEN) ||
        !body_fits(msg->head->length)) {
        orbs3_free_recv_msg(msg);
        return -1;
    }
    const uint32_t len = msg->head->length;
    if (len > 0) {
        msg->data = static_cast<char*>(std::calloc(1, len + 1));
        if (msg->data == nullptr || ud_recv(fd, msg->data, len) != static_cast<ssize_t>(len)) {
            orbs3_free_recv_msg(msg);
            return -1;
        }
    }
    *out = msg;
    return 0;
}

void orbs3_free_recv_msg(orbs3_msg_t* msg)
{
    if (msg == nullptr)
        return;
    std::free(msg->head);
    std::free(msg->data);
    std::free(msg);
}

int orbs3_daemon_call(const char* path, uint32_t type, const char* body, std::size_t len, char** reply,
                      uint32_t* status)
{
    if (reply != nullptr)
        *reply = nullptr;
    int fd = -1;
    if (orbs3_connect_to_daemon(path, &fd) != 0)
        return -1;
    orbs3_msg_t* msg = nullptr;
    if (orbs3_send_msg_to_daemon(fd, type, body, len) != 0 || orbs3_recv_msg_from_daemon(fd, &msg) != 0) {
        orbs3_disconnect_from_daemon(fd);
        return -1;
    }
    orbs3_disconnect_from_daemon(fd);
    const uint32_t rtype = msg->head->type;
    int rc = 0;
    if (rtype == ORBS3_MSG_FAILED) {
        int32_t code = -1;
        if (msg->head->length >= sizeof code)
            std::memcpy(&code, msg->data, sizeof code);
        rc = code;
    }
    if (status != nullptr)
        *status = msg->head->status;
    if (reply != nullptr && msg->head->length > 0 && rtype != ORBS3_MSG_FAILED && rtype != ORBS3_MSG_REPLY) {
        *reply = msg->data;  // calloc'd with its terminating zero
        msg->data = nullptr;
    }
    orbs3_free_recv_msg(msg);
    return rc;
}
