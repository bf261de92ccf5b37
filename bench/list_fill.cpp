// Lays out objects directly in a bucket's meta tree for bench/list_keys.sh, each record written by the
// server's own record writer (orbs3_make_object_xml), without the fsync of a real upload: only the
// shape and count of the tree matter to a listing.
//
//   list_fill META_DIR FROM TO [PREFIXES]
// makes the keys "k0000000" .. for FROM <= i < TO, flat, or "p000/k..." spread over PREFIXES directories.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "memory/neo_files.h"
#include "storage/orbs3_record.h"

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s META_DIR FROM TO [PREFIXES]\n", argv[0]);
        return 2;
    }
    const std::string root = argv[1];
    const long from = std::atol(argv[2]), to = std::atol(argv[3]);
    const long spread = argc > 4 ? std::atol(argv[4]) : 0;
    for (long i = from; i < to; i++) {
        char key[64];
        if (spread > 0)
            std::snprintf(key, sizeof key, "p%03ld/k%07ld", i % spread, i);
        else
            std::snprintf(key, sizeof key, "k%07ld", i);
        const std::string path = root + "/" + key;
        if (spread > 0 && neo_mkdir_p(path.substr(0, path.rfind('/')).c_str(), 0700) != 0) {
            std::perror("mkdir");
            return 1;
        }
        orbs3_object_t* o = orbs3_create_object_block();
        if (o == nullptr)
            return 1;
        INIT_LIST_HEAD(&o->tags);
        INIT_LIST_HEAD(&o->meta);
        auto set = [o](orbs3_str_t* s, const char* t) { return orbs3_pstr_set(o->pool, s, t, std::strlen(t)); };
        o->size = 1024;
        o->acl = 1;
        std::snprintf(o->fpath, sizeof o->fpath, "%s", path.c_str());
        char* text = nullptr;
        if (set(&o->name, key) != 0 || set(&o->etag, "0f343b0931126a20f133d67c2b018a3b") != 0 ||
            set(&o->last_modified, "2026-11-23T16:13:01.000Z") != 0 || set(&o->owner_id, "bench") != 0 ||
            set(&o->owner_display_name, "bench") != 0 || orbs3_make_object_xml(o, &text) != 0) {
            std::fprintf(stderr, "record of %s not made\n", key);
            return 1;
        }
        orbs3_free_object(o);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        std::size_t len = std::strlen(text);
        bool ok = fd >= 0 && write(fd, text, len) == static_cast<ssize_t>(len);
        if (fd >= 0)
            close(fd);
        std::free(text);
        if (!ok) {
            std::perror(path.c_str());
            return 1;
        }
    }
    return 0;
}
