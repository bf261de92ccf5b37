"""End-to-end harness: runs the real orbmux binary in a sandbox prefix and checks how it ends.

A Sandbox is a temporary directory used as ORBMUX_PREFIX, holding the configuration files the daemon
reads. Daemon.start() launches the binary (which daemonises by forking twice), waits for its pid file
and hands back the master's pid. The test process makes itself a child subreaper, so the daemonised
master is re-parented to it: stop() can wait for the master and read its real exit status.

On stop the harness fails the test if the master had crashed before, did not exit with status 0, left
its pid file, left any process of its session behind, or wrote a sanitizer report.
"""

import ctypes
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time

PR_SET_CHILD_SUBREAPER = 36
_libc = ctypes.CDLL(None, use_errno=True)
_libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)

BINARY = os.environ.get("ORBMUX_BIN") or os.path.join(
    os.path.dirname(__file__), "..", "..", "build", "release", "src", "orbmux")
TENANT_TOOL = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "scripts", "orbmux-tenant")
PID_FILE = "var/run/orbmux//orbmux.pid"
DEBUG_FILE = "var/log/orbmux/orbmux.debug"
SANITIZER_REPORT = re.compile(
    r"ERROR: (AddressSanitizer|LeakSanitizer)|runtime error:|WARNING: ThreadSanitizer")

DEFAULT_ORBMUX_CONF = """<?xml version="1.0"?>
<orbmux interval="10" conf_path="/etc/orbmux" bucketmaxlen="127" objectmaxlen="127" objectpathlen="1023" objectdirnum="10"/>
<cache max_mem="0B" max_file="" retry="3" interval="3" tmp="/tmp/orbmux/"/>
"""


def free_port():
    """A TCP port on 127.0.0.1 that is free at this moment."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


# A sanitized daemon runs several times slower; its waits get room to match.
SLOWDOWN = 4.0 if os.environ.get("ORBMUX_SANITIZED", "").upper() in ("1", "ON", "TRUE") else 1.0


def wait_for(predicate, timeout=10.0, interval=0.02, what="condition"):
    timeout *= SLOWDOWN
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        value = predicate()
        if value:
            return value
        time.sleep(interval)
    raise AssertionError(f"timed out after {timeout}s waiting for {what}")


def pid_alive(pid):
    """True while the process exists and is not a zombie."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except (FileNotFoundError, ProcessLookupError, IndexError):
        return False


def stat_fields(pid):
    """The fields of /proc/<pid>/stat behind the command name: state, ppid, pgrp, session, ..."""
    with open(f"/proc/{pid}/stat") as f:
        return f.read().rsplit(")", 1)[1].split()


def live_processes():
    """(pid, stat fields) of every process that still exists and is not a zombie."""
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            fields = stat_fields(entry)
        except OSError:
            continue
        if fields[0] != "Z":
            yield int(entry), fields


def session_of(pid):
    return int(stat_fields(pid)[3])


def processes_in_session(sid):
    return [pid for pid, fields in live_processes() if int(fields[3]) == sid]


