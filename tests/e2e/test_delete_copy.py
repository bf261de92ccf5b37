"""Deleting, copying and appending end to end: DeleteObject (recycled bytes, emptied directories gone,
directory objects), DeleteObjects of 1000 keys, the immediate delete (?vorne), CopyObject with its
metadata directives, conditions and encoded keys, a 1 GiB copy in bounded memory, AppendObject at
positions before, at and past the end; and the clients that use them: boto3, the AWS CLI, s3cmd, rclone.
One daemon serves the module.
"""

import base64
import hashlib
import json
import os
import re
import socket
import threading
import time
import urllib.parse
from concurrent.futures import ThreadPoolExecutor
from datetime import timedelta, timezone

import pytest
from botocore.exceptions import ClientError

from orbmux_harness import SANITIZED, SLOWDOWN, md5, rss_kib, run, s3_error, tenant_fixture, worker_pids

USER = "dc-user"
BUCKET = "delcopy"
OTHER = "delcopy-other"


tenant = tenant_fixture("dc", "--user", USER, buckets=[BUCKET, OTHER])


def read(s3, key, bucket=BUCKET):
    return s3.get_object(Bucket=bucket, Key=key)["Body"].read()


def record_stamp(last_modified):
    return last_modified.astimezone(timezone.utc).strftime("%Y_%m_%d_%H_%M_%S")


# ---- DeleteObject ----

def test_delete_recycles_the_bytes_and_removes_emptied_directories(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="tree/keep.txt", Body=b"stays")
    s3.put_object(Bucket=BUCKET, Key="tree/deep/er/gone.txt", Body=b"to the bin")
    stamp = record_stamp(s3.head_object(Bucket=BUCKET, Key="tree/deep/er/gone.txt")["LastModified"])

    assert s3.delete_object(Bucket=BUCKET, Key="tree/deep/er/gone.txt")["ResponseMetadata"]["HTTPStatusCode"] == 204
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="tree/deep/er/gone.txt")) == (404, "NoSuchKey")
    # The bytes lie in the recycle tree under the key and the time they were written, made unique, with
    # the object's record beside them.
    names = os.listdir(tenant.recycle(BUCKET, "tree/deep/er"))
    data = [n for n in names if n.startswith(f"gone.txt..{stamp}-")]
    assert len(data) == 1 and f".orbs3-v-{data[0]}" in names, names
    with open(tenant.recycle(BUCKET, f"tree/deep/er/{data[0]}"), "rb") as f:
        assert f.read() == b"to the bin"
    # The directories that held nothing else went, in both trees; the one with another key stayed.
    for path in (tenant.data(BUCKET, "tree/deep"), tenant.meta(BUCKET, "tree/deep")):
        assert not os.path.exists(path), path
    assert os.path.isdir(tenant.data(BUCKET, "tree")) and os.path.isdir(tenant.meta(BUCKET, "tree"))
    assert read(s3, "tree/keep.txt") == b"stays"

    # Deleting again, or a key that never was, is no error: clients that retry are not told otherwise.
    for key in ("tree/deep/er/gone.txt", "never/was", "tree"):
        assert s3.delete_object(Bucket=BUCKET, Key=key)["ResponseMetadata"]["HTTPStatusCode"] == 204
    assert read(s3, "tree/keep.txt") == b"stays"
    s3.delete_object(Bucket=BUCKET, Key="tree/keep.txt")
    assert not os.path.exists(tenant.data(BUCKET, "tree")) and not os.path.exists(tenant.meta(BUCKET, "tree"))
    # The bucket's own directories stay whatever is deleted.
    assert os.path.isdir(tenant.data(BUCKET, "")) and os.path.isdir(tenant.meta(BUCKET, ""))
    assert s3_error(lambda: s3.delete_object(Bucket="no-such-bucket", Key="k")) == (404, "NoSuchBucket")
    assert not tenant.temp_files()


def put_directory(t, key):
    # On a connection of its own. boto3 sends "Expect: 100-continue" with every PutObject; the daemon
    # answers a PUT without a body at once, with no 100 Continue first, and botocore keeps that early
    # reply's status line for the next request on the connection: a PutObject that follows there reads
    # its own reply wrongly and waits out its read timeout. That is no part of what is tested here.
    t.client().put_object(Bucket=BUCKET, Key=key, Body=b"")


