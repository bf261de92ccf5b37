// Client of the cluster controller shost: register, load the vhosts, report alive, keep the path of the
// shared configuration that the controller hands out.
#pragma once

#include <atomic>
#include <cstddef>

// -1 must register; 0 registration failed; 1 registered.
extern std::atomic<int> g_shost_register;
// -1 unknown (no alive report is made); 0 offline; 1 online.
extern std::atomic<int> g_shost_status;

// What this daemon tells the controller it is, in every report.
inline constexpr const char* ORBS3_SHOST_PROGRAM = "orbmux";
inline constexpr int ORBS3_SHOST_VERSION = 0x030201;
// The alive reply's errorcode of a controller that no longer knows this node.
inline constexpr int ORBS3_SHOST_NOT_REGISTERED = 4086;
// Room for the configuration path of a registration reply, its zero byte included.
inline constexpr std::size_t ORBS3_SHOST_CONF_PATH_CAP = 1024;

// The thread: every 3 seconds one pass; the pass with the first known result of registration loads the
// vhosts. Never returns.
void* orbs3_shost_thread(void* arg);
// One pass of the thread, without its sleep; for the thread and for tests.
void orbs3_shost_pass();
// 0, or -1 when the exchange failed.
int orbs3_register_shost();
int orbs3_alive_shost();

// The request documents {"program": ..., "version": ...}, malloc'd into *out (free it with std::free).
// 0, or -1 when out of memory.
int orbs3_make_json_register_to_shost(char** out);
int orbs3_make_json_alive_to_shost(char** out);

// One exchange on the controller's socket: 0 with the reply's body, if any, malloc'd into *reply (free
// it with std::free), the code of a general failure reply, or -1 when the exchange failed. Every read
// and write of it has the control socket's deadline, so a controller that hangs or answers half a reply
// costs this thread a few seconds, never more.
int orbs3_send_request_register_to_shost(const char* request, char** reply);
int orbs3_send_request_alive_to_shost(const char* request, char** reply);

// A registration reply: *errorcode (0 when absent or not an integer) and the configuration path into
// `conf_path` (ORBS3_SHOST_CONF_PATH_CAP bytes): an absolute path without "." or ".." steps that fits, or
// "" when the reply has none or one that is unusable. 0, or -1 when the text is not a JSON object.
int orbs3_parse_json_shost_register(const char* text, int* errorcode, char* conf_path);
// An alive reply: 0 with *errorcode set, 1 when the key is missing or not an integer (*errorcode 0), -1
// when the text is not a JSON object.
int orbs3_parse_json_shost_alive(const char* text, int* errorcode);
