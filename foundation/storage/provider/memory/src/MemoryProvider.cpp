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

namespace foundation::storage::provider::memory {

namespace {

using namespace detail;

constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();
// Copies report their progress in steps of this many bytes.
constexpr std::uint64_t progressStep = std::uint64_t(1) << 20;

ustring ascii(std::string_view text)
{
    return ustring(text.begin(), text.end());
}

// Failures that a POSIX file system would report with an errno carry the same code and contexts
// (operation, errno name) as the local provider's, through the one translation.
[[noreturn]] void fail(int error, const char* operation, const StorageIRI& location)
{
    throwPosixError(error, operation, location);
}

[[noreturn]] void wrongKind(const char* operation, const StorageIRI& location, bool fileWanted)
{
    throwProviderError(ErrorCode::ResourceNotFound, location,
                       {ExceptionContext(ascii(operation)), ExceptionContext(fileWanted ? u"not-a-file" : u"not-a-folder")});
}

[[noreturn]] void badArgument(const char* operation, const StorageIRI& location, std::u16string_view what)
{
    throwProviderError(ErrorCode::InvalidLocation, location, {ExceptionContext(ascii(operation)), ExceptionContext(ustring(what))});
}

void checkPolicy(const char* operation, const StorageIRI& location, ReplacementPolicy policy)
{
    const auto value = static_cast<std::int32_t>(policy);
    if (value < static_cast<std::int32_t>(ReplacementPolicy::FailIfExists) ||
        value > static_cast<std::int32_t>(ReplacementPolicy::ReplaceIfNewer))
        badArgument(operation, location, u"unknown-policy");
}

// No single file grows beyond the machine's memory: the allocation would not fail cleanly but
// bring the process down when the zero bytes are written.
std::uint64_t largestFile()
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
Node& putChild(Node& parent, const ustring& name, std::unique_ptr<Node> child)
{
    Node& added = *child;
    parent.asFolder()->children.insert_or_assign(name, std::move(child));
    parent.lastModified = now();
    return added;
}

std::unique_ptr<Node> takeChild(Node& parent, const ustring& name)
{
    auto handle = parent.asFolder()->children.extract(name);
    parent.lastModified = now();
    return std::move(handle.mapped());
}

std::unique_ptr<Node> newFolder()
{
    return std::make_unique<Node>(Node::Folder{}, now());
}

std::unique_ptr<Node> newFile(std::vector<std::byte> bytes = {}, bool writable = true)
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
    ProviderCapabilities capabilities() const override
    {
        ProviderCapabilities capabilities;
        capabilities.scheme = m_options.scheme; // never changed after construction
        capabilities.authority = ProviderCapabilities::Authority::Required;
        for (const auto feature : {ExtendedFeature::RecursiveRemoval, ExtendedFeature::RecursiveListing,
                                   ExtendedFeature::FlatWildcardListing, ExtendedFeature::RecursiveWatching,
                                   ExtendedFeature::RecursiveWildcardListing})
            capabilities.with(feature);
        capabilities.watching = true;
        capabilities.atomicReplace = true;
        capabilities.writable = !m_readOnly.load(std::memory_order_relaxed);
        capabilities.timeResolution = std::chrono::microseconds(1);
        return capabilities;
    }

    ExistenceType doExists(const StorageIRI& location) const override
    {
        std::shared_lock lock(m_mutex);
        const Node* node = walk(rootOf(location), location, location.getPathView().size()).first;
        if (!node)
            return ExistenceType::NotFound;
        return node->asFolder() ? ExistenceType::Folder : ExistenceType::File;
    }

    // Memory volumes hold no links and no special files, so this differs from exists() only in type.
    ExistenceTypeExtended doExistsExtended(const StorageIRI& location) const override
    {
        switch (exists(location)) {
        case ExistenceType::File:
            return ExistenceTypeExtended::File;
        case ExistenceType::Folder:
            return ExistenceTypeExtended::Folder;
        case ExistenceType::NotFound:
            break;
        }
        return ExistenceTypeExtended::NotFound;
    }

    // Memory has no links, no case folding and no unresolved segments: an existing location is
    // already canonical.
    StorageIRI doGetCanonicalLocation(const StorageIRI& location) const override
    {
        std::shared_lock lock(m_mutex);
        existingIn(rootOf(location), "getCanonicalLocation", location);
        return location;
    }

