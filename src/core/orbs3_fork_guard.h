// Sanitizer builds: locks the sanitizer's allocator around every fork (see orbs3_sanitizer_fork.cpp); a
// no-op otherwise. Called first in main, and by the log before it registers its own fork handler.
#pragma once

void orbs3_fork_guard_init();
