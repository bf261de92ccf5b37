"""Objects end to end: PutObject, GetObject and HeadObject through boto3, the AWS CLI, s3cmd, rclone and
curl on presigned URLs; sizes around the receive buffer; metadata and ranges; and the faults an upload
must survive: a wrong digest or payload hash, a client that goes away in mid-body, concurrent writers
with readers looping, and a worker killed in mid-upload. The old object stays whole in every failed
case, and no temporary file is ever seen. One daemon serves the module.
"""

import datetime
import hashlib
import os
import re
import signal
import socket
import subprocess
import threading
import time
import urllib.request

import pytest
from botocore.exceptions import ClientError

from orbmux_harness import (SANITIZED, SLOWDOWN, md5, rss_kib, run, s3_error, tenant_fixture, wait_for, wait_port,
                             worker_pids)

USER = "ob-user"
BUCKET = "objects"
RECV_BUFFER = 1 << 20  # the receive buffer of the built-in configuration


tenant = tenant_fixture("ob", "--user", USER, buckets=[BUCKET])


# ---- boto3 ----

@pytest.mark.parametrize("sig", ["s3v4", "s3"])
def test_boto3_round_trips_every_size_byte_for_byte(tenant, sig):
    s3 = tenant.client(sig)
    for size in (0, 1, RECV_BUFFER - 1, RECV_BUFFER, RECV_BUFFER + 1, 10 << 20):
        data = os.urandom(size)
        key = f"sizes/{sig}/{size}.bin"
        put = s3.put_object(Bucket=BUCKET, Key=key, Body=data)
        assert put["ETag"] == f'"{md5(data)}"', size
        got = s3.get_object(Bucket=BUCKET, Key=key)
        assert got["Body"].read() == data, size
        assert got["ETag"] == f'"{md5(data)}"' and got["ContentLength"] == size
        head = s3.head_object(Bucket=BUCKET, Key=key)
        assert head["ContentLength"] == size and head["ETag"] == put["ETag"]
        with open(tenant.data(BUCKET, key), "rb") as f:
            assert f.read() == data
    assert not tenant.temp_files()


def test_metadata_and_standard_headers_come_back(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="meta/doc.txt", Body=b"hello", ContentType="text/x-custom",
                  CacheControl="max-age=60", ContentDisposition='attachment; filename="d.txt"',
                  ContentEncoding="identity", Metadata={"colour": "red", "Shape": "round square"})
    for got in (s3.get_object(Bucket=BUCKET, Key="meta/doc.txt"), s3.head_object(Bucket=BUCKET, Key="meta/doc.txt")):
        assert got["ContentType"] == "text/x-custom"
        assert got["CacheControl"] == "max-age=60"
        assert got["ContentDisposition"] == 'attachment; filename="d.txt"'
        assert got["ContentEncoding"] == "identity"
        assert got["Metadata"] == {"colour": "red", "shape": "round square"}
    # Too much user metadata is refused and stores nothing.
    assert s3_error(lambda: s3.put_object(Bucket=BUCKET, Key="meta/big", Body=b"x",
                                          Metadata={"m": "v" * 2100})) == (400, "MetadataTooLarge")
    assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key="meta/big"))[0] == 404


def test_reply_headers_chosen_by_query_and_the_default_type(tenant):
    s3 = tenant.client()
    # Sent without a type: S3's "binary/octet-stream", whatever the name's suffix.
    for key in ("hdr/untyped", "hdr/untyped.html"):
        s3.put_object(Bucket=BUCKET, Key=key, Body=b"x")
        assert s3.get_object(Bucket=BUCKET, Key=key)["ContentType"] == "binary/octet-stream", key
    uid = s3.create_multipart_upload(Bucket=BUCKET, Key="hdr/multi.html")["UploadId"]
    etag = s3.upload_part(Bucket=BUCKET, Key="hdr/multi.html", UploadId=uid, PartNumber=1, Body=b"m")["ETag"]
    s3.complete_multipart_upload(Bucket=BUCKET, Key="hdr/multi.html", UploadId=uid,
                                 MultipartUpload={"Parts": [{"PartNumber": 1, "ETag": etag}]})
    s3.copy_object(Bucket=BUCKET, Key="hdr/copy.html", CopySource={"Bucket": BUCKET, "Key": "hdr/multi.html"},
                   MetadataDirective="REPLACE")
    for key in ("hdr/multi.html", "hdr/copy.html"):
        assert s3.head_object(Bucket=BUCKET, Key=key)["ContentType"] == "binary/octet-stream", key
    s3.put_object(Bucket=BUCKET, Key="hdr/doc", Body=b"hello", ContentType="text/plain", ContentEncoding="gzip",
                  CacheControl="max-age=1")
    expires = datetime.datetime(2030, 1, 2, 3, 4, 5, tzinfo=datetime.timezone.utc)
    chosen = s3.get_object(Bucket=BUCKET, Key="hdr/doc", ResponseContentType="application/json",
                           ResponseContentLanguage="de-DE", ResponseExpires=expires, ResponseCacheControl="no-cache",
                           ResponseContentDisposition='attachment; filename="a b+c.txt"',
                           ResponseContentEncoding="identity")
    assert chosen["Body"].read() == b"hello"
    assert (chosen["ContentType"], chosen["ContentLanguage"], chosen["CacheControl"], chosen["ContentEncoding"],
            chosen["ContentDisposition"]) == ("application/json", "de-DE", "no-cache", "identity",
                                              'attachment; filename="a b+c.txt"')
    assert chosen["Expires"] == expires
    # Without them the stored headers, and none stands for Content-Language.
    plain = s3.get_object(Bucket=BUCKET, Key="hdr/doc")
    assert (plain["ContentType"], plain["CacheControl"], plain["ContentEncoding"]) == ("text/plain", "max-age=1", "gzip")
    assert "ContentLanguage" not in plain and "Expires" not in plain
    # A value that would break the header line is refused.
    query = "response-content-type=a%0D%0AX-Injected%3A%201"
    got = tenant.exchange(tenant.signed("GET", f"/{BUCKET}/hdr/doc?{query}"), quiet=2)
    assert got.startswith(b"HTTP/1.1 400 ") and b"X-Injected" not in got.split(b"\r\n\r\n")[0], got


