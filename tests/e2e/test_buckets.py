"""Buckets end to end: real clients (the AWS CLI, boto3 with both signature versions, s3cmd) create, list,
inspect and delete buckets on a running daemon, and after every step the tenant's trees on disk are what
other programs reading them expect:

    data/<owner>/<bucket>/                 the objects
    meta/<owner>/bucket/<bucket>           the bucket's record
    meta/<owner>/object/<bucket>/          the objects' records
    version/<owner>/<bucket>/              old versions
    recycle/<owner>/<bucket>/              deleted objects

Two users of the tenant race for names; a bucket holding objects (files placed in its tree) is not deleted.
Replies whose bytes the server fixes are compared byte for byte. One daemon serves the module.
"""

import os
import re
import shutil
import threading
import urllib.parse
import xml.etree.ElementTree as ET

import pytest
from botocore.exceptions import ClientError

from orbmux_harness import run_tool, s3_error, tenant_fixture
from test_worker import DATE, check_error_reply

USER = "bk-user"
RIVAL = "rival"
ADMIN = "admin"
TREES = ("data", "meta", "version", "recycle")
MAX_BUCKET = 30


def tree_of(t):
    """Every path below the tenant's four roots, relative to its directory, directories with '/'."""
    out = set()
    for top in TREES:
        for base, dirs, files in os.walk(os.path.join(t.root, top)):
            rel = os.path.relpath(base, t.root)
            out.add(rel + "/")
            out.update(os.path.join(rel, f) for f in files)
    return out


def bucket_paths(owner, name):
    return {f"data/{owner}/{name}/", f"meta/{owner}/bucket/{name}", f"meta/{owner}/object/{name}/",
            f"version/{owner}/{name}/", f"recycle/{owner}/{name}/"}


def record(t, owner, name):
    return ET.parse(os.path.join(t.root, "meta", owner, "bucket", name)).getroot()


# The tenant's service file: peers at 127.0.0.2 are barred (the administrator is above that), and a worker
# lets the tenant hold MAX_BUCKET buckets.
tenant = tenant_fixture(
    "bk", "--user", USER, "--extra-user", RIVAL,
    service='<?xml version="1.0" encoding="utf-8"?>\n<service blacklist_status="start">\n<blacklist>\n'
            '<rule id="b1" name="barred" status="start"><addrs addr="127.0.0.2" mask="32" /></rule>\n'
            f'</blacklist>\n<quota max_bucket="{MAX_BUCKET}" />\n</service>\n')


def names(listing):
    return sorted(b["Name"] for b in listing["Buckets"])


def aws(t, home, *args):
    return run_tool(t.aws() + list(args), t.env(home))


def s3cmd(t, home, *args, v2=False):
    return run_tool(t.s3cmd(v2) + list(args), t.env(home))


def date_of(reply):
    m = DATE.search(reply)
    assert m, reply
    return m.group(1)


# ---- the AWS CLI ----

