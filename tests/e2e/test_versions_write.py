"""Writes over a versioned key end to end: PutObject, CompleteMultipartUpload and CopyObject keep the
content they replace as a version with its own record, every content gets an id, and GET and HEAD serve
any version by that id (ETag, metadata, ranges, conditions) with boto3. A bucket that never had versioning
answers as it always did. Then the faults of the write path: concurrent PUTs of one key within one second,
the save_num bound under a burst, a worker killed between keeping the old content and committing the new
one, and a keep that can't be made. One daemon serves the module (restarted once, for the kill).
"""

import hashlib
import os
import re
import signal
import socket
import threading
import time

from botocore.exceptions import ClientError

from orbmux_harness import (DEFAULT_ORBMUX_CONF, headers_of, md5, s3_error, status_of, tenant_fixture, wait_for,
                             wait_port, worker_pids)

USER = "vw-user"
MIN_PART = 1024
VERSIONED = ["vw-basic", "vw-multi", "vw-copy", "vw-append", "vw-race", "vw-bound", "vw-kill", "vw-fail",
             "vw-long"]
PLAIN = "vw-plain"
ID = re.compile(r"^\d{4}_\d\d_\d\d_\d\d_\d\d_\d\d-\d{6}[0-9a-f]{8}$")

# objectmaxlen is raised so that a key's last component can be too long for its versions' names.
tenant = tenant_fixture(
    "vw", "--user", USER, buckets=VERSIONED + [PLAIN],
    orbmux_conf=DEFAULT_ORBMUX_CONF.replace('objectmaxlen="127"', 'objectmaxlen="250"').replace(
        'objectdirnum="10"', f'objectdirnum="10" multipart_min_part="{MIN_PART}"'))


def record_etag(path):
    """The ETag the record of the content at `path` (live or old) gives it."""
    top, name = os.path.split(path)
    if "/data/" in path:
        rec = path.replace("/data/", "/meta/", 1)
        rec = rec.replace(f"/meta/{USER}/", f"/meta/{USER}/object/", 1)
    else:
        rec = os.path.join(top, ".orbs3-v-" + name)
    with open(rec) as f:
        return re.search(r'etag="([^"]+)"', f.read()).group(1)


def test_overwrites_are_kept_and_served_by_id(tenant):
    s3 = tenant.client()
    b = "vw-basic"
    # Written before versioning was ever set: no id told, and the content's id is "null".
    first = s3.put_object(Bucket=b, Key="d/k", Body=b"null content", ContentType="text/first")
    assert "VersionId" not in first
    tenant.set_versioning(b, "Enabled")
    ids, bodies = [], []
    for i in range(3):
        body = f"version {i} ".encode() * (i + 1)
        r = s3.put_object(Bucket=b, Key="d/k", Body=body, ContentType=f"text/v{i}", Metadata={"n": str(i)})
        assert ID.match(r["VersionId"]), r["VersionId"]
        assert r["ETag"] == f'"{md5(body)}"'
        ids.append(r["VersionId"])
        bodies.append(body)
    assert len(set(ids)) == 3
    # Live: the newest, with its id.
    live = s3.get_object(Bucket=b, Key="d/k")
    assert live["Body"].read() == bodies[2] and live["VersionId"] == ids[2]
    # Each version with its own record: bytes, ETag, size, type, metadata.
    for vid, body, i in zip(ids, bodies, range(3)):
        got = s3.get_object(Bucket=b, Key="d/k", VersionId=vid)
        assert got["Body"].read() == body
        assert got["VersionId"] == vid and got["ETag"] == f'"{md5(body)}"'
        assert got["ContentType"] == f"text/v{i}" and got["Metadata"] == {"n": str(i)}
        head = s3.head_object(Bucket=b, Key="d/k", VersionId=vid)
        assert head["ContentLength"] == len(body) and head["VersionId"] == vid
        # Ranges and conditions as for the live object.
        part = s3.get_object(Bucket=b, Key="d/k", VersionId=vid, Range="bytes=2-6")
        assert part["Body"].read() == body[2:7] and part["ResponseMetadata"]["HTTPStatusCode"] == 206
        assert s3_error(lambda: s3.get_object(Bucket=b, Key="d/k", VersionId=vid,
                                              IfNoneMatch=f'"{md5(body)}"'))[0] == 304
        assert s3_error(lambda: s3.get_object(Bucket=b, Key="d/k", VersionId=vid, IfMatch='"0"'))[0] == 412
    # The versionId parameter is signed as S3 signs it, in either signature.
    v2 = tenant.client(sig="s3").get_object(Bucket=b, Key="d/k", VersionId=ids[0])
    assert v2["Body"].read() == bodies[0]
    null = s3.get_object(Bucket=b, Key="d/k", VersionId="null")
    assert null["Body"].read() == b"null content" and null["ContentType"] == "text/first"
    assert null["VersionId"] == "null"
    # Unknown, malformed, hostile.
    assert s3_error(lambda: s3.get_object(Bucket=b, Key="d/k", VersionId="2026_01_01_00_00_00-000000deadbeef")) == (
        404, "NoSuchVersion")
    for bad in ("3HL4kqtJlcpXroDTDmJ", "../../../etc/passwd", "2026_01_01_00_00_00-../../x"):
        assert s3_error(lambda: s3.get_object(Bucket=b, Key="d/k", VersionId=bad)) == (400, "InvalidArgument"), bad


