"""The tenant provisioning tool: the files it writes are the ones the daemon reads, byte for byte in layout,
and a refused request leaves every file as it was. The daemon is not started here."""

import json
import os
import re
import subprocess
import xml.etree.ElementTree as ET

import pytest

from orbmux_harness import DEFAULT_ORBMUX_CONF, TENANT_TOOL

SYSDIR = "cluster/ombr/system/orbmux"
HEX32 = "[0-9a-f]{32}"


def tool(root, *args, check=True):
    out = subprocess.run(["/usr/bin/python3", TENANT_TOOL, *args], capture_output=True, text=True, timeout=30)
    if check:
        assert out.returncode == 0, out.stderr
    return out


def add(root, name, *extra, check=True):
    out = tool(root, "add", "--prefix", str(root), "--cluster-path", str(root / "cluster"), "--name", name,
               "--json", *extra, check=check)
    return json.loads(out.stdout) if check else out


def lines_match(text, patterns):
    lines = text.splitlines(keepends=True)
    assert len(lines) == len(patterns), text
    for line, pattern in zip(lines, patterns):
        assert re.fullmatch(pattern, line), f"{line!r} !~ {pattern!r}"


def host_lines(t, key, status="active"):
    e = re.escape
    return [e(f'\t<host id="{t["id"]}" name="{t["name"]}" key="{key}" ipversion="ipv4" ipaddr="127.0.0.1" '
              f'status="{status}">\n'),
            f'\t\t<admin uid="{HEX32}" uname="admin" accesskeyid="{t["admin_access_key"]}" '
            f'accesskeysecret="{t["admin_secret_key"]}" />\n',
            "\t</host>\n"]


def snapshot(root):
    files = {}
    for d, _, names in os.walk(root):
        files[d] = None
        for n in names:
            with open(os.path.join(d, n), "rb") as f:
                files[os.path.join(d, n)] = f.read()
    return files


def test_first_add_writes_every_file_in_the_daemons_layout(tmp_path):
    t = add(tmp_path, "one", "--port", "9123", "--group", "g1")
    node = re.search(r'<shost id="([^"]+)"/>', (tmp_path / "etc/kelvane/.shost.dat").read_text()).group(1)
    assert t["node_key"] == node
    cluster = ET.parse(tmp_path / "etc/kelvane/conf/cluster-h.xml").find("cluster")
    assert cluster.attrib == {"alias": "c1", "path": str(tmp_path / "cluster")}
    assert (tmp_path / "etc/orbmux/orbmux.conf").read_text() == DEFAULT_ORBMUX_CONF
    assert (tmp_path / "cluster/ombr/system/lifecycle").is_dir()
    assert t["endpoint"] == "http://127.0.0.1:9123"
    assert re.fullmatch("[A-Z0-9]{20}", t["access_key"]) and re.fullmatch("[A-Z0-9]{20}", t["admin_access_key"])
    assert len(t["secret_key"]) == 40 and len(t["admin_secret_key"]) == 40
    assert t["access_key"] != t["admin_access_key"]

    assert t["group_file"] == str(tmp_path / SYSDIR / "group_g1.xml")
    lines_match(open(t["group_file"]).read(), [
        re.escape('<?xml version="1.0" encoding="UTF-8"?>\n'), "<orbmux>\n",
        re.escape('<group alias="g1" path="tenants/g1" cluster="c1" tiered="" port=9123 domain="" ca="" '
                  'cert="" key="" key_pwd="" ssl="false">\n'),
        *host_lines(t, node), "</group>\n", "</orbmux>\n"])
    assert t["user_file"] == str(tmp_path / SYSDIR / f"{t['id']}.user")
    lines_match(open(t["user_file"]).read(), [
        re.escape('<?xml version="1.0" encoding="utf-8"?>\n'),
        f'<User UserId="{HEX32}" DisPlayName="one-user" Status="0">\n',
        re.escape(f'\t<AccessKey AccessKeyId="{t["access_key"]}" AccessKeySecret="{t["secret_key"]}" />'
                  '</User>\n')])
    assert os.stat(t["user_file"]).st_mode & 0o077 == 0, "the users file holds secrets"


def test_second_add_appends_to_the_group_and_keeps_a_foreign_host(tmp_path):
    foreign = add(tmp_path, "far", "--port", "9200", "--group", "g", "--node-key", "other-node")
    before = open(foreign["group_file"]).read().splitlines(keepends=True)
    out = tool(tmp_path, "add", "--prefix", str(tmp_path), "--cluster-path", str(tmp_path / "cluster"),
               "--name", "near", "--group", "g", "--inactive")
    assert "endpoint:         http://127.0.0.1:9200\n" in out.stdout, "port comes from the existing group"
    near_id = re.search(r"\(id (\w+)\)", out.stdout).group(1)
    after = open(foreign["group_file"]).read().splitlines(keepends=True)
    assert after[:6] == before[:6] and after[-2:] == before[-2:]
    assert len(after) == len(before) + 3
    assert re.fullmatch(rf'\t<host id="{near_id}" name="near" key="{HEX32}" ipversion="ipv4" '
                        r'ipaddr="127.0.0.1" status="inactive">\n', after[6])
    for key in ("access key:", "secret key:", "admin access key:", "admin secret key:"):
        assert re.search(rf"^  {key} +\S+$", out.stdout, re.M), key

    listing = tool(tmp_path, "list", "--prefix", str(tmp_path)).stdout.splitlines()
    rows = {line.split()[0]: line for line in listing[1:]}
    assert "no (other node)" in rows["far"] and "no (inactive)" in rows["near"]


