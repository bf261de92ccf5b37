"""Tenants loaded from their files at start: one worker per (ssl, address, port) with an active host.

One daemon serves the whole module: it needs about six seconds to decide, without a cluster controller,
that it starts offline. A served port answers a request without credentials for an object's ACL 403
AccessDenied from the S3 front end, which is enough to tell that a worker serves it.
"""

import os
import re
import signal
import socket

import pytest

from orbmux_harness import (DEBUG_FILE, Sandbox, free_port, pid_alive, port_accepts, wait_for, wait_port,
                             workers_of)
from test_worker import REQUEST, read_replies


@pytest.fixture(scope="module")
def node():
    box = Sandbox()
    ports = {name: free_port() for name in ("one", "two", "shared", "idle", "foreign")}
    tenants = {
        "one": box.add_tenant("one", ports["one"], "--group", "g-one"),
        "two": box.add_tenant("two", ports["two"], "--group", "g-two"),
        # Two tenants of one group on one port: one service, one worker.
        "shared-a": box.add_tenant("shared-a", ports["shared"], "--group", "g-shared"),
        "shared-b": box.add_tenant("shared-b", ports["shared"], "--group", "g-shared"),
        "idle": box.add_tenant("idle", ports["idle"], "--group", "g-idle", "--inactive"),
        "foreign": box.add_tenant("foreign", ports["foreign"], "--group", "g-foreign",
                                  "--node-key", "another-node"),
    }
    sysdir = "cluster/ombr/system/orbmux"
    # A broken group file and a directory that looks like one must cost only themselves.
    box.write(f"{sysdir}/group_broken.xml", '<?xml version="1.0"?>\n<orbmux>\n<group alias="broken"\n')
    os.makedirs(box.path(f"{sysdir}/group_dir.xml"))
    daemon = box.start("-d")
    try:
        for p in (ports["one"], ports["two"], ports["shared"]):
            wait_port(p)
        yield box, daemon, ports, tenants
    finally:
        box.cleanup()


def titles(daemon):
    return sorted(t.decode() for _, t in workers_of(daemon.pid))


def test_node_starts_offline_and_forks_one_worker_per_service_with_an_active_host(node):
    box, daemon, ports, _ = node
    assert "start as an offline service" in daemon.log()
    want = sorted(f"orbmux:http:127.0.0.1:{ports[n]}" for n in ("one", "two", "shared"))
    # Workers come up together; give any straggler its moment before comparing.
    wait_for(lambda: titles(daemon) == want, what=f"workers {want}")


def test_every_served_port_answers_and_the_others_refuse(node):
    box, daemon, ports, _ = node
    for name in ("one", "two", "shared"):
        with socket.create_connection(("127.0.0.1", ports[name]), timeout=10) as s:
            s.sendall(REQUEST)
            assert read_replies(s) == b""
    # An inactive host gets no worker; a host of another node's key is not loaded at all.
    assert not port_accepts(ports["idle"])
    assert not port_accepts(ports["foreign"])


def test_the_shared_worker_keeps_both_tenants_and_the_logs_name_the_bad_files(node):
    box, daemon, ports, tenants = node
    debug = box.read(DEBUG_FILE)
    for name in ("shared-a", "shared-b", "one", "two"):
        assert re.search(rf"vhost:{tenants[name]['id']},{name},[^,]*,active,false", debug), name
    for name in ("idle", "foreign"):
        assert not re.search(rf"vhost:{tenants[name]['id']},", debug), name
    log = daemon.log()
    assert re.search(r"read vhost file\[[^\]]*group_broken\.xml\] failure", log), log


def test_sigterm_to_the_master_stops_every_worker_and_leaves_no_process(node):
    box, daemon, ports, _ = node
    workers = [pid for pid, _ in workers_of(daemon.pid)]
    assert len(workers) == 3
    daemon.stop(signal.SIGTERM)
    for pid in workers:
        assert not pid_alive(pid)
    for name in ("one", "two", "shared"):
        assert not port_accepts(ports[name])
