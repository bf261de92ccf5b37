"""Listing end to end: ListObjects V1 and V2 through boto3's paginators, the raw documents of awkward
requests, directory objects, and the clients that live on listings: `aws s3 ls` and `aws s3 sync`,
s3cmd and rclone. Every listing is compared with a model computed here from the keys that were stored,
in S3 key order. One daemon serves the module.
"""

import hashlib
import os
import re
import subprocess
import time
import urllib.parse
import xml.etree.ElementTree as ET
from concurrent.futures import ThreadPoolExecutor

from orbmux_harness import run, s3_error, status_of, tenant_fixture

USER = "ls-user"
BUCKET = "listing"

# Keys chosen to sort around "/" ("-", "." below it, "0" above), to be prefixes of other keys'
# directories ("a" beside "a/..."? not possible in a file tree, but "a-b" and "a.txt" beside "a/"), and to
# need URL encoding (blank, "+", "%", "&", "<", non-ASCII).
KEYS = sorted({
    "a-b", "a.txt", "a/0", "a/b/c", "a/b/d", "a/b-c", "a/b.c", "a/bc/x", "a/c", "a0", "ab/c",
    "b/deep/er/x", "b/deep/er/y", "b/deep/z", "c d/e+f", "c d/e%g", "c d/e&h", "c d/<tag>",
    "caf\u00e9/men\u00fc", "\u65e5\u672c/\u8a9e", "z", "zz/a", "zz/b", "dir-obj/", "dir-obj/inside",
} | {f"many/{i:03d}" for i in range(40)})


def prepare(t):
    s3 = t.client()
    # Directory objects (empty bodies) and objects on the same connections.
    with ThreadPoolExecutor(8) as pool:
        list(pool.map(lambda k: s3.put_object(Bucket=BUCKET, Key=k, Body=body_of(k)), KEYS))
    # What lies in a meta tree and is no object: a record in the making, an emptied directory, a record
    # that does not parse.
    meta = t.meta(BUCKET)
    for rel in (".orbs3-tmp-1234", "a/.orbs3-tmp-5678"):
        with open(os.path.join(meta, rel), "w") as f:
            f.write("<object")
    os.makedirs(os.path.join(meta, "emptied/deeper"))
    with open(os.path.join(meta, "b/broken"), "w") as f:
        f.write("not a record")


tenant = tenant_fixture("ls", "--user", USER, buckets=[BUCKET], prepare=prepare)


def body_of(key):
    return b"" if key.endswith("/") else ("content of " + key).encode()


def model(keys, prefix="", delimiter=""):
    """(Contents keys, CommonPrefixes) as S3 lists them."""
    contents, prefixes = [], []
    for k in sorted(keys, key=lambda s: s.encode()):
        if not k.startswith(prefix):
            continue
        at = k.find(delimiter, len(prefix)) if delimiter else -1
        if at >= 0:
            cp = k[:at + len(delimiter)]
            if not prefixes or prefixes[-1] != cp:
                prefixes.append(cp)
        else:
            contents.append(k)
    return contents, prefixes


def paginate(s3, v2, page_size, **args):
    op = "list_objects_v2" if v2 else "list_objects"
    contents, prefixes = [], []
    for page in s3.get_paginator(op).paginate(Bucket=BUCKET, PaginationConfig={"PageSize": page_size}, **args):
        contents += [c["Key"] for c in page.get("Contents", [])]
        prefixes += [p["Prefix"] for p in page.get("CommonPrefixes", [])]
        if v2:
            assert page["KeyCount"] == len(page.get("Contents", [])) + len(page.get("CommonPrefixes", []))
        assert len(page.get("Contents", [])) + len(page.get("CommonPrefixes", [])) <= page_size
    return contents, sorted(prefixes, key=lambda s: s.encode())


def test_paginators_give_every_key_once_in_s3_order(tenant):
    s3 = tenant.client()
    for v2 in (False, True):
        for prefix in ("", "a", "a/", "a/b", "c d/", "many/0", "nothing"):
            for delimiter in ("", "/", "b"):
                for page_size in (1, 7, 1000):
                    if page_size == 1 and prefix == "":
                        continue  # the one-key pages of the whole bucket are covered below
                    args = {"Prefix": prefix, **({"Delimiter": delimiter} if delimiter else {})}
                    got = paginate(s3, v2, page_size, **args)
                    assert got == model(KEYS, prefix, delimiter), (v2, prefix, delimiter, page_size)
        assert paginate(s3, v2, 1) == model(KEYS)


