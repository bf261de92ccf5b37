"""Deletes on buckets with versions, end to end: a DELETE on an enabled bucket leaves a delete marker and
recycles the content, DELETE ?versionId= takes exactly the version named (the live one, an old one, a
marker, bringing back what a latest marker took away), DeleteObjects by version id, DeleteBucket refused
while versions or markers are left, and two deletes of one key within one second keeping both contents.
One daemon serves the module.
"""

import os
import re
import secrets
import time
from datetime import timezone

from orbmux_harness import headers_of, md5, s3_error, tenant_fixture

USER = "vd-user"
BUCKET = "vdel"
PLAIN = "vdel-plain"

tenant = tenant_fixture("vd", "--user", USER, buckets=[BUCKET, PLAIN])


def new_id():
    stamp = time.strftime("%Y_%m_%d_%H_%M_%S", time.gmtime())
    return f"{stamp}-{secrets.randbelow(10**6):06d}{secrets.token_hex(4)}"


def delete_version(t, bucket, key, vid):
    status, reply = t.request("DELETE", f"/{bucket}/{key}?versionId={vid}")
    return status, headers_of(reply), reply


def test_delete_leaves_a_marker_and_deleting_the_marker_brings_the_object_back(tenant):
    s3 = tenant.client()
    tenant.set_versioning(BUCKET, "Enabled")
    put = s3.put_object(Bucket=BUCKET, Key="docs/a.txt", Body=b"alpha", ContentType="text/x-alpha",
                        Metadata={"colour": "blue"})
    before = tenant.bucket_stat(BUCKET)

    got = s3.delete_object(Bucket=BUCKET, Key="docs/a.txt")
    assert got["ResponseMetadata"]["HTTPStatusCode"] == 204
    assert got["DeleteMarker"] is True
    marker = got["VersionId"]
    assert re.fullmatch(r"\d{4}_\d\d_\d\d_\d\d_\d\d_\d\d-\d{6}[0-9a-f]{8}", marker), marker
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="docs/a.txt")) == (404, "NoSuchKey")
    assert tenant.bucket_stat(BUCKET) == (before[0] - 1, before[1] - 5)
    # The marker is a record alone in the version tree; the content lies in the recycle tree.
    assert tenant.old_names("version", BUCKET, "docs/a.txt") == [f".orbs3-v-a.txt..{marker}"]
    recycled = [n for n in os.listdir(tenant.recycle(BUCKET, "docs")) if n.startswith("a.txt..")]
    assert len(recycled) == 1
    with open(tenant.recycle(BUCKET, f"docs/{recycled[0]}"), "rb") as f:
        assert f.read() == b"alpha"

    # A second delete makes a second marker, though nothing is live.
    again = s3.delete_object(Bucket=BUCKET, Key="docs/a.txt")
    assert again["DeleteMarker"] is True and again["VersionId"] != marker
    status, head, _ = delete_version(tenant, BUCKET, "docs/a.txt", again["VersionId"])
    assert status == 204
    assert head["x-amz-delete-marker"] == "true" and head["x-amz-version-id"] == again["VersionId"]
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="docs/a.txt")) == (404, "NoSuchKey")

    # Removing the latest marker brings the content back: its bytes, ETag and metadata.
    got = s3.delete_object(Bucket=BUCKET, Key="docs/a.txt", VersionId=marker)
    assert got["DeleteMarker"] is True and got["VersionId"] == marker
    back = s3.get_object(Bucket=BUCKET, Key="docs/a.txt")
    assert back["Body"].read() == b"alpha"
    assert back["ETag"] == put["ETag"]
    assert back["ContentType"] == "text/x-alpha" and back["Metadata"] == {"colour": "blue"}
    assert tenant.old_names("version", BUCKET, "docs/a.txt") == []
    assert not [n for n in os.listdir(tenant.recycle(BUCKET, "docs")) if n.startswith("a.txt..")]
    assert tenant.bucket_stat(BUCKET) == before
    assert not tenant.temp_files()


