"""S3 clients over HTTPS, on one daemon whose tenant has a certificate of a test CA for its domain and its
virtual-host names: boto3, the AWS CLI, s3cmd, rclone and the AWS SDK for JavaScript v3 (default settings:
aws-chunked bodies with trailing checksums) put, get, list and upload in parts objects of 0 B to 100 MiB,
byte for byte; curl reaches a virtual-host bucket by its name and checks the certificate it was given."""

import hashlib
import json
import os
import re
import shutil
import subprocess

import pytest

from orbmux_harness import SLOWDOWN, md5, run, tenant_fixture

DOMAIN = "s3.tls.test"
MIB = 1 << 20
SMALL = {"zero": 0, "one": 1, "five_mib_plus_one": 5 * MIB + 1}
BIG = 100 * MIB
JS_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "js")

tenant = tenant_fixture("tls", "--domain", DOMAIN, tls=True, buckets=("boto", "cli", "s3c", "rcl"))


@pytest.fixture(scope="module")
def files(tenant):
    """Files of random bytes of each size, written once: {name: path}."""
    d = tenant.box.path("payload")
    os.makedirs(d)
    out = {}
    for name, size in [*SMALL.items(), ("big", BIG)]:
        out[name] = os.path.join(d, name)
        with open(out[name], "wb") as f:
            f.write(os.urandom(size))
    return out


def digest(path):
    with open(path, "rb") as f:
        return hashlib.file_digest(f, "md5").hexdigest()


def test_boto3_put_get_list_and_multipart(tenant, files):
    from boto3.s3.transfer import TransferConfig
    s3 = tenant.client(read_timeout=120)
    for name in SMALL:
        with open(files[name], "rb") as f:
            data = f.read()
        s3.put_object(Bucket="boto", Key=name, Body=data)
        assert md5(s3.get_object(Bucket="boto", Key=name)["Body"].read()) == md5(data), name
    # 100 MiB in 16 MiB parts, read back in ranges on several connections at once.
    cfg = TransferConfig(multipart_threshold=16 * MIB, multipart_chunksize=16 * MIB, max_concurrency=4)
    s3.upload_file(files["big"], "boto", "big", Config=cfg)
    back = tenant.box.path("boto-big")
    s3.download_file("boto", "big", back, Config=cfg)
    assert digest(back) == digest(files["big"])
    assert s3.head_object(Bucket="boto", Key="big")["ETag"].endswith('-7"')
    listed = {o["Key"]: o["Size"] for o in s3.list_objects_v2(Bucket="boto")["Contents"]}
    assert listed == {**SMALL, "big": BIG}


def test_aws_cli_copies_up_and_down_with_its_ca_bundle(tenant, files, tmp_path):
    env = tenant.env(str(tmp_path))
    for name in [*SMALL, "big"]:
        run(tenant.aws() + ["s3", "cp", "--only-show-errors", files[name], f"s3://cli/{name}"], env)
    listed = {line.split()[-1]: int(line.split()[-2])
              for line in run(tenant.aws() + ["s3", "ls", "s3://cli/"], env).splitlines()}
    assert listed == {**SMALL, "big": BIG}
    head = json.loads(run(tenant.aws() + ["s3api", "head-object", "--bucket", "cli", "--key", "big"], env))
    assert re.fullmatch(r'"[0-9a-f]{32}-\d+"', head["ETag"]), "the 100 MiB copy went up in parts"
    down = tmp_path / "down"
    run(tenant.aws() + ["s3", "cp", "--only-show-errors", "--recursive", "s3://cli/", str(down)], env)
    for name in [*SMALL, "big"]:
        assert digest(down / name) == digest(files[name]), name


def test_s3cmd_over_ssl(tenant, files, tmp_path):
    env = tenant.env(str(tmp_path))
    # 5 MiB chunks: the 5 MiB + 1 object goes up in two parts.
    for name in SMALL:
        run(tenant.s3cmd() + ["--multipart-chunk-size-mb=5", "put", files[name], f"s3://s3c/{name}"], env)
    listed = {line.split()[-1]: int(line.split()[2])
              for line in run(tenant.s3cmd() + ["ls", "s3://s3c/"], env).splitlines()}
    assert listed == {f"s3://s3c/{n}": s for n, s in SMALL.items()}
    for name in SMALL:
        got = tmp_path / name
        run(tenant.s3cmd() + ["get", "--force", f"s3://s3c/{name}", str(got)], env)
        assert digest(got) == digest(files[name]), name