def test_aws_chunked_is_no_content_encoding_and_metadata_keeps_its_bytes(tenant):
    s3 = tenant.client()
    for sent, kept in (("aws-chunked", None), ("aws-chunked,gzip", "gzip"), ("gzip,aws-chunked", "gzip"),
                       ("aws-chunked, br", "br")):
        key = "enc/" + sent.replace(",", "_").replace(" ", "")
        got = chunked_put(tenant, key, b"z" * 1000, encoding=sent)
        assert got.startswith(b"HTTP/1.1 200 OK\r\n"), (sent, got)
        assert s3.head_object(Bucket=BUCKET, Key=key).get("ContentEncoding") == kept, sent
    # Non-ASCII metadata is what the uploader sent, byte for byte.
    value = "caf\u00e9 \u65e5\u672c \u00fc"
    body = b"meta"
    got = tenant.exchange(tenant.signed("PUT", f"/{BUCKET}/meta/utf8", body, {"x-amz-meta-name": value}), quiet=2)
    assert got.startswith(b"HTTP/1.1 200 OK\r\n"), got
    for method in ("GET", "HEAD"):
        got = tenant.exchange(tenant.signed(method, f"/{BUCKET}/meta/utf8"), quiet=2)
        assert b"\r\nx-amz-meta-name: " + value.encode() + b"\r\n" in got, got


def test_ranges_and_conditions(tenant):
    s3 = tenant.client()
    data = bytes(range(256)) * 4
    etag = s3.put_object(Bucket=BUCKET, Key="range.bin", Body=data)["ETag"]
    cases = [("bytes=0-0", 0, 0), ("bytes=10-19", 10, 19), ("bytes=1000-", 1000, 1023), ("bytes=-5", 1019, 1023),
             ("bytes=1000-5000", 1000, 1023), ("bytes=-5000", 0, 1023)]
    for range_value, first, last in cases:
        got = s3.get_object(Bucket=BUCKET, Key="range.bin", Range=range_value)
        assert got["ResponseMetadata"]["HTTPStatusCode"] == 206, range_value
        assert got["ContentRange"] == f"bytes {first}-{last}/1024", range_value
        assert got["Body"].read() == data[first:last + 1], range_value
    # Several ranges: the whole object, as S3 answers.
    got = s3.get_object(Bucket=BUCKET, Key="range.bin", Range="bytes=0-1,5-6")
    assert got["ResponseMetadata"]["HTTPStatusCode"] == 200 and got["Body"].read() == data
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="range.bin", Range="bytes=1024-")) == (416, "InvalidRange")

    assert s3.get_object(Bucket=BUCKET, Key="range.bin", IfMatch=etag)["Body"].read() == data
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="range.bin", IfMatch='"0000"')) == (412, "PreconditionFailed")
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="range.bin", IfNoneMatch=etag))[0] == 304
    modified = s3.head_object(Bucket=BUCKET, Key="range.bin")["LastModified"]
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="range.bin", IfModifiedSince=modified))[0] == 304
    assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key="range.bin",
                                           IfUnmodifiedSince=modified.replace(year=2000)))[0] == 412


def test_ranged_get_and_head_replies_byte_for_byte(tenant):
    tenant.client().put_object(Bucket=BUCKET, Key="exact/a.html", Body=b"0123456789")
    etag = md5(b"0123456789").encode()
    got = tenant.exchange(tenant.signed("GET", f"/{BUCKET}/exact/a.html", headers={"Range": "bytes=0-0"}), quiet=2)
    m = re.search(rb"Last-Modified: ([^\r]+)\r\n", got)
    assert m, got
    assert got == (b"HTTP/1.1 206 Partial Content\r\nConnection: Keep-alive\r\nContent-Range: bytes 0-0/10\r\n"
                   b'ETag: "' + etag + b'"\r\nLast-Modified: ' + m.group(1) + b"\r\nAccept-Ranges: bytes\r\n"
                   b"Content-type: binary/octet-stream\r\nContent-Length: 1\r\n\r\n0"), got
    assert re.fullmatch(rb"(Mon|Tue|Wed|Thu|Fri|Sat|Sun), \d\d (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
                        rb"\d{4} \d\d:\d\d:\d\d GMT", m.group(1))

    got = tenant.exchange(tenant.signed("HEAD", f"/{BUCKET}/exact/a.html"), quiet=2)
    assert got == (b"HTTP/1.1 200 OK\r\nConnection: Keep-alive\r\n"
                   b'ETag: "' + etag + b'"\r\nLast-Modified: ' + m.group(1) + b"\r\nAccept-Ranges: bytes\r\n"
                   b"Content-type: binary/octet-stream\r\nContent-Length: 10\r\n\r\n"), got


