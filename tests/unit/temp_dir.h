// Scratch directories and whole-file helpers for tests that work on real files.
#pragma once

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/orbs3_prefix.h"

namespace unit_test {

// A fresh directory under /tmp, removed with everything in it when the test ends.
struct temp_dir {
    std::string path;

    // Without its directory a test would write below "/" instead: the run ends at once.
    temp_dir()
    {
        char tmpl[] = "/tmp/orbs3_test_XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        path = tmpl;
    }
    ~temp_dir()
    {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    // `rel` below the directory, as a string for the C interfaces.
    std::string operator()(const std::string& rel) const { return path + "/" + rel; }

    // The names directly in the directory.
    std::vector<std::string> entries() const
    {
        std::vector<std::string> out;
        DIR* d = opendir(path.c_str());
        if (d == nullptr)
            return out;
        while (dirent* e = readdir(d)) {
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                out.emplace_back(e->d_name);
        }
        closedir(d);
        return out;
    }
};

// The daemon's paths (ORBMUX_PREFIX) under a fresh directory; the old prefix comes back at the end.
struct prefix_sandbox : temp_dir {
    std::optional<std::string> old_prefix;

    prefix_sandbox()
    {
        if (const char* old = getenv("ORBMUX_PREFIX"))
            old_prefix = old;
        setenv("ORBMUX_PREFIX", path.c_str(), 1);
        orbs3_prefix_reload();
    }
    ~prefix_sandbox()
    {
        if (old_prefix)
            setenv("ORBMUX_PREFIX", old_prefix->c_str(), 1);
        else
            unsetenv("ORBMUX_PREFIX");
        orbs3_prefix_reload();
    }
};

// Replaces the file with `text`, making its parent directories.
inline void write_file(const std::filesystem::path& p, std::string_view text)
{
    std::error_code ec;
    std::filesystem::create_directories(p.parent_path(), ec);
    std::ofstream(p, std::ios::trunc | std::ios::binary).write(text.data(), static_cast<std::streamsize>(text.size()));
}

// Whether `p` is a directory itself, not a link to one.
inline bool is_dir(const std::string& p)
{
    struct stat st;
    return lstat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The whole file, or "" when it can't be read.
inline std::string read_file(const std::filesystem::path& p)
{
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace unit_test
