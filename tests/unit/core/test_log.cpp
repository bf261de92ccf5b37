#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>
#include <fstream>
#include <regex>
#include <string>

#include "core/orbs3_log.h"
#include "core/orbs3_process.h"
#include "temp_dir.h"

namespace {

void write_size(const std::string& path, off_t size)
{
    std::ofstream(path).close();
    ASSERT_EQ(truncate(path.c_str(), size), 0);
}

// Waits for a forked child and tells whether it was found asleep on a lock. The child has one thread, so a
// futex wait there is for a lock another thread of the parent held at fork: it is ended at once. A child
// that is only slow is waited for; its alarm is the last resort.
bool child_stuck_on_a_lock(pid_t pid)
{
    for (;;) {
        int status = 0;
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid)
            return !WIFEXITED(status) || WEXITSTATUS(status) != 0;
        if (done == -1)
            return true;
        std::ifstream in("/proc/" + std::to_string(pid) + "/syscall");
        long nr = -1;
        if (in >> nr && nr == SYS_futex) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return true;
        }
        usleep(500);
    }
}

}  // namespace

TEST(Log, LevelNamesAndUnknownLevelIsNotice)
{
    struct {
        int level;
        const char* expect;
    } const rows[] = {
        {LOG_EMERG, "EMERG, m"}, {LOG_ALERT, "ALERT, m"}, {LOG_CRIT, "CRIT, m"}, {LOG_ERR, "ERR, m"},
        {LOG_WARNING, "WARNING, m"}, {LOG_NOTICE, "NOTICE, m"}, {LOG_INFO, "INFO, m"}, {LOG_DEBUG, "DEBUG, m"},
        {9, "NOTICE, m"}, {-1, "NOTICE, m"},
    };
    for (const auto& row : rows) {
        char out[64];
        ipd_log_format(out, sizeof out, row.level, "%s", "m");
        EXPECT_STREQ(out, row.expect) << row.level;
    }
}

TEST(Log, MessageAbove1024BytesIsCutAt1023)
{
    std::string longmsg(3000, 'x');
    char out[4096];
    std::size_t n = ipd_log_format(out, sizeof out, LOG_ERR, "%s", longmsg.c_str());
    EXPECT_EQ(n, std::string("ERR, ").size() + 1023);
    EXPECT_EQ(std::string(out + 5), std::string(1023, 'x'));

    char tiny[8];
    EXPECT_EQ(ipd_log_format(tiny, sizeof tiny, LOG_ERR, "%s", "abcdef"), 7u);
    EXPECT_STREQ(tiny, "ERR, ab");
}

TEST(Log, ControlStatusTexts)
{
    EXPECT_STREQ(orbs3_get_error(0), "OK");
    EXPECT_STREQ(orbs3_get_error(1121), "Service is running");
    EXPECT_STREQ(orbs3_get_error(4086), "Not registered");
    EXPECT_STREQ(orbs3_get_error(7), "Unknow");
    EXPECT_STREQ(orbs3_get_error(-1), "Unknow");
}

TEST(Log, DebugFileOnlyWhenSwitchedOnAndRecreatedAfterRemoval)
{
    unit_test::temp_dir dir;
    std::string path = dir("orbmux.debug");
    ipd_log_init("orbmux-test", path.c_str());

    ipd_log_debug_close();
    ipd_debug("nobody reads %d", 1);
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "no file while debugging is off";

    ipd_log_debug_open();
    ipd_debug("first %s", "line");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);

    ASSERT_EQ(unlink(path.c_str()), 0);
    ipd_debug("second %d", 2);
    std::string text = unit_test::read_file(path);
    std::regex line(R"(\d{4}\.\d\d\.\d\d-\d\d:\d\d:\d\d tid\[\d+\]: second 2\n)");
    EXPECT_TRUE(std::regex_match(text, line)) << text;

    // An over-long trace is cut but still ends with its newline.
    ipd_debug("%s", std::string(5000, 'y').c_str());
    text = unit_test::read_file(path);
    EXPECT_EQ(text.back(), '\n');
    EXPECT_LE(text.size(), 2048u) << "each line is at most 1024 bytes";
    ipd_log_debug_close();
}

