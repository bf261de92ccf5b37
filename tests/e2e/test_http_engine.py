"""The HTTP engine on the wire: framing, keep-alive, pipelining, bodies and deadlines, with raw sockets.

One daemon serves the module, with a request deadline of two seconds and the 4096-byte head buffer that
an http element without sizes gives, and with signatures="off" in orbmux.conf: a request that names the
tenant's access key ("Authorization: AWS <key>:x") passes admission whatever its signature, so these
tests speak the wire by hand. The tenant has the bucket "bucket": a GET or HEAD of a key nobody stored is
answered 404 NoSuchKey naming bucket and key, a PutObject stores its body (the object's data file is how
these tests see that a body arrived intact), actions not built yet (DeleteObject, DeleteObjects) answer
501 NotImplemented, and an OPTIONS request gets the preflight reply.
"""

import hashlib
import io
import os
import logging
import random
import re
import select
import socket
import struct
import threading
import time
import urllib.parse

import pytest

from orbmux_harness import DEFAULT_ORBMUX_CONF, SLOWDOWN, Sandbox, free_port, wait_for, wait_port
from test_worker import ACCESS_DENIED, DATE, INVALID_ACCESS_KEY, REQUEST, check_error_reply, read_replies

TIMEOUT = 2
HTTP_CONF = f'<?xml version="1.0"?>\n<http timeout="{TIMEOUT}"/>\n'
ORBMUX_CONF = DEFAULT_ORBMUX_CONF.replace("<orbmux ", '<orbmux signatures="off" ', 1)
assert ORBMUX_CONF != DEFAULT_ORBMUX_CONF
HEAD_BUFFER = 4096
DOCUMENT_MAX = 8 << 20

CONTINUE = b"HTTP/1.1 100 Continue\r\n\r\n"


def error_page(code, reason):
    return (f"HTTP/1.1 {code} {reason}\r\nServer: KELVANE 1.0\r\nConnection: close\r\n\r\n"
            f"<html>\r\n<head><title>{code} {reason}</title></head>\r\n<body bgcolor=\"white\">\r\n"
            f"<center><h1>{code} {reason}</h1></center>\r\n").encode()


PAGE_400 = error_page(400, "Bad Request")
PAGE_403 = error_page(403, "Forbidden")

NO_SUCH_KEY = (b"NoSuchKey", b"The specified key does not exist.")
MALFORMED_XML = (b"MalformedXML",
                 b"The XML you provided was not well-formed or did not validate against our published schema.")
TOO_LARGE = (b"MaxMessageLengthExceeded", b"Your request was too big.")

# The tenant's access key, set when the module's daemon starts.
ACCESS_KEY = None


def request(method="GET", uri="/bucket/object", version="1.1", headers=(), body=b"", auth=True):
    """A request on the wire; `auth` names the tenant's key, which is all admission asks when signatures
    are off."""
    lines = [f"{method} {uri} HTTP/{version}", "Host: 127.0.0.1", *headers]
    if auth:
        assert ACCESS_KEY is not None
        lines.append(f"Authorization: AWS {ACCESS_KEY}:x")
    return ("\r\n".join(lines) + "\r\n\r\n").encode() + body


def preflight_reply(date, connection=b"keep-alive"):
    """The reply to OPTIONS without Origin and Access-Control-Request-Headers: both echoed empty."""
    return (b"HTTP/1.1 200 OK\r\nDate: " + date + b"\r\nConnection: " + connection + b"\r\nContent-Length:0"
            b"\r\nAccess-Control-Allow-Origin:\r\nAccess-Control-Allow-Methods:POST, GET, PUT, HEAD, DELETE, OPTIONS"
            b"\r\nAccess-Control-Allow-Headers: \r\nServer: KELVANE\r\n\r\n")


