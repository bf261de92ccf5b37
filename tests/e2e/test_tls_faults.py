"""Faults and hostile peers on a TLS port, one daemon (handshake deadline 2 s in http.conf): plain HTTP,
old protocol versions, a handshake that stalls, pipelined requests in one record, a slow reader of a
100 MiB object (the worker's memory stays bounded), a client that vanishes without close_notify, and
session resumption through the shared cache, across the worker's threads and after the session timeout."""

import os
import re
import socket
import ssl
import subprocess
import time

import pytest

from orbmux_harness import SLOWDOWN, headers_of, md5, rss_kib, status_of, tenant_fixture, worker_pids

HANDSHAKE_TIMEOUT = 2
SESSION_TIMEOUT = 10
MIB = 1 << 20
BIG = 100 * MIB
SMALL = b"pipelined body\n"


def prepare(t):
    s3 = t.client()
    s3.put_object(Bucket="faults", Key="small", Body=SMALL)
    big = os.urandom(BIG)
    s3.put_object(Bucket="faults", Key="big", Body=big)
    t.big_md5 = md5(big)


tenant = tenant_fixture("tf", tls=True, buckets=("faults",), prepare=prepare,
                        http_conf=f'<?xml version="1.0"?>\n<https handshake_timeout="{HANDSHAKE_TIMEOUT}"/>\n')


def raw(t):
    return socket.create_connection(("127.0.0.1", t.port), timeout=30 * SLOWDOWN)


def closed_after(s, limit):
    """Seconds until the server closed the connection, having sent nothing; fails if it sent bytes. A
    reset counts as closed: the server drops what it did not read."""
    start = time.monotonic()
    s.settimeout(limit * SLOWDOWN)
    try:
        got = s.recv(4096)
    except ConnectionResetError:
        got = b""
    assert got == b"", f"the server answered {got[:80]!r}"
    return time.monotonic() - start


def test_plain_http_to_the_tls_port_is_closed_without_a_reply(tenant):
    with raw(tenant) as s:
        s.sendall(tenant.signed("GET", "/faults/small"))
        closed_after(s, 5)


def client_hello():
    """The first flight of a TLS client, as bytes: what a real client sends before it waits."""
    ctx = ssl.create_default_context()
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    obj = ctx.wrap_bio(incoming, outgoing, server_hostname="localhost")
    with pytest.raises(ssl.SSLWantReadError):
        obj.do_handshake()
    return outgoing.read()


