"""The actions on old contents named by a stamped key "<key>..<suffix>", end to end on one daemon:

    PUT    /bkt/<stamped>?objectversion   a version made live, the live content kept as a version
    DELETE /bkt/<stamped>?objectversion   a version sent to the recycle tree
    GET    /bkt/<key>?objectversion       the live object's Object document
    PUT    /bkt/<stamped>?recycle         a recycled content made live again
    DELETE /bkt/<stamped>?recycle         a recycled content removed for good

Versions and recycled contents are made here by moving an object's files (bytes and record) into the
tenant's version and recycle trees, as the server lays them out, and the versioning setting by editing the
bucket's record. Replies whose bytes the server fixes are compared byte for byte.
"""

import os
import random
import re
import xml.etree.ElementTree as ET

import pytest

from orbmux_harness import md5, s3_error, tenant_fixture
from test_worker import DATE, check_error_reply

USER = "va-user"
BUCKET = "vbkt"
PLAIN = "plain"      # versioning never set
GUARDED = "guarded"  # an address rule grants this peer reading only

RECORD_PREFIX = ".orbs3-v-"
UNKNOWN = (b"500 Internal Server Error", b"unknown error", b"unknown error")


def set_versioning(t, bucket, status, num=10):
    path = t.bucket_record(bucket)
    tree = ET.parse(path)
    ver = tree.getroot().find("version")
    if ver is None:
        ver = ET.SubElement(tree.getroot(), "version")
    ver.set("status", status)
    ver.set("num", str(num))
    tree.write(path + ".new", xml_declaration=True, encoding="utf-8")
    os.rename(path + ".new", path)


def guard(t):
    """The bucket GUARDED lets the peer 127.0.0.1 read and list, nothing else."""
    t.client().create_bucket(Bucket=GUARDED)
    path = t.bucket_record(GUARDED)
    tree = ET.parse(path)
    root = tree.getroot()
    root.set("authaddr_status", "start")
    rules = root.find("authaddr_list")
    if rules is None:
        rules = ET.SubElement(root, "authaddr_list")
    rule = ET.SubElement(rules, "rule", id="r1", status="start")
    ET.SubElement(rule, "addrs", addr="127.0.0.1", mask="32")
    ET.SubElement(rule, "bucket", list="yes", read="yes")
    ET.SubElement(rule, "object", read="yes", list="yes")
    tree.write(path + ".new", xml_declaration=True, encoding="utf-8")
    os.rename(path + ".new", path)


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


def retire(t, tree, bucket, key, real_id=True):
    """Moves the live object `key` (bytes and record) into `tree` under a fresh name; with `real_id` the
    record carries that name as its version id, as a content written with versioning enabled does.
    Returns the suffix."""
    rec = record_of(t.meta(bucket, key))
    suffix = suffix_of(rec.get("last_modified"))
    data, record = old_paths(t, tree, bucket, key, suffix)
    os.makedirs(os.path.dirname(data), exist_ok=True)
    tree_ = ET.parse(t.meta(bucket, key))
    if real_id:
        tree_.getroot().set("version_id", suffix)
    tree_.write(record, xml_declaration=True, encoding="utf-8")
    os.unlink(t.meta(bucket, key))
    os.rename(t.data(bucket, key), data)
    return suffix


def act(t, method, bucket, stamped, word, who="user"):
    return t.one_reply(t.signed(method, f"/{bucket}/{stamped}?{word}", who=who))


def check_done(got, etag_line=True):
    """The bytes of a successful action without a document."""
    m = DATE.search(got)
    assert m, got
    want = b"HTTP/1.1 200 OK\r\nDate: " + m.group(1) + b"\r\n"
    if etag_line:
        want += b"Etag: \r\nConnection: keep-alive\r\nContent-Length:0\r\nServer: KELVANE\r\n\r\n"
    else:
        want += b"Connection: keep-alive\r\nContent-Length:0\r\nServer: KELVANE\r\n\r\n"
    assert got == want, f"\n got {got!r}\nwant {want!r}"


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


