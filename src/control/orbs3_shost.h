// Client of the cluster controller shost: register, load the vhosts, report alive.
#pragma once

void* orbs3_shost_thread(void* arg);
