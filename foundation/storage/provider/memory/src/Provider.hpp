#pragma once

// The memory provider: one class whose operations are spread over the files of this folder by
// concern (tree changes, moves and copies, content and streams, listings, change events, settings).

#include <foundation/storage/provider/memory/MemoryProvider.hpp>

#include "Stream.hpp"
#include "Notifier.hpp"
#include "Tree.hpp"

#include <foundation/storage/provider/PosixError.hpp>

#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <cstddef>
#include <limits>
#include <mutex>
#include <new>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace foundation::storage::provider::memory::detail {

inline constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();
// Copies report their progress in steps of this many bytes.
inline constexpr std::uint64_t progressStep = std::uint64_t(1) << 20;

inline ustring ascii(std::string_view text)
{
    return ustring(text.begin(), text.end());
}

// Failures that a POSIX file system would report with an errno carry the same code and contexts
// (operation, errno name) as the local provider's, through the one translation.
[[noreturn]] inline void fail(int error, const char* operation, const StorageIRI& location)
{
    throwPosixError(error, operation, location);
}

[[noreturn]] inline void wrongKind(const char* operation, const StorageIRI& location, bool fileWanted)
{
    throwProviderError(ErrorCode::ResourceNotFound, location,
                       {ExceptionContext(ascii(operation)), ExceptionContext(fileWanted ? u"not-a-file" : u"not-a-folder")});
}

[[noreturn]] inline void badArgument(const char* operation, const StorageIRI& location, std::u16string_view what)
{
    throwProviderError(ErrorCode::InvalidLocation, location, {ExceptionContext(ascii(operation)), ExceptionContext(ustring(what))});
}

inline void checkPolicy(const char* operation, const StorageIRI& location, ReplacementPolicy policy)
{
    const auto value = static_cast<std::int32_t>(policy);
    if (value < static_cast<std::int32_t>(ReplacementPolicy::FailIfExists) ||
        value > static_cast<std::int32_t>(ReplacementPolicy::ReplaceIfNewer))
        badArgument(operation, location, u"unknown-policy");
}

// No single file grows beyond the machine's memory: the allocation would not fail cleanly but
// bring the process down when the zero bytes are written.
inline std::uint64_t largestFile()
{
    static const std::uint64_t largest = [] {
        const long pages = ::sysconf(_SC_PHYS_PAGES);
        const long pageSize = ::sysconf(_SC_PAGESIZE);
        return pages > 0 && pageSize > 0 ? std::uint64_t(pages) * std::uint64_t(pageSize) : std::uint64_t(1) << 32;
    }();
    return largest;
}

// A location's node and the folder holding it, as found in a tree of const or mutable nodes.
template <class N>
struct Place {
    N* parent; // null for a volume's root
    N* node;   // null when nothing is there
};

// Follows the first `depth` segments of `location` from `root`: the node reached, or the errno that
// says why there is none (ENOENT, or ENOTDIR when the path continues below a file).
template <class N>
std::pair<N*, int> walk(N& root, const StorageIRI& location, std::size_t depth)
{
    N* node = &root;
    const PathView path = location.getPathView();
    auto segment = path.begin();
    for (std::size_t i = 0; i < depth; ++i, ++segment) {
        const auto* folder = node->asFolder();
        if (!folder)
            return {nullptr, ENOTDIR};
        const auto child = folder->children.find(*segment);
        if (child == folder->children.end())
            return {nullptr, ENOENT};
        node = child->second.get();
    }
    return {node, 0};
}

template <class N>
N& existingIn(N& root, const char* operation, const StorageIRI& location)
{
    const auto [node, error] = walk(root, location, location.getPathView().size());
    if (!node)
        fail(error, operation, location);
    return *node;
}

// The place of `location`, whose parent folder must exist (ResourceNotFound otherwise).
template <class N>
Place<N> placeIn(N& root, const char* operation, const StorageIRI& location)
{
    const std::size_t depth = location.getPathView().size();
    if (depth == 0)
        return {nullptr, &root};
    const auto [parent, error] = walk(root, location, depth - 1);
    if (!parent)
        fail(error, operation, location);
    const auto* folder = parent->asFolder();
    if (!folder)
        fail(ENOTDIR, operation, location);
    const auto child = folder->children.find(location.getName());
    return {parent, child == folder->children.end() ? nullptr : child->second.get()};
}

// Adds (or replaces) the child `name` of `parent`, which changes the parent's time as on disk.
inline Node& putChild(Node& parent, const ustring& name, std::unique_ptr<Node> child)
{
    Node& added = *child;
    parent.asFolder()->children.insert_or_assign(name, std::move(child));
    parent.lastModified = now();
    return added;
}

inline std::unique_ptr<Node> takeChild(Node& parent, const ustring& name)
{
    auto handle = parent.asFolder()->children.extract(name);
    parent.lastModified = now();
    return std::move(handle.mapped());
}