def test_uploads_race_deletes_that_empty_their_directory(tenant):
    """Deletes remove the directories they empty while uploads into the same directories go on: no
    upload or read fails for it, and the last delete leaves no directory behind. (The narrowest window,
    a directory removed between an upload's mkdir and its open, is rarely hit this way.)"""
    failures = []

    def churn(name, rounds=150):
        s3 = tenant.client()
        for i in range(rounds):
            key = f"race/shared/deeper/{name}-{i}"
            try:
                s3.put_object(Bucket=BUCKET, Key=key, Body=b"r")
                if read(s3, key) != b"r":
                    failures.append((key, "content"))
                s3.delete_object(Bucket=BUCKET, Key=key)
            except ClientError as e:
                failures.append((key, e.response["Error"]["Code"]))

    with ThreadPoolExecutor(4) as pool:
        list(pool.map(churn, ["a", "b", "c", "d"]))
    assert not failures, failures[:5]
    assert not os.path.exists(tenant.data(BUCKET, "race")) and not os.path.exists(tenant.meta(BUCKET, "race"))
    assert not tenant.temp_files()


def test_directory_objects_go_with_their_last_key(tenant):
    s3 = tenant.client()
    put_directory(tenant, "empty/")
    assert os.path.isdir(tenant.data(BUCKET, "empty"))
    s3.delete_object(Bucket=BUCKET, Key="empty/")
    assert not os.path.exists(tenant.data(BUCKET, "empty")) and not os.path.exists(tenant.meta(BUCKET, "empty"))

    put_directory(tenant, "full/")
    s3.put_object(Bucket=BUCKET, Key="full/sub/a", Body=b"a")
    s3.put_object(Bucket=BUCKET, Key="full/b", Body=b"b")
    # Keys below it: the directory stays for them.
    assert s3.delete_object(Bucket=BUCKET, Key="full/")["ResponseMetadata"]["HTTPStatusCode"] == 204
    assert read(s3, "full/sub/a") == b"a" and read(s3, "full/b") == b"b"
    assert not os.path.exists(os.path.join(tenant.meta(BUCKET, "full"), ".orbs3-dir"))
    s3.delete_object(Bucket=BUCKET, Key="full/sub/a")
    assert os.path.isdir(tenant.data(BUCKET, "full")) and not os.path.exists(tenant.data(BUCKET, "full/sub"))
    # With its last key the deleted directory goes, from both trees.
    s3.delete_object(Bucket=BUCKET, Key="full/b")
    assert not os.path.exists(tenant.data(BUCKET, "full")) and not os.path.exists(tenant.meta(BUCKET, "full"))

    # A directory object that is not deleted stays when the keys below it go.
    put_directory(tenant, "kept/")
    s3.put_object(Bucket=BUCKET, Key="kept/x", Body=b"x")
    marker = os.path.exists(os.path.join(tenant.meta(BUCKET, "kept"), ".orbs3-dir"))
    s3.delete_object(Bucket=BUCKET, Key="kept/x")
    if marker:
        assert os.path.isdir(tenant.data(BUCKET, "kept")) and os.path.isdir(tenant.meta(BUCKET, "kept"))
    s3.delete_object(Bucket=BUCKET, Key="kept/")
    assert not os.path.exists(tenant.data(BUCKET, "kept")) and not os.path.exists(tenant.meta(BUCKET, "kept"))


def bucket_stat(t, bucket):
    """(object_count, storage_in_bytes) of the bucket's record."""
    with open(os.path.join(t.root, "meta", USER, "bucket", bucket)) as f:
        text = f.read()
    num = lambda name: int(re.search(rf'<stat\b[^>]*\b{name}="(\d+)"', text).group(1))
    return num("object_count"), num("storage_in_bytes")


def test_bucket_statistics_follow_puts_deletes_and_copies(tenant):
    s3 = tenant.client()
    s3.create_bucket(Bucket="delcopy-stat")
    b = "delcopy-stat"
    s3.put_object(Bucket=b, Key="a", Body=b"x" * 100)
    s3.put_object(Bucket=b, Key="d/b", Body=b"y" * 10)
    assert bucket_stat(tenant, b) == (2, 110)
    # A PUT over an existing key replaces its bytes, not its count.
    s3.put_object(Bucket=b, Key="a", Body=b"x" * 60)
    s3.put_object(Bucket=b, Key="a", Body=b"x" * 100)
    assert bucket_stat(tenant, b) == (2, 110)
    # A copy over an existing key replaces its bytes, not its count; a new key counts.
    s3.copy_object(Bucket=b, Key="a", CopySource={"Bucket": b, "Key": "d/b"})
    assert bucket_stat(tenant, b) == (2, 20)
    s3.copy_object(Bucket=b, Key="c", CopySource={"Bucket": b, "Key": "d/b"})
    assert bucket_stat(tenant, b) == (3, 30)
    # Deleting what is not there changes nothing; each road counts what it removed.
    s3.delete_object(Bucket=b, Key="never")
    assert bucket_stat(tenant, b) == (3, 30)
    s3.delete_object(Bucket=b, Key="a")
    s3.delete_object(Bucket=b, Key="a")
    assert bucket_stat(tenant, b) == (2, 20)
    assert tenant.request("POST", f"/{b}/c?append&position=10", b"zzzzz")[0] == 200
    assert bucket_stat(tenant, b) == (2, 25)
    # A directory key of a batch names no object here: d/b stays, and counts.
    s3.delete_objects(Bucket=b, Delete={"Objects": [{"Key": "c"}, {"Key": "d/"}, {"Key": "gone"}]})
    assert bucket_stat(tenant, b) == (1, 10)
    s3.delete_objects(Bucket=b, Delete={"Objects": [{"Key": "d/b"}]})
    assert bucket_stat(tenant, b) == (0, 0)
    # Nothing is left behind that would keep the bucket from being deleted.
    s3.delete_bucket(Bucket=b)