def bucket_stat(t, bucket):
    st = record_of(t.bucket_record(bucket)).find("stat")
    return int(st.get("object_count", "0")), int(st.get("storage_in_bytes", "0"))


def test_restore_swaps_back_and_forth_with_each_content_its_own_record(tenant):
    s3 = tenant.client()
    # Written while suspended, so that the content the restore displaces has the id "null".
    set_versioning(tenant, BUCKET, "SUSPENDED")
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
    old_id = retire(tenant, "version", BUCKET, key)
    s3.put_object(Bucket=BUCKET, Key=key, Body=b"the new text", ContentType="text/plain")
    new_etag = s3.head_object(Bucket=BUCKET, Key=key)["ETag"]
    count = bucket_stat(tenant, BUCKET)[0]
    set_versioning(tenant, BUCKET, "ENABLED")

    check_done(act(tenant, "PUT", BUCKET, f"{key}..{old_id}", "objectversion"))
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

    check_done(act(tenant, "PUT", BUCKET, f"{key}..{new_suffix}", "objectversion"))
    got = s3.get_object(Bucket=BUCKET, Key=key)
    assert (got["Body"].read(), got["ETag"], got["ContentType"]) == (b"the new text", new_etag, "text/plain")
    assert sorted(os.listdir(d)) == sorted([f"report..{old_id}", f"{RECORD_PREFIX}report..{old_id}"])
    assert bucket_stat(tenant, BUCKET)[0] == count


def test_restore_on_a_bucket_never_versioned_answers_success_and_moves_nothing(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=PLAIN, Key="k", Body=b"old")
    old_id = retire(tenant, "version", PLAIN, "k")
    s3.put_object(Bucket=PLAIN, Key="k", Body=b"live")
    before = files_below(*trees(tenant, PLAIN))
    check_done(act(tenant, "PUT", PLAIN, f"k..{old_id}", "objectversion"))
    assert files_below(*trees(tenant, PLAIN)) == before
    assert s3.get_object(Bucket=PLAIN, Key="k")["Body"].read() == b"live"


def test_errors_of_the_actions(tenant):
    s3 = tenant.client()
    set_versioning(tenant, BUCKET, "ENABLED")
    s3.put_object(Bucket=BUCKET, Key="e", Body=b"old")
    old_id = retire(tenant, "version", BUCKET, "e")
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
    m = DATE.search(got)
    doc = (b'<?xml version="1.0" encoding="utf-8"?><Object><Name>dir/info</Name><Path>dir/info</Path>'
           b"<Size>5</Size><Date>" + stamp.encode() + b"</Date></Object>\n")
    assert got == (b"HTTP/1.1 200 OK\r\nDate: " + m.group(1) + b"\r\nConnection: keep-alive\r\nContent-Length:"
                   + str(len(doc)).encode() + b"\r\nServer: KELVANE\r\nContent-Type: text/xml\r\n\r\n" + doc), got
    assert tenant.root.encode() not in got


