// What the storage tests share: the configuration's limits set for one test, a temporary tenant tree and
// its buckets, and owners of the records the engine hands out. Scratch directories and whole files come
// from the unit tests' common helper.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "control/orbs3_service.h"
#include "storage/orbs3_bucket_store.h"
#include "core/orbs3_config.h"
#include "memory/neo_string.h"
#include "storage/orbs3_bucket.h"
#include "storage/orbs3_layout.h"
#include "storage/orbs3_record.h"
#include "temp_dir.h"

namespace storage_test {

using unit_test::read_file;
using unit_test::temp_dir;
using unit_test::write_file;

inline std::string str(const orbs3_str_t& s)
{
    return s.data == nullptr ? std::string() : std::string(s.data, s.len);
}

// A copy of `text` in `pool`, with a terminating NUL as the records keep theirs; empty when out of memory.
inline orbs3_str_t pool_text(orbs3_pool_t* pool, std::string_view text)
{
    auto* p = static_cast<char*>(orbs3_pcalloc(pool, text.size() + 1));
    if (p == nullptr)
        return {};
    if (!text.empty())
        std::memcpy(p, text.data(), text.size());
    return {text.size(), p};
}

using bucket_ptr = orbs3_bucket_ptr;

// A vhost from orbs3_vhost_new(), freed with everything it holds.
struct vhost_deleter {
    void operator()(orbs3_vhost_t* vh) const { orbs3_free_vhost_data(vh); }
};
using vhost_ptr = std::unique_ptr<orbs3_vhost_t, vhost_deleter>;

// The name and path limits of the configuration, as a test sets them, put back when it ends: other
// tests of the binary read the same global. The defaults are those a tenant runs with.
struct conf_limits {
    explicit conf_limits(int bucketmaxlen = 63, int objectmaxlen = 127, int objectpathlen = 1023,
                         int objectdirnum = 10)
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
    const int saved_[4] = {orbs3_conf.bucketmaxlen, orbs3_conf.objectmaxlen, orbs3_conf.objectpathlen,
                           orbs3_conf.objectdirnum};
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
    int roots() { return vh == nullptr ? -1 : orbs3_init_path(vh); }

    // A bucket `name` of `owner_name` with its paths filled from the roots; null when they can't be.
    bucket_ptr bucket(std::string_view name = "bkt", std::string_view owner_name = "alice") const
    {
        bucket_ptr b(orbs3_bucket_new());
        if (b == nullptr)
            return b;
        b->owner_name = pool_text(b->pool, owner_name);
        if (orbs3_bucket_init_path(vh, nullptr, b.get(), name) != 0)
            b.reset();
        return b;
    }

    std::string data_root() const { return str(vh->data_root); }
    std::string meta_root() const { return str(vh->meta_root); }
    std::string version_root() const { return str(vh->version_root); }
    std::string recycle_root() const { return str(vh->recycle_root); }
};

// A bucket "bkt" of owner "alice" in a temporary tenant with the default limits, its data, meta and
// recycle directories made as PutBucket makes them. Everything is undone when the test ends.
class bucket_fixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(tenant_.roots(), 0);
        owned_ = tenant_.bucket();
        ASSERT_NE(owned_, nullptr);
        bucket_ = owned_.get();
        data_ = str(bucket_->data_dir);
        meta_ = str(bucket_->meta_dir);
        recycle_ = str(bucket_->recycle_dir);
        for (const std::string& d : {data_, meta_, recycle_})
            std::filesystem::create_directories(d);
    }

    // `bytes` at `rel` under `root`, its directories made.
    static void write(const std::string& root, const std::string& rel, const std::string& bytes)
    {
        write_file(root + "/" + rel, bytes);
    }
    bool in_data(const std::string& rel) const { return std::filesystem::exists(data_ + "/" + rel); }
    bool in_meta(const std::string& rel) const { return std::filesystem::exists(meta_ + "/" + rel); }

    conf_limits limits_;
    temp_tenant tenant_;
    orbs3_vhost_t* vh_ = tenant_.vh;
    bucket_ptr owned_;
    orbs3_bucket_t* bucket_ = nullptr;
    std::string data_, meta_, recycle_;
};

}  // namespace storage_test
