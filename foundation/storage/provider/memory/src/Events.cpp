// Watches and the change events that operations publish.

#include "Provider.hpp"

namespace foundation::storage::provider::memory::detail {

void MemoryProvider::doPublishFileEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds) const
{
    checkWatchable("publishFileEvents", location, true);
    m_notifier.watch(location, true, false, std::move(callback), kinds);
}

void MemoryProvider::doPublishFolderEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds,
                         RecursiveFileWatching recursive) const
{
    checkWatchable("publishFolderEvents", location, false);
    m_notifier.watch(location, false, recursive == RecursiveFileWatching::Recursive, std::move(callback), kinds);
}

void MemoryProvider::checkWatchable(const char* operation, const StorageIRI& location, bool file) const
{
    std::shared_lock lock(m_mutex);
    const Node& node = existingIn(rootOf(location), operation, location);
    if ((node.asFile() != nullptr) != file)
        wrongKind(operation, location, file);
}

void MemoryProvider::changed(events::Kind kind, const StorageIRI& location, const Node& node) const
{
    if (m_notifier.active())
        m_notifier.record(kind, location, node.asFolder() != nullptr);
}

void MemoryProvider::renamed(const StorageIRI& from, const StorageIRI& to, const Node& node) const
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

} // namespace foundation::storage::provider::memory::detail
