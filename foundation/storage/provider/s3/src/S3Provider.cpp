#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/s3/S3Provider.hpp>

#include "Streams.hpp"

#include <foundation/log/diagnostic_logger.hpp>

#include <fl/i18n/ustring.hpp>

#include <boost/date_time/posix_time/conversion.hpp>

#include <array>
#include <chrono>
#include <deque>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace foundation::storage::provider::s3 {

namespace {

using namespace detail;

foundation::log::diagnostic_logger& logger() noexcept
{
    // Never destroyed: listings may end during static destruction.
    static auto* instance = new foundation::log::diagnostic_logger("foundation::storage::provider::s3");
    return *instance;
}

const boost::posix_time::ptime folderTime = boost::posix_time::from_time_t(0);

ustring nameOf(std::string_view key)
{
    return fl::i18n::native_to_ustring(key);
}

bool reachableSegment(std::string_view segment)
{
    return !segment.empty() && segment != "." && segment != "..";
}

// A key below a listed folder that no normalised IRI can name is left out, and said so once.
void unreachable(const std::string& bucket, const std::string& key)
{
    if (logger().enabled(foundation::log::category_information))
        logger().write(foundation::log::category_information,
                       "s3: the key \"" + key + "\" of bucket \"" + bucket + "\" has an empty, \".\" or \"..\" segment; "
                       "no IRI names it, so listings leave it out");
}

[[noreturn]] void wrongKind(const char* operation, const StorageIRI& location, bool fileWanted)
{
    throwProviderError(ErrorCode::ResourceNotFound, location,
                       {ExceptionContext(fl::i18n::utf8_to_ustring(operation)),
                        ExceptionContext(fileWanted ? u"not-a-file" : u"not-a-folder")});
}

[[noreturn]] void notFound(const char* operation, const StorageIRI& location)
{
    throwProviderError(ErrorCode::ResourceNotFound, location,
                       {ExceptionContext(fl::i18n::utf8_to_ustring(operation)), ExceptionContext(u"NoSuchKey")});
}

[[noreturn]] void alreadyExists(const char* operation, const StorageIRI& location)
{
    throwProviderError(ErrorCode::ResourceAlreadyExists, location,
                       {ExceptionContext(fl::i18n::utf8_to_ustring(operation)), ExceptionContext(u"exists")});
}

std::string literalPrefix(const ustring& pattern)
{
    const auto wild = pattern.find_first_of(u"*?");
    return fl::i18n::ustring_to_native(std::u16string_view(pattern).substr(0, wild));
}

// Folders this provider saw or made a moment ago, so that files written one after another into a
// folder ask for it once, not once each. An entry lives a few seconds, and any removal or move
// through this provider forgets them all. A folder another client removes meanwhile can at worst
// come back holding the file written into it; nothing that exists is ever taken for absent.
class KnownFolders {
public:
    bool contains(const std::string& bucket, const std::string& prefix) const
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_seen.find(bucket + '\0' + prefix);
        return found != m_seen.end() && std::chrono::steady_clock::now() - found->second < lifetime;
    }
    void add(const std::string& bucket, const std::string& prefix)
    {
        const std::lock_guard lock(m_mutex);
        if (m_seen.size() >= 4096)
            m_seen.clear();
        m_seen[bucket + '\0' + prefix] = std::chrono::steady_clock::now();
    }
    void forget()
    {
        const std::lock_guard lock(m_mutex);
        m_seen.clear();
    }

private:
    static constexpr std::chrono::seconds lifetime{5};
    mutable std::mutex m_mutex;
    std::unordered_map<std::string, std::chrono::steady_clock::time_point> m_seen;
};

// An answer of exists() or getFileAttributes(). A copy asks about its source and its target and
// opens both right after (a folder copy asks on its walking thread and copies on another): the
// opens take those answers instead of asking the same again.
struct LastExistence {
    ExistenceType kind = ExistenceType::NotFound;
    std::optional<ObjectInfo> object;
    std::uint64_t changes = 0;
    std::chrono::steady_clock::time_point when;
    bool listed = false; // an entry of a listing: a tree copy asks about each as it walks
};