class Client:
    """A raw connection that reads replies one at a time and keeps what came behind them."""

    def __init__(self, port, timeout=10, rcvbuf=None):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if rcvbuf is not None:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
        self.sock.settimeout(timeout * SLOWDOWN)
        self.sock.connect(("127.0.0.1", port))
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.buf = b""

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.sock.close()

    def send(self, data):
        self.sock.sendall(data)

    def _more(self):
        chunk = self.sock.recv(65536)
        assert chunk, f"connection closed; had {self.buf[:300]!r}"
        self.buf += chunk

    def take(self, n):
        while len(self.buf) < n:
            self._more()
        out, self.buf = self.buf[:n], self.buf[n:]
        return out

    def reply(self, head_only=False):
        """One reply, head and body (by Content-Length; none for a reply to HEAD)."""
        while b"\r\n\r\n" not in self.buf:
            self._more()
        end = self.buf.index(b"\r\n\r\n") + 4
        m = re.search(rb"\r\nContent-Length:\s*(\d+)\r\n", self.buf[:end])
        length = 0 if head_only or m is None else int(m.group(1))
        return self.take(end + length)

    def answered(self, resource=b"bucket/object", connection=b"keep-alive", head_only=False, kind="get"):
        """Reads one reply and checks it byte for byte apart from the Date, RequestId and ETag values:
        "get" the 404 NoSuchKey of `resource`, "put" the 200 of a stored object, "deleted" the 204 of a
        delete, "malformed" the 400 MalformedXML of a document that names nothing to do."""
        got = self.reply(head_only)
        if kind == "put":
            m = DATE.search(got)
            e = re.search(rb"\r\nEtag: (\"[0-9a-f]{32}\")\r\n", got)
            assert m and e, got
            assert got == (b"HTTP/1.1 200 OK\r\nDate: " + m.group(1) + b"\r\nEtag: " + e.group(1)
                           + b"\r\nConnection: " + connection + b"\r\nContent-Length:0\r\nServer: KELVANE\r\n\r\n"), got
        elif kind == "deleted":
            m = DATE.search(got)
            assert m, got
            assert got == (b"HTTP/1.1 204 No Content\r\nDate: " + m.group(1) + b"\r\nConnection: " + connection
                           + b"\r\nContent-Length:0\r\nServer: KELVANE\r\n\r\n"), got
        elif kind == "malformed":
            check_error_reply(got, b"400 Bad Request", *MALFORMED_XML, resource, connection, head_only)
        else:
            check_error_reply(got, b"404 Not Found", *NO_SUCH_KEY, resource, connection, head_only)
        return got

    def preflight(self, connection=b"keep-alive"):
        got = self.reply(head_only=True)
        m = DATE.search(got)
        assert m, f"no Date in {got!r}"
        assert got == preflight_reply(m.group(1), connection), got
        return got

    def eof(self, timeout=5):
        """Asserts that the server closes without sending another byte. A reset counts as a close."""
        self.sock.settimeout(timeout * SLOWDOWN)
        try:
            chunk = self.sock.recv(65536)
        except ConnectionResetError:
            chunk = b""
        assert self.buf + chunk == b"", f"bytes where the connection should end: {(self.buf + chunk)[:300]!r}"

    def quiet(self, seconds=0.3):
        """Nothing arrives for a while, and the connection stays open."""
        r, _, _ = select.select([self.sock], [], [], seconds)
        assert not r and self.buf == b"", f"unexpected bytes {self.buf!r} / readable {bool(r)}"


def tcp_state(sock):
    """The kernel's TCP state of the socket: 1 is ESTABLISHED; the first byte of struct tcp_info."""
    return struct.unpack("B", sock.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 104)[:1])[0]


TCP_ESTABLISHED = 1


def stored(box, key, body):
    """The object's data file holds exactly the body that was sent."""
    with open(box.path(f"cluster/tenants/engine/data/engine-user/bucket/{key}"), "rb") as f:
        assert f.read() == body, key