@pytest.mark.parametrize("args, message", [
    (["--name", "one"], "exists already"),
    (["--name", "one", "--group", "other"], "exists already"),
    (["--name", "new", "--group", "g", "--port", "9999"], "serves port 9000"),
    (["--name", "new", "--group", "g", "--domain", "x.example"], "has domain"),
    (["--name", "a/b"], "must not contain '/'"),
    (["--name", "a\nb"], "control character"),
    (["--name", "n" * 257], "longer than 256 bytes"),
    (["--name", "new", "--address", "::1"], "not an IPv4 address"),
    (["--name", "new", "--address", "1" * 49], "longer than 48 bytes"),
    (["--name", "new", "--cluster", "c2"], "names cluster 'c1'"),
    (["--name", "new", "--cluster-path", "elsewhere"], "names cluster 'c1'"),
])
def test_refused_add_says_why_and_changes_nothing(tmp_path, args, message):
    add(tmp_path, "one", "--group", "g")
    before = snapshot(tmp_path)
    if "--cluster-path" in args:
        args = [a if a != "elsewhere" else str(tmp_path / "elsewhere") for a in args]
    else:
        args = ["--cluster-path", str(tmp_path / "cluster"), *args]
    out = tool(tmp_path, "add", "--prefix", str(tmp_path), *args, check=False)
    assert out.returncode == 1 and message in out.stderr, out.stderr
    assert snapshot(tmp_path) == before


def test_ssl_writes_the_groups_tls_settings_and_later_hosts_must_match(tmp_path):
    for f in ("c.pem", "k.key", "other.pem"):
        (tmp_path / f).write_text("x")
    t = add(tmp_path, "tls", "--group", "g", "--port", "9443", "--ssl", "--cert", str(tmp_path / "c.pem"),
            "--key", str(tmp_path / "k.key"), "--key-pwd", 'p&"w')
    assert t["endpoint"] == "https://127.0.0.1:9443"
    assert (f'cert="{tmp_path}/c.pem" key="{tmp_path}/k.key" key_pwd="p&amp;&quot;w" ssl="true">\n'
            in open(t["group_file"]).read())
    same = ["--group", "g", "--ssl", "--cert", str(tmp_path / "c.pem"), "--key", str(tmp_path / "k.key"),
            "--key-pwd", 'p&"w']
    assert add(tmp_path, "tls2", *same)["endpoint"] == "https://127.0.0.1:9443"
    assert add(tmp_path, "tls3", "--group", "g")["endpoint"] == "https://127.0.0.1:9443", "inherits the group's"

    before = snapshot(tmp_path)
    for args, message in [
        (same[:-1] + ["other"], "key_pwd differ"),
        (same[:4] + [str(tmp_path / "other.pem")] + same[5:], "cert differ"),
        (same[:2] + same[3:], "given without --ssl"),
        (["--group", "g", "--key-pwd", "x"], "--key-pwd given without --ssl"),
        (["--group", "h", "--ssl", "--cert", str(tmp_path / "c.pem")], "--ssl needs --cert FILE and --key FILE"),
        (["--group", "h", "--ssl", "--key", str(tmp_path / "k.key")], "--ssl needs --cert FILE and --key FILE"),
        (["--group", "h", "--ssl", "--cert", str(tmp_path / "none.pem"), "--key", str(tmp_path / "k.key")],
         "is not a readable file"),
        (same[:-1] + ["p" * 129], "longer than 128 bytes"),
    ]:
        out = add(tmp_path, "new", *args, check=False)
        assert out.returncode == 1 and message in out.stderr, (args, out.stderr)
        assert 'p&"w' not in out.stderr, "the key password never appears in a message"
    assert snapshot(tmp_path) == before
    # A plain group refuses a TLS host: its settings differ too.
    plain = add(tmp_path, "plain", "--group", "p")
    out = add(tmp_path, "new", "--group", "p", *same[2:], check=False)
    assert out.returncode == 1 and "ssl, cert, key, key_pwd differ" in out.stderr, out.stderr
    assert plain["endpoint"].startswith("http://")


def test_attribute_values_are_escaped_and_read_back_unchanged(tmp_path):
    name = 'a&b<c>"d'
    t = add(tmp_path, name, "--group", "q&g", "--domain", 's3.<x>&"y"')
    text = open(t["group_file"]).read()
    assert 'name="a&amp;b&lt;c&gt;&quot;d"' in text
    assert 'domain="s3.&lt;x&gt;&amp;&quot;y&quot;"' in text and 'alias="q&amp;g"' in text
    # The unquoted port is the one liberty the daemon's reader takes; quoted, the file is plain XML.
    doc = ET.fromstring(re.sub(r"port=(\d+)", r'port="\1"', text.split("\n", 1)[1]))
    assert doc.find("group").get("domain") == 's3.<x>&"y"'
    assert doc.find("group/host").get("name") == name
    user = ET.parse(t["user_file"]).getroot()
    assert user.tag == "User" and user.get("DisPlayName") == f"{name}-user"
    # A second add reads the escaped file back and writes the first host unchanged.
    add(tmp_path, "second", "--group", "q&g")
    assert open(t["group_file"]).read().startswith(text[:-len("</group>\n</orbmux>\n")])
