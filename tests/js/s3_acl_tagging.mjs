// Object tags and ACLs through the AWS SDK for JavaScript v3 with its default checksums: x-amz-tagging on a
// put, the tag count of HEAD, a tag set replaced, a version's own tags, a limit refused; canned and grant
// ACLs on a bucket and an object read back, and a public object fetched without credentials. Prints one
// JSON report; see common.mjs.

import {
  CreateBucketCommand, PutBucketVersioningCommand, PutObjectCommand, HeadObjectCommand,
  PutObjectTaggingCommand, GetObjectTaggingCommand, DeleteObjectTaggingCommand,
  PutObjectAclCommand, GetObjectAclCommand, PutBucketAclCommand, GetBucketAclCommand,
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

// Grants as [type, ID or URI, permission], sorted: what a client reads of an ACL document.
const grantsOf = (acl) => acl.Grants.map((g) => [g.Grantee.Type, g.Grantee.ID ?? g.Grantee.URI, g.Permission]).sort();
const anonymous = async (Key) => {
  const r = await fetch(`${process.env.ORBMUX_ENDPOINT}/${bucket}/${Key}`);
  return { status: r.status, body: await r.text() };
};

await step("object_acl", async () => {
  const Key = "acl/public.txt";
  await s3.send(new PutObjectCommand({ Bucket: bucket, Key, Body: "open to all", ACL: "public-read" }));
  const canned = await s3.send(new GetObjectAclCommand({ Bucket: bucket, Key }));
  const open = await anonymous(Key);
  await s3.send(new PutObjectAclCommand({
    Bucket: bucket, Key, GrantRead: 'uri="http://acs.amazonaws.com/groups/global/AuthenticatedUsers"',
  }));
  const granted = await s3.send(new GetObjectAclCommand({ Bucket: bucket, Key }));
  return { owner: canned.Owner.ID, canned: grantsOf(canned), open, granted: grantsOf(granted),
           closed: (await anonymous(Key)).status };
});

await step("bucket_acl", async () => {
  await s3.send(new PutBucketAclCommand({ Bucket: bucket, ACL: "public-read" }));
  const acl = await s3.send(new GetBucketAclCommand({ Bucket: bucket }));
  const listing = await fetch(`${process.env.ORBMUX_ENDPOINT}/${bucket}?list-type=2&prefix=acl%2F`);
  await s3.send(new PutBucketAclCommand({ Bucket: bucket, ACL: "private" }));
  return { owner: acl.Owner.ID, grants: grantsOf(acl), listing: listing.status,
           closed: (await fetch(`${process.env.ORBMUX_ENDPOINT}/${bucket}`)).status };
});

report();
