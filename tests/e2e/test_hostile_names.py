"""Names from a request are keys, never paths: two tenants on their own ports, and everything tenant one can
name (listing prefixes, markers, tokens, upload markers, request paths with dot segments, keys a file tree
can't hold apart) stays inside tenant one's bucket or is refused with 400. One daemon serves the module.
"""

import glob
import os
import re
import shutil
import urllib.parse
import xml.etree.ElementTree as ET

import pytest

from orbmux_harness import Sandbox, Tenant, free_port, s3_error, status_of, wait_port

NS = "{http://s3.amazonaws.com/doc/2006-03-01/}"
BUCKET = "bkt1"
OTHER_BUCKET = "bkt2"
KEYS = ["k", "d/x", "d/y/z"]
SECRETS = ["secret.txt", "s/inner"]


def meta_dir(t, bucket):
    found = glob.glob(t.box.path(f"cluster/**/meta/{t.user}/object/{bucket}"), recursive=True)
    assert len(found) == 1, found
    return found[0]


@pytest.fixture(scope="module")
def tenants():
    box = Sandbox()
    ports = [free_port(), free_port()]
    infos = [box.add_tenant("one", ports[0], "--user", "u1", "--group", "g1"),
             box.add_tenant("two", ports[1], "--user", "u2", "--group", "g2")]
    daemon = box.start("-d")
    one, two = (Tenant(box, daemon, port, info) for port, info in zip(ports, infos))
    try:
        for p in ports:
            wait_port(p)
        s3 = one.client()
        s3.create_bucket(Bucket=BUCKET)
        for k in KEYS:
            s3.put_object(Bucket=BUCKET, Key=k, Body=b"mine")
        s3 = two.client()
        s3.create_bucket(Bucket=OTHER_BUCKET)
        for k in SECRETS:
            s3.put_object(Bucket=OTHER_BUCKET, Key=k, Body=b"not yours")
        yield one, two
        # A stop in order, and no sanitizer report in the daemon's log.
        daemon.stop()
    finally:
        box.cleanup()


def exchange(t, method, path, body=b"", **kw):
    """(status, body) of one signed request on its own connection."""
    status, reply = t.request(method, path, body, **kw)
    return status, reply.partition(b"\r\n\r\n")[2]


def error_of(body):
    doc = ET.fromstring(body)
    return doc.findtext("Code"), doc.findtext("Message")


def listed(s3, **kw):
    """Every key and common prefix of a V2 listing of tenant one's bucket."""
    got = s3.list_objects_v2(Bucket=BUCKET, **kw)
    return [c["Key"] for c in got.get("Contents", [])] + [p["Prefix"] for p in got.get("CommonPrefixes", [])]


def test_listing_names_never_leave_the_bucket(tenants):
    one, two = tenants
    s3 = one.client()
    mine = meta_dir(one, BUCKET)
    # A record that would parse, planted outside every bucket: opened, it would be listed.
    outside = one.box.path("outside")
    os.makedirs(outside)
    shutil.copy(os.path.join(mine, "k"), os.path.join(outside, "planted"))
    climbs = [
        os.path.relpath(meta_dir(two, OTHER_BUCKET), mine) + "/",
        os.path.relpath(meta_dir(two, OTHER_BUCKET), mine) + "/s/",
        os.path.relpath(outside, mine) + "/",
        "../" * 12 + "etc/",
        "../" * 12,
        "d/../../" + os.path.basename(mine) + "/",
        "./", "/", "d//",
    ]
    for prefix in climbs:
        for delimiter in ("", "/"):
            assert listed(s3, Prefix=prefix, Delimiter=delimiter) == [], prefix
            got = s3.list_objects(Bucket=BUCKET, Prefix=prefix, Delimiter=delimiter)
            assert "Contents" not in got and "CommonPrefixes" not in got, prefix
    # Resume points that climb only order: the bucket's own keys, nothing of tenant two's.
    for marker in climbs:
        want = sorted(k for k in KEYS if k > marker)
        assert [c["Key"] for c in s3.list_objects(Bucket=BUCKET, Marker=marker).get("Contents", [])] == want
        assert listed(s3, StartAfter=marker) == want
    token = urllib.parse.quote(climbs[0])  # not a token this server made
    assert s3_error(lambda: s3.list_objects_v2(Bucket=BUCKET, ContinuationToken=token)) == (400, "InvalidArgument")
    # Upload listings take the same names as keys.
    up = s3.create_multipart_upload(Bucket=BUCKET, Key="d/up")
    try:
        for prefix in climbs:
            got = s3.list_multipart_uploads(Bucket=BUCKET, Prefix=prefix, KeyMarker=prefix,
                                            UploadIdMarker="../" * 8)
            assert got.get("Uploads", []) == [] and got.get("CommonPrefixes", []) == [], prefix
        got = s3.list_multipart_uploads(Bucket=BUCKET, KeyMarker="../" * 8, UploadIdMarker="../" * 8)
        assert [u["Key"] for u in got["Uploads"]] == ["d/up"]
    finally:
        s3.abort_multipart_upload(Bucket=BUCKET, Key="d/up", UploadId=up["UploadId"])


