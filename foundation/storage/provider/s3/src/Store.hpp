#pragma once

// The object operations the s3: provider is made of, over one Client. Keys are UTF-8 without a
// leading '/'; a folder "a/b" is the prefix "a/b/", with an optional empty marker object of that
// name. Every failure is a provider Exception at the location given.

#include "Client.hpp"

#include <boost/date_time/posix_time/ptime.hpp>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <set>
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

    // Counts the changes made through this store, each counted once it has ended (or failed):
    // an answer taken before the count moved may be out of date.
    std::uint64_t changes() const noexcept { return m_changes.load(std::memory_order_acquire); }
    struct Change {
        Store& store;
        ~Change() { store.m_changes.fetch_add(1, std::memory_order_acq_rel); }
    };

    // Folders made empty through this store a moment ago: what they hold is known without asking,
    // since every key written through this store is noted before it is sent (a removal can only
    // make a name absent). A folder is fresh for two seconds after madeEmpty(); keys another
    // client writes into it meanwhile are not seen, as a listing sent a moment earlier would not
    // have seen them.
    // (`empty` false: it was not made after all.)
    void madeEmpty(const std::string& bucket, const std::string& folderPrefix, bool empty = true);
    // Whether `key` is certainly neither an object nor a folder: it would be in a fresh folder
    // where nothing of that name was written since.
    bool surelyAbsent(const std::string& bucket, const std::string& key) const;
    void forgetMadeFolders();
    // Notes that `key` is being written (also by a multipart upload).
    void writing(const std::string& bucket, const std::string& key);

    bool bucketExists(const std::string& bucket, const StorageIRI& location);
    // Nothing when no object has the key.
    std::optional<ObjectInfo> head(const std::string& bucket, const std::string& key, const StorageIRI& location);
    enum class Kind { None, Object, Folder };
    // What `key` names: an object of that name (which wins), a folder (keys below "key/"), or
    // nothing; one listing answers all three unless many siblings sort before "key/".
    // With `object`, an object found is described there (as HEAD would).
    Kind kindOf(const std::string& bucket, const std::string& key, const StorageIRI& location, ObjectInfo* object = nullptr);
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
    std::atomic<std::uint64_t> m_changes{0};
    struct Fresh {
        std::chrono::steady_clock::time_point made;
        std::set<std::string> names; // written since, first segments below the folder
    };
    mutable std::mutex m_freshMutex;
    std::map<std::string, Fresh> m_fresh; // by bucket + '\0' + folder prefix
};

// One multipart upload, fed part by part: each part goes out on a thread of its own while the next
// is gathered, at most `partsInFlight` at once, so memory stays bounded whatever the object's size.
// The object appears at complete(); an upload destroyed before that, or failing, is aborted.
class MultipartUpload {
public:
    MultipartUpload(Store& store, std::string bucket, std::string key, StorageIRI location);
    ~MultipartUpload();
    MultipartUpload(const MultipartUpload&) = delete;
    MultipartUpload& operator=(const MultipartUpload&) = delete;

    // The size the next part should have: the configured one, larger as parts accumulate, so
    // that 10,000 parts hold any object.
    std::uint64_t nextPartSize() const;
    // Sends `part` (5 MiB or more, except the last); waits while the most parts are in flight and
    // throws what a finished part failed with.
    void add(std::string part);
    void complete();
    // Waits for the parts in flight and aborts; never throws.
    void abort() noexcept;

private:
    void settle(std::size_t number, std::future<std::string>& part);
    Store& m_store;
    std::string m_bucket;
    std::string m_key;
    StorageIRI m_location;
    Settings m_settings;
    std::string m_uploadId;
    std::vector<std::string> m_etags;
    std::deque<std::pair<std::size_t, std::future<std::string>>> m_inFlight;
    bool m_finished = false;
};

} // namespace foundation::storage::provider::s3::detail
