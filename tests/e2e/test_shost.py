"""The node and its cluster controller: what orbmux sends to `shost` and how it takes each answer.

A stand-in controller (shost_standin) records the requests and answers as each test scripts it. Whatever
the controller does (answers, forgets the node, is absent, hangs, answers half a reply) the node serves
its tenant; the controller decides only whether it runs online or offline.
"""

import os
import re
import time

import pytest

from orbmux_harness import Sandbox, Tenant, free_port, wait_for, wait_port
from shost_standin import ALIVE, REGISTER, VERSION, ShostStandIn

REPORT = {"program": "orbmux", "version": 197121}
PASS = 3.0


@pytest.fixture
def node():
    """A sandbox with one tenant and a stand-in controller not yet listening; yields (box, port, info,
    shost); the test starts the daemon."""
    box = Sandbox()
    port = free_port()
    info = box.add_tenant("acme", port)
    shost = ShostStandIn(box.root)
    try:
        yield box, port, info, shost
    finally:
        shost.stop()
        box.cleanup()


def serves(box, daemon, port, info, bucket):
    s3 = Tenant(box, daemon, port, info).client()
    s3.create_bucket(Bucket=bucket)
    s3.put_object(Bucket=bucket, Key="k", Body=b"v")
    assert s3.get_object(Bucket=bucket, Key="k")["Body"].read() == b"v"


def gaps(times):
    return [b - a for a, b in zip(times, times[1:])]


def conf_path_of(box):
    return re.search(r'conf_path="([^"]*)"', box.read("etc/orbmux/orbmux.conf")).group(1)


def test_register_alive_and_register_again(node):
    box, port, info, shost = node
    shost.conf_path = "/mnt/shared/orbmux"
    shost.start()
    d = box.start()
    wait_port(port)
    serves(box, d, port, info, "online")
    wait_for(lambda: len(shost.of_type(ALIVE)) >= 3, timeout=4 * PASS + 5, what="three alive reports")

    # First a registration, then only alive reports, every pass; every body is the same report.
    assert shost.types()[:4] == [REGISTER, ALIVE, ALIVE, ALIVE]
    for _, _, body, version in shost.requests:
        assert body == REPORT and version == VERSION
    for gap in gaps([r[0] for r in shost.requests[:4]]):
        assert PASS - 0.5 < gap < PASS + 1.0, gaps([r[0] for r in shost.requests])
    log = d.log()
    assert "register to shost" in log and "register shost success" in log
    assert "start as an online service" in log and "start as an offline service" not in log

    # The path of the registration reply is kept in orbmux.conf, replaced whole.
    assert conf_path_of(box) == "/mnt/shared/orbmux"
    conf = os.stat(box.path("etc/orbmux/orbmux.conf"))

    # A controller that no longer knows the node gets a new registration at the next pass; its reply
    # without a path changes nothing, and the vhosts are not loaded again.
    shost.conf_path = None
    shost.alive_codes = [4086]
    before = len(shost.requests)
    wait_for(lambda: REGISTER in shost.types()[before:], timeout=3 * PASS, what="a second registration")
    wait_for(lambda: ALIVE in shost.types()[shost.types().index(REGISTER, before):], timeout=3 * PASS,
             what="alive reports after the second registration")
    again = shost.types()[before:]
    assert again[:2] == [ALIVE, REGISTER], again
    log = d.log()
    assert log.count("register shost success") == 2
    assert log.count("start as an online service") == 1, "the vhosts were loaded twice"
    assert "register again" in log
    now = os.stat(box.path("etc/orbmux/orbmux.conf"))
    assert (now.st_ino, now.st_mtime_ns) == (conf.st_ino, conf.st_mtime_ns), "orbmux.conf was rewritten"
    assert conf_path_of(box) == "/mnt/shared/orbmux"
    serves(box, d, port, info, "again")
    d.stop()


def test_absent_controller_offline_start_then_online_then_offline(node):
    box, port, info, shost = node
    d = box.start()
    wait_port(port)   # served without a controller, after two passes
    log = d.log()
    assert "register shost failure" in log and "start as an offline service" in log
    assert "register to shost failure" in log
    assert re.search(r"connect\[\S*/var/run/kelvane/shost\.iface\] fail, error=No such file or directory", log)
    serves(box, d, port, info, "offline")

    # A controller that appears later is found by the alive report; the node goes online without
    # registering, and a controller that forgets it gets a registration.
    shost.alive_codes = [0, 4086]
    shost.start()
    d.wait_log(r"INFO, shost online", timeout=3 * PASS)
    wait_for(lambda: REGISTER in shost.types(), timeout=4 * PASS, what="the registration asked for")
    assert shost.types()[:2] == [ALIVE, ALIVE]
    assert d.log().count("start as an offline service") == 1

    # The controller gone: offline, still serving.
    shost.stop()
    d.wait_log(r"WARNING, shost offline", timeout=3 * PASS)
    serves(box, d, port, info, "gone")
    assert d.log().count("start as an online service") == 0
    d.stop()


@pytest.mark.parametrize("mode", ["hang", "half"])
def test_controller_that_hangs_or_answers_half_never_stops_the_node(node, mode):
    box, port, info, shost = node
    shost.mode = mode
    shost.start()
    d = box.start()
    # The registration waits for the socket deadline, fails, and the next pass loads the vhosts.
    wait_port(port, timeout=3 * PASS + 5 + 10)
    assert "register shost failure" in d.log()
    serves(box, d, port, info, "stuck")
    # The node keeps reporting, one exchange at a time, each ended by its deadline.
    wait_for(lambda: len(shost.requests) >= 3, timeout=3 * (PASS + 5) + 5, what="reports to a stuck controller")
    assert "shost offline" in d.log()
    stuck = gaps([r[0] for r in shost.requests])
    assert all(PASS + 4 < g < PASS + 7 for g in stuck), stuck

    # Answering again: the alive cadence is back to one pass, and the node is online.
    shost.mode = "answer"
    shost.release()
    start = len(shost.requests)
    wait_for(lambda: len(shost.requests) >= start + 4, timeout=6 * PASS + 10, what="alive reports again")
    d.wait_log(r"INFO, shost online", timeout=PASS)
    recovered = gaps([r[0] for r in shost.requests[start + 1:]])
    assert all(PASS - 0.5 < g < PASS + 1.0 for g in recovered), recovered
    assert set(shost.types()) == {REGISTER, ALIVE} and shost.types()[0] == REGISTER
    assert REGISTER not in shost.types()[1:], "an offline node registers only when asked"
    serves(box, d, port, info, "back")
    d.stop()


def test_master_stops_at_once_while_an_exchange_hangs(node):
    box, port, info, shost = node
    shost.mode = "hang"
    shost.start()
    d = box.start()
    wait_for(lambda: shost.requests, timeout=2 * PASS, what="the registration")
    started = time.monotonic()
    d.stop()
    assert time.monotonic() - started < 2.0, "the stop waited for the controller"
