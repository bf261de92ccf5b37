// The process title: the master shows as "orbmux:master", a worker as "orbmux:http:<addr>:<port>".
// The title is written over the process's own argument area, extended into the environment block, whose
// strings are first copied elsewhere so getenv keeps working.
#pragma once

extern int orbs3_argc;
extern char** orbs3_argv;          // private heap copy of the arguments, null-terminated
extern char** orbs3_os_argv;       // the process's own vector
extern char** orbs3_os_environ;
extern char* orbs3_os_argv_last;   // last usable byte of the title area

[[nodiscard]] int save_argv(int argc, char** argv);
void free_argv();
int init_proctitle();
void set_proctitle(const char* title);
