// The file-system work of one small PutObject, without HTTP, signatures or digests: how many such PUTs
// this disk allows, the reference the server's PUT rate is measured against.
//
// Per "PUT", each thread makes the calls the server makes for an object in one read pass:
//   object data   open(temp beside the object, O_CREAT|O_EXCL) + close, open(O_APPEND) + write + close,
//                 open + fsync + close, rename over the object;
//   object record mkostemp beside the record, fchmod 0644, write, fsync, close, rename, open the
//                 directory + fsync + close;
//   bucket record open + read + close, then the same replace as the object record.
// Every thread writes the same object, the same record and the same bucket record, as the wrk
// connections do. Left out: what every request does before its body (the bucket found through the data
// root and its record read, the bucket's directories made if missing, the key's path checked with stat);
// those are lookups in the page cache, no flush to the disk.
//
//   put_syscalls DIR THREADS SECONDS BODY_BYTES RECORD_BYTES BUCKET_RECORD_BYTES
// prints "<puts> puts in <s> s: <rate> PUT/s".
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

std::atomic<bool> stop{false};

[[noreturn]] void die(const char* what, const std::string& path)
{
    std::fprintf(stderr, "%s %s: %s\n", what, path.c_str(), std::strerror(errno));
    std::exit(1);
}

void write_all(int fd, const char* p, std::size_t n, const std::string& path)
{
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            die("write", path);
        p += w;
        n -= static_cast<std::size_t>(w);
    }
}

// A record replaced whole: temporary beside it, written, flushed to disk, renamed, directory flushed.
void replace_record(const std::string& dir, const std::string& target, const std::string& text)
{
    std::string tmp = dir + "/.orbs3-tmp-XXXXXX";
    int fd = mkostemp(tmp.data(), O_CLOEXEC);
    if (fd < 0)
        die("mkostemp", tmp);
    if (fchmod(fd, 0644) != 0)
        die("fchmod", tmp);
    write_all(fd, text.data(), text.size(), tmp);
    if (fsync(fd) != 0)
        die("fsync", tmp);
    close(fd);
    if (rename(tmp.c_str(), target.c_str()) != 0)
        die("rename", tmp);
    int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0)
        die("open", dir);
    (void)fsync(dfd);
    close(dfd);
}

struct shared_paths {
    std::string data_dir, meta_dir, bucket_dir;
    std::string object, record, bucket_record;
    std::size_t body, record_bytes, bucket_bytes;
};

void one_thread(const shared_paths* s, int id, long* count)
{
    std::string body(s->body, 'b');
    std::string record(s->record_bytes, 'r');
    std::string bucket(s->bucket_bytes, 'k');
    char buf[4096];
    long n = 0;
    while (!stop.load(std::memory_order_relaxed)) {
        std::string tmp = s->data_dir + "/.orbs3-tmp-" + std::to_string(id) + "-" + std::to_string(n);
        int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0)
            die("create", tmp);
        close(fd);
        fd = open(tmp.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        if (fd < 0)
            die("open", tmp);
        write_all(fd, body.data(), body.size(), tmp);
        close(fd);
        fd = open(tmp.c_str(), O_WRONLY | O_CLOEXEC);
        if (fd < 0 || fsync(fd) != 0)
            die("fsync", tmp);
        close(fd);
        if (rename(tmp.c_str(), s->object.c_str()) != 0)
            die("rename", tmp);

        replace_record(s->meta_dir, s->record, record);

        fd = open(s->bucket_record.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            die("open", s->bucket_record);
        while (read(fd, buf, sizeof buf) > 0) {
        }
        close(fd);
        replace_record(s->bucket_dir, s->bucket_record, bucket);
        n++;
    }
    *count = n;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 7) {
        std::fprintf(stderr, "usage: %s DIR THREADS SECONDS BODY_BYTES RECORD_BYTES BUCKET_RECORD_BYTES\n", argv[0]);
        return 2;
    }
    const std::string root = argv[1];
    const int threads = std::atoi(argv[2]);
    const double seconds = std::atof(argv[3]);
    shared_paths s;
    s.data_dir = root + "/data";
    s.meta_dir = root + "/meta";
    s.bucket_dir = root + "/bucket";
    s.object = s.data_dir + "/object";
    s.record = s.meta_dir + "/object";
    s.bucket_record = s.bucket_dir + "/bench";
    s.body = std::strtoul(argv[4], nullptr, 10);
    s.record_bytes = std::strtoul(argv[5], nullptr, 10);
    s.bucket_bytes = std::strtoul(argv[6], nullptr, 10);
    for (const std::string* d : {&s.data_dir, &s.meta_dir, &s.bucket_dir})
        if (mkdir(d->c_str(), 0755) != 0 && errno != EEXIST)
            die("mkdir", *d);
    replace_record(s.bucket_dir, s.bucket_record, std::string(s.bucket_bytes, 'k'));

    std::vector<long> counts(static_cast<std::size_t>(threads), 0);
    std::vector<std::thread> pool;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < threads; i++)
        pool.emplace_back(one_thread, &s, i, &counts[static_cast<std::size_t>(i)]);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (auto& t : pool)
        t.join();
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    long total = 0;
    for (long c : counts)
        total += c;
    std::printf("%ld puts in %.2f s: %.1f PUT/s\n", total, took, static_cast<double>(total) / took);
    return 0;
}
