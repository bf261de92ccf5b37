#include "control/orbs3_shost.h"

#include <unistd.h>

void* orbs3_shost_thread(void* arg)
{
    (void)arg;
    // Registration with shost and the load of the vhosts come with the tenants.
    for (;;)
        sleep(3);
    return nullptr;
}