@pytest.fixture(scope="module")
def engine():
    global ACCESS_KEY
    box = Sandbox(orbmux_conf=ORBMUX_CONF, http_conf=HTTP_CONF)
    port = free_port()
    tenant = box.add_tenant("engine", port)
    ACCESS_KEY = tenant["access_key"]
    daemon = box.start("-d")
    try:
        wait_port(port)
        with Client(port) as c:
            c.send(request("PUT", "/bucket", headers=["Content-Length: 0"]))
            assert c.reply().startswith(b"HTTP/1.1 200 OK\r\n")
        yield box, daemon, port, tenant
    finally:
        ACCESS_KEY = None
        box.cleanup()


def signed_get():
    return request("GET", "/bucket/object")


def test_signatures_off_is_warned_about_and_admission_still_asks_for_a_known_key(engine):
    _, daemon, port, tenant = engine
    daemon.wait_log(r'request signatures are not verified: signatures="off" in \S*/etc/orbmux/orbmux\.conf')
    with Client(port) as c:
        # Any signature passes, V4 as V2, user key as administrator key.
        c.send(signed_get())
        c.answered()
        c.send(request("GET", "/bucket/v4", headers=[
            f"Authorization: AWS4-HMAC-SHA256 Credential={tenant['admin_access_key']}/20260101/us-east-1/s3/"
            "aws4_request, SignedHeaders=host, Signature=00"], auth=False))
        c.answered(b"bucket/v4")
        # An unknown key is still refused, and a request without any is too.
        c.send(request("GET", "/bucket/other", headers=["Authorization: AWS NOSUCHKEY:x"], auth=False))
        check_error_reply(c.reply(), b"403 Forbidden", *INVALID_ACCESS_KEY, b"/")
        c.send(REQUEST)
        assert read_replies(c.sock) == b""


def test_keep_alive_serves_two_hundred_requests_on_one_connection_until_connection_close(engine):
    port = engine[2]
    methods = ["GET", "HEAD", "DELETE", "OPTIONS"]
    with Client(port) as c:
        for i in range(200):
            method = methods[i % len(methods)]
            c.send(request(method, f"/bucket/key-{i}"))
            if method == "OPTIONS":
                c.preflight()
            else:
                c.answered(f"bucket/key-{i}".encode(), head_only=method == "HEAD",
                           kind="deleted" if method == "DELETE" else "get")
        c.send(request("GET", headers=["Connection: close"]))
        c.answered(connection=b"close")
        c.eof()


def test_http10_closes_after_the_reply_unless_it_asks_for_keep_alive(engine):
    port = engine[2]
    with Client(port) as c:
        c.send(request(version="1.0"))
        c.answered(connection=b"close")
        c.eof()
    with Client(port) as c:
        for _ in range(3):
            c.send(request(version="1.0", headers=["Connection: keep-alive"]))
            c.answered(connection=b"keep-alive")
        c.quiet()
        c.send(request(version="1.0"))
        c.answered(connection=b"close")
        c.eof()


# A head the engine cannot take gets the 400 page and a close: a client that is told can stop sending and
# need not wait for its deadline. A NUL in a header, a URI that fills the head buffer, a decoded NUL in the
# key and a head that does not fit are all refused so; the next request behind them is not taken up.
@pytest.mark.parametrize("name,head", [
    ("nul-in-header", lambda: request(headers=["X-Nul: a\0b"])),
    ("nul-in-header-name", lambda: request(headers=["X-N\0ul: ab"])),
    ("nul-key", lambda: request(uri="/bucket/a%00b")),
    ("uri-of-4-kib", lambda: request(uri="/bucket/" + "k" * 4096)),
    ("uri-just-over-the-buffer", lambda: request(uri="/bucket/" + "%C3%A9" * 680)),
    ("headers-of-8-kib", lambda: request(headers=[f"X-Pad-{i}: " + "p" * 100 for i in range(80)])),
])
def test_a_head_that_cannot_be_taken_gets_a_400_and_a_close(engine, name, head):
    _, daemon, port, _ = engine
    with Client(port) as c:
        try:
            c.send(head() + signed_get())
        except (BrokenPipeError, ConnectionResetError):
            pass
        assert c.take(len(PAGE_400)) == PAGE_400, name
        c.eof()
    if name.startswith("headers"):
        daemon.wait_log(rf"client sent too large request head: more than {HEAD_BUFFER} bytes")


