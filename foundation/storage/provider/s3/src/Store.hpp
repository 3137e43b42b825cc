#pragma once

// The object operations the s3: provider is made of, over one Client. Keys are UTF-8 without a
// leading '/'; a folder "a/b" is the prefix "a/b/", with an optional empty marker object of that
// name. Every failure is a provider Exception at the location given.

#include "Client.hpp"

#include <boost/date_time/posix_time/ptime.hpp>

#include <optional>
#include <string>
#include <vector>

namespace foundation::storage::provider::s3::detail {

struct ObjectInfo {
    std::string key;
    std::uint64_t size = 0;
    boost::posix_time::ptime lastModified; // whole seconds, as HEAD reports it
    std::string etag;
};

struct ListPage {
    std::vector<ObjectInfo> objects;   // in key order
    std::vector<std::string> prefixes; // CommonPrefixes, in key order
    std::string continuation;          // empty on the last page
};

struct Place {
    std::string bucket;
    std::string key; // "" for the bucket's root
    // The prefix of everything below the folder this place names ("" for the root).
    std::string folderPrefix() const { return key.empty() ? key : key + "/"; }
};

Place placeOf(const StorageIRI& location);

class Store {
public:
    explicit Store(Settings settings) : m_client(std::move(settings)) {}

    Client& client() noexcept { return m_client; }

    bool bucketExists(const std::string& bucket, const StorageIRI& location);
    // Nothing when no object has the key.
    std::optional<ObjectInfo> head(const std::string& bucket, const std::string& key, const StorageIRI& location);
    // Whether any key starts with `prefix`.
    bool prefixExists(const std::string& bucket, const std::string& prefix, const StorageIRI& location);
    ListPage list(const std::string& bucket, const std::string& prefix, bool delimited, const std::string& continuation,
                  int maxKeys, const StorageIRI& location);
    // A PUT of `body`; with `onlyIfAbsent` ResourceAlreadyExists when the key exists.
    void put(const std::string& bucket, const std::string& key, const std::string& body, bool onlyIfAbsent,
             const StorageIRI& location);
    // CopyObject, server-side, also between buckets of one service.
    void copy(const std::string& fromBucket, const std::string& from, const std::string& toBucket, const std::string& to,
              const StorageIRI& location);
    void remove(const std::string& bucket, const std::string& key, const StorageIRI& location);
    // DeleteObjects, 1,000 keys a request.
    void removeKeys(const std::string& bucket, const std::vector<std::string>& keys, const StorageIRI& location);
    struct Range {
        std::string bytes;
        std::string etag;        // of the version read
        std::uint64_t total = 0; // that version's size
    };
    // Bytes [offset, offset + size) of the object; with an `etag`, ResourceNotFound when the object
    // is another version by now.
    Range read(const std::string& bucket, const std::string& key, std::uint64_t offset, std::uint64_t size,
               const std::string& etag, const StorageIRI& location);
    // Uploads `size` bytes of the file `fd` as the object: one PUT up to the multipart threshold,
    // else a multipart upload with several parts in flight that is aborted on any failure, so the
    // object appears whole or not at all.
    void upload(const std::string& bucket, const std::string& key, int fd, std::uint64_t size, const StorageIRI& location);

    Response send(const Request& request, const StorageIRI& location, const char* operation)
    {
        return m_client.send(request, location, operation);
    }

private:
    void uploadMultipart(const std::string& bucket, const std::string& key, int fd, std::uint64_t size,
                         const Settings& settings, const StorageIRI& location);
    Client m_client;
};

} // namespace foundation::storage::provider::s3::detail
