#pragma once

#include <foundation/storage/provider/IProvider.hpp>

#include <memory>

namespace foundation::storage::provider::s3 {

// Object storage over the S3 protocol (AWS, Ceph's radosgw, ...) serving s3://BUCKET/key IRIs.
//
// Settings start from the conventions of the AWS tools: AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY,
// AWS_SESSION_TOKEN, AWS_REGION / AWS_DEFAULT_REGION, AWS_ENDPOINT_URL, and AWS_PROFILE with
// ~/.aws/credentials and ~/.aws/config. configure() takes the keys "endpoint", "region",
// "accessKeyId", "secretAccessKey", "sessionToken", "profile", "addressing" ("path" or "virtual";
// path-style is the default with an endpoint of one's own), "connectTimeoutMs", "requestTimeoutMs",
// "retries", "pageSize" (keys per listing request, 1 to 1,000), "multipartThreshold", "partSize"
// (5 MiB or more), "partsInFlight" and "readAhead". Secrets never appear in exception texts.
//
// Folders are key prefixes: "a/b" is a folder when a key starts with "a/b/"; createFolder leaves an
// empty marker object "a/b/" so that an empty folder exists. When both an object "a" and keys
// below "a/" exist, the object wins: "a" is a file and listings show the file only, while the keys
// below "a/" stay reachable by their own IRIs. A bucket is the root folder of its IRI: createFolder
// on s3://bucket/ creates the bucket, removeFolder removes an empty one. Keys no normalised IRI can
// name (an empty segment as in "a//b", "." or "..") are left out of listings, never shown under
// another name. Moves are a server-side copy and a delete: not atomic. Objects keep whole-second
// times, reported alike by attributes and listings; folders report the epoch. Writing streams
// spool to an unnamed temporary file and upload when closed; the transactional stream's object
// appears only when the upload completes (one PUT, or a multipart upload for large files), and
// Discard leaves nothing behind. Change events come from polling.
VFS_EXPORT std::shared_ptr<IProvider> makeS3Provider();

} // namespace foundation::storage::provider::s3
