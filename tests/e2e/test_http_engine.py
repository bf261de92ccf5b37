"""The HTTP engine on the wire: framing, keep-alive, pipelining, bodies and deadlines, with raw sockets.

One daemon serves the module, with a request deadline of two seconds and the 4096-byte head buffer that
an http element without sizes gives. Until the S3 layer exists every request of a known method is read
whole and answered 501 NotImplemented; a PUT's body goes to /dev/null and the daemon logs its size and
MD5, which is how these tests see that a body arrived intact.
"""

import hashlib
import io
import logging
import random
import re
import select
import socket
import struct
import threading
import time

import pytest

from orbmux_harness import SLOWDOWN, Sandbox, free_port, wait_for, wait_port
from test_worker import DATE, REQUEST, expected_reply, read_replies

TIMEOUT = 2
HTTP_CONF = f'<?xml version="1.0"?>\n<http timeout="{TIMEOUT}"/>\n'
HEAD_BUFFER = 4096
DOCUMENT_MAX = 8 << 20

CONTINUE = b"HTTP/1.1 100 Continue\r\n\r\n"


def error_page(code, reason):
    return (f"HTTP/1.1 {code} {reason}\r\nServer: KELVANE 1.0\r\nConnection: close\r\n\r\n"
            f"<html>\r\n<head><title>{code} {reason}</title></head>\r\n<body bgcolor=\"white\">\r\n"
            f"<center><h1>{code} {reason}</h1></center>\r\n").encode()


PAGE_400 = error_page(400, "Bad Request")
PAGE_403 = error_page(403, "Forbidden")

TOO_LARGE_DOC = (b'<?xml version="1.0" encoding="utf-8"?><Error><Code>MaxMessageLengthExceeded</Code>'
                 b"<Message>Your request was too big.</Message><Resource>/</Resource><RequestId></RequestId>"
                 b"</Error>\n")


def too_large_reply(date):
    return (b"HTTP/1.1 400 Bad Request\r\nDate: " + date + b"\r\nContent-Length:" + str(len(TOO_LARGE_DOC)).encode()
            + b"\r\nConnection: close\r\nServer: KELVANE 1.0\r\nContent-Type: text/xml\r\n\r\n" + TOO_LARGE_DOC)


def request(method="GET", uri="/bucket/object", version="1.1", headers=(), body=b""):
    lines = [f"{method} {uri} HTTP/{version}", "Host: 127.0.0.1", *headers]
    return ("\r\n".join(lines) + "\r\n\r\n").encode() + body


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

    def not_implemented(self, connection=b"keep-alive", head_only=False):
        """Reads one reply and checks that it is the 501 reply, byte for byte apart from the Date value."""
        got = self.reply(head_only)
        m = DATE.search(got)
        assert m, f"no Date in {got!r}"
        assert got == expected_reply(m.group(1), connection, head_only), got
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


def put_log_line(uri, body):
    return f"PUT {uri}: body of {len(body)} bytes, md5 {hashlib.md5(body).hexdigest()}"


@pytest.fixture(scope="module")
def engine():
    box = Sandbox(http_conf=HTTP_CONF)
    port = free_port()
    box.add_tenant("engine", port)
    daemon = box.start("-d")
    try:
        wait_port(port)
        yield box, daemon, port
    finally:
        box.cleanup()


def test_keep_alive_serves_two_hundred_requests_on_one_connection_until_connection_close(engine):
    _, _, port = engine
    methods = ["GET", "HEAD", "DELETE", "OPTIONS"]
    with Client(port) as c:
        for i in range(200):
            method = methods[i % len(methods)]
            c.send(request(method, f"/bucket/key-{i}"))
            c.not_implemented(head_only=method == "HEAD")
        c.send(request("GET", headers=["Connection: close"]))
        c.not_implemented(b"close")
        c.eof()


def test_http10_closes_after_the_reply_unless_it_asks_for_keep_alive(engine):
    _, _, port = engine
    with Client(port) as c:
        c.send(request(version="1.0"))
        c.not_implemented(b"close")
        c.eof()
    with Client(port) as c:
        for _ in range(3):
            c.send(request(version="1.0", headers=["Connection: keep-alive"]))
            c.not_implemented(b"keep-alive")
        c.quiet()
        c.send(request(version="1.0"))
        c.not_implemented(b"close")
        c.eof()


def test_head_that_overflows_the_head_buffer_is_dropped_without_a_reply(engine):
    _, daemon, port = engine
    # Just below the buffer the same kind of head is served: the drop is about size.
    fits = request(headers=["X-Pad: " + "p" * 3900])
    assert len(fits) < HEAD_BUFFER
    with Client(port) as c:
        c.send(fits)
        c.not_implemented()
    oversize = request(headers=[f"X-Pad-{i}: " + "p" * 100 for i in range(80)])  # about 8 KiB
    assert len(oversize) > 2 * HEAD_BUFFER
    with Client(port) as c:
        try:
            c.send(oversize)
        except (BrokenPipeError, ConnectionResetError):
            pass
        c.eof()
    daemon.wait_log(rf"client sent too large request head: more than {HEAD_BUFFER} bytes")