def test_delete_markers_answer_for_themselves(tenant):
    s3 = tenant.client()
    b = "vw-basic"
    tenant.set_versioning(b, "Enabled")
    s3.put_object(Bucket=b, Key="m/k", Body=b"before the marker")
    vid = s3.delete_object(Bucket=b, Key="m/k")["VersionId"]
    # By id: 405 with the marker's headers, for GET and HEAD alike.
    for method in ("GET", "HEAD"):
        code, reply = tenant.request(method, f"/{b}/m/k?versionId={vid}")
        assert code == 405, reply
        h = headers_of(reply)
        assert h.get("x-amz-delete-marker") == "true" and h.get("x-amz-version-id") == vid
        if method == "GET":
            assert b"<Code>MethodNotAllowed</Code>" in reply
    # Without an id, the marker being the key's newest entry: NoSuchKey that says so.
    code, reply = tenant.request("GET", f"/{b}/m/k")
    assert code == 404 and b"<Code>NoSuchKey</Code>" in reply
    h = headers_of(reply)
    assert h.get("x-amz-delete-marker") == "true" and h.get("x-amz-version-id") == vid
    # A copy may not name a marker.
    err = s3_error(lambda: s3.copy_object(Bucket=b, Key="m/copy",
                                          CopySource={"Bucket": b, "Key": "m/k", "VersionId": vid}))
    assert err == (400, "InvalidRequest"), err
    # A key that never had a marker answers plain NoSuchKey.
    code, reply = tenant.request("GET", f"/{b}/m/never")
    assert code == 404 and headers_of(reply).get("x-amz-delete-marker") is None


def multipart(s3, bucket, key, parts):
    uid = s3.create_multipart_upload(Bucket=bucket, Key=key, Metadata={"kind": "parts"})["UploadId"]
    done = []
    for n, p in enumerate(parts, 1):
        done.append({"PartNumber": n, "ETag": s3.upload_part(Bucket=bucket, Key=key, UploadId=uid, PartNumber=n,
                                                             Body=p)["ETag"]})
    return s3.complete_multipart_upload(Bucket=bucket, Key=key, UploadId=uid, MultipartUpload={"Parts": done})


def test_complete_over_a_versioned_key_keeps_both_with_their_etags(tenant):
    s3 = tenant.client()
    b = "vw-multi"
    tenant.set_versioning(b, "Enabled")
    single = s3.put_object(Bucket=b, Key="k", Body=b"sent whole")
    parts = [os.urandom(2 * MIN_PART), os.urandom(300)]
    done = multipart(s3, b, "k", parts)
    assert ID.match(done["VersionId"]) and done["VersionId"] != single["VersionId"]
    whole = s3.get_object(Bucket=b, Key="k", VersionId=single["VersionId"])
    assert whole["Body"].read() == b"sent whole" and whole["ETag"] == f'"{md5(b"sent whole")}"'
    # Overwritten again: the assembled content is a version now, with its "-N" ETag, parts and metadata.
    s3.put_object(Bucket=b, Key="k", Body=b"third")
    digests = b"".join(hashlib.md5(p).digest() for p in parts)
    old = s3.head_object(Bucket=b, Key="k", VersionId=done["VersionId"])
    assert old["ETag"] == f'"{hashlib.md5(digests).hexdigest()}-2"'
    assert old["ContentLength"] == sum(map(len, parts)) and old["Metadata"] == {"kind": "parts"}
    second = s3.get_object(Bucket=b, Key="k", VersionId=done["VersionId"], PartNumber=2)
    assert second["Body"].read() == parts[1] and second["PartsCount"] == 2


