#include <KitPrelude.hpp>

namespace {

using namespace foundation::storage::provider::decorators;

constexpr ExtendedFeature everyFeature[] = {ExtendedFeature::RecursiveRemoval, ExtendedFeature::RecursiveListing,
                                            ExtendedFeature::FlatWildcardListing, ExtendedFeature::RecursiveWatching,
                                            ExtendedFeature::RecursiveWildcardListing};

std::set<std::string> listedNames(const provider::IProvider& storage, const StorageIRI& folder, const ListOptions& options)
{
    std::set<std::string> names;
    for (auto it = storage.list(folder, options); it->hasNext();) {
        it->next();
        names.insert(fl::i18n::ustring_to_utf8(it->current().getName()));
    }
    return names;
}

class FeatureMaskingTest : public ProviderTest {};

TEST_P(FeatureMaskingTest, HidesMaskedFeaturesAndForwardsTheRest)
{
    for (const ExtendedFeature masked : everyFeature) {
        SCOPED_TRACE(toString(masked));
        const FeatureMaskingProvider masking(provider, {masked});
        EXPECT_EQ(masking.hiddenFeatures(), std::set{masked});
        for (const ExtendedFeature feature : everyFeature)
            EXPECT_EQ(masking.hasFeature(root, feature), feature != masked && provider->hasFeature(root, feature))
                << toString(feature);
    }
    const FeatureMaskingProvider nothingHidden(provider, {});
    for (const ExtendedFeature feature : everyFeature)
        EXPECT_EQ(nothingHidden.hasFeature(root, feature), provider->hasFeature(root, feature)) << toString(feature);
}

TEST_P(FeatureMaskingTest, AMaskedProviderBehavesAsOneWithoutTheFeature)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    makeFile(u"a.txt", 1);
    makeFile(u"b.log", 2);
    makeFile(u"sub/c.txt", 3);
    const auto before = tree();
    const StorageIRI sub = below(u"sub");

    const FeatureMaskingProvider noRemoval(provider, {ExtendedFeature::RecursiveRemoval});
    EXPECT_TRUE(failsWith([&] { noRemoval.removeFolderRecursively(sub); }, ErrorCode::UnsupportedOperation, sub,
                          "no-recursive-removal"));
    EXPECT_EQ(tree(), before);

    ListOptions recursive;
    recursive.recursive = true;
    const FeatureMaskingProvider noRecursiveListing(provider, {ExtendedFeature::RecursiveListing});
    EXPECT_TRUE(failsWith([&] { noRecursiveListing.list(root, recursive); }, ErrorCode::UnsupportedOperation, root,
                          "no-recursive-listing"));

    // Without wildcard listing the pattern is ignored, and the caller's own filter has to work.
    ListOptions pattern;
    pattern.pattern = u"*.txt";
    const FeatureMaskingProvider noWildcards(provider, {ExtendedFeature::FlatWildcardListing});
    EXPECT_EQ(listedNames(noWildcards, root, pattern), (std::set<std::string>{"a.txt", "b.log", "sub"}));
    if (hasFeature(ExtendedFeature::FlatWildcardListing)) {
        EXPECT_EQ(listedNames(FeatureMaskingProvider(provider, {}), root, pattern), std::set<std::string>{"a.txt"});
    }
    if (hasFeature(ExtendedFeature::RecursiveListing)) {
        ListOptions recursivePattern = recursive;
        recursivePattern.pattern = u"*.txt";
        const FeatureMaskingProvider noRecursiveWildcards(provider, {ExtendedFeature::RecursiveWildcardListing});
        EXPECT_EQ(listedNames(noRecursiveWildcards, root, recursivePattern),
                  (std::set<std::string>{"a.txt", "b.log", "sub", "sub/c.txt"}));
        // The flat mask leaves recursive listings alone.
        EXPECT_EQ(listedNames(noWildcards, root, recursive), listedNames(*provider, root, recursive));
    }

    // What is not masked works as before.
    if (hasFeature(ExtendedFeature::RecursiveRemoval)) {
        noRecursiveListing.removeFolderRecursively(sub);
        EXPECT_EQ(provider->exists(sub), ExistenceType::NotFound);
    }
}

INSTANTIATE_TEST_SUITE_P(Providers, FeatureMaskingTest, testing::ValuesIn(allProviders()), providerName);

} // namespace
