"""Multipart upload end to end: the AWS CLI, boto3, rclone and s3cmd sending large files in parts and
getting them back byte for byte, UploadPartCopy through an s3-to-s3 copy, and the faults an upload must
survive: a worker killed between parts, parts sent in parallel and re-sent, Complete documents that must
be refused, an Abort while a part streams, two Completes racing. ETags are checked against S3's own
formula. One daemon serves the module, with the least part size lowered to 1 KiB so that the fault
tests stay small.
"""

import hashlib
import os
import signal
import socket
import subprocess
import threading
import time
import urllib.error
import urllib.request

import pytest
from boto3.s3.transfer import TransferConfig
from botocore.exceptions import ClientError

from orbmux_harness import (DEFAULT_ORBMUX_CONF, SANITIZED, SLOWDOWN, run, s3_error, tenant_fixture, wait_for,
                             wait_port, worker_pids)
from test_objects import checksum_b64, checksum_raw, conditional, extra_headers, signed_chunks

USER = "mp-user"
BUCKET = "parts"
MIN_PART = 1024
MiB = 1 << 20


def reserved_names(t, bucket=BUCKET):
    """Every name of the bucket's data tree that belongs to the server."""
    found = []
    for base, dirs, files in os.walk(t.data(bucket)):
        found += [os.path.join(base, n) for n in dirs + files if n.startswith(".orbs3-")]
    return found


tenant = tenant_fixture(
    "mp", "--user", USER, buckets=[BUCKET],
    orbmux_conf=DEFAULT_ORBMUX_CONF.replace('objectdirnum="10"', f'objectdirnum="10" multipart_min_part="{MIN_PART}"'))


def multipart_etag(parts):
    """S3's ETag of an object made of `parts` (their bytes, in order)."""
    digests = b"".join(hashlib.md5(p).digest() for p in parts)
    return f'"{hashlib.md5(digests).hexdigest()}-{len(parts)}"'


def file_md5(path):
    h = hashlib.md5()
    with open(path, "rb") as f:
        while chunk := f.read(8 * MiB):
            h.update(chunk)
    return h.hexdigest()


def object_md5(s3, key):
    h = hashlib.md5()
    for chunk in s3.get_object(Bucket=BUCKET, Key=key)["Body"].iter_chunks(8 * MiB):
        h.update(chunk)
    return h.hexdigest()


def sparse_file(path, size, seed):
    """A file of `size` bytes, mostly holes, with random blocks at a few places (so that a part put in the
    wrong place changes its checksum)."""
    rnd = __import__("random").Random(seed)
    with open(path, "wb") as f:
        f.truncate(size)
        for _ in range(16):
            f.seek(rnd.randrange(0, max(1, size - 4096)))
            f.write(rnd.randbytes(min(4096, size)))
        if size:
            f.seek(size - 1)
            f.write(b"\x01")


def start_upload(s3, key, **extra):
    return s3.create_multipart_upload(Bucket=BUCKET, Key=key, **extra)["UploadId"]


def put_part(s3, key, uid, number, data):
    return s3.upload_part(Bucket=BUCKET, Key=key, UploadId=uid, PartNumber=number, Body=data)["ETag"]


def complete(s3, key, uid, parts):
    return s3.complete_multipart_upload(Bucket=BUCKET, Key=key, UploadId=uid,
                                        MultipartUpload={"Parts": [{"PartNumber": n, "ETag": e} for n, e in parts]})


# ---- real clients ----

def test_aws_cli_copies_files_up_and_down_by_checksum(tenant, tmp_path):
    env = tenant.env(str(tmp_path))
    s3 = tenant.client()
    sizes = [0, 8 * MiB + 1] + ([] if SANITIZED else [100 * MiB])
    for size in sizes:
        src = tmp_path / f"up-{size}"
        sparse_file(src, size, size)
        key = f"cli/f{size}"
        run(tenant.aws() + ["s3", "cp", str(src), f"s3://{BUCKET}/{key}"], env)
        back = tmp_path / f"down-{size}"
        run(tenant.aws() + ["s3", "cp", f"s3://{BUCKET}/{key}", str(back)], env)
        assert file_md5(back) == file_md5(src), size
        head = s3.head_object(Bucket=BUCKET, Key=key)
        assert head["ContentLength"] == size
        if size > 8 * MiB:
            data = src.read_bytes()
            chunks = [data[i:i + 8 * MiB] for i in range(0, size, 8 * MiB)]
            assert head["ETag"] == multipart_etag(chunks)
    assert not reserved_names(tenant)


@pytest.mark.skipif(SANITIZED, reason="5 GiB through the sanitizer build takes too long")
def test_aws_cli_five_gib_and_one_byte(tenant, tmp_path):
    env = tenant.env(str(tmp_path))
    size = (5 << 30) + 1
    src = tmp_path / "big"
    sparse_file(src, size, 5)
    # Larger parts keep the part count (and the CLI's own work) down; the server sees 5 GiB either way.
    cfg = tmp_path / "aws.cfg"
    cfg.write_text("[default]\ns3 =\n  multipart_chunksize = 256MB\n  max_concurrent_requests = 4\n")
    run(tenant.aws() + ["s3", "cp", str(src), f"s3://{BUCKET}/big/five"], {**env, "AWS_CONFIG_FILE": str(cfg)},
        timeout=600)
    s3 = tenant.client(read_timeout=300)
    assert s3.head_object(Bucket=BUCKET, Key="big/five")["ContentLength"] == size
    listed = s3.list_objects_v2(Bucket=BUCKET, Prefix="big/")["Contents"]
    assert [(o["Key"], o["Size"]) for o in listed] == [("big/five", size)]
    assert object_md5(s3, "big/five") == file_md5(src)
    # 5 GiB of disk given back at once (nothing later in the module looks under big/).
    os.unlink(os.path.join(tenant.data(BUCKET), "big", "five"))


