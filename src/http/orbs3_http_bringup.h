// Bring-up of the HTTP layer: every request head that arrives on a connection is answered with the fixed
// test reply, so the event loop and the worker can run and be measured before the HTTP engine exists.
// The HTTP engine replaces this module; its entry points keep these names.
#pragma once

#include <cstddef>

#include "event/orbs3_connection.h"

// The listener's handler: sets the connection up (I/O wrappers, handlers, buffers) and registers it for
// one read event. A connection that cannot be set up is closed.
void orbs3_http_init_connection(orbs3_connection_t* c);
// Reads into the connection's head buffer and answers each complete head ("\r\n\r\n"); a head larger
// than the buffer, the peer's close or an error close the connection.
void orbs3_http_wait_request_handler(orbs3_event_t* ev);
// Closes a client connection; a listening connection is never closed by an event.
void orbs3_http_connection_exit_handler(orbs3_connection_t* c);
void orbs3_http_events_empty(orbs3_event_t* ev);

// Writes the fixed reply; what the socket does not take waits in the connection's send queue. 0: all sent. -2: the rest
// goes out on write events, after which the connection reads again. -1: the connection is to be closed.
// The socket stays non-blocking throughout.
[[nodiscard]] int test_orbs3_http_send_200_OK(orbs3_connection_t* c);

// The fixed reply for a date text into out: its length, or 0 when it does not fit.
std::size_t orbs3_http_bringup_reply(char* out, std::size_t size, const char* date);
// The current time as the reply's Date value, e.g. "Sun, 6 Nov 1994 08:49:37 GMT".
void orbs3_http_bringup_date(char* out, std::size_t size);
