#include "EveryOperation.hpp"

#include <KitPrelude.hpp>

namespace {

using namespace foundation::storage::provider::decorators;

class CallCountingTest : public ProviderTest {
protected:
    const std::shared_ptr<CallCountingProvider> counting = std::make_shared<CallCountingProvider>(provider);
};

TEST_P(CallCountingTest, CountsPerNormalisedLocationUntilReset)
{
    const StorageIRI missing(root, u"missing");
    counting->exists(root);
    counting->exists(missing);
    counting->existsExtended(missing);
    EXPECT_EQ(counting->count(ProviderOperation::Exists), 2u);
    EXPECT_EQ(counting->count(ProviderOperation::ExistsExtended, root), 0u);
    // The same location spelled differently is the same location.
    EXPECT_EQ(counting->count(ProviderOperation::Exists, StorageIRI(root, u"x/../missing")), 1u);
    counting->reset();
    EXPECT_EQ(counting->total(), 0u);
    EXPECT_EQ(counting->count(ProviderOperation::Exists, root), 0u);
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

TEST_P(CallCountingTest, EveryOperationIsForwardedAndCountedOnceUnderItsOwnName)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    makeFile(u"file.txt", 3);
    makeFolder(u"folder");
    makeFile(u"doomed/inside.txt");
    const bool recursiveRemoval = hasFeature(ExtendedFeature::RecursiveRemoval);

    std::set<ProviderOperation> seen;
    for (const OperationCall& c : everyOperation(root)) {
        SCOPED_TRACE(toString(c.operation));
        EXPECT_TRUE(seen.insert(c.operation).second) << "the table names an operation twice";
        counting->reset();
        if (c.operation == ProviderOperation::RemoveFolderRecursively && !recursiveRemoval) {
            EXPECT_TRUE(providerError([&] { c.call(*counting); }).has_value());
        } else {
            // Through the decorator every call works as on the provider itself, a copy that names the
            // decorator as its destination included.
            EXPECT_NO_THROW(c.call(*counting));
        }
        EXPECT_EQ(counting->count(c.operation), 1u);
        EXPECT_EQ(counting->count(c.operation, c.subject), 1u);
        EXPECT_EQ(counting->total(), c.total) << "each call counted once";
    }
    EXPECT_EQ(seen.size(), providerOperationCount);
}

TEST(ProviderOperationTest, EveryOperationHasItsOwnName)
{
    std::set<std::string> names;
    for (std::size_t i = 0; i < providerOperationCount; ++i) {
        const std::string name = toString(static_cast<ProviderOperation>(i));
        EXPECT_NE(name, "Unhandled ProviderOperation") << i;
        EXPECT_TRUE(names.insert(name).second) << name;
    }
    EXPECT_STREQ(toString(ProviderOperation::Count_), "Unhandled ProviderOperation");
}

INSTANTIATE_TEST_SUITE_P(Providers, CallCountingTest, testing::ValuesIn(allProviders()), providerName);

} // namespace
