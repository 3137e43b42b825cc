#include "EveryOperation.hpp"

#include <KitPrelude.hpp>

#include <stdexcept>

namespace {

using namespace foundation::storage::provider::decorators;
using Trigger = FaultInjectingProvider::Trigger;

class FaultInjectionTest : public ProviderTest {
protected:
    // The code of the failure `location` meets, or nullopt when exists() answers.
    std::optional<ErrorCode> existsFailure(const StorageIRI& location) const
    {
        const auto error = providerError([&] { faulty->exists(location); });
        return error ? std::optional(error->getErrorCode()) : std::nullopt;
    }

    const std::shared_ptr<FaultInjectingProvider> faulty = std::make_shared<FaultInjectingProvider>(provider);
};

TEST_P(FaultInjectionTest, TriggersDecideWhichMatchingCallsFail)
{
    struct Case {
        const char* name;
        Trigger trigger;
        std::uint64_t calls;
        std::vector<bool> fails; // for five calls in a row
    };
    for (const Case& c : {Case{"once", Trigger::Once, 0, {true, false, false, false, false}},
                          Case{"always", Trigger::Always, 0, {true, true, true, true, true}},
                          Case{"after two", Trigger::AfterN, 2, {false, false, true, true, true}},
                          Case{"after zero", Trigger::AfterN, 0, {true, true, true, true, true}},
                          Case{"third only", Trigger::Nth, 2, {false, false, true, false, false}}}) {
        SCOPED_TRACE(c.name);
        faulty->clearFaults();
        const auto id = faulty->addFault({.operation = ProviderOperation::Exists, .location = root,
                                          .code = ErrorCode::NoSpaceLeft, .trigger = c.trigger, .calls = c.calls});
        // Another operation on the same location neither fails nor spends the fault.
        EXPECT_EQ(faulty->existsExtended(root), ExistenceTypeExtended::Folder);
        std::uint64_t failures = 0;
        for (std::size_t i = 0; i < c.fails.size(); ++i) {
            EXPECT_EQ(existsFailure(root), c.fails[i] ? std::optional(ErrorCode::NoSpaceLeft) : std::nullopt) << "call " << i;
            failures += c.fails[i] ? 1 : 0;
        }
        EXPECT_EQ(faulty->failuresInjected(id), failures);
        EXPECT_EQ(faulty->lastFailureLocation(id), failures ? std::optional(root) : std::nullopt);
        faulty->removeFault(id);
        EXPECT_EQ(existsFailure(root), std::nullopt);
        EXPECT_EQ(faulty->failuresInjected(id), 0u);
    }
}

TEST_P(FaultInjectionTest, LocationMatchesExactlyOrWithItsDescendants)
{
    const StorageIRI sub(root, u"sub");
    const StorageIRI child(root, u"sub/child");
    const StorageIRI grandchild(root, u"sub/child/deeper");
    const StorageIRI sibling(root, u"subway"); // shares a prefix, not a segment

    const auto exact = faulty->addFault({.operation = ProviderOperation::Exists, .location = sub,
                                         .code = ErrorCode::ResourceInUse});
    EXPECT_EQ(existsFailure(sub), ErrorCode::ResourceInUse);
    EXPECT_EQ(existsFailure(child), std::nullopt);
    EXPECT_EQ(existsFailure(root), std::nullopt);

    faulty->removeFault(exact);
    faulty->addFault({.operation = ProviderOperation::Exists, .location = sub, .code = ErrorCode::ResourceInUse,
                      .includeDescendants = true});
    EXPECT_EQ(existsFailure(sub), ErrorCode::ResourceInUse);
    EXPECT_EQ(existsFailure(child), ErrorCode::ResourceInUse);
    EXPECT_EQ(existsFailure(grandchild), ErrorCode::ResourceInUse);
    EXPECT_EQ(existsFailure(sibling), std::nullopt);
    EXPECT_EQ(existsFailure(root), std::nullopt);

    // No location: every location matches.
    faulty->clearFaults();
    faulty->addFault({.operation = ProviderOperation::Exists, .code = ErrorCode::Unknown});
    EXPECT_EQ(existsFailure(root), ErrorCode::Unknown);
    EXPECT_EQ(existsFailure(sibling), ErrorCode::Unknown);
}

TEST_P(FaultInjectionTest, OverlappingFaultsEachCountTheCallAndTheFirstAddedGivesTheCode)
{
    const auto once = faulty->addFault({.operation = ProviderOperation::Exists, .location = root,
                                        .code = ErrorCode::IOError, .trigger = Trigger::Once});
    const auto afterTwo = faulty->addFault({.operation = ProviderOperation::Exists, .code = ErrorCode::PermissionDenied,
                                            .trigger = Trigger::AfterN, .calls = 2});
    EXPECT_EQ(existsFailure(root), ErrorCode::IOError);         // both match; the first fires
    EXPECT_EQ(existsFailure(root), std::nullopt);               // once is spent; the second call of afterTwo
    EXPECT_EQ(existsFailure(root), ErrorCode::PermissionDenied); // its third
    EXPECT_EQ(faulty->failuresInjected(once), 1u);
    EXPECT_EQ(faulty->failuresInjected(afterTwo), 1u);
}

TEST_P(FaultInjectionTest, EveryOperationFailsByItsOwnFaultBeforeReachingTheProvider)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    makeFile(u"file.txt", 3);
    makeFolder(u"folder");
    makeFile(u"doomed/inside.txt");
    const auto before = tree();
    auto counted = std::make_shared<CallCountingProvider>(provider);
    FaultInjectingProvider stack(counted);