def test_a_long_percent_encoded_key_with_a_long_query_fits_the_head_and_is_served(engine):
    port = engine[2]
    # A long key the default limits and the sandbox's path depth take: six components of 127 bytes, every
    # byte but one of each percent-encoded (2279 bytes on the wire), behind a query as long as a presigned
    # URL's.
    part = "é" * 63 + "a"
    key = "/".join([part] * 6)
    uri = "/bucket/" + urllib.parse.quote(key, safe="/")
    query = ("?X-Amz-Algorithm=AWS4-HMAC-SHA256&X-Amz-Credential=AKIAEXAMPLE%2F20260101%2Fus-east-1%2Fs3%2F"
             "aws4_request&X-Amz-Date=20260101T000000Z&X-Amz-Expires=600&X-Amz-SignedHeaders=host"
             "&X-Amz-Signature=" + "0" * 64)
    body = b"long key body"
    put = request("PUT", uri, headers=[f"Content-Length: {len(body)}"], body=body)
    get = request("GET", uri + query)
    assert len(get) < HEAD_BUFFER
    with Client(port) as c:
        c.send(put)
        assert c.reply().startswith(b"HTTP/1.1 200 OK\r\n")
        c.send(get)
        got = c.reply()
        assert got.startswith(b"HTTP/1.1 200 OK\r\n") and got.endswith(b"\r\n\r\n" + body), got


# A last byte past the end, however far (past int64, past uint64), is a range to the end; a first byte
# that far is past every end.
def test_ranges_with_numbers_past_any_size_are_served_to_the_end_or_refused(engine):
    port = engine[2]
    body = b"0123456789"
    with Client(port) as c:
        c.send(request("PUT", "/bucket/ranged", headers=[f"Content-Length: {len(body)}"], body=body))
        assert c.reply().startswith(b"HTTP/1.1 200 OK\r\n")
        for value, first in (("bytes=0-18446744073709551615", 0), ("bytes=3-18446744073709551616", 3),
                             ("bytes=9-99999999999999999999999999", 9), ("bytes=4-10", 4)):
            c.send(request("GET", "/bucket/ranged", headers=[f"Range: {value}"]))
            got = c.reply()
            assert got.startswith(b"HTTP/1.1 206 Partial Content\r\n"), (value, got)
            assert f"\r\nContent-Range: bytes {first}-9/10\r\n".encode() in got, (value, got)
            assert got.endswith(b"\r\n\r\n" + body[first:]), (value, got)
        c.send(request("GET", "/bucket/ranged", headers=["Range: bytes=18446744073709551616-"]))
        got = c.reply()
        assert got.startswith(b"HTTP/1.1 416 ") and b"<Code>InvalidRange</Code>" in got, got


def test_head_trickled_one_byte_at_a_time_is_answered(engine):
    port = engine[2]
    head = request("GET", "/bucket/trickle")
    # Each byte its own segment; all of it well inside one deadline.
    pause = min(0.01, TIMEOUT / 2 / len(head))
    with Client(port) as c:
        for i in range(len(head)):
            c.send(head[i:i + 1])
            time.sleep(pause)
        c.answered(b"bucket/trickle")
        c.send(REQUEST)  # and the connection goes on as any other
        assert read_replies(c.sock) == b""


def test_pipelined_requests_are_answered_in_order_and_connection_close_ends_them(engine):
    _, daemon, port, _ = engine
    body = b"pipelined body"
    c = Client(port)
    with c:
        c.send(request("GET", "/bucket/one")
               + request("PUT", "/bucket/two", headers=[f"Content-Length: {len(body)}"], body=body)
               + request("HEAD", "/bucket/three")
               + REQUEST
               + request("GET", "/bucket/four", headers=["Connection: close"]))
        c.answered(b"bucket/one")
        c.answered(b"bucket/two", kind="put")
        c.answered(b"bucket/three", head_only=True)  # the HEAD reply, third: the order holds
        check_error_reply(c.reply(), b"403 Forbidden", *ACCESS_DENIED, b"/")  # a refusal in line
        c.answered(b"bucket/four", b"close")
        c.eof()
    stored(engine[0], "two", body)


