"""Object tags as S3 clients set and read them: a PutObjectTagging replaces the whole set, S3's limits are
refused with InvalidTag, every version keeps its own tags, a directory object carries them too; the AWS CLI
reads what boto3 wrote, the JavaScript SDK v3 its own tags and ACLs (a public object fetched without
credentials); and tag and ACL changes racing PUTs of the same key
never leave a record that describes other bytes than the live ones. All on one daemon."""

import json
import os
import shutil
import subprocess
import threading
import time

import pytest

from orbmux_harness import SLOWDOWN, md5, run, s3_error, tenant_fixture

JS_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "js")

BUCKET = "tags"

tenant = tenant_fixture("object-tagging", "--user", "tag-user", buckets=(BUCKET,))


def tagset(pairs):
    return {"TagSet": [{"Key": k, "Value": v} for k, v in pairs]}


def tags_of(s3, key, bucket=BUCKET, **kw):
    return [(t["Key"], t["Value"]) for t in s3.get_object_tagging(Bucket=bucket, Key=key, **kw)["TagSet"]]


def test_tag_set_is_replaced_read_and_deleted(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="doc.txt", Body=b"hello")
    assert tags_of(s3, "doc.txt") == []
    assert "TagCount" not in s3.head_object(Bucket=BUCKET, Key="doc.txt")
    s3.put_object_tagging(Bucket=BUCKET, Key="doc.txt", Tagging=tagset([("a", "1"), ("b", "2")]))
    # A second put replaces the set: "a" is gone, not kept beside "c".
    s3.put_object_tagging(Bucket=BUCKET, Key="doc.txt", Tagging=tagset([("c", " three "), ("b", "")]))
    assert tags_of(s3, "doc.txt") == [("c", " three "), ("b", "")]
    # The bytes and their ETag are those of the object: a tag change rewrites the record, not the content.
    got = s3.get_object(Bucket=BUCKET, Key="doc.txt")
    assert got["Body"].read() == b"hello" and got["ETag"] == '"%s"' % md5(b"hello")
    deleted = s3.delete_object_tagging(Bucket=BUCKET, Key="doc.txt")
    assert deleted["ResponseMetadata"]["HTTPStatusCode"] == 204
    assert tags_of(s3, "doc.txt") == []
    assert s3_error(lambda: s3.get_object_tagging(Bucket=BUCKET, Key="missing")) == (404, "NoSuchKey")
    assert s3_error(lambda: s3.put_object_tagging(Bucket=BUCKET, Key="missing", Tagging=tagset([("a", "1")]))) \
        == (404, "NoSuchKey")


def test_limits_are_refused_with_invalid_tag(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="limits", Body=b"x")
    s3.put_object_tagging(Bucket=BUCKET, Key="limits", Tagging=tagset([("keep", "me")]))
    cases = [
        [(f"k{i}", "v") for i in range(11)],
        [("k", "1"), ("k", "2")],
        [("k" * 129, "v")],
        [("k", "v" * 257)],
    ]
    for pairs in cases:
        assert s3_error(lambda: s3.put_object_tagging(Bucket=BUCKET, Key="limits", Tagging=tagset(pairs))) \
            == (400, "InvalidTag"), pairs
    # The limits count characters: 128 and 256 of them are taken when each is several bytes.
    s3.put_object_tagging(Bucket=BUCKET, Key="limits", Tagging=tagset([("é" * 128, "𝄞" * 256)] +
                                                                       [(f"k{i}", "") for i in range(9)]))
    got = tags_of(s3, "limits")
    assert got[0] == ("é" * 128, "𝄞" * 256) and len(got) == 10


