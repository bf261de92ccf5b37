// The control socket's reader and the package parser on any bytes. The input goes down a socket pair
// whose writing end is then shut, as a peer that sends something and hangs up: the reader must give a
// whole message or nothing, never wait past the end, and a message it gives must flatten back to exactly
// the bytes it took. The package parser must agree with the reader on inputs that are one message.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "control/orbs3_msg.h"
#include "fuzz_check.h"
#include "memory/orbs3_ha_malloc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    int sv[2];
    if (size > 60000 || socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
        return 0;
    CHECK(write(sv[1], data, size) == static_cast<ssize_t>(size));
    shutdown(sv[1], SHUT_WR);
    orbs3_msg_t* m = orbs3_readmsg_from_unixdomain(sv[0]);
    orbs3_msg_t* p = orbs3_package2msg(reinterpret_cast<const char*>(data), size);
    if (m != nullptr) {
        const std::size_t took = ORBS3_MSG_HEAD_LEN + m->head->length;
        CHECK(took <= size && m->head->length <= ORBS3_MSG_BODY_MAX);
        CHECK(m->head->length == 0 ? m->data == nullptr : m->data[m->head->length] == '\0');
        char* flat = orbs3_msg2string(m);
        CHECK(flat != nullptr && std::memcmp(flat, data, took) == 0);
        ha_free(flat);
        CHECK((p != nullptr) == (took == size));
        (void)orbs3_msg_is_valid(sv[0], m);
        orbs3_msg_del(m);
    } else {
        CHECK(p == nullptr);
    }
    orbs3_msg_del(p);
    close(sv[0]);
    close(sv[1]);
    return 0;
}