def test_delete_version_moves_it_to_the_recycle_tree_under_its_name(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="gone/v", Body=b"version bytes")
    vid = retire(tenant, "version", BUCKET, "gone/v")
    check_done(act(tenant, "DELETE", BUCKET, f"gone/v..{vid}", "objectversion"))
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
    set_versioning(tenant, BUCKET, status)
    key = f"rr-{status.lower()}"
    s3.put_object(Bucket=BUCKET, Key=key, Body=b"deleted one", Metadata={"was": "deleted"})
    gone = retire(tenant, "recycle", BUCKET, key, real_id=False)
    # Back to a key without live object: it counts in again.
    count, size = bucket_stat(tenant, BUCKET)
    check_done(act(tenant, "PUT", BUCKET, f"{key}..{gone}", "recycle"))
    got = s3.get_object(Bucket=BUCKET, Key=key)
    assert (got["Body"].read(), got["Metadata"], got["ETag"]) == (b"deleted one", {"was": "deleted"},
                                                                  f'"{md5(b"deleted one")}"')
    assert bucket_stat(tenant, BUCKET) == (count + 1, size + len(b"deleted one"))
    assert not os.path.exists(old_paths(tenant, "recycle", BUCKET, key, gone)[0])

    # Over a live object: the live content leaves under its own name, with its record.
    s3.put_object(Bucket=BUCKET, Key=key, Body=b"live one")
    live_stamp = record_of(tenant.meta(BUCKET, key)).get("last_modified")
    s3.put_object(Bucket=BUCKET, Key="tmp-" + key, Body=b"older")
    older = retire(tenant, "recycle", BUCKET, "tmp-" + key, real_id=False)
    data, record = old_paths(tenant, "recycle", BUCKET, key, older)
    os.rename(old_paths(tenant, "recycle", BUCKET, "tmp-" + key, older)[0], data)
    os.rename(old_paths(tenant, "recycle", BUCKET, "tmp-" + key, older)[1], record)
    count = bucket_stat(tenant, BUCKET)[0]
    check_done(act(tenant, "PUT", BUCKET, f"{key}..{older}", "recycle"))
    assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == b"older"
    base = tenant.recycle(BUCKET) if displaced_to == "recycle" else tenant.version(BUCKET)
    def holds(name, content):
        with open(os.path.join(base, name), "rb") as f:
            return f.read() == content
    # With versioning enabled the PUT of "live one" kept "deleted one" as a version too.
    kept = [n for n in os.listdir(base) if n.startswith(key + "..") and holds(n, b"live one")]
    assert len(kept) == 1 and kept[0].startswith(f"{key}..{suffix_of(live_stamp)[:19]}-"), kept
    assert os.path.exists(os.path.join(base, RECORD_PREFIX + kept[0]))
    assert bucket_stat(tenant, BUCKET)[0] == count, "a replaced object counts once"
    s3.delete_object(Bucket=BUCKET, Key=key)


def test_purge_removes_for_good_and_only_what_it_names(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="p/x", Body=b"purge me")
    gone = retire(tenant, "recycle", BUCKET, "p/x", real_id=False)
    s3.put_object(Bucket=BUCKET, Key="p/x", Body=b"stays")
    stays = retire(tenant, "recycle", BUCKET, "p/x", real_id=False)
    check_done(act(tenant, "DELETE", BUCKET, f"p/x..{gone}", "recycle"), etag_line=False)
    assert not any(os.path.exists(p) for p in old_paths(tenant, "recycle", BUCKET, "p/x", gone))
    assert all(os.path.exists(p) for p in old_paths(tenant, "recycle", BUCKET, "p/x", stays))
    # A name that is not there, and the bucket itself: success, nothing removed.
    before = files_below(*trees(tenant, BUCKET))
    check_done(act(tenant, "DELETE", BUCKET, f"p/x..{gone}", "recycle"), etag_line=False)
    check_done(tenant.one_reply(tenant.signed("DELETE", f"/{BUCKET}?recycle")), etag_line=False)
    assert files_below(*trees(tenant, BUCKET)) == before


def test_a_user_the_rules_let_only_read_cannot_restore_move_or_purge(tenant):
    s3 = tenant.client(who="admin")
    set_versioning(tenant, GUARDED, "ENABLED")
    s3.put_object(Bucket=GUARDED, Key="g", Body=b"old")
    vid = retire(tenant, "version", GUARDED, "g")
    s3.put_object(Bucket=GUARDED, Key="g", Body=b"gone")
    rid = retire(tenant, "recycle", GUARDED, "g", real_id=False)
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
    check_done(act(tenant, "PUT", GUARDED, f"g..{rid}", "recycle", who="admin"))
    assert tenant.client().get_object(Bucket=GUARDED, Key="g")["Body"].read() == b"gone"