def test_directory_objects_and_missing_keys(tenant):
    s3 = tenant.client()
    put = s3.put_object(Bucket=BUCKET, Key="folder/", Body=b"")
    assert re.fullmatch(r'"[0-9a-f]{32}"', put["ETag"])
    assert os.path.isdir(tenant.data(BUCKET, "folder"))
    assert os.path.isdir(os.path.join(tenant.root, "meta", USER, "object", BUCKET, "folder"))
    # The directory object is its record: no bytes, served as an empty object.
    assert s3.get_object(Bucket=BUCKET, Key="folder/")["Body"].read() == b""
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="folder")) == (404, "NoSuchKey")
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="no/such/key")) == (404, "NoSuchKey")
    assert s3_error(lambda: s3.get_object(Bucket="no-such-bucket", Key="k")) == (404, "NoSuchBucket")
    # A key that needs "folder" as a file, or "range.bin" as a directory, can't be stored.
    s3.put_object(Bucket=BUCKET, Key="file-here", Body=b"x")
    assert s3_error(lambda: s3.put_object(Bucket=BUCKET, Key="file-here/below", Body=b"y")) == (400, "InvalidRequest")
    assert s3_error(lambda: s3.put_object(Bucket=BUCKET, Key="folder", Body=b"y")) == (400, "InvalidRequest")
    assert s3.get_object(Bucket=BUCKET, Key="file-here")["Body"].read() == b"x"


# A key is a path: orbmux takes it when its path in the bucket's deepest tree (meta) leaves 96 bytes of
# the 1023 a path may have for the names the server makes beside it.
KEY_PATH_RESERVE = 96


def long_key(length, lead):
    """A key of `length` bytes starting with `lead`, in components of 100 bytes (objectmaxlen is 127)."""
    key = "".join("/" if i % 101 == 100 else "k" for i in range(length))
    return lead + key[len(lead):-1] + "z"


def test_the_longest_key_that_fits_works_for_every_write_and_a_longer_one_is_refused(tenant):
    s3 = tenant.client()
    longest = 1023 - len(os.path.join(tenant.root, "meta", USER, "object", BUCKET)) - 1 - KEY_PATH_RESERVE
    s3.put_object(Bucket=BUCKET, Key="long/source", Body=b"copied")

    def put(key):
        s3.put_object(Bucket=BUCKET, Key=key, Body=b"put")
        return b"put"

    def copy(key):
        s3.copy_object(Bucket=BUCKET, Key=key, CopySource={"Bucket": BUCKET, "Key": "long/source"})
        return b"copied"

    def multipart(key):
        up = s3.create_multipart_upload(Bucket=BUCKET, Key=key)["UploadId"]
        etag = s3.upload_part(Bucket=BUCKET, Key=key, UploadId=up, PartNumber=1, Body=b"part")["ETag"]
        s3.complete_multipart_upload(Bucket=BUCKET, Key=key, UploadId=up,
                                     MultipartUpload={"Parts": [{"PartNumber": 1, "ETag": etag}]})
        return b"part"

    def append(key):
        # position 0 makes the object; a second append grows it.
        for position, body in ((0, b"app"), (3, b"end")):
            status, got = tenant.request("POST", f"/{BUCKET}/{key}?append&position={position}", body)
            if status != 200:
                m = re.search(rb"<Code>([^<]*)</Code>", got)
                raise ClientError({"Error": {"Code": m.group(1).decode() if m else ""},
                                   "ResponseMetadata": {"HTTPStatusCode": status}}, "Append")
        return b"append"

    def stored():
        """Every directory and file of the data and meta trees."""
        return sorted(os.path.join(base, f) for top in ("data", "meta") for base, dirs, files in
                      os.walk(os.path.join(tenant.root, top)) for f in dirs + files)

    for lead, write in (("p", put), ("c", copy), ("m", multipart), ("a", append)):
        key = long_key(longest, lead)
        body = write(key)
        assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == body, lead
        with open(tenant.data(BUCKET, key), "rb") as f:
            assert f.read() == body, lead
        s3.delete_object(Bucket=BUCKET, Key=key)
        before = stored()
        # One byte more, and the longest key objectpathlen allows: refused, nothing made.
        for length in (longest + 1, 1023):
            assert s3_error(lambda: write(long_key(length, lead))) == (400, "KeyTooLongError"), (lead, length)
        assert stored() == before, lead
    assert not tenant.temp_files()


def test_a_data_file_without_record_is_served(tenant):
    os.makedirs(os.path.dirname(tenant.data(BUCKET, "placed/by-hand.css")), exist_ok=True)
    with open(tenant.data(BUCKET, "placed/by-hand.css"), "wb") as f:
        f.write(b"placed")
    got = tenant.client().get_object(Bucket=BUCKET, Key="placed/by-hand.css")
    assert got["Body"].read() == b"placed" and got["ContentType"] == "text/css"
    assert re.fullmatch(r'"[0-9a-f]{32}"', got["ETag"])


# ---- faults: nothing half done is ever seen ----