def reap(pid, timeout=10.0):
    """Waits for a child (or a re-parented descendant) to end; returns its wait status or None."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        try:
            got, status = os.waitpid(pid, os.WNOHANG)
        except ChildProcessError:
            # Not (yet) ours: the daemonising parent may still be alive (slow to exit under the
            # sanitizers), and the master comes to us only when that parent has gone.
            if not os.path.exists(f"/proc/{pid}"):
                return None
            got, status = 0, None
        if got == pid:
            return status
        time.sleep(0.02)
    raise AssertionError(f"process {pid} did not end within {timeout}s")


def reap_strays():
    """Collects zombies of intermediate daemonising processes re-parented to us."""
    while True:
        try:
            got, _ = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return
        if got == 0:
            return


def port_accepts(port, host="127.0.0.1"):
    try:
        with socket.create_connection((host, port), timeout=1):
            return True
    except OSError:
        return False


# A node with no cluster controller loads its tenants on the controller thread's second 3-second pass.
OFFLINE_START = 6.0


def wait_port(port, timeout=OFFLINE_START + 10.0):
    """Waits until the service port takes connections."""
    return wait_for(lambda: port_accepts(port), timeout=timeout, interval=0.1, what=f"port {port} serving")


# A worker is forked from a thread other than the master's main thread, so in the worker the per-thread
# blocks that Mini-XML made for the master's threads that read XML are referenced only from those
# threads' storage, which no live thread of the worker has: LeakSanitizer would report them when the
# worker exits. Likewise whatever the master's other threads held at the moment of the fork: the tasks
# that other control-pool threads were running (a message to another worker being built or sent), and what
# the master's shost and control threads had allocated in a pass (their frames stand only in the master's
# stacks, never in a worker's). These are the kinds of block a sanitized worker is allowed to leave behind.
LSAN_SUPPRESSIONS = ("leak:_mxml_global\nleak:orbs3_task_start_vhost\nleak:vhost_task_handler\n"
                     "leak:orbs3_shost_thread\nleak:orbs3_ctrl_thread\n")


class Sandbox:
    def __init__(self, orbmux_conf=DEFAULT_ORBMUX_CONF, http_conf=None):
        self.root = tempfile.mkdtemp(prefix="orbmux-e2e-")
        os.makedirs(self.path("etc/orbmux"))
        self.write("lsan.supp", LSAN_SUPPRESSIONS)
        if orbmux_conf is not None:
            self.write("etc/orbmux/orbmux.conf", orbmux_conf)
        if http_conf is not None:
            self.write("etc/orbmux/http.conf", http_conf)
        self.runs = 0
        self.daemons = []

    def path(self, rel):
        return os.path.join(self.root, rel.lstrip("/"))

    def write(self, rel, text):
        p = self.path(rel)
        os.makedirs(os.path.dirname(p), exist_ok=True)
        with open(p, "w") as f:
            f.write(text)

    def read(self, rel):
        with open(self.path(rel)) as f:
            return f.read()

    def exists(self, rel):
        return os.path.exists(self.path(rel))

    def add_tenant(self, name, port, *extra):
        """Writes a tenant's files with the provisioning tool (cluster tree inside the sandbox); returns
        what the tool printed as JSON: endpoint, id, keys, files."""
        out = subprocess.run(["/usr/bin/python3", TENANT_TOOL, "add", "--prefix", self.root,
                              "--cluster-path", self.path("cluster"), "--name", name, "--port", str(port),
                              "--json", *extra], capture_output=True, text=True, timeout=30)
        assert out.returncode == 0, f"orbmux-tenant add {name} failed: {out.stderr}"
        return json.loads(out.stdout)

    def env(self, extra=None):
        env = dict(os.environ)
        env["ORBMUX_PREFIX"] = self.root
        env["ORBMUX_LOG_STDERR"] = "1"
        env.setdefault("ASAN_OPTIONS", "abort_on_error=0:detect_leaks=1")
        env.setdefault("UBSAN_OPTIONS", "print_stacktrace=1")
        env.setdefault("LSAN_OPTIONS", f"suppressions={self.path('lsan.supp')}:print_suppressions=0")
        if extra:
            env.update(extra)
        return env

    def run(self, *args, timeout=30, env=None):
        """Runs the binary in the foreground (control commands, usage); returns CompletedProcess."""
        return subprocess.run([BINARY, *args], env=self.env(env), capture_output=True, text=True,
                              timeout=timeout)

    def start(self, *args, env=None, wait=True):
        """Starts the daemon; returns a Daemon once its pid file names a live master."""
        self.runs += 1
        log = self.path(f"daemon-{self.runs}.stderr")
        with open(log, "w") as err:
            launcher = subprocess.Popen([BINARY, *args], env=self.env(env), stdin=subprocess.DEVNULL,
                                        stdout=err, stderr=err)
            status = launcher.wait(timeout=30)
        daemon = Daemon(self, log, status)
        self.daemons.append(daemon)
        if wait:
            assert status == 0, f"launcher exited {status}: {daemon.log()}"
            daemon.pid = wait_for(daemon.read_pid, what="pid file of a live master")
            daemon.sid = session_of(daemon.pid)
        return daemon

    def cleanup(self):
        # A test that failed half-way must not leave a daemon running.
        for d in self.daemons:
            if d.sid is not None:
                for pid in processes_in_session(d.sid):
                    try:
                        os.kill(pid, signal.SIGKILL)
                    except ProcessLookupError:
                        pass
        reap_strays()
        shutil.rmtree(self.root, ignore_errors=True)


class Daemon:
    def __init__(self, sandbox, log_path, launcher_status):
        self.sandbox = sandbox
        self.log_path = log_path
        self.launcher_status = launcher_status
        self.pid = None
        self.sid = None
        self.exit_status = None

    def read_pid(self):
        try:
            text = self.sandbox.read(PID_FILE)
        except FileNotFoundError:
            return None
        if not text.isdigit():
            return None
        pid = int(text)
        return pid if pid_alive(pid) else None

    def log(self):
        with open(self.log_path, errors="replace") as f:
            return f.read()

    def wait_log(self, pattern, timeout=10.0):
        rx = re.compile(pattern)
        return wait_for(lambda: rx.search(self.log()), timeout, what=f"log line /{pattern}/")

    def alive(self):
        return self.pid is not None and pid_alive(self.pid)

    def send_signal(self, signo):
        os.kill(self.pid, signo)

    def wait_exit(self, timeout=20.0):
        """Waits for the master to end; returns its exit code (or -signal)."""
        status = reap(self.pid, timeout)
        reap_strays()
        if status is None:
            return None
        self.exit_status = os.waitstatus_to_exitcode(status)
        return self.exit_status

    def assert_clean(self):
        """The checks every stop makes: no sanitizer report, no process of the session left."""
        report = SANITIZER_REPORT.search(self.log())
        assert report is None, f"sanitizer report in daemon log:\n{self.log()}"
        if self.sid is not None:
            wait_for(lambda: not processes_in_session(self.sid), timeout=10,
                     what="no process left in the daemon's session")

    def stop(self, signo=signal.SIGTERM):
        """Stops the master the way an operator does and checks that it ended in order."""
        assert self.alive(), f"master {self.pid} died before it was stopped:\n{self.log()}"
        self.send_signal(signo)
        code = self.wait_exit()
        assert code == 0, f"master exited with {code}:\n{self.log()}"
        assert not self.sandbox.exists(PID_FILE), "pid file left behind"
        self.assert_clean()


# ---- helpers the S3 modules share ----

def s3_error(call):
    """The status and S3 error code of a boto3 call that must fail."""
    import pytest
    from botocore.exceptions import ClientError
    with pytest.raises(ClientError) as err:
        call()
    r = err.value.response
    return r["ResponseMetadata"]["HTTPStatusCode"], r.get("Error", {}).get("Code")


def tool_env(t, home, keys=None):
    """The environment of a command-line client (AWS CLI, s3cmd, rclone) acting as tenant `t`'s user, or
    with the (access key, secret) pair given."""
    ak, sk = keys or (t.info["access_key"], t.info["secret_key"])
    return {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": home, "LANG": "C.UTF-8",
            "AWS_CONFIG_FILE": "/dev/null", "AWS_SHARED_CREDENTIALS_FILE": "/dev/null",
            "AWS_EC2_METADATA_DISABLED": "true", "AWS_ACCESS_KEY_ID": ak, "AWS_SECRET_ACCESS_KEY": sk,
            "AWS_DEFAULT_REGION": "us-east-1", "AWS_MAX_ATTEMPTS": "1", "AWS_RETRY_MODE": "standard"}


def run_tool(argv, env, timeout=300):
    """Runs a client to its end, success or not: its CompletedProcess."""
    return subprocess.run(argv, env=env, capture_output=True, text=True, timeout=timeout * SLOWDOWN)


def run(argv, env, timeout=300):
    """Runs a client to its end; it must succeed. Its standard output."""
    out = run_tool(argv, env, timeout)
    assert out.returncode == 0, (argv, out.stdout[-2000:], out.stderr[-2000:])
    return out.stdout


def md5(data):
    import hashlib
    return hashlib.md5(data).hexdigest()


def rss_kib(pid):
    """Resident memory of a process, in KiB."""
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def workers_of(master):
    """Pids of the master's children that carry a worker's title."""
    found = []
    for pid, fields in live_processes():
        if int(fields[1]) != master:
            continue
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as f:
                title = f.read().split(b"\0")[0]
        except (OSError, IndexError):
            continue
        if title.startswith(b"orbmux:http"):
            found.append((pid, title))
    return found


def worker_pids(t):
    """The worker processes of tenant `t`'s daemon."""
    return [pid for pid, _ in workers_of(t.daemon.pid)]


