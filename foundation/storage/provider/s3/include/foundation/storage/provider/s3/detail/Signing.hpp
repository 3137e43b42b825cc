#pragma once

// AWS Signature Version 4 for S3 requests. The canonical forms built here are also what goes on the
// wire: the request's path and query are written from the same encoded text that is signed, so
// the two can never differ.

#include <fl/export.hpp>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace foundation::storage::provider::s3::detail {

struct Credentials {
    std::string accessKeyId;
    std::string secretAccessKey;
    std::string sessionToken; // empty: none
};

// Decoded (name, value) pairs; "?uploads" is {"uploads", ""}.
using QueryParameters = std::vector<std::pair<std::string, std::string>>;
// Lower-case names and their values, as sent.
using Headers = std::vector<std::pair<std::string, std::string>>;

// Percent-encodes every byte except the unreserved A-Z a-z 0-9 - _ . ~ (and '/' when `keepSlash`),
// with upper-case hex: S3's rule for paths and query parts alike.
VFS_EXPORT std::string uriEncode(std::string_view bytes, bool keepSlash);
// The query as signed and sent: pairs encoded, sorted by name then value, "name=value" joined by '&'.
VFS_EXPORT std::string canonicalQuery(QueryParameters parameters);
VFS_EXPORT std::string sha256Hex(std::string_view bytes);

struct SigningRequest {
    std::string method;
    std::string encodedPath;    // "/bucket/key" or "/key", encoded by uriEncode(.., true)
    std::string canonicalQuery; // from canonicalQuery()
    Headers headers;            // every header that is sent and signed, "host" included
    std::string payloadHash;    // sha256Hex of the body, or "UNSIGNED-PAYLOAD"
    std::string amzDate;        // "20260124T050000Z"
    std::string region;
};

// Adds x-amz-date, x-amz-content-sha256 and (with a session token) x-amz-security-token to the
// request's headers and returns the value of its Authorization header.
VFS_EXPORT std::string signRequest(SigningRequest& request, const Credentials& credentials);

} // namespace foundation::storage::provider::s3::detail