def test_copy_from_a_version_and_onto_itself(tenant):
    s3 = tenant.client()
    b = "vw-copy"
    tenant.set_versioning(b, "Enabled")
    v1 = s3.put_object(Bucket=b, Key="src", Body=b"one", Metadata={"v": "1"})["VersionId"]
    v2 = s3.put_object(Bucket=b, Key="src", Body=b"two")["VersionId"]
    r = s3.copy_object(Bucket=b, Key="dst", CopySource={"Bucket": b, "Key": "src", "VersionId": v1})
    assert r["CopySourceVersionId"] == v1 and ID.match(r["VersionId"]) and r["VersionId"] not in (v1, v2)
    got = s3.get_object(Bucket=b, Key="dst")
    assert got["Body"].read() == b"one" and got["Metadata"] == {"v": "1"} and got["VersionId"] == r["VersionId"]
    # A part copied from a version takes that version's bytes.
    uid = s3.create_multipart_upload(Bucket=b, Key="from-part")["UploadId"]
    part = s3.upload_part_copy(Bucket=b, Key="from-part", UploadId=uid, PartNumber=1,
                               CopySource={"Bucket": b, "Key": "src", "VersionId": v1})
    s3.complete_multipart_upload(Bucket=b, Key="from-part", UploadId=uid, MultipartUpload={
        "Parts": [{"PartNumber": 1, "ETag": part["CopyPartResult"]["ETag"]}]})
    assert s3.get_object(Bucket=b, Key="from-part")["Body"].read() == b"one"
    # Without a version named the source's own id goes back, its bucket having versioning.
    r = s3.copy_object(Bucket=b, Key="dst2", CopySource={"Bucket": b, "Key": "src"})
    assert r["CopySourceVersionId"] == v2
    # A copy from an old version over its own key restores it as the newest, keeping the rest.
    r = s3.copy_object(Bucket=b, Key="src", CopySource={"Bucket": b, "Key": "src", "VersionId": v1})
    assert s3.get_object(Bucket=b, Key="src")["Body"].read() == b"one"
    assert s3.get_object(Bucket=b, Key="src", VersionId=v2)["Body"].read() == b"two"
    restored = r["VersionId"]
    # Onto itself with new metadata: a new version, the old one kept on bytes of its own.
    r = s3.copy_object(Bucket=b, Key="src", CopySource={"Bucket": b, "Key": "src"}, MetadataDirective="REPLACE",
                       Metadata={"v": "again"})
    assert r["VersionId"] != restored and r["CopySourceVersionId"] == restored
    assert s3.head_object(Bucket=b, Key="src")["Metadata"] == {"v": "again"}
    assert s3.head_object(Bucket=b, Key="src", VersionId=restored)["Metadata"] == {"v": "1"}
    kept = tenant.contents(b)[b"one"]
    inodes = {os.stat(p).st_ino for _, p in kept}
    assert len(inodes) == len(kept), "a version shares its bytes with another content"
    # A bad id in the source is refused, an unknown one is NoSuchVersion.
    assert s3_error(lambda: s3.copy_object(Bucket=b, Key="x", CopySource=f"{b}/src?versionId=bogus"))[1] == \
        "InvalidArgument"
    assert s3_error(lambda: s3.copy_object(
        Bucket=b, Key="x", CopySource={"Bucket": b, "Key": "src",
                                       "VersionId": "2026_01_01_00_00_00-000000deadbeef"}))[1] == "NoSuchVersion"


def append(t, bucket, key, position, body):
    return t.request("POST", f"/{bucket}/{key}?append&position={position}", body)


