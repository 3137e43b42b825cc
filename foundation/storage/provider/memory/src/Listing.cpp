// Listings, taken as snapshots under the lock.

#include "Provider.hpp"

namespace foundation::storage::provider::memory::detail {

std::unique_ptr<IFolderEntryIterator> MemoryProvider::doList(const StorageIRI& location, const ListOptions& options) const
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

} // namespace foundation::storage::provider::memory::detail
