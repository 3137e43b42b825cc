// Folder listings of the local disk: one getdents64 batch at a time, entries filtered by the
// listing's pattern before anything else is done with them.

#include "Batches.hpp"

namespace foundation::storage::provider::local::detail {

namespace {

class FolderWalk final : public DirectoryWalk {
public:
    FolderWalk(FileDescriptor folder, StorageIRI location, const ListOptions& options)
        : DirectoryWalk(std::move(location)), m_folder(std::move(folder)), m_inspector(options),
          m_pattern(options.pattern)
    {
    }

    bool read(Batch& batch) override
    {
        if (!m_reader.read(m_folder.get(), location()))
            return false;
        batch.reserve(batch.size() + m_reader.capacityHint(), 0);
        m_reader.forEach([&](const char* name, unsigned char type) {
            batch.appendName(name);
            if (!m_pattern.empty() && !matchesWildcard(batch.pendingName(), m_pattern)) {
                batch.drop();
                return;
            }
            m_inspector.take(batch, m_folder.get(), name, type, location());
        });
        return true;
    }

private:
    FileDescriptor m_folder;
    DirectoryReader m_reader;
    EntryInspector m_inspector;
    const ustring m_pattern;
};

} // namespace

std::unique_ptr<IFolderEntryIterator> listFolder(const StorageIRI& location, const ListOptions& options)
{
    if (options.recursive) {
        (void)nativePath(location);
        throwProviderError(ErrorCode::UnsupportedOperation, location, {ExceptionContext(u"recursive-listing")});
    }
    return iterateBatches(std::make_unique<FolderWalk>(openListedFolder(location), location, options));
}

} // namespace foundation::storage::provider::local::detail