def test_append_is_refused_where_ids_name_bytes(tenant):
    s3 = tenant.client()
    b = "vw-append"
    s3.put_object(Bucket=b, Key="grow", Body=b"abc")
    code, reply = append(tenant, b, "grow", 3, b"def")
    assert code == 200, reply
    tenant.set_versioning(b, "Enabled")
    code, reply = append(tenant, b, "grow", 6, b"ghi")
    assert code == 409 and b"<Code>InvalidBucketState</Code>" in reply and b"version id" in reply, reply
    vid = s3.put_object(Bucket=b, Key="grow", Body=b"with an id")["VersionId"]
    # Suspended, the object written while enabled still carries its id: still refused.
    tenant.set_versioning(b, "Suspended")
    code, reply = append(tenant, b, "grow", 10, b"!")
    assert code == 409 and b"InvalidBucketState" in reply, reply
    assert s3.get_object(Bucket=b, Key="grow", VersionId=vid)["Body"].read() == b"with an id"
    # A "null" object of a suspended bucket may grow.
    s3.put_object(Bucket=b, Key="other", Body=b"abc")
    code, reply = append(tenant, b, "other", 3, b"d")
    assert code == 200, reply
    assert s3.get_object(Bucket=b, Key="other")["Body"].read() == b"abcd"
    # An append whose body is still coming when the object is replaced by content with an id is refused
    # when it ends: its bytes never land in the content the id names.
    s3.put_object(Bucket=b, Key="slow", Body=b"null")
    body = b"appended"
    data = tenant.signed("POST", f"/{b}/slow?append&position=4", body, close=True)
    with socket.create_connection(("127.0.0.1", tenant.port), timeout=30) as s:
        s.sendall(data[:-3])
        time.sleep(0.5)
        tenant.set_versioning(b, "Enabled")
        vid = s3.put_object(Bucket=b, Key="slow", Body=b"with an id")["VersionId"]
        s.sendall(data[-3:])
        reply = b""
        while chunk := s.recv(65536):
            reply += chunk
    assert status_of(reply) == 409 and b"InvalidBucketState" in reply, reply
    assert s3.get_object(Bucket=b, Key="slow", VersionId=vid)["Body"].read() == b"with an id"
    assert s3.get_object(Bucket=b, Key="slow", VersionId="null")["Body"].read() == b"null"


def test_a_bucket_that_never_had_versioning_tells_no_ids(tenant):
    s3 = tenant.client()
    b = PLAIN
    code, reply = tenant.request("PUT", f"/{b}/k", b"plain")
    assert code == 200 and headers_of(reply).get("x-amz-version-id") is None
    for method in ("GET", "HEAD"):
        code, reply = tenant.request(method, f"/{b}/k")
        assert code == 200 and headers_of(reply).get("x-amz-version-id") is None
    r = s3.copy_object(Bucket=b, Key="k2", CopySource={"Bucket": b, "Key": "k"})
    assert "VersionId" not in r and "CopySourceVersionId" not in r
    done = multipart(s3, b, "k3", [os.urandom(MIN_PART), b"end"])
    assert "VersionId" not in done
    s3.put_object(Bucket=b, Key="k", Body=b"again")
    assert not os.path.exists(tenant.version(b)) or not any(
        files for _, _, files in os.walk(tenant.version(b)))
    # A version id on a bucket without versions: only "null", the live object, is there.
    assert s3.get_object(Bucket=b, Key="k", VersionId="null")["Body"].read() == b"again"


def test_a_key_too_long_for_version_names_is_refused_before_its_body(tenant):
    s3 = tenant.client()
    b = "vw-long"
    name = "n" * 220
    s3.put_object(Bucket=b, Key=f"d/{name}", Body=b"fits without versions")
    tenant.set_versioning(b, "Enabled")
    assert s3_error(lambda: s3.put_object(Bucket=b, Key=f"d/{name}", Body=b"x"))[1] == "KeyTooLongError"
    # Refused on its head alone: a body announced and never sent is not waited for.
    head = tenant.sign("PUT", f"/{b}/d/{name}", "UNSIGNED-PAYLOAD") + "Content-Length: 10485760\r\n\r\n"
    reply = tenant.exchange(head.encode() + b"only the start", quiet=5)
    assert status_of(reply) == 400 and b"KeyTooLongError" in reply, reply[:300]
    assert s3.get_object(Bucket=b, Key=f"d/{name}")["Body"].read() == b"fits without versions"
    s3.put_object(Bucket=b, Key="d/" + "n" * 200, Body=b"short enough")


def test_concurrent_puts_of_one_key_keep_every_body_once(tenant):
    s3 = tenant.client()
    b = "vw-race"
    tenant.set_versioning(b, "Enabled")
    n = 8
    bodies = [f"body {i} ".encode() + os.urandom(64) for i in range(n)]
    barrier = threading.Barrier(n)
    replies, errors = [None] * n, []

    def put(i):
        client = tenant.client()
        barrier.wait()
        try:
            replies[i] = client.put_object(Bucket=b, Key="hot/k", Body=bodies[i])
        except ClientError as e:  # pragma: no cover - reported below
            errors.append(e)

    started = time.monotonic()
    threads = [threading.Thread(target=put, args=(i,)) for i in range(n)]
    for th in threads:
        th.start()
    for th in threads:
        th.join()
    elapsed = time.monotonic() - started
    assert not errors, errors
    print(f"{n} concurrent PUTs took {elapsed:.3f}s")
    assert len({r["VersionId"] for r in replies}) == n
    seen = tenant.contents(b)
    for body in bodies:
        places = seen.get(body, [])
        assert len(places) == 1, (body[:8], places)
        tree, path = places[0]
        assert tree in ("data", "version"), places
        assert record_etag(path) == md5(body), path
    # Every id still serves its own body.
    for r, body in zip(replies, bodies):
        assert s3.get_object(Bucket=b, Key="hot/k", VersionId=r["VersionId"])["Body"].read() == body