    FileAttributes doGetFileAttributes(const StorageIRI& location) const override
    {
        std::shared_lock lock(m_mutex);
        const Node& node = existingIn(rootOf(location), "getFileAttributes", location);
        if (!node.asFile())
            wrongKind("getFileAttributes", location, true);
        return fileAttributes(node, location.getName());
    }

    FolderAttributes doGetFolderAttributes(const StorageIRI& location) const override
    {
        std::shared_lock lock(m_mutex);
        const Node& node = existingIn(rootOf(location), "getFolderAttributes", location);
        if (!node.asFolder())
            wrongKind("getFolderAttributes", location, false);
        return folderAttributes(node, location.getName());
    }

    // Memory knows only how many bytes a file holds; a folder holds none of its own.
    ExtendedAttributes doGetExtendedAttributes(const StorageIRI& location) const override
    {
        std::shared_lock lock(m_mutex);
        ExtendedAttributes attributes;
        attributes.allocatedBytes = existingIn(rootOf(location), "getExtendedAttributes", location).size();
        return attributes;
    }

    void doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const override
    {
        if (time.is_special())
            badArgument("setLastModified", location, u"not-a-time");
        std::unique_lock lock(m_mutex);
        checkChangeable("setLastModified", location);
        Node& node = existingIn(rootForChange(location), "setLastModified", location);
        node.lastModified = time;
        // As on disk, where setting the modification time alone reads as a modification.
        changed(events::Kind::Modified, location, node);
    }

    void doSetWritable(const StorageIRI& location, bool writable) const override
    {
        std::unique_lock lock(m_mutex);
        checkChangeable("setWritable", location);
        Node& node = existingIn(rootForChange(location), "setWritable", location);
        node.writable = writable;
        changed(events::Kind::AttributesChanged, location, node);
    }

    void doTruncateToSize(const StorageIRI& location, std::uint64_t size) const override
    {
        constexpr const char* operation = "truncateToSize";
        std::unique_lock lock(m_mutex);
        checkChangeable(operation, location);
        Node& node = existingIn(rootForChange(location), operation, location);
        Node::File* file = node.asFile();
        if (!file)
            wrongKind(operation, location, true);
        if (!node.writable)
            fail(EACCES, operation, location);
        std::vector<std::byte>& bytes = file->content->bytes;
        const std::uint64_t old = bytes.size();
        if (size == old)
            return;
        if (size > old) {
            if (size > largestFile())
                fail(EFBIG, operation, location);
            checkQuota(operation, location, old, size);
        }
        try {
            bytes.resize(size);
            if (size < old)
                bytes.shrink_to_fit();
        } catch (const std::bad_alloc&) {
            fail(ENOSPC, operation, location);
        }
        m_usedBytes = m_usedBytes - old + size;
        node.lastModified = now();
        changed(events::Kind::Modified, location, node);
    }

    void doCreateFile(const StorageIRI& location) const override { create("createFile", location, false); }

    void doRemoveFile(const StorageIRI& location) const override
    {
        constexpr const char* operation = "removeFile";
        std::unique_ptr<Node> removed; // destroyed after the lock is released
        std::unique_lock lock(m_mutex);
        checkChangeable(operation, location);
        const Place<Node> place = placeIn(rootForChange(location), operation, location);
        if (!place.node)
            fail(ENOENT, operation, location);
        if (!place.node->asFile())
            wrongKind(operation, location, true);
        if (!place.parent->writable)
            fail(EACCES, operation, location);
        unlinkFiles(*place.node);
        removed = takeChild(*place.parent, location.getName());
        changed(events::Kind::Removed, location, *removed);
    }

    void doCreateFolder(const StorageIRI& location) const override { create("createFolder", location, true); }

    void doCreateFolderRecursive(const StorageIRI& location) const override
    {
        constexpr const char* operation = "createFolderRecursive";
        std::unique_lock lock(m_mutex);
        Node* node = &rootForChange(location);
        const PathView path = location.getPathView();
        auto segment = path.begin();
        for (; segment != path.end(); ++segment) {
            const auto* folder = node->asFolder();
            if (!folder)
                fail(EEXIST, operation, location);
            const auto child = folder->children.find(*segment);
            if (child == folder->children.end())
                break;
            node = child->second.get();
        }
        if (segment == path.end()) {
            if (!node->asFolder())
                fail(EEXIST, operation, location);
            return;
        }
        // Everything is checked before the first folder is made, so a failure leaves nothing behind.
        checkChangeable(operation, location);
        if (!node->writable)
            fail(EACCES, operation, location);
        std::size_t made = 0;
        for (; segment != path.end(); ++segment, ++made)
            node = &putChild(*node, ustring(*segment), newFolder());
        if (m_notifier.active()) {
            std::vector<StorageIRI> folders{location}; // the made folders, deepest first
            while (folders.size() < made)
                folders.push_back(folders.back().getParent());
            for (auto it = folders.rbegin(); it != folders.rend(); ++it)
                m_notifier.record(events::Kind::Created, *it, true);
        }
    }