inline std::unique_ptr<Node> newFolder()
{
    return std::make_unique<Node>(Node::Folder{}, now());
}

inline std::unique_ptr<Node> newFile(std::vector<std::byte> bytes = {}, bool writable = true)
{
    auto content = std::make_shared<Content>();
    content->bytes = std::move(bytes);
    return std::make_unique<Node>(Node::File{std::move(content)}, now(), writable);
}

// Volumes are keyed by the IRI's authority and come into being when first changed; until then a
// volume reads as an empty root folder. One shared mutex guards the whole state: shared to read,
// exclusive to change. No callback runs while it is held.
// Memory is always durable as far as it goes and caches nothing, so the optional interfaces have
// nothing to do beyond checking their argument; offering them lets code written against them run on
// memory in tests.
class MemoryProvider final : public IProvider,
                             public extensions::IInvalidatable,
                             public extensions::IFlushableFilesystem,
                             public StreamHost,
                             public std::enable_shared_from_this<MemoryProvider> {
public:
    explicit MemoryProvider(MemoryProviderOptions options) : m_options(options), m_readOnly(options.readOnly) {}
    ~MemoryProvider() override { endPolling(); }

    // Every optional feature natively; read-only while configured so.
    ProviderCapabilities capabilities() const override;

    ExistenceType doExists(const StorageIRI& location) const override;

    // Memory volumes hold no links and no special files, so this differs from exists() only in type.
    ExistenceTypeExtended doExistsExtended(const StorageIRI& location) const override;

    // Memory has no links, no case folding and no unresolved segments: an existing location is
    // already canonical.
    StorageIRI doGetCanonicalLocation(const StorageIRI& location) const override;

    FileAttributes doGetFileAttributes(const StorageIRI& location) const override;

    FolderAttributes doGetFolderAttributes(const StorageIRI& location) const override;

    // Memory knows only how many bytes a file holds; a folder holds none of its own.
    ExtendedAttributes doGetExtendedAttributes(const StorageIRI& location) const override;

    void doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const override;

    void doSetWritable(const StorageIRI& location, bool writable) const override;

    void doTruncateToSize(const StorageIRI& location, std::uint64_t size) const override;

    void doCreateFile(const StorageIRI& location) const override { create("createFile", location, false); }

    void doRemoveFile(const StorageIRI& location) const override;

    void doCreateFolder(const StorageIRI& location) const override { create("createFolder", location, true); }

    void doCreateFolderRecursive(const StorageIRI& location) const override;

    void doRemoveFolder(const StorageIRI& location) const override;

    // All or nothing: every folder that would have to give up a child is checked before anything goes.
    void doRemoveFolderRecursively(const StorageIRI& location) const override;

    void doMoveFile(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override;

    void doMoveFolder(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override;

    // The bytes are taken under a shared lock, progress is reported with no lock held, and the
    // target is put in place under the exclusive lock after everything has been checked again
    // (the tree may have changed meanwhile). A cancelled or failed copy leaves nothing behind.
    TransactionStatus doCopyFile(const StorageIRI& location, const StorageIRI& destination,
                                 const CopyFileOptions& options) const override;

    // ---- byte streams --------------------------------------------------------------------------
    // A plain stream holds the content of the file it opened, as a descriptor holds an inode: it
    // reads and writes that content whatever later happens to the name (a commit, a removal or a
    // move over it). Writes through it are seen by every stream on the same content. Content a
    // stream still holds after its file left the tree keeps counting against the quota until its
    // last stream closes, as an unlinked file keeps its blocks; so `used` never exceeds the quota
    // and equals what the tree holds once no stream is open. Transactional streams write to a copy
    // of their own that a commit makes the file's new content. Streams keep the provider alive.

    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const override;

    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const override;

    std::unique_ptr<TransactionalByteStream> doOpenTransactionalStream(const StorageIRI& location,
                                                                     const ByteStreamOpenOptions& options) const override;

    std::size_t readAt(const Content& content, std::uint64_t offset, char* s, std::size_t n) const override;

    std::uint64_t writeAt(const StorageIRI& location, Content& content, std::uint64_t offset, bool append,
                          const char* s, std::size_t n) const override;

    std::uint64_t sizeOf(const Content& content) const override;

    void release(Content& content) const noexcept override;

    void checkRoom(const StorageIRI& location, std::uint64_t size, StreamOperation operation) const override;

    // The file takes a new content object, as a rename over it would: streams open on the old one
    // keep reading it.
    void commit(const StorageIRI& location, std::vector<std::byte>& bytes, bool mustExist) const override;

    // The entries are taken under the shared lock; the iterator then holds no lock and its clones
    // share the same entries.
    std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI& location, const ListOptions& options) const override;

    // Nothing to flush: memory is as durable as it gets.
    void doFlushFilesystem(const StorageIRI& location) const override;

    void flushFilesystem() override {}

    void invalidate(const StorageIRI& location) override { IProvider::checkLocation(location); }

    // The quota is shared by every volume; without one, the space is not known.
    ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& location) const override;

    // A quota below what is already stored is accepted: nothing is lost, and only growth is refused.
    void doConfigure(const boost::property_tree::ptree& settings) const override;

    // The settings stay; every volume reads as new and empty again.
    void doShutdown() const override;

    // ---- change events -------------------------------------------------------------------------
    // The notifier reports what this provider changes; changes made under the same location by
    // other means (there are none in memory) could not be seen.

    void doPublishFileEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds) const override;

    void doPublishFolderEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds,
                             RecursiveFileWatching recursive) const override;

    void doStopPublishingFileEvents(const StorageIRI& location) const override { m_notifier.unwatch(location, true); }
    void doStopPublishingFolderEvents(const StorageIRI& location) const override { m_notifier.unwatch(location, false); }

