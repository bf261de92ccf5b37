#!/usr/bin/python3
"""Client side of bench/object_rps.sh: everything that needs a signature or a timed upload.

    object_client.py TENANT_JSON PORT prepare BUCKET KEY=FILE...    create the bucket, upload the files
    object_client.py TENANT_JSON PORT versioning BUCKET STATUS      set the bucket's versioning (Enabled, ...)
    object_client.py TENANT_JSON PORT get-lua BUCKET KEY OUT.lua     wrk script: one signed GET
    object_client.py TENANT_JSON PORT put-lua BUCKET KEY BODY OUT.lua
                                                                    wrk script: one signed PUT of BODY, its
                                                                    SHA-256 signed so the server checks it
    object_client.py TENANT_JSON PORT check-lua OUT.lua             send a wrk script's request once, print
                                                                    the status (and error code)
    object_client.py TENANT_JSON PORT presign BUCKET KEY             a presigned GET URL
    object_client.py TENANT_JSON PORT big-put BUCKET KEY SIZE        stream SIZE bytes (a repeated random
                                                                    1 MiB block, UNSIGNED-PAYLOAD) over one
                                                                    connection; print "status seconds
                                                                    seconds-until-the-body-was-sent"

A tenant whose endpoint (in TENANT_JSON) is https:// is spoken to over TLS, trusting the CA file in
$ORBMUX_CA.
"""

import hashlib
import http.client
import json
import os
import re
import sys
import time

import ssl

import boto3
from botocore.auth import S3SigV4Auth
from botocore.awsrequest import AWSRequest
from botocore.config import Config
from botocore.credentials import Credentials


class FixedPayloadAuth(S3SigV4Auth):
    """Signs with a given x-amz-content-sha256 value instead of hashing a body it does not hold."""

    def __init__(self, creds, payload_value):
        super().__init__(creds, "s3", "us-east-1")
        self.payload_value = payload_value

    def payload(self, request):
        return self.payload_value


def signed_headers(tenant, port, method, path, payload_value):
    req = AWSRequest(method=method, url=f"http://127.0.0.1:{port}{path}",
                     headers={"x-amz-content-sha256": payload_value})
    FixedPayloadAuth(Credentials(tenant["access_key"], tenant["secret_key"]), payload_value).add_auth(req)
    headers = {k: v for k, v in req.headers.items()}
    headers["Host"] = f"127.0.0.1:{port}"
    return headers


def lua_quote(s):
    return '"' + s.replace("\\", "\\\\").replace('"', '\\"') + '"'


def write_lua(out, method, path, headers, body_file=None):
    lines = [f"wrk.method = {lua_quote(method)}", f"wrk.path = {lua_quote(path)}"]
    for k, v in headers.items():
        lines.append(f"wrk.headers[{lua_quote(k)}] = {lua_quote(v)}")
    if body_file:
        # wrk adds Content-Length for a body; it is not among the signed headers.
        lines.append(f'local f = assert(io.open({lua_quote(body_file)}, "rb"))')
        lines.append("wrk.body = f:read(\"*a\")")
        lines.append("f:close()")
    with open(out, "w") as fp:
        fp.write("\n".join(lines) + "\n")


def tls(tenant):
    return tenant["endpoint"].startswith("https://")


def connection(tenant, port):
    if tls(tenant):
        return http.client.HTTPSConnection("127.0.0.1", port,
                                           context=ssl.create_default_context(cafile=os.environ["ORBMUX_CA"]))
    return http.client.HTTPConnection("127.0.0.1", port)


def client(tenant, port):
    scheme = "https" if tls(tenant) else "http"
    return boto3.client("s3", endpoint_url=f"{scheme}://127.0.0.1:{port}", region_name="us-east-1",
                        aws_access_key_id=tenant["access_key"], aws_secret_access_key=tenant["secret_key"],
                        verify=os.environ["ORBMUX_CA"] if tls(tenant) else None, config=Config(s3={"addressing_style": "path"}, signature_version="s3v4"))


def main():
    tenant = json.load(open(sys.argv[1]))
    port = int(sys.argv[2])
    cmd = sys.argv[3]
    args = sys.argv[4:]
    if cmd == "prepare":
        s3 = client(tenant, port)
        s3.create_bucket(Bucket=args[0])
        for pair in args[1:]:
            key, path = pair.split("=", 1)
            with open(path, "rb") as fp:
                s3.put_object(Bucket=args[0], Key=key, Body=fp.read())
    elif cmd == "versioning":
        bucket, status = args
        client(tenant, port).put_bucket_versioning(Bucket=bucket, VersioningConfiguration={"Status": status})
    elif cmd == "get-lua":
        bucket, key, out = args
        path = f"/{bucket}/{key}"
        write_lua(out, "GET", path, signed_headers(tenant, port, "GET", path, hashlib.sha256(b"").hexdigest()))
    elif cmd == "put-lua":
        bucket, key, body_file, out = args
        path = f"/{bucket}/{key}"
        digest = hashlib.sha256(open(body_file, "rb").read()).hexdigest()
        write_lua(out, "PUT", path, signed_headers(tenant, port, "PUT", path, digest), body_file)
    elif cmd == "check-lua":
        script = open(args[0]).read()
        headers = dict(re.findall(r'wrk\.headers\["([^"]+)"\] = "([^"]*)"', script))
        method = re.search(r'wrk\.method = "([^"]+)"', script).group(1)
        path = re.search(r'wrk\.path = "([^"]+)"', script).group(1)
        body = None
        m = re.search(r'io\.open\("([^"]+)"', script)
        if m:
            body = open(m.group(1), "rb").read()
        c = connection(tenant, port)
        c.request(method, path, body=body, headers=headers)
        r = c.getresponse()
        text = r.read()
        code = re.search(rb"<Code>([^<]*)</Code>", text)
        print(r.status, code.group(1).decode() if code else f"{len(text)}-bytes")
    elif cmd == "presign":
        bucket, key = args
        print(client(tenant, port).generate_presigned_url("get_object", Params={"Bucket": bucket, "Key": key},
                                                          ExpiresIn=3600))
    elif cmd == "big-put":
        bucket, key, size = args[0], args[1], int(args[2])
        path = f"/{bucket}/{key}"
        headers = signed_headers(tenant, port, "PUT", path, "UNSIGNED-PAYLOAD")
        headers["Content-Length"] = str(size)
        block = os.urandom(1 << 20)
        c = connection(tenant, port)
        start = time.monotonic()
        c.putrequest("PUT", path, skip_host=True, skip_accept_encoding=True)
        for k, v in headers.items():
            c.putheader(k, v)
        c.endheaders()
        sent = 0
        view = memoryview(block)
        while sent < size:
            n = min(len(block), size - sent)
            c.sock.sendall(view[:n])
            sent += n
        body_sent = time.monotonic()
        r = c.getresponse()
        r.read()
        # The time to the reply, and the share of it spent before the last byte left this client.
        print(r.status, f"{time.monotonic() - start:.4f}", f"{body_sent - start:.4f}")
    else:
        sys.exit(f"unknown command {cmd}")


if __name__ == "__main__":
    main()
