"""Listings of old contents end to end: ListObjectVersions through boto3 and its paginator and as raw
documents, and the flat listings of the version tree (?bucketobjver) and the recycle tree (?recycle). The
histories are made by overwrites and deletes with versioning enabled or suspended (only what no request
makes is laid by hand: bytes without record or tail, a record whose bytes a crash left behind); every
listing is compared with a model computed here. One daemon serves the module.
"""

import hashlib
import os
import re
import urllib.parse
import xml.etree.ElementTree as ET

from orbmux_harness import s3_error, status_of, tenant_fixture

USER = "lv-user"
BUCKET = "versions"
NS = "{http://s3.amazonaws.com/doc/2006-03-01/}"


def sfx(minute, second, tail):
    return f"2026_11_24_10_{minute:02d}_{second:02d}-{tail:06d}{tail:08x}"


# key -> (steps: "p"/"x" a PUT/DELETE while versioning is enabled, "P"/"X" while suspended; the step that
# wrote the live content, None when none is live; the old contents newest first: (kind, step that made it)).
# kinds: "v" a version (bytes and record), "d" a delete marker (record only).
PLAN = {
    "a": ("ppP", 2, [("v", 1), ("v", 0)]),
    "a..b": ("pp", 1, [("v", 0)]),
    "a.": ("ppX", None, [("v", 0)]),
    "d/k": ("ppx", None, [("d", 2), ("v", 0)]),
    "d/k..y": ("pxP", 2, [("d", 1)]),
    "d/sub/x": ("pP", 1, [("v", 0)]),
    "m1": ("px", None, [("d", 1)]),
    "m2": ("ppxpP", 4, [("v", 3), ("d", 2), ("v", 0)]),
    "dir/": ("P", 0, []),
    "c d/e+f": ("pP", 1, [("v", 0)]),
}
# What the plan made, filled in by prepare: key -> (live, live version id or None for "null", old contents
# newest first: (kind, id)), "bare" bytes without a record among them; and each content's bytes by (key, id).
HISTORY = {}
BODIES = {}
LEGACY = sfx(3, 3, 14)


def body_of(key, vid=None):
    """The bytes of `key`'s content `vid`, its live one when None."""
    return BODIES[(key, vid or HISTORY[key][1] or "null")]


def prepare(t):
    s3 = t.client()
    status = None
    for key, (steps, live, olds) in PLAN.items():
        ids = []
        for n, step in enumerate(steps):
            want = "Enabled" if step.islower() else "Suspended"
            if want != status:
                t.set_versioning(BUCKET, want)
                status = want
            if step.lower() == "p":
                body = b"" if key.endswith("/") else f"{key} #{n}".encode()
                ids.append(s3.put_object(Bucket=BUCKET, Key=key, Body=body).get("VersionId", "null"))
                BODIES[(key, ids[-1])] = body
            else:
                ids.append(s3.delete_object(Bucket=BUCKET, Key=key).get("VersionId", "null"))
        live_id = None if live is None or ids[live] == "null" else ids[live]
        HISTORY[key] = (live is not None, live_id, [(kind, ids[n]) for kind, n in olds])
    # Bytes kept before contents had records; nobody's content: a temporary file, a record whose bytes a
    # crash left behind, a name without stamp.
    HISTORY["legacy"] = (False, None, [("bare", LEGACY)])
    BODIES[("legacy", LEGACY)] = b"legacy bytes"
    for rel, text in ((f"legacy..{LEGACY}", "legacy bytes"), (".orbs3-tmp-1", "x"),
                      (f".orbs3-v-ghost..{sfx(1, 1, 16)}", "<object />"), ("no-stamp..here", "x")):
        with open(t.version(BUCKET, rel), "w") as f:
            f.write(text)


tenant = tenant_fixture("lv", "--user", USER, buckets=[BUCKET], prepare=prepare)


def model(prefix="", delimiter=""):
    """The rows of a listing in order: ("V"|"D", key, id, latest) and ("CP", prefix)."""
    out = []
    for key in sorted(HISTORY, key=lambda k: k.encode()):
        if not key.startswith(prefix):
            continue
        at = key.find(delimiter, len(prefix)) if delimiter else -1
        if at >= 0:
            cp = ("CP", key[:at + len(delimiter)])
            if cp not in out:
                out.append(cp)
            continue
        live, live_id, olds = HISTORY[key]
        rows = [("V", key, live_id or "null", True)] if live else []
        for kind, suffix in olds:
            rows.append(("D" if kind == "d" else "V", key, suffix, not rows))
        out += rows
    return out


def in_document_order(rows):
    """Version and DeleteMarker rows in listing order, then the CommonPrefixes."""
    return [r for r in rows if r[0] != "CP"] + [r for r in rows if r[0] == "CP"]


