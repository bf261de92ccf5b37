// Directory and file helpers for start-up and for the storage trees.
#pragma once

#include <string_view>

#include <string>

#include <functional>

#include <cstdio>

#include <dirent.h>
#include <sys/types.h>

#include <memory>

// Owner of an open directory stream.
struct neo_dir_closer {
    void operator()(DIR* d) const noexcept { closedir(d); }
};
using neo_dir_ptr = std::unique_ptr<DIR, neo_dir_closer>;

// 0 if the path exists, else the errno of access(F_OK); -1 for a null path.
[[nodiscard]] int neo_file_exist(const char* path);

// 1 for a directory that is not a symbolic link, else 0. A failure other than ENOENT is written to
// standard error.
[[nodiscard]] int neo_isdir(const char* path);

// Creates every prefix of `path` that ends before a "/", with mode 0775; the part behind the last "/"
// is not created, so a file's path makes its parents and "a/b/c/" makes c too. The path is cut at
// 1024 bytes. 0, or -1 when a prefix can be neither made nor found.
[[nodiscard]] int neo_mkdir(const char* path);

// Creates the directory and all its parents with `mode`; an existing directory is no error. 0 or -1.
int neo_mkdir_p(const char* path, mode_t mode);
int mkdir_p(const char* path, mode_t mode);

// A malloc'd copy with every run of "/" collapsed to one; the caller frees it. Null for a null path
// or when memory runs out.
[[nodiscard]] char* neo_path_normalize(const char* path);
[[nodiscard]] char* path_normalize(const char* path);

// Removes every regular file below `path` and keeps the directories, so the tree stays, empty.
// Symbolic links and other entries are left alone and never followed. A missing path gives 0; a
// failure to read a directory or remove a file gives -1 (the walk goes on with the rest).
[[nodiscard]] int neo_rmdir(const char* path);

// Removes `path` and, for a directory, everything below it. Links are removed, never followed. A missing
// path gives 0; -1 when anything could not be removed (the rest is still removed).
[[nodiscard]] int neo_remove_tree(const char* path);

// Replaces `target` whole: `fill` writes the new content into a temporary file beside it (named
// `temp_name` plus six random characters, in target's directory, mode 0644), which is flushed to disk and
// renamed over `target`, and the directory is synced. A reader sees the old file or the new one, never
// half of either, and a crash leaves at worst a temporary behind. `fill` returns false on failure.
// 0; NEO_REPLACE_OPEN when the temporary could not be made, NEO_REPLACE_WRITE when writing or renaming
// failed; errno tells why, and no temporary stays. The new file gets `mode` (files that hold secrets
// pass 0600).
inline constexpr int NEO_REPLACE_OPEN = -1;
inline constexpr int NEO_REPLACE_WRITE = -2;
[[nodiscard]] int neo_replace_file(const std::string& target, std::string_view temp_name,
                                   const std::function<bool(FILE* fp)>& fill, mode_t mode = 0644);

// Usage hints at start-up; both write to standard error and exit with `status`.
[[noreturn]] void tryhelp_exit(int status, const char* prog);
[[noreturn]] void version_exit(int status, const char* name, const char* version, const char* build);