def test_wrong_digests_commit_nothing(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="guarded", Body=b"old content")
    import base64
    wrong = base64.b64encode(hashlib.md5(b"other").digest()).decode()
    assert s3_error(lambda: s3.put_object(Bucket=BUCKET, Key="guarded", Body=b"new content",
                                          ContentMD5=wrong)) == (400, "BadDigest")
    assert s3_error(lambda: s3.put_object(Bucket=BUCKET, Key="guarded", Body=b"new content",
                                          ContentMD5="not base64")) == (400, "InvalidDigest")
    # The payload hash signed for one body, another body sent.
    got = tenant.exchange(tenant.signed("PUT", f"/{BUCKET}/guarded", b"NEW CONTENT",
                                        payload_hash=hashlib.sha256(b"new content").hexdigest()), quiet=2)
    assert got.startswith(b"HTTP/1.1 400 Bad Request\r\n") and b"<Code>XAmzContentSHA256Mismatch</Code>" in got, got
    assert s3.get_object(Bucket=BUCKET, Key="guarded")["Body"].read() == b"old content"
    assert not tenant.temp_files()


def test_a_client_that_goes_away_mid_body_changes_nothing(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="dropped", Body=b"the old object")
    head = tenant.sign("PUT", f"/{BUCKET}/dropped", "UNSIGNED-PAYLOAD")
    with socket.create_connection(("127.0.0.1", tenant.port), timeout=10) as s:
        s.sendall((head + f"Content-Length: {4 << 20}\r\n\r\n").encode() + b"x" * (1 << 20))
        # The temporary file exists while the body comes, and is never what a reader gets.
        wait_for(lambda: tenant.temp_files(), what="the upload's temporary file")
        assert s3.get_object(Bucket=BUCKET, Key="dropped")["Body"].read() == b"the old object"
    wait_for(lambda: not tenant.temp_files(), what="the temporary file removed")
    assert s3.get_object(Bucket=BUCKET, Key="dropped")["Body"].read() == b"the old object"
    # A short body with the connection kept open until the deadline would take long; closing is the case.


def test_concurrent_writers_and_looping_readers_see_whole_versions(tenant):
    s3s = [tenant.client() for _ in range(6)]
    versions = [bytes([i]) * (300_000 + 7919 * i) for i in range(4)]
    digests = {md5(v): v for v in versions}
    s3s[0].put_object(Bucket=BUCKET, Key="contended", Body=versions[0])
    stop = threading.Event()
    failures = []
    reads = [0]

    def writer(s3, i):
        while not stop.is_set():
            s3.put_object(Bucket=BUCKET, Key="contended", Body=versions[i])

    def reader(s3):
        while not stop.is_set():
            got = s3.get_object(Bucket=BUCKET, Key="contended")
            body = got["Body"].read()
            reads[0] += 1
            if body not in versions:
                failures.append(f"a body of {len(body)} bytes that no writer sent")
            elif got["ETag"] != f'"{md5(body)}"' and got["ETag"].strip('"') in digests:
                failures.append("an ETag of another version")

    threads = [threading.Thread(target=writer, args=(s3s[i], i)) for i in range(4)]
    threads += [threading.Thread(target=reader, args=(s3s[4 + i],)) for i in range(2)]
    for th in threads:
        th.start()
    time.sleep(3)
    stop.set()
    for th in threads:
        th.join(timeout=60)
    assert not failures, failures[:5]
    assert reads[0] > 10
    assert not tenant.temp_files()


def with_headers(s3, headers, call):
    """call() with extra request headers, signed with the others: Debian's boto3 predates IfMatch and
    IfNoneMatch."""
    def add(request, **_):
        for k, v in headers.items():
            del request.headers[k]
            request.headers[k] = v
    s3.meta.events.register("before-sign.s3", add, unique_id="with-headers")
    try:
        return call()
    finally:
        s3.meta.events.unregister("before-sign.s3", unique_id="with-headers")


CONDITION_HEADERS = {"IfMatch": "If-Match", "IfNoneMatch": "If-None-Match"}


def conditional(s3, cond, call):
    """call() with the conditions given as boto3 would name them (IfMatch=..., IfNoneMatch=...)."""
    return with_headers(s3, {CONDITION_HEADERS[k]: v for k, v in cond.items()}, call)


def cond_put(s3, key, body, **cond):
    return conditional(s3, cond, lambda: s3.put_object(Bucket=BUCKET, Key=key, Body=body))["ETag"]


