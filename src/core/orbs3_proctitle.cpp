#include "core/orbs3_proctitle.h"

#include <cstdlib>
#include <cstring>

#include "memory/neo_string.h"

extern char** environ;

int orbs3_argc = 0;
char** orbs3_argv = nullptr;
char** orbs3_os_argv = nullptr;
char** orbs3_os_environ = nullptr;
char* orbs3_os_argv_last = nullptr;

static char* g_environ_copy = nullptr;

int save_argv(int argc, char** argv)
{
    orbs3_os_argv = argv;
    orbs3_os_environ = environ;
    orbs3_argc = argc;
    orbs3_argv = static_cast<char**>(std::calloc(static_cast<std::size_t>(argc) + 1, sizeof(char*)));
    if (orbs3_argv == nullptr)
        return -1;
    for (int i = 0; i < argc; ++i) {
        orbs3_argv[i] = strdup(argv[i]);
        if (orbs3_argv[i] == nullptr) {
            free_argv();
            return -1;
        }
    }
    return 0;
}

void free_argv()
{
    if (orbs3_argv == nullptr)
        return;
    for (int i = 0; orbs3_argv[i] != nullptr; ++i)
        std::free(orbs3_argv[i]);
    std::free(orbs3_argv);
    orbs3_argv = nullptr;
}

int init_proctitle()
{
    if (orbs3_os_argv == nullptr || orbs3_os_argv[0] == nullptr)
        return -1;
    std::size_t size = 0;
    for (int i = 0; environ[i] != nullptr; ++i)
        size += std::strlen(environ[i]) + 1;
    char* block = static_cast<char*>(std::malloc(size > 0 ? size : 1));
    if (block == nullptr)
        return -1;

    // The usable area is the argument strings that follow each other without a gap, then the environment
    // strings that continue them; anything that is not contiguous is not ours to overwrite.
    char* last = orbs3_os_argv[0];
    for (int i = 0; orbs3_os_argv[i] != nullptr; ++i)
        if (last == orbs3_os_argv[i])
            last = orbs3_os_argv[i] + std::strlen(orbs3_os_argv[i]) + 1;

    char* p = block;
    for (int i = 0; environ[i] != nullptr; ++i) {
        if (last == environ[i]) {
            std::size_t len = std::strlen(environ[i]) + 1;
            last = environ[i] + len;
            std::memcpy(p, environ[i], len);
            environ[i] = p;
            p += len;
        }
    }
    g_environ_copy = block;
    orbs3_os_argv_last = last - 1;
    return 0;
}

void set_proctitle(const char* title)
{
    if (orbs3_os_argv == nullptr || orbs3_os_argv_last == nullptr)
        return;
    orbs3_os_argv[1] = nullptr;
    char* start = orbs3_os_argv[0];
    std::size_t room = static_cast<std::size_t>(orbs3_os_argv_last - start) + 1;
    char* p = cpystrn(start, "orbmux:", room);
    p = cpystrn(p, title, static_cast<std::size_t>(orbs3_os_argv_last - p) + 1);
    if (p < orbs3_os_argv_last)
        std::memset(p, 0, static_cast<std::size_t>(orbs3_os_argv_last - p) + 1);
}