# ---- DeleteObjects ----

def test_delete_objects_of_a_thousand_keys_quiet_and_not(tenant):
    s3 = tenant.client()
    keys = [f"batch/{i // 100}/k{i:04d}" for i in range(1000)]
    with ThreadPoolExecutor(8) as pool:
        list(pool.map(lambda k: s3.put_object(Bucket=BUCKET, Key=k, Body=k.encode()), keys))

    half = keys[:500] + [f"batch/missing-{i}" for i in range(500)]
    got = s3.delete_objects(Bucket=BUCKET, Delete={"Objects": [{"Key": k} for k in half]})
    assert sorted(d["Key"] for d in got.get("Deleted", [])) == sorted(half)
    assert not got.get("Errors")
    # A key that can't be a key is the one error; the rest go, quietly.
    rest = keys[500:999] + ["batch/../escape"]
    got = s3.delete_objects(Bucket=BUCKET, Delete={"Objects": [{"Key": k} for k in rest], "Quiet": True})
    assert not got.get("Deleted")
    assert [e["Key"] for e in got.get("Errors", [])] == ["batch/../escape"]
    assert read(s3, keys[999]) == keys[999].encode()
    for k in keys[:999:97]:
        assert not os.path.exists(tenant.data(BUCKET, k)) and not os.path.exists(tenant.meta(BUCKET, k))
    # Nothing of a batch delete is recycled, and its emptied directories went.
    assert not [f for _, _, files in os.walk(tenant.recycle(BUCKET, "batch")) for f in files]
    assert sorted(os.listdir(tenant.data(BUCKET, "batch"))) == ["9"]

    got = s3.delete_objects(Bucket=BUCKET, Delete={"Objects": [{"Key": keys[999]}]})
    assert [d["Key"] for d in got["Deleted"]] == [keys[999]]
    assert not os.path.exists(tenant.data(BUCKET, "batch"))

    # A document whose Content-MD5 does not match is refused, and deletes nothing.
    s3.put_object(Bucket=BUCKET, Key="guarded", Body=b"g")
    doc = b"<Delete><Object><Key>guarded</Key></Object></Delete>"
    for md5_header, code in ((base64.b64encode(hashlib.md5(b"other").digest()).decode(), b"BadDigest"),
                             ("not base64", b"InvalidDigest")):
        status, reply = tenant.request("POST", f"/{BUCKET}?delete", doc,
                                       headers={"Content-MD5": md5_header})
        assert status == 400 and b"<Code>" + code + b"</Code>" in reply, reply
    assert read(s3, "guarded") == b"g"
    status, reply = tenant.request("POST", f"/{BUCKET}?delete", doc, headers={
        "Content-MD5": base64.b64encode(hashlib.md5(doc).digest()).decode()})
    assert status == 200 and b"<Deleted>" in reply and b"<Key>guarded</Key>" in reply, reply

    # More than 1000 keys is refused whole.
    too_many = [{"Key": f"x{i}"} for i in range(1001)]
    assert s3_error(lambda: s3.delete_objects(Bucket=BUCKET, Delete={"Objects": too_many})) == (400, "MalformedXML")