def test_resume_points_caps_and_refusals(tenant):
    s3 = tenant.client()
    contents, _ = model(KEYS)
    # start-after anywhere, also inside a sub-tree and between keys.
    for after in ("a/b", "a/b/c", "b/deep/er/", "many/0395", "\u00ff"):
        got = s3.list_objects_v2(Bucket=BUCKET, StartAfter=after)
        assert [c["Key"] for c in got.get("Contents", [])] == [k for k in contents if k.encode() > after.encode()]
        assert got["StartAfter"] == after
    # A resume point under a common prefix starts behind all of it.
    got = s3.list_objects_v2(Bucket=BUCKET, Delimiter="/", StartAfter="b/deep")
    assert [p["Prefix"] for p in got["CommonPrefixes"]][:1] == ["c d/"]
    got = s3.list_objects(Bucket=BUCKET, Delimiter="/", Marker="a/b/c", MaxKeys=3)
    assert [c["Key"] for c in got.get("Contents", [])] == ["a0"] and got["IsTruncated"] is True
    assert [p["Prefix"] for p in got["CommonPrefixes"]] == ["ab/", "b/"] and got["NextMarker"] == "b/"
    # V1 without a delimiter still names its next marker.
    got = s3.list_objects(Bucket=BUCKET, MaxKeys=2)
    assert got["IsTruncated"] is True and got["NextMarker"] == contents[1]
    assert got["Contents"][0]["Owner"]["DisplayName"]  # V1 rows carry their owner
    # Fields of every row.
    row = s3.list_objects_v2(Bucket=BUCKET, Prefix="z", MaxKeys=1)["Contents"][0]
    assert row["Key"] == "z" and row["Size"] == len(body_of("z")) and row["StorageClass"] == "STANDARD"
    assert row["ETag"] == '"%s"' % hashlib.md5(body_of("z")).hexdigest() and "Owner" not in row
    assert row["LastModified"].year >= 2024
    assert "Owner" in s3.list_objects_v2(Bucket=BUCKET, Prefix="z", FetchOwner=True)["Contents"][0]
    # max-keys: 0 is an empty page that is not truncated; above 1000 is 1000.
    got = s3.list_objects_v2(Bucket=BUCKET, MaxKeys=0)
    assert got["KeyCount"] == 0 and got["IsTruncated"] is False and "Contents" not in got
    assert s3.list_objects_v2(Bucket=BUCKET, MaxKeys=5000)["MaxKeys"] == 1000
    # A token this server never made.
    assert s3_error(lambda: s3.list_objects_v2(Bucket=BUCKET, ContinuationToken="!!")) == (400, "InvalidArgument")


def raw_listing(t, query, status=200):
    """The document of a signed GET on the bucket with exactly this query, as text on the wire (boto3
    would add encoding-type=url on its own and decode); the reply has `status`."""
    reply = t.one_reply(t.signed("GET", f"/{BUCKET}?{urllib.parse.urlencode(query, quote_via=urllib.parse.quote)}"))
    assert status_of(reply) == status, reply
    return reply.partition(b"\r\n\r\n")[2].decode()


