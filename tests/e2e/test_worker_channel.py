"""A worker's own control socket: the master adds, edits, deletes and asks after tenants of a running
worker. A second tenant on the same port is added at run time and served at once by its domain; an edit
moves it to another domain; a delete stops serving it while a request that began before completes."""

import hashlib
import json
import os
import re
import signal
import socket
import threading
import time

import pytest

from orbmux_harness import (MSG_HEAD, MSG_STATUS_OK, MSG_VERSION, Sandbox, Tenant, control_call, free_port, wait_for, wait_port,
                            worker_iface, workers_of, s3_error)

ADD, EDIT, DELETE, GET = 0x1003, 0x1004, 0x1005, 0x1002
BAD_BODY = 1000


@pytest.fixture(scope="module")
def node():
    box = Sandbox()
    port = free_port()
    alpha = box.add_tenant("alpha", port)
    daemon = box.start("-d")
    try:
        wait_port(port)
        # Written after the master loaded its tenants, for another node: only the worker channel brings it.
        beta = box.add_tenant("beta", port, "--domain", "beta.test", "--node-key", "elsewhere")
        t = Tenant(box, daemon, port, alpha)
        t.beta = Tenant(box, daemon, port, beta)
        yield t
        daemon.stop()
    finally:
        box.cleanup()


def worker(t):
    pids = wait_for(lambda: [p for p, _ in workers_of(t.daemon.pid)] or None, what="a worker")
    assert len(pids) == 1
    path = worker_iface(t.box, pids[0])
    wait_for(lambda: os.path.exists(path), what="the worker's control socket")
    return path


def via_host(t, host, who_tenant, who="user"):
    """boto3 on the node's port, sending Host `host`: the tenant is chosen by its domain."""
    ak, sk = who_tenant.keys(who)
    s3 = t.client(access_key=ak, secret=sk)
    s3.meta.events.register("before-sign.s3", lambda request, **kw: request.headers.__setitem__(
        "Host", f"{host}:{t.port}"))
    return s3


def add_body(b, domain="beta.test"):
    return {"id": b.info["id"], "name": "beta", "path": "tenants/beta", "cluster": "c1", "domain": domain,
            "accesskeyid": b.info["admin_access_key"], "accesskeysecret": b.info["admin_secret_key"],
            "displayname": "admin", "userid": "admin"}


def call(path, mtype, body):
    reply = control_call(path, mtype, body)
    assert reply is not None, "no reply"
    assert reply[0] == mtype | 0x10000000
    return reply[1], reply[2]


def test_refusals(node):
    path = worker(node)
    # Not JSON, a required key missing, an id naming no file, a path leaving the cluster.
    assert call(path, ADD, b"id=x")[0] == BAD_BODY
    assert call(path, ADD, {"id": "x", "name": "x", "cluster": "c1"})[0] == BAD_BODY
    assert call(path, DELETE, {"id": "../x"})[0] == BAD_BODY
    bad_path = dict(add_body(node.beta), path="../../etc")
    assert call(path, ADD, bad_path)[0] == BAD_BODY
    assert call(path, ADD, dict(add_body(node.beta), cluster="nosuch"))[0] == BAD_BODY
    # A type the worker does not serve is dropped without a reply.
    assert control_call(path, 0x1007, {"id": "x"}) is None
    # Unknown ids: an empty object, and success for edit and delete.
    assert call(path, GET, {"id": "nosuch"}) == (MSG_STATUS_OK, b"{}")
    assert call(path, EDIT, {"id": "nosuch", "name": "n"})[0] == MSG_STATUS_OK
    assert call(path, DELETE, {"id": "nosuch"})[0] == MSG_STATUS_OK
    # Nothing of that reached the tenant list: beta is not served.
    assert s3_error(lambda: via_host(node, "beta.test", node.beta).list_buckets()) == (403, "InvalidAccessKeyId")