def raw(t, query, status=200):
    """The document of a signed GET on the bucket with this query (a dict, sent as given)."""
    path = f"/{BUCKET}?" + urllib.parse.urlencode(query, quote_via=urllib.parse.quote)
    reply = t.one_reply(t.signed("GET", path))
    assert status_of(reply) == status, reply
    return reply.partition(b"\r\n\r\n")[2].decode()


def rows_of(doc):
    root = ET.fromstring(doc)
    out = []
    for e in root:
        tag = e.tag[len(NS):]
        if tag in ("Version", "DeleteMarker"):
            out.append(("V" if tag == "Version" else "D", e.find(NS + "Key").text, e.find(NS + "VersionId").text,
                        e.find(NS + "IsLatest").text == "true"))
        elif tag == "CommonPrefixes":
            out.append(("CP", e.find(NS + "Prefix").text))
    return root, out


def test_every_key_of_both_trees_in_key_order_live_first_then_newest(tenant):
    for prefix, delimiter in (("", ""), ("", "/"), ("d/", "/"), ("a", ""), ("a.", "."), ("m", ""), ("nothing", "")):
        query = {"versions": "", "prefix": prefix, **({"delimiter": delimiter} if delimiter else {})}
        root, rows = rows_of(raw(tenant, query))
        assert rows == in_document_order(model(prefix, delimiter)), (prefix, delimiter)
        assert root.find(NS + "IsTruncated").text == "false"
    # boto3 reads the same rows, each with its own content's fields.
    got = tenant.client().list_object_versions(Bucket=BUCKET)
    versions = {(v["Key"], v["VersionId"]): v for v in got["Versions"]}
    markers = {(m["Key"], m["VersionId"]) for m in got["DeleteMarkers"]}
    assert sorted(markers) == sorted((k, i) for kind, k, i, _ in model() if kind == "D")
    assert sorted(versions) == sorted((k, i) for kind, k, i, _ in model() if kind == "V")
    for (key, vid), v in versions.items():
        if key == "legacy":
            # No record: the stamp, the file's size, no ETag.
            assert v["LastModified"].isoformat() == "2026-11-24T10:03:03+00:00" and "ETag" not in v
            assert v["Size"] == len(body_of(key, vid))
            continue
        body = body_of(key, vid)
        assert v["Size"] == len(body) and v["ETag"] == '"%s"' % hashlib.md5(body).hexdigest(), (key, vid)
        assert v["StorageClass"] == "STANDARD" and v["Owner"]["DisplayName"] == USER


def test_paginators_give_every_row_once(tenant):
    s3 = tenant.client()
    for delimiter in ("", "/"):
        want = model("", delimiter)
        for max_keys in (1, 2, 3):
            seen, prefixes = [], []
            pages = s3.get_paginator("list_object_versions").paginate(
                Bucket=BUCKET, Delimiter=delimiter, PaginationConfig={"PageSize": max_keys})
            for page in pages:
                rows = [("V", v["Key"], v["VersionId"]) for v in page.get("Versions", [])] + \
                       [("D", m["Key"], m["VersionId"]) for m in page.get("DeleteMarkers", [])]
                cps = [p["Prefix"] for p in page.get("CommonPrefixes", [])]
                assert 0 < len(rows) + len(cps) <= max_keys, page
                seen += rows
                prefixes += cps
            assert sorted(seen) == sorted(r[:3] for r in want if r[0] != "CP"), (delimiter, max_keys)
            assert len(seen) == len(set(seen))
            assert prefixes == [r[1] for r in want if r[0] == "CP"]
    # The raw pages, resumed through their markers, are the whole listing in order.
    for max_keys in (1, 2):
        got, marker = [], {}
        while True:
            root, rows = rows_of(raw(tenant, {"versions": "", "max-keys": str(max_keys), **marker}))
            got += rows
            if root.find(NS + "IsTruncated").text == "false":
                break
            marker = {"key-marker": root.find(NS + "NextKeyMarker").text,
                      "version-id-marker": root.find(NS + "NextVersionIdMarker").text}
        assert got == model()