def test_a_batch_directory_key_deletes_its_directory_object_alone(tenant):
    s3 = tenant.client()
    below = ["x/a", "x/b", "x/sub/c"]
    for k in below:
        s3.put_object(Bucket=BUCKET, Key=k, Body=k.encode())
    put_directory(tenant, "x/")
    marker = os.path.join(tenant.meta(BUCKET, "x"), ".orbs3-dir")
    assert os.path.exists(marker)
    # First with the directory object x/ there, then without it: x/ goes (or was never there), nothing
    # below it does, and the reply says x/ is deleted either way, as S3 does for any key.
    for objects_gone in (1, 0):
        before = bucket_stat(tenant, BUCKET)
        got = s3.delete_objects(Bucket=BUCKET, Delete={"Objects": [{"Key": "x/"}]})
        assert [d["Key"] for d in got["Deleted"]] == ["x/"] and not got.get("Errors"), got
        assert not os.path.exists(marker)
        assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key="x/"))[0] == 404
        for k in below:
            assert read(s3, k) == k.encode(), k
        assert bucket_stat(tenant, BUCKET) == (before[0] - objects_gone, before[1])
    # The keys below go when they are named, and their directory with the last of them.
    got = s3.delete_objects(Bucket=BUCKET, Delete={"Objects": [{"Key": k} for k in below]})
    assert sorted(d["Key"] for d in got["Deleted"]) == below
    assert not os.path.exists(tenant.data(BUCKET, "x")) and not os.path.exists(tenant.meta(BUCKET, "x"))


# ---- the immediate delete ----

def test_vorne_destroys_at_once_and_knows_missing_keys(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="now/gone.bin", Body=b"no bin for me")
    status, _ = tenant.request("DELETE", f"/{BUCKET}/now/gone.bin?vorne")
    assert status == 204
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="now/gone.bin")) == (404, "NoSuchKey")
    assert not os.path.exists(tenant.recycle(BUCKET, "now")) or not os.listdir(tenant.recycle(BUCKET, "now"))
    assert not os.path.exists(tenant.data(BUCKET, "now"))
    status, reply = tenant.request("DELETE", f"/{BUCKET}/now/gone.bin?vorne")
    assert status == 404 and b"<Code>NoSuchKey</Code>" in reply

    # A directory key, asked for by this action, takes everything below it.
    for k in ("rec/a", "rec/b/c", "rec/b/d/e"):
        s3.put_object(Bucket=BUCKET, Key=k, Body=b"x")
    assert tenant.request("DELETE", f"/{BUCKET}/rec/?vorne")[0] == 204
    assert not os.path.exists(tenant.data(BUCKET, "rec")) and not os.path.exists(tenant.meta(BUCKET, "rec"))

    # An upload in progress below a destroyed directory is the server's, not a key: it can still complete.
    up = s3.create_multipart_upload(Bucket=BUCKET, Key="rec2/big.bin")["UploadId"]
    part = s3.upload_part(Bucket=BUCKET, Key="rec2/big.bin", UploadId=up, PartNumber=1, Body=b"p" * 1000)
    s3.put_object(Bucket=BUCKET, Key="rec2/small", Body=b"s")
    assert tenant.request("DELETE", f"/{BUCKET}/rec2/?vorne")[0] == 204
    assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key="rec2/small"))[0] == 404
    s3.complete_multipart_upload(Bucket=BUCKET, Key="rec2/big.bin", UploadId=up,
                                 MultipartUpload={"Parts": [{"PartNumber": 1, "ETag": part["ETag"]}]})
    assert read(s3, "rec2/big.bin") == b"p" * 1000


# ---- CopyObject ----

def test_copy_with_either_metadata_directive(tenant):
    s3 = tenant.client()
    body = os.urandom(300_000)
    s3.put_object(Bucket=BUCKET, Key="src/orig.bin", Body=body, ContentType="image/png",
                  Metadata={"colour": "blue"}, CacheControl="max-age=60")
    got = s3.copy_object(Bucket=BUCKET, Key="copies/same-meta.bin", CopySource={"Bucket": BUCKET, "Key": "src/orig.bin"})
    assert got["CopyObjectResult"]["ETag"] == f'"{md5(body)}"'
    head = s3.head_object(Bucket=BUCKET, Key="copies/same-meta.bin")
    assert (head["ContentType"], head["Metadata"], head["CacheControl"]) == ("image/png", {"colour": "blue"},
                                                                              "max-age=60")
    assert head["ETag"] == f'"{md5(body)}"' and head["LastModified"] == got["CopyObjectResult"]["LastModified"]
    assert read(s3, "copies/same-meta.bin") == body

    s3.copy_object(Bucket=BUCKET, Key="copies/new-meta.bin", CopySource=f"{BUCKET}/src/orig.bin",
                   MetadataDirective="REPLACE", ContentType="text/plain", Metadata={"shape": "round"})
    head = s3.head_object(Bucket=BUCKET, Key="copies/new-meta.bin")
    assert (head["ContentType"], head["Metadata"]) == ("text/plain", {"shape": "round"})
    assert "CacheControl" not in head
    assert s3_error(lambda: s3.copy_object(Bucket=BUCKET, Key="copies/x", CopySource=f"{BUCKET}/src/orig.bin",
                                           MetadataDirective="MERGE")) == (400, "InvalidArgument")