// The latest answers by location. Each serves once and only for a moment (a second for a listed
// entry, which a walk may reach later); what an object was like serves only while no change was
// made through the same store. Changes by other clients within that moment are not seen, as they
// would not have been by a request sent a moment earlier.
class RecentAnswers {
public:
    explicit RecentAnswers(const Store& store) : m_store(store) {}
    void put(const StorageIRI& location, LastExistence answer)
    {
        const std::lock_guard lock(m_mutex);
        if (m_answers.size() >= 4096)
            m_answers.clear();
        m_answers[location.toString()] = std::move(answer);
    }
    // The answer about `location`, if one is fresh; it is used up.
    std::optional<LastExistence> take(const StorageIRI& location)
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_answers.find(location.toString());
        if (found == m_answers.end())
            return std::nullopt;
        LastExistence answer = std::move(found->second);
        m_answers.erase(found);
        if (std::chrono::steady_clock::now() - answer.when > std::chrono::milliseconds(answer.listed ? 1000 : 250))
            return std::nullopt;
        if (answer.changes != m_store.changes())
            answer.object.reset();
        return answer;
    }

private:
    const Store& m_store;
    std::mutex m_mutex;
    std::unordered_map<ustring, LastExistence> m_answers;
};

// One listing: pages of ListObjectsV2 turned into entries as they are visited. Flat listings
// use the delimiter; recursive ones take the whole subtree and make the folders from the keys.
class Listing final : public IFolderEntryIterator {
public:
    Listing(std::shared_ptr<Store> store, std::shared_ptr<RecentAnswers> answers, const StorageIRI& location,
            const ListOptions& options, int pageSize)
        : m_store(std::move(store)), m_answers(std::move(answers)), m_location(location), m_place(placeOf(location)),
          m_prefix(m_place.folderPrefix()), m_options(options), m_pageSize(pageSize)
    {
        m_request = m_prefix + (options.recursive ? std::string() : literalPrefix(options.pattern));
    }

    // Fetches the first page; whether anything came back.
    bool start()
    {
        fetch();
        return m_sawAny;
    }

    FolderEntry current() const override { return m_current.value(); }
    bool hasNext() const override
    {
        while (m_ready.empty() && !m_done)
            const_cast<Listing*>(this)->fetch();
        return !m_ready.empty();
    }
    void next() override
    {
        hasNext();
        m_current.emplace(std::move(m_ready.front()));
        m_ready.pop_front();
    }
    std::unique_ptr<IFolderEntryIterator> clone() const override { return std::make_unique<Listing>(*this); }
    Listing(const Listing& other)
        : IFolderEntryIterator(), m_store(other.m_store), m_answers(other.m_answers), m_location(other.m_location), m_place(other.m_place),
          m_prefix(other.m_prefix), m_request(other.m_request), m_options(other.m_options), m_pageSize(other.m_pageSize),
          m_continuation(other.m_continuation), m_done(other.m_done), m_sawAny(other.m_sawAny), m_ready(other.m_ready),
          m_current(other.m_current), m_files(other.m_files), m_folders(other.m_folders)
    {
    }

private:
    void fetch()
    {
        m_changes = m_store->changes();
        const ListPage page = m_store->list(m_place.bucket, m_request, !m_options.recursive, m_continuation, m_pageSize, m_location);
        m_continuation = page.continuation;
        m_done = m_continuation.empty();
        m_sawAny = m_sawAny || !page.objects.empty() || !page.prefixes.empty();
        if (m_options.recursive) {
            for (const ObjectInfo& object : page.objects)
                addRecursive(object);
            return;
        }
        // Objects and prefixes in one key order, so that a file "a" comes before a folder "a/".
        auto object = page.objects.begin();
        auto prefix = page.prefixes.begin();
        while (object != page.objects.end() || prefix != page.prefixes.end()) {
            if (prefix == page.prefixes.end() || (object != page.objects.end() && object->key < *prefix)) {
                if (object->key != m_prefix) // the folder's own marker
                    addFlat(object->key.substr(m_prefix.size()), &*object);
                ++object;
            } else {
                addFlat(prefix->substr(m_prefix.size(), prefix->size() - m_prefix.size() - 1), nullptr);
                ++prefix;
            }
        }
    }

    void addFlat(const std::string& name, const ObjectInfo* object)
    {
        if (!reachableSegment(name)) {
            unreachable(m_place.bucket, m_prefix + name + (object ? "" : "/"));
            return;
        }
        if (object) {
            m_files.insert(name);
            m_answers->put(StorageIRI(m_location, nameOf(name)),
                           {ExistenceType::File, *object, m_changes, std::chrono::steady_clock::now(), true});
        } else if (m_files.count(name)) {
            return; // the object of that name wins over the prefix
        }
        add(name, object);
    }

