"""Admission of S3 requests with signatures verified, as a node runs by default.

Real clients (boto3 with Signature Version 4 and 2, the AWS CLI, s3cmd, curl on presigned URLs) sign with a
tenant's user key and its administrator key, in path style and, through the tenant's domain, in
virtual-host style; other requests are built by hand. An object request that passes admission is carried
out (an upload stored, a download served, a missing key answered NoSuchKey, a listing answered with the
query values it was sent). One daemon serves the module.
"""

import contextlib
import datetime
import hashlib
import re
import socket
import subprocess
import time
import types
from email.utils import formatdate

import botocore.auth
import pytest
from botocore.auth import HmacV1Auth, S3SigV4Auth
from botocore.awsrequest import AWSRequest
from botocore.credentials import Credentials
from botocore.exceptions import ClientError

try:
    import botocore.crt.auth as botocore_crt_auth
except ImportError:
    botocore_crt_auth = None

from orbmux_harness import SLOWDOWN, run_tool, tenant_fixture
from test_worker import ACCESS_DENIED, DATE, INVALID_ACCESS_KEY, check_error_reply

DOMAIN = "s3.test"
BUCKET = "bkt"
SIGS = {"v4": "s3v4", "v2": "s3"}

SIGNATURE_MISMATCH = ("The request signature we calculated does not match the signature you provided. Check your "
                      "HARROWMINT secret access key and signing method. For more information, see REST "
                      "Authentication and SOAP Authentication for details.")
UNKNOWN_KEY = INVALID_ACCESS_KEY[1].decode()
TOO_SKEWED = "The difference between the request time and the server's time is too large."
MALFORMED = (b"AuthorizationHeaderMalformed", b"The authorization header you provided is invalid.")
# Keys and query values that take every road of encoding: blanks, '+', '~', '%' (alone and as a literal
# escape that must not be decoded twice), non-ASCII and '/'.
OBJECT_KEYS = ["plain.txt", "dir a/b+c~d%e.txt", "ünï/cödé ☃.bin", "a%20b+%2B", "trailing/slash/", "~/+/ /%/"]
LIST_QUERIES = [
    {"Prefix": "dir a/b+c~d%e/ü", "Delimiter": "/", "Marker": "m +%~/é"},
    {"Prefix": "%41 literal", "Delimiter": "+", "Marker": "a%2Fb"},
]
LIST_V2_QUERY = {"Prefix": "sp ace/+/~/%", "Delimiter": "/", "StartAfter": "ß/x y"}


tenant = tenant_fixture("auth", "--domain", DOMAIN, buckets=[BUCKET])


@pytest.fixture(scope="module", autouse=True)
def domain_resolves_here():
    """Names under the tenant's domain resolve to the loopback address in this process, so that clients
    address buckets in virtual-host style with real Host values."""
    real = socket.getaddrinfo

    def getaddrinfo(host, *args, **kwargs):
        if isinstance(host, str) and (host == DOMAIN or host.endswith("." + DOMAIN)):
            host = "127.0.0.1"
        return real(host, *args, **kwargs)

    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(socket, "getaddrinfo", getaddrinfo)
        yield


def client(t, sig, style="path", who="user", access_key=None, secret=None):
    endpoint = None if style == "path" else f"http://{DOMAIN}:{t.port}"
    return t.client(SIGS[sig], who, style, endpoint, access_key, secret, read_timeout=10)


def s3_error(call):
    """(HTTP status, Code, Message, Resource) of the error a client call ends in."""
    with pytest.raises(ClientError) as err:
        call()
    r = err.value.response
    e = r.get("Error", {})
    return r["ResponseMetadata"]["HTTPStatusCode"], e.get("Code"), e.get("Message"), e.get("Resource")


# A reply to HEAD has no document: a client sees the status alone.
HEAD_FORBIDDEN = (403, "403", "Forbidden", None)
NO_SUCH_KEY = "The specified key does not exist."


