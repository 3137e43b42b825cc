// Files' content as the streams of Stream.cpp reach it: opening, reading, writing, committing.

#include "Provider.hpp"

namespace foundation::storage::provider::memory::detail {

std::unique_ptr<ByteStream> MemoryProvider::doOpenReadOnlyStream(const StorageIRI& location) const
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

std::unique_ptr<ByteStream> MemoryProvider::doOpenStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const
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

std::unique_ptr<TransactionalByteStream> MemoryProvider::doOpenTransactionalStream(const StorageIRI& location,
                                                                 const ByteStreamOpenOptions& options) const
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

std::size_t MemoryProvider::readAt(const Content& content, std::uint64_t offset, char* s, std::size_t n) const
{
    std::shared_lock lock(m_mutex);
    const std::vector<std::byte>& bytes = content.bytes;
    if (offset >= bytes.size())
        return 0;
    const std::size_t got = std::min(n, static_cast<std::size_t>(bytes.size() - offset));
    std::memcpy(s, bytes.data() + offset, got);
    return got;
}

std::uint64_t MemoryProvider::writeAt(const StorageIRI& location, Content& content, std::uint64_t offset, bool append,
                      const char* s, std::size_t n) const
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

std::uint64_t MemoryProvider::sizeOf(const Content& content) const
{
    std::shared_lock lock(m_mutex);
    return content.bytes.size();
}

void MemoryProvider::release(Content& content) const noexcept
{
    std::unique_lock lock(m_mutex);
    if (--content.openStreams == 0 && !content.linked)
        m_usedBytes -= content.bytes.size();
}

void MemoryProvider::checkRoom(const StorageIRI& location, std::uint64_t size, StreamOperation operation) const
{
    std::shared_lock lock(m_mutex);
    const Node* node = walk(rootOf(location), location, location.getPathView().size()).first;
    roomFor(location, node ? freedByUnlink(*node) : 0, size, operation);
}

void MemoryProvider::commit(const StorageIRI& location, std::vector<std::byte>& bytes, bool mustExist) const
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

void MemoryProvider::checkOpenOptions(const StorageIRI& location, const ByteStreamOpenOptions& options)
{
    const bool access = options.access == ByteStreamAccess::Write || options.access == ByteStreamAccess::ReadWrite;
    const bool creation = options.creation == ByteStreamCreation::CreateIfMissing ||
                          options.creation == ByteStreamCreation::OpenExisting;
    if (!access || !creation)
        badArgument("open", location, u"bad-open-options");
}

std::shared_ptr<Content> MemoryProvider::hold(const Node& file) noexcept
{
    const std::shared_ptr<Content>& content = file.asFile()->content;
    ++content->openStreams;
    return content;
}

Node* MemoryProvider::holderAt(const StorageIRI& location, const Content& content) const
{
    const auto volume = m_volumes.find(location.getAuthority());
    if (volume == m_volumes.end())
        return nullptr;
    Node* node = walk(*volume->second, location, location.getPathView().size()).first;
    return node && node->asFile() && node->asFile()->content.get() == &content ? node : nullptr;
}

void MemoryProvider::roomFor(const StorageIRI& location, std::uint64_t released, std::uint64_t size, StreamOperation operation) const
{
    if (size <= released)
        return;
    if (size > largestFile())
        throwPosixStreamError(operation, EFBIG, "write", location);
    const std::uint64_t kept = m_usedBytes - released;
    if (size > m_options.quotaBytes || kept > m_options.quotaBytes - size)
        throwPosixStreamError(operation, ENOSPC, "write", location);
}

} // namespace foundation::storage::provider::memory::detail