TEST(Log, RotationBySizeAndGenerations)
{
    unit_test::temp_dir dir;
    std::string live = dir("d.log");

    write_size(live, 10485760);
    EXPECT_EQ(checkblocksize(live.c_str()), -1) << "exactly 10 MiB does not rotate";
    write_size(live, 10485761);
    EXPECT_EQ(checkblocksize(live.c_str()), 0);
    EXPECT_NE(access(live.c_str(), F_OK), 0);
    EXPECT_EQ(access((live + ".1").c_str(), F_OK), 0);
    EXPECT_NE(access((live + ".2").c_str(), F_OK), 0) << "no older generations appear from nothing";

    // Five rotations keep four generations, newest in .1, and the oldest falls off.
    for (int i = 0; i < 5; ++i) {
        std::ofstream(live) << "gen" << i;
        restorelog(live.c_str());
    }
    EXPECT_EQ(unit_test::read_file(live + ".1"), "gen4");
    EXPECT_EQ(unit_test::read_file(live + ".4"), "gen1");
    EXPECT_NE(access((live + ".5").c_str(), F_OK), 0);
}

TEST(Log, RotationByAgeMeasuresAgainstFirstGeneration)
{
    unit_test::temp_dir dir;
    std::string live = dir("d.log");
    std::ofstream(live) << "x";
    EXPECT_EQ(checktimestamp(live.c_str()), -1) << "nothing to compare against";

    std::ofstream(live + ".1") << "old";
    struct timeval times[2] = {{1000000, 0}, {1000000, 0}};
    ASSERT_EQ(utimes((live + ".1").c_str(), times), 0);
    struct timeval young[2] = {{1000000 + 604800, 0}, {1000000 + 604800, 0}};
    ASSERT_EQ(utimes(live.c_str(), young), 0);
    EXPECT_EQ(checktimestamp(live.c_str()), -1);
    struct timeval aged[2] = {{1000000 + 604801, 0}, {1000000 + 604801, 0}};
    ASSERT_EQ(utimes(live.c_str(), aged), 0);
    EXPECT_EQ(checktimestamp(live.c_str()), 0);
    EXPECT_EQ(unit_test::read_file(live + ".2"), "old");
}

TEST(Log, UsageTextIsBuiltFromTheOptionString)
{
    EXPECT_STREQ(orbs3_usage_text(), "\nUsage: server [-dtkvh] [-l unknown-flag-argument]\n");
}

// Every second of 1900..2200 at a stride that hits each day at a different time, plus the edges: the
// arithmetic must agree with the C library field by field.
TEST(Log, GmtimeAgreesWithTheLibrary)
{
    std::vector<time_t> samples = {0, -1, 86399, 86400, 951782400 /* 2000-02-29 */, 4107542400 /* 2100-03-01 */,
                                   -2208988800 /* 1900-01-01 */, 2147483647, 2147483648};
    for (time_t t = -2208988800; t < 7258118400; t += 86400 * 3 + 3671)
        samples.push_back(t);
    for (time_t t : samples) {
        struct tm want, got;
        ASSERT_NE(gmtime_r(&t, &want), nullptr);
        orbs3_gmtime(t, &got);
        ASSERT_EQ(got.tm_year, want.tm_year) << t;
        ASSERT_EQ(got.tm_mon, want.tm_mon) << t;
        ASSERT_EQ(got.tm_mday, want.tm_mday) << t;
        ASSERT_EQ(got.tm_hour, want.tm_hour) << t;
        ASSERT_EQ(got.tm_min, want.tm_min) << t;
        ASSERT_EQ(got.tm_sec, want.tm_sec) << t;
        ASSERT_EQ(got.tm_wday, want.tm_wday) << t;
        ASSERT_EQ(got.tm_yday, want.tm_yday) << t;
    }
}

// A worker is forked while other master threads log. Unguarded, glibc's syslog and time-zone locks are
// copied into the child while held and its first log line waits for ever; each child here logs and
// stamps once, and one found waiting on a lock is counted.
TEST(Log, ChildForkedWhileAnotherThreadLogsCanLog)
{
    // The noise goes to syslog alone: without a syslog daemon the daemon's options send it to the console,
    // which may be a slow serial line that would delay the children. The options come back at the end.
    openlog("orbmux-test", LOG_PID, LOG_USER);
    std::atomic<bool> stop{false};
    std::thread noisy([&stop] {
        while (!stop.load()) {
            ipd_log(LOG_DEBUG, "noise from a master thread");
            (void)gettimestamp();
        }
    });
    int stuck = 0;
    for (int i = 0; i < 100; i++) {
        pid_t pid = fork();
        ASSERT_NE(pid, -1);
        if (pid == 0) {
            alarm(30);
            ipd_log(LOG_DEBUG, "first line of a child");
            (void)gettimestamp();
            _exit(0);
        }
        if (child_stuck_on_a_lock(pid))
            stuck++;
    }
    stop = true;
    noisy.join();
    ipd_log_reopen();
    EXPECT_EQ(stuck, 0);
}
