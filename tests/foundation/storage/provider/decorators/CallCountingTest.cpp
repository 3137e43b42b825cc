#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>

#include <ProviderHarness.hpp>

#include <gtest/gtest.h>

namespace {

using namespace vfs_test;
using namespace foundation::storage::provider::decorators;
using provider::ErrorCode;
using provider::ExistenceType;
using provider::ExtendedFeature;

class CallCountingTest : public ProviderTest {
protected:
    const std::shared_ptr<CallCountingProvider> counting = std::make_shared<CallCountingProvider>(provider);
};

TEST_P(CallCountingTest, CountsPerOperationAndPerLocation)
{
    const StorageIRI missing(root, u"missing");
    counting->exists(root);
    counting->exists(root);
    counting->exists(missing);
    counting->existsExtended(missing);
    counting->hasFeature(root, ExtendedFeature::RecursiveListing);

    EXPECT_EQ(counting->count(ProviderOperation::Exists), 3u);
    EXPECT_EQ(counting->count(ProviderOperation::ExistsExtended), 1u);
    EXPECT_EQ(counting->count(ProviderOperation::HasFeature), 1u);
    EXPECT_EQ(counting->total(), 5u);
    EXPECT_EQ(counting->count(ProviderOperation::Exists, root), 2u);
    EXPECT_EQ(counting->count(ProviderOperation::Exists, missing), 1u);
    EXPECT_EQ(counting->count(ProviderOperation::ExistsExtended, root), 0u);
    EXPECT_EQ(counting->count(ProviderOperation::ExistsExtended, missing), 1u);
    // The same location spelled differently is the same location.
    EXPECT_EQ(counting->count(ProviderOperation::Exists, StorageIRI(root, u"x/../missing")), 1u);

    counting->reset();
    EXPECT_EQ(counting->total(), 0u);
    EXPECT_EQ(counting->count(ProviderOperation::Exists, root), 0u);
    counting->exists(root);
    EXPECT_EQ(counting->count(ProviderOperation::Exists, root), 1u);
}

TEST_P(CallCountingTest, CallsThatFailBelowAreCountedAndCallsStoppedAboveAreNot)
{
    // counting sits between two fault injectors: the inner one fails calls counting has passed on,
    // the outer one stops calls before they reach counting.
    auto inner = std::make_shared<FaultInjectingProvider>(provider);
    auto counted = std::make_shared<CallCountingProvider>(inner);
    FaultInjectingProvider outer(counted);
    const StorageIRI failsBelow(root, u"fails-below");
    const StorageIRI stoppedAbove(root, u"stopped-above");
    inner->addFault({.operation = ProviderOperation::Exists, .location = failsBelow, .code = ErrorCode::IOError});
    outer.addFault({.operation = ProviderOperation::Exists, .location = stoppedAbove, .code = ErrorCode::IOError});

    EXPECT_TRUE(providerError([&] { outer.exists(failsBelow); }).has_value());
    EXPECT_TRUE(providerError([&] { outer.exists(stoppedAbove); }).has_value());
    EXPECT_EQ(outer.exists(root), ExistenceType::Folder);

    EXPECT_EQ(counted->count(ProviderOperation::Exists, failsBelow), 1u);
    EXPECT_EQ(counted->count(ProviderOperation::Exists, stoppedAbove), 0u);
    EXPECT_EQ(counted->count(ProviderOperation::Exists), 2u);
}

INSTANTIATE_TEST_SUITE_P(Providers, CallCountingTest, testing::ValuesIn(allProviders()), providerName);

} // namespace