    void addRecursive(const ObjectInfo& object)
    {
        const std::string relative = object.key.substr(m_prefix.size());
        if (relative.empty())
            return;
        const bool marker = relative.back() == '/';
        const std::string path = marker ? relative.substr(0, relative.size() - 1) : relative;
        std::vector<std::size_t> ends;
        for (std::size_t start = 0;;) {
            const std::size_t slash = path.find('/', start);
            const std::size_t end = slash == std::string::npos ? path.size() : slash;
            if (!reachableSegment(std::string_view(path).substr(start, end - start))) {
                unreachable(m_place.bucket, object.key);
                return;
            }
            ends.push_back(end);
            if (slash == std::string::npos)
                break;
            start = slash + 1;
        }
        for (std::size_t i = 0; i + 1 < ends.size(); ++i)
            if (m_files.count(path.substr(0, ends[i])))
                return; // below an object that wins over the folder
        for (std::size_t i = 0; i + 1 < ends.size(); ++i)
            if (m_folders.insert(path.substr(0, ends[i])).second)
                add(path.substr(0, ends[i]), nullptr);
        if (marker) {
            if (!m_files.count(path) && m_folders.insert(path).second)
                add(path, nullptr);
        } else {
            m_files.insert(path);
            add(path, &object);
        }
    }

    void add(const std::string& name, const ObjectInfo* object)
    {
        if ((m_options.kind == ListKind::Files && !object) || (m_options.kind == ListKind::Folders && object))
            return;
        ustring text = nameOf(name);
        if (!m_options.recursive && !m_options.pattern.empty() && !matchesWildcard(text, m_options.pattern))
            return;
        const std::size_t slash = text.rfind(u'/');
        const bool hidden = text[slash == ustring::npos ? 0 : slash + 1] == u'.';
        std::optional<FileAttributes> file;
        std::optional<FolderAttributes> folder;
        if (m_options.withAttributes && object)
            file.emplace(object->size, object->lastModified, true, false, hidden);
        else if (m_options.withAttributes)
            folder.emplace(folderTime, true, false, hidden);
        m_ready.push_back(FolderEntry(std::move(text), object != nullptr, file, folder));
    }

    std::shared_ptr<Store> m_store;
    std::shared_ptr<RecentAnswers> m_answers;
    StorageIRI m_location;
    Place m_place;
    std::string m_prefix;
    std::uint64_t m_changes = 0;
    std::string m_request;
    ListOptions m_options;
    int m_pageSize;
    std::string m_continuation;
    bool m_done = false;
    bool m_sawAny = false;
    std::deque<FolderEntry> m_ready;
    std::optional<FolderEntry> m_current;
    std::unordered_set<std::string> m_files;
    std::unordered_set<std::string> m_folders;
};

class S3Provider final : public IProvider {
public:
    S3Provider() : m_store(std::make_shared<Store>(Settings::fromEnvironment())) {}
    ~S3Provider() override { endPolling(); }

    ProviderCapabilities capabilities() const override
    {
        ProviderCapabilities capabilities;
        capabilities.scheme = u"s3";
        capabilities.authority = ProviderCapabilities::Authority::Required;
        capabilities.with(ExtendedFeature::RecursiveRemoval)
            .with(ExtendedFeature::RecursiveListing)
            .with(ExtendedFeature::FlatWildcardListing);
        capabilities.atomicReplace = false; // a move is a copy and a delete
        capabilities.settableTimes = false;
        capabilities.settableWritability = false;
        capabilities.timeResolution = std::chrono::seconds(1);
        // Each request waits on the server: several at once hide its latency.
        capabilities.parallelTransfers = 8;
        capabilities.freeListingAttributes = true; // ListObjectsV2 answers carry them
        return capabilities;
    }

protected:
    ExistenceType doExists(const StorageIRI& location) const override
    {
        const Place place = placeOf(location);
        ExistenceType kind = ExistenceType::NotFound;
        ObjectInfo object;
        const std::uint64_t changes = m_store->changes();
        if (place.key.empty()) {
            kind = m_store->bucketExists(place.bucket, location) ? ExistenceType::Folder : ExistenceType::NotFound;
        } else if (m_store->surelyAbsent(place.bucket, place.key)) {
            kind = ExistenceType::NotFound; // in a folder this provider has just made: each file of a tree upload
        } else {
            const Store::Kind found = m_store->kindOf(place.bucket, place.key, location, &object);
            kind = found == Store::Kind::Object   ? ExistenceType::File
                   : found == Store::Kind::Folder ? ExistenceType::Folder
                                                  : ExistenceType::NotFound;
        }
        if (kind == ExistenceType::Folder)
            m_known.add(place.bucket, place.folderPrefix());
        m_recent->put(location, {kind, kind == ExistenceType::File ? std::optional(object) : std::nullopt, changes,
                                std::chrono::steady_clock::now()});
        return kind;
    }