def test_url_encoding_of_awkward_keys(tenant):
    s3 = tenant.client()
    # boto3 asks for encoding-type=url on its own and decodes: the keys come back as stored.
    got = s3.list_objects_v2(Bucket=BUCKET, Prefix="c d/", Delimiter="/")
    assert [c["Key"] for c in got["Contents"]] == model(KEYS, "c d/", "/")[0]
    got = s3.list_objects(Bucket=BUCKET, Prefix="caf\u00e9", Delimiter="/")
    assert [p["Prefix"] for p in got["CommonPrefixes"]] == ["caf\u00e9/"]
    # On the wire: a blank is "%20" and "+" is "%2B" (a client may decode "+" as a blank or not), "%"
    # is escaped, "/" stays.
    doc = raw_listing(tenant, {"list-type": "2", "prefix": "c d/", "encoding-type": "url", "start-after": "c d/"})
    keys = re.findall(r"<Key>([^<]*)</Key>", doc)
    assert keys == ["c%20d/%3Ctag%3E", "c%20d/e%25g", "c%20d/e%26h", "c%20d/e%2Bf"], doc
    assert "<Prefix>c%20d/</Prefix>" in doc and "<StartAfter>c%20d/</StartAfter>" in doc
    assert "<EncodingType>url</EncodingType>" in doc
    # V1: Marker, NextMarker and Delimiter too.
    doc = raw_listing(tenant, {"marker": "c d/e&h", "delimiter": "+", "max-keys": "1", "encoding-type": "url"})
    assert "<Marker>c%20d/e%26h</Marker>" in doc and "<Delimiter>%2B</Delimiter>" in doc, doc
    assert "<NextMarker>c%20d/e%2B</NextMarker>" in doc, doc
    assert [p["Prefix"] for p in s3.list_objects(Bucket=BUCKET, Prefix="c d/e", Delimiter="+")["CommonPrefixes"]] \
        == ["c d/e+"]
    doc = raw_listing(tenant, {"prefix": "\u65e5", "delimiter": "/", "encoding-type": "url"})
    assert "<Prefix>%E6%97%A5%E6%9C%AC/</Prefix>" in doc and "<Marker />" in doc, doc
    # Without encoding the XML itself carries the texts: prefix, delimiter, markers and keys as sent.
    root = ET.fromstring(raw_listing(tenant, {"list-type": "2", "prefix": "c d/<"}))
    assert [e.text for e in root.iter("Key")] == ["c d/<tag>"]
    assert root.find("KeyCount").text == "1" and root.find("EncodingType") is None
    root = ET.fromstring(raw_listing(tenant, {"prefix": "c", "marker": "c d/e&h", "delimiter": "+",
                                              "max-keys": "1"}))
    assert [root.find(n).text for n in ("Prefix", "Marker", "Delimiter", "NextMarker")] == \
        ["c", "c d/e&h", "+", "c d/e+"]
    root = ET.fromstring(raw_listing(tenant, {"list-type": "2", "prefix": "caf\u00e9/", "start-after": "caf\u00e9/a b"}))
    assert root.find("Prefix").text == "caf\u00e9/" and root.find("StartAfter").text == "caf\u00e9/a b"
    assert [e.text for e in root.iter("Key")] == ["caf\u00e9/men\u00fc"]
    # An empty continuation token is the first page (start-after still counts), not an error.
    root = ET.fromstring(raw_listing(tenant, {"list-type": "2", "continuation-token": "", "max-keys": "2"}))
    assert [e.text for e in root.iter("Key")] == model(KEYS)[0][:2]
    root = ET.fromstring(raw_listing(tenant, {"list-type": "2", "continuation-token": "", "start-after": "z"}))
    assert [e.text for e in root.iter("Key")] == ["zz/a", "zz/b", "\u65e5\u672c/\u8a9e"]
    assert [c["Key"] for c in s3.list_objects_v2(Bucket=BUCKET, ContinuationToken="", MaxKeys=3)["Contents"]] \
        == model(KEYS)[0][:3]
    # Parameters S3 refuses.
    for query in ({"list-type": "3"}, {"max-keys": "-1"}, {"max-keys": "ten"}, {"encoding-type": "base64"}):
        assert "<Code>InvalidArgument</Code>" in raw_listing(tenant, query, status=400), query


def test_empty_bucket_and_what_is_no_object(tenant):
    s3 = tenant.client()
    s3.create_bucket(Bucket="empty-one")
    for v2 in (False, True):
        got = (s3.list_objects_v2 if v2 else s3.list_objects)(Bucket="empty-one")
        assert "Contents" not in got and "CommonPrefixes" not in got and got["IsTruncated"] is False
    assert s3.list_objects_v2(Bucket="empty-one")["KeyCount"] == 0
    assert s3_error(lambda: s3.list_objects_v2(Bucket="no-such-bucket")) == (404, "NoSuchBucket")
    # An upload in progress is no object: its staging and parts never show.
    upload = s3.create_multipart_upload(Bucket=BUCKET, Key="open-upload/part")["UploadId"]
    s3.upload_part(Bucket=BUCKET, Key="open-upload/part", UploadId=upload, PartNumber=1, Body=b"p" * 1000)
    assert "Contents" not in s3.list_objects_v2(Bucket=BUCKET, Prefix="open-upload")
    # Temporary files, the emptied directory and the broken record of the fixture never show.
    keys = [c["Key"] for c in s3.list_objects_v2(Bucket=BUCKET)["Contents"]]
    assert keys == model(KEYS)[0]
    prefixes = [p["Prefix"] for p in s3.list_objects_v2(Bucket=BUCKET, Delimiter="/")["CommonPrefixes"]]
    assert "emptied/" not in prefixes and prefixes == model(KEYS, "", "/")[1]
    s3.abort_multipart_upload(Bucket=BUCKET, Key="open-upload/part", UploadId=upload)