    for (const OperationCall& c : everyOperation(root)) {
        if (c.total != 1)
            continue; // calls on open streams fail as stream failures (see the stream tests)
        SCOPED_TRACE(toString(c.operation));
        const auto id = stack.addFault({.operation = c.operation, .code = ErrorCode::ResourceInUse});
        const auto error = providerError([&] { c.call(stack); });
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->getErrorCode(), ErrorCode::ResourceInUse);
        EXPECT_TRUE(error->getStorageIRI() == c.subject) << text(error->getStorageIRI());
        EXPECT_THAT(contextKeys(*error), testing::ElementsAre("fault-injection", toString(c.operation)));
        EXPECT_EQ(stack.failuresInjected(id), 1u);
        stack.removeFault(id);
    }
    EXPECT_EQ(counted->total(), 0u);
    EXPECT_EQ(tree(), before);
}

TEST_P(FaultInjectionTest, AFaultAtAFolderStopsListingsAndCopiesBelowIt)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI source = makeFile(u"guarded/source.txt", 4);
    makeFile(u"open/other.txt", 1);
    faulty->addFault({.operation = ProviderOperation::List, .location = below(u"guarded"), .code = ErrorCode::IOError,
                      .includeDescendants = true});
    faulty->addFault({.operation = ProviderOperation::CopyFile, .location = below(u"guarded"),
                      .code = ErrorCode::PermissionDenied, .includeDescendants = true});

    EXPECT_TRUE(failsWith([&] { faulty->list(below(u"guarded"), {}); }, ErrorCode::IOError, below(u"guarded")));
    EXPECT_TRUE(faulty->list(below(u"open"), {})->hasNext());
    const StorageIRI target = below(u"open/copy.txt");
    EXPECT_TRUE(failsWith([&] { faulty->copyFile(source, *faulty, target, {}); }, ErrorCode::PermissionDenied, source));
    EXPECT_EQ(provider->exists(target), ExistenceType::NotFound);
    // A copy out of an unguarded folder goes through, into the guarded one too.
    EXPECT_EQ(faulty->copyFile(below(u"open/other.txt"), *faulty, below(u"guarded/copy.txt"), {}),
              provider::TransactionStatus::Completed);
    EXPECT_EQ(provider->getFileAttributes(below(u"guarded/copy.txt")).getSize(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Providers, FaultInjectionTest, testing::ValuesIn(allProviders()), providerName);

TEST(ProviderDecoratorTest, RefusesANullProvider)
{
    EXPECT_THROW(FaultInjectingProvider(nullptr), std::invalid_argument);
    EXPECT_THROW(CallCountingProvider(nullptr), std::invalid_argument);
    EXPECT_THROW(FeatureMaskingProvider(nullptr, {}), std::invalid_argument);
}

} // namespace
