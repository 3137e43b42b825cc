// Moves within and across volumes, and copies of a file.

#include "Provider.hpp"

namespace foundation::storage::provider::memory::detail {

void MemoryProvider::doMoveFile(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const
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

void MemoryProvider::doMoveFolder(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const
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

TransactionStatus MemoryProvider::doCopyFile(const StorageIRI& location, const StorageIRI& destination,
                             const CopyFileOptions& options) const
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

} // namespace foundation::storage::provider::memory::detail