def test_directory_objects(tenant):
    s3 = tenant.client()
    put = s3.put_object(Bucket=BUCKET, Key="folder/", Body=b"", ContentType="application/x-directory")
    assert put["ETag"] == '"d41d8cd98f00b204e9800998ecf8427e"'
    head = s3.head_object(Bucket=BUCKET, Key="folder/")
    assert head["ContentLength"] == 0 and head["ContentType"] == "application/x-directory"
    assert head["ETag"] == put["ETag"]
    assert s3.get_object(Bucket=BUCKET, Key="folder/")["Body"].read() == b""
    s3.put_object(Bucket=BUCKET, Key="folder/file", Body=b"x")
    got = s3.list_objects_v2(Bucket=BUCKET, Prefix="folder")
    assert [c["Key"] for c in got["Contents"]] == ["folder/", "folder/file"]
    assert got["Contents"][0]["Size"] == 0
    # "z" is an object: "z/" can't be a directory beside it, as for any key that needs one.
    assert s3_error(lambda: s3.put_object(Bucket=BUCKET, Key="z/", Body=b"")) == (400, "InvalidRequest")
    # A directory made only by the keys below it is no object.
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="zz/")) == (404, "NoSuchKey")
    assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key="zz/"))[0] == 404
    # Names of the server's own are no client's keys.
    for key in ("x/.orbs3-dir", ".orbs3-anything", "a/.orbs3-tmp-1/b"):
        assert s3_error(lambda: s3.put_object(Bucket=BUCKET, Key=key, Body=b"x")) == (400, "InvalidArgument"), key


# ---- other clients ----

def test_aws_cli_ls(tenant, tmp_path):
    env = tenant.env(str(tmp_path))
    out = run(tenant.aws() + ["s3", "ls", "--recursive", f"s3://{BUCKET}/many/"], env)
    assert [line.split()[-1] for line in out.splitlines()] == [f"many/{i:03d}" for i in range(40)]
    out = run(tenant.aws() + ["s3", "ls", f"s3://{BUCKET}/a/"], env)
    # One level: the sub-directories as PRE lines, then the objects.
    assert "PRE b/" in out and "PRE bc/" in out and re.search(r"\s0$", out, re.M) and "a/b/c" not in out


def test_aws_cli_sync_up_again_and_down(tenant, tmp_path):
    env = tenant.env(str(tmp_path))
    src = tmp_path / "src"
    files = ["top.txt", "x/y/z.bin", "x/y-1.txt", "x/y.txt", "sp ace/f+g.txt", "\u00fcml/\u00e4.txt"]
    for i, rel in enumerate(files):
        (src / rel).parent.mkdir(parents=True, exist_ok=True)
        (src / rel).write_bytes(os.urandom(100 + i * 7000))
        # LastModified has whole seconds, as in S3: a file written in the second of its upload would look
        # newer than its copy to the next sync. Files to sync are older than that.
        os.utime(src / rel, (time.time() - 60, time.time() - 60))
    target = f"s3://{BUCKET}/synced"
    out = run(tenant.aws() + ["s3", "sync", str(src), target], env)
    assert out.count("upload:") == len(files), out
    # The second sync finds every file listed with its size and time: nothing to do.
    assert run(tenant.aws() + ["s3", "sync", str(src), target], env).strip() == ""
    down = tmp_path / "down"
    down.mkdir()
    run(tenant.aws() + ["s3", "sync", target, str(down)], env)
    diff = subprocess.run(["diff", "-r", str(src), str(down)], capture_output=True, text=True)
    assert diff.returncode == 0, diff.stdout


def test_s3cmd_ls(tenant, tmp_path):
    s3cmd = tenant.s3cmd()
    env = tenant.env(str(tmp_path))
    out = run(s3cmd + ["ls", f"s3://{BUCKET}/b/deep/"], env)
    assert f"DIR  s3://{BUCKET}/b/deep/er/" in out and f"s3://{BUCKET}/b/deep/z" in out, out
    out = run(s3cmd + ["ls", "--recursive", f"s3://{BUCKET}/many/"], env)
    assert [line.split()[-1] for line in out.splitlines()] == [f"s3://{BUCKET}/many/{i:03d}" for i in range(40)]


def test_rclone_copy_and_check(tenant, tmp_path):
    env = tenant.rclone(str(tmp_path))
    src = tmp_path / "src"
    for i, rel in enumerate(["a.txt", "d/b.txt", "d/e/c.bin", "d-e.txt", "sp ace/\u00e9.txt"]):
        (src / rel).parent.mkdir(parents=True, exist_ok=True)
        (src / rel).write_bytes(os.urandom(500 + i * 3000))
    flags = ["--retries", "1", "--s3-no-check-bucket", "--s3-list-chunk", "2"]
    run(["/usr/bin/rclone", "copy", *flags, str(src), f"om:{BUCKET}/rc"], env)
    # check lists both sides (two keys a page) and compares sizes and MD5 sums with the ETags.
    run(["/usr/bin/rclone", "check", *flags, str(src), f"om:{BUCKET}/rc"], env)
    back = tmp_path / "back"
    run(["/usr/bin/rclone", "copy", *flags, f"om:{BUCKET}/rc", str(back)], env)
    diff = subprocess.run(["diff", "-r", str(src), str(back)], capture_output=True, text=True)
    assert diff.returncode == 0, diff.stdout
