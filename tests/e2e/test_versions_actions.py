"""The actions on old contents named by a stamped key "<key>..<suffix>", end to end on one daemon:

    PUT    /bkt/<stamped>?objectversion   a version made live, the live content kept as a version
    DELETE /bkt/<stamped>?objectversion   a version sent to the recycle tree
    GET    /bkt/<key>?objectversion       the live object's Object document
    PUT    /bkt/<stamped>?recycle         a recycled content made live again
    DELETE /bkt/<stamped>?recycle         a recycled content removed for good

Versions and recycled contents are made by overwrites and deletes; only a version on a bucket that never
had versioning is laid into its tree by hand. Replies whose bytes the server fixes are compared byte for
byte.
"""

import os
import random
import re
import xml.etree.ElementTree as ET

import pytest

from orbmux_harness import md5, tenant_fixture
from test_bucket_versioning import check_ok
from test_worker import check_error_reply

USER = "va-user"
BUCKET = "vbkt"
PLAIN = "plain"      # versioning never set
GUARDED = "guarded"  # an address rule grants this peer reading only

RECORD_PREFIX = ".orbs3-v-"
UNKNOWN = (b"500 Internal Server Error", b"unknown error", b"unknown error")


def guard(t):
    """The bucket GUARDED lets the peer 127.0.0.1 read and list, nothing else."""
    t.client().create_bucket(Bucket=GUARDED)
    t.grant_only(GUARDED, ["list", "read"], ["read", "list"])


tenant = tenant_fixture("va", "--user", USER, buckets=[BUCKET, PLAIN], prepare=guard)


def suffix_of(stamp):
    """A fresh name suffix for a record stamp "YYYY-MM-DDThh:mm:ss...", as the server makes them."""
    return (stamp[:19].replace("-", "_").replace("T", "_").replace(":", "_")
            + "-%06d%08x" % (random.randrange(10 ** 6), random.getrandbits(32)))


def record_of(path):
    return ET.parse(path).getroot()


def old_paths(t, tree, bucket, key, suffix):
    """The bytes and the record of `key`'s content `suffix` in the version or recycle tree."""
    base = t.version(bucket) if tree == "version" else t.recycle(bucket)
    d, name = os.path.split(os.path.join(base, key))
    return os.path.join(d, f"{name}..{suffix}"), os.path.join(d, f"{RECORD_PREFIX}{name}..{suffix}")


def retire(t, bucket, key):
    """Moves the live object `key` (bytes and record) into the version tree under a fresh name, which its
    record carries as its version id, as if it had been written with versioning enabled. Returns the id."""
    tree = ET.parse(t.meta(bucket, key))
    suffix = suffix_of(tree.getroot().get("last_modified"))
    tree.getroot().set("version_id", suffix)
    data, record = old_paths(t, "version", bucket, key, suffix)
    os.makedirs(os.path.dirname(data), exist_ok=True)
    tree.write(record, xml_declaration=True, encoding="utf-8")
    os.unlink(t.meta(bucket, key))
    os.rename(t.data(bucket, key), data)
    return suffix


def recycled(t, bucket, key, body):
    """The suffix of `key`'s content `body` in the recycle tree."""
    where = os.path.dirname(t.recycle(bucket, key))
    name = os.path.basename(key) + ".."
    found = [os.path.basename(p)[len(name):] for tree, p in t.contents(bucket).get(body, [])
             if tree == "recycle" and os.path.dirname(p) == where and os.path.basename(p).startswith(name)]
    assert len(found) == 1, found
    return found[0]


def act(t, method, bucket, stamped, word, who="user"):
    return t.one_reply(t.signed(method, f"/{bucket}/{stamped}?{word}", who=who))


def files_below(*roots):
    """Every file below the roots with its bytes: what "nothing moved" compares."""
    out = {}
    for root in roots:
        for base, _, files in os.walk(root):
            for f in files:
                with open(os.path.join(base, f), "rb") as fh:
                    out[os.path.join(base, f)] = fh.read()
    return out


def trees(t, bucket):
    return (t.data(bucket), t.meta(bucket), t.version(bucket), t.recycle(bucket))


