"""A TLS service starts only with a usable certificate and key: one whose certificate file is missing does
not listen, says why in one log line naming the file, and its worker is not restarted in a loop; a TLS
service beside it with a good certificate listens, and on its port a tenant of another group with a
certificate of its own is given that certificate when a client names it (SNI)."""

import re
import subprocess
import time

import pytest

from orbmux_harness import Sandbox, free_port, make_certs, port_accepts, wait_port


def make_tls(box, info, cert, key):
    path = info["group_file"]
    with open(path) as f:
        text = f.read()
    text = re.sub(r'cert="" key="" key_pwd="" ssl="false"', f'cert="{cert}" key="{key}" key_pwd="" ssl="true"', text)
    with open(path, "w") as f:
        f.write(text)


@pytest.fixture(scope="module")
def node():
    box = Sandbox()
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                    "-keyout", box.path("good.key"), "-out", box.path("good.pem"), "-days", "2",
                    "-subj", "/CN=good.test"], check=True, capture_output=True)
    ports = {"good": free_port(), "bad": free_port()}
    good = box.add_tenant("good", ports["good"], "--group", "g-good", "--domain", "good.test")
    sni = make_certs(box, "sni.test", "sni")
    box.add_tenant("sni", ports["good"], "--group", "g-sni", "--domain", "sni.test", "--ssl", "--cert", sni["cert"],
                   "--key", sni["key"])
    bad = box.add_tenant("bad", ports["bad"], "--group", "g-bad")
    make_tls(box, good, box.path("good.pem"), box.path("good.key"))
    make_tls(box, bad, box.path("missing.pem"), box.path("good.key"))
    daemon = box.start("-d")
    try:
        wait_port(ports["good"])
        yield box, daemon, ports
    finally:
        box.cleanup()


def test_missing_certificate_keeps_the_service_down_with_its_reason(node):
    box, daemon, ports = node
    missing = re.escape(box.path("missing.pem"))
    daemon.wait_log(rf'the certificate is not exist "{missing}": No such file or directory')
    daemon.wait_log(rf"worker process \d+ of 127\.0\.0\.1:{ports['bad']} exited with status \d+, not restarted")
    assert not port_accepts(ports["bad"])
    assert port_accepts(ports["good"])
    # Once, not a restart loop.
    time.sleep(2)
    assert len(re.findall(rf'the certificate is not exist "{missing}"', daemon.log())) == 1
    assert daemon.alive()


@pytest.mark.parametrize("name, subject", [("good.test", "good.test"), ("bucket.sni.test", "sni.test"),
                                           ("sni.test", "sni.test"), ("GOOD.TEST", "good.test")])
def test_the_name_a_client_sends_chooses_its_tenants_certificate(node, name, subject):
    _, _, ports = node
    out = subprocess.run(["openssl", "s_client", "-connect", f"127.0.0.1:{ports['good']}", "-servername", name],
                         input="", capture_output=True, text=True, timeout=20)
    assert out.returncode == 0 and re.search(rf"^subject=CN ?= ?{re.escape(subject)}$", out.stdout, re.M), out.stdout


def test_node_with_a_tls_service_stops_in_order(node):
    _, daemon, _ = node
    daemon.stop()
