"""Tenants changed on a running daemon with orbmux-ctl over the master's control socket, and what the
socket does with clients that are slow, hostile or not root.

One daemon serves the module; the restart test comes last and checks that every change of the tests
before it is still there.
"""

import concurrent.futures
import fcntl
import json
import os
import re
import socket
import struct
import subprocess
import time
import xml.etree.ElementTree as ET

import pytest

from orbmux_harness import BINARY, Sandbox, free_port, port_accepts, wait_for, wait_port

CTL = os.environ.get("ORBMUX_CTL") or os.path.join(os.path.dirname(BINARY), "orbmux-ctl")
SOCKET = "var/run/orbmux/orbmux.iface"
SYSDIR = "cluster/ombr/system/orbmux"
VERSION = 0x00060001
OK = 0x10010000


def ctl(box, *args, as_json=True, timeout=30):
    return subprocess.run([CTL, "--prefix", box.root, *(["--json"] if as_json else []), *args],
                          capture_output=True, text=True, timeout=timeout)


def ctl_ok(box, *args):
    out = ctl(box, *args)
    assert out.returncode == 0, (args, out.stdout, out.stderr)
    return json.loads(out.stdout) if out.stdout.strip() else {}


def recv_exact(s, n):
    data = b""
    while len(data) < n:
        chunk = s.recv(n - len(data))
        if not chunk:
            break
        data += chunk
    return data