def test_restore_swaps_back_and_forth_with_each_content_its_own_record(tenant):
    s3 = tenant.client()
    tenant.set_versioning(BUCKET, "Enabled")
    key = "docs/a..b/report"
    # The old content: assembled from two parts (its ETag ends in "-2"), with its own headers and metadata.
    up = s3.create_multipart_upload(Bucket=BUCKET, Key=key, ContentType="text/csv", Metadata={"color": "red"})
    part1, part2 = os.urandom(5 << 20), b"tail"
    etags = [s3.upload_part(Bucket=BUCKET, Key=key, UploadId=up["UploadId"], PartNumber=n, Body=body)["ETag"]
             for n, body in ((1, part1), (2, part2))]
    s3.complete_multipart_upload(Bucket=BUCKET, Key=key, UploadId=up["UploadId"],
                                 MultipartUpload={"Parts": [{"PartNumber": n + 1, "ETag": e}
                                                            for n, e in enumerate(etags)]})
    old_head = s3.head_object(Bucket=BUCKET, Key=key)
    assert old_head["ETag"].endswith('-2"')
    old_id = old_head["VersionId"]
    # Written while suspended, so that the content the restore displaces has the id "null".
    tenant.set_versioning(BUCKET, "Suspended")
    s3.put_object(Bucket=BUCKET, Key=key, Body=b"the new text", ContentType="text/plain")
    new_etag = s3.head_object(Bucket=BUCKET, Key=key)["ETag"]
    count = tenant.bucket_stat(BUCKET)[0]
    tenant.set_versioning(BUCKET, "Enabled")

    check_ok(act(tenant, "PUT", BUCKET, f"{key}..{old_id}", "objectversion"), etag=True)
    got = s3.get_object(Bucket=BUCKET, Key=key)
    assert got["Body"].read() == part1 + part2
    assert (got["ETag"], got["ContentType"], got["Metadata"]) == (old_head["ETag"], "text/csv", {"color": "red"})
    assert got["LastModified"] == old_head["LastModified"]
    assert record_of(tenant.meta(BUCKET, key)).get("version_id") == old_id
    # The displaced "null" content is a version under a fresh name of its own stamp, its record with it.
    d = os.path.dirname(tenant.version(BUCKET, key))
    names = sorted(os.listdir(d))
    assert len(names) == 2 and names[0].startswith(RECORD_PREFIX + "report..")
    new_suffix = names[1][len("report.."):]
    with open(os.path.join(d, names[1]), "rb") as f:
        assert f.read() == b"the new text"
    assert record_of(os.path.join(d, names[0])).get("version_id") is None

    check_ok(act(tenant, "PUT", BUCKET, f"{key}..{new_suffix}", "objectversion"), etag=True)
    got = s3.get_object(Bucket=BUCKET, Key=key)
    assert (got["Body"].read(), got["ETag"], got["ContentType"]) == (b"the new text", new_etag, "text/plain")
    assert sorted(os.listdir(d)) == sorted([f"report..{old_id}", f"{RECORD_PREFIX}report..{old_id}"])
    assert tenant.bucket_stat(BUCKET)[0] == count


def test_restore_on_a_bucket_never_versioned_answers_success_and_moves_nothing(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=PLAIN, Key="k", Body=b"old")
    old_id = retire(tenant, PLAIN, "k")
    s3.put_object(Bucket=PLAIN, Key="k", Body=b"live")
    before = files_below(*trees(tenant, PLAIN))
    check_ok(act(tenant, "PUT", PLAIN, f"k..{old_id}", "objectversion"), etag=True)
    assert files_below(*trees(tenant, PLAIN)) == before
    assert s3.get_object(Bucket=PLAIN, Key="k")["Body"].read() == b"live"