def test_expect_100_continue_is_answered_before_the_body_is_sent(engine):
    _, daemon, port, _ = engine
    body = random.Random(100).randbytes(300 * 1024)
    with Client(port) as c:
        c.send(request("PUT", "/bucket/continue",
                       headers=[f"Content-Length: {len(body)}", "Expect: 100-continue"]))
        assert c.take(len(CONTINUE)) == CONTINUE
        c.quiet()  # nothing more until the body comes
        c.send(body)
        c.answered(b"bucket/continue", kind="put")
        # Each request that waits gets its own interim answer.
        small = b"asked for again"
        c.send(request("PUT", "/bucket/continue-2",
                       headers=[f"Content-Length: {len(small)}", "Expect: 100-continue"]))
        assert c.take(len(CONTINUE)) == CONTINUE
        c.send(small)
        c.answered(b"bucket/continue-2", kind="put")
        # A body that came with its head is read without being asked for.
        c.send(request("PUT", "/bucket/continue-3",
                       headers=[f"Content-Length: {len(small)}", "Expect: 100-continue"], body=small))
        c.answered(b"bucket/continue-3", kind="put")
        # HTTP/1.0 has no interim answers: the client sends its body after waiting in vain.
        c.send(request("PUT", "/bucket/continue-10", version="1.0",
                       headers=[f"Content-Length: {len(small)}", "Expect: 100-continue", "Connection: keep-alive"]))
        c.quiet()
        c.send(small)
        c.answered(b"bucket/continue-10", kind="put")
        c.quiet()
        # No body to wait for: the interim answer still comes first, then the final one.
        c.send(request("PUT", "/bucket/continue-empty",
                       headers=["Content-Length: 0", "Expect: 100-continue"]))
        assert c.take(len(CONTINUE)) == CONTINUE
        c.answered(b"bucket/continue-empty", kind="put")
        c.quiet()
    for key, data in (("continue", body), ("continue-2", small), ("continue-3", small), ("continue-10", small)):
        stored(engine[0], key, data)


def test_chunked_upload_is_decoded_and_the_next_pipelined_request_is_answered(engine):
    _, daemon, port, _ = engine
    rng = random.Random(7)
    pieces = [b"hello", rng.randbytes(0x1a), rng.randbytes(70000), b"\r\n0\r\n", rng.randbytes(3)]
    wire = b"".join(f"{len(p):x};name=value{i}\r\n".encode() + p + b"\r\n" for i, p in enumerate(pieces))
    wire += b"0\r\nX-Trailer: done\r\n\r\n"
    upload = request("PUT", "/bucket/chunked", headers=["Transfer-Encoding: chunked"], body=wire)
    stream = upload + request("GET", "/bucket/after-chunked")
    with Client(port) as c:
        # Slices of odd sizes, so that sizes, extensions and the trailer are split across reads.
        at = 0
        while at < len(stream):
            n = rng.randint(1, 7) if at < len(upload) // 50 or at > len(upload) - 60 else rng.randint(1, 9000)
            c.send(stream[at:at + n])
            at += n
            time.sleep(0.001)
        c.answered(b"bucket/chunked", kind="put")
        c.answered(b"bucket/after-chunked")
        c.quiet()
    stored(engine[0], "chunked", b"".join(pieces))


