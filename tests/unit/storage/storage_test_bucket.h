// Fixtures of the storage tests: a fresh temporary directory, whole files in and out, the key limits a
// tenant runs with unless it configures others, and a bucket "bkt" of owner "alice" in a tenant under a
// temporary directory, its data, meta and recycle directories made as PutBucket makes them. Everything is
// undone when the fixture goes.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "control/orbs3_service.h"
#include "core/orbs3_config.h"
#include "memory/neo_string.h"
#include "storage/orbs3_bucket.h"
#include "storage/orbs3_layout.h"

namespace storage_test {

namespace fs = std::filesystem;

// `bytes` as the whole file at `path`, its directories made.
inline void write_file(const std::string& path, const std::string& bytes)
{
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << bytes;
}

// The whole file at `path`; empty when there is none.
inline std::string read_file(const std::string& path)
{
    std::stringstream all;
    all << std::ifstream(path).rdbuf();
    return all.str();
}

// A fresh directory under /tmp, removed with everything in it when it goes.
struct temp_dir {
    std::string path;
    temp_dir()
    {
        char tmpl[] = "/tmp/orbs3_storage_XXXXXX";
        path = mkdtemp(tmpl) != nullptr ? tmpl : "";
    }
    ~temp_dir()
    {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;
    std::string operator/(const std::string& rel) const { return path + "/" + rel; }
};

class limits : public ::testing::Test {
protected:
    void SetUp() override
    {
        orbs3_conf.bucketmaxlen = 63;
        orbs3_conf.objectmaxlen = 127;
        orbs3_conf.objectpathlen = 1023;
        orbs3_conf.objectdirnum = 10;
    }
    void TearDown() override
    {
        orbs3_conf.bucketmaxlen = saved_[0];
        orbs3_conf.objectmaxlen = saved_[1];
        orbs3_conf.objectpathlen = saved_[2];
        orbs3_conf.objectdirnum = saved_[3];
    }

private:
    const int saved_[4] = {orbs3_conf.bucketmaxlen, orbs3_conf.objectmaxlen, orbs3_conf.objectpathlen,
                           orbs3_conf.objectdirnum};
};

class bucket : public limits {
protected:
    void SetUp() override
    {
        limits::SetUp();
        ASSERT_FALSE(tmp_.path.empty());
        dir_ = tmp_.path;
        neo_strdup(&vh_.id, "t", 16);
        neo_strdup(&vh_.cluster_path, dir_.c_str(), ORBS3_PATH_AREA);
        neo_strdup(&vh_.group_path, "g", ORBS3_PATH_AREA);
        ASSERT_EQ(orbs3_init_path(&vh_), 0);
        bucket_ = orbs3_bucket_new();
        ASSERT_NE(bucket_, nullptr);
        bucket_->owner_name = {owner_.size(), owner_.data()};
        ASSERT_EQ(orbs3_bucket_init_path(&vh_, nullptr, bucket_, "bkt"), 0);
        data_ = std::string(bucket_->data_dir.data, bucket_->data_dir.len);
        meta_ = std::string(bucket_->meta_dir.data, bucket_->meta_dir.len);
        recycle_ = std::string(bucket_->recycle_dir.data, bucket_->recycle_dir.len);
        for (const std::string& d : {data_, meta_, recycle_})
            fs::create_directories(d);
    }
    void TearDown() override
    {
        orbs3_free_bucket(bucket_);
        for (orbs3_str_t* s : {&vh_.id, &vh_.cluster_path, &vh_.group_path, &vh_.data_root, &vh_.meta_root,
                               &vh_.version_root, &vh_.recycle_root})
            neo_strfree(s);
        limits::TearDown();
    }

    // `bytes` at `rel` under `root`, its directories made.
    static void write(const std::string& root, const std::string& rel, const std::string& bytes)
    {
        write_file(root + "/" + rel, bytes);
    }
    bool in_data(const std::string& rel) const { return fs::exists(data_ + "/" + rel); }
    bool in_meta(const std::string& rel) const { return fs::exists(meta_ + "/" + rel); }

    temp_dir tmp_;
    std::string dir_, data_, meta_, recycle_;
    std::string owner_ = "alice";
    orbs3_vhost_t vh_{};
    orbs3_bucket_t* bucket_ = nullptr;
};

}  // namespace storage_test
