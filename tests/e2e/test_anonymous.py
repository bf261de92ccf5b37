"""Requests without credentials: what a public bucket or object lets anybody do, and what stays refused.

One daemon serves the module; buckets and objects are made public with canned ACLs through boto3, and the
requests without credentials go out with curl, as a browser or a download script sends them.
"""

import os
import re
import subprocess

import pytest

from orbmux_harness import s3_error, tenant_fixture

# Peers at 127.0.0.2 are barred by the service's blacklist.
tenant = tenant_fixture(
    "anon", "--user", "alice",
    service='<?xml version="1.0" encoding="utf-8"?>\n<service blacklist_status="start">\n<blacklist>\n'
            '<rule id="b1" name="barred" status="start"><addrs addr="127.0.0.2" mask="32" /></rule>\n'
            '</blacklist>\n</service>\n')


def curl(url, *args, source=None):
    """(status, headers lower-cased, body) of one request made by curl without any credentials."""
    # For HEAD (-I) curl writes the head as the output: it is read once, from -D.
    cmd = ["curl", "-sS", "-D", "-", "-o", "/dev/null" if "-I" in args else "-", "--max-time", "20", *args]
    if source:
        cmd += ["--interface", source]
    out = subprocess.run(cmd + [url], capture_output=True, check=True).stdout
    head, _, body = out.partition(b"\r\n\r\n")
    lines = head.decode("latin-1").split("\r\n")
    status = int(lines[0].split()[1])
    headers = {}
    for line in lines[1:]:
        name, _, value = line.partition(":")
        headers[name.strip().lower()] = value.strip()
    return status, headers, body


def code(body):
    m = re.search(rb"<Code>([^<]*)</Code>", body)
    return m.group(1).decode() if m else ""


@pytest.fixture(scope="module")
def buckets(tenant):
    """pub: public-read with a public and a private object; priv: private with a public-read object;
    drop: public-read-write."""
    s3 = tenant.client()
    s3.create_bucket(Bucket="pub", ACL="public-read")
    s3.create_bucket(Bucket="priv")
    s3.create_bucket(Bucket="drop")
    s3.put_bucket_acl(Bucket="drop", ACL="public-read-write")
    s3.put_object(Bucket="pub", Key="site/index.html", Body=b"<h1>hello</h1>", ContentType="text/html",
                  CacheControl="max-age=60", ACL="public-read")
    s3.put_object(Bucket="pub", Key="secret.txt", Body=b"not for you")
    s3.put_object(Bucket="priv", Key="shared.bin", Body=b"shared bytes")
    s3.put_object_acl(Bucket="priv", Key="shared.bin", ACL="public-read")
    return s3


def test_reads_follow_the_object_acl_and_missing_keys_are_told_only_in_a_public_bucket(tenant, buckets):
    base = tenant.endpoint
    status, headers, body = curl(f"{base}/pub/site/index.html")
    assert (status, body) == (200, b"<h1>hello</h1>")
    assert headers["content-type"] == "text/html" and headers["cache-control"] == "max-age=60"
    assert headers["content-length"] == "14" and headers["etag"].startswith('"')
    # HEAD: the same headers, no body.
    status, head, body = curl(f"{base}/pub/site/index.html", "-I")
    assert (status, head["content-length"], head["etag"]) == (200, "14", headers["etag"])
    # A range of a public object.
    status, headers, body = curl(f"{base}/pub/site/index.html", "-H", "Range: bytes=4-8")
    assert (status, body) == (206, b"hello")
    # An object's own public bit counts in a private bucket too.
    assert curl(f"{base}/priv/shared.bin")[::2] == (200, b"shared bytes")

    cases = [
        # (path, extra curl args, status, code)
        ("/pub/secret.txt", [], 403, "AccessDenied"),  # a public bucket does not make its objects public
        ("/pub/secret.txt", ["-H", "If-None-Match: *"], 403, "AccessDenied"),  # not even a 304
        ("/pub/nothing-here", [], 404, "NoSuchKey"),
        ("/priv/nothing-here", [], 403, "AccessDenied"),  # a private bucket's names are not probed
        ("/nobucket/key", [], 404, "NoSuchBucket"),
        ("/pub/site/index.html?response-content-type=text/plain", [], 400, "InvalidRequest"),
        ("/pub/site/index.html?acl", [], 403, "AccessDenied"),
        ("/pub/site/index.html", ["-X", "DELETE"], 403, "AccessDenied"),
        ("/pub/site/index.html", ["-X", "POST"], 403, "AccessDenied"),
        ("/pub?versions", [], 403, "AccessDenied"),
        ("/", [], 403, "AccessDenied"),
    ]
    for path, args, want_status, want_code in cases:
        status, _, body = curl(base + path, *args)
        assert (status, code(body)) == (want_status, want_code), (path, args, body)
    assert curl(f"{base}/pub/secret.txt", "-I")[0] == 403
    assert curl(f"{base}/pub/nothing-here", "-I")[0] == 404
    assert os.path.exists(tenant.data("pub", "site/index.html"))


