"""Object versions as users drive them with their clients: the AWS SDK for JavaScript v3 (default
checksums), the AWS CLI's s3api and rclone's --s3-versions view, all on one daemon; and the server's own
recycle actions that bring a deleted content back or remove it for good. (boto3's paginator and writes over
a versioned key are in the listing and write modules.)"""

import json
import os
import re
import shutil
import subprocess
import time

import pytest

from orbmux_harness import SLOWDOWN, run, tenant_fixture

JS_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "js")
BUCKET = "vers"

tenant = tenant_fixture("versions-clients", "--user", "ver-user", buckets=(BUCKET,))


@pytest.fixture(scope="module")
def js_report(tenant):
    node = shutil.which("node")
    assert node, "node is missing: run scripts/install-deps.sh"
    assert os.path.isdir(os.path.join(JS_DIR, "node_modules", "@aws-sdk", "client-s3")), \
        "the SDK is missing from tests/js: run scripts/install-deps.sh"
    env = {**tenant.env(os.path.join(tenant.box.path("."), "js-home")),
           "ORBMUX_ENDPOINT": tenant.endpoint, "ORBMUX_BUCKET": "jsvers"}
    out = subprocess.run([node, os.path.join(JS_DIR, "s3_versions.mjs")], env=env, capture_output=True,
                         text=True, timeout=120 * SLOWDOWN)
    assert out.returncode == 0, (out.stdout, out.stderr)
    return json.loads(out.stdout)


def step(report, name):
    got = report[name]
    assert got["ok"], got
    return got


def test_js_sdk_versions_with_default_checksums(js_report):
    assert step(js_report, "create_bucket")["before"] is None
    assert step(js_report, "enable")["status"] == "Enabled"
    over = step(js_report, "overwrite")
    ids = over["ids"]
    assert len(set(ids)) == 3 and None not in ids and "null" not in ids
    assert over["versions"] == [["v/doc.bin", ids[2], True, 70002], ["v/doc.bin", ids[1], False, 70001],
                                ["v/doc.bin", ids[0], False, 70000]]
    got = step(js_report, "get_versions")
    assert got["got"] == [{"id": i, **w} for i, w in zip(ids, got["want"])]
    assert step(js_report, "head_version") == {"ok": True, "id": ids[0], "size": 70000}
    copy = step(js_report, "copy_from_version")
    assert copy["source_id"] == ids[1] and copy["sha256"] == copy["want"]
    marker = step(js_report, "delete_marker")
    assert marker["marker"] is True and marker["marker_id"] not in ids and marker["get_status"] == 404
    assert marker["listed"]["markers"] == [["v/doc.bin", marker["marker_id"], True]]
    assert marker["back"] == marker["want"], "removing the marker brings the deleted content back"
    batch = step(js_report, "delete_objects_by_version")
    assert batch["deleted"] == [["v/doc.bin", ids[0]]] and batch["errors"] == []
    assert [v[1] for v in batch["versions"]] == [ids[2], ids[1]] and batch["markers"] == []
    suspended = step(js_report, "suspend")
    assert suspended["status"] == "Suspended" and suspended["id"] == "null"
    # Suspending keeps the versions: the content with a real id stays, under the new "null" one.
    assert [v[1:3] for v in suspended["versions"]] == [["null", True], [ids[2], False], [ids[1], False]]


def test_aws_cli_lists_versions_and_gets_one(tenant, tmp_path):
    s3 = tenant.client()
    s3.create_bucket(Bucket="cli")
    s3.put_bucket_versioning(Bucket="cli", VersioningConfiguration={"Status": "Enabled"})
    ids = [s3.put_object(Bucket="cli", Key="doc.txt", Body=f"text {i}".encode())["VersionId"] for i in range(2)]
    env = tenant.env(str(tmp_path))
    listed = json.loads(run(tenant.aws() + ["s3api", "list-object-versions", "--bucket", "cli"], env))
    assert [(v["Key"], v["VersionId"], v["IsLatest"]) for v in listed["Versions"]] == \
        [("doc.txt", ids[1], True), ("doc.txt", ids[0], False)]
    out = tmp_path / "old.txt"
    got = json.loads(run(tenant.aws() + ["s3api", "get-object", "--bucket", "cli", "--key", "doc.txt",
                                         "--version-id", ids[0], str(out)], env))
    assert got["VersionId"] == ids[0] and out.read_bytes() == b"text 0"


def test_rclone_shows_old_versions(tenant, tmp_path):
    s3 = tenant.client()
    s3.create_bucket(Bucket="rcl")
    s3.put_bucket_versioning(Bucket="rcl", VersioningConfiguration={"Status": "Enabled"})
    s3.put_object(Bucket="rcl", Key="dir/file.txt", Body=b"old")
    time.sleep(1.1)  # rclone names an old version by its time, to the second
    s3.put_object(Bucket="rcl", Key="dir/file.txt", Body=b"newer")
    env = tenant.rclone(str(tmp_path))
    plain = run(["/usr/bin/rclone", "lsf", "om:rcl/dir"], env).split()
    both = run(["/usr/bin/rclone", "lsf", "--s3-versions", "om:rcl/dir"], env).split()
    assert plain == ["file.txt"]
    assert len(both) == 2 and "file.txt" in both
    old = [n for n in both if n != "file.txt"][0]
    assert re.fullmatch(r"file-v\d{4}-\d\d-\d\d-\d{6}-\d{3}\.txt", old), old
    sizes = dict(line.split(";") for line in
                 run(["/usr/bin/rclone", "lsf", "--s3-versions", "--format", "ps", "om:rcl/dir"], env).split())
    assert sizes == {"file.txt": "5", old: "3"}


def test_recycle_actions_restore_and_purge_a_deleted_content(tenant):
    s3 = tenant.client()
    s3.create_bucket(Bucket="bin")
    s3.put_object(Bucket="bin", Key="d/doc", Body=b"precious", Metadata={"kept": "yes"})
    etag = s3.head_object(Bucket="bin", Key="d/doc")["ETag"]
    s3.put_object(Bucket="bin", Key="d/gone", Body=b"rubbish")
    s3.delete_object(Bucket="bin", Key="d/doc")
    s3.delete_object(Bucket="bin", Key="d/gone")
    status, reply = tenant.request("GET", "/bin?recycle&prefix=d%2F")
    assert status == 200, reply
    names = re.findall(rb"<Key>([^<]+)</Key>", reply)
    doc = [n.decode() for n in names if b"doc.." in n]
    gone = [n.decode() for n in names if b"gone.." in n]
    assert len(doc) == 1 and len(gone) == 1, names
    assert b"/" + tenant.root.encode() not in reply, "no reply carries an absolute path"

    status, reply = tenant.request("PUT", f"/bin/{doc[0]}?recycle")
    assert status == 200, reply
    back = s3.get_object(Bucket="bin", Key="d/doc")
    assert back["Body"].read() == b"precious" and back["ETag"] == etag and back["Metadata"] == {"kept": "yes"}

    status, reply = tenant.request("DELETE", f"/bin/{gone[0]}?recycle")
    assert status == 200, reply
    leftover = [f for _, _, files in os.walk(tenant.recycle("bin")) for f in files]
    assert not any("gone" in f for f in leftover), leftover
    status, reply = tenant.request("GET", "/bin?recycle&prefix=..%2F..")
    assert status == 400, reply