# The heads carry the tenant's key (built when the test runs): the refusal is the engine's, not admission's.
@pytest.mark.parametrize("name,head,reply", [
    ("te-and-cl", lambda: request("PUT", headers=["Transfer-Encoding: chunked", "Content-Length: 5"]) + b"hello",
     PAGE_400),
    ("cl-and-te", lambda: request("PUT", headers=["Content-Length: 5", "Transfer-Encoding: chunked"]) + b"hello",
     PAGE_400),
    ("gzip", lambda: request("PUT", headers=["Transfer-Encoding: gzip"]) + b"5\r\nhello\r\n0\r\n\r\n", PAGE_400),
    ("two-lengths", lambda: request("POST", headers=["Content-Length: 5", "Content-Length: 6"]) + b"hello!",
     PAGE_400),
    ("propfind", lambda: request("PROPFIND", headers=["Depth: 1"]), PAGE_403),
    # A request the classifier cannot place: a PUT that names no bucket.
    ("no-bucket", lambda: request("PUT", "/", headers=["Content-Length: 0"]), PAGE_403),
])
def test_ambiguous_framing_and_unknown_methods_get_the_error_page_and_a_close(engine, name, head, reply):
    port = engine[2]
    with Client(port) as c:
        # A next request behind it is not taken up.
        c.send(head() + signed_get())
        assert c.take(len(reply)) == reply, name
        c.eof()


def test_identical_content_lengths_frame_the_body(engine):
    _, daemon, port, _ = engine
    with Client(port) as c:
        c.send(request("PUT", "/bucket/twice", headers=["Content-Length: 5", "Content-Length: 5"], body=b"hello")
               + signed_get())
        c.answered(b"bucket/twice", kind="put")
        c.answered()
    stored(engine[0], "twice", b"hello")


def test_a_client_that_leaves_half_way_through_a_body_is_logged_with_what_came(engine):
    _, daemon, port, _ = engine
    with Client(port) as c:
        c.send(request("PUT", "/bucket/short", headers=["Content-Length: 1000"]) + b"s" * 500)
        time.sleep(0.2)  # the 500 bytes are read before the close
    daemon.wait_log(re.escape("PutObject /bucket/short: body ended after 500 bytes, nothing stored"))
    assert not os.path.exists(engine[0].path("cluster/tenants/engine/data/engine-user/bucket/short"))


# DeleteObjects reads its body as a document, in memory, before admission and its handler.
def test_documents_are_read_whole_up_to_eight_mib(engine):
    port = engine[2]
    with Client(port) as c:
        doc = b"<Delete>" + b"d" * 1000 + b"</Delete>"
        c.send(request("POST", "/bucket?delete", headers=[f"Content-Length: {len(doc)}"], body=doc) + signed_get())
        c.answered(b"bucket", kind="malformed")
        c.answered()
        big = b"x" * DOCUMENT_MAX
        c.send(request("POST", "/bucket?delete", headers=[f"Content-Length: {len(big)}"]) + big + signed_get())
        c.answered(b"bucket", kind="malformed")
        c.answered()  # the whole document was taken: the next request is read as one


# The server does not read a body it refuses, so it must close the connection and say so; the error is
# about the request as a whole, hence "/".
def test_a_document_above_eight_mib_is_refused_on_its_head_and_the_connection_closed(engine):
    port = engine[2]
    with Client(port) as c:
        # One byte more than the bound: refused on its head, before a byte of it is sent.
        c.send(request("POST", "/bucket?delete", headers=[f"Content-Length: {DOCUMENT_MAX + 1}"]))
        check_error_reply(c.reply(), b"400 Bad Request", *TOO_LARGE, b"/", b"close")
        c.eof()


def test_deadlines_close_an_idle_connection_a_stalled_head_and_a_stalled_body(engine):
    port = engine[2]
    results = {}

    def run(name, prepare):
        with Client(port, timeout=30) as c:
            prepare(c)
            started = time.monotonic()
            c.eof(timeout=30)
            results[name] = time.monotonic() - started

    def idle(c):
        c.send(signed_get())
        c.answered()

    def half_head(c):
        c.send(REQUEST[:20])

    def half_body(c):
        c.send(request("PUT", "/bucket/stalled", headers=["Content-Length: 100"]) + b"b" * 10)

    threads = [threading.Thread(target=run, args=a) for a in
               [("idle", idle), ("half head", half_head), ("half body", half_body)]]
    for t in threads:
        t.start()
    for t in threads:
        t.join(60)
    assert set(results) == {"idle", "half head", "half body"}, results
    for name, took in results.items():
        assert TIMEOUT / 2 <= took <= TIMEOUT + 3 * SLOWDOWN, f"{name}: closed after {took:.2f}s"