    void doRemoveFolder(const StorageIRI& location) const override
    {
        constexpr const char* operation = "removeFolder";
        std::unique_lock lock(m_mutex);
        checkChangeable(operation, location);
        const Place<Node> place = placeIn(rootForChange(location), operation, location);
        checkRemovableFolder(operation, location, place);
        if (!place.node->asFolder()->children.empty())
            fail(ENOTEMPTY, operation, location);
        const auto removedFolder = takeChild(*place.parent, location.getName());
        changed(events::Kind::Removed, location, *removedFolder);
    }

    // All or nothing: every folder that would have to give up a child is checked before anything goes.
    void doRemoveFolderRecursively(const StorageIRI& location) const override
    {
        constexpr const char* operation = "removeFolderRecursively";
        std::unique_ptr<Node> removed; // a whole subtree: destroyed after the lock is released
        std::unique_lock lock(m_mutex);
        checkChangeable(operation, location);
        const Place<Node> place = placeIn(rootForChange(location), operation, location);
        checkRemovableFolder(operation, location, place);
        const auto holdsLockedContent = [](const Node& node) {
            const Node::Folder* folder = node.asFolder();
            return folder && !folder->children.empty() && !node.writable;
        };
        std::optional<ustring> locked;
        if (holdsLockedContent(*place.node))
            locked.emplace();
        forEachBelow(*place.node, [&](std::u16string_view path, const Node& node) {
            if (!locked && holdsLockedContent(node))
                locked = ustring(path);
        });
        if (locked)
            fail(EACCES, operation, locked->empty() ? location : StorageIRI(location, *locked));
        unlinkFiles(*place.node);
        removed = takeChild(*place.parent, location.getName());
        if (m_notifier.active()) {
            // Contents before their folder, deepest first, as a disk reports a recursive removal.
            std::vector<std::pair<ustring, bool>> below;
            forEachBelow(*removed, [&](std::u16string_view path, const Node& node) {
                below.emplace_back(ustring(path), node.asFolder() != nullptr);
            });
            for (auto it = below.rbegin(); it != below.rend(); ++it)
                m_notifier.record(events::Kind::Removed, StorageIRI(location, it->first), it->second);
            changed(events::Kind::Removed, location, *removed);
        }
    }