def status_of(reply):
    """The status code of a raw reply."""
    return int(reply.split(b" ", 2)[1])


def headers_of(reply):
    """The header fields of a raw reply, names in lower case."""
    head = reply.split(b"\r\n\r\n", 1)[0].decode()
    return {k.strip().lower(): v.strip() for k, v in (line.split(":", 1) for line in head.split("\r\n")[1:])}


# ---- the control sockets' protocol ----

MSG_VERSION = 0x00060001
MSG_HEAD = struct.Struct("<11I")  # version, type, status, reserved, length, six reserved words
MSG_STATUS_OK = 0x10010000


def control_call(path, mtype, body=None, timeout=5.0, version=MSG_VERSION):
    """One request on a control socket (the master's or a worker's): sends `body` (a dict is sent as
    JSON) and returns (type, status, body bytes) of the reply, or None when the socket closed without
    one."""
    if isinstance(body, dict):
        body = json.dumps(body).encode()
    body = body or b""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.settimeout(timeout * SLOWDOWN)
        s.connect(path)
        s.sendall(MSG_HEAD.pack(version, mtype, 0, 0, len(body), 0, 0, 0, 0, 0, 0) + body)
        data = b""
        while True:
            chunk = s.recv(65536)
            if not chunk:
                break
            data += chunk
            if len(data) >= MSG_HEAD.size and len(data) >= MSG_HEAD.size + MSG_HEAD.unpack_from(data)[4]:
                break
    if len(data) < MSG_HEAD.size:
        return None
    head = MSG_HEAD.unpack_from(data)
    return head[1], head[2], data[MSG_HEAD.size:MSG_HEAD.size + head[4]]


