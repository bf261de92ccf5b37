#include "control/orbs3_ctrl_thread.h"

#include <unistd.h>

#include "control/orbs3_service_start.h"

void* orbs3_ctrl_thread(void* arg)
{
    (void)arg;
    // The pool must run before the shost thread's first load posts its start tasks (3 s later at the
    // earliest). Without it no worker can start, and the thread has nothing else to do.
    if (orbs3_ctrl_pool_init() != 0)
        return nullptr;
    // The control socket and its messages come later; until then there is nothing to answer.
    for (;;)
        sleep(1);
    return nullptr;
}

void* orbs3_check_worker_thread(void* arg)
{
    (void)arg;
    for (;;)
        sleep(3);
    return nullptr;
}

void orbs3_ctrl_thread_exit()
{
}