def test_copy_onto_itself_needs_new_metadata(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="self.txt", Body=b"myself", Metadata={"v": "1"})
    src = {"Bucket": BUCKET, "Key": "self.txt"}
    assert s3_error(lambda: s3.copy_object(Bucket=BUCKET, Key="self.txt", CopySource=src)) == (400, "InvalidRequest")
    s3.copy_object(Bucket=BUCKET, Key="self.txt", CopySource=src, MetadataDirective="REPLACE", Metadata={"v": "2"})
    got = s3.get_object(Bucket=BUCKET, Key="self.txt")
    assert got["Body"].read() == b"myself" and got["Metadata"] == {"v": "2"} and got["ETag"] == f'"{md5(b"myself")}"'
    assert not tenant.temp_files()


def test_copy_across_buckets_over_existing_keys_and_into_new_directories(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="x/from.txt", Body=b"first")
    s3.put_object(Bucket=OTHER, Key="to.txt", Body=b"an older and longer content")
    s3.copy_object(Bucket=OTHER, Key="to.txt", CopySource={"Bucket": BUCKET, "Key": "x/from.txt"})
    assert read(s3, "to.txt", OTHER) == b"first"
    s3.copy_object(Bucket=OTHER, Key="brand/new/dirs/to.txt", CopySource={"Bucket": BUCKET, "Key": "x/from.txt"})
    assert read(s3, "brand/new/dirs/to.txt", OTHER) == b"first"
    # Missing sources and buckets.
    assert s3_error(lambda: s3.copy_object(Bucket=OTHER, Key="y", CopySource={"Bucket": BUCKET, "Key": "nope"})) == \
        (404, "NoSuchKey")
    assert s3_error(lambda: s3.copy_object(Bucket=OTHER, Key="y", CopySource={"Bucket": "nobucket", "Key": "k"})) == \
        (404, "NoSuchBucket")
    # A key that needs a file as a directory is refused, and the file stays.
    assert s3_error(lambda: s3.copy_object(Bucket=OTHER, Key="to.txt/under", CopySource=f"{BUCKET}/x/from.txt"))[0] \
        == 400
    assert read(s3, "to.txt", OTHER) == b"first"
    assert not tenant.temp_files()


def test_copy_of_encoded_keys_and_the_older_copy_header(tenant):
    s3 = tenant.client()
    for key in ("with space/and+plus.txt", "ünï/cødé €.txt", "q?uestion&amp=%.txt"):
        s3.put_object(Bucket=BUCKET, Key=key, Body=key.encode())
        s3.copy_object(Bucket=BUCKET, Key=f"enc-copy/{key}", CopySource={"Bucket": BUCKET, "Key": key})
        assert read(s3, f"enc-copy/{key}") == key.encode()
    # X-Copy-Source, percent-encoded, by a raw signed PUT.
    source = "/" + BUCKET + "/" + urllib.parse.quote("ünï/cødé €.txt")
    status, reply = tenant.request("PUT", f"/{BUCKET}/old-header.txt",
                                   headers={"X-Copy-Source": source})
    assert status == 200 and b"<CopyObjectResult>" in reply and md5("ünï/cødé €.txt".encode()).encode() in reply
    assert read(s3, "old-header.txt") == "ünï/cødé €.txt".encode()
    status, reply = tenant.request("PUT", f"/{BUCKET}/bad", headers={"X-Copy-Source": "/b/%zz"})
    assert status == 400 and b"<Code>InvalidArgument</Code>" in reply


def test_copy_conditions_on_the_source(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="cond.txt", Body=b"condition")
    etag = f'"{md5(b"condition")}"'
    modified = s3.head_object(Bucket=BUCKET, Key="cond.txt")["LastModified"]
    src = {"Bucket": BUCKET, "Key": "cond.txt"}
    past, future = modified - timedelta(days=1), modified + timedelta(days=1)
    for failing in ({"CopySourceIfMatch": '"0123"'}, {"CopySourceIfNoneMatch": etag},
                    {"CopySourceIfModifiedSince": future}, {"CopySourceIfUnmodifiedSince": past}):
        assert s3_error(lambda: s3.copy_object(Bucket=BUCKET, Key="cond-copy", CopySource=src, **failing)) == \
            (412, "PreconditionFailed"), failing
    assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key="cond-copy"))[0] == 404
    for passing in ({"CopySourceIfMatch": etag}, {"CopySourceIfNoneMatch": '"0123"'},
                    {"CopySourceIfModifiedSince": past}, {"CopySourceIfUnmodifiedSince": future}):
        s3.copy_object(Bucket=BUCKET, Key="cond-copy", CopySource=src, **passing)
    assert read(s3, "cond-copy") == b"condition"