def test_boto3_upload_file_with_threads_keeps_metadata(tenant, tmp_path):
    s3 = tenant.client()
    data = os.urandom(42 * MiB)
    src = tmp_path / "threads.dat"
    src.write_bytes(data)
    cfg = TransferConfig(multipart_threshold=5 * MiB, multipart_chunksize=5 * MiB, max_concurrency=8)
    s3.upload_file(str(src), BUCKET, "boto/threads.dat", Config=cfg,
                   ExtraArgs={"ContentType": "application/x-test", "Metadata": {"origin": "boto3"}})
    head = s3.head_object(Bucket=BUCKET, Key="boto/threads.dat")
    assert head["ContentLength"] == len(data)
    assert head["ContentType"] == "application/x-test" and head["Metadata"] == {"origin": "boto3"}
    assert head["ETag"] == multipart_etag([data[i:i + 5 * MiB] for i in range(0, len(data), 5 * MiB)])
    back = tmp_path / "back.dat"
    s3.download_file(BUCKET, "boto/threads.dat", str(back), Config=cfg)
    assert back.read_bytes() == data


def test_rclone_copies_a_large_file(tenant, tmp_path):
    env = tenant.rclone(str(tmp_path))
    src = tmp_path / "rc"
    src.mkdir()
    data = os.urandom(24 * MiB)
    (src / "large.dat").write_bytes(data)
    flags = ["--s3-upload-cutoff", "5M", "--s3-chunk-size", "5M", "--s3-upload-concurrency", "4",
             "--s3-no-check-bucket", "--retries", "1"]
    run(["/usr/bin/rclone", "copy", *flags, str(src), f"om:{BUCKET}/rclone"], env)
    run(["/usr/bin/rclone", "copyto", *flags, f"om:{BUCKET}/rclone/large.dat", str(tmp_path / "back.dat")], env)
    assert (tmp_path / "back.dat").read_bytes() == data
    # rclone keeps the whole file's MD5 as metadata of a multipart upload: Create's metadata reached the object.
    meta = tenant.client().head_object(Bucket=BUCKET, Key="rclone/large.dat")["Metadata"]
    assert meta.get("md5chksum"), meta


def test_s3cmd_puts_in_five_mib_parts(tenant, tmp_path):
    s3cmd = tenant.s3cmd() + ["--multipart-chunk-size-mb=5"]
    env = tenant.env(str(tmp_path))
    src = tmp_path / "s3cmd.dat"
    data = os.urandom(13 * MiB)
    src.write_bytes(data)
    run(s3cmd + ["put", str(src), f"s3://{BUCKET}/s3cmd/multi.dat"], env)
    run(s3cmd + ["get", "--force", f"s3://{BUCKET}/s3cmd/multi.dat", str(tmp_path / "back.dat")], env)
    assert (tmp_path / "back.dat").read_bytes() == data
    head = tenant.client().head_object(Bucket=BUCKET, Key="s3cmd/multi.dat")
    assert head["ETag"] == multipart_etag([data[i:i + 5 * MiB] for i in range(0, len(data), 5 * MiB)])


def test_aws_cli_s3_to_s3_copy_above_the_threshold_uses_upload_part_copy(tenant, tmp_path):
    env = tenant.env(str(tmp_path))
    s3 = tenant.client()
    data = os.urandom(20 * MiB + 12345)
    s3.put_object(Bucket=BUCKET, Key="copy/src.dat", Body=data, Metadata={"from": "source"})
    # Tags are not copied (no object tagging here); the metadata is, through CreateMultipartUpload.
    run(tenant.aws() + ["s3", "cp", "--copy-props", "metadata-directive", f"s3://{BUCKET}/copy/src.dat",
                           f"s3://{BUCKET}/copy/dst.dat"], env)
    got = s3.get_object(Bucket=BUCKET, Key="copy/dst.dat")
    assert got["Body"].read() == data and got["Metadata"] == {"from": "source"}
    # Parts of 8 MiB: the copy was assembled from ranges, not sent as one CopyObject.
    assert got["ETag"] == multipart_etag([data[i:i + 8 * MiB] for i in range(0, len(data), 8 * MiB)])

    # A range outside the source, and a source that isn't there.
    uid = start_upload(s3, "copy/ranged")
    outside, malformed = (416, "InvalidRange"), (400, "InvalidArgument")
    for bad, want in [(f"bytes=0-{len(data)}", outside), (f"bytes={len(data)}-{len(data)}", outside),
                      ("bytes=5-4", malformed), ("bytes=abc", malformed), ("bytes=10-", malformed)]:
        assert s3_error(lambda: s3.upload_part_copy(Bucket=BUCKET, Key="copy/ranged", UploadId=uid, PartNumber=1,
                                                    CopySource=f"{BUCKET}/copy/src.dat",
                                                    CopySourceRange=bad)) == want, bad
    assert s3_error(lambda: s3.upload_part_copy(Bucket=BUCKET, Key="copy/ranged", UploadId=uid, PartNumber=1,
                                                CopySource=f"{BUCKET}/copy/none")) == (404, "NoSuchKey")
    etag = s3.upload_part_copy(Bucket=BUCKET, Key="copy/ranged", UploadId=uid, PartNumber=1,
                               CopySource=f"{BUCKET}/copy/src.dat",
                               CopySourceRange="bytes=100-2099")["CopyPartResult"]["ETag"]
    assert etag == f'"{hashlib.md5(data[100:2100]).hexdigest()}"'
    complete(s3, "copy/ranged", uid, [(1, etag)])
    assert s3.get_object(Bucket=BUCKET, Key="copy/ranged")["Body"].read() == data[100:2100]


# ---- parts and checksums of an assembled object ----