def no_such_key(key):
    return 404, "NoSuchKey", NO_SUCH_KEY, f"{BUCKET}/{key}"


@contextlib.contextmanager
def signing_clock(offset):
    """botocore signs as if the clock were `offset` seconds off: the V4 timestamp (headers and presigned
    X-Amz-Date) and the V2 Date header."""
    class Shifted(datetime.datetime):
        @classmethod
        def utcnow(cls):
            return datetime.datetime.utcnow() + datetime.timedelta(seconds=offset)

    clock = types.SimpleNamespace(datetime=Shifted, timezone=datetime.timezone)
    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(botocore.auth, "datetime", clock)
        if botocore_crt_auth is not None:  # with awscrt installed, V4 is signed there
            mp.setattr(botocore_crt_auth, "datetime", clock)
        mp.setattr(HmacV1Auth, "_get_date", lambda self: formatdate(time.time() + offset, usegmt=True))
        yield


# ---- boto3: what passes admission ----

# A bucket-level V2 request in path style ("GET /bkt?prefix=...") is signed by botocore over the
# resource "/bkt/": a bucket's resource ends in '/' whether or not the path does.
@pytest.mark.parametrize("sig", ["v4", "v2"])
@pytest.mark.parametrize("style", ["path", "virtual"])
def test_signed_listings_with_awkward_query_values_pass_admission(tenant, sig, style):
    for who in ("user", "admin"):
        s3 = client(tenant, sig, style, who)
        # The listing names the values it was sent: they arrived as signed.
        for query in LIST_QUERIES:
            got = s3.list_objects(Bucket=BUCKET, **query)
            assert (got["Marker"], got["Delimiter"]) == (query["Marker"], query["Delimiter"]), (who, query)
        # Under V2 botocore signs this listing with "?list-type=2" in the resource; it is accepted all the same.
        got = s3.list_objects_v2(Bucket=BUCKET, **LIST_V2_QUERY)
        assert (got["Prefix"], got["StartAfter"]) == (LIST_V2_QUERY["Prefix"], LIST_V2_QUERY["StartAfter"]), who


@pytest.mark.parametrize("sig", ["v4", "v2"])
@pytest.mark.parametrize("style", ["path", "virtual"])
def test_signed_object_requests_with_awkward_keys_pass_admission(tenant, sig, style):
    for who in ("user", "admin"):
        s3 = client(tenant, sig, style, who)
        for key in OBJECT_KEYS:
            # A directory object holds no bytes: it is sent empty (data with it would be refused).
            body = b"" if key.endswith("/") else f"{sig} {style} {who} {key}".encode()
            put = s3.put_object(Bucket=BUCKET, Key=key, Body=body)
            if key.endswith("/"):
                assert put["ETag"] == '"d41d8cd98f00b204e9800998ecf8427e"', (who, key)
                assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == b"", (who, key)
                assert s3.head_object(Bucket=BUCKET, Key=key)["ContentLength"] == 0, (who, key)
                continue
            assert put["ETag"] == f'"{hashlib.md5(body).hexdigest()}"', (who, key)
            assert s3.get_object(Bucket=BUCKET, Key=key)["Body"].read() == body, (who, key)
            assert s3.head_object(Bucket=BUCKET, Key=key)["ContentLength"] == len(body), (who, key)


# ---- boto3: what does not ----

