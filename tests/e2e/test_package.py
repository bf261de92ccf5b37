"""The Debian package: built with CPack from the build tree, it holds the daemon, the tools, the systemd
unit and the example configuration; its daemon, extracted, serves a tenant with those examples; its unit
passes systemd's own check."""

import os
import re
import shutil
import subprocess
import tempfile

import pytest

import orbmux_harness as harness
from orbmux_harness import PID_FILE, SLOWDOWN, Sandbox, Tenant, free_port, wait_port

pytestmark = pytest.mark.skipif(SLOWDOWN > 1.0, reason="the package is built from the release tree")

BUILD_DIR = os.environ.get("ORBMUX_BUILD_DIR") or os.path.dirname(os.path.dirname(os.path.abspath(harness.BINARY)))
UNIT = "usr/lib/systemd/system/orbmux.service"


@pytest.fixture(scope="module")
def package():
    """(path of the .deb, directory it was extracted to)."""
    work = tempfile.mkdtemp(prefix="orbmux-deb-")
    try:
        out = subprocess.run(["cpack", "-G", "DEB", "-B", work, "--config",
                              os.path.join(BUILD_DIR, "CPackConfig.cmake")],
                             capture_output=True, text=True, timeout=120)
        assert out.returncode == 0, out.stdout + out.stderr
        debs = [f for f in os.listdir(work) if f.endswith(".deb")]
        assert len(debs) == 1, debs
        deb = os.path.join(work, debs[0])
        root = os.path.join(work, "root")
        subprocess.run(["dpkg", "-x", deb, root], check=True, timeout=60)
        yield deb, root
    finally:
        shutil.rmtree(work, ignore_errors=True)


def built_ctl():
    for base, _, files in os.walk(BUILD_DIR):
        if "orbmux-ctl" in files and os.access(os.path.join(base, "orbmux-ctl"), os.X_OK) and "_CPack" not in base:
            return True
    return False


def test_package_holds_the_service_and_names_its_libraries(package):
    deb, _ = package
    contents = subprocess.run(["dpkg-deb", "--contents", deb], capture_output=True, text=True,
                              check=True).stdout
    files = {line.split()[-1].lstrip(".") for line in contents.splitlines()}
    want = {"/usr/sbin/orbmux", "/usr/sbin/orbmux-tenant", "/" + UNIT, "/etc/orbmux/orbmux.conf",
            "/etc/orbmux/http.conf"}
    if built_ctl():
        want.add("/usr/sbin/orbmux-ctl")
    assert want <= files, sorted(want - files)
    for prog in ("orbmux", "orbmux-tenant"):
        assert re.search(rf"^-rwxr-xr-x .* \./usr/sbin/{prog}$", contents, re.M), contents

    fields = subprocess.run(["dpkg-deb", "--field", deb, "Package", "Depends"], capture_output=True,
                            text=True, check=True).stdout
    assert re.search(r"^Package: orbmux$", fields, re.M), fields
    depends = {re.split(r"[ (]", d.strip())[0] for d in fields.split("Depends:", 1)[1].split(",")}
    for lib in (r"libssl3(t64)?", r"libmxml1", r"libjson-c5", r"libuuid1", r"python3"):
        assert any(re.fullmatch(lib, d) for d in depends), (lib, depends)

    conffiles = subprocess.run(["dpkg-deb", "--info", deb, "conffiles"], capture_output=True, text=True,
                               check=True).stdout.split()
    assert sorted(conffiles) == ["/etc/orbmux/http.conf", "/etc/orbmux/orbmux.conf"]


def test_extracted_daemon_serves_a_tenant_with_the_shipped_configuration(package, monkeypatch):
    _, root = package
    monkeypatch.setattr(harness, "BINARY", os.path.join(root, "usr/sbin/orbmux"))
    monkeypatch.setattr(harness, "TENANT_TOOL", os.path.join(root, "usr/sbin/orbmux-tenant"))
    with open(os.path.join(root, "etc/orbmux/orbmux.conf")) as f:
        orbmux_conf = f.read()
    with open(os.path.join(root, "etc/orbmux/http.conf")) as f:
        http_conf = f.read()
    box = Sandbox(orbmux_conf=orbmux_conf, http_conf=http_conf)
    try:
        port = free_port()
        info = box.add_tenant("packaged", port)
        d = box.start()
        assert os.path.realpath(f"/proc/{d.pid}/exe") == os.path.realpath(harness.BINARY)
        wait_port(port)
        s3 = Tenant(box, d, port, info).client()
        s3.create_bucket(Bucket="deb")
        s3.put_object(Bucket="deb", Key="a/b.txt", Body=b"from the package")
        assert s3.get_object(Bucket="deb", Key="a/b.txt")["Body"].read() == b"from the package"
        assert [o["Key"] for o in s3.list_objects_v2(Bucket="deb")["Contents"]] == ["a/b.txt"]
        # As the unit stops it.
        r = box.run("-s", "stop")
        assert r.returncode == 0, r.stderr
        assert d.wait_exit() == 0, d.log()
        d.assert_clean()
        assert not box.exists(PID_FILE)
    finally:
        box.cleanup()


def test_unit_follows_the_daemon_and_passes_systemd_analyze(package, tmp_path):
    _, root = package
    with open(os.path.join(root, UNIT)) as f:
        unit = f.read()
    keys = dict(re.findall(r"^(\w+)=(.*)$", unit, re.M))
    assert keys["Type"] == "forking"
    assert keys["PIDFile"] == os.path.normpath("/" + PID_FILE), "not the daemon's own pid file"
    assert keys["ExecStart"] == "/usr/sbin/orbmux"
    assert keys["ExecStop"] == "/usr/sbin/orbmux -s stop"
    assert keys["Restart"] == "on-failure"
    assert keys["WantedBy"] == "multi-user.target"

    analyze = shutil.which("systemd-analyze")
    if analyze is None:
        pytest.skip("systemd-analyze is not installed (Debian package systemd)")
    # The commands must exist to pass: the copy checked names the extracted daemon, nothing else differs.
    copy = tmp_path / "orbmux.service"
    copy.write_text(unit.replace("/usr/sbin/", os.path.join(root, "usr/sbin") + "/"))
    out = subprocess.run([analyze, "verify", str(copy)], capture_output=True, text=True, timeout=60)
    assert out.returncode == 0 and out.stdout + out.stderr == "", out.stdout + out.stderr