def raw_call(box, mtype, body=b"", head=None, timeout=15):
    """One request as bytes; (reply type, status, body as JSON or None), or None when the daemon closed
    without a reply."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.settimeout(timeout)
        s.connect(box.path(SOCKET))
        if head is None:
            head = struct.pack("<11I", VERSION, mtype, 0, 0, len(body), 0, 0, 0, 0, 0, 0)
        s.sendall(head + body)
        h = recv_exact(s, 44)
        if len(h) < 44:
            return None
        _, rtype, status, _, length = struct.unpack("<5I", h[:20])
        data = recv_exact(s, length)
        return rtype, status, json.loads(data) if data else None


def add_body(name, port, id_=None, **extra):
    body = {"id": id_ or name, "name": name, "ip": "127.0.0.1", "port": port, "cluster": "c1", "tiered": "",
            "path": f"tenants/{name}", "accesskeyid": f"AK{name.upper()}"[:20].replace("-", "0"),
            "accesskeysecret": "s" * 40, "displayname": "admin", "userid": "u" + name}
    body.update(extra)
    return json.dumps(body).encode()


def group_doc(box, group):
    # The group line writes its port without quotes, which the daemon's reader takes; ElementTree does not.
    with open(box.path(f"{SYSDIR}/group_{group}.xml")) as f:
        return ET.fromstring(re.sub(r" port=(\d+)", r' port="\1"', f.read()))


def group_hosts(box, group):
    """The hosts of a group file by id, after checking that the file is whole XML of mode 0600."""
    path = box.path(f"{SYSDIR}/group_{group}.xml")
    if not os.path.exists(path):
        return {}
    assert os.stat(path).st_mode & 0o777 == 0o600
    root = group_doc(box, group)
    return {h.get("id"): h for g in root.iter("group") for h in g.iter("host")}


def s3(port, key, secret):
    import boto3
    from botocore.config import Config
    return boto3.client("s3", endpoint_url=f"http://127.0.0.1:{port}", region_name="us-east-1",
                        aws_access_key_id=key, aws_secret_access_key=secret,
                        config=Config(signature_version="s3v4", s3={"addressing_style": "path"},
                                      retries={"max_attempts": 1, "mode": "standard"}, connect_timeout=5,
                                      read_timeout=30))


@pytest.fixture(scope="module")
def node():
    box = Sandbox()
    # The provisioning tool makes the node's files (node key, cluster file) with one tenant.
    box.add_tenant("seed", free_port(), "--group", "seed")
    daemon = box.start("-d")
    state = {"box": box, "daemon": daemon}
    try:
        wait_for(lambda: ctl(box, "list").returncode == 0, timeout=20, interval=0.2, what="control socket")
        yield state
    finally:
        if daemon.alive():
            daemon.stop()
        box.cleanup()


@pytest.fixture(scope="module")
def tenant(node):
    """A tenant added to the running daemon on a port of its own, with a user."""
    box = node["box"]
    port = free_port()
    info = ctl_ok(box, "add", "--name", "live", "--port", str(port), "--user", "alice")
    info["port"] = port
    node["live"] = info
    return info


def test_add_serves_at_once(node, tenant):
    box = node["box"]
    wait_port(tenant["port"], timeout=10)
    c = s3(tenant["port"], tenant["access_key"], tenant["secret_key"])
    c.create_bucket(Bucket="bucket-one")
    c.put_object(Bucket="bucket-one", Key="k", Body=b"hello")
    assert c.get_object(Bucket="bucket-one", Key="k")["Body"].read() == b"hello"
    admin = s3(tenant["port"], tenant["admin_access_key"], tenant["admin_secret_key"])
    assert "bucket-one" in [b["Name"] for b in admin.list_buckets()["Buckets"]]

    got = ctl_ok(box, "get", tenant["id"])
    assert (got["name"], got["status"], got["port"]) == ("live", "active", tenant["port"])
    # Secrets only when asked for.
    assert "accesskeysecret" not in got and "key_pwd" not in got
    assert ctl_ok(box, "get", tenant["id"], "--secrets")["accesskeysecret"] == tenant["admin_secret_key"]
    listed = {t["id"]: t for t in ctl_ok(box, "list")["data"]}
    assert "accesskeysecret" not in listed[tenant["id"]]
    hosts = group_hosts(box, "live")
    assert hosts[tenant["id"]].get("status") == "active"
    users = box.path(f"{SYSDIR}/{tenant['id']}.user")
    assert os.stat(users).st_mode & 0o777 == 0o600 and "alice" in open(users).read()


def test_add_is_idempotent_by_id(node):
    box = node["box"]
    port = free_port()
    first = raw_call(box, 0x1003, add_body("idem", port))
    again = raw_call(box, 0x1003, add_body("idem", port))
    other = raw_call(box, 0x1003, add_body("idem", port, domain="other.test"))
    name_taken = raw_call(box, 0x1003, add_body("idem", port, id_="idem2"))
    assert [r[1] for r in (first, again, other, name_taken)] == [OK, OK, 1108, 1108]
    assert first[0] == 0x10001003
    assert list(group_hosts(box, "idem")) == ["idem"]


def test_edit_domain(node, tenant):
    box = node["box"]
    ctl_ok(box, "edit", tenant["id"], "--domain", "live.example.test")
    assert ctl_ok(box, "get", tenant["id"])["domain"] == "live.example.test"
    assert group_doc(box, "live").find("group").get("domain") == "live.example.test"


def test_stop_closes_and_start_serves_again(node, tenant):
    box = node["box"]
    ctl_ok(box, "stop", tenant["id"])
    wait_for(lambda: not port_accepts(tenant["port"]), timeout=10, what="port closed after stop")
    assert group_hosts(box, "live")[tenant["id"]].get("status") == "inactive"
    ctl_ok(box, "start", tenant["id"])
    wait_port(tenant["port"], timeout=10)
    c = s3(tenant["port"], tenant["access_key"], tenant["secret_key"])
    assert c.get_object(Bucket="bucket-one", Key="k")["Body"].read() == b"hello"


def test_added_user_key_works_at_once(node, tenant):
    box = node["box"]
    wait_port(tenant["port"], timeout=10)
    c = s3(tenant["port"], tenant["access_key"], tenant["secret_key"])
    c.list_buckets()  # a kept-alive connection before the key exists
    new = ctl_ok(box, "add-user", tenant["id"], "--user", "bob")
    bob = s3(tenant["port"], new["accesskeyid"], new["accesskeysecret"])
    wait_for(lambda: _lists(bob), timeout=5, what="bob's key accepted")
    c.list_buckets()


def _lists(client):
    try:
        client.list_buckets()
        return True
    except Exception:
        return False


def test_delete(node):
    box = node["box"]
    port = free_port()
    info = ctl_ok(box, "add", "--name", "gone", "--port", str(port), "--id", "gone-id")
    wait_port(port, timeout=10)
    refused = ctl(box, "delete", "gone-id", as_json=False)
    assert refused.returncode == 1 and "1121" in refused.stderr
    ctl_ok(box, "stop", info["id"])
    ctl_ok(box, "delete", info["id"])
    assert "gone-id" not in [t["id"] for t in ctl_ok(box, "list")["data"]]
    assert group_hosts(box, "gone") == {}
    assert ctl(box, "delete", "gone-id").returncode == 1  # 1109: no such tenant


def test_refusals_and_exit_codes(node):
    box = node["box"]
    port = free_port()
    bad = [
        ("add", "--name", "../x", "--port", str(port)),
        ("add", "--name", "x", "--id", "../x", "--port", str(port)),
        ("add", "--name", "x", "--port", str(port), "--path", "../../etc"),
        ("add", "--name", "x", "--port", str(port), "--path", "ombr/system"),
        ("add", "--name", "x" * 300, "--port", str(port)),
        ("add", "--name", "x", "--port", str(port), "--ip", "not-an-ip"),
    ]
    for args in bad:
        out = ctl(box, *args, as_json=False)
        assert out.returncode == 1 and "1000" in out.stderr, (args, out.stderr)
    # A link in the cluster tree does not lead a tenant out of it.
    os.makedirs(box.path("cluster/tenants"), exist_ok=True)
    os.symlink("/tmp", box.path("cluster/tenants/escape"))
    out = ctl(box, "add", "--name", "x", "--port", str(port), "--path", "tenants/escape/t", as_json=False)
    assert out.returncode == 1 and "1000" in out.stderr, out.stderr
    assert ctl(box, "add", "--port", "1", as_json=False).returncode == 2
    assert ctl(box, "frobnicate", as_json=False).returncode == 2
    gone = subprocess.run([CTL, "--prefix", box.path("nowhere"), "list"], capture_output=True, timeout=10)
    assert gone.returncode == 3


def test_failed_write_changes_nothing(node):
    box = node["box"]
    port = free_port()
    # The provisioning tool holds its lock: the change waits a bounded time, then is refused.
    with open(box.path(f"{SYSDIR}/.orbmux-tenant.lock"), "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        t0 = time.monotonic()
        out = ctl(box, "add", "--name", "locked", "--port", str(port), as_json=False)
        assert out.returncode == 1 and "1101" in out.stderr, out.stderr
        assert 2 < time.monotonic() - t0 < 10
    # A group file that cannot be read is not overwritten, and the tenant is not added.
    os.makedirs(box.path(f"{SYSDIR}/group_blocked.xml/x"))
    out = ctl(box, "add", "--name", "blocked", "--port", str(port), as_json=False)
    assert out.returncode == 1 and "1101" in out.stderr, out.stderr
    names = [t["name"] for t in ctl_ok(box, "list")["data"]]
    assert "locked" not in names and "blocked" not in names
    assert not port_accepts(port)
    # Once the lock is free the same add goes through.
    ctl_ok(box, "add", "--name", "locked", "--port", str(port), "--inactive")
    assert "locked" in [t["name"] for t in ctl_ok(box, "list")["data"]]


def test_faults_do_not_stall_the_control_socket(node):
    box = node["box"]
    silent = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    silent.connect(box.path(SOCKET))
    try:
        t0 = time.monotonic()
        assert ctl(box, "list", timeout=20).returncode == 0
        waited = time.monotonic() - t0
        # The silent client waits for its own 5 s deadline; the others are answered meanwhile.
        assert waited < 3, waited
    finally:
        silent.close()
    # A header that announces 2^31 bytes: the socket is closed, nothing is allocated for it.
    huge = struct.pack("<11I", VERSION, 0x1001, 0, 0, 1 << 31, 0, 0, 0, 0, 0, 0)
    assert raw_call(box, 0, head=huge) is None
    # Garbage: 44 bytes of 0xff announce 4 GiB and are closed on unread; a wrong version is answered
    # 0x0c00002f; bad JSON, a non-object and an unknown type are refused with 1000.
    assert raw_call(box, 0, head=b"\xff" * 44) is None
    wrong = struct.pack("<11I", 0xDEADBEEF, 0x1001, 0, 0, 0, 0, 0, 0, 0, 0, 0)
    assert raw_call(box, 0, head=wrong) == (0x10001001, 0x0c00002f, None)
    assert raw_call(box, 0x1003, bytes(range(256)))[1] == 1000
    assert raw_call(box, 0x1003, b"{not json")[1] == 1000
    assert raw_call(box, 0x1003, b"[1,2]")[1] == 1000
    assert raw_call(box, 0x7777, b"{}")[1:] == (1000, {"errorcode": 1000, "errordesc": "Data parsing error",
                                                       "reason": "unknown message type"})
    assert ctl(box, "list").returncode == 0


def test_non_root_client_refused(node):
    box = node["box"]
    path = box.path(SOCKET)
    assert os.stat(path).st_mode & 0o777 == 0o600

    # The directories up to the socket, opened to others for the moment (the sandbox's are private).
    dirs = [box.root, box.path("var"), box.path("var/run"), box.path("var/run/orbmux")]
    modes = [os.stat(d).st_mode & 0o7777 for d in dirs]

    def as_nobody(chmod_open):
        # Opened for the moment so that the peer check itself is what refuses.
        for d, m in zip(dirs, modes):
            os.chmod(d, m | 0o011)
        if chmod_open:
            os.chmod(path, 0o666)
        try:
            pid = os.fork()
            if pid == 0:
                code = 9
                try:
                    os.setgid(65534)
                    os.setuid(65534)
                    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                    s.settimeout(10)
                    try:
                        s.connect(path)
                    except PermissionError:
                        os._exit(2)
                    try:
                        s.sendall(struct.pack("<11I", VERSION, 0x1001, 0, 0, 0, 0, 0, 0, 0, 0, 0))
                        code = 3 if s.recv(44) == b"" else 4
                    except (BrokenPipeError, ConnectionResetError):
                        code = 3  # closed unread
                finally:
                    os._exit(code)
            return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
        finally:
            os.chmod(path, 0o600)
            for d, m in zip(dirs, modes):
                os.chmod(d, m)

    assert as_nobody(False) == 2, "the socket's mode lets nobody connect"
    assert as_nobody(True) == 3, "the daemon answered a client that is not root"
    node["daemon"].wait_log("peer refused", timeout=5)


def test_concurrent_add_and_delete_of_one_id(node):
    box = node["box"]
    port = free_port()

    def call(i, mtype):
        body = add_body(f"race{i}", port, id_="race", path="tenants/race", group="race") if mtype == 0x1003 \
            else json.dumps({"id": "race"}).encode()
        return raw_call(box, mtype, body, timeout=60)[1]

    with concurrent.futures.ThreadPoolExecutor(50) as pool:
        adds = list(pool.map(lambda i: call(i, 0x1003), range(50)))
    assert adds.count(OK) == 1 and adds.count(1108) == 49, adds
    assert list(group_hosts(box, "race")) == ["race"]
    with concurrent.futures.ThreadPoolExecutor(50) as pool:
        dels = list(pool.map(lambda i: call(i, 0x1005), range(50)))
    assert dels.count(OK) == 1 and dels.count(1109) == 49, dels
    assert group_hosts(box, "race") == {}
    # Adds and deletes mixed: whatever wins last, memory and the file agree, and the file is whole.
    with concurrent.futures.ThreadPoolExecutor(50) as pool:
        mixed = list(pool.map(lambda i: call(i, 0x1003 if i % 2 else 0x1005), range(50)))
    assert set(mixed) <= {OK, 1108, 1109}, mixed
    in_memory = ctl(box, "get", "race").returncode == 0
    assert in_memory == ("race" in group_hosts(box, "race"))


def test_changes_survive_a_restart(node, tenant):
    box, daemon = node["box"], node["daemon"]
    before = {t["id"]: (t["name"], t["domain"], t["status"]) for t in ctl_ok(box, "list")["data"]}
    assert before[tenant["id"]] == ("live", "live.example.test", "active")
    assert before["idem"][2] == "inactive" and "gone-id" not in before
    daemon.stop()
    node["daemon"] = box.start("-d")
    wait_for(lambda: ctl(box, "list").returncode == 0, timeout=20, interval=0.2, what="control socket")
    after = {t["id"]: (t["name"], t["domain"], t["status"]) for t in ctl_ok(box, "list")["data"]}
    assert after == before
    wait_port(tenant["port"], timeout=15)
    c = s3(tenant["port"], tenant["access_key"], tenant["secret_key"])
    assert c.get_object(Bucket="bucket-one", Key="k")["Body"].read() == b"hello"
