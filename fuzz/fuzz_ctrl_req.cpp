// The control socket's request bodies on any bytes: the first byte picks the request type, the rest is
// the body. A body that is taken must hold nothing the checks refuse: ids, names and groups that name no
// other file, a path without "..", values within their caps, a port that is one.
#include <cstddef>
#include <cstdint>
#include <string>

#include "control/orbs3_ctrl_req.h"
#include "control/orbs3_msg.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static constexpr uint32_t kTypes[] = {ORBS3_MSG_LIST_VHOST, ORBS3_MSG_GET_VHOST,   ORBS3_MSG_ADD_VHOST,
                                          ORBS3_MSG_EDIT_VHOST, ORBS3_MSG_DELETE_VHOST, ORBS3_MSG_START_VHOST,
                                          ORBS3_MSG_STOP_VHOST, ORBS3_MSG_ADD_USER,     ORBS3_MSG_VHOST_STATUS};
    if (size == 0 || size > ORBS3_MSG_BODY_MAX)
        return 0;
    const uint32_t type = kTypes[data[0] % std::size(kTypes)];
    // The reader gives handlers a body with a zero behind it, as here.
    const std::string body(reinterpret_cast<const char*>(data + 1), size - 1);
    orbs3_vhost_req_t req;
    std::string why;
    const int rc = orbs3_parse_vhost_req(type, body.c_str(), &req, &why);
    CHECK(rc == 0 || rc == ORBS3_CTRL_BAD_REQUEST);
    if (rc != 0) {
        CHECK(!why.empty());
        return 0;
    }
    for (const std::string* name : {&req.id, &req.name, &req.group, &req.displayname, &req.userid, &req.vhost})
        CHECK(name->empty() || orbs3_ctrl_file_name_ok(*name));
    CHECK(req.path.empty() || orbs3_ctrl_rel_path_ok(req.path));
    CHECK(req.id.size() <= 256 && req.name.size() <= 256 && req.path.size() <= 1024 && req.key_pwd.size() <= 128);
    CHECK(req.accesskeyid.size() <= 64 && req.accesskeysecret.size() <= 64);
    CHECK(req.port >= 0 && req.port <= 65535);
    if (type == ORBS3_MSG_ADD_VHOST)
        CHECK(req.port >= 1 && !req.id.empty() && !req.path.empty());
    return 0;
}