    ExistenceTypeExtended doExistsExtended(const StorageIRI& location) const override
    {
        // What a tree copy asks of each entry it walks (whether it is a link, which an object never
        // is): an entry just listed answers, and stays for the attributes and the stream.
        if (auto answer = m_recent->take(location)) {
            const bool listed = answer->listed && answer->object;
            m_recent->put(location, std::move(*answer));
            if (listed)
                return ExistenceTypeExtended::File;
        }
        switch (doExists(location)) {
        case ExistenceType::File: return ExistenceTypeExtended::File;
        case ExistenceType::Folder: return ExistenceTypeExtended::Folder;
        default: return ExistenceTypeExtended::NotFound;
        }
    }

    FileAttributes doGetFileAttributes(const StorageIRI& location) const override
    {
        LastExistence last = m_recent->take(location).value_or(LastExistence{});
        if (!last.object) {
            last = {ExistenceType::File, std::nullopt, m_store->changes(), std::chrono::steady_clock::now()};
            last.object = fileAt(location, "getFileAttributes");
        }
        const ObjectInfo object = *last.object;
        m_recent->put(location, std::move(last)); // for the stream a copy opens next
        return FileAttributes(object.size, object.lastModified, true, false, location.getName().starts_with(u"."));
    }

    FolderAttributes doGetFolderAttributes(const StorageIRI& location) const override
    {
        requireFolder(location, "getFolderAttributes");
        return FolderAttributes(folderTime, true, false, location.getName().starts_with(u"."));
    }

