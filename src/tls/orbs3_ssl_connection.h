// TLS on a client connection: the first look at a new connection of a TLS listener, the handshake driven
// by the epoll thread under its own deadline, and afterwards the connection's recv and send, so that the
// HTTP engine works on it as on a plain one: a byte count, 0 when the peer's stream has ended, -1 on an
// error, -2 when the call must be tried again on a later event.
//
// Once the handshake has ended, the connection goes to the listener's `secure_handler` (the HTTP engine's
// start), which keeps the session's recv and send. The session ends through the connection's `shutdown`
// slot, which every close calls; its `pending` slot says whether the session holds input already.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <cstdint>

#include "event/orbs3_connection.h"
#include "event/orbs3_event.h"
#include "tls/orbs3_ssl.h"

struct orbs3_ssl_connection_t {
    SSL* connection;
    SSL_CTX* context;
    int last;              // result of the last read: -2 when the library had only part of a record
    orbs3_buf_t* buf;      // a write buffer, when one was set up (none today)
    uint64_t buffer_size;  // 16384
    orbs3_connection_handler_pt handler;  // called when a pending shutdown ends (none waits today)
    orbs3_event_handler_pt kept_read_handler;
    orbs3_event_handler_pt kept_write_handler;
    unsigned handshake_done : 1;
    unsigned peer_renegotiated : 1;  // the client started a handshake after the first one
    unsigned buffer : 1;
    unsigned skip_peer_close : 1;  // the peer's stream has ended, or it cannot send its close alert
    unsigned skip_own_close : 1;   // sending a close alert is pointless (the connection is dead)
    unsigned write_bio_sized : 1;
};

inline constexpr int ORBS3_SSL_BUFFER = 1;  // flags of orbs3_ssl_create_connection
inline constexpr int ORBS3_SSL_CLIENT = 2;

// The per-connection record, from the connection's pool, with its SSL on the connection's socket; sets
// c->ssl, c->pending and c->shutdown. 0 or -1 (logged).
[[nodiscard]] int orbs3_ssl_create_connection(orbs3_ssl_t* ssl, orbs3_connection_t* c, int flags);

// The listener's connection handler for TLS: the session's I/O, then the first look at once.
void orbs3_https_init_connection(orbs3_connection_t* c);
// Read handler of a new connection: peeks at its first byte. Plain HTTP (a byte with the high bit clear
// that is not a handshake record) is closed without a reply; anything else goes on to the handshake.
void orbs3_http_ssl_handshake(orbs3_event_t* ev);
// One step of the handshake: 0 done, -1 failed, -2 waiting for the socket (the direction the library
// asked for is armed). An asynchronous job (-3) does not arise: no context turns the library's
// asynchronous mode on, and a job that came all the same would fail the handshake.
int orbs3_ssl_handshake(orbs3_connection_t* c);
// Read and write handler while the handshake waits; closes the connection when its deadline passes.
void orbs3_ssl_handshake_handler(orbs3_event_t* ev);

// The connection's recv and send while a session is up. A send is one SSL_write that may take part of the
// buffer: after -2, the call must be repeated with the same bytes at the same place in the stream (they
// may sit at another address), and it returns the count the library took, never more than once.
ssize_t orbs3_ssl_read(orbs3_connection_t* c, uint8_t* buf, std::size_t size);
ssize_t orbs3_ssl_write(orbs3_connection_t* c, const uint8_t* buf, std::size_t size);
// Whether the session holds input the socket will not announce again.
bool orbs3_ssl_pending(const orbs3_connection_t* c);
// Sends the close alert when that makes sense, never waits for the peer's, and frees the session; the
// connection reads and writes plain bytes afterwards. 0; a connection without a session is left alone.
int orbs3_ssl_shutdown(orbs3_connection_t* c);
// The connection's exit handler during the handshake.
void orbs3_ssl_close_connection(orbs3_connection_t* c);
