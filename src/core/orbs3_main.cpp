// orbmux: S3 object storage served from plain files. This is the master's start.
#include <pthread.h>

#include <csignal>

#include "core/orbs3_fork_guard.h"
#include "core/orbs3_log.h"
#include "core/orbs3_prefix.h"
#include "core/orbs3_process.h"
#include "core/orbs3_proctitle.h"
#include "memory/neo_files.h"

int main(int argc, char** argv)
{
    orbs3_fork_guard_init();
    ipd_log_init("orbmux", orbs3_prefix_path(ORBS3_DEBUG_FILE).c_str());

    if (orbs3_get_options(argc, argv) != 0) {
        ipd_log(LOG_ERR, "Command send success");
        return -1;
    }

    (void)mkdir_p(orbs3_prefix_path(ORBS3_LOG_DIR).c_str(), 0755);
    (void)mkdir_p(orbs3_prefix_path(ORBS3_RUN_DIR).c_str(), 0755);

    if (orbs3_make_daemon() != 0) {
        ipd_log(LOG_ERR, "turn back service failed");
        return -1;
    }
    if (save_argv(argc, argv) != 0)
        return -1;
    // From the moment the pid file names us, a stop command may arrive: hold every signal until the
    // handlers stand, so none can end the master without its exit order.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    if (orbs3_set_running_pid() != 0) {
        ipd_log(LOG_ERR, "failed to set running pid");
        return -1;
    }
    if (sheild_signals() != 0) {
        ipd_log(LOG_ERR, "set signals failed");
        return -1;
    }
    (void)init_proctitle();
    set_proctitle("master");

    orbs3_master_process_cycle(argv);
    return 0;
}