def test_a_listing_needs_the_bucket_public(tenant, buckets):
    for query in ("", "?list-type=2"):
        status, _, body = curl(f"{tenant.endpoint}/pub{query}")
        assert status == 200, body
        assert sorted(re.findall(rb"<Key>([^<]*)</Key>", body)) == [b"secret.txt", b"site/index.html"]
        status, _, body = curl(f"{tenant.endpoint}/priv{query}")
        assert (status, code(body)) == (403, "AccessDenied")
    assert curl(f"{tenant.endpoint}/pub", "-I")[0] == 200
    assert curl(f"{tenant.endpoint}/priv", "-I")[0] == 403


def test_a_put_needs_the_bucket_public_for_writing_and_belongs_to_the_bucket_owner(tenant, buckets):
    for bucket in ("pub", "priv"):
        status, _, body = curl(f"{tenant.endpoint}/{bucket}/upload.txt", "-X", "PUT", "--data-binary", "x")
        assert (status, code(body)) == (403, "AccessDenied"), bucket
        assert not os.path.exists(tenant.data(bucket, "upload.txt"))
    status, headers, body = curl(f"{tenant.endpoint}/drop/upload.txt", "-X", "PUT", "--data-binary", "dropped")
    assert status == 200, body
    got = buckets.get_object(Bucket="drop", Key="upload.txt")
    assert got["Body"].read() == b"dropped" and got["ETag"] == headers["etag"]
    with open(tenant.meta("drop", "upload.txt")) as f:
        record = f.read()
    assert "alice" in record, record
    # Written private: the public writer can't read it back, nor publish what it writes.
    assert curl(f"{tenant.endpoint}/drop/upload.txt")[0] == 403
    for header in ("x-amz-acl: public-read", "x-amz-acl: authenticated-read",
                   "x-amz-grant-read: uri=\"http://acs.amazonaws.com/groups/global/AllUsers\""):
        status, _, body = curl(f"{tenant.endpoint}/drop/published.txt", "-X", "PUT", "--data-binary", "p",
                               "-H", header)
        assert (status, code(body)) == (403, "AccessDenied"), header
        assert not os.path.exists(tenant.data("drop", "published.txt"))
    status, _, body = curl(f"{tenant.endpoint}/drop/handed-over.txt", "-X", "PUT", "--data-binary", "h",
                           "-H", "x-amz-acl: bucket-owner-full-control")
    assert status == 200, body
    # Only PutObject: no copy, no multipart upload, no delete.
    for args in (["-X", "PUT", "-H", "x-amz-copy-source: /pub/secret.txt"],
                 ["-X", "POST", "-d", ""],
                 ["-X", "DELETE"]):
        status, _, body = curl(f"{tenant.endpoint}/drop/upload.txt" + ("?uploads" if "POST" in args else ""), *args)
        assert (status, code(body)) == (403, "AccessDenied"), args
    assert buckets.get_object(Bucket="drop", Key="upload.txt")["Body"].read() == b"dropped"


def test_credentials_are_still_checked_and_the_blacklist_still_applies(tenant, buckets):
    url = buckets.generate_presigned_url("get_object", Params={"Bucket": "pub", "Key": "secret.txt"}, ExpiresIn=300)
    assert curl(url)[::2] == (200, b"not for you")
    bad = tenant.client(secret="wrong-secret")
    # A bad signature never falls back to a public read, even of a public object.
    assert s3_error(lambda: bad.get_object(Bucket="pub", Key="site/index.html")) == (403, "SignatureDoesNotMatch")
    forged = re.sub(r"X-Amz-Signature=[0-9a-f]+", "X-Amz-Signature=" + "0" * 64, url)
    status, _, body = curl(forged.replace("secret.txt", "site/index.html"))
    assert (status, code(body)) == (403, "SignatureDoesNotMatch")
    status, _, body = curl(f"{tenant.endpoint}/pub/site/index.html", source="127.0.0.2")
    assert (status, code(body)) == (403, "AccessDenied")
    status, _, body = curl(f"{tenant.endpoint}/pub", source="127.0.0.2")
    assert (status, code(body)) == (403, "AccessDenied")


def test_a_version_is_read_by_its_own_acl(tenant, buckets):
    s3 = buckets
    s3.create_bucket(Bucket="vers", ACL="public-read")
    tenant.set_versioning("vers", "Enabled")
    old = s3.put_object(Bucket="vers", Key="doc", Body=b"old text", ACL="public-read")["VersionId"]
    new = s3.put_object(Bucket="vers", Key="doc", Body=b"new text")["VersionId"]

    url = f"{tenant.endpoint}/vers/doc"
    assert curl(f"{url}?versionId={old}")[::2] == (200, b"old text")
    for target in (url, f"{url}?versionId={new}"):
        status, _, body = curl(target)
        assert (status, code(body)) == (403, "AccessDenied"), target
    s3.put_object_acl(Bucket="vers", Key="doc", VersionId=new, ACL="public-read")
    assert curl(url)[::2] == (200, b"new text")
    status, _, body = curl(f"{url}?versionId={old[:-1]}{'A' if old[-1] != 'A' else 'B'}")
    assert (status, code(body)) == (404, "NoSuchVersion")
    # The same missing version in a private bucket tells nothing.
    s3.put_bucket_acl(Bucket="vers", ACL="private")
    status, _, body = curl(f"{url}?versionId={old[:-1]}{'A' if old[-1] != 'A' else 'B'}")
    assert (status, code(body)) == (403, "AccessDenied")
    assert curl(f"{url}?versionId={old}")[::2] == (200, b"old text")