def test_conditional_puts_and_racing_creators(tenant):
    s3 = tenant.client()
    first = cond_put(s3, "cond/once", b"one", IfNoneMatch="*")
    assert s3_error(lambda: cond_put(s3, "cond/once", b"two", IfNoneMatch="*")) == (412, "PreconditionFailed")
    assert s3_error(lambda: cond_put(s3, "cond/once", b"two",
                                     IfMatch='"00000000000000000000000000000000"')) == (412, "PreconditionFailed")
    # S3 takes only "*" in If-None-Match of a write.
    assert s3_error(lambda: cond_put(s3, "cond/once", b"two", IfNoneMatch=first))[0] == 501
    assert s3.get_object(Bucket=BUCKET, Key="cond/once")["Body"].read() == b"one"
    second = cond_put(s3, "cond/once", b"two", IfMatch=first)
    assert second == f'"{md5(b"two")}"'
    assert s3_error(lambda: cond_put(s3, "cond/once", b"three", IfMatch=first)) == (412, "PreconditionFailed")
    assert s3_error(lambda: cond_put(s3, "cond/none", b"x", IfMatch=first)) == (404, "NoSuchKey")
    assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key="cond/none"))[0] == 404
    # A directory object is judged by its record.
    cond_put(s3, "cond/dir/", b"", IfNoneMatch="*")
    assert s3_error(lambda: cond_put(s3, "cond/dir/", b"", IfNoneMatch="*")) == (412, "PreconditionFailed")

    # Writers racing with the same condition: exactly one wins, and the object is the winner's.
    clients = [tenant.client() for _ in range(8)]
    for round_ in range(5):
        cond = {"IfNoneMatch": "*"} if round_ < 3 else {"IfMatch": second}
        key = f"cond/race{round_}" if round_ < 3 else "cond/once"
        bodies = [os.urandom(200_000 + i) for i in range(8)]
        barrier = threading.Barrier(8)
        results = [None] * 8

        def put(i):
            barrier.wait()
            try:
                results[i] = cond_put(clients[i], key, bodies[i], **cond)
            except ClientError as e:
                results[i] = e.response["ResponseMetadata"]["HTTPStatusCode"]

        threads = [threading.Thread(target=put, args=(i,)) for i in range(8)]
        for th in threads:
            th.start()
        for th in threads:
            th.join(timeout=60)
        winners = [i for i, r in enumerate(results) if isinstance(r, str)]
        losers = [r for r in results if not isinstance(r, str)]
        assert len(winners) == 1 and losers == [412] * 7, (round_, results)
        got = s3.get_object(Bucket=BUCKET, Key=key)
        assert got["Body"].read() == bodies[winners[0]] and got["ETag"] == results[winners[0]]
        if round_ >= 3:
            second = results[winners[0]]
    assert not tenant.temp_files()


def test_a_worker_killed_mid_upload_leaves_the_old_object(tenant):
    s3 = tenant.client()
    s3.put_object(Bucket=BUCKET, Key="survivor", Body=b"before the crash")
    head = tenant.sign("PUT", f"/{BUCKET}/survivor", "UNSIGNED-PAYLOAD")
    s = socket.create_connection(("127.0.0.1", tenant.port), timeout=10)
    try:
        s.sendall((head + f"Content-Length: {8 << 20}\r\n\r\n").encode() + b"y" * (2 << 20))
        wait_for(lambda: tenant.temp_files(), what="the upload's temporary file")
        for pid in worker_pids(tenant):
            os.kill(pid, signal.SIGKILL)
    finally:
        s.close()
    with open(tenant.data(BUCKET, "survivor"), "rb") as f:
        assert f.read() == b"before the crash"
    # The node is started again; the old object is served, and the crash's leftover is never taken for it.
    tenant.daemon.stop()
    tenant.daemon = tenant.box.start("-d")
    wait_port(tenant.port)
    got = wait_for(lambda: _get_or_none(s3, "survivor"), timeout=30, what="the object served again")
    assert got == b"before the crash"
    # The killed upload's temporary file is what a crash leaves: never served, and removable by hand.
    leftovers = tenant.temp_files()
    assert len(leftovers) == 1 and os.path.dirname(leftovers[0]) == os.path.dirname(tenant.data(BUCKET, "survivor"))
    os.unlink(leftovers[0])


def _get_or_none(s3, key):
    try:
        return s3.get_object(Bucket=BUCKET, Key=key)["Body"].read()
    except Exception:
        return None


# ---- other clients ----

def test_aws_cli_copies_up_and_down_with_metadata_and_ranges(tenant, tmp_path):
    env = tenant.env(str(tmp_path))
    aws = tenant.aws()
    src = tmp_path / "up.dat"
    data = os.urandom(3 << 20)
    src.write_bytes(data)
    run(aws + ["s3", "cp", str(src), f"s3://{BUCKET}/cli/up.dat"], env)
    run(aws + ["s3", "cp", f"s3://{BUCKET}/cli/up.dat", str(tmp_path / "down.dat")], env)
    assert (tmp_path / "down.dat").read_bytes() == data
    run(aws + ["s3api", "put-object", "--bucket", BUCKET, "--key", "cli/meta.txt", "--body", str(src),
               "--metadata", "owner=cli", "--content-type", "text/plain"], env)
    out = run(aws + ["s3api", "head-object", "--bucket", BUCKET, "--key", "cli/meta.txt"], env)
    assert '"owner": "cli"' in out and '"ContentType": "text/plain"' in out and f'"ContentLength": {len(data)}' in out
    run(aws + ["s3api", "get-object", "--bucket", BUCKET, "--key", "cli/meta.txt", "--range", "bytes=100-199",
               str(tmp_path / "part")], env)
    assert (tmp_path / "part").read_bytes() == data[100:200]


@pytest.mark.parametrize("v2", [False, True], ids=["v4", "v2"])
def test_s3cmd_puts_and_gets(tenant, tmp_path, v2):
    s3cmd = tenant.s3cmd(v2)
    env = tenant.env(str(tmp_path))
    src = tmp_path / "s3cmd.dat"
    data = os.urandom(200_000)
    src.write_bytes(data)
    key = f"s3cmd/{'v2' if v2 else 'v4'} file.dat"
    run(s3cmd + ["put", str(src), f"s3://{BUCKET}/{key}"], env)
    run(s3cmd + ["get", "--force", f"s3://{BUCKET}/{key}", str(tmp_path / "back.dat")], env)
    assert (tmp_path / "back.dat").read_bytes() == data


