// What the storage tests share: a temporary tenant tree, the configuration's limits set for one test,
// whole-file reads and writes, and owners of the records the engine hands out.
#pragma once

#include <dirent.h>
#include <stdlib.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "control/orbs3_service.h"
#include "core/orbs3_config.h"
#include "memory/neo_files.h"
#include "memory/neo_string.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_record.h"

namespace storage_test {

inline std::string str(const orbs3_str_t& s)
{
    return s.data == nullptr ? std::string() : std::string(s.data, s.len);
}

inline std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void write_file(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

struct bucket_deleter {
    void operator()(orbs3_bucket_t* b) const { orbs3_free_bucket(b); }
};
using bucket_ptr = std::unique_ptr<orbs3_bucket_t, bucket_deleter>;

// A vhost from orbs3_vhost_new(), freed with everything it holds.
struct vhost_deleter {
    void operator()(orbs3_vhost_t* vh) const { orbs3_free_vhost_data(vh); }
};
using vhost_ptr = std::unique_ptr<orbs3_vhost_t, vhost_deleter>;

// A directory under /tmp, removed with everything below it when the test ends.
struct temp_dir {
    std::string path;
    temp_dir()
    {
        char tmpl[] = "/tmp/orbs3-storage-XXXXXX";
        const char* p = mkdtemp(tmpl);
        path = p != nullptr ? p : "";
    }
    ~temp_dir()
    {
        if (!path.empty())
            (void)neo_remove_tree(path.c_str());
    }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

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

// The name and path limits of the configuration, as a test sets them, put back when it ends: other
// tests of the binary read the same global.
struct conf_limits {
    explicit conf_limits(int bucketmaxlen, int objectmaxlen = 127, int objectpathlen = 1023, int objectdirnum = 10)
        : saved_{orbs3_conf.bucketmaxlen, orbs3_conf.objectmaxlen, orbs3_conf.objectpathlen,
                 orbs3_conf.objectdirnum}
    {
        orbs3_conf.bucketmaxlen = bucketmaxlen;
        orbs3_conf.objectmaxlen = objectmaxlen;
        orbs3_conf.objectpathlen = objectpathlen;
        orbs3_conf.objectdirnum = objectdirnum;
    }
    ~conf_limits()
    {
        orbs3_conf.bucketmaxlen = saved_[0];
        orbs3_conf.objectmaxlen = saved_[1];
        orbs3_conf.objectpathlen = saved_[2];
        orbs3_conf.objectdirnum = saved_[3];
    }
    conf_limits(const conf_limits&) = delete;
    conf_limits& operator=(const conf_limits&) = delete;

private:
    int saved_[4];
};

// A tenant whose cluster path is a temporary directory and whose group path is "g": after roots(), its
// data, meta, version and recycle roots are made below <dir>/g. The vhost and all it holds go with it.
struct temp_tenant {
    temp_dir dir;
    vhost_ptr owner{orbs3_vhost_new()};
    orbs3_vhost_t* vh = owner.get();

    temp_tenant()
    {
        if (vh != nullptr) {
            neo_strdup(&vh->cluster_path, dir.path.c_str(), ORBS3_PATH_CAP);
            neo_strdup(&vh->group_path, "g", ORBS3_PATH_CAP);
        }
    }

    // Builds and makes the four roots; 0 on success.
    int roots() { return vh == nullptr || dir.path.empty() ? -1 : orbs3_init_path(vh); }

    std::string data_root() const { return str(vh->data_root); }
    std::string meta_root() const { return str(vh->meta_root); }
    std::string version_root() const { return str(vh->version_root); }
    std::string recycle_root() const { return str(vh->recycle_root); }
};

}  // namespace storage_test
