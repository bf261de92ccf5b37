#!/usr/bin/python3
"""Writes aws_chunked_vectors.h: aws-chunked upload bodies as clients frame them.

Run with the system Python and its python3-botocore (1.43 was used):

    /usr/bin/python3 tests/unit/s3/make_aws_chunked_vectors.py > tests/unit/s3/aws_chunked_vectors.h

The STREAMING-UNSIGNED-PAYLOAD-TRAILER bodies come from botocore's own writer (AwsChunkedWrapper with its
CRC32 checksum), the framing the AWS CLI and boto3 send. botocore has no writer of signed chunks; for
those a small signer below follows the published AWS rules, and is first checked against the chunk
signatures of the AWS example upload (65 KiB of 'a') before it signs anything.
"""

import hashlib
import hmac
import io
import sys

from botocore.httpchecksum import AwsChunkedWrapper, Crc32Checksum, _apply_request_trailer_checksum

SECRET = "wJalrXUtnFEMI/K7MDENG/bPxRfiCYEXAMPLEKEY"
DATE = "20130524T000000Z"
SCOPE = "20130524/us-east-1/s3/aws4_request"
SEED = "4f232c4386841ef735655705268965c44a0e4690baa4adea153f7db9fa80a0a9"
EMPTY = hashlib.sha256(b"").hexdigest()


def signing_key():
    k = ("AWS4" + SECRET).encode()
    for part in SCOPE.split("/"):
        k = hmac.new(k, part.encode(), hashlib.sha256).digest()
    return k


def chunk_sig(prev, data):
    sts = "\n".join(["AWS4-HMAC-SHA256-PAYLOAD", DATE, SCOPE, prev, EMPTY, hashlib.sha256(data).hexdigest()])
    return hmac.new(signing_key(), sts.encode(), hashlib.sha256).hexdigest()


def trailer_sig(prev, lines):
    text = "".join("%s:%s\n" % (n, v) for n, v in lines).encode()
    sts = "\n".join(["AWS4-HMAC-SHA256-TRAILER", DATE, SCOPE, prev, hashlib.sha256(text).hexdigest()])
    return hmac.new(signing_key(), sts.encode(), hashlib.sha256).hexdigest()


def signed_body(data, chunk, trailers=None):
    out, prev, pos = b"", SEED, 0
    while True:
        piece = data[pos:pos + chunk]
        pos += len(piece)
        prev = chunk_sig(prev, piece)
        out += b"%x;chunk-signature=%s\r\n" % (len(piece), prev.encode())
        if not piece:
            break
        out += piece + b"\r\n"
    if trailers is not None:
        for n, v in trailers:
            out += b"%s:%s\r\n" % (n.encode(), v.encode())
        out += b"x-amz-trailer-signature:%s\r\n" % trailer_sig(prev, trailers).encode()
    return out + b"\r\n"


def check_signer():
    # The published example: chunks of 64 KiB, 1 KiB and the empty one.
    want = ["ad80c730a21e5b8d04586a2213dd63b9a0e99e0e2307b0ade35a65485a288648",
            "0055627c9e194cb4542bae2aa5492e3c1575bbb81b612b7d234b86a503ef5497",
            "b6c6ea8a5354eaf15b3cb7646744f4275b71ea724fed81ceb9323e279d449df9"]
    body = signed_body(b"a" * 66560, 65536)
    got = [line.split(b"=")[1].decode() for line in body.split(b"\r\n") if b"chunk-signature=" in line]
    if got != want:
        sys.exit("signer disagrees with the AWS example: %s" % got)


def payload(n, salt):
    # Bytes of every value, CR and LF among them, so framing bytes inside data are exercised.
    return bytes((i * 131 + salt + (i >> 7)) & 0xFF for i in range(n))


def crc32_b64(data):
    c = Crc32Checksum()
    c.update(data)
    return c.b64digest()


def literal(b):
    out, line = [], ""
    for byte in b:
        ch = chr(byte)
        if ch in '"\\':
            s = "\\" + ch
        elif 32 <= byte < 127:
            s = ch
        else:
            s = "\\%03o" % byte
        line += s
        if len(line) >= 100:
            out.append('"%s"' % line)
            line = ""
    if line or not out:
        out.append('"%s"' % line)
    return "\n        ".join(out)


# The payload is not written out: the test makes it again from its size and salt.
def row(name, mode, content_sha256, announced, decoded_length, body, data, salt, ck_name, ck_value):
    assert data == payload(len(data), salt)
    return (
        "    {\"%s\", %s, \"%s\", \"%s\", %d,\n"
        "     std::string_view{\n        %s,\n        %d},\n"
        "     %d, %d,\n"
        "     \"%s\", \"%s\"},\n"
        % (name, mode, content_sha256, announced, decoded_length, literal(body), len(body), len(data), salt,
           ck_name, ck_value))


