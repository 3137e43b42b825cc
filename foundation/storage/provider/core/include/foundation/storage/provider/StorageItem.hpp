#pragma once

#include <foundation/storage/provider/IProvider.hpp>

#include <memory>

namespace foundation::storage::provider {

// A cheap value: a provider and a location. Every operation forwards to the provider with the
// location; copying shares the provider.
class VFS_EXPORT StorageItem {
public:
    // Throws std::invalid_argument when `provider` is null.
    StorageItem(std::shared_ptr<IProvider> provider, StorageIRI location);
    // The item named `name` inside the folder `parent`, on the same provider. `name` may be a
    // relative path that stays inside the folder ("a/b"); it is refused with InvalidLocation when it
    // is empty, absolute, holds NUL, or climbs above the folder with "..".
    StorageItem(const StorageItem& parent, const ustring& name);

    const std::shared_ptr<IProvider>& getProvider() const noexcept { return m_provider; }
    const StorageIRI& getLocation() const noexcept { return m_location; }
    const ustring& getName() const noexcept { return m_location.getName(); }
    ustring getScheme() const { return m_location.getScheme(); }
    // The parent folder's item (the root's parent is the root).
    StorageItem getParent() const;

    ExistenceType exists() const { return m_provider->exists(m_location); }
    ExistenceTypeExtended existsExtended() const { return m_provider->existsExtended(m_location); }
    bool hasFeature(ExtendedFeature feature) const { return m_provider->hasFeature(m_location, feature); }

private:
    std::shared_ptr<IProvider> m_provider;
    StorageIRI m_location;
};

// The location of `name` inside `folder`, refused with InvalidLocation (context "child-name") when
// the name is empty, absolute, holds NUL, or would climb above the folder.
VFS_EXPORT StorageIRI childLocation(const StorageIRI& folder, const ustring& name);

} // namespace foundation::storage::provider