def test_each_version_keeps_its_own_tags(tenant):
    s3 = tenant.client()
    s3.create_bucket(Bucket="tagvers")
    s3.put_bucket_versioning(Bucket="tagvers", VersioningConfiguration={"Status": "Enabled"})
    old = s3.put_object(Bucket="tagvers", Key="k", Body=b"old")["VersionId"]
    new = s3.put_object(Bucket="tagvers", Key="k", Body=b"new")["VersionId"]
    put = s3.put_object_tagging(Bucket="tagvers", Key="k", VersionId=old, Tagging=tagset([("age", "old")]))
    assert put["VersionId"] == old
    s3.put_object_tagging(Bucket="tagvers", Key="k", Tagging=tagset([("age", "new")]))
    got = s3.get_object_tagging(Bucket="tagvers", Key="k", VersionId=old)
    assert got["VersionId"] == old and got["TagSet"] == [{"Key": "age", "Value": "old"}]
    assert tags_of(s3, "k", bucket="tagvers") == [("age", "new")]
    assert s3.get_object_tagging(Bucket="tagvers", Key="k")["VersionId"] == new
    # The old version still serves its own bytes with its own ETag after the change.
    body = s3.get_object(Bucket="tagvers", Key="k", VersionId=old)
    assert body["Body"].read() == b"old" and body["ETag"] == '"%s"' % md5(b"old")
    assert s3.delete_object_tagging(Bucket="tagvers", Key="k", VersionId=old)["VersionId"] == old
    assert tags_of(s3, "k", bucket="tagvers", VersionId=old) == []
    assert tags_of(s3, "k", bucket="tagvers") == [("age", "new")]
    marker = s3.delete_object(Bucket="tagvers", Key="k")["VersionId"]
    assert s3_error(lambda: s3.get_object_tagging(Bucket="tagvers", Key="k", VersionId=marker)) == \
        (405, "MethodNotAllowed")
    assert s3_error(lambda: s3.get_object_tagging(Bucket="tagvers", Key="k", VersionId="0" * 32))[0] in (400, 404)


def test_directory_object_carries_tags(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="dir/", Body=b"")
    s3.put_object_tagging(Bucket=BUCKET, Key="dir/", Tagging=tagset([("kind", "folder")]))
    assert tags_of(s3, "dir/") == [("kind", "folder")]
    s3.delete_object_tagging(Bucket=BUCKET, Key="dir/")
    assert tags_of(s3, "dir/") == []


def test_aws_cli_puts_and_gets_tags(tenant, tmp_path):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="cli.txt", Body=b"cli")
    env = tenant.env(str(tmp_path))
    run(tenant.aws() + ["s3api", "put-object-tagging", "--bucket", BUCKET, "--key", "cli.txt", "--tagging",
                        json.dumps(tagset([("team", "a b"), ("n", "1")]))], env)
    got = json.loads(run(tenant.aws() + ["s3api", "get-object-tagging", "--bucket", BUCKET, "--key", "cli.txt"],
                         env))
    assert got["TagSet"] == [{"Key": "team", "Value": "a b"}, {"Key": "n", "Value": "1"}]
    assert tags_of(s3, "cli.txt") == [("team", "a b"), ("n", "1")]


ALL_USERS = "http://acs.amazonaws.com/groups/global/AllUsers"
AUTH_USERS = "http://acs.amazonaws.com/groups/global/AuthenticatedUsers"


def groups_of(s3, key):
    return sorted((g["Grantee"].get("URI"), g["Permission"])
                  for g in s3.get_object_acl(Bucket=BUCKET, Key=key)["Grants"] if g["Grantee"]["Type"] == "Group")