def test_add_serves_at_once_and_is_idempotent(node):
    path = worker(node)
    assert call(path, ADD, add_body(node.beta)) == (MSG_STATUS_OK, b"")
    s3 = via_host(node, "beta.test", node.beta)
    s3.create_bucket(Bucket="bkb")
    s3.put_object(Bucket="bkb", Key="k", Body=b"beta data")
    assert os.path.exists(node.beta.data("bkb", "k"))
    assert not os.path.exists(node.data("bkb"))
    # The first tenant answers as before, on its own keys; its keys mean nothing to beta.
    node.client().list_buckets()
    assert s3_error(lambda: via_host(node, "beta.test", node).list_buckets()) == (403, "InvalidAccessKeyId")
    # A second add of the same id changes nothing.
    assert call(path, ADD, dict(add_body(node.beta), domain="other.test"))[0] == MSG_STATUS_OK
    status, body = call(path, GET, {"id": node.beta.info["id"], "name": "beta"})
    got = json.loads(body)
    assert status == MSG_STATUS_OK
    assert (got["id"], got["name"], got["status"], got["bucketnum"]) == (node.beta.info["id"], "beta", 1, 1)
    assert "objectnum" in got
    assert s3.get_object(Bucket="bkb", Key="k")["Body"].read() == b"beta data"


def test_edit_moves_the_domain(node):
    path = worker(node)
    assert call(path, EDIT, {"id": node.beta.info["id"], "name": "beta2", "domain": "gamma.test", "chg": 0})[0] \
        == MSG_STATUS_OK
    assert via_host(node, "gamma.test", node.beta).get_object(Bucket="bkb", Key="k")["Body"].read() == b"beta data"
    # The old domain now reaches the first tenant, where beta's keys are unknown.
    assert s3_error(lambda: via_host(node, "beta.test", node.beta).list_buckets()) == (403, "InvalidAccessKeyId")
    assert json.loads(call(path, GET, {"id": node.beta.info["id"]})[1])["name"] == "beta2"


def test_delete_keeps_a_request_in_flight(node):
    path = worker(node)
    s3 = via_host(node, "gamma.test", node.beta)
    blob = os.urandom(48 << 20)
    s3.put_object(Bucket="bkb", Key="big", Body=blob)
    body = s3.get_object(Bucket="bkb", Key="big")["Body"]
    first = body.read(64 << 10)
    # The reply is far larger than the socket buffers: the request is still running in the worker.
    assert call(path, DELETE, {"id": node.beta.info["id"], "name": "beta2"})[0] == MSG_STATUS_OK
    assert call(path, GET, {"id": node.beta.info["id"]}) == (MSG_STATUS_OK, b"{}")
    rest = body.read()
    assert hashlib.md5(first + rest).digest() == hashlib.md5(blob).digest()
    assert s3_error(lambda: via_host(node, "gamma.test", node.beta).list_buckets()) == (403, "InvalidAccessKeyId")
    # The tenant's files stay; the first tenant is served on.
    assert os.path.exists(node.beta.data("bkb", "k"))
    node.client().list_buckets()


def test_changes_race_requests(node):
    """Adds, edits and deletes while two clients keep requesting: every reply is a whole one, from
    the first tenant or from beta, and the worker lives on."""
    path = worker(node)
    pid = workers_of(node.daemon.pid)[0][0]
    stop = threading.Event()
    errors = []

    def hammer():
        s3 = via_host(node, "beta.test", node.beta)
        while not stop.is_set():
            try:
                s3.list_buckets()
            except Exception as e:  # a refusal while beta is away is expected; a dropped connection is not
                if "InvalidAccessKeyId" not in str(e):
                    errors.append(repr(e))

    threads = [threading.Thread(target=hammer) for _ in range(2)]
    for th in threads:
        th.start()
    try:
        for i in range(40):
            assert call(path, ADD, add_body(node.beta))[0] == MSG_STATUS_OK
            assert call(path, EDIT, {"id": node.beta.info["id"], "name": f"b{i}", "domain": "beta.test"})[0] \
                == MSG_STATUS_OK
            assert call(path, DELETE, {"id": node.beta.info["id"]})[0] == MSG_STATUS_OK
    finally:
        stop.set()
        for th in threads:
            th.join()
    assert errors == []
    assert workers_of(node.daemon.pid)[0][0] == pid


