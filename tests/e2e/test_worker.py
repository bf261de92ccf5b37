"""The worker process and its event loop, for one provisioned tenant on a free port.

The requests here carry no credentials and ask for an object's ACL, which nobody may read without them,
so the S3 front end answers each one 403 AccessDenied before any action runs; the worker's debug trace ("accept fd=.. on thread ..", "close fd=.. on
thread ..", the counters line) shows how connections were spread and that each one was closed again.
"""

import os
import re
import resource
import signal
import socket
import threading
import time

import pytest

from orbmux_harness import (DEBUG_FILE, OFFLINE_START, Sandbox, free_port, pid_alive, port_accepts, wait_for,
                             workers_of)

DATE = re.compile(
    rb"\r\nDate: ((Sun|Mon|Tue|Wed|Thu|Fri|Sat), [1-9]\d? "
    rb"(Jan|Feb|Mar|Apr|May|Jun|jul|Aug|Sept|Oct|Nov|Dec) \d{4} \d\d:\d\d:\d\d GMT)\r\n")
REQUEST = b"GET /bucket/object?acl HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: e2e\r\n\r\n"
ACCEPT_LINE = re.compile(r"accept fd=(\d+) on thread (-?\d+)")
CLOSE_LINE = re.compile(r"close fd=(\d+) on thread (-?\d+)")
COUNTERS_LINE = re.compile(r"connections accepted=(\d+) open=(-?\d+) closed=(\d+) free slots=(-?\d+)")

# The head buffer of the built-in configuration.
HEAD_BUFFER = 1 << 20

REQUEST_ID = re.compile(rb"\r\nx-amz-request-id: ([0-9a-f]{32})\r\n")
ANY_REQUEST_ID = b"0" * 32

INVALID_ACCESS_KEY = (b"InvalidAccessKeyId",
                      b"The HARROWMINT access key ID you provided does not exist in our records.")
ACCESS_DENIED = (b"AccessDenied", b"Access Denied")


def error_document(code, message, resource, request_id):
    return (b'<?xml version="1.0" encoding="utf-8"?><Error><Code>' + code + b"</Code><Message>" + message
            + b"</Message><Resource>" + resource + b"</Resource><RequestId>" + request_id
            + b"</RequestId></Error>\n")


def error_reply(status, code, message, resource, date, request_id, connection=b"keep-alive", head_only=False):
    """An S3 error reply, byte for byte, for the date and request id the server wrote; a reply to HEAD
    has no document. The id in the head is the document's RequestId. `status` is the status line's text
    behind the version, e.g. b"403 Forbidden"."""
    doc = b"" if head_only else error_document(code, message, resource, request_id)
    return (b"HTTP/1.1 " + status + b"\r\nDate: " + date + b"\r\nContent-Length:" + str(len(doc)).encode()
            + b"\r\nConnection: " + connection + b"\r\nServer: KELVANE 1.0\r\nx-amz-request-id: " + request_id
            + b"\r\nContent-Type: text/xml\r\n\r\n" + doc)


def expected_reply(date, request_id=ANY_REQUEST_ID, connection=b"keep-alive", head_only=False):
    """The reply to REQUEST."""
    return error_reply(b"403 Forbidden", *ACCESS_DENIED, b"/", date, request_id, connection, head_only)


def check_error_reply(got, status, code, message, resource, connection=b"keep-alive", head_only=False):
    """Asserts that `got` is exactly that error reply, Date and request id aside, with the same request id
    in head and document; returns it."""
    m = DATE.search(got)
    assert m, f"no Date in {got!r}"
    rid = REQUEST_ID.search(got)
    assert rid, f"no 32-hex x-amz-request-id in {got!r}"
    want = error_reply(status, code, message, resource, m.group(1), rid.group(1), connection, head_only)
    assert got == want, f"\n got {got!r}\nwant {want!r}"
    return rid.group(1)