def test_errors_of_the_actions(tenant):
    s3 = tenant.client()
    tenant.set_versioning(BUCKET, "Enabled")
    old_id = s3.put_object(Bucket=BUCKET, Key="e", Body=b"old")["VersionId"]
    s3.put_object(Bucket=BUCKET, Key="e", Body=b"live")
    before = files_below(*trees(tenant, BUCKET))
    cases = [
        # A stamp of five numbers, a name without a stamp, a version that is not there: unknown errors.
        ("PUT", BUCKET, "e..2026_11_24_18_00", "objectversion", UNKNOWN, f"{BUCKET}/e..2026_11_24_18_00"),
        ("PUT", BUCKET, "e", "objectversion", UNKNOWN, f"{BUCKET}/e"),
        ("PUT", BUCKET, "e..2026_11_24_18_00_01-000000deadbeef", "objectversion", UNKNOWN,
         f"{BUCKET}/e..2026_11_24_18_00_01-000000deadbeef"),
        ("PUT", BUCKET, "e..2026_11_24_18_00_01-000000deadbeef", "recycle", UNKNOWN,
         f"{BUCKET}/e..2026_11_24_18_00_01-000000deadbeef"),
        ("DELETE", BUCKET, "e..2026_11_24_18_00_01-000000deadbeef", "objectversion", UNKNOWN,
         f"{BUCKET}/e..2026_11_24_18_00_01-000000deadbeef"),
        ("GET", BUCKET, "nothing", "objectversion", UNKNOWN, f"{BUCKET}/nothing"),
        # No key to restore; a name no bucket can have; no such bucket.
        ("PUT", BUCKET, "", "recycle", (b"400 Bad Request", b"InvalidArgument", None), BUCKET),
        ("PUT", "b" * 200, f"e..{old_id}", "objectversion", (b"400 Bad Request", b"InvalidBucketName", None), ""),
        ("DELETE", "b" * 200, "", "recycle", (b"400 Bad Request", b"InvalidBucketName", None), ""),
        ("PUT", "nobucket", f"e..{old_id}", "objectversion",
         (b"404 Not Found", b"NoSuchBucket", b"The specified bucket does not exist."), f"nobucket/e..{old_id}"),
    ]
    for method, bucket, stamped, word, (status, code, message), resource in cases:
        path = f"/{bucket}/{stamped}?{word}" if stamped else f"/{bucket}?{word}"
        got = tenant.one_reply(tenant.signed(method, path))
        if message is None:
            assert got.startswith(b"HTTP/1.1 " + status) and b"<Code>" + code + b"</Code>" in got, (path, got)
        else:
            check_error_reply(got, status, code, message, resource.encode())
    # Stamped keys that climb out of the bucket or name the server's files are refused and opened never.
    for stamped in (f"../e..{old_id}", f"x/../../e..{old_id}", f".orbs3-v-e..{old_id}", f"../../{PLAIN}/k..{old_id}"):
        for method, word in (("PUT", "objectversion"), ("DELETE", "objectversion"), ("PUT", "recycle"),
                             ("DELETE", "recycle"), ("GET", "objectversion")):
            status, body = tenant.request(method, f"/{BUCKET}/{stamped}?{word}")
            # The request parser refuses a path above the root itself; the rest reach the key check.
            assert status == 400, (method, stamped, body)
            assert b"<Code>" not in body or re.search(rb"<Code>Invalid(Argument|BucketName)</Code>", body), \
                (method, stamped, body)
    assert files_below(*trees(tenant, BUCKET)) == before


def test_object_version_document_tells_of_the_live_object_by_its_key(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="dir/info", Body=b"12345")
    stamp = record_of(tenant.meta(BUCKET, "dir/info")).get("last_modified")
    got = act(tenant, "GET", BUCKET, "dir/info", "objectversion")
    check_ok(got, b'<?xml version="1.0" encoding="utf-8"?><Object><Name>dir/info</Name><Path>dir/info</Path>'
             b"<Size>5</Size><Date>" + stamp.encode() + b"</Date></Object>\n")
    assert tenant.root.encode() not in got


def test_delete_version_moves_it_to_the_recycle_tree_under_its_name(tenant):
    s3 = tenant.client()
    tenant.set_versioning(BUCKET, "Enabled")
    vid = s3.put_object(Bucket=BUCKET, Key="gone/v", Body=b"version bytes")["VersionId"]
    s3.put_object(Bucket=BUCKET, Key="gone/v", Body=b"live bytes")
    check_ok(act(tenant, "DELETE", BUCKET, f"gone/v..{vid}", "objectversion"), etag=True)
    data, record = old_paths(tenant, "recycle", BUCKET, "gone/v", vid)
    with open(data, "rb") as f:
        assert f.read() == b"version bytes"
    assert record_of(record).get("version_id") == vid
    assert not any(n.endswith(vid) for n in os.listdir(os.path.dirname(tenant.version(BUCKET, "gone/v"))))
    got = act(tenant, "DELETE", BUCKET, f"gone/v..{vid}", "objectversion")
    check_error_reply(got, *UNKNOWN, f"{BUCKET}/gone/v..{vid}".encode())