def worker_iface(box, pid):
    """The control socket of worker `pid` in the sandbox."""
    return box.path(f"var/run/orbmux/{pid}.iface")


# ---- certificates for HTTPS tenants ----

def make_certs(box, domain=None, name="server"):
    """A test CA and a server certificate it signs, made with the openssl command in the sandbox: EC P-256,
    for 127.0.0.1 and localhost and, with a domain, for it and its virtual-host names (*.domain). Returns
    {"ca": CA file, "cert": server certificate, "key": its key}."""
    def openssl(*args):
        subprocess.run(["openssl", *args], check=True, capture_output=True, timeout=30)
    ca, ca_key = box.path(f"{name}-ca.pem"), box.path(f"{name}-ca.key")
    cert, key, csr = box.path(f"{name}.pem"), box.path(f"{name}.key"), box.path(f"{name}.csr")
    ext = box.path(f"{name}.ext")
    ec = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]
    openssl("req", "-x509", *ec, "-keyout", ca_key, "-out", ca, "-days", "2", "-subj", f"/CN=orbmux test CA {name}")
    openssl("req", "-new", *ec, "-keyout", key, "-out", csr, "-subj", f"/CN={domain or '127.0.0.1'}")
    san = "IP:127.0.0.1,DNS:localhost" + (f",DNS:{domain},DNS:*.{domain}" if domain else "")
    box.write(f"{name}.ext", f"subjectAltName={san}\nbasicConstraints=CA:FALSE\n")
    openssl("x509", "-req", "-in", csr, "-CA", ca, "-CAkey", ca_key, "-CAcreateserial", "-out", cert,
            "-days", "2", "-extfile", ext)
    return {"ca": ca, "cert": cert, "key": key}


# ---- one tenant on its own daemon: the fixture the S3 modules share ----

TMP_PREFIX = ".orbs3-tmp-"
SANITIZED = os.environ.get("ORBMUX_SANITIZED", "").upper() in ("1", "ON", "TRUE", "YES")