def test_head_trickled_one_byte_at_a_time_is_answered(engine):
    _, _, port = engine
    head = request("GET", "/bucket/trickle")
    # Each byte its own segment; all of it well inside one deadline.
    pause = min(0.01, TIMEOUT / 2 / len(head))
    with Client(port) as c:
        for i in range(len(head)):
            c.send(head[i:i + 1])
            time.sleep(pause)
        c.not_implemented()
        c.send(REQUEST)  # and the connection goes on as any other
        assert read_replies(c.sock) == b""


def test_pipelined_requests_are_answered_in_order_and_connection_close_ends_them(engine):
    _, daemon, port = engine
    body = b"pipelined body"
    c = Client(port)
    with c:
        c.send(request("GET", "/bucket/one")
               + request("PUT", "/bucket/two", headers=[f"Content-Length: {len(body)}"], body=body)
               + request("HEAD", "/bucket/three")
               + request("GET", "/bucket/four", headers=["Connection: close"]))
        c.not_implemented()
        c.not_implemented()
        c.not_implemented(head_only=True)  # the HEAD reply, third: the order holds
        c.not_implemented(b"close")
        c.eof()
    daemon.wait_log(re.escape(put_log_line("/bucket/two", body)))


def test_expect_100_continue_is_answered_before_the_body_is_sent(engine):
    _, daemon, port = engine
    body = random.Random(100).randbytes(300 * 1024)
    with Client(port) as c:
        c.send(request("PUT", "/bucket/continue",
                       headers=[f"Content-Length: {len(body)}", "Expect: 100-continue"]))
        assert c.take(len(CONTINUE)) == CONTINUE
        c.quiet()  # nothing more until the body comes
        c.send(body)
        c.not_implemented()
        # Each request that waits gets its own interim answer.
        small = b"asked for again"
        c.send(request("PUT", "/bucket/continue-2",
                       headers=[f"Content-Length: {len(small)}", "Expect: 100-continue"]))
        assert c.take(len(CONTINUE)) == CONTINUE
        c.send(small)
        c.not_implemented()
        # A body that came with its head is read without being asked for.
        c.send(request("PUT", "/bucket/continue-3",
                       headers=[f"Content-Length: {len(small)}", "Expect: 100-continue"], body=small))
        c.not_implemented()
        # HTTP/1.0 has no interim answers: the client sends its body after waiting in vain.
        c.send(request("PUT", "/bucket/continue-10", version="1.0",
                       headers=[f"Content-Length: {len(small)}", "Expect: 100-continue", "Connection: keep-alive"]))
        c.quiet()
        c.send(small)
        c.not_implemented()
        c.quiet()
    daemon.wait_log(re.escape(put_log_line("/bucket/continue", body)))
    daemon.wait_log(re.escape(put_log_line("/bucket/continue-2", small)))
    daemon.wait_log(re.escape(put_log_line("/bucket/continue-3", small)))
    daemon.wait_log(re.escape(put_log_line("/bucket/continue-10", small)))


def test_chunked_upload_is_decoded_and_the_next_pipelined_request_is_answered(engine):
    _, daemon, port = engine
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
        c.not_implemented()
        c.not_implemented()
        c.quiet()
    daemon.wait_log(re.escape(put_log_line("/bucket/chunked", b"".join(pieces))))


@pytest.mark.parametrize("name,head,reply", [
    ("te-and-cl", request("PUT", headers=["Transfer-Encoding: chunked", "Content-Length: 5"]) + b"hello", PAGE_400),
    ("cl-and-te", request("PUT", headers=["Content-Length: 5", "Transfer-Encoding: chunked"]) + b"hello", PAGE_400),
    ("gzip", request("PUT", headers=["Transfer-Encoding: gzip"]) + b"5\r\nhello\r\n0\r\n\r\n", PAGE_400),
    ("two-lengths", request("POST", headers=["Content-Length: 5", "Content-Length: 6"]) + b"hello!", PAGE_400),
    ("propfind", request("PROPFIND", headers=["Depth: 1"]), PAGE_403),
])
def test_ambiguous_framing_and_unknown_methods_get_the_error_page_and_a_close(engine, name, head, reply):
    _, _, port = engine
    with Client(port) as c:
        # A next request behind it is not taken up.
        c.send(head + REQUEST)
        assert c.take(len(reply)) == reply, name
        c.eof()