def main():
    check_signer()
    rows = []

    # botocore as the CLI drives it: the request gets its headers and its wrapped body.
    data = payload(1000, 1)
    request = {
        "headers": {},
        "body": data,
        "context": {"checksum": {"request_algorithm": {"algorithm": "crc32", "name": "x-amz-checksum-crc32",
                                                       "in": "trailer"}}},
    }
    _apply_request_trailer_checksum(request)
    h = request["headers"]
    assert h["Content-Encoding"] == "aws-chunked"
    body = request["body"].read()
    rows.append(row("botocore_one_chunk", "ORBS3_AWS_CHUNKED_TRAILER", "STREAMING-UNSIGNED-PAYLOAD-TRAILER",
                    h["X-Amz-Trailer"], int(h["X-Amz-Decoded-Content-Length"]), body, data, 1,
                    "x-amz-checksum-crc32", crc32_b64(data)))

    # The same writer with small chunks, as it frames a file read piece by piece.
    data = payload(1200, 7)
    body = AwsChunkedWrapper(io.BytesIO(data), checksum_cls=Crc32Checksum, checksum_name="x-amz-checksum-crc32",
                             chunk_size=500).read()
    rows.append(row("botocore_three_chunks", "ORBS3_AWS_CHUNKED_TRAILER", "STREAMING-UNSIGNED-PAYLOAD-TRAILER",
                    "x-amz-checksum-crc32", len(data), body, data, 7, "x-amz-checksum-crc32", crc32_b64(data)))

    # An empty object.
    body = AwsChunkedWrapper(io.BytesIO(b""), checksum_cls=Crc32Checksum,
                             checksum_name="x-amz-checksum-crc32").read()
    rows.append(row("botocore_empty", "ORBS3_AWS_CHUNKED_TRAILER", "STREAMING-UNSIGNED-PAYLOAD-TRAILER",
                    "x-amz-checksum-crc32", 0, body, b"", 0, "x-amz-checksum-crc32", crc32_b64(b"")))

    # Signed chunks with a signed trailer, as the Java and Go SDKs send over plain HTTP.
    data = payload(2500, 3)
    ck = crc32_b64(data)
    body = signed_body(data, 1024, [("x-amz-checksum-crc32", ck)])
    rows.append(row("signed_trailer", "ORBS3_AWS_CHUNKED_SIGNED | ORBS3_AWS_CHUNKED_TRAILER",
                    "STREAMING-AWS4-HMAC-SHA256-PAYLOAD-TRAILER", "x-amz-checksum-crc32", len(data), body, data, 3,
                    "x-amz-checksum-crc32", ck))

    # Signed chunks without a trailer, chunk boundaries not on round sizes.
    data = payload(1500, 11)
    body = signed_body(data, 601)
    rows.append(row("signed_plain", "ORBS3_AWS_CHUNKED_SIGNED", "STREAMING-AWS4-HMAC-SHA256-PAYLOAD", "",
                    len(data), body, data, 11, "", ""))

    print("// Written by make_aws_chunked_vectors.py; do not edit. Bodies framed by botocore's AwsChunkedWrapper")
    print("// and by a signer checked against the AWS example upload.")
    print("#pragma once")
    print()
    print("#include <cstddef>")
    print("#include <cstdint>")
    print("#include <string>")
    print("#include <string_view>")
    print()
    print('#include "s3/orbs3_s3_aws_chunked.h"')
    print()
    print("namespace aws_chunked_vectors {")
    print()
    print("// Bytes of every value, CR and LF among them, so framing bytes inside data are exercised.")
    print("inline std::string payload(std::size_t n, unsigned salt)")
    print("{")
    print("    std::string out(n, '\\0');")
    print("    for (std::size_t i = 0; i < n; i++)")
    print("        out[i] = static_cast<char>((i * 131 + salt + (i >> 7)) & 0xFF);")
    print("    return out;")
    print("}")
    print()
    print('inline constexpr std::string_view kSecret = "%s";' % SECRET)
    print('inline constexpr std::string_view kDate = "%s";' % DATE)
    print('inline constexpr std::string_view kScope = "%s";' % SCOPE)
    print('inline constexpr std::string_view kSeed = "%s";' % SEED)
    print()
    print("struct vector {")
    print("    const char* name;")
    print("    unsigned mode;")
    print("    std::string_view content_sha256;")
    print("    std::string_view announced;  // x-amz-trailer")
    print("    int64_t decoded_length;")
    print("    std::string_view body;")
    print("    std::size_t data_size;  // the payload is payload(data_size, data_salt)")
    print("    unsigned data_salt;")
    print("    std::string_view checksum_name;")
    print("    std::string_view checksum_value;")
    print("};")
    print()
    print("inline const vector kVectors[] = {")
    for r in rows:
        sys.stdout.write(r)
    print("};")
    print()
    print("}  // namespace aws_chunked_vectors")


if __name__ == "__main__":
    main()
