// The worker's own control channel: a socket "/var/run/orbmux/<pid>.iface" on which the master adds,
// edits, deletes and asks after the vhosts of a running worker, with the framing of the master's socket.
// The master is the only client; the socket is mode 0600 and its peer's uid is checked before a byte is
// read.
//
// Bodies (JSON objects; every value a string unless told, a longer one than its cap refused, not cut):
//   add 0x1003     id (256), name (256), path (1024, relative to the cluster, no "." or ".." component),
//                  cluster (256) required; tiered, group, domain, displayname, userid (256), accesskeyid,
//                  accesskeysecret (64), ca, cert, key (1024, the tenant's own certificate), key_pwd (128).
//                  An id the worker serves already is success and changes nothing.
//   edit 0x1004    id, name required; group, domain; ca, cert, key, key_pwd of the service; chg (integer);
//                  meta, data, version, recycle and ssl are not read. The tenant's users and keys are read
//                  again from its files, so an edit is also how a new user reaches the worker.
//   delete 0x1005  id required.
//   get 0x1002     id required; answers {id, name, status, bucketnum, objectnum}, {} for an unknown id.
// An id is never empty, ".", ".." nor holds '/'; no value holds a NUL byte. Add, edit and delete answer
// with no body; the status is ORBS3_MSG_STATUS_OK, or 1000 for a body that does not parse or breaks a
// rule above (1104 when the get document cannot be built). Unknown ids are no error for edit and delete.
//
// Records in the list are never changed in place (core/orbs3_tenant.h tells why): an edit builds a new
// record, loads it as a worker start does, and swaps it in.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/orbs3_tenant.h"

inline constexpr uint32_t ORBS3_WORKER_BAD_BODY = 1000;
inline constexpr uint32_t ORBS3_WORKER_NO_DOC = 1104;

enum class orbs3_worker_op { add, edit, del, get };

// A request's fields as parsed; those the operation does not take stay empty.
struct orbs3_worker_vhost_req_t {
    std::string id, name, group, domain, path, cluster, tiered;
    std::string accesskeyid, accesskeysecret, displayname, userid;
    std::string ca, cert, key, key_pwd;
    bool has_ca = false, has_cert = false, has_key = false, has_key_pwd = false;
    int64_t chg = 0;
};

// Parses and checks the body of `op`. 0, or ORBS3_WORKER_BAD_BODY.
[[nodiscard]] uint32_t orbs3_worker_parse_body(orbs3_worker_op op, std::string_view body,
                                               orbs3_worker_vhost_req_t* out);

// Makes the socket of this worker (its pid) before the worker reports itself started; 0 or -1 (logged,
// and the worker serves on without a control channel).
int orbs3_ctrl_worker_listen();
// Answers the master on the socket, one connection at a time, for the life of the process.
void* orbs3_ctrl_worker_thread(void* arg);
// Removes the socket file; part of the worker's exit.
void orbs3_ctrl_worker_thread_exit();
// Runs the handler of the message's type and answers; a type without one gets no reply. Deletes `msg`.
int orbs3_worker_msg_processing(int fd, struct orbs3_msg_t* msg);
