// System paths under an optional prefix: ORBMUX_PREFIX, when set, is put in front of every absolute path
// the daemon uses (/etc/orbmux, /var/run/orbmux, /var/log/orbmux, /etc/kelvane, ...), so tests and the
// demo run in a sandbox and never touch the machine's own files.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The prefix as read once from the environment; empty when unset.
std::string_view orbs3_prefix();

// Writes prefix + path into out. Returns 0, or -1 (and an empty out) when the result does not fit.
[[nodiscard]] int orbs3_prefix_path(char* out, std::size_t size, std::string_view path);
std::string orbs3_prefix_path(std::string_view path);

// Re-reads ORBMUX_PREFIX; for tests that change it.
void orbs3_prefix_reload();

// The daemon's fixed paths.
inline constexpr std::string_view ORBS3_PID_FILE = "/var/run/orbmux//orbmux.pid";
inline constexpr std::string_view ORBS3_RUN_DIR = "/var/run/orbmux/";
inline constexpr std::string_view ORBS3_LOG_DIR = "/var/log/orbmux";
inline constexpr std::string_view ORBS3_DEBUG_FILE = "/var/log/orbmux/orbmux.debug";
inline constexpr std::string_view ORBS3_HTTP_CONF = "/etc/orbmux/http.conf";
inline constexpr std::string_view ORBS3_CONF = "/etc/orbmux/orbmux.conf";