@pytest.mark.parametrize("key", ["race.bin", "race-dir/"])
def test_tag_and_acl_changes_racing_puts_never_mix_records(tenant, key):
    """Rounds of PUTs racing tag and ACL changes of one key (an object, and a directory object, which is its
    record alone); once both stop, the live record must describe the last PUT: its ETag the MD5 of the live
    bytes, its content type that PUT's, its tags and ACL that PUT's (from x-amz-tagging and x-amz-acl) or the
    ones a change set."""
    s3 = tenant.client()
    want = [("t", "x")]
    writer_client, changer_client = tenant.client(), tenant.client()
    errors, last = [], [None]

    def writer(stop):
        i = 0
        while not stop.is_set():
            body = b"" if key.endswith("/") else os.urandom(1000 + i % 7)
            writer_client.put_object(Bucket=BUCKET, Key=key, Body=body, ContentType=f"text/x{i}", Tagging=f"w={i}",
                                     ACL="authenticated-read")
            last[0] = i
            i += 1

    def changer(stop):
        n = 0
        while not stop.is_set():
            try:
                if n % 2:
                    changer_client.put_object_acl(Bucket=BUCKET, Key=key, ACL="public-read")
                else:
                    changer_client.put_object_tagging(Bucket=BUCKET, Key=key, Tagging=tagset(want))
            except Exception as e:  # noqa: BLE001 - shown below
                errors.append(e)
            n += 1

    s3.put_object(Bucket=BUCKET, Key=key, Body=b"")
    for _ in range(10):
        stop = threading.Event()
        threads = [threading.Thread(target=writer, args=(stop,)), threading.Thread(target=changer, args=(stop,))]
        for th in threads:
            th.start()
        time.sleep(0.25)
        stop.set()
        for th in threads:
            th.join()
        got = s3.get_object(Bucket=BUCKET, Key=key)
        assert got["ETag"] == '"%s"' % md5(got["Body"].read())
        assert got["ContentType"] == f"text/x{last[0]}"
        assert tags_of(s3, key) in ([("w", str(last[0]))], want)
        assert groups_of(s3, key) in ([(AUTH_USERS, "READ")], [(ALL_USERS, "READ")])
    assert not errors, errors[:3]


def test_writes_take_tags_from_the_tagging_header(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="hdr.txt", Body=b"h", Tagging="a=1&b%3Dc=x%20y")
    assert tags_of(s3, "hdr.txt") == [("a", "1"), ("b=c", "x y")]
    assert s3.head_object(Bucket=BUCKET, Key="hdr.txt")["ResponseMetadata"]["HTTPHeaders"]["x-amz-tagging-count"] \
        == "2"
    assert s3.get_object(Bucket=BUCKET, Key="hdr.txt")["TagCount"] == 2
    too_many = "&".join(f"k{i}=v" for i in range(11))
    for bad in (too_many, "k=1&k=2", "k=%zz", "k=" + "v" * 257):
        assert s3_error(lambda: s3.put_object(Bucket=BUCKET, Key="bad.txt", Body=b"b", Tagging=bad)) \
            == (400, "InvalidTag"), bad
    # A later PUT of the key replaces the object and its tags.
    s3.put_object(Bucket=BUCKET, Key="hdr.txt", Body=b"h2")
    assert tags_of(s3, "hdr.txt") == []
    assert "x-amz-tagging-count" not in s3.head_object(Bucket=BUCKET, Key="hdr.txt")["ResponseMetadata"]["HTTPHeaders"]
    s3.put_object(Bucket=BUCKET, Key="tagged-dir/", Body=b"", Tagging="d=1")
    assert tags_of(s3, "tagged-dir/") == [("d", "1")]

    # A copy takes the source's tags, or with REPLACE the request's (none without the header).
    s3.put_object(Bucket=BUCKET, Key="src.txt", Body=b"s", Tagging="from=source")
    src = {"Bucket": BUCKET, "Key": "src.txt"}
    s3.copy_object(Bucket=BUCKET, Key="copy1", CopySource=src)
    assert tags_of(s3, "copy1") == [("from", "source")]
    s3.copy_object(Bucket=BUCKET, Key="copy2", CopySource=src, Tagging="from=request", TaggingDirective="COPY")
    assert tags_of(s3, "copy2") == [("from", "source")]
    s3.copy_object(Bucket=BUCKET, Key="copy3", CopySource=src, Tagging="from=request", TaggingDirective="REPLACE")
    assert tags_of(s3, "copy3") == [("from", "request")]
    s3.copy_object(Bucket=BUCKET, Key="copy4", CopySource=src, TaggingDirective="REPLACE")
    assert tags_of(s3, "copy4") == []
    # The metadata directive does not decide the tags.
    s3.copy_object(Bucket=BUCKET, Key="copy5", CopySource=src, MetadataDirective="REPLACE")
    assert tags_of(s3, "copy5") == [("from", "source")]
    assert s3_error(lambda: s3.copy_object(Bucket=BUCKET, Key="copy6", CopySource=src, Tagging=too_many,
                                           TaggingDirective="REPLACE")) == (400, "InvalidTag")

    # A multipart upload keeps the tags of its Create for the object Complete makes.
    up = s3.create_multipart_upload(Bucket=BUCKET, Key="mp.bin", Tagging="part=whole&n=2")["UploadId"]
    etag = s3.upload_part(Bucket=BUCKET, Key="mp.bin", UploadId=up, PartNumber=1, Body=b"m" * 100)["ETag"]
    s3.complete_multipart_upload(Bucket=BUCKET, Key="mp.bin", UploadId=up,
                                 MultipartUpload={"Parts": [{"PartNumber": 1, "ETag": etag}]})
    assert tags_of(s3, "mp.bin") == [("part", "whole"), ("n", "2")]
    assert s3_error(lambda: s3.create_multipart_upload(Bucket=BUCKET, Key="mp2.bin", Tagging="k=1&k=2")) \
        == (400, "InvalidTag")


