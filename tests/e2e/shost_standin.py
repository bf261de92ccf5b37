"""A stand-in for the cluster controller `shost`, for the end-to-end tests.

It listens on $PREFIX/var/run/kelvane/shost.iface and speaks the control plane's framing: a 44-byte header
(version 0x00060001, type, status, reserved, length, six reserved words; 32-bit little-endian) and a JSON
body. It records every request orbmux sends (time, type, parsed body, version) and answers as the test
scripts it:

  "answer"  a whole reply: type | 0x10000000, status 0x10010000, the JSON of `reply_for(type)`
  "hang"    reads the request and never answers, holding the connection open
  "half"    sends a header announcing the reply and only half of the body, then holds the connection
  "close"   reads the request and closes without a word

The register reply carries `conf_path` when it is set; `alive_codes` is a queue of errorcodes for the next
alive replies (0 once it is empty).
"""

import json
import os
import socket
import struct
import threading
import time

VERSION = 0x00060001
REPLY = 0x10000000
STATUS_OK = 0x10010000
ALIVE = 0x6001
REGISTER = 0x6002
HEAD = struct.Struct("<11I")
IFACE = "var/run/kelvane/shost.iface"


def frame(type_, body=b"", status=0, announced=None):
    length = len(body) if announced is None else announced
    return HEAD.pack(VERSION, type_, status, 0, length, 0, 0, 0, 0, 0, 0) + body


def recv_exact(conn, n):
    got = b""
    while len(got) < n:
        chunk = conn.recv(n - len(got))
        if not chunk:
            break
        got += chunk
    return got


class ShostStandIn:
    def __init__(self, prefix):
        self.path = os.path.join(prefix, IFACE)
        self.mode = "answer"
        self.conf_path = None
        self.alive_codes = []
        self.requests = []   # (monotonic time, type, body as JSON or the raw bytes, version)
        self.connections = 0
        self._held = []
        self._lock = threading.Lock()
        self._sock = None
        self._thread = None

    def start(self):
        os.makedirs(os.path.dirname(self.path), exist_ok=True)
        if os.path.exists(self.path):
            os.unlink(self.path)
        self._sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._sock.bind(self.path)
        self._sock.listen(16)
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()
        return self

    def stop(self):
        """Closes the socket and every held connection and removes the socket file: the controller is gone."""
        if self._sock is not None:
            try:
                os.unlink(self.path)
            except FileNotFoundError:
                pass
            self._sock.shutdown(socket.SHUT_RDWR)
            self._sock.close()
            self._thread.join(timeout=5)
            self._sock = None
        self.release()

    def release(self):
        """Closes the connections held by "hang" and "half"."""
        with self._lock:
            held, self._held = self._held, []
        for c in held:
            c.close()

    def reply_for(self, type_):
        if type_ == REGISTER:
            body = {"errorcode": 0}
            if self.conf_path is not None:
                body["conf_path"] = self.conf_path
            return body
        with self._lock:
            code = self.alive_codes.pop(0) if self.alive_codes else 0
        return {"errorcode": code}

    def of_type(self, type_):
        with self._lock:
            return [r for r in self.requests if r[1] == type_]

    def types(self):
        with self._lock:
            return [r[1] for r in self.requests]

    def _serve(self):
        while True:
            try:
                conn, _ = self._sock.accept()
            except OSError:
                return
            with self._lock:
                self.connections += 1
            try:
                self._one(conn)
            except OSError:
                conn.close()

    def _one(self, conn):
        conn.settimeout(10)
        head = recv_exact(conn, HEAD.size)
        if len(head) < HEAD.size:
            conn.close()
            return
        fields = HEAD.unpack(head)
        version, type_, length = fields[0], fields[1], fields[4]
        raw = recv_exact(conn, length)
        try:
            body = json.loads(raw)
        except ValueError:
            body = raw
        with self._lock:
            self.requests.append((time.monotonic(), type_, body, version))
        mode = self.mode
        if mode == "close":
            conn.close()
            return
        if mode == "hang":
            with self._lock:
                self._held.append(conn)
            return
        reply = json.dumps(self.reply_for(type_)).encode()
        if mode == "half":
            conn.sendall(frame(type_ | REPLY, reply[:len(reply) // 2], STATUS_OK, announced=len(reply)))
            with self._lock:
                self._held.append(conn)
            return
        conn.sendall(frame(type_ | REPLY, reply, STATUS_OK))
        conn.close()
