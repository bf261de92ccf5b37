// The engine cost of one listing page, without HTTP: ListObjectVersions over a bucket whose 10,000 keys in
// one directory each have a live object and 9 older versions in the version tree (10 versions a key, bytes
// and record each, as an overwrite keeps them), against an object-listing page of the same 10,000 live
// keys. Each page holds 1000 rows, taken from the start and from the middle of the bucket.
//
//   build with -DORBMUX_BENCH=ON, then: version_list [--benchmark_repetitions=N] [TMPDIR]
// The trees are laid out under $TMPDIR (default /tmp) with the server's own record writer, without the
// flush of a real upload, and removed at the end.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include <unistd.h>

#include "memory/neo_files.h"
#include "memory/orbs3_palloc.h"
#include "s3/orbs3_s3_documents.h"
#include "storage/orbs3_list_page.h"
#include "storage/orbs3_record.h"
#include "versions/orbs3_version_list.h"
#include "versions/orbs3_version_name.h"

namespace {

constexpr int kKeys = 10000;
constexpr int kOldPerKey = 9;
std::string g_root, g_meta, g_version;

bool write_record(const std::string& path, const std::string& key, const std::string& id, uint64_t size)
{
    orbs3_object_t* o = orbs3_create_object_block();
    if (o == nullptr)
        return false;
    INIT_LIST_HEAD(&o->tags);
    INIT_LIST_HEAD(&o->meta);
    auto set = [o](orbs3_str_t* s, const std::string& t) { return orbs3_pstr_set(o->pool, s, t.data(), t.size()) == 0; };
    bool ok = set(&o->name, key) && set(&o->etag, "0f343b0931126a20f133d67c2b018a3b") &&
              set(&o->last_modified, "2026-11-24T10:00:00.000Z") && set(&o->owner_id, "bench") &&
              set(&o->owner_display_name, "bench") && (id.empty() || set(&o->version_id, id));
    o->size = size;
    char* text = nullptr;
    ok = ok && orbs3_make_object_xml(o, &text) == 0;
    orbs3_free_object(o);
    if (ok) {
        std::ofstream(path) << text;
        std::free(text);
    }
    return ok;
}

bool lay_out()
{
    g_meta = g_root + "/meta";
    g_version = g_root + "/version";
    std::error_code ec;
    std::filesystem::create_directories(g_meta, ec);
    std::filesystem::create_directories(g_version, ec);
    for (int i = 0; i < kKeys; i++) {
        char key[32];
        std::snprintf(key, sizeof key, "k%05d", i);
        if (!write_record(g_meta + "/" + key, key, "", 1024))
            return false;
        for (int v = 0; v < kOldPerKey; v++) {
            char stamp[32];
            std::snprintf(stamp, sizeof stamp, "2026-11-24T09:%02d:00.000Z", v);
            char suffix[ORBS3_VERSION_SUFFIX_LEN + 1];
            orbs3_version_file_t f;
            if (orbs3_version_new_suffix(stamp, suffix) != 0 || orbs3_version_paths(g_version, key, suffix, &f) != 0)
                return false;
            std::ofstream(f.data) << "x";
            if (!write_record(f.record, key, suffix, 1))
                return false;
        }
    }
    return true;
}

void version_page(benchmark::State& state, const char* key_marker)
{
    const orbs3_version_trees_t trees{g_meta, g_version, "bench", "bench"};
    orbs3_version_query_t q;
    q.key_marker = key_marker;
    for (auto _ : state) {
        orbs3_pool_ptr pool(orbs3_create_mem_block(16384));
        orbs3_version_page_t page;
        if (orbs3_version_list_page(&trees, &q, pool.get(), &page) != 0 || page.count != 1000 || !page.truncated) {
            state.SkipWithError("the page is not 1000 rows of a longer listing");
            return;
        }
        benchmark::DoNotOptimize(page.next_key.data());
    }
}

void object_page(benchmark::State& state, const char* after)
{
    orbs3_list_query_t q;
    q.after = after;
    for (auto _ : state) {
        orbs3_pool_ptr pool(orbs3_create_mem_block(16384));
        orbs3_list_page_t page;
        if (orbs3_list_page(g_meta.c_str(), &q, pool.get(), &page) != 0 || page.key_count != 1000 || !page.truncated) {
            state.SkipWithError("the page is not 1000 keys of a longer listing");
            return;
        }
        benchmark::DoNotOptimize(page.next.data());
    }
}

}  // namespace

BENCHMARK_CAPTURE(version_page, from_start, "")->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK_CAPTURE(version_page, from_middle, "k05000")->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK_CAPTURE(object_page, from_start, "")->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK_CAPTURE(object_page, from_middle, "k05000")->Unit(benchmark::kMillisecond)->MinTime(2.0);

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    const char* tmp = argc > 1 ? argv[1] : std::getenv("TMPDIR");
    g_root = std::string(tmp != nullptr ? tmp : "/tmp") + "/orbmux-version-list-bench-" + std::to_string(getpid());
    std::error_code ec;
    std::filesystem::remove_all(g_root, ec);
    if (!lay_out()) {
        std::fprintf(stderr, "laying out the trees under %s failed\n", g_root.c_str());
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(g_root, ec);
    return 0;
}