    // Objects keep the time the server gave them. A folder has no time of its own (it reports the
    // epoch), so setting one is accepted and changes nothing: copies of trees set their folders' times.
    void doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime&) const override
    {
        if (doExists(location) == ExistenceType::Folder)
            return;
        requireExisting(location, "setLastModified");
        throwProviderError(ErrorCode::UnsupportedOperation, location,
                           {ExceptionContext(u"setLastModified"), ExceptionContext(u"immutable-times")},
                           u"S3 objects keep the time they were written");
    }

    void doSetWritable(const StorageIRI& location, bool) const override
    {
        requireExisting(location, "setWritable");
        throwProviderError(ErrorCode::UnsupportedOperation, location,
                           {ExceptionContext(u"setWritable"), ExceptionContext(u"no-writability")},
                           u"S3 objects are always writable to whom the bucket lets write");
    }

    // Objects have no attributes beyond size and time.
    ExtendedAttributes doGetExtendedAttributes(const StorageIRI& location) const override
    {
        requireExisting(location, "getExtendedAttributes");
        return {};
    }

    void doTruncateToSize(const StorageIRI& location, std::uint64_t size) const override
    {
        const ObjectInfo object = fileAt(location, "truncateToSize");
        if (object.size != size)
            resizeObject(m_store, location, object, size);
    }

    void doCreateFile(const StorageIRI& location) const override
    {
        const std::lock_guard creating(creationLock(location));
        const Place place = placeOf(location);
        requireParent(location, "createFile");
        if (m_store->prefixExists(place.bucket, place.folderPrefix(), location))
            alreadyExists("createFile", location);
        m_store->put(place.bucket, place.key, {}, true, location);
    }

    void doRemoveFile(const StorageIRI& location) const override
    {
        const Place place = placeOf(location);
        fileAt(location, "removeFile");
        m_known.forget();
        m_store->remove(place.bucket, place.key, location);
    }

    void doCreateFolder(const StorageIRI& location) const override
    {
        const Place place = placeOf(location);
        if (place.key.empty()) {
            const Response response = m_store->send({"PUT", place.bucket}, location, "CreateBucket");
            if (!response.ok())
                throwS3Error(response, location, "CreateBucket");
            return;
        }
        const std::lock_guard creating(creationLock(location));
        requireParent(location, "createFolder");
        if (!m_store->surelyAbsent(place.bucket, place.key) && m_store->kindOf(place.bucket, place.key, location) != Store::Kind::None)
            alreadyExists("createFolder", location);
        // Known empty from before its marker is sent, so that a key written into it meanwhile is noted.
        m_store->madeEmpty(place.bucket, place.folderPrefix());
        try {
            m_store->put(place.bucket, place.folderPrefix(), {}, true, location);
        } catch (...) {
            m_store->madeEmpty(place.bucket, place.folderPrefix(), false);
            throw;
        }
        m_known.add(place.bucket, place.folderPrefix());
    }

    void doCreateFolderRecursive(const StorageIRI& location) const override
    {
        std::vector<StorageIRI> chain;
        for (StorageIRI at = location; at.hasParent(); at = at.getParent())
            chain.push_back(at);
        const Place root = placeOf(location);
        if (!m_store->bucketExists(root.bucket, location))
            notFound("createFolderRecursive", location.getParent().hasParent() ? StorageIRI(location, u"/") : location);
        for (auto at = chain.rbegin(); at != chain.rend(); ++at) {
            const Place place = placeOf(*at);
            if (m_store->head(place.bucket, place.key, *at))
                throwProviderError(ErrorCode::ResourceAlreadyExists, location,
                                   {ExceptionContext(u"createFolderRecursive"), ExceptionContext(u"not-a-folder")});
            m_store->put(place.bucket, place.folderPrefix(), {}, false, *at);
            m_known.add(place.bucket, place.folderPrefix());
        }
    }

    void doRemoveFolder(const StorageIRI& location) const override
    {
        const Place place = placeOf(location);
        m_known.forget();
        if (place.key.empty()) {
            const Response response = m_store->send({"DELETE", place.bucket}, location, "DeleteBucket");
            if (!response.ok())
                throwS3Error(response, location, "DeleteBucket");
            return;
        }
        const ListPage page = m_store->list(place.bucket, place.folderPrefix(), false, "", 2, location);
        if (page.objects.empty()) {
            if (m_store->head(place.bucket, place.key, location))
                wrongKind("removeFolder", location, false);
            notFound("removeFolder", location);
        }
        for (const ObjectInfo& object : page.objects)
            if (object.key != place.folderPrefix())
                throwProviderError(ErrorCode::FolderNotEmpty, location, {ExceptionContext(u"removeFolder"), ExceptionContext(u"not-empty")});
        m_store->remove(place.bucket, place.folderPrefix(), location);
    }

    void doRemoveFolderRecursively(const StorageIRI& location) const override
    {
        const Place place = placeOf(location);
        if (place.key.empty())
            throwProviderError(ErrorCode::ResourceInUse, location, {ExceptionContext(u"removeFolderRecursively"), ExceptionContext(u"bucket")},
                               u"a bucket's root is removed empty, with removeFolder");
        requireFolder(location, "removeFolderRecursively");
        m_known.forget();
        // Each round lists what is left from the start: the store answers strongly after deletes.
        for (;;) {
            const ListPage page = m_store->list(place.bucket, place.folderPrefix(), false, "", 1000, location);
            if (page.objects.empty())
                return;
            std::vector<std::string> keys;
            for (const ObjectInfo& object : page.objects)
                keys.push_back(object.key);
            m_store->removeKeys(place.bucket, keys, location);
        }
    }

    void doMoveFile(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override
    {
        const ObjectInfo object = fileAt(location, "moveFile");
        if (location == destination)
            return;
        if (!prepareTarget(object, destination, policy, "moveFile"))
            return;
        const Place from = placeOf(location);
        const Place to = placeOf(destination);
        m_store->copy(from.bucket, from.key, to.bucket, to.key, destination);
        m_known.forget();
        m_store->remove(from.bucket, from.key, location);
    }

    void doMoveFolder(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override
    {
        const Place from = placeOf(location);
        const Place to = placeOf(destination);
        if (from.key.empty())
            throwProviderError(ErrorCode::ResourceInUse, location, {ExceptionContext(u"moveFolder"), ExceptionContext(u"bucket")});
        requireFolder(location, "moveFolder");
        if (location == destination)
            return;
        if (location.isAncestorOf(destination))
            throwProviderError(ErrorCode::InvalidLocation, destination, {ExceptionContext(u"moveFolder"), ExceptionContext(u"into-itself")});
        if (m_store->head(to.bucket, to.key, destination))
            alreadyExists("moveFolder", destination);
        const ListPage present = m_store->list(to.bucket, to.folderPrefix(), false, "", 2, destination);
        if (!present.objects.empty()) {
            if (policy == ReplacementPolicy::FailIfExists)
                alreadyExists("moveFolder", destination);
            for (const ObjectInfo& object : present.objects)
                if (object.key != to.folderPrefix())
                    throwProviderError(ErrorCode::FolderNotEmpty, destination, {ExceptionContext(u"moveFolder"), ExceptionContext(u"not-empty")});
        }
        requireParent(destination, "moveFolder");
        // Copy everything first, then delete: a failure midway leaves the source whole.
        std::vector<std::string> moved;
        std::string continuation;
        do {
            const ListPage page = m_store->list(from.bucket, from.folderPrefix(), false, continuation, 1000, location);
            continuation = page.continuation;
            for (const ObjectInfo& object : page.objects) {
                m_store->copy(from.bucket, object.key, to.bucket,
                              to.folderPrefix() + object.key.substr(from.folderPrefix().size()), destination);
                moved.push_back(object.key);
            }
        } while (!continuation.empty());
        m_store->put(to.bucket, to.folderPrefix(), {}, false, destination);
        m_known.forget();
        m_store->removeKeys(from.bucket, moved, location);
    }

    TransactionStatus doCopyFile(const StorageIRI& location, const StorageIRI& destination,
                                 const CopyFileOptions& options) const override
    {
        const ObjectInfo object = fileAt(location, "copyFile");
        const Place from = placeOf(location);
        const Place to = placeOf(destination);
        // CopyObject takes up to 5 GiB; larger objects go through streams. Either way the copy gets
        // the server's time: keepLastModified cannot be honoured by an object store.
        if (object.size > (std::uint64_t(5) << 30)) {
            CopyFileOptions streamed = options;
            streamed.keepLastModified = false;
            return IProvider::doCopyFile(location, destination, streamed);
        }
        if (location == destination)
            alreadyExists("copyFile", destination);
        if (!prepareTarget(object, destination, options.replacementPolicy, "copyFile"))
            return TransactionStatus::NothingDone;
        // The server copies in one step: the one report comes before it, the only moment a
        // cancellation can still leave the target as it was.
        if (options.progress && !options.progress(object.size, object.size))
            return TransactionStatus::NothingDone;
        m_store->copy(from.bucket, from.key, to.bucket, to.key, destination);
        return TransactionStatus::Completed;
    }

    std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI& location, const ListOptions& options) const override
    {
        const Place place = placeOf(location);
        auto listing = std::make_unique<Listing>(m_store, m_recent, location, options, m_store->client().settings().pageSize);
        if (!listing->start() && !place.key.empty() && (!options.pattern.empty() || true)) {
            // Nothing below the prefix: an empty folder has its marker, which the narrowed request of
            // a pattern does not see.
            if (!options.pattern.empty() && !options.recursive) {
                if (!m_store->prefixExists(place.bucket, place.folderPrefix(), location))
                    missingFolder(location, "list");
            } else {
                missingFolder(location, "list");
            }
        } else if (place.key.empty() && !options.pattern.empty()) {
            requireFolder(location, "list");
        }
        return listing;
    }

    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const override
    {
        if (const auto last = m_recent->take(location); last && last->object)
            return makeReadStream(m_store, location, *last->object);
        return makeReadStream(m_store, location, fileAt(location, "openReadOnlyStream"));
    }

    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const override
    {
        return openWriting(location, options, false, "openStream");
    }

    std::unique_ptr<TransactionalByteStream> doOpenTransactionalStream(const StorageIRI& location,
                                                                       const ByteStreamOpenOptions& options) const override
    {
        return openWriting(location, options, true, "openTransactionalStream");
    }

    ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& location) const override
    {
        requireExisting(location, "getProviderStorageInfo");
        ProviderStorageInfo info;
        info.description = u"S3 bucket";
        return info;
    }

    void doConfigure(const boost::property_tree::ptree& settings) const override
    {
        m_store->client().configure(settings);
        m_store->forgetMadeFolders(); // another endpoint or identity may see other keys
    }

