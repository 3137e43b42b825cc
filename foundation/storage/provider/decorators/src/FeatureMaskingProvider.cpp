#include <foundation/storage/provider/decorators/FeatureMaskingProvider.hpp>

namespace foundation::storage::provider::decorators {

FeatureMaskingProvider::FeatureMaskingProvider(std::shared_ptr<IProvider> wrapped, std::set<ExtendedFeature> hidden,
                                               std::set<HiddenAbility> hiddenAbilities)
    : ProviderDecorator(std::move(wrapped)), m_hidden(std::move(hidden)), m_hiddenAbilities(std::move(hiddenAbilities))
{
}

ProviderCapabilities FeatureMaskingProvider::capabilities() const
{
    ProviderCapabilities capabilities = ProviderDecorator::capabilities();
    for (const ExtendedFeature feature : m_hidden)
        capabilities.without(feature);
    capabilities.writable = capabilities.writable && !m_hiddenAbilities.contains(HiddenAbility::Writing);
    capabilities.watching = capabilities.watching && !m_hiddenAbilities.contains(HiddenAbility::Watching);
    return capabilities;
}

bool FeatureMaskingProvider::doHasFeature(const StorageIRI& location, ExtendedFeature feature) const
{
    if (m_hidden.contains(feature))
        return false;
    return ProviderDecorator::doHasFeature(location, feature);
}

// The wrapped provider never sees a pattern of a hidden wildcard feature, as one without it may ignore it.
std::unique_ptr<IFolderEntryIterator> FeatureMaskingProvider::doList(const StorageIRI& location,
                                                                    const ListOptions& options) const
{
    const ExtendedFeature wildcards =
        options.recursive ? ExtendedFeature::RecursiveWildcardListing : ExtendedFeature::FlatWildcardListing;
    if (options.pattern.empty() || !m_hidden.contains(wildcards))
        return ProviderDecorator::doList(location, options);
    ListOptions unfiltered = options;
    unfiltered.pattern.clear();
    return ProviderDecorator::doList(location, unfiltered);
}

} // namespace foundation::storage::provider::decorators
