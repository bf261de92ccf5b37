"""ACLs as clients send them: canned x-amz-acl and x-amz-grant-* headers on CreateBucket, PutBucketAcl,
PutObject, CopyObject, CreateMultipartUpload and PutObjectAcl; the ACL documents of buckets and objects
(the owner named, every grantee typed) as boto3, s3cmd and the AWS CLI read them. One daemon serves the
module.
"""

import json
import os

from orbmux_harness import run, s3_error, tenant_fixture

USER = "acl-user"
BUCKET = "acls"
OTHER = "acls-other"
ALL = "http://acs.amazonaws.com/groups/global/AllUsers"
AUTH = "http://acs.amazonaws.com/groups/global/AuthenticatedUsers"

tenant = tenant_fixture("acl", "--user", USER, buckets=[BUCKET, OTHER])


def grants(acl):
    """The grants of an ACL reply as (type, who, permission), who being the ID or the URI."""
    return sorted((g["Grantee"]["Type"], g["Grantee"].get("ID") or g["Grantee"].get("URI"), g["Permission"])
                  for g in acl["Grants"])


def owner_of(s3, key):
    """The owner of `key` as the listing shows it from the object's record."""
    rows = s3.list_objects_v2(Bucket=BUCKET, Prefix=key, FetchOwner=True)["Contents"]
    return [r["Owner"] for r in rows if r["Key"] == key][0]


def expect(owner_id, groups):
    return sorted([("CanonicalUser", owner_id, "FULL_CONTROL")] + [("Group", uri, p) for uri, p in groups])


CANNED = [
    ("private", []),
    ("public-read", [(ALL, "READ")]),
    ("public-read-write", [(ALL, "READ"), (ALL, "WRITE")]),
    ("authenticated-read", [(AUTH, "READ")]),
    ("bucket-owner-read", []),
    ("bucket-owner-full-control", []),
]


def test_canned_acls_on_objects_and_their_document(tenant):
    s3 = tenant.client()
    for canned, groups in CANNED:
        key = f"canned/{canned}"
        s3.put_object(Bucket=BUCKET, Key=key, Body=b"x", ACL=canned)
        owner = owner_of(s3, key)
        acl = s3.get_object_acl(Bucket=BUCKET, Key=key)
        assert acl["Owner"] == owner, canned
        assert grants(acl) == expect(owner["ID"], groups), canned
    # A later PUT of the key without an ACL makes it private again, as S3 does.
    s3.put_object(Bucket=BUCKET, Key="canned/public-read", Body=b"y")
    assert grants(s3.get_object_acl(Bucket=BUCKET, Key="canned/public-read")) == expect(
        owner_of(s3, "canned/public-read")["ID"], [])


def test_acl_headers_refused_as_s3_refuses_them(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="refused", Body=b"x")
    cases = [
        (lambda: s3.put_object(Bucket=BUCKET, Key="refused", Body=b"y", ACL="public"), (400, "InvalidArgument")),
        (lambda: s3.put_object_acl(Bucket=BUCKET, Key="refused", ACL="public-read", GrantRead=f'uri="{ALL}"'),
         (400, "InvalidRequest")),
        (lambda: s3.put_object_acl(Bucket=BUCKET, Key="refused", GrantRead='uri="http://example.com/group"'),
         (400, "InvalidArgument")),
        (lambda: s3.put_bucket_acl(Bucket=BUCKET, ACL="no-such-acl"), (400, "InvalidArgument")),
        (lambda: s3.put_object_acl(Bucket=BUCKET, Key="missing", ACL="public-read"), (404, "NoSuchKey")),
    ]
    for call, want in cases:
        assert s3_error(call) == want
    # The refused write left the object as it was.
    assert s3.get_object(Bucket=BUCKET, Key="refused")["Body"].read() == b"x"


def test_put_object_acl_by_grant_headers_canned_and_body(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="granted", Body=b"x")
    owner = owner_of(s3, "granted")
    s3.put_object_acl(Bucket=BUCKET, Key="granted", GrantRead=f'uri="{ALL}"')
    assert grants(s3.get_object_acl(Bucket=BUCKET, Key="granted")) == expect(owner["ID"], [(ALL, "READ")])
    s3.put_object_acl(Bucket=BUCKET, Key="granted", ACL="private")
    assert grants(s3.get_object_acl(Bucket=BUCKET, Key="granted")) == expect(owner["ID"], [])
    # The document a client read back and sends again, with a group grant added.
    doc = s3.get_object_acl(Bucket=BUCKET, Key="granted")
    policy = {"Owner": doc["Owner"], "Grants": doc["Grants"] + [
        {"Grantee": {"Type": "Group", "URI": AUTH}, "Permission": "READ"}]}
    s3.put_object_acl(Bucket=BUCKET, Key="granted", AccessControlPolicy=policy)
    assert grants(s3.get_object_acl(Bucket=BUCKET, Key="granted")) == expect(owner["ID"], [(AUTH, "READ")])
    # The bytes and the record's other fields are untouched by ACL changes.
    head = s3.head_object(Bucket=BUCKET, Key="granted")
    assert head["ContentLength"] == 1 and s3.get_object(Bucket=BUCKET, Key="granted")["Body"].read() == b"x"