private:
    ObjectInfo fileAt(const StorageIRI& location, const char* operation) const
    {
        const Place place = placeOf(location);
        if (!place.key.empty())
            if (auto object = m_store->head(place.bucket, place.key, location))
                return *object;
        if (place.key.empty() || m_store->prefixExists(place.bucket, place.folderPrefix(), location))
            wrongKind(operation, location, true);
        notFound(operation, location);
    }

    void requireExisting(const StorageIRI& location, const char* operation) const
    {
        if (doExists(location) == ExistenceType::NotFound)
            notFound(operation, location);
    }

    void requireFolder(const StorageIRI& location, const char* operation) const
    {
        const ExistenceType kind = doExists(location);
        if (kind == ExistenceType::File)
            wrongKind(operation, location, false);
        if (kind == ExistenceType::NotFound)
            notFound(operation, location);
    }

    [[noreturn]] void missingFolder(const StorageIRI& location, const char* operation) const
    {
        const Place place = placeOf(location);
        if (m_store->head(place.bucket, place.key, location))
            wrongKind(operation, location, false);
        notFound(operation, location);
    }

    // The parent folder must exist: the bucket for a key at the root, else any key below it.
    void requireParent(const StorageIRI& location, const char* operation) const
    {
        const StorageIRI parent = location.getParent();
        const Place place = placeOf(parent);
        if (m_known.contains(place.bucket, place.folderPrefix()))
            return;
        const bool there = place.key.empty() ? m_store->bucketExists(place.bucket, parent)
                                             : m_store->prefixExists(place.bucket, place.folderPrefix(), parent);
        if (!there)
            throwProviderError(ErrorCode::ResourceNotFound, location,
                               {ExceptionContext(fl::i18n::utf8_to_ustring(operation)), ExceptionContext(u"no-parent")});
        m_known.add(place.bucket, place.folderPrefix());
    }

    // Checks the target of a file move or copy against the policy; false when the policy skips it.
    bool prepareTarget(const ObjectInfo& source, const StorageIRI& destination, ReplacementPolicy policy,
                       const char* operation) const
    {
        const Place to = placeOf(destination);
        if (to.key.empty())
            alreadyExists(operation, destination);
        if (const auto existing = m_store->head(to.bucket, to.key, destination)) {
            if (policy == ReplacementPolicy::FailIfExists)
                alreadyExists(operation, destination);
            if (policy == ReplacementPolicy::ReplaceIfNewer && source.lastModified <= existing->lastModified)
                return false;
            return true;
        }
        if (m_store->prefixExists(to.bucket, to.folderPrefix(), destination))
            alreadyExists(operation, destination);
        requireParent(destination, operation);
        return true;
    }

    std::unique_ptr<TransactionalByteStream> openWriting(const StorageIRI& location, const ByteStreamOpenOptions& options,
                                                         bool transactional, const char* operation) const
    {
        const Place place = placeOf(location);
        // A fresh answer of exists() about this very target, from a copy that asked just before,
        // stands for the first look: an emptied transactional stream needs nothing of what is there.
        const auto last = m_recent->take(location);
        if (last && !place.key.empty() && last->kind != ExistenceType::Folder && transactional && !options.keepContent &&
            options.creation == ByteStreamCreation::CreateIfMissing) {
            if (last->kind == ExistenceType::NotFound)
                requireParent(location, operation);
            return makeSpoolStream(m_store, location, std::nullopt, options, transactional);
        }
        std::optional<ObjectInfo> existing;
        if (!place.key.empty())
            existing = m_store->head(place.bucket, place.key, location);
        if (!existing) {
            if (place.key.empty() || m_store->prefixExists(place.bucket, place.folderPrefix(), location))
                wrongKind(operation, location, true);
            if (options.creation == ByteStreamCreation::OpenExisting)
                notFound(operation, location);
            requireParent(location, operation);
        }
        return makeSpoolStream(m_store, location, existing, options, transactional);
    }

    // A file and a folder of one name are two keys, which S3 cannot create under one condition:
    // creations of one name through this provider take turns (other clients can still race).
    std::mutex& creationLock(const StorageIRI& location) const
    {
        return m_creating[location.hashValue() % m_creating.size()];
    }

    std::shared_ptr<Store> m_store;
    mutable KnownFolders m_known;
    std::shared_ptr<RecentAnswers> m_recent = std::make_shared<RecentAnswers>(*m_store);
    mutable std::array<std::mutex, 64> m_creating;
};

} // namespace

std::shared_ptr<IProvider> makeS3Provider()
{
    return std::make_shared<S3Provider>();
}

} // namespace foundation::storage::provider::s3
