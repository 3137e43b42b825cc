#pragma once

#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>

#include <set>

namespace foundation::storage::provider::decorators {

// Hides chosen extended features, so that the library's own fallback paths run against real
// storage: the capabilities (and so hasFeature()) lack a masked feature, and the provider's front
// then behaves as one without it: with RecursiveRemoval hidden, removeFolderRecursively fails with
// UnsupportedOperation; with RecursiveListing hidden, so does a recursive list(); with
// FlatWildcardListing (RecursiveWildcardListing) hidden, a flat (recursive) list() ignores the
// pattern, as the contract lets such a provider do; with RecursiveWatching hidden, a recursive
// publishFolderEvents() fails with UnsupportedOperation. Hiding writing makes a read-only storage
// (every change ReadOnlyProvider); hiding watching leaves only polling.
enum class HiddenAbility : std::int32_t {
    Writing = 0,
    Watching = 1,
};

class VFS_EXPORT FeatureMaskingProvider : public ProviderDecorator {
public:
    FeatureMaskingProvider(std::shared_ptr<IProvider> wrapped, std::set<ExtendedFeature> hidden,
                           std::set<HiddenAbility> hiddenAbilities = {});
    ProviderCapabilities capabilities() const override;
    const std::set<ExtendedFeature>& hiddenFeatures() const noexcept { return m_hidden; }

protected:
    bool doHasFeature(const StorageIRI& location, ExtendedFeature feature) const override;
    std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI& location, const ListOptions& options) const override;

private:
    std::set<ExtendedFeature> m_hidden;
    std::set<HiddenAbility> m_hiddenAbilities;
};

} // namespace foundation::storage::provider::decorators