@pytest.mark.skipif(SANITIZED, reason="sanitizer builds keep freed memory in quarantine; RSS says nothing there")
def test_a_one_gib_copy_runs_in_bounded_memory(tenant):
    size = 1 << 30
    # A sparse file placed without a record: the copy reads it through its buffer to compute the ETag.
    os.makedirs(os.path.dirname(tenant.data(BUCKET, "big/sparse.bin")), exist_ok=True)
    with open(tenant.data(BUCKET, "big/sparse.bin"), "wb") as f:
        f.truncate(size)
    zeros = hashlib.md5()
    block = bytes(1 << 20)
    for _ in range(size >> 20):
        zeros.update(block)
    workers = worker_pids(tenant)
    before = sum(rss_kib(p) for p in workers)
    peak = [before]
    done = threading.Event()

    def sample():
        while not done.wait(0.05):
            peak[0] = max(peak[0], sum(rss_kib(p) for p in workers))

    sampler = threading.Thread(target=sample)
    sampler.start()
    s3 = tenant.client()
    started = time.monotonic()
    try:
        got = s3.copy_object(Bucket=BUCKET, Key="big/copy.bin", CopySource={"Bucket": BUCKET, "Key": "big/sparse.bin"})
    finally:
        done.set()
        sampler.join()
    took = time.monotonic() - started
    after = sum(rss_kib(p) for p in workers)
    print(f"worker RSS {before} KiB before, {peak[0]} KiB at most during, {after} KiB after a 1 GiB copy of {took:.1f} s")
    assert got["CopyObjectResult"]["ETag"] == f'"{zeros.hexdigest()}"'
    assert os.path.getsize(tenant.data(BUCKET, "big/copy.bin")) == size
    assert peak[0] - before < 64 * 1024 and after - before < 64 * 1024, (before, peak[0], after)
    s3.delete_objects(Bucket=BUCKET, Delete={"Objects": [{"Key": "big/sparse.bin"}, {"Key": "big/copy.bin"}]})
    assert not os.path.exists(tenant.data(BUCKET, "big"))


# ---- AppendObject ----

def append(t, key, position, body, **kw):
    return t.request("POST", f"/{BUCKET}/{key}?append&position={position}", body, **kw)


def test_append_before_at_and_past_the_end(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="log/app.txt", Body=b"hello", ContentType="text/plain", Metadata={"a": "b"})
    status, reply = append(tenant, "log/app.txt", 5, b" world")
    assert status == 200, reply
    assert f'ETag: "{md5(b"hello world")}"'.encode() in reply
    assert read(s3, "log/app.txt") == b"hello world"
    # Inside: overwrites from there, and grows only past the end.
    assert append(tenant, "log/app.txt", 3, b"XY")[0] == 200
    assert read(s3, "log/app.txt") == b"helXY world"
    assert append(tenant, "log/app.txt", 9, b"LD and more")[0] == 200
    assert read(s3, "log/app.txt") == b"helXY worLD and more"
    # Past the end: at the end, no gap.
    assert append(tenant, "log/app.txt", 1000, b"!")[0] == 200
    got = s3.get_object(Bucket=BUCKET, Key="log/app.txt")
    assert got["Body"].read() == b"helXY worLD and more!"
    assert got["ETag"] == f'"{md5(b"helXY worLD and more!")}"'
    assert (got["ContentType"], got["Metadata"]) == ("text/plain", {"a": "b"})

    # A body that fails its payload hash changes nothing, and no temporary file stays.
    status, reply = append(tenant, "log/app.txt", 21, b"tampered", payload_hash=hashlib.sha256(b"other").hexdigest())
    assert status == 400 and b"XAmzContentSHA256Mismatch" in reply
    assert read(s3, "log/app.txt") == b"helXY worLD and more!"
    for bad, code in ((-1, 400), ("x", 400)):
        assert append(tenant, "log/app.txt", bad, b"z")[0] == code
    assert append(tenant, "log/none.txt", 4, b"z")[0] == 404
    # position=0 is the first write of an appendable object: a plain PUT.
    assert append(tenant, "log/fresh.txt", 0, b"fresh")[0] == 200
    assert read(s3, "log/fresh.txt") == b"fresh"
    assert not tenant.temp_files()