def test_delete_by_version_id(tenant):
    s3 = tenant.client()
    tenant.set_versioning(BUCKET, "Enabled")
    key = "byid/k"
    old_id = s3.put_object(Bucket=BUCKET, Key=key, Body=b"old bytes", Metadata={"origin": "old"})["VersionId"]
    mid_id = s3.put_object(Bucket=BUCKET, Key=key, Body=b"middle")["VersionId"]
    live_id = s3.put_object(Bucket=BUCKET, Key=key, Body=b"live")["VersionId"]
    before = tenant.bucket_stat(BUCKET)

    # An old version: it lies in the recycle tree under its own name, with its record; the live stays.
    status, head, _ = delete_version(tenant, BUCKET, key, mid_id)
    assert status == 204 and head["x-amz-version-id"] == mid_id and "x-amz-delete-marker" not in head
    with open(tenant.recycle(BUCKET, f"{key}..{mid_id}"), "rb") as f:
        assert f.read() == b"middle"
    assert os.path.exists(tenant.recycle(BUCKET, f"byid/.orbs3-v-k..{mid_id}"))
    assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == b"live"

    # The live content, by its id: the previous version takes its place, with the ETag of its bytes, and
    # the bucket still counts one object.
    status, head, _ = delete_version(tenant, BUCKET, key, live_id)
    assert status == 204 and head["x-amz-version-id"] == live_id
    got = s3.get_object(Bucket=BUCKET, Key=key)
    assert got["Body"].read() == b"old bytes" and got["ETag"] == f'"{md5(b"old bytes")}"'
    assert got["Metadata"] == {"origin": "old"}
    assert tenant.bucket_stat(BUCKET) == (before[0], before[1] - 4 + 9)
    assert tenant.old_names("version", BUCKET, key) == []

    # Unknown but well-formed ids are deleted already; malformed ones are refused.
    status, head, _ = delete_version(tenant, BUCKET, key, new_id())
    assert status == 204
    for bad in ("not-an-id", "2026_11_24", "..%2F..%2Fescape"):
        status, _, reply = delete_version(tenant, BUCKET, key, bad)
        assert status == 400 and b"<Code>InvalidArgument</Code>" in reply, (bad, reply)
        assert b"<Message>Invalid version id specified</Message>" in reply, reply
    assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == b"old bytes"
    s3.delete_object(Bucket=BUCKET, Key=key, VersionId=old_id)
    assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key=key))[0] == 404
    assert not os.path.exists(tenant.data(BUCKET, "byid"))


def test_delete_objects_by_version_id(tenant):
    s3 = tenant.client()
    tenant.set_versioning(BUCKET, "Enabled")
    v1 = s3.put_object(Bucket=BUCKET, Key="batch/a", Body=b"a-old")["VersionId"]
    s3.put_object(Bucket=BUCKET, Key="batch/a", Body=b"a-live")
    s3.put_object(Bucket=BUCKET, Key="batch/b", Body=b"b-live")
    marker = s3.delete_object(Bucket=BUCKET, Key="batch/b")["VersionId"]

    got = s3.delete_objects(Bucket=BUCKET, Delete={"Objects": [
        {"Key": "batch/a", "VersionId": v1},
        {"Key": "batch/b", "VersionId": marker},
        {"Key": "batch/a"},
        {"Key": "batch/c", "VersionId": "bad id"},
    ]})
    deleted = {(d["Key"], d.get("VersionId")): d for d in got["Deleted"]}
    assert set(deleted) == {("batch/a", v1), ("batch/b", marker), ("batch/a", None)}, got
    assert "DeleteMarker" not in deleted[("batch/a", v1)]
    assert deleted[("batch/b", marker)]["DeleteMarker"] is True
    assert deleted[("batch/b", marker)]["DeleteMarkerVersionId"] == marker
    made = deleted[("batch/a", None)]
    assert made["DeleteMarker"] is True and made["DeleteMarkerVersionId"] not in (v1, marker)
    assert [(e["Key"], e.get("VersionId")) for e in got["Errors"]] == [("batch/c", "bad id")]

    # b's marker is gone and its content back; a has a marker over nothing else.
    assert s3.get_object(Bucket=BUCKET, Key="batch/b")["Body"].read() == b"b-live"
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="batch/a"))[0] == 404
    assert tenant.old_names("version", BUCKET, "batch/a") == [f".orbs3-v-a..{made['DeleteMarkerVersionId']}"]
    with open(tenant.recycle(BUCKET, f"batch/a..{v1}"), "rb") as f:
        assert f.read() == b"a-old"