def test_rclone_copies_up_and_down(tenant, tmp_path):
    env = tenant.rclone(str(tmp_path))
    src = tmp_path / "rc.dat"
    data = os.urandom(1_500_000)
    src.write_bytes(data)
    # No listing yet: single files, without looking at what the destination holds.
    flags = ["--no-traverse", "--s3-no-check-bucket", "--retries", "1"]
    run(["/usr/bin/rclone", "copyto", *flags, str(src), f"om:{BUCKET}/rclone/rc.dat"], env)
    run(["/usr/bin/rclone", "copyto", *flags, f"om:{BUCKET}/rclone/rc.dat", str(tmp_path / "back.dat")], env)
    assert (tmp_path / "back.dat").read_bytes() == data
    # rclone compared the MD5 it computed with the ETag on both ways; a mismatch would have failed above.


def test_curl_with_presigned_urls(tenant, tmp_path):
    s3 = tenant.client()
    data = os.urandom(50_000)
    src = tmp_path / "curl.dat"
    src.write_bytes(data)
    put_url = s3.generate_presigned_url("put_object", Params={"Bucket": BUCKET, "Key": "curl/x.dat"}, ExpiresIn=300)
    subprocess.run(["/usr/bin/curl", "-sf", "-T", str(src), put_url], check=True, timeout=60)
    get_url = s3.generate_presigned_url("get_object", Params={"Bucket": BUCKET, "Key": "curl/x.dat"}, ExpiresIn=300)
    out = subprocess.run(["/usr/bin/curl", "-sf", get_url], check=True, capture_output=True, timeout=60)
    assert out.stdout == data
    with urllib.request.urlopen(get_url, timeout=30) as r:
        assert r.headers["ETag"] == f'"{md5(data)}"'


# ---- aws-chunked bodies and additional checksums ----

def hmac256(key, text):
    import hmac
    return hmac.new(key, text.encode() if isinstance(text, str) else text, hashlib.sha256).digest()


def signing_key(secret, day):
    k = hmac256(("AWS4" + secret).encode(), day)
    for part in ("us-east-1", "s3", "aws4_request"):
        k = hmac256(k, part)
    return k


def signed_chunks(t, head, data, chunk=65536):
    """The STREAMING-AWS4-HMAC-SHA256-PAYLOAD framing of data, each chunk signed after the one before,
    the first after the signature of the request `head`."""
    seed = re.search(r"Signature=(\w+)", head).group(1)
    amz_date = re.search(r"X-Amz-Date: (\w+)", head).group(1)
    key = signing_key(t.info["secret_key"], amz_date[:8])
    scope = f"{amz_date[:8]}/us-east-1/s3/aws4_request"
    empty = hashlib.sha256(b"").hexdigest()
    out, prev = b"", seed
    pieces = [data[i:i + chunk] for i in range(0, len(data), chunk)] + [b""]
    for piece in pieces:
        text = "\n".join(["AWS4-HMAC-SHA256-PAYLOAD", amz_date, scope, prev, empty, hashlib.sha256(piece).hexdigest()])
        prev = hmac256(key, text).hex()
        out += f"{len(piece):x};chunk-signature={prev}\r\n".encode() + piece + b"\r\n"
    return out


def chunked_put(t, key, data, corrupt=False, encoding="aws-chunked"):
    path = f"/{BUCKET}/{key}"
    framed_len = len(signed_chunks(t, "Signature=0\r\nX-Amz-Date: 20260101T000000Z", data))
    extra = {"Content-Encoding": encoding, "x-amz-decoded-content-length": str(len(data))}
    head = t.sign("PUT", path, "STREAMING-AWS4-HMAC-SHA256-PAYLOAD", extra)
    body = signed_chunks(t, head, data)
    assert len(body) == framed_len
    if corrupt:
        at = body.index(b"\r\n") + 10  # a byte of the first chunk's data
        body = body[:at] + bytes([body[at] ^ 1]) + body[at + 1:]
    return t.exchange((head + f"Content-Length: {len(body)}\r\n\r\n").encode() + body, quiet=2)


def test_signed_aws_chunked_bodies_are_decoded_and_checked(tenant):
    s3 = tenant.client()
    data = os.urandom(200_000)
    got = chunked_put(tenant, "chunked/signed.bin", data)
    assert got.startswith(b"HTTP/1.1 200 OK\r\n"), got
    stored = s3.get_object(Bucket=BUCKET, Key="chunked/signed.bin")
    assert stored["Body"].read() == data and stored["ETag"] == f'"{md5(data)}"'
    # One flipped bit in a chunk: its signature fails and the object stays as it was.
    got = chunked_put(tenant, "chunked/signed.bin", os.urandom(200_000), corrupt=True)
    assert got.startswith(b"HTTP/1.1 403 Forbidden\r\n") and b"<Code>SignatureDoesNotMatch</Code>" in got, got
    assert s3.get_object(Bucket=BUCKET, Key="chunked/signed.bin")["Body"].read() == data
    assert not tenant.temp_files()


def unsigned_trailer_put(t, key, data, crc_value=None, algorithm="crc32"):
    crc = crc_value or checksum_b64(algorithm.upper(), data)
    body = b""
    for i in range(0, len(data), 100_000):
        piece = data[i:i + 100_000]
        body += f"{len(piece):x}\r\n".encode() + piece + b"\r\n"
    body += f"0\r\nx-amz-checksum-{algorithm}:{crc}\r\n\r\n".encode()
    extra = {"Content-Encoding": "aws-chunked", "x-amz-decoded-content-length": str(len(data)),
             "x-amz-trailer": f"x-amz-checksum-{algorithm}"}
    head = t.sign("PUT", f"/{BUCKET}/{key}", "STREAMING-UNSIGNED-PAYLOAD-TRAILER", extra)
    return t.exchange((head + f"Content-Length: {len(body)}\r\n\r\n").encode() + body, quiet=2), crc