class Tenant:
    """A tenant written by the provisioning tool, served on `port`, with the clients that talk to it:
    boto3, requests signed by hand and sent raw, and the command-line tools' arguments and environment.
    `who` names a key pair: "user", "admin", or an extra user by name. With `ca` (the file of the CA that
    signed the service's certificate) the tenant is spoken to over HTTPS, by every client."""

    def __init__(self, box, daemon, port, info, root=None, ca=None):
        self.box, self.daemon, self.port, self.info = box, daemon, port, info
        self.user = info["user"]
        self.root = root or box.path(f"cluster/tenants/{info['name']}")
        self.ca = ca
        self.endpoint = f"{'https' if ca else 'http'}://127.0.0.1:{port}"

    def tls_context(self):
        import ssl
        return ssl.create_default_context(cafile=self.ca)

    def connect(self, timeout=30, source="127.0.0.1", server_name="127.0.0.1", context=None, session=None):
        """A new connection to the service, TLS (the handshake done, the certificate checked) when it is;
        `context` and `session` (of an earlier connection of that context) for a resumed handshake."""
        s = socket.create_connection(("127.0.0.1", self.port), timeout=timeout * SLOWDOWN,
                                     source_address=(source, 0))
        if self.ca is None:
            return s
        try:
            return (context or self.tls_context()).wrap_socket(s, server_hostname=server_name, session=session)
        except BaseException:
            s.close()
            raise

    def keys(self, who="user"):
        if who == "admin":
            return self.info["admin_access_key"], self.info["admin_secret_key"]
        for extra in self.info["extra_users"]:
            if extra["name"] == who:
                return extra["access_key"], extra["secret_key"]
        assert who in ("user", self.user), who
        return self.info["access_key"], self.info["secret_key"]

    def client(self, sig="s3v4", who="user", style="path", endpoint=None, access_key=None, secret=None,
               read_timeout=60):
        import boto3  # Debian's python3-boto3
        from botocore.config import Config
        ak, sk = self.keys(who)
        return boto3.client("s3", endpoint_url=endpoint or self.endpoint, region_name="us-east-1",
                            aws_access_key_id=access_key or ak, aws_secret_access_key=secret or sk,
                            verify=self.ca if self.ca else None, config=Config(signature_version=sig, s3={"addressing_style": style},
                                          retries={"max_attempts": 1, "mode": "standard"},
                                          connect_timeout=5, read_timeout=read_timeout * SLOWDOWN,
                                          max_pool_connections=16))

    def data(self, bucket, key=""):
        return os.path.join(self.root, "data", self.user, bucket, key)

    def meta(self, bucket, key=""):
        return os.path.join(self.root, "meta", self.user, "object", bucket, key)

    def recycle(self, bucket, key=""):
        return os.path.join(self.root, "recycle", self.user, bucket, key)

    def version(self, bucket, key=""):
        return os.path.join(self.root, "version", self.user, bucket, key)

    def bucket_record(self, bucket):
        return os.path.join(self.root, "meta", self.user, "bucket", bucket)

    def set_versioning(self, bucket, status, save_num=None, who="user"):
        """PutBucketVersioning, sent raw so that the bound (SaveNum) can go with it."""
        body = f"<VersioningConfiguration><Status>{status}</Status>"
        if save_num is not None:
            body += f"<SaveNum>{save_num}</SaveNum>"
        code, reply = self.request("PUT", f"/{bucket}?versioning", (body + "</VersioningConfiguration>").encode(),
                                   who=who)
        assert code == 200, reply

    def grant_only(self, bucket, bucket_perms, object_perms=()):
        """Puts the bucket's address list in force with one rule for the peer 127.0.0.1 granting only the
        permissions named, in place of any rules it had."""
        import xml.etree.ElementTree as ET
        path = self.bucket_record(bucket)
        tree = ET.parse(path)
        root = tree.getroot()
        root.set("authaddr_status", "start")
        for old in root.findall("authaddr_list"):
            root.remove(old)
        rule = ET.SubElement(ET.SubElement(root, "authaddr_list"), "rule", id="a1", status="start")
        ET.SubElement(rule, "addrs", addr="127.0.0.1", mask="32")
        ET.SubElement(rule, "bucket", {p: "yes" for p in bucket_perms})
        ET.SubElement(rule, "object", {p: "yes" for p in object_perms})
        tree.write(path + ".new", xml_declaration=True, encoding="utf-8")
        os.rename(path + ".new", path)

    def bucket_stat(self, bucket):
        """(object_count, storage_in_bytes) of the bucket's record."""
        with open(self.bucket_record(bucket)) as f:
            text = f.read()
        return tuple(int(m.group(1)) if (m := re.search(rf'<stat\b[^>]*\b{name}="(\d+)"', text)) else 0
                     for name in ("object_count", "storage_in_bytes"))

    def contents(self, bucket):
        """Every content file of the bucket's live, version and recycle trees: {bytes: [(tree, path)]}.
        Records and temporary files (the reserved ".orbs3-" names) are left aside."""
        seen = {}
        for top, root in (("data", self.data(bucket)), ("version", self.version(bucket)),
                          ("recycle", self.recycle(bucket))):
            for base, _, files in os.walk(root):
                for f in files:
                    if not f.startswith(".orbs3-"):
                        with open(os.path.join(base, f), "rb") as fh:
                            seen.setdefault(fh.read(), []).append((top, os.path.join(base, f)))
        return seen

    def old_names(self, tree, bucket, key):
        """The names of `key`'s old contents and their records in the "version" or "recycle" tree."""
        d, _, name = key.rpartition("/")
        where = self.version(bucket, d) if tree == "version" else self.recycle(bucket, d)
        try:
            return sorted(n for n in os.listdir(where) if n.split("..")[0] in (name, f".orbs3-v-{name}"))
        except FileNotFoundError:
            return []

    def temp_files(self):
        """Every temporary file of the data and meta trees: a commit in the making, or one left behind."""
        found = []
        for top in ("data", "meta"):
            for base, _, files in os.walk(os.path.join(self.root, top)):
                found += [os.path.join(base, f) for f in files if f.startswith(TMP_PREFIX)]
        return found

    def sign(self, method, path, payload_hash, headers=None, who="user"):
        """The head of a request signed with Signature Version 4 over the payload hash given, as a client
        that streams its body signs, without Content-Length and the empty line."""
        from botocore.auth import S3SigV4Auth
        from botocore.awsrequest import AWSRequest
        from botocore.credentials import Credentials

        class PayloadAuth(S3SigV4Auth):
            def payload(self, request):
                return payload_hash

        req = AWSRequest(method=method, url=self.endpoint + path, data=b"", headers=dict(headers or {}))
        PayloadAuth(Credentials(*self.keys(who)), "s3", "us-east-1").add_auth(req)
        head = f"{method} {path} HTTP/1.1\r\nHost: 127.0.0.1:{self.port}\r\n"
        for k, v in req.prepare().headers.items():
            if k.lower() not in ("host", "content-length"):
                head += f"{k}: {v}\r\n"
        return head

    def signed(self, method, path, body=b"", headers=None, payload_hash=None, who="user", close=False):
        """A whole request signed with Signature Version 4, as bytes; the payload hash is the body's
        unless given. With `close` it asks for the connection to be closed after the reply."""
        import hashlib
        head = self.sign(method, path, payload_hash or hashlib.sha256(body).hexdigest(), headers, who)
        head += f"Content-Length: {len(body)}\r\n" + ("Connection: close\r\n" if close else "")
        return (head + "\r\n").encode() + body

    def exchange(self, data, quiet=None, source="127.0.0.1"):
        """Sends bytes on a new connection; returns everything the server wrote until it closed or, with
        `quiet`, went quiet for that many seconds."""
        with self.connect(30, source) as s:
            s.sendall(data)
            if quiet is not None:
                s.settimeout(quiet * SLOWDOWN)
            got = b""
            try:
                while chunk := s.recv(65536):
                    got += chunk
            except socket.timeout:
                pass
            return got

    def request(self, method, path, body=b"", **kw):
        """(status, whole reply) of a signed request on its own connection, closed after the reply."""
        reply = self.exchange(self.signed(method, path, body, close=True, **kw))
        return status_of(reply), reply

    def one_reply(self, data, head_only=False, source="127.0.0.1"):
        """Sends `data` on a new connection and returns the one reply, head and document, framed by its
        Content-Length; nothing may follow it."""
        with self.connect(10, source) as s:
            s.sendall(data)
            got = b""
            while b"\r\n\r\n" not in got:
                chunk = s.recv(65536)
                assert chunk, f"connection closed after {got!r}"
                got += chunk
            end = got.index(b"\r\n\r\n") + 4
            m = re.search(rb"\r\nContent-Length:\s*(\d+)\r\n", got[:end])
            head_only = head_only or data.startswith(b"HEAD ")
            size = end + (0 if head_only or m is None else int(m.group(1)))
            while len(got) < size:
                chunk = s.recv(65536)
                assert chunk, f"connection closed after {got!r}"
                got += chunk
            assert len(got) == size, f"bytes behind the reply: {got[size:]!r}"
            return got

    def env(self, home, who="user", secret=None):
        """The environment of a command-line client acting as `who`, with `secret` in place of its own."""
        ak, sk = self.keys(who)
        return tool_env(self, home, (ak, secret or sk))

    def aws(self):
        return ["/usr/bin/aws", "--endpoint-url", self.endpoint, "--region", "us-east-1",
                *(["--ca-bundle", self.ca] if self.ca else [])]

    def s3cmd(self, v2=False, secret=None):
        ak, sk = self.keys()
        hostport = f"127.0.0.1:{self.port}"
        return ["/usr/bin/s3cmd", "--config=/dev/null", f"--access_key={ak}", f"--secret_key={secret or sk}",
                f"--host={hostport}", f"--host-bucket={hostport}", "--region=us-east-1",
                *(["--ssl", f"--ca-certs={self.ca}"] if self.ca else ["--no-ssl"]),
                *(["--signature-v2"] if v2 else [])]

    def rclone(self, home):
        """The environment of rclone with a remote "om:" on this tenant."""
        return {**self.env(home), "RCLONE_CONFIG": "/dev/null", "RCLONE_CONFIG_OM_TYPE": "s3",
               "RCLONE_CONFIG_OM_PROVIDER": "Other", "RCLONE_CONFIG_OM_ENDPOINT": self.endpoint,
               "RCLONE_CONFIG_OM_ACCESS_KEY_ID": self.info["access_key"],
               "RCLONE_CONFIG_OM_SECRET_ACCESS_KEY": self.info["secret_key"],
               "RCLONE_CONFIG_OM_REGION": "us-east-1", **({"RCLONE_CA_CERT": self.ca} if self.ca else {})}

    def js_env(self, home, bucket):
        """The environment of a tests/js script acting as the tenant's user on `bucket`; node trusts the
        test CA through NODE_EXTRA_CA_CERTS, as an application's operator would set it."""
        return {**self.env(home), "ORBMUX_ENDPOINT": self.endpoint, "ORBMUX_BUCKET": bucket,
                **({"NODE_EXTRA_CA_CERTS": self.ca} if self.ca else {})}