private:
    void checkWatchable(const char* operation, const StorageIRI& location, bool file) const;

    // Records a change for the watches, when there are any. Called under the lock, after the change.
    void changed(events::Kind kind, const StorageIRI& location, const Node& node) const;

    void renamed(const StorageIRI& from, const StorageIRI& to, const Node& node) const;

    [[noreturn]] static void badSetting(const std::string& key, const std::string& value, const char* expected);

    static void checkOpenOptions(const StorageIRI& location, const ByteStreamOpenOptions& options);

    // Callers hold m_mutex from here on.

    // A new plain stream's hold on the content of `file`, ended by StreamHost::release.
    static std::shared_ptr<Content> hold(const Node& file) noexcept;

    // Takes the files of `node` (itself or those below it) out of the tree's accounting, before they
    // leave the tree or lose their content. Content a stream holds stays counted until it closes.
    void unlinkFiles(const Node& node) const;

    // The bytes unlinking the file `node` gives back to the quota at once.
    static std::uint64_t freedByUnlink(const Node& node) noexcept;

    // The file at `location` if it still holds `content`: changes to content that left its name are
    // reported for no name.
    Node* holderAt(const StorageIRI& location, const Content& content) const;

    // Whether a file of `released` bytes may become `size` bytes long.
    void roomFor(const StorageIRI& location, std::uint64_t released, std::uint64_t size, StreamOperation operation) const;

    void checkChangeable(const char* operation, const StorageIRI& location) const;

    void checkQuota(const char* operation, const StorageIRI& location, std::uint64_t released, std::uint64_t added) const;

    void create(const char* operation, const StorageIRI& location, bool folder) const;

    static void checkRemovableFolder(const char* operation, const StorageIRI& location, const Place<Node>& place);

    // Whether a file of `size` bytes, last modified at `sourceTime`, may be put at `target` under
    // `policy`: throws what forbids it, answers false when ReplaceIfNewer keeps the target.
    template <class N>
    bool admitFile(const char* operation, const StorageIRI& destination, const Place<N>& target, ReplacementPolicy policy,
                   const boost::posix_time::ptime& sourceTime, std::uint64_t size) const
    {
        std::uint64_t released = 0;
        if (target.node) {
            if (policy == ReplacementPolicy::FailIfExists)
                fail(EEXIST, operation, destination);
            if (!target.node->asFile())
                wrongKind(operation, destination, true);
            if (policy == ReplacementPolicy::ReplaceIfNewer && !(sourceTime > target.node->lastModified))
                return false;
            if (!target.node->writable)
                fail(EACCES, operation, destination);
            released = freedByUnlink(*target.node);
        }
        if (!target.parent->writable)
            fail(EACCES, operation, destination);
        if (size > released)
            checkQuota(operation, destination, released, size);
        return true;
    }

    const Node& rootOf(const StorageIRI& location) const;

    // Brings the volume into being with the root it has been reading as.
    Node& rootForChange(const StorageIRI& location) const;

    // IProvider's operations are const; the state they change is guarded by m_mutex.
    mutable std::shared_mutex m_mutex;
    mutable MemoryProviderOptions m_options;
    // m_options.readOnly, for capabilities(), which takes no lock.
    mutable std::atomic<bool> m_readOnly;
    mutable std::map<ustring, std::unique_ptr<Node>, std::less<>> m_volumes;
    mutable std::uint64_t m_usedBytes = 0; // file content of every volume
    // What a volume nobody has changed reads as; a volume brought into being starts as its copy.
    mutable Node m_newVolume{Node::Folder{}, now()};
    // Last, so that their threads end before the state they read goes.
    mutable Notifier m_notifier;
};

} // namespace foundation::storage::provider::memory::detail