def test_new_user_works_at_once_on_a_kept_connection(node):
    """A user written to the tenant's user file reaches the worker with an edit of the tenant; a client
    whose connection is kept alive across the edit is served on it at once."""
    path = worker(node)
    user_file = node.info["user_file"]
    with open(user_file) as f:
        text = f.read()
    key, secret = "CAROLKEY0000000000AA", "carolsecret0000000000000000000000000000AA"
    with open(user_file + ".new", "w") as f:
        f.write(text.rstrip("\n") + f'\n<User UserId="carol-id" DisPlayName="carol" Status="0">'
                f'\n\t<AccessKey AccessKeyId="{key}" AccessKeySecret="{secret}" /></User>\n')
    os.rename(user_file + ".new", user_file)
    s3 = node.client(access_key=key, secret=secret)
    assert s3_error(s3.list_buckets) == (403, "InvalidAccessKeyId")
    assert call(path, EDIT, {"id": node.info["id"], "name": "alpha"})[0] == MSG_STATUS_OK
    s3.create_bucket(Bucket="carolb")
    assert os.path.isdir(os.path.join(node.root, "data", "carol", "carolb"))


def test_killed_worker_comes_back_with_backoff(node):
    waits = []
    for want in (1, 2):
        old = worker(node)
        old_pid = int(os.path.basename(old).split(".")[0])
        os.kill(old_pid, signal.SIGKILL)
        killed = time.monotonic()
        node.daemon.wait_log(rf"worker process {old_pid} of 127\.0\.0\.1:{node.port} killed by signal 9, "
                             rf"restarting in {want} s")
        new_pid = wait_for(lambda: [p for p, _ in workers_of(node.daemon.pid) if p != old_pid] or None,
                           timeout=want + 5, what="a new worker")[0]
        waits.append(time.monotonic() - killed)
        assert os.path.exists(worker_iface(node.box, new_pid)) or wait_for(
            lambda: os.path.exists(worker_iface(node.box, new_pid)), what="the new worker's socket")
        wait_port(node.port)
        node.client().list_buckets()
    # The second death came within a minute of the first restart: its wait doubled.
    assert waits[0] >= 0.9 and waits[1] >= 1.9, waits
    assert len(re.findall(r"started again \(restart \d+\)", node.daemon.log())) == 2
    # The master's status names the restarts.
    _, status, body = control_call(node.box.path("var/run/orbmux/orbmux.iface"), 0x6004)
    assert status == MSG_STATUS_OK
    assert [t["restarts"] for t in json.loads(body)["data"] if t["id"] == node.info["id"]] == [2]


def test_stopped_worker_does_not_hold_the_master():
    box = Sandbox()
    try:
        port = free_port()
        info = box.add_tenant("solo", port)
        daemon = box.start("-d")
        wait_port(port)
        t = Tenant(box, daemon, port, info)
        path = worker(t)
        pid = workers_of(daemon.pid)[0][0]
        os.kill(pid, signal.SIGSTOP)
        # A change sent to the stopped worker waits in its socket; the master's signals go on meanwhile.
        pending = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        pending.connect(path)
        body = json.dumps({"id": info["id"], "name": "solo"}).encode()
        pending.sendall(MSG_HEAD.pack(MSG_VERSION, EDIT, 0, 0, len(body), 0, 0, 0, 0, 0, 0) + body)
        daemon.send_signal(signal.SIGUSR1)
        daemon.wait_log("log reopened", timeout=3)
        # The master's control socket still answers at once: no change waits on the stopped worker there.
        asked = time.monotonic()
        _, status, body = control_call(box.path("var/run/orbmux/orbmux.iface"), 0x1001)
        assert status == MSG_STATUS_OK and info["id"] in body.decode()
        assert time.monotonic() - asked < 2
        # An edit through the master is written and answered; telling the stopped worker is the control
        # pool's wait, not the control socket's.
        asked = time.monotonic()
        _, status, _ = control_call(box.path("var/run/orbmux/orbmux.iface"), EDIT,
                                    {"id": info["id"], "name": "solo", "domain": "held.test"})
        assert status == MSG_STATUS_OK
        assert time.monotonic() - asked < 2
        assert 'domain="held.test"' in open(info["group_file"]).read()
        begun = time.monotonic()
        daemon.stop()  # exit status 0, pid file gone, no process of the session left
        took = time.monotonic() - begun
        pending.close()
        assert took < 5, f"stop took {took:.1f} s"
        assert not os.path.exists(path), "the worker's socket outlived it"
    finally:
        box.cleanup()