def assembled_checksum(algorithm, kind, parts):
    """S3's checksum of an object made of `parts`, computed here: composite or full object."""
    if kind == "FULL_OBJECT":
        return checksum_b64(algorithm, b"".join(parts))
    raw = b"".join(checksum_raw(algorithm, p) for p in parts)
    return f"{checksum_b64(algorithm, raw)}-{len(parts)}"


def checksum_headers(reply):
    h = reply["ResponseMetadata"]["HTTPHeaders"]
    return {k: v for k, v in h.items() if k.startswith("x-amz-checksum-")}


def test_part_number_reads_each_part_with_its_own_checksum(tenant):
    s3 = tenant.client()
    key = "partnumber/three"
    parts = [os.urandom(2 * MIN_PART), os.urandom(2 * MIN_PART), os.urandom(700)]
    uid = start_upload(s3, key, ChecksumAlgorithm="CRC32")
    etags = [s3.upload_part(Bucket=BUCKET, Key=key, UploadId=uid, PartNumber=n, Body=p,
                            ChecksumAlgorithm="CRC32")["ETag"] for n, p in enumerate(parts, 1)]
    listed = s3.list_parts(Bucket=BUCKET, Key=key, UploadId=uid)["Parts"]
    assert [p.get("ChecksumCRC32") for p in listed] == [checksum_b64("CRC32", p) for p in parts]
    done = complete(s3, key, uid, list(enumerate(etags, 1)))
    assert done["ChecksumCRC32"] == assembled_checksum("CRC32", "COMPOSITE", parts)

    total, at = sum(map(len, parts)), 0
    for n, data in enumerate(parts, 1):
        # botocore checks the body against the part's checksum it is given.
        got = s3.get_object(Bucket=BUCKET, Key=key, PartNumber=n, ChecksumMode="ENABLED")
        head = s3.head_object(Bucket=BUCKET, Key=key, PartNumber=n, ChecksumMode="ENABLED")
        assert got["Body"].read() == data
        for reply in (got, head):
            h = reply["ResponseMetadata"]["HTTPHeaders"]
            assert reply["ResponseMetadata"]["HTTPStatusCode"] == 206, n
            assert (h["content-range"], h["content-length"], h["x-amz-mp-parts-count"]) == (
                f"bytes {at}-{at + len(data) - 1}/{total}", str(len(data)), "3"), (n, h)
            assert checksum_headers(reply) == {"x-amz-checksum-crc32": checksum_b64("CRC32", data)}, n
        at += len(data)
    assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key=key, PartNumber=4)) == (416, "InvalidPartNumber")
    assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key=key, PartNumber=4))[0] == 416  # no body to name it
    whole = s3.get_object(Bucket=BUCKET, Key=key, ChecksumMode="ENABLED")
    assert whole["Body"].read() == b"".join(parts)
    assert checksum_headers(whole) == {"x-amz-checksum-crc32": done["ChecksumCRC32"],
                                       "x-amz-checksum-type": "COMPOSITE"}


@pytest.mark.parametrize("algorithm,kind", [("CRC32", "COMPOSITE"), ("SHA256", "COMPOSITE"), ("CRC32", "FULL_OBJECT"),
                                            ("CRC32C", "FULL_OBJECT"), ("CRC64NVME", None)])
def test_assembled_objects_carry_the_declared_checksum(tenant, algorithm, kind):
    """Part 1 carries its checksum, parts 2 and 3 none (the server computes them); the object's value is
    the one computed here."""
    declared = {"x-amz-checksum-algorithm": algorithm} | ({"x-amz-checksum-type": kind} if kind else {})
    key = f"checksums/{algorithm}-{kind}"
    uid = extra_headers(tenant.client(), declared).create_multipart_upload(Bucket=BUCKET, Key=key)["UploadId"]
    parts = [os.urandom(MIN_PART), os.urandom(MIN_PART + 1), os.urandom(33)]
    header = f"x-amz-checksum-{algorithm.lower()}"
    with_value = extra_headers(tenant.client(), {header: checksum_b64(algorithm, parts[0])})
    etags = [put_part(with_value, key, uid, 1, parts[0])] + [put_part(tenant.client(), key, uid, n, parts[n - 1])
                                                             for n in (2, 3)]
    # A wrong value, and a part of another algorithm, are refused.
    wrong = extra_headers(tenant.client(), {header: checksum_b64(algorithm, b"other")})
    assert s3_error(lambda: put_part(wrong, key, uid, 4, b"x")) == (400, "BadDigest")
    other = extra_headers(tenant.client(), {"x-amz-checksum-sha1": checksum_b64("SHA1", b"x")})
    assert s3_error(lambda: put_part(other, key, uid, 4, b"x")) == (400, "InvalidRequest")

    want = assembled_checksum(algorithm, kind or "FULL_OBJECT", parts)
    # The client's own value of the whole must be the one the parts give.
    bad = extra_headers(tenant.client(), {header: checksum_b64(algorithm, b"other")})
    assert s3_error(lambda: complete(bad, key, uid, list(enumerate(etags, 1)))) == (400, "BadDigest")
    done = complete(tenant.client(), key, uid, list(enumerate(etags, 1)))
    doc_field = "Checksum" + algorithm
    if doc_field in done:  # this botocore may not know the field
        assert done[doc_field] == want
    head = tenant.client().head_object(Bucket=BUCKET, Key=key, ChecksumMode="ENABLED")
    assert checksum_headers(head) == {header: want, "x-amz-checksum-type": kind or "FULL_OBJECT"}


