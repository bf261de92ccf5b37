#!/usr/bin/python3
"""Client side of bench/list_keys.sh: signed ListObjectsV2 requests over one kept-alive connection, the
document read with a regular expression only, so the client costs little beside the server.

    list_client.py TENANT_JSON PORT create BUCKET
    list_client.py TENANT_JSON PORT all BUCKET [DELIMITER]     every page of 1000 keys; prints
                                                               "keys pages seconds"
    list_client.py TENANT_JSON PORT page BUCKET START_AFTER N  one 1000-key page N times; prints the
                                                               median and the best in milliseconds
"""

import http.client
import json
import re
import statistics
import sys
import time
import urllib.parse

from botocore.auth import S3SigV4Auth
from botocore.awsrequest import AWSRequest
from botocore.credentials import Credentials


class Lister:
    def __init__(self, tenant, port):
        self.port = port
        self.creds = Credentials(tenant["access_key"], tenant["secret_key"])
        self.conn = http.client.HTTPConnection("127.0.0.1", port, timeout=600)

    def request(self, method, path, query=None):
        qs = urllib.parse.urlencode(query or {}, quote_via=urllib.parse.quote)
        url = f"http://127.0.0.1:{self.port}{path}" + (f"?{qs}" if qs else "")
        req = AWSRequest(method=method, url=url)
        S3SigV4Auth(self.creds, "s3", "us-east-1").add_auth(req)
        target = path + (f"?{qs}" if qs else "")
        self.conn.request(method, target, headers=dict(req.headers.items()))
        reply = self.conn.getresponse()
        body = reply.read()
        if reply.status != 200:
            sys.exit(f"{method} {target}: {reply.status} {body[:300]!r}")
        return body.decode()

    def page(self, bucket, query):
        return self.request("GET", f"/{bucket}", {"list-type": "2", "max-keys": "1000", **query})


def main():
    tenant = json.load(open(sys.argv[1]))
    lister = Lister(tenant, int(sys.argv[2]))
    cmd, bucket = sys.argv[3], sys.argv[4]
    if cmd == "create":
        lister.request("PUT", f"/{bucket}")
    elif cmd == "all":
        query = {"delimiter": sys.argv[5]} if len(sys.argv) > 5 else {}
        keys = pages = 0
        start = time.monotonic()
        while True:
            doc = lister.page(bucket, query)
            pages += 1
            keys += doc.count("<Key>") + doc.count("<CommonPrefixes>")
            token = re.search(r"<NextContinuationToken>([^<]*)</NextContinuationToken>", doc)
            if token is None:
                break
            query = {**query, "continuation-token": token.group(1)}
        print(keys, pages, f"{time.monotonic() - start:.3f}")
    elif cmd == "page":
        after, n = sys.argv[5], int(sys.argv[6])
        times = []
        for _ in range(n):
            start = time.monotonic()
            doc = lister.page(bucket, {"start-after": after} if after else {})
            times.append((time.monotonic() - start) * 1000)
            assert doc.count("<Key>") > 0
        print(f"{statistics.median(times):.2f} {min(times):.2f}")
    else:
        sys.exit(f"unknown command {cmd}")


if __name__ == "__main__":
    main()
