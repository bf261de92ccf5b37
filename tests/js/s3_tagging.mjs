// Object tags through the AWS SDK for JavaScript v3 with its default checksums: x-amz-tagging on a put,
// the tag count of HEAD, a tag set replaced, a version's own tags, a limit refused. Prints one JSON report;
// see common.mjs.

import {
  CreateBucketCommand, PutBucketVersioningCommand, PutObjectCommand, HeadObjectCommand,
  PutObjectTaggingCommand, GetObjectTaggingCommand, DeleteObjectTaggingCommand,
} from "@aws-sdk/client-s3";
import { bucket, bytes, report, s3, step } from "./common.mjs";

const tagsOf = async (Key, VersionId) =>
  (await s3.send(new GetObjectTaggingCommand({ Bucket: bucket, Key, VersionId }))).TagSet.map((t) => [t.Key, t.Value]);
const ids = [];

await step("put_with_header", async () => {
  await s3.send(new CreateBucketCommand({ Bucket: bucket }));
  await s3.send(new PutBucketVersioningCommand({ Bucket: bucket, VersioningConfiguration: { Status: "Enabled" } }));
  for (const [i, Tagging] of ["gen=1&team=a%20b", "gen=2"].entries()) {
    const r = await s3.send(new PutObjectCommand({ Bucket: bucket, Key: "t/doc.bin", Body: bytes(5000, i + 1), Tagging }));
    ids.push(r.VersionId);
  }
  const head = await s3.send(new HeadObjectCommand({ Bucket: bucket, Key: "t/doc.bin", VersionId: ids[0] }));
  return { ids, count: head.TagCount ?? null, old: await tagsOf("t/doc.bin", ids[0]), live: await tagsOf("t/doc.bin") };
});

await step("replace", async () => {
  await s3.send(new PutObjectTaggingCommand({
    Bucket: bucket, Key: "t/doc.bin", Tagging: { TagSet: [{ Key: "only", Value: "this" }] },
  }));
  return { live: await tagsOf("t/doc.bin"), old: await tagsOf("t/doc.bin", ids[0]) };
});

await step("delete_version_tags", async () => {
  const r = await s3.send(new DeleteObjectTaggingCommand({ Bucket: bucket, Key: "t/doc.bin", VersionId: ids[0] }));
  return { version: r.VersionId ?? null, old: await tagsOf("t/doc.bin", ids[0]), live: await tagsOf("t/doc.bin") };
});

await step("too_many", async () => {
  const TagSet = Array.from({ length: 11 }, (_, i) => ({ Key: `k${i}`, Value: "v" }));
  await s3.send(new PutObjectTaggingCommand({ Bucket: bucket, Key: "t/doc.bin", Tagging: { TagSet } }));
  return {};
});

report();