def test_undeclared_uploads_and_copied_parts_give_a_checksum_only_when_exact(tenant):
    s3 = tenant.client()
    source = os.urandom(3 * MIN_PART)
    s3.put_object(Bucket=BUCKET, Key="exact/source", Body=source, ChecksumAlgorithm="CRC32")
    ranges = [(0, 2 * MIN_PART - 1), (2 * MIN_PART, 3 * MIN_PART - 1)]
    pieces = [source[a:b + 1] for a, b in ranges]

    def copy_upload(key, **declared):
        uid = start_upload(s3, key, **declared)
        etags = [s3.upload_part_copy(Bucket=BUCKET, Key=key, UploadId=uid, PartNumber=n,
                                     CopySource=f"{BUCKET}/exact/source",
                                     CopySourceRange=f"bytes={a}-{b}")["CopyPartResult"]["ETag"]
                 for n, (a, b) in enumerate(ranges, 1)]
        complete(s3, key, uid, list(enumerate(etags, 1)))
        got = s3.get_object(Bucket=BUCKET, Key=key, ChecksumMode="ENABLED")
        assert got["Body"].read() == source
        return checksum_headers(got)

    # Copied parts get the upload's checksum from the copied bytes; without one the object has none
    # (the source's is not the object's).
    assert copy_upload("exact/copied", ChecksumAlgorithm="CRC32") == {
        "x-amz-checksum-crc32": assembled_checksum("CRC32", "COMPOSITE", pieces), "x-amz-checksum-type": "COMPOSITE"}
    assert copy_upload("exact/copied-plain") == {}

    # Nothing declared, parts sent with a CRC32 each (as SDKs do by default): the whole object's CRC32,
    # after the Complete document's part checksums were checked.
    key = "exact/sdk-default"
    uid = start_upload(s3, key)
    etags = [s3.upload_part(Bucket=BUCKET, Key=key, UploadId=uid, PartNumber=n, Body=p,
                            ChecksumAlgorithm="CRC32")["ETag"] for n, p in enumerate(pieces, 1)]

    def finish(values):
        return s3.complete_multipart_upload(Bucket=BUCKET, Key=key, UploadId=uid, MultipartUpload={"Parts": [
            {"PartNumber": n, "ETag": e, "ChecksumCRC32": v} for n, (e, v) in enumerate(zip(etags, values), 1)]})
    assert s3_error(lambda: finish([checksum_b64("CRC32", b"x")] * 2)) == (400, "InvalidPart")
    finish([checksum_b64("CRC32", p) for p in pieces])
    got = s3.get_object(Bucket=BUCKET, Key=key, ChecksumMode="ENABLED")
    assert got["Body"].read() == source
    assert checksum_headers(got) == {"x-amz-checksum-crc32": checksum_b64("CRC32", source),
                                     "x-amz-checksum-type": "FULL_OBJECT"}

    # Forms S3 does not have are refused when the upload is created.
    for declared in ({"x-amz-checksum-algorithm": "SHA1", "x-amz-checksum-type": "FULL_OBJECT"},
                     {"x-amz-checksum-algorithm": "CRC64NVME", "x-amz-checksum-type": "COMPOSITE"},
                     {"x-amz-checksum-algorithm": "CRC32", "x-amz-checksum-type": "WHOLE"},
                     {"x-amz-checksum-algorithm": "MD5"}, {"x-amz-checksum-type": "COMPOSITE"}):
        s3 = extra_headers(tenant.client(), declared)
        assert s3_error(lambda: s3.create_multipart_upload(Bucket=BUCKET, Key="exact/refused")) == (
            400, "InvalidRequest"), declared


# ---- part bodies are verified as PutObject bodies are ----

def chunked_part(t, key, uid, number, data, corrupt=False):
    """UploadPart with a STREAMING-AWS4-HMAC-SHA256-PAYLOAD body; one flipped bit with `corrupt`."""
    path = f"/{BUCKET}/{key}?partNumber={number}&uploadId={uid}"
    extra = {"Content-Encoding": "aws-chunked", "x-amz-decoded-content-length": str(len(data))}
    head = t.sign("PUT", path, "STREAMING-AWS4-HMAC-SHA256-PAYLOAD", extra)
    body = signed_chunks(t, head, data)
    if corrupt:
        at = body.index(b"\r\n") + 10
        body = body[:at] + bytes([body[at] ^ 1]) + body[at + 1:]
    # The server closes after its reply: the exchange ends without waiting for silence.
    return t.exchange((head + f"Connection: close\r\nContent-Length: {len(body)}\r\n\r\n").encode() + body)


def trailer_part(t, key, uid, number, data, crc=None):
    """UploadPart with a STREAMING-UNSIGNED-PAYLOAD-TRAILER body carrying a CRC32 in its trailer."""
    import base64
    import zlib
    crc = crc or base64.b64encode(zlib.crc32(data).to_bytes(4, "big")).decode()
    body = f"{len(data):x}\r\n".encode() + data + f"\r\n0\r\nx-amz-checksum-crc32:{crc}\r\n\r\n".encode()
    extra = {"Content-Encoding": "aws-chunked", "x-amz-decoded-content-length": str(len(data)),
             "x-amz-trailer": "x-amz-checksum-crc32"}
    head = t.sign("PUT", f"/{BUCKET}/{key}?partNumber={number}&uploadId={uid}",
                       "STREAMING-UNSIGNED-PAYLOAD-TRAILER", extra)
    # The server closes after its reply: the exchange ends without waiting for silence.
    return t.exchange((head + f"Connection: close\r\nContent-Length: {len(body)}\r\n\r\n").encode() + body)


