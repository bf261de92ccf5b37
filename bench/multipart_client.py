#!/usr/bin/python3
"""Client side of bench/multipart.sh: a timed multipart upload and a timed single PUT of one file.

    multipart_client.py TENANT_JSON PORT prepare BUCKET
    multipart_client.py TENANT_JSON PORT multipart BUCKET KEY FILE PART_MIB PARALLEL
        CreateMultipartUpload, the parts PARALLEL at a time (each on a connection of its own, its bytes
        sent with sendfile from FILE, UNSIGNED-PAYLOAD through presigned URLs), then Complete; prints
        "parts_seconds complete_seconds etag"
    multipart_client.py TENANT_JSON PORT put BUCKET KEY FILE
        the same bytes as one PutObject on one connection; prints "seconds etag"
"""

import json
import os
import socket
import sys
import threading
import time
import urllib.parse

import boto3
from botocore.config import Config


def client(tenant, port):
    return boto3.client("s3", endpoint_url=f"http://127.0.0.1:{port}", region_name="us-east-1",
                        aws_access_key_id=tenant["access_key"], aws_secret_access_key=tenant["secret_key"],
                        config=Config(signature_version="s3v4", s3={"addressing_style": "path"},
                                      read_timeout=3600, retries={"max_attempts": 1}))


def send_file(port, url, path, offset, count):
    """PUT `count` bytes of `path` from `offset` to a presigned URL; the reply's status and ETag."""
    u = urllib.parse.urlsplit(url)
    target = u.path + ("?" + u.query if u.query else "")
    with socket.create_connection(("127.0.0.1", port)) as s, open(path, "rb") as f:
        s.sendall(f"PUT {target} HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\nContent-Length: {count}\r\n\r\n".encode())
        sent = 0
        while sent < count:
            sent += s.sendfile(f, offset + sent, count - sent)
        reply = b""
        while b"\r\n\r\n" not in reply:
            chunk = s.recv(65536)
            if not chunk:
                break
            reply += chunk
    head = reply.split(b"\r\n\r\n", 1)[0].decode("latin-1").split("\r\n")
    etag = next((h.split(":", 1)[1].strip() for h in head[1:] if h.lower().startswith("etag:")), "")
    return int(head[0].split()[1]), etag


def main():
    tenant = json.load(open(sys.argv[1]))
    port = int(sys.argv[2])
    cmd = sys.argv[3]
    s3 = client(tenant, port)
    if cmd == "prepare":
        s3.create_bucket(Bucket=sys.argv[4])
    elif cmd == "multipart":
        bucket, key, path, part_mib, parallel = sys.argv[4], sys.argv[5], sys.argv[6], int(sys.argv[7]), int(sys.argv[8])
        size = os.path.getsize(path)
        part = part_mib << 20
        uid = s3.create_multipart_upload(Bucket=bucket, Key=key)["UploadId"]
        numbers = list(range(1, (size + part - 1) // part + 1))
        urls = {n: s3.generate_presigned_url("upload_part", ExpiresIn=3600, Params={
            "Bucket": bucket, "Key": key, "UploadId": uid, "PartNumber": n}) for n in numbers}
        etags, lock, failures = {}, threading.Lock(), []

        def worker():
            while True:
                with lock:
                    if not numbers:
                        return
                    n = numbers.pop(0)
                off = (n - 1) * part
                status, etag = send_file(port, urls[n], path, off, min(part, size - off))
                if status != 200:
                    failures.append((n, status))
                etags[n] = etag

        t0 = time.monotonic()
        threads = [threading.Thread(target=worker) for _ in range(parallel)]
        for th in threads:
            th.start()
        for th in threads:
            th.join()
        t1 = time.monotonic()
        if failures:
            sys.exit(f"parts failed: {failures}")
        done = s3.complete_multipart_upload(Bucket=bucket, Key=key, UploadId=uid, MultipartUpload={
            "Parts": [{"PartNumber": n, "ETag": etags[n]} for n in sorted(etags)]})
        t2 = time.monotonic()
        print(f"{t1 - t0:.3f} {t2 - t1:.3f} {done['ETag']}")
    elif cmd == "put":
        bucket, key, path = sys.argv[4], sys.argv[5], sys.argv[6]
        url = s3.generate_presigned_url("put_object", Params={"Bucket": bucket, "Key": key}, ExpiresIn=3600)
        t0 = time.monotonic()
        status, etag = send_file(port, url, path, 0, os.path.getsize(path))
        t1 = time.monotonic()
        if status != 200:
            sys.exit(f"PUT failed: {status}")
        print(f"{t1 - t0:.3f} {etag}")
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