def test_an_append_body_in_pieces_or_cut_short(tenant):
    s3 = tenant.client()
    # A body that arrives in several pieces, with pauses between them, is waited for.
    s3.put_object(Bucket=BUCKET, Key="log/slow.txt", Body=b"start:")
    body = os.urandom(300_000)
    data = tenant.signed("POST", f"/{BUCKET}/log/slow.txt?append&position=6", body, close=True)
    with socket.create_connection(("127.0.0.1", tenant.port), timeout=30 * SLOWDOWN) as s:
        for at in range(0, len(data), 100_000):
            s.sendall(data[at:at + 100_000])
            time.sleep(0.1)
        reply = s.recv(65536)
    assert reply.startswith(b"HTTP/1.1 200 OK\r\n"), reply
    assert read(s3, "log/slow.txt") == b"start:" + body

    # A client that stops in mid-body leaves the object as it was.
    s3.put_object(Bucket=BUCKET, Key="log/cut.txt", Body=b"whole")
    data = tenant.signed("POST", f"/{BUCKET}/log/cut.txt?append&position=5", b"x" * 100_000,
                         payload_hash="UNSIGNED-PAYLOAD", close=True)
    with socket.create_connection(("127.0.0.1", tenant.port), timeout=10) as s:
        s.sendall(data[:-50_000])
        time.sleep(0.3 * SLOWDOWN)
    time.sleep(0.3 * SLOWDOWN)
    assert read(s3, "log/cut.txt") == b"whole"
    assert not tenant.temp_files()


# ---- other clients ----

def test_s3cmd_copies_and_deletes(tenant, tmp_path):
    s3cmd = tenant.s3cmd()
    env = tenant.env(str(tmp_path))
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="s3cmd/one file.txt", Body=b"by s3cmd", ContentType="text/x-test")
    run(s3cmd + ["cp", f"s3://{BUCKET}/s3cmd/one file.txt", f"s3://{OTHER}/s3cmd/two file.txt"], env)
    got = s3.get_object(Bucket=OTHER, Key="s3cmd/two file.txt")
    assert got["Body"].read() == b"by s3cmd" and got["ContentType"] == "text/x-test"
    run(s3cmd + ["del", f"s3://{OTHER}/s3cmd/two file.txt"], env)
    assert s3_error(lambda: s3.head_object(Bucket=OTHER, Key="s3cmd/two file.txt"))[0] == 404
    assert not os.path.exists(tenant.data(OTHER, "s3cmd"))


def listing_works(t):
    try:
        t.client().list_objects_v2(Bucket=BUCKET, MaxKeys=1)
        return True
    except ClientError as e:
        return e.response["ResponseMetadata"]["HTTPStatusCode"] != 501


@pytest.fixture
def needs_listing(tenant):
    if not listing_works(tenant):
        pytest.skip("ListObjectsV2 answers 501: listing is not built yet")


def test_aws_cli_removes_a_tree_recursively(tenant, tmp_path, needs_listing):
    s3 = tenant.client()
    keys = [f"cli-tree/{a}/{b}.txt" for a in range(5) for b in range(20)]
    with ThreadPoolExecutor(8) as pool:
        list(pool.map(lambda k: s3.put_object(Bucket=BUCKET, Key=k, Body=b"x"), keys))
    s3.put_object(Bucket=BUCKET, Key="cli-tree-sibling", Body=b"stays")
    aws = tenant.aws()
    run(aws + ["s3", "rm", "--recursive", f"s3://{BUCKET}/cli-tree/"], tenant.env(str(tmp_path)))
    assert s3.list_objects_v2(Bucket=BUCKET, Prefix="cli-tree/").get("KeyCount", 0) == 0
    assert not os.path.exists(tenant.data(BUCKET, "cli-tree"))
    assert read(s3, "cli-tree-sibling") == b"stays"


# Keys that differ from others only behind a blank, around it, or in a character XML escapes; the batch
# delete once read each Key up to its first blank and deleted the shorter key in its place.
BLANK_KEYS = ["with", "with space/and+plus.txt", "a b", "a", "report", "report 2024.pdf", "leading", " leading",
              "tab\tkey", "tab", "amp&<x>'\"", "amp", "trailing ", "trailing", "caf\u00e9 cr\u00e8me", "caf\u00e9",
              "cr\rkey", "cr", "nl\nkey", "nl"]


