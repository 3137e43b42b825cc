#pragma once

// For tests of listings: a decorator that records the options of every listing asked of a provider
// (and can make the provider below look less capable than it is), and the names a listing yields.

#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>
#include <foundation/storage/vfs/FolderEntries.hpp>
#include <foundation/storage/vfs/FolderListing.hpp>

#include <boost/variant/apply_visitor.hpp>
#include <boost/variant/variant.hpp>

#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace vfs_test {

// The name an element of a listing was made from.
inline fl::i18n::ustring nameOf(const foundation::storage::vfs::File& file) { return file.getName(); }
inline fl::i18n::ustring nameOf(const foundation::storage::vfs::Folder& folder) { return folder.getName(); }
inline fl::i18n::ustring nameOf(const foundation::storage::vfs::FileEntry& entry) { return entry.getName(); }
inline fl::i18n::ustring nameOf(const foundation::storage::vfs::FolderEntry& entry) { return entry.getName(); }
inline fl::i18n::ustring nameOf(const foundation::storage::vfs::ListEntry& entry) { return entry.getName(); }
template <class A, class B>
fl::i18n::ustring nameOf(const boost::variant<A, B>& element)
{
    return boost::apply_visitor([](const auto& alternative) { return nameOf(alternative); }, element);
}

inline std::vector<fl::i18n::ustring> sorted(std::vector<fl::i18n::ustring> names)
{
    std::sort(names.begin(), names.end());
    return names;
}

// The names of one whole pass over `listing`, sorted.
template <class T>
std::vector<fl::i18n::ustring> namesOf(const foundation::storage::vfs::FolderListing<T>& listing)
{
    std::vector<fl::i18n::ustring> names;
    for (const T& element : listing)
        names.push_back(nameOf(element));
    return sorted(std::move(names));
}

class ListingRecorder : public foundation::storage::provider::decorators::ProviderDecorator {
public:
    struct Behaviour {
        // Lists every child whatever pattern was asked for (hasFeature still answers as below).
        bool ignorePattern = false;
        // Lists names only, even when attributes were asked for.
        bool withholdAttributes = false;
    };

    ListingRecorder(std::shared_ptr<foundation::storage::provider::IProvider> wrapped, Behaviour behaviour)
        : ProviderDecorator(std::move(wrapped)), m_behaviour(behaviour)
    {
    }

protected:
    std::unique_ptr<foundation::storage::provider::IFolderEntryIterator>
    doList(const foundation::storage::provider::StorageIRI& location,
         const foundation::storage::provider::ListOptions& options) const override
    {
        {
            std::lock_guard lock(m_mutex);
            m_seen.push_back(options);
        }
        foundation::storage::provider::ListOptions forwarded = options;
        if (m_behaviour.ignorePattern)
            forwarded.pattern.clear();
        if (m_behaviour.withholdAttributes)
            forwarded.withAttributes = false;
        return ProviderDecorator::doList(location, forwarded);
    }

public:

    // The options of every listing so far, oldest first, as the caller gave them.
    std::vector<foundation::storage::provider::ListOptions> seen() const
    {
        std::lock_guard lock(m_mutex);
        return m_seen;
    }

private:
    Behaviour m_behaviour;
    mutable std::mutex m_mutex;
    mutable std::vector<foundation::storage::provider::ListOptions> m_seen;
};

// A DecoratedStorage wrap that puts a ListingRecorder in and keeps it where the test can reach it
// (the storage builds its providers lazily, so the recorder appears on first use of a scheme).
struct RecorderSlot {
    std::shared_ptr<ListingRecorder> recorder;
};

inline auto recordingWrap(const std::shared_ptr<RecorderSlot>& slot, ListingRecorder::Behaviour behaviour = {})
{
    return [slot, behaviour](std::shared_ptr<foundation::storage::provider::IProvider> inner)
               -> std::shared_ptr<foundation::storage::provider::IProvider> {
        slot->recorder = std::make_shared<ListingRecorder>(std::move(inner), behaviour);
        return slot->recorder;
    };
}

} // namespace vfs_test