    void doMoveFile(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override
    {
        constexpr const char* operation = "moveFile";
        checkPolicy(operation, location, policy);
        std::unique_ptr<Node> replaced; // destroyed after the lock is released
        std::unique_lock lock(m_mutex);
        checkChangeable(operation, location);
        const Place<Node> from = placeIn(rootForChange(location), operation, location);
        if (!from.node)
            fail(ENOENT, operation, location);
        if (!from.node->asFile())
            wrongKind(operation, location, true);
        const Place<Node> to = placeIn(rootForChange(destination), operation, destination);
        if (from.node == to.node) {
            if (policy == ReplacementPolicy::FailIfExists)
                fail(EEXIST, operation, destination);
            return;
        }
        if (!admitFile(operation, destination, to, policy, from.node->lastModified, 0))
            return;
        if (!from.parent->writable)
            fail(EACCES, operation, location);
        if (to.node) {
            unlinkFiles(*to.node);
            replaced = takeChild(*to.parent, destination.getName());
        }
        const Node& moved = putChild(*to.parent, destination.getName(), takeChild(*from.parent, location.getName()));
        renamed(location, destination, moved);
    }

    void doMoveFolder(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override
    {
        constexpr const char* operation = "moveFolder";
        checkPolicy(operation, location, policy);
        if (location.isAncestorOf(destination))
            badArgument(operation, destination, u"into-itself");
        std::unique_lock lock(m_mutex);
        checkChangeable(operation, location);
        const Place<Node> from = placeIn(rootForChange(location), operation, location);
        if (!from.node)
            fail(ENOENT, operation, location);
        if (!from.node->asFolder())
            wrongKind(operation, location, false);
        if (!from.parent)
            fail(EBUSY, operation, location);
        const Place<Node> to = placeIn(rootForChange(destination), operation, destination);
        // The merging policies are the library's: over an existing folder they behave as Replace, which
        // reports what the library falls back on.
        if (to.node) {
            if (policy == ReplacementPolicy::FailIfExists)
                fail(EEXIST, operation, destination);
            if (!to.node->asFolder())
                wrongKind(operation, destination, false);
            if (to.node != from.node && !to.node->asFolder()->children.empty())
                fail(ENOTEMPTY, operation, destination);
            if (!to.parent)
                fail(EBUSY, operation, destination);
        }
        if (!from.parent->writable)
            fail(EACCES, operation, location);
        if (!to.parent->writable)
            fail(EACCES, operation, destination);
        if (from.node == to.node)
            return;
        std::unique_ptr<Node> moving = takeChild(*from.parent, location.getName());
        const Node& moved = putChild(*to.parent, destination.getName(), std::move(moving));
        renamed(location, destination, moved);
    }

    // The bytes are taken under a shared lock, progress is reported with no lock held, and the
    // target is put in place under the exclusive lock after everything has been checked again
    // (the tree may have changed meanwhile). A cancelled or failed copy leaves nothing behind.
    TransactionStatus doCopyFile(const StorageIRI& location, const StorageIRI& destination,
                                 const CopyFileOptions& options) const override
    {
        constexpr const char* operation = "copyFile";
        const ReplacementPolicy policy = options.replacementPolicy;
        checkPolicy(operation, location, policy);

        std::vector<std::byte> bytes;
        bool writable = true;
        boost::posix_time::ptime sourceTime;
        {
            std::shared_lock lock(m_mutex);
            checkChangeable(operation, destination);
            const Node& source = existingIn(rootOf(location), operation, location);
            if (!source.asFile())
                wrongKind(operation, location, true);
            const Place<const Node> to = placeIn(rootOf(destination), operation, destination);
            if (!admitFile(operation, destination, to, policy, source.lastModified, source.size()))
                return TransactionStatus::NothingDone;
            try {
                bytes = source.asFile()->content->bytes;
            } catch (const std::bad_alloc&) {
                fail(ENOSPC, operation, destination);
            }
            writable = source.writable;
            sourceTime = source.lastModified;
        }

        if (options.progress) {
            const std::uint64_t total = bytes.size();
            std::uint64_t copied = 0;
            do {
                copied += std::min(progressStep, total - copied);
                if (!options.progress(copied, total))
                    return TransactionStatus::NothingDone;
            } while (copied < total);
        }

        std::unique_ptr<Node> replaced; // destroyed after the lock is released
        std::unique_lock lock(m_mutex);
        checkChangeable(operation, destination);
        const Place<Node> to = placeIn(rootForChange(destination), operation, destination);
        if (!admitFile(operation, destination, to, policy, sourceTime, bytes.size()))
            return TransactionStatus::NothingDone;
        if (to.node) {
            unlinkFiles(*to.node);
            replaced = takeChild(*to.parent, destination.getName());
        }
        m_usedBytes += bytes.size();
        std::unique_ptr<Node> made = newFile(std::move(bytes), writable);
        if (options.keepLastModified)
            made->lastModified = sourceTime;
        const Node& copied = putChild(*to.parent, destination.getName(), std::move(made));
        changed(replaced ? events::Kind::Modified : events::Kind::Created, destination, copied);
        return TransactionStatus::Completed;
    }

    // ---- byte streams --------------------------------------------------------------------------
    // A plain stream holds the content of the file it opened, as a descriptor holds an inode: it
    // reads and writes that content whatever later happens to the name (a commit, a removal or a
    // move over it). Writes through it are seen by every stream on the same content. Content a
    // stream still holds after its file left the tree keeps counting against the quota until its
    // last stream closes, as an unlinked file keeps its blocks; so `used` never exceeds the quota
    // and equals what the tree holds once no stream is open. Transactional streams write to a copy
    // of their own that a commit makes the file's new content. Streams keep the provider alive.

    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const override
    {
        std::shared_ptr<Content> content;
        {
            std::unique_lock lock(m_mutex);
            const Node& node = existingIn(rootOf(location), "open", location);
            if (!node.asFile())
                wrongKind("open", location, true);
            content = hold(node);
        }
        return makeStream(shared_from_this(), location, std::move(content), true, false, false);
    }

    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const override
    {
        constexpr const char* operation = "open";
        checkOpenOptions(location, options);
        std::vector<std::byte> dropped; // freed after the lock is released
        std::shared_ptr<Content> content;
        {
            std::unique_lock lock(m_mutex);
            checkChangeable(operation, location);
            const Place<Node> place = placeIn(rootForChange(location), operation, location);
            if (!place.node) {
                if (options.creation == ByteStreamCreation::OpenExisting)
                    fail(ENOENT, operation, location);
                if (!place.parent->writable)
                    fail(EACCES, operation, location);
                const Node& made = putChild(*place.parent, location.getName(), newFile());
                changed(events::Kind::Created, location, made);
                content = hold(made);
            } else {
                if (!place.node->asFile())
                    wrongKind(operation, location, true);
                if (!place.node->writable)
                    fail(EACCES, operation, location);
                // Emptied in place: streams already open on the file see it emptied too.
                if (options.keepContent == 0 && place.node->size() != 0) {
                    m_usedBytes -= place.node->size();
                    dropped.swap(place.node->asFile()->content->bytes);
                    place.node->lastModified = now();
                    changed(events::Kind::Modified, location, *place.node);
                }
                content = hold(*place.node);
            }
        }
        return makeStream(shared_from_this(), location, std::move(content),
                          options.access == ByteStreamAccess::ReadWrite, true, options.writeAtPosition == 0);
    }

    std::unique_ptr<TransactionalByteStream> doOpenTransactionalStream(const StorageIRI& location,
                                                                     const ByteStreamOpenOptions& options) const override
    {
        constexpr const char* operation = "open";
        checkOpenOptions(location, options);
        std::vector<std::byte> content;
        {
            std::shared_lock lock(m_mutex);
            checkChangeable(operation, location);
            const Place<const Node> place = placeIn(rootOf(location), operation, location);
            if (!place.node) {
                if (options.creation == ByteStreamCreation::OpenExisting)
                    fail(ENOENT, operation, location);
                if (!place.parent->writable)
                    fail(EACCES, operation, location);
            } else {
                if (!place.node->asFile())
                    wrongKind(operation, location, true);
                if (!place.node->writable)
                    fail(EACCES, operation, location);
                if (options.keepContent != 0) {
                    try {
                        content = place.node->asFile()->content->bytes;
                    } catch (const std::bad_alloc&) {
                        fail(ENOSPC, operation, location);
                    }
                }
            }
        }
        return makeTransactionalStream(shared_from_this(), location, std::move(content),
                                       options.access == ByteStreamAccess::ReadWrite, options.writeAtPosition == 0,
                                       options.creation == ByteStreamCreation::OpenExisting);
    }

    std::size_t readAt(const Content& content, std::uint64_t offset, char* s, std::size_t n) const override
    {
        std::shared_lock lock(m_mutex);
        const std::vector<std::byte>& bytes = content.bytes;
        if (offset >= bytes.size())
            return 0;
        const std::size_t got = std::min(n, static_cast<std::size_t>(bytes.size() - offset));
        std::memcpy(s, bytes.data() + offset, got);
        return got;
    }

    std::uint64_t writeAt(const StorageIRI& location, Content& content, std::uint64_t offset, bool append,
                          const char* s, std::size_t n) const override
    {
        std::unique_lock lock(m_mutex);
        if (m_options.readOnly)
            throwPosixStreamError(StreamOperation::Write, EROFS, "write", location);
        const std::uint64_t old = content.bytes.size();
        const std::uint64_t at = append ? old : offset;
        const std::uint64_t end = at + n;
        if (end > old) {
            // The stream's hold keeps the content counted, linked or not: its growth is charged.
            roomFor(location, old, end, StreamOperation::Write);
            try {
                content.bytes.resize(end);
            } catch (const std::bad_alloc&) {
                throwPosixStreamError(StreamOperation::Write, ENOSPC, "write", location);
            }
            m_usedBytes += end - old;
        }
        std::memcpy(content.bytes.data() + at, s, n);
        if (Node* node = holderAt(location, content)) {
            node->lastModified = now();
            changed(events::Kind::Modified, location, *node);
        }
        return end;
    }

    std::uint64_t sizeOf(const Content& content) const override
    {
        std::shared_lock lock(m_mutex);
        return content.bytes.size();
    }

    void release(Content& content) const noexcept override
    {
        std::unique_lock lock(m_mutex);
        if (--content.openStreams == 0 && !content.linked)
            m_usedBytes -= content.bytes.size();
    }

    void checkRoom(const StorageIRI& location, std::uint64_t size, StreamOperation operation) const override
    {
        std::shared_lock lock(m_mutex);
        const Node* node = walk(rootOf(location), location, location.getPathView().size()).first;
        roomFor(location, node ? freedByUnlink(*node) : 0, size, operation);
    }

    // The file takes a new content object, as a rename over it would: streams open on the old one
    // keep reading it.
    void commit(const StorageIRI& location, std::vector<std::byte>& bytes, bool mustExist) const override
    {
        std::shared_ptr<Content> fresh;
        try {
            fresh = std::make_shared<Content>();
        } catch (const std::bad_alloc&) {
            throwPosixStreamError(StreamOperation::Close, ENOSPC, "commit", location);
        }
        std::shared_ptr<Content> replaced; // freed after the lock is released
        std::unique_lock lock(m_mutex);
        if (m_options.readOnly)
            throwPosixStreamError(StreamOperation::Close, EROFS, "commit", location);
        const auto [parent, error] = walk(rootForChange(location), location, location.getPathView().size() - 1);
        if (!parent || !parent->asFolder())
            throwPosixStreamError(StreamOperation::Close, parent ? ENOTDIR : error, "commit", location);
        auto& children = parent->asFolder()->children;
        const auto found = children.find(location.getName());
        Node* node = found == children.end() ? nullptr : found->second.get();
        if (node && !node->asFile())
            throwPosixStreamError(StreamOperation::Close, EISDIR, "commit", location);
        if (!node && mustExist)
            throwPosixStreamError(StreamOperation::Close, ENOENT, "commit", location);
        if (!(node ? node->writable : parent->writable))
            throwPosixStreamError(StreamOperation::Close, EACCES, "commit", location);
        roomFor(location, node ? freedByUnlink(*node) : 0, bytes.size(), StreamOperation::Close);
        const bool created = node == nullptr;
        if (created)
            node = &putChild(*parent, location.getName(), newFile());
        unlinkFiles(*node);
        fresh->bytes.swap(bytes);
        m_usedBytes += fresh->bytes.size();
        replaced = std::exchange(node->asFile()->content, std::move(fresh));
        node->lastModified = now();
        changed(created ? events::Kind::Created : events::Kind::Modified, location, *node);
    }

    // The entries are taken under the shared lock; the iterator then holds no lock and its clones
    // share the same entries.
    std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI& location, const ListOptions& options) const override
    {
        constexpr const char* operation = "list";
        if (options.kind != ListKind::All && options.kind != ListKind::Files && options.kind != ListKind::Folders)
            badArgument(operation, location, u"unknown-list-kind");
        std::shared_ptr<const std::vector<FolderEntry>> entries;
        {
            std::shared_lock lock(m_mutex);
            const Node& folder = existingIn(rootOf(location), operation, location);
            if (!folder.asFolder())
                wrongKind(operation, location, false);
            entries = std::make_shared<const std::vector<FolderEntry>>(collectEntries(folder, options));
        }
        return makeSnapshotIterator(location, std::move(entries));
    }

    // Nothing to flush: memory is as durable as it gets.
    void doFlushFilesystem(const StorageIRI& location) const override
    {
        std::shared_lock lock(m_mutex);
        existingIn(rootOf(location), "flushFilesystem", location);
    }

    void flushFilesystem() override {}

    void invalidate(const StorageIRI& location) override { IProvider::checkLocation(location); }

    // The quota is shared by every volume; without one, the space is not known.
    ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& location) const override
    {
        std::shared_lock lock(m_mutex);
        existingIn(rootOf(location), "getProviderStorageInfo", location);
        ProviderStorageInfo info;
        info.description = u"memory volume";
        if (m_options.quotaBytes != unlimited) {
            info.capacityBytes = m_options.quotaBytes;
            info.freeBytes = m_options.quotaBytes > m_usedBytes ? m_options.quotaBytes - m_usedBytes : 0;
            info.availableBytes = info.freeBytes;
        }
        return info;
    }

