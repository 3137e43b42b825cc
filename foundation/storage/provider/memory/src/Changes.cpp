// Creating, removing and changing files and folders, and the quota and read-only checks they pass.

#include "Provider.hpp"

namespace foundation::storage::provider::memory::detail {

void MemoryProvider::doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const
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

void MemoryProvider::doSetWritable(const StorageIRI& location, bool writable) const
{
    std::unique_lock lock(m_mutex);
    checkChangeable("setWritable", location);
    Node& node = existingIn(rootForChange(location), "setWritable", location);
    node.writable = writable;
    changed(events::Kind::AttributesChanged, location, node);
}

void MemoryProvider::doTruncateToSize(const StorageIRI& location, std::uint64_t size) const
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

void MemoryProvider::doRemoveFile(const StorageIRI& location) const
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

void MemoryProvider::doCreateFolderRecursive(const StorageIRI& location) const
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

void MemoryProvider::doRemoveFolder(const StorageIRI& location) const
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

void MemoryProvider::doRemoveFolderRecursively(const StorageIRI& location) const
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

void MemoryProvider::unlinkFiles(const Node& node) const
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

std::uint64_t MemoryProvider::freedByUnlink(const Node& node) noexcept
{
    const Node::File* file = node.asFile();
    return file && file->content->openStreams == 0 ? file->content->bytes.size() : 0;
}

void MemoryProvider::checkChangeable(const char* operation, const StorageIRI& location) const
{
    if (m_options.readOnly)
        fail(EROFS, operation, location);
}

void MemoryProvider::checkQuota(const char* operation, const StorageIRI& location, std::uint64_t released, std::uint64_t added) const
{
    const std::uint64_t kept = m_usedBytes - released;
    if (added > m_options.quotaBytes || kept > m_options.quotaBytes - added)
        fail(ENOSPC, operation, location);
}

void MemoryProvider::create(const char* operation, const StorageIRI& location, bool folder) const
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

void MemoryProvider::checkRemovableFolder(const char* operation, const StorageIRI& location, const Place<Node>& place)
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

} // namespace foundation::storage::provider::memory::detail
