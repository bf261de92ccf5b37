// Object versions through the AWS SDK for JavaScript v3 with its default checksums: versioning enabled
// and suspended, overwrites, reads by version id (the SDK validates the CRC32 of each), delete markers,
// copy from a version and a batch delete by version id. Prints one JSON report; see common.mjs.

import {
  CreateBucketCommand, PutBucketVersioningCommand, GetBucketVersioningCommand, PutObjectCommand,
  GetObjectCommand, HeadObjectCommand, DeleteObjectCommand, DeleteObjectsCommand, CopyObjectCommand,
  ListObjectVersionsCommand,
} from "@aws-sdk/client-s3";
import { body, bucket, bytes, report, s3, sha256, step } from "./common.mjs";

const contents = [bytes(70000, 11), bytes(70001, 12), bytes(70002, 13)];
const ids = [];
const versioning = async () => (await s3.send(new GetBucketVersioningCommand({ Bucket: bucket }))).Status ?? null;
const setVersioning = (Status) =>
  s3.send(new PutBucketVersioningCommand({ Bucket: bucket, VersioningConfiguration: { Status } }));
const versionsOf = async (Prefix) => {
  const r = await s3.send(new ListObjectVersionsCommand({ Bucket: bucket, Prefix }));
  return {
    versions: (r.Versions ?? []).map((v) => [v.Key, v.VersionId, v.IsLatest, Number(v.Size)]),
    markers: (r.DeleteMarkers ?? []).map((m) => [m.Key, m.VersionId, m.IsLatest]),
  };
};

await step("create_bucket", async () => {
  await s3.send(new CreateBucketCommand({ Bucket: bucket }));
  return { before: await versioning() };
});

await step("enable", async () => {
  await setVersioning("Enabled");
  return { status: await versioning() };
});

await step("overwrite", async () => {
  for (const c of contents) {
    const r = await s3.send(new PutObjectCommand({ Bucket: bucket, Key: "v/doc.bin", Body: c, Metadata: { n: `${c.length}` } }));
    ids.push(r.VersionId ?? null);
  }
  return { ids, ...(await versionsOf("v/")) };
});

// Each version read back whole, its CRC32 validated by the SDK, and its own metadata with it.
await step("get_versions", async () => {
  const got = [];
  for (const VersionId of ids) {
    const r = await s3.send(new GetObjectCommand({ Bucket: bucket, Key: "v/doc.bin", VersionId }));
    got.push({ id: r.VersionId, sha256: sha256(await body(r)), meta: r.Metadata?.n ?? null });
  }
  return { got, want: contents.map((c) => ({ sha256: sha256(c), meta: `${c.length}` })) };
});

await step("head_version", async () => {
  const r = await s3.send(new HeadObjectCommand({ Bucket: bucket, Key: "v/doc.bin", VersionId: ids[0] }));
  return { id: r.VersionId, size: r.ContentLength };
});

await step("copy_from_version", async () => {
  const r = await s3.send(new CopyObjectCommand({
    Bucket: bucket, Key: "v/copy.bin", CopySource: `${bucket}/v/doc.bin?versionId=${ids[1]}`,
  }));
  const got = await body(await s3.send(new GetObjectCommand({ Bucket: bucket, Key: "v/copy.bin" })));
  return { source_id: r.CopySourceVersionId ?? null, sha256: sha256(got), want: sha256(contents[1]) };
});

await step("delete_marker", async () => {
  const d = await s3.send(new DeleteObjectCommand({ Bucket: bucket, Key: "v/doc.bin" }));
  let status = null;
  try {
    await s3.send(new GetObjectCommand({ Bucket: bucket, Key: "v/doc.bin" }));
  } catch (e) {
    status = e.$metadata?.httpStatusCode ?? null;
  }
  const listed = await versionsOf("v/doc");
  await s3.send(new DeleteObjectCommand({ Bucket: bucket, Key: "v/doc.bin", VersionId: d.VersionId }));
  const back = await body(await s3.send(new GetObjectCommand({ Bucket: bucket, Key: "v/doc.bin" })));
  return { marker: d.DeleteMarker ?? null, marker_id: d.VersionId ?? null, get_status: status, listed,
           back: sha256(back), want: sha256(contents[2]) };
});

await step("delete_objects_by_version", async () => {
  const r = await s3.send(new DeleteObjectsCommand({
    Bucket: bucket, Delete: { Objects: [{ Key: "v/doc.bin", VersionId: ids[0] }] },
  }));
  return { deleted: (r.Deleted ?? []).map((d) => [d.Key, d.VersionId]), errors: r.Errors ?? [],
           ...(await versionsOf("v/doc")) };
});

await step("suspend", async () => {
  await setVersioning("Suspended");
  const r = await s3.send(new PutObjectCommand({ Bucket: bucket, Key: "v/doc.bin", Body: contents[0] }));
  return { status: await versioning(), id: r.VersionId ?? null, ...(await versionsOf("v/doc")) };
});

report();
