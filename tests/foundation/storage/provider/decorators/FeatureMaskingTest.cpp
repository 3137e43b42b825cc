#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace {

namespace provider = foundation::storage::provider;
using provider::StorageIRI;
using namespace foundation::storage::provider::decorators;
using provider::ExistenceType;
using provider::ExistenceTypeExtended;
using provider::ExtendedFeature;
using testing::Return;

// No provider implements an extended feature natively yet, so only a mock can show that masking
// hides what a provider has and forwards the rest.
class ProviderWithEveryFeature : public provider::IProvider {
public:
    MOCK_METHOD(ExistenceType, exists, (const StorageIRI&), (const, override));
    MOCK_METHOD(ExistenceTypeExtended, existsExtended, (const StorageIRI&), (const, override));
    MOCK_METHOD(bool, hasFeature, (const StorageIRI&, ExtendedFeature), (const, override));
};

constexpr ExtendedFeature everyFeature[] = {ExtendedFeature::RecursiveRemoval, ExtendedFeature::RecursiveListing,
                                            ExtendedFeature::FlatWildcardListing, ExtendedFeature::RecursiveWatching,
                                            ExtendedFeature::RecursiveWildcardListing};

TEST(FeatureMaskingTest, HidesMaskedFeaturesAndForwardsTheRest)
{
    auto wrapped = std::make_shared<testing::StrictMock<ProviderWithEveryFeature>>();
    const StorageIRI location(u"mem://volume/a");
    const std::set hidden{ExtendedFeature::RecursiveRemoval, ExtendedFeature::FlatWildcardListing};
    // A masked feature is answered without asking the wrapped provider.
    for (ExtendedFeature feature : everyFeature) {
        if (!hidden.contains(feature))
            EXPECT_CALL(*wrapped, hasFeature(location, feature)).WillOnce(Return(true));
    }
    const FeatureMaskingProvider masking(wrapped, hidden);

    for (ExtendedFeature feature : everyFeature) {
        SCOPED_TRACE(toString(feature));
        EXPECT_EQ(masking.hasFeature(location, feature), !hidden.contains(feature));
    }
    EXPECT_EQ(masking.hiddenFeatures(), hidden);
}

} // namespace
