#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "core/orbs3_prefix.h"

TEST(Prefix, PutInFrontOfEveryPathAndNeverOverruns)
{
    setenv("ORBMUX_PREFIX", "/tmp/sandbox/", 1);
    orbs3_prefix_reload();
    EXPECT_EQ(orbs3_prefix_path(ORBS3_PID_FILE), "/tmp/sandbox/var/run/orbmux//orbmux.pid");
    EXPECT_EQ(orbs3_prefix_path("/etc/kelvane/conf/cluster-h.xml"), "/tmp/sandbox/etc/kelvane/conf/cluster-h.xml");

    char out[32];
    EXPECT_EQ(orbs3_prefix_path(out, sizeof out, "/etc/orbmux"), 0);
    EXPECT_STREQ(out, "/tmp/sandbox/etc/orbmux");
    // 12 + 19 + terminator = 32 fits exactly; one more byte does not.
    EXPECT_EQ(orbs3_prefix_path(out, sizeof out, "/var/log/lifecycle/"), 0);
    EXPECT_EQ(orbs3_prefix_path(out, sizeof out, "/var/log/lifecycle/x"), -1);
    EXPECT_STREQ(out, "");

    unsetenv("ORBMUX_PREFIX");
    orbs3_prefix_reload();
    EXPECT_EQ(orbs3_prefix_path(ORBS3_CONF), "/etc/orbmux/orbmux.conf");
}

// The master's threads build paths up to the moment the process ends; the prefix must outlive exit's
// destructors (the sanitizer build sees a read of freed memory otherwise).
TEST(PrefixDeathTest, PathsCanBeBuiltWhileTheProcessExits)
{
    EXPECT_EXIT(
        {
            setenv("ORBMUX_PREFIX", "/tmp/a-sandbox-prefix-longer-than-any-short-string", 1);
            orbs3_prefix_reload();
            std::thread([] {
                for (;;) {
                    std::string p = orbs3_prefix_path(ORBS3_PID_FILE);
                    if (p.empty())
                        std::abort();
                }
            }).detach();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}