    // A quota below what is already stored is accepted: nothing is lost, and only growth is refused.
    void doConfigure(const boost::property_tree::ptree& settings) const override
    {
        std::optional<std::uint64_t> quota;
        std::optional<bool> readOnly;
        for (const auto& [key, value] : settings) {
            const std::string& text = value.data();
            if (key == "quotaBytes") {
                std::uint64_t parsed = 0;
                const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
                if (!value.empty() || text.empty() || error != std::errc() || end != text.data() + text.size())
                    badSetting(key, text, "a decimal number of bytes");
                quota = parsed;
            } else if (key == "readOnly") {
                if (!value.empty() || (text != "true" && text != "false"))
                    badSetting(key, text, "\"true\" or \"false\"");
                readOnly = text == "true";
            } else {
                throwProviderError(ErrorCode::InvalidLocation, StorageIRI(),
                                   {ExceptionContext(u"configure"), ExceptionContext(fl::i18n::utf8_to_ustring_lossy(key), u"unknown-setting")},
                                   fl::i18n::utf8_to_ustring_lossy("the memory provider has no setting \"" + key + "\""));
            }
        }
        std::unique_lock lock(m_mutex);
        if (quota)
            m_options.quotaBytes = *quota;
        if (readOnly) {
            m_options.readOnly = *readOnly;
            m_readOnly.store(*readOnly, std::memory_order_relaxed);
        }
    }