def test_js_sdk_tags_and_acls(tenant):
    node = shutil.which("node")
    assert node, "node is missing: run scripts/install-deps.sh"
    assert os.path.isdir(os.path.join(JS_DIR, "node_modules", "@aws-sdk", "client-s3")), \
        "the SDK is missing from tests/js: run scripts/install-deps.sh"
    env = {**tenant.env(os.path.join(tenant.box.path("."), "js-home")),
           "ORBMUX_ENDPOINT": tenant.endpoint, "ORBMUX_BUCKET": "jstags"}
    out = subprocess.run([node, os.path.join(JS_DIR, "s3_acl_tagging.mjs")], env=env, capture_output=True, text=True,
                         timeout=120 * SLOWDOWN)
    assert out.returncode == 0, (out.stdout, out.stderr)
    rep = json.loads(out.stdout)
    put = rep["put_with_header"]
    assert put["ok"], put
    ids = put["ids"]
    assert len(set(ids)) == 2 and None not in ids
    assert put["count"] == 2 and put["old"] == [["gen", "1"], ["team", "a b"]] and put["live"] == [["gen", "2"]]
    assert rep["replace"] == {"ok": True, "live": [["only", "this"]], "old": [["gen", "1"], ["team", "a b"]]}
    assert rep["delete_version_tags"] == {"ok": True, "version": ids[0], "old": [], "live": [["only", "this"]]}
    assert rep["too_many"]["ok"] is False and rep["too_many"]["status"] == 400 and \
        rep["too_many"]["error"] == "InvalidTag"
    obj = rep["object_acl"]
    assert obj["ok"], obj
    owner = obj["owner"]
    assert obj["canned"] == [["CanonicalUser", owner, "FULL_CONTROL"], ["Group", ALL_USERS, "READ"]]
    assert obj["open"] == {"status": 200, "body": "open to all"}
    assert obj["granted"] == [["CanonicalUser", owner, "FULL_CONTROL"], ["Group", AUTH_USERS, "READ"]]
    assert obj["closed"] == 403
    assert rep["bucket_acl"] == {"ok": True, "owner": owner, "listing": 200, "closed": 403,
                                 "grants": [["CanonicalUser", owner, "FULL_CONTROL"], ["Group", ALL_USERS, "READ"]]}