def test_identical_content_lengths_frame_the_body(engine):
    _, daemon, port = engine
    with Client(port) as c:
        c.send(request("PUT", "/bucket/twice", headers=["Content-Length: 5", "Content-Length: 5"], body=b"hello")
               + REQUEST)
        c.not_implemented()
        c.not_implemented()
    daemon.wait_log(re.escape(put_log_line("/bucket/twice", b"hello")))


def test_a_client_that_leaves_half_way_through_a_body_is_logged_with_what_came(engine):
    _, daemon, port = engine
    with Client(port) as c:
        c.send(request("PUT", "/bucket/short", headers=["Content-Length: 1000"]) + b"s" * 500)
        time.sleep(0.2)  # the 500 bytes are read before the close
    daemon.wait_log(re.escape("PUT /bucket/short: body ended after 500 bytes"))
    assert "PUT /bucket/short: body of" not in daemon.log()


def test_documents_are_read_up_to_eight_mib_and_refused_above_without_reading(engine):
    _, _, port = engine
    with Client(port) as c:
        doc = b"<Delete>" + b"d" * 1000 + b"</Delete>"
        c.send(request("POST", "/bucket?delete", headers=[f"Content-Length: {len(doc)}"], body=doc) + REQUEST)
        c.not_implemented()
        c.not_implemented()
        big = b"x" * DOCUMENT_MAX
        c.send(request("POST", "/bucket?delete", headers=[f"Content-Length: {len(big)}"]) + big)
        c.not_implemented()
        # One byte more: refused on its head, before a byte of it is sent.
        c.send(request("POST", "/bucket?delete", headers=[f"Content-Length: {DOCUMENT_MAX + 1}"]))
        got = c.reply()
        m = DATE.search(got)
        assert m and got == too_large_reply(m.group(1)), got
        c.eof()


def test_deadlines_close_an_idle_connection_a_stalled_head_and_a_stalled_body(engine):
    _, _, port = engine
    results = {}

    def run(name, prepare):
        with Client(port, timeout=30) as c:
            prepare(c)
            started = time.monotonic()
            c.eof(timeout=30)
            results[name] = time.monotonic() - started

    def idle(c):
        c.send(REQUEST)
        c.not_implemented()

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
    _, daemon, port = engine
    stuck, _ = pipeline_without_reading(port)
    with stuck, Client(port) as other:
        for _ in range(4):
            started = time.monotonic()
            other.send(REQUEST)
            other.not_implemented()
            assert time.monotonic() - started < 1.0 * SLOWDOWN
            time.sleep(0.2)
    assert "would hold back more than" not in daemon.log()


# The replies of a client that does not read fill the socket; the server stops taking its pipelined
# requests (its socket reports no room) and closes it when the deadline passes.
def test_a_client_that_reads_no_replies_is_closed_by_the_deadline(engine):
    _, daemon, port = engine
    stuck, stalled_at = pipeline_without_reading(port)
    with stuck:
        wait_for(lambda: tcp_state(stuck.sock) != TCP_ESTABLISHED, timeout=TIMEOUT + 3,
                 interval=0.05, what="the stuck connection closed by the server")
        took = time.monotonic() - stalled_at
        assert took >= TIMEOUT / 2, f"closed {took:.2f}s after the client stopped"
    assert "would hold back more than" not in daemon.log()


def test_boto3_put_object_gets_not_implemented_and_its_body_arrives(engine, caplog):
    import boto3  # Debian's python3-boto3
    from botocore.config import Config
    from botocore.exceptions import ClientError

    _, daemon, port = engine
    s3 = boto3.client("s3", endpoint_url=f"http://127.0.0.1:{port}", region_name="us-east-1",
                      aws_access_key_id="AKIDEXAMPLE", aws_secret_access_key="secret",
                      config=Config(retries={"max_attempts": 1, "mode": "standard"},
                                    s3={"addressing_style": "path"}, connect_timeout=5, read_timeout=10))
    # botocore asks for 100-continue on every PUT with a body, and sends the body only once it has the
    # interim answer; its own trace says so.
    caplog.set_level(logging.DEBUG, logger="botocore.awsrequest")
    for key, body in [("file-object", io.BytesIO(b"boto3 body one " * 1000)), ("bytes", b"boto3 body two")]:
        data = body.getvalue() if isinstance(body, io.BytesIO) else body
        caplog.clear()
        with pytest.raises(ClientError) as err:
            s3.put_object(Bucket="bucket", Key=key, Body=body)
        assert err.value.response["Error"]["Code"] == "NotImplemented", err.value.response
        assert err.value.response["ResponseMetadata"]["HTTPStatusCode"] == 501
        assert "100 Continue response seen" in caplog.text, caplog.text
        daemon.wait_log(re.escape(put_log_line(f"/bucket/{key}", data)))
