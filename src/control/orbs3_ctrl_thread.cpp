#include "control/orbs3_ctrl_thread.h"

#include <unistd.h>

void* orbs3_ctrl_thread(void* arg)
{
    (void)arg;
    // The control socket opens with the tenants; until then there is no message to answer.
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
