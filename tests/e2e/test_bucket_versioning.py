"""The bucket settings of old contents end to end: PutBucketVersioning/GetBucketVersioning (S3's document
with our SaveNum) and PutBucketRecycleConf/GetBucketRecycleConf, sent raw and compared byte for byte, then
driven by boto3; the setting lands in the bucket record, and each action needs its own permission of the
bucket's authority list. One daemon serves the module.
"""

import os
import re
import time
import xml.etree.ElementTree as ET

import pytest

from orbmux_harness import s3_error, tenant_fixture
from test_worker import DATE, check_error_reply

USER = "vc-user"
ADMIN = "admin"

AGED = "recy-aged"
YOUNG_CONTENT = "k..2026_01_02_03_04_05-000001abcdef01"


def prepare(t):
    """A bucket with a recycle bound, its recycle tree holding a content that entered it just now and an
    empty directory idle for an hour, before the worker's first recycle pass (a minute after start)."""
    t.client().create_bucket(Bucket=AGED)
    assert t.one_reply(t.signed("PUT", f"/{AGED}?bucketrecycleconf",
                                b"<RecycleConf><Days>1</Days></RecycleConf>")).startswith(b"HTTP/1.1 200 OK")
    root = t.recycle(AGED)
    os.makedirs(os.path.join(root, "d", "idle"))
    with open(os.path.join(root, "d", YOUNG_CONTENT), "w") as f:
        f.write("young")
    hour_ago = time.time() - 3600
    os.utime(os.path.join(root, "d", "idle"), (hour_ago, hour_ago))


tenant = tenant_fixture("vc", "--user", USER, prepare=prepare)

S3_DECL = b'<?xml version="1.0" encoding="UTF-8"?>\n'
VC_OPEN = b'<VersioningConfiguration xmlns="http://s3.amazonaws.com/doc/2006-03-01/"'
NEVER_SET = S3_DECL + VC_OPEN + b"/>"
MALFORMED = (b"400 Bad Request", b"MalformedXML",
             b"The XML you provided was not well-formed or did not validate against our published schema.")
NO_BODY = (b"400 Bad Request", b"MissingRequestBodyError", b"Request body is empty.")


def versioning_doc(status, save_num=None):
    body = b"<VersioningConfiguration><Status>" + status + b"</Status>"
    if save_num is not None:
        body += b"<SaveNum>" + save_num + b"</SaveNum>"
    return body + b"</VersioningConfiguration>"


def call(t, method, path, body=b"", who="user"):
    return t.one_reply(t.signed(method, path, body, who=who))


def check_ok(got, doc=None, etag=False):
    """Asserts the exact 200 of a settings or stamped-key action: without a document (an empty Etag line
    where the action moved a content) or with its XML document."""
    m = DATE.search(got)
    assert m, got
    want = (b"HTTP/1.1 200 OK\r\nDate: " + m.group(1) + b"\r\n" + (b"Etag: \r\n" if etag else b"")
            + b"Connection: keep-alive\r\nContent-Length:")
    if doc is None:
        want += b"0\r\nServer: KELVANE\r\n\r\n"
    else:
        want += str(len(doc)).encode() + b"\r\nServer: KELVANE\r\nContent-Type: text/xml\r\n\r\n" + doc
    assert got == want, f"\n got {got!r}\nwant {want!r}"


def record(t, bucket):
    return ET.parse(os.path.join(t.root, "meta", USER, "bucket", bucket)).getroot()