def test_aws_chunked_part_bodies_are_decoded_and_checked(tenant):
    s3 = tenant.client()
    key = "chunked/obj"
    uid = start_upload(s3, key)
    first, second = os.urandom(150_000), os.urandom(90_000)
    got = chunked_part(tenant, key, uid, 1, first)
    assert got.startswith(b"HTTP/1.1 200 OK\r\n") and hashlib.md5(first).hexdigest().encode() in got, got[:300]
    got = trailer_part(tenant, key, uid, 2, second)
    assert got.startswith(b"HTTP/1.1 200 OK\r\n"), got[:300]
    # A chunk whose signature fails, a trailer checksum that differs: refused, the earlier parts stay.
    got = chunked_part(tenant, key, uid, 1, os.urandom(150_000), corrupt=True)
    assert b"<Code>SignatureDoesNotMatch</Code>" in got, got[:300]
    got = trailer_part(tenant, key, uid, 2, os.urandom(90_000), crc="AAAAAA==")
    assert b"<Code>BadDigest</Code>" in got, got[:300]
    parts = s3.list_parts(Bucket=BUCKET, Key=key, UploadId=uid)["Parts"]
    assert [(p["ETag"], p["Size"]) for p in parts] == [(f'"{hashlib.md5(first).hexdigest()}"', len(first)),
                                                       (f'"{hashlib.md5(second).hexdigest()}"', len(second))]
    complete(s3, key, uid, [(p["PartNumber"], p["ETag"]) for p in parts])
    assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == first + second
    assert not [p for p in reserved_names(tenant) if ".orbs3-tmp-" in p]


# ---- faults ----

def test_an_upload_survives_a_killed_worker_and_finishes_after_restart(tenant):
    s3 = tenant.client()
    first, second = os.urandom(3000), os.urandom(1500)
    uid = start_upload(s3, "crash/obj", Metadata={"kept": "yes"})
    e1 = put_part(s3, "crash/obj", uid, 1, first)
    for pid in worker_pids(tenant):
        os.kill(pid, signal.SIGKILL)
    # Workers are not restarted by the master: the node is started again, as an operator would.
    tenant.daemon.stop()
    tenant.daemon = tenant.box.start("-d")
    wait_port(tenant.port)
    s3 = tenant.client()
    parts = wait_for(lambda: _list_parts_or_none(s3, "crash/obj", uid), timeout=30, what="the upload after restart")
    assert [(p["PartNumber"], p["ETag"], p["Size"]) for p in parts] == [(1, e1, 3000)]
    e2 = put_part(s3, "crash/obj", uid, 2, second)
    complete(s3, "crash/obj", uid, [(1, e1), (2, e2)])
    got = s3.get_object(Bucket=BUCKET, Key="crash/obj")
    assert got["Body"].read() == first + second
    assert got["ETag"] == multipart_etag([first, second]) and got["Metadata"] == {"kept": "yes"}


def test_a_complete_cut_off_with_its_worker_is_taken_over_on_the_same_node(tenant):
    """What a worker killed in the middle of a Complete leaves: the upload claimed by a process that is
    gone. A retried Complete on this node takes the claim over; a claim of a live process is respected."""
    s3 = tenant.client()
    data = os.urandom(4000)
    index = os.path.join(tenant.data(BUCKET), ".orbs3-uploads")
    gone = subprocess.Popen(["/bin/true"])
    gone.wait()
    host = socket.gethostname()
    for holder, taken in ((gone.pid, True), (os.getpid(), False)):
        key = f"claims/{holder}"
        uid = start_upload(s3, key)
        e1 = put_part(s3, key, uid, 1, data)
        os.rename(os.path.join(index, uid), os.path.join(index, f"{uid}.claimed.{host}.{holder}"))
        # Claimed: no longer an open upload for parts, lists or a new client.
        assert s3_error(lambda: s3.list_parts(Bucket=BUCKET, Key=key, UploadId=uid)) == (404, "NoSuchUpload")
        assert uid not in [u["UploadId"] for u in s3.list_multipart_uploads(Bucket=BUCKET).get("Uploads", [])]
        if taken:
            complete(s3, key, uid, [(1, e1)])
            assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == data
            assert not [n for n in os.listdir(index) if n.startswith(uid)] if os.path.isdir(index) else True
        else:
            assert s3_error(lambda: complete(s3, key, uid, [(1, e1)])) == (404, "NoSuchUpload")
            assert s3_error(lambda: s3.abort_multipart_upload(Bucket=BUCKET, Key=key, UploadId=uid)) == \
                (404, "NoSuchUpload")
            # Given back by hand, it completes.
            os.rename(os.path.join(index, f"{uid}.claimed.{host}.{holder}"), os.path.join(index, uid))
            complete(s3, key, uid, [(1, e1)])


def _list_parts_or_none(s3, key, uid):
    try:
        return s3.list_parts(Bucket=BUCKET, Key=key, UploadId=uid).get("Parts", [])
    except Exception:
        return None


def test_parallel_and_resent_parts_all_count(tenant):
    s3 = tenant.client()
    key = "parallel/obj"
    uid = start_upload(s3, key)
    bodies = {n: os.urandom(MIN_PART + n * 997) for n in range(1, 25)}
    etags, errors = {}, []

    def send(numbers):
        mine = tenant.client()  # a connection of its own
        for n in numbers:
            try:
                etags[n] = put_part(mine, key, uid, n, bodies[n])
            except Exception as e:  # noqa: BLE001 - reported below
                errors.append((n, e))

    threads = [threading.Thread(target=send, args=(range(i, 25, 8),)) for i in range(1, 9)]
    for th in threads:
        th.start()
    for th in threads:
        th.join(timeout=120)
    assert not errors
    # A re-sent part replaces the earlier one; its ETag is that of the new bytes.
    bodies[7] = os.urandom(5000)
    etags[7] = put_part(s3, key, uid, 7, bodies[7])
    assert etags[7] == f'"{hashlib.md5(bodies[7]).hexdigest()}"'
    listed = s3.list_parts(Bucket=BUCKET, Key=key, UploadId=uid)["Parts"]
    assert [(p["PartNumber"], p["ETag"], p["Size"]) for p in listed] == \
        [(n, etags[n], len(bodies[n])) for n in range(1, 25)]
    # Paging through the parts.
    page = s3.list_parts(Bucket=BUCKET, Key=key, UploadId=uid, MaxParts=10, PartNumberMarker=5)
    assert [p["PartNumber"] for p in page["Parts"]] == list(range(6, 16))
    assert page["IsTruncated"] and page["NextPartNumberMarker"] == 15
    last = s3.list_parts(Bucket=BUCKET, Key=key, UploadId=uid, MaxParts=10, PartNumberMarker=15)
    assert [p["PartNumber"] for p in last["Parts"]] == list(range(16, 25)) and not last["IsTruncated"]
    # Parts not listed in Complete are left out, and go with the staging directory.
    chosen = [n for n in range(1, 25) if n % 3 != 0]
    complete(s3, key, uid, [(n, etags[n]) for n in chosen])
    got = s3.get_object(Bucket=BUCKET, Key=key)
    assert got["Body"].read() == b"".join(bodies[n] for n in chosen)
    assert got["ETag"] == multipart_etag([bodies[n] for n in chosen])
    assert not [p for p in reserved_names(tenant) if uid in p]