def test_acl_on_copy_multipart_and_directory_objects(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="src", Body=b"x", ACL="public-read")
    owner = owner_of(s3, "src")["ID"]
    # A copy takes the request's ACL, never the source's.
    s3.copy_object(Bucket=BUCKET, Key="copy-private", CopySource={"Bucket": BUCKET, "Key": "src"})
    assert grants(s3.get_object_acl(Bucket=BUCKET, Key="copy-private")) == expect(owner, [])
    s3.copy_object(Bucket=BUCKET, Key="copy-auth", CopySource={"Bucket": BUCKET, "Key": "src"},
                   ACL="authenticated-read")
    assert grants(s3.get_object_acl(Bucket=BUCKET, Key="copy-auth")) == expect(owner, [(AUTH, "READ")])
    # The upload keeps the ACL of its Create and gives it to the object at Complete.
    up = s3.create_multipart_upload(Bucket=BUCKET, Key="mp", ACL="public-read-write")
    part = s3.upload_part(Bucket=BUCKET, Key="mp", UploadId=up["UploadId"], PartNumber=1, Body=b"p" * 10)
    s3.complete_multipart_upload(Bucket=BUCKET, Key="mp", UploadId=up["UploadId"],
                                 MultipartUpload={"Parts": [{"PartNumber": 1, "ETag": part["ETag"]}]})
    assert grants(s3.get_object_acl(Bucket=BUCKET, Key="mp")) == expect(owner, [(ALL, "READ"), (ALL, "WRITE")])
    s3.put_object(Bucket=BUCKET, Key="folder/", Body=b"", ACL="public-read")
    assert grants(s3.get_object_acl(Bucket=BUCKET, Key="folder/")) == expect(owner, [(ALL, "READ")])
    s3.put_object_acl(Bucket=BUCKET, Key="folder/", ACL="private")
    assert grants(s3.get_object_acl(Bucket=BUCKET, Key="folder/")) == expect(owner, [])


def test_each_version_keeps_its_own_acl(tenant):
    s3 = tenant.client()
    tenant.set_versioning(OTHER, "Enabled")
    first = s3.put_object(Bucket=OTHER, Key="v", Body=b"1", ACL="public-read")["VersionId"]
    second = s3.put_object(Bucket=OTHER, Key="v", Body=b"2")["VersionId"]
    acl = s3.get_object_acl(Bucket=OTHER, Key="v", VersionId=first)
    owner = acl["Owner"]["ID"]
    assert grants(acl) == expect(owner, [(ALL, "READ")])
    assert grants(s3.get_object_acl(Bucket=OTHER, Key="v")) == expect(owner, [])
    s3.put_object_acl(Bucket=OTHER, Key="v", VersionId=first, ACL="authenticated-read")
    assert grants(s3.get_object_acl(Bucket=OTHER, Key="v", VersionId=first)) == expect(owner, [(AUTH, "READ")])
    assert grants(s3.get_object_acl(Bucket=OTHER, Key="v", VersionId=second)) == expect(owner, [])
    assert s3.get_object(Bucket=OTHER, Key="v", VersionId=first)["Body"].read() == b"1"


def test_bucket_acls_from_headers_and_create(tenant):
    s3 = tenant.client()
    s3.put_bucket_acl(Bucket=BUCKET, ACL="public-read")
    acl = s3.get_bucket_acl(Bucket=BUCKET)
    owner = acl["Owner"]["ID"]
    assert owner and acl["Owner"]["DisplayName"]
    assert grants(acl) == expect(owner, [(ALL, "READ")])
    s3.put_bucket_acl(Bucket=BUCKET, GrantWrite=f'uri="{ALL}"', GrantFullControl=f'id="{owner}"')
    assert grants(s3.get_bucket_acl(Bucket=BUCKET)) == expect(owner, [(ALL, "WRITE")])
    s3.put_bucket_acl(Bucket=BUCKET, ACL="private")
    assert grants(s3.get_bucket_acl(Bucket=BUCKET)) == expect(owner, [])
    s3.create_bucket(Bucket="acls-made-public", ACL="public-read")
    assert grants(s3.get_bucket_acl(Bucket="acls-made-public")) == expect(owner, [(ALL, "READ")])
    assert s3_error(lambda: s3.create_bucket(Bucket="acls-bad", ACL="everyone")) == (400, "InvalidArgument")
    assert s3_error(lambda: s3.head_bucket(Bucket="acls-bad"))[0] == 404


def test_both_headers_and_body_refused(tenant):
    tenant.client().put_object(Bucket=BUCKET, Key="refused", Body=b"x")
    body = (b'<AccessControlPolicy><AccessControlList><Grant><Grantee><ID>x</ID></Grantee>'
            b'<Permission>READ</Permission></Grant></AccessControlList></AccessControlPolicy>')
    for path in (f"/{BUCKET}?acl", f"/{BUCKET}/refused?acl"):
        status, reply = tenant.request("PUT", path, body, headers={"x-amz-acl": "public-read"})
        assert status == 400 and b"<Code>UnexpectedContent</Code>" in reply, reply


def test_s3cmd_and_aws_cli_read_the_acl(tenant, tmp_path):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="tools/x", Body=b"for tools", ACL="public-read")
    env = tenant.env(str(tmp_path))
    s3cmd = tenant.s3cmd()
    info = run(s3cmd + ["info", f"s3://{BUCKET}/tools/x"], env)
    assert "ACL:" in info and "*anon*: READ" in info and "FULL_CONTROL" in info, info
    run(s3cmd + ["cp", f"s3://{BUCKET}/tools/x", f"s3://{OTHER}/tools/y"], env)
    assert s3.get_object(Bucket=OTHER, Key="tools/y")["Body"].read() == b"for tools"
    out = json.loads(run(tenant.aws() + ["s3api", "get-object-acl", "--bucket", BUCKET, "--key", "tools/x"], env))
    assert out["Owner"]["ID"] == owner_of(s3, "tools/x")["ID"]
    assert grants(out) == expect(out["Owner"]["ID"], [(ALL, "READ")])
