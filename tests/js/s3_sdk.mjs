// Drives orbmux with the AWS SDK for JavaScript v3 as an application would: default checksum settings
// (the SDK sends CRC32 with uploads and validates x-amz-checksum-* of every download it can), path-style
// addressing, no retries. Runs every step, records each one's outcome, and prints them as one JSON
// document on standard output: {"step": {"ok": true, ...} | {"ok": false, "error": ..., "message": ...}}.
//
// Environment: ORBMUX_ENDPOINT (http://127.0.0.1:PORT), ORBMUX_BUCKET (a bucket it creates),
// AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY.

import { Readable } from "node:stream";
import {
  CreateBucketCommand, PutObjectCommand, GetObjectCommand, HeadObjectCommand, ListObjectsV2Command,
  DeleteObjectsCommand, CreateMultipartUploadCommand, UploadPartCommand, CompleteMultipartUploadCommand,
} from "@aws-sdk/client-s3";
import { body, bucket, bytes, crc32, report, s3, sha256, step } from "./common.mjs";

const keysUnder = async (prefix) =>
  ((await s3.send(new ListObjectsV2Command({ Bucket: bucket, Prefix: prefix }))).Contents ?? []).map((c) => c.Key);

const small = bytes(100 * 1024 + 7, 1);
const partOne = bytes(5 * 1024 * 1024, 2);
const partTwo = bytes(300 * 1024 + 3, 3);

await step("config", async () => ({
  requestChecksumCalculation: await s3.config.requestChecksumCalculation(),
  responseChecksumValidation: await s3.config.responseChecksumValidation(),
}));

await step("create_bucket", async () => ({
  location: (await s3.send(new CreateBucketCommand({ Bucket: bucket }))).Location,
}));

await step("put", async () => {
  const r = await s3.send(new PutObjectCommand({
    Bucket: bucket, Key: "obj/small.bin", Body: small, ContentType: "application/x-test", Metadata: { note: "js sdk" },
  }));
  return {
    etag: r.ETag, sent_sha256: sha256(small), size: small.length,
    crc32: r.ChecksumCRC32 ?? null, want_crc32: crc32(small).toString("base64"),
  };
});

// A body of known length given as a stream: the SDK sends it aws-chunked with its checksum as a trailer.
await step("put_stream", async () => {
  const r = await s3.send(new PutObjectCommand({
    Bucket: bucket, Key: "obj/stream.bin", Body: Readable.from([small.subarray(0, 50000), small.subarray(50000)]),
    ContentLength: small.length,
  }));
  const got = await body(await s3.send(new GetObjectCommand({ Bucket: bucket, Key: "obj/stream.bin" })));
  return { etag: r.ETag, sha256: sha256(got), size: got.length };
});

await step("get", async () => {
  const r = await s3.send(new GetObjectCommand({ Bucket: bucket, Key: "obj/small.bin" }));
  const got = await body(r);
  return { sha256: sha256(got), size: got.length, etag: r.ETag, content_type: r.ContentType };
});

await step("get_range", async () => {
  const r = await s3.send(new GetObjectCommand({ Bucket: bucket, Key: "obj/small.bin", Range: "bytes=1000-50999" }));
  const got = await body(r);
  return { sha256: sha256(got), want_sha256: sha256(small.subarray(1000, 51000)), content_range: r.ContentRange };
});

await step("head", async () => {
  const r = await s3.send(new HeadObjectCommand({ Bucket: bucket, Key: "obj/small.bin", ChecksumMode: "ENABLED" }));
  return {
    size: r.ContentLength, etag: r.ETag, content_type: r.ContentType, metadata: r.Metadata,
    crc32: r.ChecksumCRC32 ?? null,
  };
});

// A multipart upload as an application writes it: CreateMultipartUpload with the checksum settings
// given (none, or CRC32 in S3's composite or full-object form), parts of 5 MiB and a short last one
// (the SDK sends each part's CRC32), CompleteMultipartUpload naming each part's ETag and checksum, then the
// object read back whole (the SDK validates a full-object checksum and skips a composite one) and its
// checksum asked for with HeadObject.
async function multipart(key, create) {
  const { UploadId } = await s3.send(new CreateMultipartUploadCommand({ Bucket: bucket, Key: key, ...create }));
  const parts = [];
  for (const [n, data] of [[1, partOne], [2, partTwo]]) {
    const r = await s3.send(new UploadPartCommand({ Bucket: bucket, Key: key, UploadId, PartNumber: n, Body: data }));
    parts.push({ PartNumber: n, ETag: r.ETag, ChecksumCRC32: r.ChecksumCRC32 });
  }
  const done = await s3.send(new CompleteMultipartUploadCommand({
    Bucket: bucket, Key: key, UploadId, MultipartUpload: { Parts: parts },
  }));
  const got = await body(await s3.send(new GetObjectCommand({ Bucket: bucket, Key: key })));
  const head = await s3.send(new HeadObjectCommand({ Bucket: bucket, Key: key, ChecksumMode: "ENABLED" }));
  const whole = Buffer.concat([partOne, partTwo]);
  return {
    etag: done.ETag, sha256: sha256(got), want_sha256: sha256(whole), size: got.length,
    part_crc32: parts.map((p) => p.ChecksumCRC32 ?? null),
    want_part_crc32: [partOne, partTwo].map((b) => crc32(b).toString("base64")),
    crc32: done.ChecksumCRC32 ?? null, checksum_type: done.ChecksumType ?? null,
    head_crc32: head.ChecksumCRC32 ?? null, head_checksum_type: head.ChecksumType ?? null,
    want_composite: `${crc32(Buffer.concat([crc32(partOne), crc32(partTwo)])).toString("base64")}-2`,
    want_full_object: crc32(whole).toString("base64"),
  };
}

await step("multipart", () => multipart("obj/multi.bin", {}));
await step("multipart_composite", () => multipart("mpu/composite.bin", { ChecksumAlgorithm: "CRC32" }));
await step("multipart_full_object", () =>
  multipart("mpu/full.bin", { ChecksumAlgorithm: "CRC32", ChecksumType: "FULL_OBJECT" }));

await step("list", async () => ({ keys: await keysUnder("obj/") }));

// Keys with blanks and a plus beside keys that are their first word: a batch delete removes exactly
// the keys it names.
await step("delete_objects", async () => {
  const all = ["del/a", "del/report", "del/a b", "del/with", "del/with space/and+plus.txt", "del/ leading", "del/report 2024.pdf"];
  const named = ["del/a b", "del/with space/and+plus.txt", "del/ leading", "del/report 2024.pdf"];
  for (const Key of all) await s3.send(new PutObjectCommand({ Bucket: bucket, Key, Body: Key }));
  const r = await s3.send(new DeleteObjectsCommand({
    Bucket: bucket, Delete: { Objects: named.map((Key) => ({ Key })) },
  }));
  return {
    deleted: (r.Deleted ?? []).map((d) => d.Key).sort(), errors: r.Errors ?? [], remaining: await keysUnder("del/"),
  };
});

report();