def test_a_part_record_out_of_step_with_its_bytes_is_made_again(tenant):
    """What a crash between a part's two renames leaves (new bytes, old or no record) is read right."""
    s3 = tenant.client()
    key = "records/obj"
    uid = start_upload(s3, key)
    put_part(s3, key, uid, 1, os.urandom(3000))
    put_part(s3, key, uid, 2, os.urandom(2000))
    staging = os.path.join(tenant.data(BUCKET), "records", f".orbs3-{uid}obj")
    newer1, newer2 = os.urandom(3000), os.urandom(1000)
    # Part 1: new bytes of the same size renamed into place (a new inode), the old record still there.
    with open(os.path.join(staging, ".orbs3-tmp-crash"), "wb") as f:
        f.write(newer1)
    os.rename(os.path.join(staging, ".orbs3-tmp-crash"), os.path.join(staging, "1"))
    # Part 2: its record lost.
    with open(os.path.join(staging, "2"), "wb") as f:
        f.write(newer2)
    os.unlink(os.path.join(staging, "2.etag"))
    parts = s3.list_parts(Bucket=BUCKET, Key=key, UploadId=uid)["Parts"]
    assert [(p["ETag"], p["Size"]) for p in parts] == [(f'"{hashlib.md5(newer1).hexdigest()}"', 3000),
                                                       (f'"{hashlib.md5(newer2).hexdigest()}"', 1000)]
    complete(s3, key, uid, [(p["PartNumber"], p["ETag"]) for p in parts])
    assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == newer1 + newer2


def test_complete_refuses_bad_documents_and_keeps_the_upload(tenant):
    s3 = tenant.client()
    key = "refuse/obj"
    uid = start_upload(s3, key)
    small, big, tail = os.urandom(100), os.urandom(MIN_PART), os.urandom(10)
    e1 = put_part(s3, key, uid, 1, big)
    e2 = put_part(s3, key, uid, 2, small)
    e3 = put_part(s3, key, uid, 3, tail)
    wrong = '"' + "0" * 32 + '"'
    cases = [
        ([(1, wrong), (3, e3)], "InvalidPart"),
        ([(1, e1), (4, e3)], "InvalidPart"),            # part 4 was never sent
        ([(3, e3), (1, e1)], "InvalidPartOrder"),
        ([(1, e1), (1, e1)], "InvalidPartOrder"),
        ([(1, e1), (2, e2), (3, e3)], "EntityTooSmall"),  # a middle part below the least size
    ]
    for parts, code in cases:
        assert s3_error(lambda: complete(s3, key, uid, parts)) == (400, code), (parts, code)
    # A document that doesn't parse.
    url = s3.generate_presigned_url("complete_multipart_upload",
                                    Params={"Bucket": BUCKET, "Key": key, "UploadId": uid}, HttpMethod="POST")
    out = subprocess.run(["/usr/bin/curl", "-s", "-X", "POST", "--data-binary", "<CompleteMultipartUpload><Part>",
                          url], capture_output=True, text=True, timeout=30)
    assert "<Code>MalformedXML</Code>" in out.stdout, out.stdout
    # The upload stood through every refusal; the small part may be the last.
    assert [p["PartNumber"] for p in s3.list_parts(Bucket=BUCKET, Key=key, UploadId=uid)["Parts"]] == [1, 2, 3]
    complete(s3, key, uid, [(1, e1), (2, e2)])
    assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == big + small

    # Once completed the id is gone; unknown and malformed ids are NoSuchUpload on every operation.
    for u in (uid, "f" * 32, "../../x"):
        assert s3_error(lambda: put_part(s3, key, u, 1, b"x")) == (404, "NoSuchUpload")
        assert s3_error(lambda: s3.list_parts(Bucket=BUCKET, Key=key, UploadId=u)) == (404, "NoSuchUpload")
        assert s3_error(lambda: complete(s3, key, u, [(1, e1)])) == (404, "NoSuchUpload")
        assert s3_error(lambda: s3.abort_multipart_upload(Bucket=BUCKET, Key=key, UploadId=u)) == \
            (404, "NoSuchUpload")
    # An id belongs to its key; part numbers are 1 to 10000.
    other = start_upload(s3, "refuse/other")
    assert s3_error(lambda: put_part(s3, key, other, 1, b"x")) == (404, "NoSuchUpload")
    for n in (0, 10001):
        assert s3_error(lambda: put_part(s3, "refuse/other", other, n, b"x")) == (400, "InvalidArgument")
    # A part whose Content-MD5 is not that of its bytes is refused and leaves nothing.
    with pytest.raises(ClientError) as err:
        s3.upload_part(Bucket=BUCKET, Key="refuse/other", UploadId=other, PartNumber=1, Body=b"abc",
                       ContentMD5="AAAAAAAAAAAAAAAAAAAAAA==")
    assert err.value.response["Error"]["Code"] == "BadDigest"
    assert s3.list_parts(Bucket=BUCKET, Key="refuse/other", UploadId=other).get("Parts", []) == []
    s3.abort_multipart_upload(Bucket=BUCKET, Key="refuse/other", UploadId=other)