def test_versioning_setting_byte_for_byte(tenant):
    tenant.client().create_bucket(Bucket="vers-raw")
    path = "/vers-raw?versioning"
    version_dir = os.path.join(tenant.root, "version", USER, "vers-raw")
    check_ok(call(tenant, "GET", path), NEVER_SET)
    # (body sent, document GET answers afterwards, record's status and num)
    steps = [
        (versioning_doc(b"Enabled"), b"<Status>Enabled</Status><SaveNum>10</SaveNum>", "ENABLED", "10"),
        # Suspended with SaveNum 0 must not read as never set: it is stored as -1, which means the same.
        (versioning_doc(b" suspended ", b"0"), b"<Status>Suspended</Status>", "SUSPENDED", "-1"),
        (versioning_doc(b"Enabled", b"0"), b"<Status>Enabled</Status>", "ENABLED", "0"),
        (versioning_doc(b"ENABLED", b"3"), b"<Status>Enabled</Status><SaveNum>3</SaveNum>", "ENABLED", "3"),
        (versioning_doc(b"Enabled", b"-1"), b"<Status>Enabled</Status>", "ENABLED", "-1"),
        (versioning_doc(b"Suspended"), b"<Status>Suspended</Status><SaveNum>10</SaveNum>", "SUSPENDED", "10"),
    ]
    for body, shown, status, num in steps:
        check_ok(call(tenant, "PUT", path, body))
        check_ok(call(tenant, "GET", path), S3_DECL + VC_OPEN + b">" + shown + b"</VersioningConfiguration>")
        ver = record(tenant, "vers-raw").find("version")
        assert (ver.get("status"), ver.get("num")) == (status, num), body
        assert os.path.isdir(version_dir)

    # Refused bodies leave the setting as it was.
    for body, error in [(versioning_doc(b"bogus"), MALFORMED), (versioning_doc(b"Enabled", b"ten"), MALFORMED),
                        (b"<VersioningConfiguration/>", MALFORMED), (b"<Status>Enabled</Status>", MALFORMED),
                        (b"<VersioningConfiguration><Status>Enabled", MALFORMED), (b"", NO_BODY)]:
        check_error_reply(call(tenant, "PUT", path, body), *error, b"vers-raw")
    check_ok(call(tenant, "GET", path),
             S3_DECL + VC_OPEN + b"><Status>Suspended</Status><SaveNum>10</SaveNum></VersioningConfiguration>")
    check_error_reply(call(tenant, "GET", "/vers-none?versioning"), b"404 Not Found", b"NoSuchBucket",
                      b"The specified bucket does not exist.", b"vers-none")
    check_error_reply(call(tenant, "PUT", "/vers-none?versioning", versioning_doc(b"Enabled")), b"404 Not Found",
                      b"NoSuchBucket", b"The specified bucket does not exist.", b"vers-none")


def test_suspending_moves_nothing_and_enabling_makes_the_version_tree(tenant):
    s3 = tenant.client()
    s3.create_bucket(Bucket="vers-keep")
    version_dir = os.path.join(tenant.root, "version", USER, "vers-keep")
    os.rmdir(version_dir)
    s3.put_bucket_versioning(Bucket="vers-keep", VersioningConfiguration={"Status": "Enabled"})
    assert os.path.isdir(version_dir)
    # An old content as the write path leaves it: its bytes and its record.
    old = {"k..2026_01_02_03_04_05-000001abcdef01": b"old bytes",
           ".orbs3-v-k..2026_01_02_03_04_05-000001abcdef01": b"<object/>"}
    for name, data in old.items():
        with open(os.path.join(version_dir, name), "wb") as f:
            f.write(data)
    s3.put_bucket_versioning(Bucket="vers-keep", VersioningConfiguration={"Status": "Suspended"})
    for name, data in old.items():
        with open(os.path.join(version_dir, name), "rb") as f:
            assert f.read() == data
    assert sorted(os.listdir(version_dir)) == sorted(old)


def test_boto3_drives_the_setting(tenant):
    s3 = tenant.client()
    s3.create_bucket(Bucket="vers-boto")
    got = s3.get_bucket_versioning(Bucket="vers-boto")
    assert "Status" not in got and "MFADelete" not in got
    for status in ("Enabled", "Suspended", "Enabled"):
        s3.put_bucket_versioning(Bucket="vers-boto", VersioningConfiguration={"Status": status})
        assert s3.get_bucket_versioning(Bucket="vers-boto")["Status"] == status
    assert s3_error(lambda: s3.put_bucket_versioning(
        Bucket="vers-boto", VersioningConfiguration={"Status": "Paused"})) == (400, "MalformedXML")
    assert s3.get_bucket_versioning(Bucket="vers-boto")["Status"] == "Enabled"
    assert s3_error(lambda: s3.get_bucket_versioning(Bucket="vers-absent")) == (404, "NoSuchBucket")