def read_replies(sock, n=1, ids=None):
    """Reads n replies to GET without credentials (head and document each), checking each byte for byte,
    Date and RequestId aside; their request ids go to `ids` when given. Returns what came behind them."""
    data = b""

    def more():
        chunk = sock.recv(65536)
        assert chunk, f"connection closed after {data[:300]!r}"
        return chunk

    for _ in range(n):
        while b"\r\n\r\n" not in data:
            data += more()
        head_len = data.index(b"\r\n\r\n") + 4
        m = DATE.search(data[:head_len])
        assert m, f"unexpected reply head {data[:head_len]!r}"
        size = len(expected_reply(m.group(1)))  # a request id is always 32 digits
        while len(data) < size:
            data += more()
        request_id = check_error_reply(data[:size], b"403 Forbidden", *ACCESS_DENIED, b"/")
        if ids is not None:
            ids.append(request_id)
        data = data[size:]
    return data


def connect(port, timeout=10):
    s = socket.create_connection(("127.0.0.1", port), timeout=timeout)
    return s


def worker_threads(pid):
    """(comm, allowed cpus) of every thread of the process."""
    out = []
    for tid in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{tid}/comm") as f:
                comm = f.read().strip()
            with open(f"/proc/{pid}/task/{tid}/status") as f:
                cpus = re.search(r"Cpus_allowed_list:\s*(\S+)", f.read()).group(1)
        except OSError:
            continue
        out.append((comm, cpus))
    return out


def expected_epoll_threads():
    return max(1, min(os.cpu_count() or 1, 200))


class Service:
    """A running daemon with its test service's worker."""

    def __init__(self, sandbox, daemon, port):
        self.sandbox = sandbox
        self.daemon = daemon
        self.port = port
        pids = wait_for(lambda: workers_of(daemon.pid), timeout=OFFLINE_START + 10, what="worker process")
        assert len(pids) == 1, pids
        self.worker, self.title = pids[0]
        # The port takes connections into its backlog as soon as it listens; the worker serves once its
        # epoll threads have registered it.
        wait_for(lambda: f"worker process http:127.0.0.1:{port} started" in self.debug(), what="worker start")
        wait_for(lambda: len(re.findall(r"worker thread \d+ on cpu", self.debug())) == expected_epoll_threads(),
                 what="every epoll thread up")
        wait_for(lambda: port_accepts(port), what=f"worker accepting on port {port}")

    def debug(self):
        try:
            return self.sandbox.read(DEBUG_FILE)
        except FileNotFoundError:
            return ""

    def counts(self, since=0):
        text = self.debug()[since:]
        return len(ACCEPT_LINE.findall(text)), len(CLOSE_LINE.findall(text))

    def wait_all_closed(self, timeout=15):
        """Every accepted connection has been closed, by the per-connection traces and the counters."""
        def settled():
            accepted, closed = self.counts()
            lines = COUNTERS_LINE.findall(self.debug())
            if not lines or accepted != closed:
                return False
            a, o, c, _ = (int(x) for x in lines[-1])
            return a == accepted and c == closed and o == 0
        wait_for(settled, timeout=timeout, what="every accepted connection closed")


def start_service(sandbox):
    port = free_port()
    sandbox.add_tenant("test", port)
    d = sandbox.start("-d")
    return Service(sandbox, d, port)


@pytest.fixture(scope="module", autouse=True)
def enough_descriptors():
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    want = 2048 if hard == resource.RLIM_INFINITY else min(hard, 2048)
    if soft < want:
        resource.setrlimit(resource.RLIMIT_NOFILE, (want, hard))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


@pytest.fixture(scope="module")
def service():
    box = Sandbox()
    try:
        yield start_service(box)
    finally:
        box.cleanup()


def test_worker_has_its_title_and_one_pinned_epoll_thread_per_cpu(service):
    assert service.title == f"orbmux:http:127.0.0.1:{service.port}".encode()
    epoll = [cpus for comm, cpus in worker_threads(service.worker) if comm == "worker thread"]
    n = expected_epoll_threads()
    assert sorted(epoll, key=int) == [str(i) for i in range(n)], epoll
    assert re.search(r"vhost:[0-9a-f]+,test,[^,]*,active,false", service.debug())


def test_refusal_without_credentials_arrives_byte_exact_for_every_request_of_every_connection(service):
    ids = []
    for _ in range(10):
        with connect(service.port) as s:
            for _ in range(3):  # keep-alive: one request after the other
                s.sendall(REQUEST)
                assert read_replies(s, ids=ids) == b""
            s.sendall(REQUEST + REQUEST)  # pipelined
            assert read_replies(s, 2, ids) == b""
    assert len(set(ids)) == len(ids) == 50, "request ids repeat"