def test_a_deeply_nested_complete_is_refused_at_once(tenant):
    # 100,000 nested Parts, 1.3 MB: once 13 s of a worker's time before MalformedXML.
    s3 = tenant.client()
    key = "refuse/deep"
    uid = start_upload(s3, key)
    put_part(s3, key, uid, 1, b"d" * 10)
    body = ("<CompleteMultipartUpload>" + "<Part>" * 100000 + "<PartNumber>1</PartNumber>" +
            "</Part>" * 100000 + "</CompleteMultipartUpload>").encode()
    url = s3.generate_presigned_url("complete_multipart_upload",
                                    Params={"Bucket": BUCKET, "Key": key, "UploadId": uid}, HttpMethod="POST")
    started = time.monotonic()
    with pytest.raises(urllib.error.HTTPError) as err:
        urllib.request.urlopen(urllib.request.Request(url, data=body, method="POST"), timeout=30 * SLOWDOWN)
    took = time.monotonic() - started
    assert err.value.code == 400 and b"<Code>MalformedXML</Code>" in err.value.read()
    assert took < 2 * SLOWDOWN, took
    s3.abort_multipart_upload(Bucket=BUCKET, Key=key, UploadId=uid)


def test_abort_while_a_part_streams(tenant):
    s3 = tenant.client()
    key = "abort/obj"
    uid = start_upload(s3, key)
    put_part(s3, key, uid, 1, os.urandom(2000))
    path = f"/{BUCKET}/{key}?partNumber=2&uploadId={uid}"
    head = tenant.sign("PUT", path, "UNSIGNED-PAYLOAD")
    total = 8 * MiB
    with socket.create_connection(("127.0.0.1", tenant.port), timeout=10 * SLOWDOWN) as s:
        s.sendall((head + f"Content-Length: {total}\r\n\r\n").encode() + b"z" * MiB)
        wait_for(lambda: any(os.path.basename(p).startswith(".orbs3-tmp-") for p in reserved_names(tenant)),
                 what="the part's temporary file")
        s3.abort_multipart_upload(Bucket=BUCKET, Key=key, UploadId=uid)
        try:
            s.sendall(b"z" * (total - MiB))
        except OSError:
            pass  # the server may stop reading once the part has no upload left
        s.settimeout(10 * SLOWDOWN)
        reply = b""
        try:
            while chunk := s.recv(65536):
                reply += chunk
        except OSError:
            pass
    assert reply == b"" or b" 404 " in reply.split(b"\r\n", 1)[0], reply[:300]
    assert not [p for p in reserved_names(tenant) if uid in p or ".orbs3-tmp-" in p]
    assert s3_error(lambda: put_part(s3, key, uid, 3, b"late")) == (404, "NoSuchUpload")
    assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key=key))[0] == 404


def test_two_racing_completes_make_one_whole_object(tenant):
    s3 = tenant.client()
    for round_ in range(4):
        key = f"race/obj{round_}"
        uid = start_upload(s3, key)
        bodies = [os.urandom(2 * MiB) for _ in range(3)]
        parts = [(n + 1, put_part(s3, key, uid, n + 1, b)) for n, b in enumerate(bodies)]
        results = []
        barrier = threading.Barrier(2)

        def finish():
            mine = tenant.client()
            barrier.wait()
            try:
                results.append(complete(mine, key, uid, parts)["ETag"])
            except ClientError as e:
                results.append(e.response["Error"]["Code"])

        threads = [threading.Thread(target=finish) for _ in range(2)]
        for th in threads:
            th.start()
        for th in threads:
            th.join(timeout=60)
        # The loser finds the upload claimed (NoSuchUpload) or, once the winner is done, answers as a Complete
        # sent again would: with the same result.
        assert multipart_etag(bodies) in results and set(results) <= {"NoSuchUpload", multipart_etag(bodies)}, results
        assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == b"".join(bodies)


def test_a_complete_sent_again_gets_its_first_reply_while_the_key_holds_it(tenant):
    s3 = tenant.client()
    for key, then in [("again/plain", "overwrite"), ("again/dir/deleted", "delete"), ("again/other", "another")]:
        uid = start_upload(s3, key)
        bodies = [os.urandom(MIN_PART), b"tail"]
        parts = [(n + 1, put_part(s3, key, uid, n + 1, b)) for n, b in enumerate(bodies)]
        first = complete(s3, key, uid, parts)
        again = complete(s3, key, uid, parts)
        for field in ("ETag", "Location", "Bucket", "Key"):
            assert again[field] == first[field], field
        assert again["ETag"] == multipart_etag(bodies)
        # A document naming other parts is not that Complete sent again.
        assert s3_error(lambda: complete(s3, key, uid, parts[:1])) == (404, "NoSuchUpload")
        if then == "overwrite":
            s3.put_object(Bucket=BUCKET, Key=key, Body=b"new")
        elif then == "delete":
            s3.delete_object(Bucket=BUCKET, Key=key)
        else:
            # Completed again from another upload of the same parts: same ETag, but not this upload's result.
            other = start_upload(s3, key)
            complete(s3, key, other, [(n + 1, put_part(s3, key, other, n + 1, b)) for n, b in enumerate(bodies)])
        assert s3_error(lambda: complete(s3, key, uid, parts)) == (404, "NoSuchUpload"), then


