#include "memory/neo_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "memory/neo_string.h"

static constexpr std::size_t path_area = 1024;

int neo_file_exist(const char* path)
{
    if (path == nullptr)
        return -1;
    return access(path, F_OK) == 0 ? 0 : errno;
}

int neo_isdir(const char* path)
{
    if (path == nullptr)
        return 0;
    struct stat st;
    if (lstat(path, &st) != 0) {
        if (errno != ENOENT)
            std::fprintf(stderr, "Stat failed on %s: %s\n", path, std::strerror(errno));
        return 0;
    }
    return S_ISDIR(st.st_mode) ? 1 : 0;
}

// mkdir that accepts a directory already there (also through a link: a prefix may be one).
static int make_dir(const char* path, mode_t mode)
{
    if (mkdir(path, mode) == 0)
        return 0;
    if (errno != EEXIST)
        return -1;
    struct stat st;
    if (stat(path, &st) != 0 || !S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

// Makes each prefix of the writable copy `p` that ends before a "/". A leading "/" is the root.
static int make_prefixes(char* p, mode_t mode)
{
    for (char* s = p + 1; *s != '\0'; s++) {
        if (*s != '/' || s[-1] == '/')
            continue;
        *s = '\0';
        int rc = make_dir(p, mode);
        *s = '/';
        if (rc != 0)
            return -1;
    }
    return 0;
}

int neo_mkdir(const char* path)
{
    if (path == nullptr || *path == '\0')
        return -1;
    char area[path_area];
    cpystrn(area, path, sizeof(area));
    return make_prefixes(area, 0775);
}

int neo_mkdir_p(const char* path, mode_t mode)
{
    if (path == nullptr || *path == '\0')
        return -1;
    neo_cstr_ptr copy(str_dup(path));
    if (!copy)
        return -1;
    if (make_prefixes(copy.get(), mode) != 0)
        return -1;
    return make_dir(path, mode);
}

int mkdir_p(const char* path, mode_t mode)
{
    return neo_mkdir_p(path, mode);
}

char* neo_path_normalize(const char* path)
{
    if (path == nullptr)
        return nullptr;
    auto* out = static_cast<char*>(std::malloc(std::strlen(path) + 1));
    if (out == nullptr)
        return nullptr;
    char* d = out;
    for (const char* s = path; *s != '\0'; s++) {
        if (*s == '/' && d != out && d[-1] == '/')
            continue;
        *d++ = *s;
    }
    *d = '\0';
    return out;
}

char* path_normalize(const char* path)
{
    return neo_path_normalize(path);
}

// What a sweep of a directory removes: only its regular files, at every depth (the directories and the
// links stay), or everything inside it.
enum class sweep_kind { files, all };

// Sweeps the directory open as `fd` (owned here). Entries are reached through the directory's descriptor
// and never through a link, so a link swapped in during the walk cannot lead outside: a link is removed or
// left, never followed. An entry that is gone before it is removed counts as removed.
static int sweep_dir(int fd, sweep_kind kind)
{
    neo_dir_ptr dir(fdopendir(fd));
    if (!dir) {
        close(fd);
        return -1;
    }
    int rc = 0;
    while (struct dirent* e = readdir(dir.get())) {
        const char* name = e->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
            continue;
        unsigned char type = e->d_type;
        if (type == DT_UNKNOWN) {
            struct stat st;
            if (fstatat(dirfd(dir.get()), name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno != ENOENT)
                    rc = -1;
                continue;
            }
            type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_LNK;
        }
        const bool is_dir = type == DT_DIR;
        if (is_dir) {
            int sub = openat(dirfd(dir.get()), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (sub < 0 || sweep_dir(sub, kind) != 0)
                rc = -1;
        }
        if (kind == sweep_kind::all || type == DT_REG) {
            if (unlinkat(dirfd(dir.get()), name, is_dir ? AT_REMOVEDIR : 0) != 0 && errno != ENOENT)
                rc = -1;
        }
    }
    return rc;
}

int neo_remove_tree(const char* path)
{
    if (path == nullptr)
        return -1;
    struct stat st;
    if (lstat(path, &st) != 0)
        return errno == ENOENT ? 0 : -1;
    if (!S_ISDIR(st.st_mode))
        return unlink(path) == 0 || errno == ENOENT ? 0 : -1;
    int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return -1;
    int rc = sweep_dir(fd, sweep_kind::all);
    if (rmdir(path) != 0 && errno != ENOENT)
        rc = -1;
    return rc;
}

int neo_rmdir(const char* path)
{
    if (path == nullptr)
        return -1;
    struct stat st;
    if (lstat(path, &st) != 0)
        return errno == ENOENT ? 0 : -1;
    if (S_ISREG(st.st_mode))
        return unlink(path) == 0 ? 0 : -1;
    if (!S_ISDIR(st.st_mode))
        return 0;

    int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return -1;
    return sweep_dir(fd, sweep_kind::files);
}

void tryhelp_exit(int status, const char* prog)
{
    std::fprintf(stderr, "Try `%s -h' or '%s --help' for more information.\n", prog, prog);
    std::exit(status);
}

void version_exit(int status, const char* name, const char* version, const char* build)
{
    std::fprintf(stderr, "%s %s, %s\n", name, version, build);
    std::exit(status);
}

namespace {

// A temporary file that is removed unless it was renamed into place; errno survives the removal.
struct temp_file {
    std::string path;
    bool placed = false;
    ~temp_file()
    {
        if (!placed) {
            const int saved = errno;
            unlink(path.c_str());
            errno = saved;
        }
    }
};

struct file_closer {
    void operator()(FILE* f) const noexcept { std::fclose(f); }
};

}  // namespace

int neo_replace_file(const std::string& target, std::string_view temp_name,
                     const std::function<bool(FILE* fp)>& fill, mode_t mode)
{
    const std::size_t slash = target.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : target.substr(0, slash == 0 ? 1 : slash);
    const std::string lead = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    temp_file tmp{lead + std::string(temp_name) + "XXXXXX"};
    const int fd = mkostemp(tmp.path.data(), O_CLOEXEC);
    if (fd < 0) {
        tmp.placed = true;  // nothing was made
        return NEO_REPLACE_OPEN;
    }
    FILE* raw = fdopen(fd, "w");
    if (raw == nullptr) {
        const int saved = errno;
        close(fd);
        errno = saved;
        return NEO_REPLACE_OPEN;
    }
    std::unique_ptr<FILE, file_closer> fp(raw);
    // mkostemp makes the file 0600; the mode asked for is set before a byte is written.
    errno = 0;
    if (fchmod(fd, mode) != 0 || !fill(fp.get()) || std::fflush(fp.get()) != 0 || fsync(fd) != 0) {
        if (errno == 0)
            errno = EIO;
        return NEO_REPLACE_WRITE;
    }
    if (std::fclose(fp.release()) != 0)
        return NEO_REPLACE_WRITE;
    if (std::rename(tmp.path.c_str(), target.c_str()) != 0)
        return NEO_REPLACE_WRITE;
    tmp.placed = true;
    // The rename reaches the disk only with its directory; without this a crash can bring the old back.
    const int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
        (void)fsync(dfd);
        close(dfd);
    }
    return 0;
}
