"""The AWS SDK for JavaScript v3 end to end, with its default checksum settings: it sends CRC32 with
every upload (in a header, or as an aws-chunked trailer for a stream) and validates the x-amz-checksum-*
of every download, which Debian's boto3 and AWS CLI do not. tests/js/s3_sdk.mjs runs put, get whole and
ranged, head, multipart, list and batch delete once against one daemon; each test checks one step of its
JSON report. The SDK is installed into tests/js by scripts/install-deps.sh.
"""

import json
import os
import shutil
import subprocess
from types import SimpleNamespace

import pytest

from orbmux_harness import SLOWDOWN, Sandbox, free_port, tool_env, wait_port

USER = "js-user"
BUCKET = "jsdk"
JS_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "js")
SCRIPT = os.path.join(JS_DIR, "s3_sdk.mjs")
MIB = 1 << 20


@pytest.fixture(scope="module")
def report():
    """The SDK script's report of every step, run once against a fresh daemon and the bucket it creates."""
    node = shutil.which("node")
    assert node, "node is missing: run scripts/install-deps.sh"
    assert os.path.isdir(os.path.join(JS_DIR, "node_modules", "@aws-sdk", "client-s3")), \
        "the SDK is missing from tests/js: run scripts/install-deps.sh"
    box = Sandbox()
    port = free_port()
    info = box.add_tenant("js", port, "--user", USER)
    box.start("-d")
    try:
        wait_port(port)
        env = tool_env(SimpleNamespace(info=info), box.path("."))
        env.update(ORBMUX_ENDPOINT=f"http://127.0.0.1:{port}", ORBMUX_BUCKET=BUCKET)
        out = subprocess.run([node, SCRIPT], env=env, capture_output=True, text=True, timeout=120 * SLOWDOWN)
        assert out.returncode == 0, (out.stdout, out.stderr)
        yield json.loads(out.stdout)
    finally:
        box.cleanup()


def passed(report, step):
    got = report[step]
    assert got["ok"], got
    return got


def test_the_sdk_runs_with_default_checksums_and_creates_its_bucket(report):
    assert passed(report, "config") == {"ok": True, "requestChecksumCalculation": "WHEN_SUPPORTED",
                                        "responseChecksumValidation": "WHEN_SUPPORTED"}
    assert passed(report, "create_bucket")["location"] == f"/{BUCKET}"


def test_put_get_and_head_round_trip(report):
    put, get, head = passed(report, "put"), passed(report, "get"), passed(report, "head")
    assert get["sha256"] == put["sent_sha256"] and get["size"] == put["size"]
    assert get["etag"] == head["etag"] == put["etag"]
    assert head["size"] == put["size"]
    assert get["content_type"] == head["content_type"] == "application/x-test"
    assert head["metadata"] == {"note": "js sdk"}
    assert head["crc32"] == put["want_crc32"]


def test_put_of_a_stream_with_a_trailing_checksum(report):
    stream, put = passed(report, "put_stream"), passed(report, "put")
    assert stream["sha256"] == put["sent_sha256"] and stream["etag"] == put["etag"]


def test_put_answers_the_checksum_it_verified(report):
    put = passed(report, "put")
    assert put["crc32"] == put["want_crc32"]


def test_ranged_get(report):
    got = passed(report, "get_range")
    assert got["sha256"] == got["want_sha256"]
    assert got["content_range"] == f"bytes 1000-50999/{passed(report, 'put')['size']}"


@pytest.mark.parametrize("step", ["multipart", "multipart_composite", "multipart_full_object"])
def test_multipart_upload(report, step):
    got = passed(report, step)
    assert got["sha256"] == got["want_sha256"] and got["size"] == 5 * MIB + 300 * 1024 + 3
    assert got["etag"].endswith('-2"')


def test_upload_part_answers_the_checksum_of_the_part(report):
    got = passed(report, "multipart_composite")
    assert got["part_crc32"] == got["want_part_crc32"]


@pytest.mark.parametrize("step,form,want", [("multipart_composite", "COMPOSITE", "want_composite"),
                                            ("multipart_full_object", "FULL_OBJECT", "want_full_object")])
def test_multipart_object_checksum(report, step, form, want):
    got = passed(report, step)
    assert (got["crc32"], got["checksum_type"]) == (got[want], form)
    assert (got["head_crc32"], got["head_checksum_type"]) == (got[want], form)


def test_list_objects_v2(report):
    assert passed(report, "list")["keys"] == ["obj/multi.bin", "obj/small.bin", "obj/stream.bin"]


def test_delete_objects_deletes_exactly_the_keys_named(report):
    got = passed(report, "delete_objects")
    named = sorted(["del/a b", "del/with space/and+plus.txt", "del/ leading", "del/report 2024.pdf"])
    assert got["errors"] == [] and got["deleted"] == named
    assert got["remaining"] == ["del/a", "del/report", "del/with"]