    // The settings stay; every volume reads as new and empty again.
    void doShutdown() const override
    {
        decltype(m_volumes) dropped; // destroyed after the lock is released
        m_notifier.unwatchAll();
        std::unique_lock lock(m_mutex);
        for (const auto& [name, root] : m_volumes)
            unlinkFiles(*root);
        dropped.swap(m_volumes);
        m_newVolume.lastModified = now();
    }

    // ---- change events -------------------------------------------------------------------------
    // The notifier reports what this provider changes; changes made under the same location by
    // other means (there are none in memory) could not be seen.

    void doPublishFileEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds) const override
    {
        checkWatchable("publishFileEvents", location, true);
        m_notifier.watch(location, true, false, std::move(callback), kinds);
    }

    void doPublishFolderEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds,
                             RecursiveFileWatching recursive) const override
    {
        checkWatchable("publishFolderEvents", location, false);
        m_notifier.watch(location, false, recursive == RecursiveFileWatching::Recursive, std::move(callback), kinds);
    }

    void doStopPublishingFileEvents(const StorageIRI& location) const override { m_notifier.unwatch(location, true); }
    void doStopPublishingFolderEvents(const StorageIRI& location) const override { m_notifier.unwatch(location, false); }

private:
    void checkWatchable(const char* operation, const StorageIRI& location, bool file) const
    {
        std::shared_lock lock(m_mutex);
        const Node& node = existingIn(rootOf(location), operation, location);
        if ((node.asFile() != nullptr) != file)
            wrongKind(operation, location, file);
    }

    // Records a change for the watches, when there are any. Called under the lock, after the change.
    void changed(events::Kind kind, const StorageIRI& location, const Node& node) const
    {
        if (m_notifier.active())
            m_notifier.record(kind, location, node.asFolder() != nullptr);
    }

    void renamed(const StorageIRI& from, const StorageIRI& to, const Node& node) const
    {
        if (!m_notifier.active())
            return;
        const std::string cookie = std::to_string(m_notifier.nextCookie());
        boost::property_tree::ptree leaving, arriving;
        leaving.put("rename.cookie", cookie);
        leaving.put("rename.to", fl::i18n::ustring_to_utf8_lossy(to.toString()));
        arriving.put("rename.cookie", cookie);
        arriving.put("rename.from", fl::i18n::ustring_to_utf8_lossy(from.toString()));
        m_notifier.record(events::Kind::RenamedFrom, from, node.asFolder() != nullptr, std::move(leaving));
        m_notifier.record(events::Kind::RenamedTo, to, node.asFolder() != nullptr, std::move(arriving));
    }

    [[noreturn]] static void badSetting(const std::string& key, const std::string& value, const char* expected)
    {
        throwProviderError(ErrorCode::InvalidLocation, StorageIRI(),
                           {ExceptionContext(u"configure"), ExceptionContext(ascii(key), u"bad-value")},
                           fl::i18n::utf8_to_ustring_lossy("the memory provider's setting \"" + key + "\" takes " +
                                                           expected + ", not \"" + value + "\""));
    }

    static void checkOpenOptions(const StorageIRI& location, const ByteStreamOpenOptions& options)
    {
        const bool access = options.access == ByteStreamAccess::Write || options.access == ByteStreamAccess::ReadWrite;
        const bool creation = options.creation == ByteStreamCreation::CreateIfMissing ||
                              options.creation == ByteStreamCreation::OpenExisting;
        if (!access || !creation)
            badArgument("open", location, u"bad-open-options");
    }

    // Callers hold m_mutex from here on.

    // A new plain stream's hold on the content of `file`, ended by StreamHost::release.
    static std::shared_ptr<Content> hold(const Node& file) noexcept
    {
        const std::shared_ptr<Content>& content = file.asFile()->content;
        ++content->openStreams;
        return content;
    }

    // Takes the files of `node` (itself or those below it) out of the tree's accounting, before they
    // leave the tree or lose their content. Content a stream holds stays counted until it closes.
    void unlinkFiles(const Node& node) const
    {
        const auto unlink = [this](const Node& file) {
            if (const Node::File* held = file.asFile()) {
                held->content->linked = false;
                m_usedBytes -= freedByUnlink(file);
            }
        };
        unlink(node);
        forEachBelow(node, [&](std::u16string_view, const Node& below) { unlink(below); });
    }

    // The bytes unlinking the file `node` gives back to the quota at once.
    static std::uint64_t freedByUnlink(const Node& node) noexcept
    {
        const Node::File* file = node.asFile();
        return file && file->content->openStreams == 0 ? file->content->bytes.size() : 0;
    }

    // The file at `location` if it still holds `content`: changes to content that left its name are
    // reported for no name.
    Node* holderAt(const StorageIRI& location, const Content& content) const
    {
        const auto volume = m_volumes.find(location.getAuthority());
        if (volume == m_volumes.end())
            return nullptr;
        Node* node = walk(*volume->second, location, location.getPathView().size()).first;
        return node && node->asFile() && node->asFile()->content.get() == &content ? node : nullptr;
    }

    // Whether a file of `released` bytes may become `size` bytes long.
    void roomFor(const StorageIRI& location, std::uint64_t released, std::uint64_t size, StreamOperation operation) const
    {
        if (size <= released)
            return;
        if (size > largestFile())
            throwPosixStreamError(operation, EFBIG, "write", location);
        const std::uint64_t kept = m_usedBytes - released;
        if (size > m_options.quotaBytes || kept > m_options.quotaBytes - size)
            throwPosixStreamError(operation, ENOSPC, "write", location);
    }


    void checkChangeable(const char* operation, const StorageIRI& location) const
    {
        if (m_options.readOnly)
            fail(EROFS, operation, location);
    }

    void checkQuota(const char* operation, const StorageIRI& location, std::uint64_t released, std::uint64_t added) const
    {
        const std::uint64_t kept = m_usedBytes - released;
        if (added > m_options.quotaBytes || kept > m_options.quotaBytes - added)
            fail(ENOSPC, operation, location);
    }

    void create(const char* operation, const StorageIRI& location, bool folder) const
    {
        std::unique_lock lock(m_mutex);
        checkChangeable(operation, location);
        const Place<Node> place = placeIn(rootForChange(location), operation, location);
        if (place.node)
            fail(EEXIST, operation, location);
        if (!place.parent->writable)
            fail(EACCES, operation, location);
        const Node& made = putChild(*place.parent, location.getName(), folder ? newFolder() : newFile());
        changed(events::Kind::Created, location, made);
    }

    static void checkRemovableFolder(const char* operation, const StorageIRI& location, const Place<Node>& place)
    {
        if (!place.node)
            fail(ENOENT, operation, location);
        if (!place.node->asFolder())
            wrongKind(operation, location, false);
        if (!place.parent)
            fail(EBUSY, operation, location);
        if (!place.parent->writable)
            fail(EACCES, operation, location);
    }

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

    const Node& rootOf(const StorageIRI& location) const
    {
        const auto volume = m_volumes.find(location.getAuthority());
        return volume == m_volumes.end() ? m_newVolume : *volume->second;
    }

    // Brings the volume into being with the root it has been reading as.
    Node& rootForChange(const StorageIRI& location) const
    {
        auto volume = m_volumes.find(location.getAuthority());
        if (volume == m_volumes.end())
            volume = m_volumes.emplace(location.getAuthority(), std::make_unique<Node>(Node::Folder{}, m_newVolume.lastModified)).first;
        return *volume->second;
    }

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

} // namespace

std::shared_ptr<IProvider> makeMemoryProvider(MemoryProviderOptions options)
{
    return std::make_shared<MemoryProvider>(options);
}

} // namespace foundation::storage::provider::memory