def put_keys(s3, prefix, keys):
    """Puts each key under prefix with its own name as body; returns the keys the server took (one the key
    rules refuse is left out)."""
    taken = []
    for k in keys:
        try:
            s3.put_object(Bucket=BUCKET, Key=prefix + k, Body=k.encode())
            taken.append(k)
        except ClientError as e:
            assert e.response["ResponseMetadata"]["HTTPStatusCode"] == 400, (k, e.response)
    return taken


def present(s3, prefix, key):
    try:
        return read(s3, prefix + key) == key.encode()
    except ClientError as e:
        assert e.response["ResponseMetadata"]["HTTPStatusCode"] == 404, (key, e.response)
        return False


def test_delete_objects_deletes_exactly_the_keys_it_names(tenant):
    s3 = tenant.client()
    keys = put_keys(s3, "blanks/", BLANK_KEYS)
    assert {"with", "with space/and+plus.txt", "a b", "a", " leading", "leading", "report 2024.pdf"} <= set(keys)
    named = [k for k in keys if k in ("with space/and+plus.txt", "a b", "report 2024.pdf", " leading", "tab\tkey",
                                      "amp&<x>'\"", "trailing ", "caf\u00e9 cr\u00e8me", "cr\rkey",
                                      "nl\nkey")]
    got = s3.delete_objects(Bucket=BUCKET, Delete={"Objects": [{"Key": "blanks/" + k} for k in named]})
    assert sorted(d["Key"] for d in got["Deleted"]) == sorted("blanks/" + k for k in named)
    assert not got.get("Errors")
    for k in keys:
        assert present(s3, "blanks/", k) == (k not in named), k


def test_aws_cli_removes_keys_with_blanks_under_a_prefix_only(tenant, tmp_path, needs_listing):
    s3 = tenant.client()
    # No key with a leading blank here: cut at its blank it names the prefix's directory, whose delete
    # once took all below it and would have hidden every other wrong delete.
    inside = put_keys(s3, "cli-blanks/in/", [k for k in BLANK_KEYS if not k.startswith(" ")])
    outside = put_keys(s3, "cli-blanks/", ["in side", "in", "a b", " leading", "with"])
    aws = tenant.aws()
    run(aws + ["s3", "rm", "--recursive", f"s3://{BUCKET}/cli-blanks/in/"], tenant.env(str(tmp_path)))
    for k in inside:
        assert not present(s3, "cli-blanks/in/", k), k
    left = s3.list_objects_v2(Bucket=BUCKET, Prefix="cli-blanks/")
    assert sorted(c["Key"] for c in left.get("Contents", [])) == sorted("cli-blanks/" + k for k in outside)
    # The CLI removes key by key; its batch delete is s3api delete-objects.
    batch = tmp_path / "batch.json"
    batch.write_text(json.dumps({"Objects": [{"Key": "cli-blanks/a b"}, {"Key": "cli-blanks/in side"}]}))
    run(aws + ["s3api", "delete-objects", "--bucket", BUCKET, "--delete", f"file://{batch}"],
        tenant.env(str(tmp_path)))
    left = s3.list_objects_v2(Bucket=BUCKET, Prefix="cli-blanks/")
    assert sorted(c["Key"] for c in left.get("Contents", [])) == \
        sorted("cli-blanks/" + k for k in outside if k not in ("a b", "in side"))


def test_rclone_sync_and_check(tenant, tmp_path, needs_listing):
    env = tenant.rclone(str(tmp_path))
    src = tmp_path / "src"
    for rel in ("a.txt", "sub/b.txt", "sub/deeper/c.bin", "gone/d.txt"):
        (src / rel).parent.mkdir(parents=True, exist_ok=True)
        (src / rel).write_bytes(os.urandom(1000) + rel.encode())
    flags = ["--retries", "1", "--s3-no-check-bucket"]
    run(["/usr/bin/rclone", "sync", *flags, str(src), f"om:{BUCKET}/rc-sync"], env)
    run(["/usr/bin/rclone", "check", *flags, str(src), f"om:{BUCKET}/rc-sync"], env)
    # Changes on the source side, synced: a file removed, one changed, one added; rclone deletes and
    # (on the server) copies as it sees fit.
    (src / "gone/d.txt").unlink()
    (src / "gone").rmdir()
    (src / "a.txt").write_bytes(b"changed")
    (src / "sub/new.txt").write_bytes(b"new")
    run(["/usr/bin/rclone", "sync", *flags, str(src), f"om:{BUCKET}/rc-sync"], env)
    run(["/usr/bin/rclone", "check", *flags, str(src), f"om:{BUCKET}/rc-sync"], env)
    assert not os.path.exists(tenant.data(BUCKET, "rc-sync/gone"))
    assert not tenant.temp_files()
