// The bucket the version tests share: the bucket of storage_fixture.h with its version tree, writes as a
// PUT makes them, old contents laid in a tree, and the views of a tree the tests compare.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "storage/storage_fixture.h"
#include "versions/orbs3_object_version.h"
#include "versions/orbs3_version_name.h"

namespace version_test {

using storage_test::read_file;

constexpr const char* kStamp = "2026-11-24T18:00:01.000Z";

class version_fixture : public storage_test::bucket_fixture {
protected:
    void SetUp() override
    {
        bucket_fixture::SetUp();
        version_ = storage_test::str(bucket_->version_dir);
        std::filesystem::create_directories(version_);
    }

    void enable(int save_num, int status = 1)
    {
        bucket_->versioning.status = status;
        bucket_->versioning.save_num = save_num;
    }
    // A record of `key` whose ETag is `etag`; "" as id for "null".
    static std::string record(const std::string& key, const std::string& etag, std::size_t size,
                              const std::string& id, const char* stamp = kStamp)
    {
        return "<object objectname=\"" + key + "\" etag=\"" + etag + "\" last_modified=\"" + stamp + "\" size=\"" +
               std::to_string(size) + "\"" + (id.empty() ? "" : " version_id=\"" + id + "\"") + " />";
    }
    std::string new_id()
    {
        char id[ORBS3_VERSION_SUFFIX_LEN + 1];
        EXPECT_EQ(orbs3_version_new_suffix(kStamp, id), 0);
        return id;
    }
    // A write of `bytes` to `key` as a PUT makes it, all in one second: the old content handed to the
    // version step, the new bytes renamed over the live file, the record (ETag "e-<bytes>") written.
    // "" as id writes a "null" content. The version step's answer.
    int put_rc(const std::string& key, const std::string& bytes, const std::string& id)
    {
        orbs3_object_path_t path;
        if (orbs3_make_object_path(bucket_, key, "", &path) != 0)
            return -1;
        if (int rc = orbs3_object_version_update(bucket_, key, &path, id.empty()); rc != 0)
            return rc;
        write(data_, key + ".tmp", bytes);
        std::filesystem::rename(data_ + "/" + key + ".tmp", path.data_path);
        write(meta_, key, record(key, "e-" + bytes, bytes.size(), id));
        return 0;
    }
    void put(const std::string& key, const std::string& bytes, const std::string& id = "")
    {
        ASSERT_EQ(put_rc(key, bytes, id), 0) << key << " " << bytes;
    }
    // An old content of `key` in `tree` named by `suffix`, with a record (ETag "e-<bytes>") when `id` is
    // not "-" ("" for "null").
    static void old(const std::string& tree, const std::string& key, const std::string& suffix,
                    const std::string& bytes, const std::string& id)
    {
        orbs3_version_file_t f;
        ASSERT_EQ(orbs3_version_paths(tree, key, suffix, &f), 0);
        storage_test::write_file(f.data, bytes);
        if (id != "-")
            storage_test::write_file(f.record, record(key, "e-" + bytes, bytes.size(), id));
    }
    // How many contents of a tree hold each bytes (records aside).
    static std::map<std::string, int> counted(const std::string& root)
    {
        std::map<std::string, int> seen;
        for (const auto& [name, bytes] : named(root))
            seen[bytes]++;
        return seen;
    }
    // The bytes of each content of a tree, by the name they lie under (records aside).
    static std::map<std::string, std::string> named(const std::string& root)
    {
        std::map<std::string, std::string> seen;
        if (!std::filesystem::exists(root))
            return seen;
        for (const auto& e : std::filesystem::recursive_directory_iterator(root))
            if (e.is_regular_file() && !orbs3_version_is_record_name(e.path().filename().string()))
                seen[std::filesystem::relative(e.path(), root).string()] = read_file(e.path().string());
        return seen;
    }

    std::string version_;
};

}  // namespace version_test