def test_four_hundred_concurrent_connections_are_all_served_and_spread_over_threads(service):
    clients = 400
    per_thread = 25
    since = len(service.debug())
    barrier = threading.Barrier(clients // per_thread)
    failures = []

    def run():
        socks = []
        try:
            for _ in range(per_thread):
                socks.append(connect(service.port))
            barrier.wait(timeout=30)  # all 400 open at once
            for s in socks:
                s.sendall(REQUEST)
            for s in socks:
                assert read_replies(s) == b""
        except Exception as e:  # noqa: BLE001 - reported below with the others
            failures.append(repr(e))
            barrier.abort()
        finally:
            for s in socks:
                s.close()

    threads = [threading.Thread(target=run) for _ in range(clients // per_thread)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(60)
    assert not failures, failures[:5]

    wait_for(lambda: service.counts(since)[0] == clients, timeout=60, what="all accept traces")
    accepts = ACCEPT_LINE.findall(service.debug()[since:])
    spread = {}
    for _, thread in accepts:
        spread[int(thread)] = spread.get(int(thread), 0) + 1
    assert -1 not in spread, "an accept outside an epoll thread"
    assert len(spread) >= min(2, expected_epoll_threads()), spread
    assert set(spread) <= set(range(expected_epoll_threads()))
    service.wait_all_closed()


def test_clients_that_send_nothing_or_half_a_request_cost_nothing_lasting(service):
    socks = [connect(service.port) for _ in range(60)]
    for i, s in enumerate(socks):
        if i % 3 == 1:
            s.sendall(REQUEST[:i % len(REQUEST) + 1])
        elif i % 3 == 2:
            # A head larger than the buffer (1 MiB without http.conf): refused with the 400 page, closed.
            try:
                s.sendall(b"GET /" + b"k" * HEAD_BUFFER)
            except OSError:
                pass
    for i, s in enumerate(socks):
        if i % 3 == 2:
            got = b""
            while chunk := s.recv(65536):
                got += chunk
            assert got.startswith(b"HTTP/1.1 400 Bad Request\r\n"), got[:100]
    time.sleep(0.3)
    for s in socks:
        s.close()
    service.wait_all_closed()
    with connect(service.port) as s:
        s.sendall(REQUEST)
        assert read_replies(s) == b""
    service.wait_all_closed()


@pytest.mark.parametrize("signo", [signal.SIGTERM, signal.SIGPIPE])
def test_signal_to_the_worker_alone_does_nothing(service, signo):
    os.kill(service.worker, signo)
    time.sleep(1.5)
    assert pid_alive(service.worker)
    assert workers_of(service.daemon.pid)[0][0] == service.worker
    assert service.daemon.alive()
    with connect(service.port) as s:
        s.sendall(REQUEST)
        assert read_replies(s) == b""
    assert "worker process terminate" not in service.debug()


def test_sigterm_to_the_master_stops_the_worker_and_then_the_master(service):
    service.wait_all_closed()
    service.daemon.stop(signal.SIGTERM)  # exit 0, pid file gone, no process of the session left
    assert not pid_alive(service.worker)
    text = service.debug()
    assert f"tid[{service.worker}]: worker process terminate" in text
    assert f"tid[{service.worker}]: worker process exit" in text


@pytest.mark.parametrize("signo,trace", [(signal.SIGWINCH, "worker process terminate"),
                                         (signal.SIGINT, "worker process quit")])
def test_sigwinch_and_sigint_end_the_worker_at_once_and_the_master_stays(sandbox, signo, trace):
    svc = start_service(sandbox)
    started = time.monotonic()
    os.kill(svc.worker, signo)
    wait_for(lambda: not pid_alive(svc.worker), timeout=5, what="worker exit")
    elapsed = time.monotonic() - started
    assert elapsed < 2.5, f"worker took {elapsed:.2f}s to end"
    text = svc.debug()
    assert f"tid[{svc.worker}]: {trace}" in text
    assert f"tid[{svc.worker}]: worker process exit" in text
    assert "restart process" not in text, "the master saw the worker killed, not exiting"
    assert not port_accepts(svc.port)
    time.sleep(0.5)
    assert svc.daemon.alive()
    # The reaper recorded an orderly exit: with the worker marked gone, SIGTERM ends the master at once.
    svc.daemon.stop(signal.SIGTERM)