def test_conditional_completes(tenant):
    s3 = tenant.client()
    key = "cond/mp"
    old = s3.put_object(Bucket=BUCKET, Key=key, Body=b"old")["ETag"]

    def attempt(uid, parts, **cond):
        return conditional(s3, cond, lambda: complete(s3, key, uid, parts))

    uid = start_upload(s3, key)
    parts = [(1, put_part(s3, key, uid, 1, b"part one"))]
    assert s3_error(lambda: attempt(uid, parts, IfNoneMatch="*")) == (412, "PreconditionFailed")
    assert s3_error(lambda: attempt(uid, parts, IfMatch=f'"{"0" * 32}"')) == (412, "PreconditionFailed")
    # Refused Completes leave the upload as it was, and the object too.
    assert [p["PartNumber"] for p in s3.list_parts(Bucket=BUCKET, Key=key, UploadId=uid)["Parts"]] == [1]
    assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == b"old"
    done = attempt(uid, parts, IfMatch=old)
    assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == b"part one"
    # Sent again, it is answered with its result although its condition no longer holds.
    assert attempt(uid, parts, IfMatch=old)["ETag"] == done["ETag"]

    fresh = "cond/mp-fresh"
    uid = start_upload(s3, fresh)
    parts = [(1, put_part(s3, fresh, uid, 1, b"x"))]
    assert s3_error(lambda: conditional(s3, {"IfMatch": old},
                                        lambda: complete(s3, fresh, uid, parts))) == (404, "NoSuchKey")
    conditional(s3, {"IfNoneMatch": "*"}, lambda: complete(s3, fresh, uid, parts))
    # A Complete and a PutObject racing to create one key: exactly one wins.
    for round_ in range(3):
        racy = f"cond/mp-race{round_}"
        uid = start_upload(s3, racy)
        parts = [(1, put_part(s3, racy, uid, 1, os.urandom(4 * MiB)))]
        results = {}
        barrier = threading.Barrier(2)

        def run_one(name, call):
            mine = tenant.client()
            barrier.wait()
            try:
                results[name] = conditional(mine, {"IfNoneMatch": "*"}, lambda: call(mine))["ETag"]
            except ClientError as e:
                results[name] = e.response["Error"]["Code"]

        threads = [threading.Thread(target=run_one, args=("complete", lambda c: complete(c, racy, uid, parts))),
                   threading.Thread(target=run_one,
                                    args=("put", lambda c: c.put_object(Bucket=BUCKET, Key=racy, Body=b"p")))]
        for th in threads:
            th.start()
        for th in threads:
            th.join(timeout=60)
        assert sorted(results.values(), key=lambda r: r.startswith('"')) in (
            ["PreconditionFailed", results["complete"]], ["PreconditionFailed", results["put"]]), results
        winner = "complete" if results["complete"].startswith('"') else "put"
        assert s3.head_object(Bucket=BUCKET, Key=racy)["ETag"] == results[winner]
        if winner == "put":
            s3.abort_multipart_upload(Bucket=BUCKET, Key=racy, UploadId=uid)


def test_uploads_are_listed_but_never_their_staging(tenant):
    s3 = tenant.client()
    keys = ["lmu/a", "lmu/b/c", "lmu/b/d", "lmu/b/d", "lmu/e"]
    ids = [start_upload(s3, k) for k in keys]
    for k, u in zip(keys, ids):
        put_part(s3, k, u, 1, b"staged bytes")
    # The server's names are out of every client's reach.
    for key in (f".orbs3-uploads/{ids[0]}", f"lmu/.orbs3-{ids[0]}a/1"):
        assert s3_error(lambda: s3.put_object(Bucket=BUCKET, Key=key, Body=b"x")) == (400, "InvalidArgument")
    # Listings walk objects only: nothing of an open upload shows.
    assert s3.list_objects_v2(Bucket=BUCKET, Prefix="lmu/").get("KeyCount") == 0
    assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key="lmu/a"))[0] == 404

    listed = s3.list_multipart_uploads(Bucket=BUCKET, Prefix="lmu/")
    assert [u["Key"] for u in listed["Uploads"]] == sorted(keys)
    assert sorted(u["UploadId"] for u in listed["Uploads"]) == sorted(ids)
    by_dir = s3.list_multipart_uploads(Bucket=BUCKET, Prefix="lmu/", Delimiter="/")
    assert [u["Key"] for u in by_dir["Uploads"]] == ["lmu/a", "lmu/e"]
    assert [p["Prefix"] for p in by_dir["CommonPrefixes"]] == ["lmu/b/"]
    # Paging visits every upload once, in the order of one listing, also where a page ends between two
    # uploads of one key.
    whole = [(u["Key"], u["UploadId"]) for u in listed["Uploads"]]
    for size in (1, 2, 3):
        seen, kw = [], {}
        while True:
            page = s3.list_multipart_uploads(Bucket=BUCKET, Prefix="lmu/", MaxUploads=size, **kw)
            seen += [(u["Key"], u["UploadId"]) for u in page.get("Uploads", [])]
            if not page["IsTruncated"]:
                break
            kw = {"KeyMarker": page["NextKeyMarker"], "UploadIdMarker": page["NextUploadIdMarker"]}
        assert seen == whole, size
    assert sorted(whole) == sorted(zip(keys, ids))

    # A bucket with an open upload is not empty; once it is aborted the bucket can go.
    s3.create_bucket(Bucket="parts-gone")
    uid = s3.create_multipart_upload(Bucket="parts-gone", Key="d/k")["UploadId"]
    assert s3_error(lambda: s3.delete_bucket(Bucket="parts-gone")) == (409, "BucketNotEmpty")
    s3.abort_multipart_upload(Bucket="parts-gone", Key="d/k", UploadId=uid)
    assert not reserved_names(tenant, "parts-gone")
    s3.delete_bucket(Bucket="parts-gone")

    for k, u in zip(keys, ids):
        s3.abort_multipart_upload(Bucket=BUCKET, Key=k, UploadId=u)
    assert s3.list_multipart_uploads(Bucket=BUCKET, Prefix="lmu/").get("Uploads", []) == []
    assert not [p for p in reserved_names(tenant) if "lmu" in p]