@pytest.mark.parametrize("sig", ["v4", "v2"])
@pytest.mark.parametrize("style", ["path", "virtual"])
def test_a_wrong_secret_or_an_unknown_key_is_refused(tenant, sig, style):
    user_key, user_secret = tenant.keys("user")
    admin_key, _ = tenant.keys("admin")
    mismatch = (403, "SignatureDoesNotMatch", SIGNATURE_MISMATCH, "/")
    unknown = (403, "InvalidAccessKeyId", UNKNOWN_KEY, "/")
    wrong = user_secret[:-1] + ("x" if user_secret[-1] != "x" else "y")  # a secret that ends in x is no rarity
    cases = [
        ("wrong secret", client(tenant, sig, style, secret=wrong), mismatch),
        # Each key verifies with its own secret only.
        ("admin key, user secret", client(tenant, sig, style, access_key=admin_key, secret=user_secret), mismatch),
        ("unknown key", client(tenant, sig, style, access_key="AKIANOSUCHKEY0000000", secret=user_secret), unknown),
    ]
    key = f"refused/{sig}-{style}"
    refused = f"refused {sig} {style}".encode()
    for name, s3, want in cases:
        assert s3_error(lambda: s3.list_objects(Bucket=BUCKET, **LIST_QUERIES[0])) == want, name
        assert s3_error(lambda: s3.put_object(Bucket=BUCKET, Key=key, Body=refused)) == want, name
        assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key=key)) == want, name
        assert s3_error(lambda: s3.head_object(Bucket=BUCKET, Key=key)) == HEAD_FORBIDDEN, name
    # A refused upload stores nothing.
    assert s3_error(lambda: client(tenant, sig, style).get_object(Bucket=BUCKET, Key=key)) == no_such_key(key)


@pytest.mark.parametrize("sig", ["v4", "v2"])
def test_a_request_dated_beyond_fifteen_minutes_either_way_is_too_skewed(tenant, sig):
    s3 = client(tenant, sig, "path")
    key = f"skewed/{sig}"
    for offset in (-20 * 60, 20 * 60):
        with signing_clock(offset):
            for call in (lambda: s3.get_object(Bucket=BUCKET, Key=key),
                         lambda: s3.put_object(Bucket=BUCKET, Key=key, Body=b"late")):
                status, code, message, _ = s3_error(call)
                assert (status, code, message) == (403, "RequestTimeTooSkewed", TOO_SKEWED), offset
    # Inside the window the same requests pass.
    for offset in (-10 * 60, 10 * 60):
        with signing_clock(offset):
            assert s3_error(lambda: s3.get_object(Bucket=BUCKET, Key=key)) == no_such_key(key)


# ---- presigned URLs, fetched with curl ----

def curl(t, url, method="GET"):
    """Status and document of one fetch; names under the test domain are sent to the daemon."""
    out = subprocess.run(["curl", "-sS", "-i", "-X", method, "--max-time", str(int(20 * SLOWDOWN)),
                          "--resolve", f"{BUCKET}.{DOMAIN}:{t.port}:127.0.0.1",
                          "--resolve", f"{DOMAIN}:{t.port}:127.0.0.1", url],
                         capture_output=True, timeout=60 * SLOWDOWN)
    assert out.returncode == 0, out.stderr
    head, _, body = out.stdout.partition(b"\r\n\r\n")
    status = int(head.split(b" ", 2)[1])
    return status, body


def error_fields(body):
    """Code, Message and Resource of an error document."""
    fields = []
    for tag in (b"Code", b"Message", b"Resource"):
        m = re.search(rb"<" + tag + rb">(.*?)</" + tag + rb">", body, re.S)
        fields.append(m.group(1).decode() if m else None)
    return tuple(fields)


def tamper(url, sig):
    """The URL with one character of its signature changed."""
    name = "X-Amz-Signature=" if sig == "v4" else "Signature="
    at = url.index(name) + len(name)
    return url[:at] + ("B" if url[at] != "B" else "C") + url[at + 1:]


def presign(s3, key, expires):
    return s3.generate_presigned_url("get_object", Params={"Bucket": BUCKET, "Key": key}, ExpiresIn=expires)


EXPIRED = (403, "AccessDenied", "Request has expired")


