#include "core/orbs3_prefix.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

// Never destroyed: threads of the master (the controller's, the control socket's) may still build paths
// while the main thread runs exit's destructors, and must not read a freed string.
std::string& prefix_storage()
{
    static std::string* prefix = new std::string;
    return *prefix;
}

std::once_flag prefix_once;

void load_prefix()
{
    const char* env = std::getenv("ORBMUX_PREFIX");
    std::string p = env ? env : "";
    // "/tmp/x/" + "/etc/orbmux" would give a double slash; keep the paths' own slashes only.
    while (!p.empty() && p.back() == '/')
        p.pop_back();
    prefix_storage() = std::move(p);
}

}  // namespace

std::string_view orbs3_prefix()
{
    std::call_once(prefix_once, load_prefix);
    return prefix_storage();
}

void orbs3_prefix_reload()
{
    std::call_once(prefix_once, load_prefix);
    load_prefix();
}

int orbs3_prefix_path(char* out, std::size_t size, std::string_view path)
{
    if (out == nullptr || size == 0)
        return -1;
    std::string_view pre = orbs3_prefix();
    if (pre.size() + path.size() + 1 > size) {
        out[0] = '\0';
        return -1;
    }
    std::memcpy(out, pre.data(), pre.size());
    std::memcpy(out + pre.size(), path.data(), path.size());
    out[pre.size() + path.size()] = '\0';
    return 0;
}

std::string orbs3_prefix_path(std::string_view path)
{
    std::string s(orbs3_prefix());
    s.append(path);
    return s;
}