def test_aws_cli_makes_lists_inspects_and_removes_a_bucket(tenant, tmp_path):
    home = str(tmp_path)
    before = tree_of(tenant)
    out = aws(tenant, home, "s3", "mb", "s3://cli-bucket")
    assert out.returncode == 0 and "make_bucket: cli-bucket" in out.stdout, out.stderr
    owner_dirs = {f"{t}/{USER}/" for t in TREES} | {f"meta/{USER}/bucket/", f"meta/{USER}/object/"}
    assert (tree_of(tenant) - before) - owner_dirs == bucket_paths(USER, "cli-bucket")
    rec = record(tenant, USER, "cli-bucket")
    assert rec.tag == "bucket" and rec.get("bucketname") == "cli-bucket" and rec.get("acl") == "1"
    assert rec.get("owner_name") == USER and rec.get("extranet_endpoint") == "cli-bucket./"

    out = aws(tenant, home, "s3", "ls")
    assert out.returncode == 0 and re.search(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d cli-bucket$", out.stdout, re.M), out

    assert aws(tenant, home, "s3api", "head-bucket", "--bucket", "cli-bucket").returncode == 0
    out = aws(tenant, home, "s3api", "head-bucket", "--bucket", "no-such-bucket")
    assert out.returncode != 0 and "(404)" in out.stderr, out.stderr

    out = aws(tenant, home, "s3api", "get-bucket-acl", "--bucket", "cli-bucket", "--output", "text")
    assert out.returncode == 0 and "FULL_CONTROL" in out.stdout, out

    out = aws(tenant, home, "s3", "mb", "s3://cli-bucket")
    assert out.returncode != 0 and "BucketAlreadyOwnedByYou" in out.stderr, out.stderr

    out = aws(tenant, home, "s3", "rb", "s3://cli-bucket")
    assert out.returncode == 0 and "remove_bucket: cli-bucket" in out.stdout, out.stderr
    assert not tree_of(tenant) & bucket_paths(USER, "cli-bucket")
    out = aws(tenant, home, "s3", "rb", "s3://cli-bucket")
    assert out.returncode != 0 and "NoSuchBucket" in out.stderr, out.stderr


# ---- boto3 ----

@pytest.mark.parametrize("sig", ["s3v4", "s3"])
def test_boto3_bucket_lifecycle_and_acl(tenant, sig):
    s3 = tenant.client(sig)
    name = f"boto-{'v4' if sig == 's3v4' else 'v2'}"
    created = s3.create_bucket(Bucket=name)
    assert created["ResponseMetadata"]["HTTPStatusCode"] == 200
    assert created["Location"] == f"/{name}"
    assert name in names(s3.list_buckets())
    assert s3.head_bucket(Bucket=name)["ResponseMetadata"]["HTTPStatusCode"] == 200

    acl = s3.get_bucket_acl(Bucket=name)
    assert [g["Permission"] for g in acl["Grants"]] == ["FULL_CONTROL"]
    owner_id = acl["Owner"].get("ID", "")
    policy = {"Owner": {"ID": owner_id},
              "Grants": [{"Grantee": {"Type": "CanonicalUser", "ID": owner_id}, "Permission": p}
                         for p in ("READ", "WRITE")]}
    s3.put_bucket_acl(Bucket=name, AccessControlPolicy=policy)
    assert record(tenant, USER, name).get("acl") == str(0x110)
    assert sorted(g["Permission"] for g in s3.get_bucket_acl(Bucket=name)["Grants"]) == ["READ", "WRITE"]

    # A body without a grant changes nothing.
    assert s3_error(lambda: s3.put_bucket_acl(Bucket=name, AccessControlPolicy={"Owner": {"ID": owner_id},
                                                                                 "Grants": []}))[1] in (
        "MissingRequestBodyError", "MalformedXML", "MalformedACLError")
    assert record(tenant, USER, name).get("acl") == str(0x110)

    assert s3_error(lambda: s3.create_bucket(Bucket=name)) == (409, "BucketAlreadyOwnedByYou")
    deleted = s3.delete_bucket(Bucket=name)
    assert deleted["ResponseMetadata"]["HTTPStatusCode"] == 204
    assert s3_error(lambda: s3.head_bucket(Bucket=name)) == (404, "404")
    assert s3_error(lambda: s3.delete_bucket(Bucket=name)) == (404, "NoSuchBucket")
    assert s3_error(lambda: s3.get_bucket_acl(Bucket=name)) == (404, "NoSuchBucket")
    assert name not in names(s3.list_buckets())
    assert not tree_of(tenant) & bucket_paths(USER, name)


def test_names_that_are_not_safe_paths_are_refused_before_anything_is_made(tenant):
    before = tree_of(tenant)
    for path in ("/..", "/.", "/%2e%2e", "/a%2Fb", "/" + "x" * 300):
        got = tenant.one_reply(tenant.signed("PUT", path))
        assert b" 400 " in got.split(b"\r\n", 1)[0] or b" 403 " in got.split(b"\r\n", 1)[0], (path, got)
    assert tree_of(tenant) == before


# ---- s3cmd ----

@pytest.mark.parametrize("v2", [False, True], ids=["v4", "v2"])
def test_s3cmd_makes_lists_and_removes_a_bucket(tenant, tmp_path, v2):
    home = str(tmp_path)
    name = f"s3cmd-{'v2' if v2 else 'v4'}"
    out = s3cmd(tenant, home, "mb", f"s3://{name}", v2=v2)
    assert out.returncode == 0 and f"Bucket 's3://{name}/' created" in out.stdout, out
    out = s3cmd(tenant, home, "ls", v2=v2)
    assert out.returncode == 0 and f"s3://{name}" in out.stdout, out
    assert bucket_paths(USER, name) <= tree_of(tenant)
    out = s3cmd(tenant, home, "rb", f"s3://{name}", v2=v2)
    assert out.returncode == 0 and f"Bucket 's3://{name}/' removed" in out.stdout, out
    assert not tree_of(tenant) & bucket_paths(USER, name)


# ---- owners ----

def test_the_bucket_namespace_is_shared_by_the_owners_of_a_tenant(tenant):
    user, rival, admin = tenant.client(), tenant.client(who=RIVAL), tenant.client(who=ADMIN)
    user.create_bucket(Bucket="owned-by-user")
    rival.create_bucket(Bucket="owned-by-rival")
    try:
        assert s3_error(lambda: rival.create_bucket(Bucket="owned-by-user")) == (409, "BucketAlreadyExists")
        assert not os.path.exists(os.path.join(tenant.root, "data", RIVAL, "owned-by-user"))
        # A user lists its own buckets; the administrator lists every owner's.
        assert {"owned-by-user"} <= set(names(user.list_buckets())) and "owned-by-rival" not in names(user.list_buckets())
        assert "owned-by-rival" in names(rival.list_buckets()) and "owned-by-user" not in names(rival.list_buckets())
        assert {"owned-by-user", "owned-by-rival"} <= set(names(admin.list_buckets()))
        # Without authority lists in force the users of a tenant reach each other's buckets.
        assert rival.head_bucket(Bucket="owned-by-user")["ResponseMetadata"]["HTTPStatusCode"] == 200
    finally:
        user.delete_bucket(Bucket="owned-by-user")
        rival.delete_bucket(Bucket="owned-by-rival")


def test_two_owners_racing_for_names_never_both_win(tenant):
    clients = {USER: tenant.client(), RIVAL: tenant.client(who=RIVAL)}
    rounds = 20
    results = {}

    def take(owner, name, barrier):
        barrier.wait()
        try:
            clients[owner].create_bucket(Bucket=name)
            results[(owner, name)] = "won"
        except ClientError as e:
            results[(owner, name)] = e.response["Error"]["Code"]

    for i in range(rounds):
        name = f"race-{i}"
        barrier = threading.Barrier(2)
        threads = [threading.Thread(target=take, args=(o, name, barrier)) for o in clients]
        for th in threads:
            th.start()
        for th in threads:
            th.join(timeout=30)
    winners = {}
    for (owner, name), outcome in results.items():
        assert outcome in ("won", "BucketAlreadyExists"), (owner, name, outcome)
        if outcome == "won":
            assert name not in winners, f"{name} won by {winners.get(name)} and {owner}"
            winners[name] = owner
    assert len(results) == 2 * rounds
    # Each name has exactly one owner on disk, with a whole record.
    for i in range(rounds):
        name = f"race-{i}"
        holders = [o for o in clients if os.path.isdir(os.path.join(tenant.root, "data", o, name))]
        assert holders == ([winners[name]] if name in winners else []), (name, holders)
        assert name in winners, f"nobody kept {name}"
        assert record(tenant, winners[name], name).get("bucketname") == name
        clients[winners[name]].delete_bucket(Bucket=name)


# ---- DeleteBucket ----

def test_a_bucket_that_holds_objects_is_not_deleted(tenant):
    s3 = tenant.client()
    s3.create_bucket(Bucket="full")
    data = os.path.join(tenant.root, "data", USER, "full")
    # Until PutObject exists, objects are placed in the tree by hand: a file, and a directory object.
    with open(os.path.join(data, "object.txt"), "w") as f:
        f.write("content")
    assert s3_error(lambda: s3.delete_bucket(Bucket="full")) == (409, "BucketNotEmpty")
    assert bucket_paths(USER, "full") <= tree_of(tenant)
    os.unlink(os.path.join(data, "object.txt"))
    os.mkdir(os.path.join(data, "folder"))
    assert s3_error(lambda: s3.delete_bucket(Bucket="full")) == (409, "BucketNotEmpty")
    os.rmdir(os.path.join(data, "folder"))
    # A version keeps the bucket; recycled copies and an emptied version tree go with it.
    for top in ("version", "recycle"):
        os.makedirs(os.path.join(tenant.root, top, USER, "full", "d"))
        with open(os.path.join(tenant.root, top, USER, "full", "d", "old"), "w") as f:
            f.write("old")
    assert s3_error(lambda: s3.delete_bucket(Bucket="full")) == (409, "BucketNotEmpty")
    os.unlink(os.path.join(tenant.root, "version", USER, "full", "d", "old"))
    assert s3.delete_bucket(Bucket="full")["ResponseMetadata"]["HTTPStatusCode"] == 204
    assert not any(p.startswith(tuple(f"{t}/{USER}/full" for t in ("data", "version", "recycle")))
                   or p.startswith(f"meta/{USER}/object/full") or p == f"meta/{USER}/bucket/full"
                   for p in tree_of(tenant))


# ---- S3's rules for names, paging, location ----

BUCKET_NAMES = [
    ("abc", True), ("a-b.c9", True), ("1bucket", True), ("x" * 63, True), ("10.1.2", True),
    ("ab", False), ("x" * 64, False), ("Upper", False), ("under_score", False), ("-dash", False),
    ("dash-", False), (".dot", False), ("dot.", False), ("a..b", False), ("a.-b", False), ("a-.b", False),
    ("192.168.5.4", False), ("xn--punycode", False), ("name-s3alias", False),
]


def test_new_bucket_names_follow_s3_rules_and_old_names_stay_reachable(tenant):
    s3 = tenant.client()
    made = []
    old = "Old_Style"
    try:
        for name, ok in BUCKET_NAMES:
            if ok:
                s3.create_bucket(Bucket=name)
                made.append(name)
            else:
                # boto3 checks some names itself: send those raw.
                got = tenant.one_reply(tenant.signed("PUT", "/" + name))
                assert got.startswith(b"HTTP/1.1 400 "), (name, got)
                assert b"<Code>InvalidBucketName</Code>" in got, (name, got)
                assert not os.path.exists(os.path.join(tenant.root, "data", USER, name)), name
        # A bucket made before the rule (its trees placed here) is still used by its name.
        for rel in (f"data/{USER}/{old}", f"meta/{USER}/object/{old}", f"version/{USER}/{old}",
                    f"recycle/{USER}/{old}"):
            os.makedirs(os.path.join(tenant.root, rel), exist_ok=True)
        record = open(os.path.join(tenant.root, "meta", USER, "bucket", made[0])).read()
        with open(os.path.join(tenant.root, "meta", USER, "bucket", old), "w") as f:
            f.write(record.replace(f'bucketname="{made[0]}"', f'bucketname="{old}"'))
        got = tenant.one_reply(tenant.signed("PUT", f"/{old}/k", body=b"old"))
        assert got.startswith(b"HTTP/1.1 200 "), got
        got = tenant.one_reply(tenant.signed("GET", f"/{old}/k"))
        assert got.startswith(b"HTTP/1.1 200 ") and got.endswith(b"\r\n\r\nold"), got
        assert tenant.one_reply(tenant.signed("DELETE", f"/{old}/k")).startswith(b"HTTP/1.1 204 ")
    finally:
        # Taken away as it came, by hand: the worker never counted it.
        for rel in (f"data/{USER}/{old}", f"meta/{USER}/object/{old}", f"version/{USER}/{old}",
                    f"recycle/{USER}/{old}"):
            shutil.rmtree(os.path.join(tenant.root, rel), ignore_errors=True)
        if os.path.exists(os.path.join(tenant.root, "meta", USER, "bucket", old)):
            os.unlink(os.path.join(tenant.root, "meta", USER, "bucket", old))
        for name in made:
            tenant.one_reply(tenant.signed("DELETE", "/" + name))


def test_get_bucket_location_is_the_empty_constraint(tenant):
    s3 = tenant.client()
    s3.create_bucket(Bucket="located")
    try:
        for c in (s3, tenant.client("s3")):
            assert c.get_bucket_location(Bucket="located")["LocationConstraint"] is None
        assert s3_error(lambda: s3.get_bucket_location(Bucket="no-such-bucket")) == (404, "NoSuchBucket")
    finally:
        s3.delete_bucket(Bucket="located")


def list_buckets_page(t, query):
    got = t.one_reply(t.signed("GET", "/?" + query if query else "/"))
    status = int(got.split(b" ", 2)[1])
    doc = got.split(b"\r\n\r\n", 1)[1]
    return status, ET.fromstring(doc)


def test_list_buckets_pages_with_max_buckets_token_and_prefix(tenant):
    """Debian's boto3 knows no MaxBuckets: the pages are asked for by hand."""
    s3 = tenant.client()
    mine = [f"page-{c}" for c in "ecadb"] + ["other-1"]
    for name in mine:
        s3.create_bucket(Bucket=name)
    try:
        everything = sorted(names(s3.list_buckets()))
        assert [b["Name"] for b in s3.list_buckets()["Buckets"]] == everything  # in name order
        for query_prefix, want in (("", everything), ("page-", [f"page-{c}" for c in "abcde"])):
            for size in (1, 2, 5, 1000):
                seen, token = [], None
                for _ in range(len(want) + 2):
                    query = f"max-buckets={size}" + (f"&prefix={query_prefix}" if query_prefix else "")
                    if token is not None:
                        query += "&continuation-token=" + urllib.parse.quote(token, safe="")
                    status, root = list_buckets_page(tenant, query)
                    assert status == 200, ET.tostring(root)
                    rows = [b.find("Name").text for b in root.iter("Bucket")]
                    assert len(rows) <= size
                    seen += rows
                    if query_prefix:
                        assert root.find("Prefix").text == query_prefix
                    else:
                        assert root.find("Prefix") is None
                    tok = root.find("ContinuationToken")
                    if tok is None:
                        break
                    token = tok.text
                assert seen == want, (query_prefix, size)
        # An empty token is the first page; bad counts and tokens are refused.
        status, root = list_buckets_page(tenant, "max-buckets=1&continuation-token=")
        assert status == 200 and [b.find("Name").text for b in root.iter("Bucket")] == everything[:1]
        for query in ("max-buckets=0", "max-buckets=10001", "max-buckets=x", "max-buckets=",
                      "continuation-token=%21%21"):
            status, root = list_buckets_page(tenant, query)
            assert status == 400 and root.find("Code").text == "InvalidArgument", query
    finally:
        for name in mine:
            s3.delete_bucket(Bucket=name)


def test_every_error_document_names_the_request_id_of_its_reply(tenant):
    s3 = tenant.client()
    s3.create_bucket(Bucket="with-ids")
    s3.put_object(Bucket="with-ids", Key="k", Body=b"1")
    calls = [
        lambda: s3.get_object(Bucket="with-ids", Key="k", Range="bytes=5-"),
        lambda: s3.get_object(Bucket="with-ids", Key="missing"),
        lambda: s3.head_bucket(Bucket="no-such-bucket"),
        lambda: s3.get_bucket_acl(Bucket="no-such-bucket"),
        lambda: s3.get_object(Bucket="no-such-bucket", Key="k"),
        lambda: s3.list_objects_v2(Bucket="no-such-bucket"),
        lambda: tenant.client("s3").delete_bucket(Bucket="no-such-bucket"),
    ]
    for call in calls:
        with pytest.raises(ClientError) as err:
            call()
        r = err.value.response
        header = r["ResponseMetadata"]["HTTPHeaders"].get("x-amz-request-id")
        assert header and re.fullmatch(r"[0-9a-f]{32}", header), r
        # boto3 takes RequestId from the document when there is one, else from the header.
        assert r["ResponseMetadata"]["RequestId"] == header, r
    # A wrong signature and an unknown key, raw.
    bad = tenant.signed("GET", "/").replace(b"Signature=", b"Signature=0", 1)
    for data in (bad, b"GET / HTTP/1.1\r\nHost: x\r\nAuthorization: AWS nobody:sig\r\n\r\n"):
        got = tenant.one_reply(data)
        head = re.search(rb"\r\nx-amz-request-id: ([0-9a-f]{32})\r\n", got)
        doc = re.search(rb"<RequestId>([0-9a-f]{32})</RequestId>", got)
        assert head and doc and head.group(1) == doc.group(1), got
    s3.delete_object(Bucket="with-ids", Key="k")
    s3.delete_bucket(Bucket="with-ids")


# ---- replies byte for byte ----

def test_bucket_replies_byte_for_byte(tenant):
    got = tenant.one_reply(tenant.signed("PUT", "/exact"))
    date = date_of(got)
    assert got == (b"HTTP/1.1 200 OK\r\nDate: " + date + b"\r\nLocation:/exact\r\nContent-Length:0\r\n"
                   b"Connection: keep-alive\r\nServer: KELVANE\r\n\r\n"), got

    got = tenant.one_reply(tenant.signed("PUT", "/exact"))
    check_error_reply(got, b"409 Conflict", b"BucketAlreadyOwnedByYou",
                      b"The bucket you tried to create already exists, and you own it.", b"exact")
    got = tenant.one_reply(tenant.signed("PUT", "/exact", who=RIVAL))
    check_error_reply(got, b"409 Conflict", b"BucketAlreadyExists",
                      b"The requested bucket name is not available. The bucket namespace is shared by all users of "
                      b"the system. Please select a different name and try again.", b"exact")
    got = tenant.one_reply(tenant.signed("PUT", "/Not_Valid"))
    check_error_reply(got, b"400 Bad Request", b"InvalidBucketName", b"The specified bucket is not valid.",
                      b"Not_Valid")
    got = tenant.one_reply(tenant.signed("GET", "/exact?location"))
    assert got.startswith(b"HTTP/1.1 200 OK\r\n"), got
    assert got.split(b"\r\n\r\n", 1)[1] == (b'<?xml version="1.0" encoding="utf-8"?>\n'
                                              b'<LocationConstraint xmlns="http://s3.amazonaws.com/doc/2006-03-01/"/>\n'), got
    # HEAD errors carry the id in the head alone.
    got = tenant.one_reply(tenant.signed("HEAD", "/no-such-bucket"))
    check_error_reply(got, b"404 Not Found", b"NoSuchBucket", b"The specified bucket does not exist.",
                      b"no-such-bucket", head_only=True)

    got = tenant.one_reply(tenant.signed("HEAD", "/exact"))
    assert got.startswith(b"HTTP/1.1 200 OK\r\n") and got.endswith(b"\r\n\r\n"), got

    got = tenant.one_reply(tenant.signed("DELETE", "/exact"))
    date = date_of(got)
    assert got == (b"HTTP/1.1 204 No Content\r\nDate: " + date + b"\r\nContent-Length:0\r\n"
                   b"Connection: keep-alive\r\nServer: KELVANE\r\n\r\n"), got

    got = tenant.one_reply(tenant.signed("DELETE", "/exact"))
    check_error_reply(got, b"404 Not Found", b"NoSuchBucket", b"The specified bucket does not exist.", b"exact")


def test_list_buckets_reply(tenant):
    s3 = tenant.client()
    s3.create_bucket(Bucket="listed")
    try:
        got = tenant.one_reply(tenant.signed("GET", "/"))
        head, doc = got.split(b"\r\n\r\n", 1)
        assert re.fullmatch(rb"HTTP/1.1 200 OK\r\nDate: [^\r]+ GMT\r\nConnection: keep-alive\r\nContent-Length:"
                            + str(len(doc)).encode() + rb"\r\nAccept-Ranges: bytes\r\n"
                            rb"content-Security-Policy: block-all-mixed-content\r\nServer: KELVANE\r\n"
                            rb"Vary: Origin\r\nX-Amz-Request-Id: [0-9a-f]{32}\r\nX-Xss-Protection: 1;mode=block\r\n"
                            rb"Content-Type: application/xml", head), head
        root = ET.fromstring(doc)
        # The document carries no namespace.
        assert root.tag == "ListAllMyBucketsResult"
        assert root.find("Owner/DisplayName").text == USER
        rows = {b.find("Name").text: b for b in root.iter("Bucket")}
        assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", rows["listed"].find("CreationDate").text)
        assert rows["listed"].find("KeyCount").text == "0"
    finally:
        s3.delete_bucket(Bucket="listed")


# ---- access ----

def test_service_blacklist_bars_a_peer_but_not_the_administrator(tenant):
    got = tenant.one_reply(tenant.signed("PUT", "/barred"), source="127.0.0.2")
    check_error_reply(got, b"403 Forbidden", b"AccessDenied", b"Access Denied", b"/")
    got = tenant.one_reply(tenant.signed("GET", "/", who=RIVAL), source="127.0.0.2")
    check_error_reply(got, b"403 Forbidden", b"AccessDenied", b"Access Denied", b"/")
    assert not os.path.exists(os.path.join(tenant.root, "data", USER, "barred"))
    got = tenant.one_reply(tenant.signed("PUT", "/barred", who=ADMIN), source="127.0.0.2")
    assert got.startswith(b"HTTP/1.1 200 OK\r\n"), got
    got = tenant.one_reply(tenant.signed("DELETE", "/barred", who=ADMIN), source="127.0.0.2")
    assert got.startswith(b"HTTP/1.1 204 No Content\r\n"), got


def test_bucket_authority_list_decides_per_action(tenant):
    """A bucket whose address rule for this peer grants only listing: HEAD passes, the ACL and DeleteBucket
    are refused, and the administrator still deletes it."""
    s3 = tenant.client()
    s3.create_bucket(Bucket="guarded")
    tenant.grant_only("guarded", ["list"])

    assert s3.head_bucket(Bucket="guarded")["ResponseMetadata"]["HTTPStatusCode"] == 200
    assert s3_error(lambda: s3.get_bucket_acl(Bucket="guarded")) == (403, "AccessDenied")
    assert s3_error(lambda: s3.delete_bucket(Bucket="guarded")) == (403, "AccessDenied")
    assert bucket_paths(USER, "guarded") <= tree_of(tenant)
    tenant.client(who=ADMIN).delete_bucket(Bucket="guarded")
    assert not tree_of(tenant) & bucket_paths(USER, "guarded")


def test_max_bucket_caps_the_buckets_of_the_tenant(tenant):
    admin = tenant.client(who=ADMIN)
    existing = len(admin.list_buckets()["Buckets"])
    s3 = tenant.client()
    made = []
    try:
        for i in range(MAX_BUCKET - existing):
            s3.create_bucket(Bucket=f"cap-{i}")
            made.append(f"cap-{i}")
        assert s3_error(lambda: s3.create_bucket(Bucket="cap-over")) == (403, "BucketTooMuch")
        assert not os.path.exists(os.path.join(tenant.root, "data", USER, "cap-over"))
        s3.delete_bucket(Bucket=made.pop())
        s3.create_bucket(Bucket="cap-over")
        made.append("cap-over")
    finally:
        for name in made:
            s3.delete_bucket(Bucket=name)