@pytest.mark.parametrize("sig", ["v4", "v2"])
def test_presigned_urls_pass_only_intact_and_in_time(tenant, sig):
    expiring = []
    for style in ("path", "virtual"):
        for who in ("user", "admin"):
            s3 = client(tenant, sig, style, who)
            for key in OBJECT_KEYS[:3]:
                content = f"presigned {sig} {style} {who}".encode()
                s3.put_object(Bucket=BUCKET, Key=key, Body=content)
                url = presign(s3, key, 600)
                status, body = curl(tenant, url)
                assert (status, body) == (200, content), url
                status, body = curl(tenant, tamper(url, sig))
                assert (status, *error_fields(body)) == (403, "SignatureDoesNotMatch", SIGNATURE_MISMATCH, "/"), url
            expiring.append(presign(s3, OBJECT_KEYS[1], 1))
    if sig == "v4":
        # Signed two hours ago for one hour: expired on arrival.
        with signing_clock(-2 * 3600):
            old = presign(client(tenant, sig), OBJECT_KEYS[0], 3600)
        status, body = curl(tenant, old)
        assert (status, *error_fields(body)[:2]) == EXPIRED, old
    time.sleep(2.5)
    for url in expiring:
        status, body = curl(tenant, url)
        assert (status, *error_fields(body)[:2]) == EXPIRED, url


# ---- the AWS CLI and s3cmd ----

def aws(t, home, *args, secret=None):
    return run_tool(t.aws() + list(args), t.env(home, secret=secret))


def test_aws_cli_requests_reach_the_action_and_a_wrong_secret_is_refused(tenant, tmp_path):
    home = str(tmp_path)
    small = tmp_path / "small file.txt"
    small.write_bytes(b"a small file for the AWS CLI\n")
    key = "cli dir/a+b~c%d.txt"
    out = aws(tenant, home, "s3api", "list-objects-v2", "--no-paginate", "--bucket", BUCKET, "--prefix", "cli dir/+~%")
    assert out.returncode == 0 and '"Prefix": "cli dir/+~%"' in out.stdout, (out.returncode, out.stderr)
    data = small.read_bytes()
    for args in (["s3api", "put-object", "--bucket", BUCKET, "--key", key, "--body", str(small)],
                 ["s3", "cp", str(small), f"s3://{BUCKET}/{key}"]):
        out = aws(tenant, home, *args)
        assert out.returncode == 0, (args, out.stderr)
    # The upload arrived whole under its awkward key.
    out = aws(tenant, home, "s3api", "head-object", "--bucket", BUCKET, "--key", key)
    assert out.returncode == 0 and hashlib.md5(data).hexdigest() in out.stdout, out
    for args in (["s3api", "list-objects-v2", "--bucket", BUCKET],
                 ["s3api", "put-object", "--bucket", BUCKET, "--key", key, "--body", str(small)]):
        out = aws(tenant, home, *args, secret="wrong-secret")
        assert out.returncode != 0 and "SignatureDoesNotMatch" in out.stderr, (args, out.stderr)