def test_unsigned_trailer_bodies_keep_their_checksum(tenant):
    s3 = tenant.client()
    data = os.urandom(250_000)
    got, crc = unsigned_trailer_put(tenant, "chunked/trailer.bin", data)
    assert got.startswith(b"HTTP/1.1 200 OK\r\n"), got
    stored = s3.get_object(Bucket=BUCKET, Key="chunked/trailer.bin", ChecksumMode="ENABLED")
    assert stored["Body"].read() == data and stored["ChecksumCRC32"] == crc
    # Without asking, no checksum is given.
    assert "ChecksumCRC32" not in s3.head_object(Bucket=BUCKET, Key="chunked/trailer.bin")
    got, _ = unsigned_trailer_put(tenant, "chunked/trailer.bin", os.urandom(250_000), crc_value="AAAAAA==")
    assert got.startswith(b"HTTP/1.1 400 Bad Request\r\n") and b"<Code>BadDigest</Code>" in got, got
    assert s3.get_object(Bucket=BUCKET, Key="chunked/trailer.bin")["Body"].read() == data


@pytest.mark.parametrize("algorithm", ["CRC32", "CRC32C", "SHA1", "SHA256"])
def test_additional_checksums_are_verified_stored_and_given_back(tenant, algorithm):
    s3 = tenant.client()
    data = os.urandom(70_000)
    key = f"checksum/{algorithm}"
    put = s3.put_object(Bucket=BUCKET, Key=key, Body=data, ChecksumAlgorithm=algorithm)
    assert put["ETag"] == f'"{md5(data)}"'
    head = s3.head_object(Bucket=BUCKET, Key=key, ChecksumMode="ENABLED")
    field = {"CRC32": "ChecksumCRC32", "CRC32C": "ChecksumCRC32C", "SHA1": "ChecksumSHA1",
             "SHA256": "ChecksumSHA256"}[algorithm]
    assert head[field], head
    # The same value sent wrong by hand is refused, and the stored object stays.
    wrong = {"x-amz-checksum-" + algorithm.lower(): head[field][:-4] + ("AAA=" if head[field][-4:] != "AAA=" else "BBB=")}
    got = tenant.exchange(tenant.signed("PUT", f"/{BUCKET}/{key}", b"other", wrong), quiet=2)
    assert got.startswith(b"HTTP/1.1 400 Bad Request\r\n") and b"<Code>BadDigest</Code>" in got, got
    assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == data


def _crc_table(poly):
    table = []
    for i in range(256):
        c = i
        for _ in range(8):
            c = (c >> 1) ^ poly if c & 1 else c >> 1
        table.append(c)
    return table


_CRC = {"CRC32C": (_crc_table(0x82F63B78), 4), "CRC64NVME": (_crc_table(0x9A6C9329AC4BC9B5), 8)}


def checksum_raw(algorithm, data):
    """The raw value of an additional checksum, computed here independently of the server."""
    import zlib
    if algorithm in ("SHA1", "SHA256"):
        return hashlib.new(algorithm.lower(), data).digest()
    if algorithm == "CRC32":
        return zlib.crc32(data).to_bytes(4, "big")
    table, size = _CRC[algorithm]
    mask = (1 << 8 * size) - 1
    c = mask
    for b in data:
        c = table[(c ^ b) & 0xFF] ^ (c >> 8)
    return (c ^ mask).to_bytes(size, "big")


def checksum_b64(algorithm, data):
    import base64
    return base64.b64encode(checksum_raw(algorithm, data)).decode()


def extra_headers(s3, headers):
    """Makes every request of `s3` carry `headers`, signed: for what this botocore has no parameter for."""
    def add(request, **_):
        for k, v in headers.items():
            request.headers[k] = v
    s3.meta.events.register_first("before-sign.s3.*", add)
    return s3


def test_crc64nvme_is_verified_stored_and_given_back(tenant):
    data = os.urandom(70_000)
    value = checksum_b64("CRC64NVME", data)
    assert checksum_b64("CRC64NVME", b"123456789") == "rosUhgp5mIg="  # 0xae8b14860a799888
    s3 = extra_headers(tenant.client(), {"x-amz-checksum-crc64nvme": value})
    s3.put_object(Bucket=BUCKET, Key="checksum/crc64nvme", Body=data)
    head = tenant.client().head_object(Bucket=BUCKET, Key="checksum/crc64nvme", ChecksumMode="ENABLED")
    headers = head["ResponseMetadata"]["HTTPHeaders"]
    assert headers.get("x-amz-checksum-crc64nvme") == value, headers
    assert headers.get("x-amz-checksum-type") == "FULL_OBJECT", headers
    wrong = extra_headers(tenant.client(), {"x-amz-checksum-crc64nvme": checksum_b64("CRC64NVME", b"x")})
    from botocore.exceptions import ClientError
    with pytest.raises(ClientError) as err:
        wrong.put_object(Bucket=BUCKET, Key="checksum/crc64nvme", Body=b"other")
    error = err.value.response["Error"]
    assert (error["Code"], error["Message"]) == (
        "BadDigest", "The CRC64NVME you specified did not match the calculated checksum.")
    # Also in the trailer of an aws-chunked body.
    got, _ = unsigned_trailer_put(tenant, "checksum/crc64nvme-trailer", data, value, "crc64nvme")
    assert got.startswith(b"HTTP/1.1 200 OK\r\n"), got
    got, _ = unsigned_trailer_put(tenant, "checksum/crc64nvme-trailer", data, "AAAAAAAAAAA=", "crc64nvme")
    assert b"<Code>BadDigest</Code>" in got, got
    assert tenant.client().get_object(Bucket=BUCKET, Key="checksum/crc64nvme")["Body"].read() == data


