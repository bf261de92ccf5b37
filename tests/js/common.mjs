// What the SDK scripts share: the client as an application configures it (default checksum settings,
// path-style addressing, no retries), deterministic test bytes, checksums computed here rather than taken
// from the SDK under test, and the step runner whose JSON report the end-to-end tests read.
//
// Environment: ORBMUX_ENDPOINT (http://127.0.0.1:PORT), ORBMUX_BUCKET (a bucket the script creates),
// AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY.

import { createHash } from "node:crypto";
import { S3Client } from "@aws-sdk/client-s3";

export const bucket = process.env.ORBMUX_BUCKET;
export const s3 = new S3Client({
  endpoint: process.env.ORBMUX_ENDPOINT,
  region: "us-east-1",
  forcePathStyle: true,
  maxAttempts: 1,
  credentials: { accessKeyId: process.env.AWS_ACCESS_KEY_ID, secretAccessKey: process.env.AWS_SECRET_ACCESS_KEY },
});

// Deterministic pseudo-random bytes, a different stream for each seed, so a misplaced range or part shows.
export function bytes(size, seed) {
  const out = Buffer.alloc(size);
  let x = seed >>> 0 || 1;
  for (let i = 0; i < size; i++) {
    x ^= x << 13; x >>>= 0; x ^= x >>> 17; x ^= x << 5; x >>>= 0;
    out[i] = x & 0xff;
  }
  return out;
}
// CRC-32 as x-amz-checksum-crc32 carries it (base64 of the four bytes, big-endian): the expected values
// are computed here, not taken from the SDK under test.
const CRC_TABLE = Array.from({ length: 256 }, (_, n) => {
  let c = n;
  for (let k = 0; k < 8; k++) c = c & 1 ? 0xedb88320 ^ (c >>> 1) : c >>> 1;
  return c >>> 0;
});
export function crc32(b) {
  let c = 0xffffffff;
  for (const x of b) c = CRC_TABLE[(c ^ x) & 0xff] ^ (c >>> 8);
  const out = Buffer.alloc(4);
  out.writeUInt32BE((c ^ 0xffffffff) >>> 0);
  return out;
}
export const sha256 = (b) => createHash("sha256").update(b).digest("hex");
export const body = async (reply) => Buffer.from(await reply.Body.transformToByteArray());

const results = {};
// Runs one step and records its outcome: what it returns, or the error the SDK raised.
export async function step(name, fn) {
  try {
    results[name] = { ok: true, ...(await fn()) };
  } catch (e) {
    results[name] = {
      ok: false, error: e.name, message: String(e.message).slice(0, 400),
      status: e.$metadata?.httpStatusCode ?? null,
    };
  }
}
// The report of every step, as one JSON document on standard output.
export function report() {
  process.stdout.write(JSON.stringify(results) + "\n");
}