def tenant_fixture(name, *tool_args, orbmux_conf=DEFAULT_ORBMUX_CONF, buckets=(), service=None, prepare=None,
                   tls=False, http_conf=None):
    """A module-scoped pytest fixture: one daemon serving one tenant `name` written with `tool_args`
    (its service file holding `service` when given), the `buckets` created, `prepare(tenant)` run; it
    yields the Tenant and at the end stops the daemon in order (no crash, no sanitizer report). With
    `tls` the tenant's group speaks HTTPS with a certificate of a test CA (for the --domain given, if
    any); `http_conf` is the text of the sandbox's http.conf."""
    import pytest

    @pytest.fixture(scope="module")
    def tenant():
        box = Sandbox(orbmux_conf=orbmux_conf, http_conf=http_conf)
        port = free_port()
        ca, args = None, list(tool_args)
        if tls:
            domain = args[args.index("--domain") + 1] if "--domain" in args else None
            certs = make_certs(box, domain)
            ca = certs["ca"]
            args += ["--ssl", "--cert", certs["cert"], "--key", certs["key"]]
        info = box.add_tenant(name, port, *args)
        if service is not None:
            with open(os.path.join(os.path.dirname(info["user_file"]), info["id"]), "w") as f:
                f.write(service)
        daemon = box.start("-d")
        try:
            wait_port(port)
            t = Tenant(box, daemon, port, info, ca=ca)
            s3 = t.client()
            for b in buckets:
                s3.create_bucket(Bucket=b)
            if prepare is not None:
                prepare(t)
            yield t
            t.daemon.stop()
        finally:
            box.cleanup()

    return tenant