@pytest.mark.parametrize("status, displaced_to", [("SUSPENDED", "recycle"), ("ENABLED", "version")])
def test_recycle_restore_puts_the_live_content_by_the_setting(tenant, status, displaced_to):
    s3 = tenant.client()
    # Two contents of the key deleted while suspended: recycled, with no marker left.
    tenant.set_versioning(BUCKET, "Suspended")
    key = f"rr-{status.lower()}"
    for body in (b"older", b"deleted one"):
        s3.put_object(Bucket=BUCKET, Key=key, Body=body, Metadata={"was": "deleted"})
        s3.delete_object(Bucket=BUCKET, Key=key)
    older, gone = recycled(tenant, BUCKET, key, b"older"), recycled(tenant, BUCKET, key, b"deleted one")
    tenant.set_versioning(BUCKET, status)
    # Back to a key without live object: it counts in again.
    count, size = tenant.bucket_stat(BUCKET)
    check_ok(act(tenant, "PUT", BUCKET, f"{key}..{gone}", "recycle"), etag=True)
    got = s3.get_object(Bucket=BUCKET, Key=key)
    assert (got["Body"].read(), got["Metadata"], got["ETag"]) == (b"deleted one", {"was": "deleted"},
                                                                  f'"{md5(b"deleted one")}"')
    assert tenant.bucket_stat(BUCKET) == (count + 1, size + len(b"deleted one"))
    assert not os.path.exists(old_paths(tenant, "recycle", BUCKET, key, gone)[0])

    # Over a live object: the live content leaves under its own name, with its record.
    s3.put_object(Bucket=BUCKET, Key=key, Body=b"live one")
    live_stamp = record_of(tenant.meta(BUCKET, key)).get("last_modified")
    count = tenant.bucket_stat(BUCKET)[0]
    check_ok(act(tenant, "PUT", BUCKET, f"{key}..{older}", "recycle"), etag=True)
    assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == b"older"
    base = tenant.recycle(BUCKET) if displaced_to == "recycle" else tenant.version(BUCKET)
    def holds(name, content):
        with open(os.path.join(base, name), "rb") as f:
            return f.read() == content
    # With versioning enabled the PUT of "live one" kept "deleted one" as a version too.
    kept = [n for n in os.listdir(base) if n.startswith(key + "..") and holds(n, b"live one")]
    assert len(kept) == 1 and kept[0].startswith(f"{key}..{suffix_of(live_stamp)[:19]}-"), kept
    assert os.path.exists(os.path.join(base, RECORD_PREFIX + kept[0]))
    assert tenant.bucket_stat(BUCKET)[0] == count, "a replaced object counts once"
    s3.delete_object(Bucket=BUCKET, Key=key)


def test_purge_removes_for_good_and_only_what_it_names(tenant):
    s3 = tenant.client()
    tenant.set_versioning(BUCKET, "Suspended")
    for body in (b"purge me", b"stays"):
        s3.put_object(Bucket=BUCKET, Key="p/x", Body=body)
        s3.delete_object(Bucket=BUCKET, Key="p/x")
    gone, stays = recycled(tenant, BUCKET, "p/x", b"purge me"), recycled(tenant, BUCKET, "p/x", b"stays")
    check_ok(act(tenant, "DELETE", BUCKET, f"p/x..{gone}", "recycle"))
    assert not any(os.path.exists(p) for p in old_paths(tenant, "recycle", BUCKET, "p/x", gone))
    assert all(os.path.exists(p) for p in old_paths(tenant, "recycle", BUCKET, "p/x", stays))
    # A name that is not there, and the bucket itself: success, nothing removed.
    before = files_below(*trees(tenant, BUCKET))
    check_ok(act(tenant, "DELETE", BUCKET, f"p/x..{gone}", "recycle"))
    check_ok(tenant.one_reply(tenant.signed("DELETE", f"/{BUCKET}?recycle")))
    assert files_below(*trees(tenant, BUCKET)) == before


def test_a_user_the_rules_let_only_read_cannot_restore_move_or_purge(tenant):
    s3 = tenant.client(who="admin")
    tenant.set_versioning(GUARDED, "Enabled", who="admin")
    vid = s3.put_object(Bucket=GUARDED, Key="g", Body=b"old")["VersionId"]
    rid = s3.put_object(Bucket=GUARDED, Key="g", Body=b"gone")["VersionId"]
    s3.delete_object(Bucket=GUARDED, Key="g")  # to the recycle tree under its id
    s3.put_object(Bucket=GUARDED, Key="g", Body=b"live")
    before = files_below(*trees(tenant, GUARDED))
    for method, stamped, word in (("PUT", f"g..{vid}", "objectversion"), ("DELETE", f"g..{vid}", "objectversion"),
                                  ("PUT", f"g..{rid}", "recycle"), ("DELETE", f"g..{rid}", "recycle"),
                                  ("DELETE", "", "recycle")):
        path = f"/{GUARDED}/{stamped}?{word}" if stamped else f"/{GUARDED}?{word}"
        check_error_reply(tenant.one_reply(tenant.signed(method, path)), b"403 Forbidden", b"AccessDenied",
                          b"Access Denied", b"/")
    assert files_below(*trees(tenant, GUARDED)) == before
    # Reading is granted; the administrator is above the rules.
    assert act(tenant, "GET", GUARDED, "g", "objectversion").startswith(b"HTTP/1.1 200 OK\r\n")
    check_ok(act(tenant, "PUT", GUARDED, f"g..{rid}", "recycle", who="admin"), etag=True)
    assert tenant.client().get_object(Bucket=GUARDED, Key="g")["Body"].read() == b"gone"