@pytest.mark.parametrize("sent", ["nothing", "half a ClientHello", "a whole ClientHello"])
def test_a_stalled_handshake_is_closed_at_its_deadline(tenant, sent):
    hello = client_hello()
    data = {"nothing": b"", "half a ClientHello": hello[:len(hello) // 2], "a whole ClientHello": hello}[sent]
    with raw(tenant) as s:
        s.sendall(data)
        if sent == "a whole ClientHello":
            # The server's flight comes back; then it waits for the client's Finished, in vain.
            s.settimeout(5)
            assert s.recv(5)[:1] == b"\x16", "a handshake record"
            s.settimeout(HANDSHAKE_TIMEOUT * 4 * SLOWDOWN)
            start = time.monotonic()
            while s.recv(65536):
                pass
            took = time.monotonic() - start
        else:
            took = closed_after(s, HANDSHAKE_TIMEOUT * 4)
    print(f"stalled handshake ({sent}): closed after {took:.2f} s")
    assert HANDSHAKE_TIMEOUT - 0.5 <= took <= HANDSHAKE_TIMEOUT * 2.5 * SLOWDOWN, took


def s_client(t, *args, stdin=""):
    return subprocess.run(["openssl", "s_client", "-connect", f"127.0.0.1:{t.port}", "-CAfile", t.ca,
                           "-verify_return_error", *args], input=stdin, capture_output=True, text=True,
                          timeout=20 * SLOWDOWN)


@pytest.mark.parametrize("flag, accepted", [("-tls1", False), ("-tls1_1", False), ("-tls1_2", True),
                                            ("-tls1_3", True)])
def test_only_tls_1_2_and_1_3_are_spoken(tenant, flag, accepted):
    # Security level 0 so that the client itself offers the old versions rather than refusing to try.
    out = s_client(tenant, flag, *(["-cipher", "DEFAULT@SECLEVEL=0"] if flag in ("-tls1", "-tls1_1") else []))
    if accepted:
        assert out.returncode == 0 and re.search(r"^New, TLSv1\.[23]", out.stdout, re.M), out.stdout + out.stderr
    else:
        assert out.returncode != 0 and "alert protocol version" in out.stderr, out.stdout + out.stderr


def read_replies(s, count):
    """`count` whole replies framed by their Content-Length, read from one connection."""
    got, replies = b"", []
    while len(replies) < count:
        chunk = s.recv(65536)
        assert chunk, f"connection closed after {len(replies)} replies and {got!r}"
        got += chunk
        while b"\r\n\r\n" in got:
            end = got.index(b"\r\n\r\n") + 4
            size = end + int(headers_of(got[:end]).get("content-length", 0))
            if len(got) < size:
                break
            replies.append(got[:size])
            got = got[size:]
    assert got == b""
    return replies


def test_pipelined_requests_in_one_record_are_both_answered(tenant):
    two = tenant.signed("GET", "/faults/small") + tenant.signed("GET", "/faults/small?x-id=GetObject")
    assert len(two) < 16384, "one TLS record"
    with tenant.connect() as s:
        s.sendall(two)
        replies = read_replies(s, 2)
    assert [status_of(r) for r in replies] == [200, 200]
    assert all(r.endswith(b"\r\n\r\n" + SMALL) for r in replies)


def test_a_slow_reader_of_a_large_object_keeps_the_worker_small(tenant):
    [worker] = worker_pids(tenant)
    before = rss_kib(worker)
    plain = socket.socket()
    plain.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 64 * 1024)
    plain.settimeout(30 * SLOWDOWN)
    plain.connect(("127.0.0.1", tenant.port))
    with tenant.tls_context().wrap_socket(plain, server_hostname="127.0.0.1") as s:
        s.sendall(tenant.signed("GET", "/faults/big"))
        got = bytearray()
        peak = before
        stop = time.monotonic() + 4
        while time.monotonic() < stop:
            got += s.recv(16384)
            peak = max(peak, rss_kib(worker))
            time.sleep(0.01)
        slow = len(got)
        head_end = got.index(b"\r\n\r\n") + 4
        assert status_of(bytes(got[:head_end])) == 200
        want = head_end + BIG
        while len(got) < want:
            chunk = s.recv(1 << 20)
            assert chunk, f"closed after {len(got)} of {want} bytes"
            got += chunk
    assert slow < BIG // 4, f"the reader was not slow: {slow} bytes in 4 s"
    assert md5(bytes(got[head_end:])) == tenant.big_md5
    print(f"slow reader: {slow} bytes in 4 s, worker RSS {before} KiB before, peak {peak} KiB")
    assert (peak - before) < 64 * 1024, f"worker grew from {before} KiB to {peak} KiB"


@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3])
def test_a_client_that_vanishes_without_close_notify_keeps_its_session(tenant, version):
    ctx = tenant.tls_context()
    ctx.maximum_version = version
    s = tenant.connect(context=ctx)
    s.sendall(tenant.signed("GET", "/faults/small"))
    [reply] = read_replies(s, 1)
    assert status_of(reply) == 200
    session = s.session
    # Gone without a word: the TCP connection ends with no close_notify sent first.
    s.shutdown(socket.SHUT_RDWR)
    s.close()
    time.sleep(0.3)  # the server has seen the end before the session is asked for again
    with tenant.connect(context=ctx, session=session) as again:
        assert again.version() == {ssl.TLSVersion.TLSv1_2: "TLSv1.2", ssl.TLSVersion.TLSv1_3: "TLSv1.3"}[version]
        assert again.session_reused, "the session of the vanished client was dropped"
        again.sendall(tenant.signed("GET", "/faults/small", close=True))
        [reply] = read_replies(again, 1)
        assert status_of(reply) == 200 and reply.endswith(SMALL)


@pytest.mark.parametrize("flag", ["-tls1_2", "-tls1_3"])
def test_sessions_resume_on_every_thread_until_they_time_out(tenant, flag, tmp_path):
    sess = str(tmp_path / "session.pem")

    def handshake(*args):
        # One request answered and the connection closed by the server: a TLS 1.3 session arrives after
        # the handshake, so the client must stay to read it.
        out = s_client(tenant, flag, "-ign_eof", *args, stdin="GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
        assert out.returncode == 0 and "HTTP/1.1 " in out.stdout, out.stdout + out.stderr
        return re.search(r"^(New|Reused), TLSv1\.", out.stdout, re.M).group(1)

    assert handshake("-sess_out", sess) == "New"
    # Twenty connections: the worker's threads share the port, so they take them in turn.
    assert [handshake("-sess_in", sess) for _ in range(20)] == ["Reused"] * 20
    if flag == "-tls1_3":
        return  # the timeout is one and the same for both versions; wait for it once
    time.sleep(SESSION_TIMEOUT + 1)
    assert handshake("-sess_in", sess) == "New"
