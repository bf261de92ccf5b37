// The AWS SDK for JavaScript v3 over HTTPS with its default settings: a body given as a stream goes
// aws-chunked with its CRC32 as a trailer and an unsigned payload, which is what current SDKs send when
// TLS protects the bytes. Puts and reads back objects of 0 B, 1 B and 5 MiB + 1, uploads one in two parts
// (5 MiB and 1 B), lists them, and prints one JSON report: {"step": {"ok": true, ...} | {"ok": false, ...}}.
// Besides the results it records how the SDK framed each upload (x-amz-content-sha256, Content-Encoding),
// as its request left the signer.
//
// Environment: ORBMUX_ENDPOINT (https://127.0.0.1:PORT), ORBMUX_BUCKET (a bucket it creates),
// AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY, NODE_EXTRA_CA_CERTS (the CA of the service's certificate).

import { Readable } from "node:stream";
import {
  CreateBucketCommand, PutObjectCommand, GetObjectCommand, ListObjectsV2Command,
  CreateMultipartUploadCommand, UploadPartCommand, CompleteMultipartUploadCommand,
} from "@aws-sdk/client-s3";
import { body, bucket, bytes, report, s3, sha256, step } from "./common.mjs";

const framing = [];
s3.middlewareStack.add((next) => async (args) => {
  const h = args.request.headers ?? {};
  if (h["x-amz-content-sha256"] !== undefined && args.request.method === "PUT") {
    framing.push({ payload: h["x-amz-content-sha256"], encoding: h["content-encoding"] ?? null,
                   trailer: h["x-amz-trailer"] ?? null });
  }
  return next(args);
}, { step: "finalizeRequest", priority: "low", name: "recordFraming" });

// A stream of known length, in pieces, as an application hands a file to the SDK.
const stream = (b) => Readable.from([b.subarray(0, b.length >> 1), b.subarray(b.length >> 1)]);

await step("create_bucket", async () => {
  await s3.send(new CreateBucketCommand({ Bucket: bucket }));
  return {};
});

for (const [name, size, seed] of [["zero", 0, 1], ["one", 1, 2], ["five_mib_plus_one", 5 * 1024 * 1024 + 1, 3]]) {
  await step(`put_${name}`, async () => {
    const data = bytes(size, seed);
    framing.length = 0;
    await s3.send(new PutObjectCommand({ Bucket: bucket, Key: `obj/${name}`, Body: stream(data), ContentLength: size }));
    const got = await body(await s3.send(new GetObjectCommand({ Bucket: bucket, Key: `obj/${name}` })));
    return { sha256: sha256(got), want_sha256: sha256(data), size: got.length, framing: [...framing] };
  });
}

await step("multipart", async () => {
  const key = "obj/multi";
  const pieces = [bytes(5 * 1024 * 1024, 4), bytes(1, 5)];
  framing.length = 0;
  const { UploadId } = await s3.send(new CreateMultipartUploadCommand({ Bucket: bucket, Key: key }));
  const parts = [];
  for (const [i, data] of pieces.entries()) {
    const r = await s3.send(new UploadPartCommand({
      Bucket: bucket, Key: key, UploadId, PartNumber: i + 1, Body: stream(data), ContentLength: data.length,
    }));
    parts.push({ PartNumber: i + 1, ETag: r.ETag, ChecksumCRC32: r.ChecksumCRC32 });
  }
  const done = await s3.send(new CompleteMultipartUploadCommand({
    Bucket: bucket, Key: key, UploadId, MultipartUpload: { Parts: parts },
  }));
  const got = await body(await s3.send(new GetObjectCommand({ Bucket: bucket, Key: key })));
  return { etag: done.ETag, sha256: sha256(got), want_sha256: sha256(Buffer.concat(pieces)), size: got.length,
           framing: [...framing] };
});

await step("list", async () => {
  const r = await s3.send(new ListObjectsV2Command({ Bucket: bucket, Prefix: "obj/" }));
  return { objects: (r.Contents ?? []).map((c) => [c.Key, c.Size]) };
});

report();
