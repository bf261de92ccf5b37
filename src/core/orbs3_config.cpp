#include "core/orbs3_config.h"

// Placeholder globals until the configuration reader lands; owned by the configuration work.
orbs3_sysconfig_t sysconfig{.http_pool_total = 0, .cycle_size = 16384, .listen_nsize = 16,
                            .epoll_notify_conn = 4096, .epoll_events = 1024, .epoll_events_timeout = 500,
                            .listenfd_size = 512, .recv_buffer = 1048576, .send_buffer = 1048576,
                            .conn_pool_size = 4100};
orbs3_conf_t orbs3_conf{};
orbs3_cycle_t* orbs3_cycle = nullptr;