def test_save_num_bounds_a_burst_within_one_second(tenant):
    s3 = tenant.client()
    b = "vw-bound"
    tenant.set_versioning(b, "Enabled", 3)
    bodies = [f"burst {i}".encode() for i in range(6)]
    started = time.monotonic()
    for body in bodies:
        s3.put_object(Bucket=b, Key="k", Body=body)
    print(f"6 PUTs (5 overwrites) took {time.monotonic() - started:.3f}s")
    seen = tenant.contents(b)
    where = {body: [tree for tree, _ in seen.get(body, [])] for body in bodies}
    assert where == {bodies[0]: ["recycle"], bodies[1]: ["recycle"], bodies[2]: ["version"],
                     bodies[3]: ["version"], bodies[4]: ["version"], bodies[5]: ["data"]}, where
    names = [os.path.basename(p) for body in bodies for _, p in seen[body]]
    assert len(set(names)) == len(names)


def test_a_keep_that_cannot_be_made_fails_the_put_and_leaves_the_old_object(tenant):
    s3 = tenant.client()
    b = "vw-fail"
    tenant.set_versioning(b, "Enabled")
    old = s3.put_object(Bucket=b, Key="inj/k", Body=b"old content")
    # A file where the key's version directory must go.
    blocker = os.path.join(tenant.version(b), "inj")
    os.makedirs(os.path.dirname(blocker), exist_ok=True)
    with open(blocker, "w") as f:
        f.write("in the way")
    err = s3_error(lambda: s3.put_object(Bucket=b, Key="inj/k", Body=b"new content"))
    assert err[0] == 500, err
    got = s3.get_object(Bucket=b, Key="inj/k")
    assert got["Body"].read() == b"old content" and got["VersionId"] == old["VersionId"]
    assert not tenant.temp_files()
    os.unlink(blocker)
    s3.put_object(Bucket=b, Key="inj/k", Body=b"new content")
    assert s3.get_object(Bucket=b, Key="inj/k", VersionId=old["VersionId"])["Body"].read() == b"old content"


def test_a_worker_killed_between_keep_and_commit_loses_no_content(tenant):
    """The commit waits ORBS3_TEST_VERSION_PAUSE_MS between keeping the old content and renaming the new
    one in; the worker is killed there. After a restart every acknowledged content exists exactly once."""
    b = "vw-kill"
    tenant.set_versioning(b, "Enabled")
    s3 = tenant.client()
    acked = [f"acked {i}".encode() for i in range(3)]
    for body in acked:
        s3.put_object(Bucket=b, Key="k", Body=body)
    tenant.daemon.stop()
    tenant.daemon = tenant.box.start("-d", env={"ORBS3_TEST_VERSION_PAUSE_MS": "3000"})
    try:
        wait_port(tenant.port)
        result = {}

        def put():
            try:
                result["reply"] = tenant.client(read_timeout=20).put_object(Bucket=b, Key="k", Body=b"never acked")
            except Exception as e:  # the connection dies with the worker
                result["error"] = e

        th = threading.Thread(target=put)
        th.start()
        # In the window: the last content has left the live place, the new one is not in yet.
        live = os.path.join(tenant.data(b), "k")
        wait_for(lambda: not os.path.exists(live), timeout=10, what="the old content kept, the commit waiting")
        for pid in worker_pids(tenant):
            os.kill(pid, signal.SIGKILL)
        th.join()
        assert "reply" not in result, result
    finally:
        # Workers are not started again by the master: the node is, as an operator would, without the hook.
        tenant.daemon.stop()
        tenant.daemon = tenant.box.start("-d")
        wait_port(tenant.port)
    seen = tenant.contents(b)
    for body in acked:
        assert len(seen.get(body, [])) == 1, (body, seen.get(body))
    s3 = tenant.client()
    versions = [p for body in acked for tree, p in seen[body] if tree == "version"]
    assert len(versions) == 3
    # The key can be written again, and its history is all there.
    s3.put_object(Bucket=b, Key="k", Body=b"after the crash")
    assert s3.get_object(Bucket=b, Key="k")["Body"].read() == b"after the crash"