def test_rclone_copy_and_check(tenant, files, tmp_path):
    env = tenant.rclone(str(tmp_path))
    src = tmp_path / "src"
    src.mkdir()
    for name in SMALL:
        shutil.copy(files[name], src / name)
    # The cutoff below 5 MiB + 1 sends that file in parts.
    opts = ["--s3-upload-cutoff", "5M", "--s3-chunk-size", "5M"]
    run(["/usr/bin/rclone", "copy", *opts, str(src), "om:rcl/dir"], env)
    run(["/usr/bin/rclone", "check", "--download", str(src), "om:rcl/dir"], env)
    run(["/usr/bin/rclone", "copy", "om:rcl/dir", str(tmp_path / "back")], env)
    for name in SMALL:
        assert digest(tmp_path / "back" / name) == digest(files[name]), name


def test_js_sdk_default_settings_send_aws_chunked_bodies(tenant, tmp_path):
    node = shutil.which("node")
    assert node and os.path.isdir(os.path.join(JS_DIR, "node_modules", "@aws-sdk", "client-s3")), \
        "node or the SDK is missing: run scripts/install-deps.sh"
    out = subprocess.run([node, os.path.join(JS_DIR, "s3_https.mjs")], env=tenant.js_env(str(tmp_path), "jsb"),
                         capture_output=True, text=True, timeout=120 * SLOWDOWN)
    assert out.returncode == 0, (out.stdout, out.stderr)
    report = json.loads(out.stdout)
    assert all(step["ok"] for step in report.values()), report
    chunked = {"payload": "STREAMING-UNSIGNED-PAYLOAD-TRAILER", "encoding": "aws-chunked",
               "trailer": "x-amz-checksum-crc32"}
    for name, size in SMALL.items():
        got = report[f"put_{name}"]
        assert got["sha256"] == got["want_sha256"] and got["size"] == size, name
        assert got["framing"] == [chunked], got["framing"]
    multi = report["multipart"]
    assert multi["sha256"] == multi["want_sha256"] and multi["size"] == 5 * MIB + 1
    assert multi["etag"].endswith('-2"') and multi["framing"] == [chunked, chunked]
    assert sorted(report["list"]["objects"]) == sorted([[f"obj/{n}", s] for n, s in SMALL.items()]
                                                       + [["obj/multi", 5 * MIB + 1]])


def test_curl_reaches_a_virtual_host_bucket_by_name_with_the_tenants_certificate(tenant, files):
    host = f"boto.{DOMAIN}"
    s3 = tenant.client(style="virtual", endpoint=f"https://{DOMAIN}:{tenant.port}")
    url = s3.generate_presigned_url("get_object", Params={"Bucket": "boto", "Key": "five_mib_plus_one"})
    assert url.startswith(f"https://{host}:{tenant.port}/five_mib_plus_one?")
    got = tenant.box.path("curl-get")
    out = subprocess.run(["curl", "-sS", "-v", "--cacert", tenant.ca, "--resolve", f"{host}:{tenant.port}:127.0.0.1",
                          "-o", got, "-w", "%{http_code}", url], capture_output=True, text=True, timeout=60)
    assert out.returncode == 0 and out.stdout == "200", (out.stdout, out.stderr)
    assert digest(got) == digest(files["five_mib_plus_one"])
    # curl verified the chain and matched the name it asked for (SNI) against the tenant's wildcard.
    assert f"subject: CN={DOMAIN}" in out.stderr, out.stderr
    assert re.search(rf'subjectAltName: host "{re.escape(host)}" matched cert\'s "\*\.{re.escape(DOMAIN)}"',
                     out.stderr), out.stderr
    assert "ALPN: server accepted http/1.1" in out.stderr or "ALPN, server accepted to use http/1.1" in out.stderr