def test_document_bytes(tenant):
    s3 = tenant.client()
    live_id = HISTORY["a..b"][1]
    old_id = HISTORY["a..b"][2][0][1]
    head = s3.head_object(Bucket=BUCKET, Key="a..b")
    with open(tenant.version(BUCKET, f".orbs3-v-a..b..{old_id}")) as f:
        old_time = re.search(r'last_modified="([^"]+)"', f.read()).group(1)
    with open(tenant.meta(BUCKET, "a..b")) as f:
        owner_id = re.search(r'owner_id="([^"]*)"', f.read()).group(1)
    owner = f"<Owner><ID>{owner_id}</ID><DisplayName>{USER}</DisplayName></Owner>"
    lm = head["LastModified"].strftime("%Y-%m-%dT%H:%M:%S.000Z")
    etag = head["ETag"].replace('"', "&quot;")
    doc = raw(tenant, {"versions": "", "prefix": "a..", "max-keys": "1"})
    assert doc == (
        '<?xml version="1.0" encoding="UTF-8"?>\n'
        '<ListVersionsResult xmlns="http://s3.amazonaws.com/doc/2006-03-01/"><Name>versions</Name>'
        '<Prefix>a..</Prefix><KeyMarker></KeyMarker><VersionIdMarker></VersionIdMarker><MaxKeys>1</MaxKeys>'
        f'<IsTruncated>true</IsTruncated><NextKeyMarker>a..b</NextKeyMarker><NextVersionIdMarker>{live_id}'
        f'</NextVersionIdMarker><Version><Key>a..b</Key><VersionId>{live_id}</VersionId><IsLatest>true</IsLatest>'
        f'<LastModified>{lm}</LastModified><ETag>{etag}</ETag>'
        f'<Size>{len(body_of("a..b"))}</Size><StorageClass>STANDARD</StorageClass>{owner}</Version>'
        '</ListVersionsResult>'), doc
    doc = raw(tenant, {"versions": "", "prefix": "a..", "key-marker": "a..b", "version-id-marker": live_id,
                       "delimiter": "/"})
    assert doc == (
        '<?xml version="1.0" encoding="UTF-8"?>\n'
        '<ListVersionsResult xmlns="http://s3.amazonaws.com/doc/2006-03-01/"><Name>versions</Name>'
        f'<Prefix>a..</Prefix><KeyMarker>a..b</KeyMarker><VersionIdMarker>{live_id}</VersionIdMarker>'
        '<MaxKeys>1000</MaxKeys><Delimiter>/</Delimiter><IsTruncated>false</IsTruncated>'
        f'<Version><Key>a..b</Key><VersionId>{old_id}</VersionId><IsLatest>false</IsLatest>'
        f'<LastModified>{old_time}</LastModified><ETag>&quot;{hashlib.md5(body_of("a..b", old_id)).hexdigest()}'
        f'&quot;</ETag><Size>{len(body_of("a..b", old_id))}</Size><StorageClass>STANDARD</StorageClass>{owner}'
        '</Version></ListVersionsResult>'), doc
    # A marker, and a page that ends on a common prefix (no version id marker then).
    root, rows = rows_of(raw(tenant, {"versions": "", "prefix": "m1"}))
    assert rows == [("D", "m1", HISTORY["m1"][2][0][1], True)]
    assert root.find(NS + "DeleteMarker").find(NS + "Size") is None
    root, rows = rows_of(raw(tenant, {"versions": "", "delimiter": "/", "key-marker": "c", "max-keys": "1"}))
    assert rows == [("CP", "c d/")] and root.find(NS + "NextKeyMarker").text == "c d/"
    assert root.find(NS + "NextVersionIdMarker") is None


def test_parameters_and_refusals(tenant):
    # encoding-type=url: keys, prefix, markers and delimiter encoded.
    doc = raw(tenant, {"versions": "", "prefix": "c d/", "encoding-type": "url", "key-marker": "c d/e",
                       "delimiter": "+"})
    assert "<Prefix>c%20d/</Prefix>" in doc and "<KeyMarker>c%20d/e</KeyMarker>" in doc, doc
    assert "<Delimiter>%2B</Delimiter>" in doc and "<EncodingType>url</EncodingType>" in doc, doc
    assert re.findall(r"<Prefix>([^<]*)</Prefix></CommonPrefixes>", doc) == ["c%20d/e%2B"], doc
    # max-keys 0 is an empty page that is not truncated; above 1000 is 1000.
    root, rows = rows_of(raw(tenant, {"versions": "", "max-keys": "0"}))
    assert rows == [] and root.find(NS + "IsTruncated").text == "false"
    assert tenant.client().list_object_versions(Bucket=BUCKET, MaxKeys=5000)["MaxKeys"] == 1000
    # A prefix or marker that climbs out lists nothing outside the bucket, as object listings have it.
    for climb in ("../..", "../" + USER, "/", "d//"):
        assert rows_of(raw(tenant, {"versions": "", "prefix": climb}))[1] == [], climb
    assert rows_of(raw(tenant, {"versions": "", "key-marker": "../../zzz", "version-id-marker": "null"}))[1] == \
        model()
    for query in ({"max-keys": "-1"}, {"max-keys": "ten"}, {"encoding-type": "base64"},
                  {"version-id-marker": "null"}, {"key-marker": "a", "version-id-marker": "../../etc"},
                  {"key-marker": "a", "version-id-marker": "2026_11_24_10_00"}):
        assert "<Code>InvalidArgument</Code>" in raw(tenant, {"versions": "", **query}, status=400), query
    assert s3_error(lambda: tenant.client().list_object_versions(Bucket="no-such-bucket")) == (404, "NoSuchBucket")