def test_tls_tenant_added_with_its_certificate():
    """On a TLS service an add brings the tenant's own certificate into the worker's contexts: a
    handshake naming its domain gets it; a connection opened before keeps working on the old context; an
    edit through the master with a renewed certificate is served after it."""
    import ssl
    import subprocess
    box = Sandbox()

    def cert(name):
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                        "-nodes", "-keyout", box.path(f"{name}.key"), "-out", box.path(f"{name}.pem"), "-days",
                        "2", "-subj", f"/CN={name}.test"], check=True, capture_output=True)
        with open(box.path(f"{name}.pem")) as f:
            return ssl.PEM_cert_to_DER_cert(f.read())

    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    ctx.check_hostname = False
    ctx.verify_mode = ssl.CERT_NONE

    def connect(port, sni):
        s = ctx.wrap_socket(socket.create_connection(("127.0.0.1", port), timeout=10), server_hostname=sni)
        return s

    try:
        good_der, beta_der = cert("good"), cert("beta")
        port = free_port()
        info = box.add_tenant("good", port)
        with open(info["group_file"]) as f:
            text = f.read()
        with open(info["group_file"], "w") as f:
            f.write(text.replace('cert="" key="" key_pwd="" ssl="false"',
                                 f'cert="{box.path("good.pem")}" key="{box.path("good.key")}" key_pwd="" ssl="true"'))
        daemon = box.start("-d")
        wait_port(port)
        t = Tenant(box, daemon, port, info)
        beta = box.add_tenant("beta", free_port(), "--domain", "beta.test", "--node-key", "elsewhere")
        early = connect(port, "beta.test")
        assert early.getpeercert(binary_form=True) == good_der
        body = dict(add_body(Tenant(box, daemon, port, beta)), cert=box.path("beta.pem"), key=box.path("beta.key"))
        assert call(worker(t), ADD, body)[0] == MSG_STATUS_OK

        def beta_cert():
            try:
                with connect(port, "beta.test") as s:
                    return s.getpeercert(binary_form=True) == beta_der
            except OSError:
                return False
        wait_for(beta_cert, timeout=5, what="the tenant's certificate on its domain")
        with connect(port, "good.test") as s:
            assert s.getpeercert(binary_form=True) == good_der
        early.sendall(b"GET / HTTP/1.1\r\nHost: beta.test\r\n\r\n")
        assert early.recv(64).startswith(b"HTTP/1.1 ")
        early.close()

        # A renewed certificate given through the master's edit reaches the worker's contexts.
        renewed_der = cert("renewed")
        _, status, _ = control_call(box.path("var/run/orbmux/orbmux.iface"), EDIT,
                                    {"id": info["id"], "name": "good", "cert": box.path("renewed.pem"),
                                     "key": box.path("renewed.key")})
        assert status == MSG_STATUS_OK

        def renewed():
            try:
                with connect(port, "good.test") as s:
                    return s.getpeercert(binary_form=True) == renewed_der
            except OSError:
                return False
        wait_for(renewed, timeout=5, what="the renewed certificate")
        daemon.stop()
    finally:
        box.cleanup()