def test_a_checksum_goes_out_only_with_the_bytes_it_describes(tenant):
    """Clients check x-amz-checksum-* against the bytes they receive: a range gets none, the whole object
    (also as a range that covers it, or its part 1) gets its own."""
    s3 = tenant.client()
    data = os.urandom(10_000)
    s3.put_object(Bucket=BUCKET, Key="checksum/ranged", Body=data, ChecksumAlgorithm="CRC32")
    want = checksum_b64("CRC32", data)

    def get(**kw):
        r = s3.get_object(Bucket=BUCKET, Key="checksum/ranged", ChecksumMode="ENABLED", **kw)
        return r["Body"].read(), r["ResponseMetadata"]["HTTPHeaders"]

    for kw, body in [({"Range": "bytes=0-99"}, data[:100]), ({"Range": "bytes=-10"}, data[-10:]),
                     ({"Range": "bytes=5000-"}, data[5000:])]:
        got, headers = get(**kw)
        assert got == body and "x-amz-checksum-crc32" not in headers, (kw, headers)
    for kw in [{}, {"Range": "bytes=0-"}, {"Range": "bytes=0-9999"}, {"PartNumber": 1}]:
        got, headers = get(**kw)
        assert got == data and headers.get("x-amz-checksum-crc32") == want, (kw, headers)
    # Part 1 of an object sent whole is all of it, as a range; it has no part 2.
    one = s3.get_object(Bucket=BUCKET, Key="checksum/ranged", PartNumber=1)
    assert one["ResponseMetadata"]["HTTPStatusCode"] == 206
    assert one["ContentRange"] == "bytes 0-9999/10000" and "PartsCount" not in one
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="checksum/ranged", PartNumber=2)) == (
        416, "InvalidPartNumber")
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key="checksum/ranged", PartNumber=1, Range="bytes=0-1")) == (
        400, "InvalidRequest")


# ---- a large object in bounded memory ----

@pytest.mark.skipif(SANITIZED, reason="sanitizer builds keep freed memory in quarantine; RSS says nothing there")
def test_one_gib_streams_through_in_bounded_memory(tenant):
    size, block = 1 << 30, os.urandom(1 << 20)
    workers = worker_pids(tenant)
    assert workers
    before = sum(rss_kib(p) for p in workers)
    digest = hashlib.md5()
    head = tenant.sign("PUT", f"/{BUCKET}/large/one-gib.bin", "UNSIGNED-PAYLOAD")
    with socket.create_connection(("127.0.0.1", tenant.port), timeout=60 * SLOWDOWN) as s:
        s.sendall((head + f"Content-Length: {size}\r\n\r\n").encode())
        for _ in range(size // len(block)):
            s.sendall(block)
            digest.update(block)
        reply = s.recv(65536)
    assert reply.startswith(b"HTTP/1.1 200 OK\r\n"), reply
    assert f'"{digest.hexdigest()}"'.encode() in reply, reply
    after = sum(rss_kib(p) for p in workers)
    print(f"worker RSS {before} KiB before, {after} KiB after a 1 GiB upload")
    assert after - before < 64 * 1024, (before, after)

    url = tenant.client().generate_presigned_url("get_object", Params={"Bucket": BUCKET, "Key": "large/one-gib.bin"})
    back = hashlib.md5()
    with urllib.request.urlopen(url, timeout=60 * SLOWDOWN) as r:
        assert int(r.headers["Content-Length"]) == size
        while chunk := r.read(1 << 20):
            back.update(chunk)
    assert back.hexdigest() == digest.hexdigest()
    os.unlink(tenant.data(BUCKET, "large/one-gib.bin"))


@pytest.mark.parametrize("setting", [None, "WHEN_REQUIRED"], ids=["default-checksums", "when-required"])
def test_boto3_transfers_with_either_checksum_setting(tenant, tmp_path, monkeypatch, setting):
    """boto3's managed transfer (upload_file, download_file) as applications use it. Newer botocore sends
    a CRC32 trailer unless AWS_REQUEST_CHECKSUM_CALCULATION=WHEN_REQUIRED; the botocore of this machine
    may predate that and then behaves the same under both settings."""
    if setting is None:
        monkeypatch.delenv("AWS_REQUEST_CHECKSUM_CALCULATION", raising=False)
    else:
        monkeypatch.setenv("AWS_REQUEST_CHECKSUM_CALCULATION", setting)
    s3 = tenant.client()
    src = tmp_path / "transfer.bin"
    data = os.urandom(5 << 20)
    src.write_bytes(data)
    key = f"transfer/{setting or 'default'}.bin"
    s3.upload_file(str(src), BUCKET, key)
    s3.download_file(BUCKET, key, str(tmp_path / "back.bin"))
    assert (tmp_path / "back.bin").read_bytes() == data
    assert s3.head_object(Bucket=BUCKET, Key=key)["ETag"] == f'"{md5(data)}"'