def test_recycle_conf_byte_for_byte(tenant):
    tenant.client().create_bucket(Bucket="recy-conf")
    path = "/recy-conf?bucketrecycleconf"

    def conf(days):
        return b'<?xml version="1.0" encoding="utf-8"?>\n<RecycleConf>\n\r<Days>' + days + b"</Days>\n</RecycleConf>\n"

    check_ok(call(tenant, "GET", path), conf(b"0"))
    for body, days in [(b"<RecycleConf><Days>7</Days></RecycleConf>", b"7"), (b"<RecycleConf/>", b"0"),
                       (b"<RecycleConf><Days> 30 </Days></RecycleConf>", b"30")]:
        check_ok(call(tenant, "PUT", path, body))
        check_ok(call(tenant, "GET", path), conf(days))
        assert record(tenant, "recy-conf").get("recycle_days") == days.decode()
    for body, error in [(b"<RecycleConf><Days>-1</Days></RecycleConf>", MALFORMED),
                        (b"<RecycleConf><Days>week</Days></RecycleConf>", MALFORMED),
                        (b"<Days>3</Days>", MALFORMED), (b"", NO_BODY)]:
        check_error_reply(call(tenant, "PUT", path, body), *error, b"recy-conf")
    check_ok(call(tenant, "GET", path), conf(b"30"))


@pytest.mark.parametrize("granted, versioning_ok, recycle_ok", [
    (("list",), False, False),
    (("version",), True, False),
    (("recycle",), False, True),
    (("quota",), False, False),
])
def test_each_setting_needs_its_permission(tenant, granted, versioning_ok, recycle_ok):
    bucket = "guard-" + granted[0]
    tenant.client().create_bucket(Bucket=bucket)
    tenant.grant_only(bucket, granted)
    denied = (b"403 Forbidden", b"AccessDenied", b"Access Denied", b"/")
    for path, body, allowed in [(f"/{bucket}?versioning", versioning_doc(b"Enabled"), versioning_ok),
                                (f"/{bucket}?bucketrecycleconf", b"<RecycleConf><Days>5</Days></RecycleConf>",
                                 recycle_ok)]:
        for method, sent in (("PUT", body), ("GET", b"")):
            got = call(tenant, method, path, sent)
            if allowed:
                assert got.startswith(b"HTTP/1.1 200 OK\r\n"), got
            else:
                check_error_reply(got, *denied)
            # The administrator is above the rules.
            assert call(tenant, method, path, sent, who=ADMIN).startswith(b"HTTP/1.1 200 OK\r\n")
    rec = record(tenant, bucket)
    assert rec.find("version").get("status") == "ENABLED"
    assert rec.get("recycle_days") == "5"


def test_worker_pass_keeps_the_recycle_bound(tenant):
    """The worker's first pass, a minute after start, walks the bucket with a bound: it keeps what entered
    the tree within the bound, removes the directory that stood empty and idle, never the tree's root,
    and tells at info level what it did."""
    tenant.daemon.wait_log(r"INFO, recycle pass: \d+ buckets with an age bound", timeout=90)
    log = tenant.daemon.log()
    assert re.search(rf"INFO, recycle bin of bucket {AGED}: 0 contents \(0 bytes\) older than 1 days removed, "
                     r"1 empty directories, 0 failures", log), log
    assert re.search(r"INFO, recycle pass: \d+ buckets with an age bound, 0 contents \(0 bytes\) removed, "
                     r"1 empty directories, 0 failures", log), log
    root = tenant.recycle(AGED)
    assert sorted(os.listdir(root)) == ["d"]
    assert os.listdir(os.path.join(root, "d")) == [YOUNG_CONTENT]