def flat(t, word, query, status=200):
    return raw(t, {word: "", **query}, status)


def test_flat_listings_of_the_version_and_recycle_trees(tenant):
    # One directory, not descending, stamped names in key order; records and temporary files never show.
    root = ET.fromstring(flat(tenant, "bucketobjver", {"prefix": "d"}))
    keys = [c.find("Key").text for c in root.iter("Contents")]
    assert keys == [f"d/k..{HISTORY['d/k'][2][1][1]}"], keys
    assert [p.find("Prefix").text for p in root.iter("CommonPrefixes")] == ["d/sub/"]
    size = int(next(root.iter("Contents")).find("Size").text)
    assert size == len(body_of("d/k", HISTORY["d/k"][2][1][1]))
    top = ET.fromstring(flat(tenant, "bucketobjver", {}))
    names = [c.find("Key").text for c in top.iter("Contents")]
    assert names == sorted(names, key=lambda s: s.encode()) and "no-stamp..here" in names
    assert not [n for n in names if n.startswith(".orbs3-")]
    # Resuming: start-after, and the marker form of the document with marker.
    root = ET.fromstring(flat(tenant, "bucketobjver", {"start-after": names[0]}))
    assert [c.find("Key").text for c in root.iter("Contents")] == names[1:]
    doc = flat(tenant, "bucketobjver", {"marker": names[-2]})
    assert f"<Marker>{names[-2]}</Marker>" in doc and "<KeyCount>" not in doc, doc
    # The recycle tree: sizes 0.
    rdir = tenant.recycle(BUCKET, "r")
    os.makedirs(rdir, exist_ok=True)
    for name in (f"gone..{sfx(1, 0, 1)}", f".orbs3-v-gone..{sfx(1, 0, 1)}"):
        with open(os.path.join(rdir, name), "w") as f:
            f.write("recycled bytes")
    root = ET.fromstring(flat(tenant, "recycle", {"prefix": "r/"}))
    assert [(c.find("Key").text, c.find("Size").text) for c in root.iter("Contents")] == \
        [(f"r/gone..{sfx(1, 0, 1)}", "0")]
    # A prefix that climbs out of the tree, or into the server's own names, is refused.
    for word in ("bucketobjver", "recycle"):
        for prefix in ("../..", "../" + USER, "d/../..", ".orbs3-tmp"):
            assert "<Code>InvalidArgument</Code>" in flat(tenant, word, {"prefix": prefix}, status=400), prefix


def test_every_listing_runs_the_access_check_of_list_objects(tenant):
    """A bucket whose address rule for this peer grants one bucket permission: each listing of old contents
    is refused or answered exactly as ListObjects is."""
    s3 = tenant.client()
    s3.create_bucket(Bucket="guarded")
    def statuses():
        out = []
        for query in ("", "?versions", "?bucketobjver", "?recycle"):
            reply = tenant.one_reply(tenant.signed("GET", "/guarded" + query))
            out.append(status_of(reply))
            if status_of(reply) == 403:
                assert b"<Code>AccessDenied</Code>" in reply, reply
        return out

    tenant.grant_only("guarded", ["read"])
    assert statuses() == [403] * 4
    tenant.grant_only("guarded", ["list"])
    assert statuses() == [200] * 4


def test_aws_cli_and_rclone_list_the_versions(tenant, tmp_path):
    from orbmux_harness import run
    import json
    env = tenant.env(str(tmp_path))
    out = json.loads(run(tenant.aws() + ["s3api", "list-object-versions", "--bucket", BUCKET, "--page-size", "2"], env))
    assert sorted((v["Key"], v["VersionId"]) for v in out["Versions"]) == \
        sorted((k, i) for kind, k, i, _ in model() if kind == "V")
    assert sorted((m["Key"], m["VersionId"], m["IsLatest"]) for m in out["DeleteMarkers"]) == \
        sorted((k, i, latest) for kind, k, i, latest in model() if kind == "D")
    # rclone shows every version but the markers, the older ones under a name that carries their time.
    lines = run(["/usr/bin/rclone", "lsf", "-R", "--files-only", "--s3-versions", "--s3-list-chunk", "3",
                 "--s3-no-check-bucket", f"om:{BUCKET}"], tenant.rclone(str(tmp_path))).splitlines()
    assert len(lines) == len([r for r in model() if r[0] == "V" and not r[1].endswith("/")]), lines