def s3cmd(t, home, *args, v2=False, secret=None, until):
    """Runs s3cmd until its output names `until` or it ends; returns (output, exit code or None). s3cmd
    retries a failed upload five times over 45 seconds whatever the error, so it is stopped once the
    error it got is out."""
    proc = subprocess.Popen(t.s3cmd(v2, secret) + list(args), env=t.env(home), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    lines = []
    stopped = False
    try:
        for line in proc.stdout:
            lines.append(line)
            if until in line:
                stopped = True
                break
    finally:
        # Output that ran to its end: the exit code is s3cmd's own. Stopped early: whatever it is now.
        code = proc.wait(timeout=60) if not stopped else proc.poll()
        if code is None:
            proc.kill()
        proc.wait(timeout=30)
        proc.stdout.close()
    return "".join(lines), code


@pytest.mark.parametrize("v2", [False, True], ids=["v4", "v2"])
def test_s3cmd_requests_reach_the_action_and_a_wrong_secret_is_refused(tenant, tmp_path, v2):
    home = str(tmp_path)
    small = tmp_path / "s3cmd file.txt"
    small.write_bytes(b"a small file for s3cmd\n")
    key = f"s3cmd dir/a+b~c {'v2' if v2 else 'v4'}.txt"
    cases = [(["ls", f"s3://{BUCKET}"], "wrong-secret", "SignatureDoesNotMatch"),
             (["put", str(small), f"s3://{BUCKET}/{key}"], "wrong-secret", "SignatureDoesNotMatch")]
    for args, secret, want in cases:
        text, code = s3cmd(tenant, home, *args, v2=v2, secret=secret, until=want)
        assert want in text and code != 0, (args, secret, code, text)
    # With the right secret the upload is stored and comes back whole.
    text, code = s3cmd(tenant, home, "put", str(small), f"s3://{BUCKET}/{key}", v2=v2, until="\0")
    assert code == 0, text
    back = tmp_path / "back.txt"
    text, code = s3cmd(tenant, home, "get", "--force", f"s3://{BUCKET}/{key}", str(back), v2=v2, until="\0")
    assert code == 0 and back.read_bytes() == small.read_bytes(), text
    text, code = s3cmd(tenant, home, "ls", f"s3://{BUCKET}/s3cmd dir/", v2=v2, until="\0")
    assert code == 0 and f"s3://{BUCKET}/{key}" in text, text


# ---- requests built by hand ----

def wire(method, target, headers, body=b""):
    lines = [f"{method} {target} HTTP/1.1", *(f"{k}: {v}" for k, v in headers)]
    return ("\r\n".join(lines) + "\r\n\r\n").encode() + body


def signed(t, method, path, query="", headers=(), body=b"", signer=S3SigV4Auth, who="user"):
    """A request signed by one of botocore's signer classes, as its bytes on the wire."""
    host = f"127.0.0.1:{t.port}"
    target = path + ("?" + query if query else "")
    req = AWSRequest(method=method, url=f"http://{host}{target}", data=body, headers=dict(headers))
    creds = Credentials(*t.keys(who))
    if issubclass(signer, HmacV1Auth):
        signer(creds).add_auth(req)
    else:
        signer(creds, "s3", "us-east-1").add_auth(req)
    fields = [("Host", host)] + [(k, v.decode() if isinstance(v, bytes) else v) for k, v in req.headers.items()]
    if body:
        fields.append(("Content-Length", str(len(body))))
    return wire(method, target, fields, body)


def test_requests_without_readable_credentials_are_refused_byte_exact(tenant):
    host = ("Host", f"127.0.0.1:{tenant.port}")
    forbidden = b"403 Forbidden"
    # No credentials at all, for actions nobody may take without them.
    for method, target in (("GET", "/bkt/some/key?acl"), ("HEAD", "/bkt/some/key?tagging"), ("DELETE", "/bkt/some/key")):
        got = tenant.one_reply(wire(method, target, [host]), head_only=method == "HEAD")
        check_error_reply(got, forbidden, *ACCESS_DENIED, b"/", head_only=method == "HEAD")
    # A presigned query of a key nobody has.
    query = ("X-Amz-Algorithm=AWS4-HMAC-SHA256&X-Amz-Credential=AKIANOSUCHKEY0000000%2F20260101%2Fus-east-1%2Fs3"
             "%2Faws4_request&X-Amz-Date=20260101T000000Z&X-Amz-Expires=600&X-Amz-SignedHeaders=host"
             "&X-Amz-Signature=" + "0" * 64)
    check_error_reply(tenant.one_reply(wire("GET", "/bkt/k?" + query, [host])), forbidden, *INVALID_ACCESS_KEY,
                      b"/")
    # Credentials that cannot be read.
    for value in ("Bearer x", "AWS4-HMAC-SHA256 SignedHeaders=host, Signature=00", "AWS " + "K" * 60 + ":sig"):
        got = tenant.one_reply(wire("GET", "/bkt/some/key", [host, ("Authorization", value)]))
        check_error_reply(got, forbidden, *MALFORMED, b"/")


def test_an_action_without_a_table_row_is_not_supported_even_when_signed(tenant):
    for signer in (S3SigV4Auth, HmacV1Auth):
        got = tenant.one_reply(signed(tenant, "PUT", "/bkt", "accesskey", signer=signer))
        check_error_reply(got, b"400 Bad Request", b"OperationNotSupported", b"", b"/")


def test_a_signed_preflight_gets_the_preflight_reply_and_an_unsigned_one_is_refused(tenant):
    origin = "http://app.example"
    asked = "authorization,x-amz-date,x-amz-content-sha256"
    cors = [("Origin", origin), ("Access-Control-Request-Method", "PUT"), ("Access-Control-Request-Headers", asked)]
    for signer in (S3SigV4Auth, HmacV1Auth):
        got = tenant.one_reply(signed(tenant, "OPTIONS", "/bkt/obj", headers=cors, signer=signer), head_only=True)
        m = DATE.search(got)
        assert m, got
        want = (b"HTTP/1.1 200 OK\r\nDate: " + m.group(1) + b"\r\nConnection: keep-alive\r\nContent-Length:0\r\n"
                b"Access-Control-Allow-Origin:" + origin.encode() + b"\r\n"
                b"Access-Control-Allow-Methods:POST, GET, PUT, HEAD, DELETE, OPTIONS\r\n"
                b"Access-Control-Allow-Headers: " + asked.encode() + b"\r\nServer: KELVANE\r\n\r\n")
        assert got == want, got
    got = tenant.one_reply(wire("OPTIONS", "/bkt/obj", [("Host", f"127.0.0.1:{tenant.port}"), *cors]))
    assert got.startswith(b"HTTP/1.1 403 Forbidden\r\n") and b"<Code>AccessDenied</Code>" in got, got


class UnsignedPayload(S3SigV4Auth):
    def payload(self, request):
        return "UNSIGNED-PAYLOAD"


class StreamingSeed(S3SigV4Auth):
    """Signs the head alone, as the seed of a body whose chunks carry their own signatures."""

    def payload(self, request):
        return "STREAMING-AWS4-HMAC-SHA256-PAYLOAD"


def test_an_unsigned_payload_passes_and_a_badly_chunk_signed_one_is_refused_unstored(tenant):
    body = b"unsigned payload body"
    got = tenant.one_reply(signed(tenant, "PUT", "/bkt/unsigned", body=body, signer=UnsignedPayload))
    assert got.startswith(b"HTTP/1.1 200 OK\r\n") and hashlib.md5(body).hexdigest().encode() in got, got
    assert client(tenant, "v4").get_object(Bucket=BUCKET, Key="unsigned")["Body"].read() == body

    data = b"streamed data"
    framed = (f"{len(data):x};chunk-signature={'0' * 64}\r\n".encode() + data + b"\r\n"
              + f"0;chunk-signature={'0' * 64}\r\n\r\n".encode())
    got = tenant.one_reply(signed(tenant, "PUT", "/bkt/streamed", body=framed, signer=StreamingSeed,
                                   headers=[("Content-Encoding", "aws-chunked"),
                                            ("x-amz-decoded-content-length", str(len(data)))]))
    # The chunks' signatures are checked: made-up ones refuse the upload, and nothing is stored.
    code, message, _ = error_fields(got)
    assert got.startswith(b"HTTP/1.1 403 Forbidden\r\n") and code == "SignatureDoesNotMatch", got
    assert s3_error(lambda: client(tenant, "v4").get_object(Bucket=BUCKET, Key="streamed")) == no_such_key("streamed")


# ---- headers a signature must bind ----

NOT_SIGNED = (403, "AccessDenied", "There were headers present in the request which were not signed")


def with_header(request, line):
    """The request bytes with one more header line behind the others."""
    head, _, body = request.partition(b"\r\n\r\n")
    return head + b"\r\n" + line + b"\r\n\r\n" + body


def test_a_replayed_request_cannot_gain_an_unsigned_header_that_steers_it(tenant):
    s3 = client(tenant, "v4")
    s3.create_bucket(Bucket="other")
    s3.put_object(Bucket="other", Key="secret.txt", Body=b"another bucket's data")
    s3.put_object(Bucket=BUCKET, Key="victim", Body=b"original")
    put = signed(tenant, "PUT", "/bkt/victim", body=b"replayed body")
    listing = signed(tenant, "GET", "/bkt", "prefix=victim")
    v2_listing = signed(tenant, "GET", "/bkt", "prefix=victim", signer=HmacV1Auth)
    url = s3.generate_presigned_url("list_objects", Params={"Bucket": BUCKET, "Prefix": "victim"}, ExpiresIn=600)
    presigned = wire("GET", url[url.index("/bkt"):], [("Host", f"127.0.0.1:{tenant.port}")])
    cases = [
        (put, b"x-amz-copy-source: /other/secret.txt"),
        (put, b"X-Copy-Source: /other/secret.txt"),
        (put, b"x-amz-metadata-directive: REPLACE"),
        (listing, b"OrbAction: GetBucketAcl"),
        (presigned, b"OrbAction: GetBucketAcl"),
        (presigned, b"x-amz-content-sha256: STREAMING-AWS4-HMAC-SHA256-PAYLOAD"),
        # Signature Version 2 has no place for the action header: it may not come at all.
        (v2_listing, b"OrbAction: GetBucketAcl"),
        (signed(tenant, "PUT", "/bkt/victim", body=b"v2 body", signer=HmacV1Auth), b"X-Copy-Source: /other/secret.txt"),
    ]
    for request, line in cases:
        got = tenant.one_reply(with_header(request, line))
        status = int(got.split(b" ", 2)[1])
        assert (status, *error_fields(got)[:2]) == NOT_SIGNED, (line, got)
        assert s3.get_object(Bucket=BUCKET, Key="victim")["Body"].read() == b"original", line
    # The same requests as signed pass: only the added header was refused.
    for request in (listing, v2_listing, presigned):
        got = tenant.one_reply(request)
        assert got.startswith(b"HTTP/1.1 200 OK\r\n") and b"<ListBucketResult" in got, got
    assert tenant.one_reply(put).startswith(b"HTTP/1.1 200 OK\r\n")
    assert s3.get_object(Bucket=BUCKET, Key="victim")["Body"].read() == b"replayed body"
    # A V2 client binds the x-amz-* headers in what it signs: one added later breaks the signature.
    got = tenant.one_reply(with_header(v2_listing, b"x-amz-copy-source: /other/secret.txt"))
    assert got.startswith(b"HTTP/1.1 403 Forbidden\r\n") and error_fields(got)[0] == "SignatureDoesNotMatch", got


TOO_LONG = ("X-Amz-Expires must be less than a week (in seconds); that is, the given X-Amz-Expires must be less "
            "than 604800 seconds")


def test_a_presigned_url_lives_from_one_second_to_a_week(tenant):
    s3 = client(tenant, "v4")
    s3.put_object(Bucket=BUCKET, Key="presigned-life", Body=b"alive")
    assert curl(tenant, presign(s3, "presigned-life", 604800)) == (200, b"alive")
    url = presign(s3, "presigned-life", 600)
    cases = [("0", "X-Amz-Expires must be greater than 0"), ("-1", "X-Amz-Expires must be non-negative"),
             ("604801", TOO_LONG), ("18446744073709551617", TOO_LONG),
             ("never", "X-Amz-Expires should be a number"), ("1.5", "X-Amz-Expires should be a number")]
    for expires, message in cases:
        status, body = curl(tenant, url.replace("X-Amz-Expires=600", "X-Amz-Expires=" + expires))
        assert (status, *error_fields(body)[:2]) == (400, "AuthorizationQueryParametersError", message), expires