def test_dot_segments_in_the_path_are_refused_and_retarget_nothing(tenants):
    one, _ = tenants
    s3 = one.client()
    # (Escaped dots, "%2e", reach the same key check: the classifier's unit test shows they decode to
    # the same key; a client signs them as sent, which this test's signer can't match.)
    paths = ["/bkt1/../x", "/bkt1/..", "/bkt1/./k", "/bkt1/d/../k", "/bkt1/d/./x", "/./x", "/bkt1/.", "/bkt1/../bkt1/k"]
    for method in ("PUT", "GET", "DELETE"):
        for path in paths:
            status, body = exchange(one, method, path, b"retargeted" if method == "PUT" else b"")
            assert status == 400, (method, path, body)
            assert error_of(body)[0] in ("InvalidArgument", "InvalidBucketName"), (method, path, body)
    # Nothing was made or taken: no bucket "x", no key "x", "k" as it was.
    assert [b["Name"] for b in s3.list_buckets()["Buckets"]] == [BUCKET]
    assert sorted(listed(s3)) == sorted(KEYS)
    assert s3.get_object(Bucket=BUCKET, Key="k")["Body"].read() == b"mine"


def test_keys_a_file_tree_cannot_hold_apart_are_refused_and_nothing_is_stored(tenants):
    one, _ = tenants
    s3 = one.client()
    refused = ["/k", "//k", "d//x", "d/x//", "d/./x", "d/../k", "..", ".", "\x01k", "d/\x1fx", ".orbs3-dir"]
    for key in refused:
        assert s3_error(lambda: s3.put_object(Bucket=BUCKET, Key=key, Body=b"other")) == (400, "InvalidArgument"), key
        assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key=key))[0] == 400, key
        assert s3_error(lambda: s3.create_multipart_upload(Bucket=BUCKET, Key=key)) == (400, "InvalidArgument"), key
        assert s3_error(lambda: s3.copy_object(Bucket=BUCKET, Key=key, CopySource=f"{BUCKET}/k")) == \
            (400, "InvalidArgument"), key
        assert s3_error(lambda: s3.copy_object(Bucket=BUCKET, Key="copy", CopySource=f"{BUCKET}/{key}")) == \
            (400, "InvalidArgument"), key
        assert s3_error(lambda: s3.delete_object(Bucket=BUCKET, Key=key))[0] == 400, key
    # A batch delete answers each such entry with an error and deletes nothing in its place.
    got = s3.delete_objects(Bucket=BUCKET, Delete={"Objects": [{"Key": k} for k in ["/k", "d//x", "d/./x"]]})
    assert got.get("Deleted", []) == [] and len(got["Errors"]) == 3
    # The message says why.
    status, body = exchange(one, "PUT", "/bkt1/d//x", b"other")
    assert status == 400 and "//" in error_of(body)[1]
    # A key that is not UTF-8: S3's own answer.
    status, body = exchange(one, "PUT", "/bkt1/%FF%FEk", b"other")
    assert (status, *error_of(body)) == (400, "InvalidURI", "Couldn't parse the specified URI.")
    # A folder key holds no data: a body with it is refused, not dropped; an empty one makes the folder.
    assert s3_error(lambda: s3.put_object(Bucket=BUCKET, Key="folder/", Body=b"data")) == (400, "InvalidArgument")
    framed = one.signed("PUT", "/bkt1/folder/", b"4\r\ndata\r\n0\r\n\r\n", payload_hash="UNSIGNED-PAYLOAD",
                        close=True)
    framed = re.sub(rb"Content-Length: \d+\r\n", b"Transfer-Encoding: chunked\r\n", framed)
    assert b"Content-Length" not in framed  # a body of unknown length: known to hold data only once read
    reply = one.exchange(framed)
    status, body = status_of(reply), reply.partition(b"\r\n\r\n")[2]
    assert (status, error_of(body)[0]) == (400, "InvalidArgument"), body
    s3.put_object(Bucket=BUCKET, Key="empty-folder/", Body=b"")
    try:
        # Everything stored is what was stored before, byte for byte, plus the folder.
        assert sorted(listed(s3)) == sorted(KEYS + ["empty-folder/"])
        for k in KEYS:
            assert s3.get_object(Bucket=BUCKET, Key=k)["Body"].read() == b"mine", k
        assert "copy" not in listed(s3)
    finally:
        s3.delete_object(Bucket=BUCKET, Key="empty-folder/")


def test_part_numbers_that_name_no_part_are_refused(tenants):
    one, _ = tenants
    s3 = one.client()
    up = s3.create_multipart_upload(Bucket=BUCKET, Key="parts")["UploadId"]
    try:
        for number in ("1.5", "0", "10001", "-1", "1e0", "", "0x1", "99999999999"):
            for headers in ({}, {"x-amz-copy-source": f"/{BUCKET}/k"}):
                path = f"/{BUCKET}/parts?partNumber={number}&uploadId={up}"
                status, body = exchange(one, "PUT", path, b"part", headers=headers)
                assert (status, error_of(body)[0]) == (400, "InvalidArgument"), (number, headers, body)
        assert s3.list_parts(Bucket=BUCKET, Key="parts", UploadId=up).get("Parts", []) == []
        s3.upload_part(Bucket=BUCKET, Key="parts", UploadId=up, PartNumber=10000, Body=b"last")
        assert [p["PartNumber"] for p in s3.list_parts(Bucket=BUCKET, Key="parts", UploadId=up)["Parts"]] == [10000]
    finally:
        s3.abort_multipart_upload(Bucket=BUCKET, Key="parts", UploadId=up)