def test_delete_bucket_waits_for_its_versions_and_markers(tenant):
    s3 = tenant.client()
    name = "vdel-gone"
    s3.create_bucket(Bucket=name)
    tenant.set_versioning(name, "Enabled")
    vid = s3.put_object(Bucket=name, Key="d/k", Body=b"old")["VersionId"]
    s3.put_object(Bucket=name, Key="d/k", Body=b"new")
    # A version alone: the live content deleted while suspended, so no marker is left.
    tenant.set_versioning(name, "Suspended")
    s3.delete_object(Bucket=name, Key="d/k")
    assert s3_error(lambda: s3.head_object(Bucket=name, Key="d/k"))[0] == 404
    assert s3_error(lambda: s3.delete_bucket(Bucket=name)) == (409, "BucketNotEmpty")
    # Only a marker left: still not empty.
    s3.delete_object(Bucket=name, Key="d/k", VersionId=vid)
    tenant.set_versioning(name, "Enabled")
    marker = s3.delete_object(Bucket=name, Key="m")["VersionId"]
    assert s3_error(lambda: s3.delete_bucket(Bucket=name)) == (409, "BucketNotEmpty")
    # Once the version tree is empty (the recycle tree does not count), the bucket goes.
    s3.delete_object(Bucket=name, Key="m", VersionId=marker)
    assert os.listdir(tenant.recycle(name, "d"))
    assert s3.delete_bucket(Bucket=name)["ResponseMetadata"]["HTTPStatusCode"] == 204
    assert not os.path.exists(tenant.bucket_record(name))


def test_two_deletes_within_one_second_keep_both_contents(tenant):
    s3 = tenant.client()
    bodies = (b"first content", b"second content")
    # Both writes must fall in one second for their records to share a stamp; a few tries find such a pair.
    for _ in range(10):
        stamps = []
        for body in bodies:
            s3.put_object(Bucket=PLAIN, Key="twice/k", Body=body)
            stamps.append(s3.head_object(Bucket=PLAIN, Key="twice/k")["LastModified"])
            got = s3.delete_object(Bucket=PLAIN, Key="twice/k")
            assert got["ResponseMetadata"]["HTTPStatusCode"] == 204
            assert "DeleteMarker" not in got and "VersionId" not in got
        if stamps[0] == stamps[1]:
            break
        for n in os.listdir(tenant.recycle(PLAIN, "twice")):
            os.unlink(tenant.recycle(PLAIN, f"twice/{n}"))
    assert stamps[0] == stamps[1]
    stamp = stamps[0].astimezone(timezone.utc).strftime("%Y_%m_%d_%H_%M_%S")
    names = os.listdir(tenant.recycle(PLAIN, "twice"))
    data = [n for n in names if n.startswith(f"k..{stamp}-")]
    assert len(data) == 2 and all(f".orbs3-v-{n}" in names for n in data), names
    kept = set()
    for n in data:
        with open(tenant.recycle(PLAIN, f"twice/{n}"), "rb") as f:
            kept.add(f.read())
    assert kept == set(bodies)
    assert not os.path.exists(tenant.version(PLAIN, "twice"))

    # A key below an object names nothing: deleted already, on either bucket, and the object stays.
    tenant.set_versioning(BUCKET, "Enabled")
    for bucket in (PLAIN, BUCKET):
        s3.put_object(Bucket=bucket, Key="file", Body=b"f")
        assert s3.delete_object(Bucket=bucket, Key="file/below")["ResponseMetadata"]["HTTPStatusCode"] == 204
        assert s3.get_object(Bucket=bucket, Key="file")["Body"].read() == b"f"


def test_suspended_delete_recycles_and_names_the_content(tenant):
    s3 = tenant.client()
    tenant.set_versioning(BUCKET, "Suspended")
    s3.put_object(Bucket=BUCKET, Key="susp/k", Body=b"s")
    got = s3.delete_object(Bucket=BUCKET, Key="susp/k")
    # No marker while versioning is suspended; the reply names the content it took.
    assert "DeleteMarker" not in got and got["VersionId"] == "null"
    assert tenant.old_names("version", BUCKET, "susp/k") == []
    assert [n for n in os.listdir(tenant.recycle(BUCKET, "susp")) if n.startswith("k..")]