def pipeline_without_reading(port):
    """A connection that pipelines requests until the server takes no more, never reading a reply.
    Returns it and the moment its last bytes were taken."""
    # Small, fixed socket buffers on the client's side, so that what the kernels hold stays small.
    stuck = Client(port, rcvbuf=4096)
    stuck.sock.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 16384)
    stuck.sock.setblocking(False)
    # Replies to all of them would be far more than the 16 MiB a connection may hold back.
    stream = REQUEST * 200000
    sent = 0
    last_progress = time.monotonic()
    # The stall is for good once it comes; the window stays well below the server's deadline, which
    # would otherwise end the connection while this loop still waits.
    while sent < len(stream) and time.monotonic() - last_progress < min(0.5 * SLOWDOWN, TIMEOUT / 4):
        try:
            sent += stuck.sock.send(stream[sent:sent + 65536])
            last_progress = time.monotonic()
        except BlockingIOError:
            time.sleep(0.01)
    assert sent < len(stream), "the server took every request while none of its replies was read"
    assert sent > 1000 * len(REQUEST), f"stuck after {sent} bytes"
    return stuck, last_progress


def test_a_client_that_reads_no_replies_does_not_hold_up_others(engine):
    _, daemon, port, _ = engine
    stuck, _ = pipeline_without_reading(port)
    with stuck, Client(port) as other:
        for _ in range(4):
            started = time.monotonic()
            other.send(signed_get())
            other.answered()
            assert time.monotonic() - started < 1.0 * SLOWDOWN
            time.sleep(0.2)
    assert "would hold back more than" not in daemon.log()


# The replies of a client that does not read fill the socket; the server stops taking its pipelined
# requests (its socket reports no room) and closes it when the deadline passes.
def test_a_client_that_reads_no_replies_is_closed_by_the_deadline(engine):
    _, daemon, port, _ = engine
    stuck, stalled_at = pipeline_without_reading(port)
    with stuck:
        wait_for(lambda: tcp_state(stuck.sock) != TCP_ESTABLISHED, timeout=TIMEOUT + 3,
                 interval=0.05, what="the stuck connection closed by the server")
        took = time.monotonic() - stalled_at
        assert took >= TIMEOUT / 2, f"closed {took:.2f}s after the client stopped"
    assert "would hold back more than" not in daemon.log()


def test_boto3_put_object_waits_for_100_continue_and_its_body_is_stored(engine, caplog):
    import boto3  # Debian's python3-boto3
    from botocore.config import Config

    box, _, port, tenant = engine
    s3 = boto3.client("s3", endpoint_url=f"http://127.0.0.1:{port}", region_name="us-east-1",
                      aws_access_key_id=tenant["access_key"], aws_secret_access_key=tenant["secret_key"],
                      config=Config(retries={"max_attempts": 1, "mode": "standard"},
                                    s3={"addressing_style": "path"}, connect_timeout=5, read_timeout=10))
    # botocore asks for 100-continue on every PUT with a body, and sends the body only once it has the
    # interim answer; its own trace says so.
    caplog.set_level(logging.DEBUG, logger="botocore.awsrequest")
    for key, body in [("file-object", io.BytesIO(b"boto3 body one " * 1000)), ("bytes", b"boto3 body two")]:
        data = body.getvalue() if isinstance(body, io.BytesIO) else body
        caplog.clear()
        put = s3.put_object(Bucket="bucket", Key=key, Body=body)
        assert put["ETag"] == f'"{hashlib.md5(data).hexdigest()}"'
        assert "100 Continue response seen" in caplog.text, caplog.text
        stored(box, key, data)
