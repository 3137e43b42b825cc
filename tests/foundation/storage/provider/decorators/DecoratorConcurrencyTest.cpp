// Decorators are shared by many threads, as the providers they wrap are; also run under
// ThreadSanitizer.

#include <KitPrelude.hpp>

namespace {

using namespace foundation::storage::provider::decorators;
using Trigger = FaultInjectingProvider::Trigger;

class DecoratorConcurrencyTest : public ProviderTest {};

TEST_P(DecoratorConcurrencyTest, FaultsFireExactlyAsOftenAsTriggeredWhenManyThreadsCall)
{
    const StorageIRI onceHere(root, u"once");
    const StorageIRI afterHere(root, u"after");
    auto counting = std::make_shared<CallCountingProvider>(provider);
    auto faulty = std::make_shared<FaultInjectingProvider>(counting);
    const auto once = faulty->addFault({.operation = ProviderOperation::Exists, .location = onceHere,
                                        .code = ErrorCode::IOError, .trigger = Trigger::Once});
    const auto after = faulty->addFault({.operation = ProviderOperation::Exists, .location = afterHere,
                                         .code = ErrorCode::ResourceInUse, .trigger = Trigger::AfterN, .calls = 100});

    constexpr int threadCount = 8;
    constexpr int rounds = 200;
    std::atomic<int> onceFailures{0};
    std::atomic<int> afterFailures{0};
    std::atomic<int> wrong{0};
    const auto call = [&] {
        for (int i = 0; i < rounds; ++i) {
            if (providerError([&] { faulty->exists(onceHere); }))
                ++onceFailures;
            if (const auto error = providerError([&] { faulty->exists(afterHere); }))
                afterFailures += error->getErrorCode() == ErrorCode::ResourceInUse ? 1 : 1000;
            if (faulty->exists(root) != ExistenceType::Folder)
                ++wrong;
        }
    };
    std::vector<std::function<void()>> tasks(threadCount, call);
    // Faults come and go while the calls run; an unrelated fault must not disturb them.
    tasks.emplace_back([&] {
        for (int i = 0; i < rounds; ++i) {
            const auto id = faulty->addFault({.operation = ProviderOperation::HasFeature, .code = ErrorCode::IOError});
            faulty->removeFault(id);
            static_cast<void>(counting->count(ProviderOperation::Exists, root));
        }
    });
    runTogether(tasks);

    constexpr int callsPerLocation = threadCount * rounds;
    EXPECT_EQ(onceFailures.load(), 1);
    EXPECT_EQ(afterFailures.load(), callsPerLocation - 100);
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(faulty->failuresInjected(once), 1u);
    EXPECT_EQ(faulty->failuresInjected(after), static_cast<std::uint64_t>(callsPerLocation - 100));
    // Calls the fault injector stopped never reached the counter below it.
    EXPECT_EQ(counting->count(ProviderOperation::Exists, onceHere), static_cast<std::uint64_t>(callsPerLocation - 1));
    EXPECT_EQ(counting->count(ProviderOperation::Exists, afterHere), 100u);
    EXPECT_EQ(counting->count(ProviderOperation::Exists, root), static_cast<std::uint64_t>(callsPerLocation));
    EXPECT_EQ(counting->count(ProviderOperation::Exists), static_cast<std::uint64_t>(3 * callsPerLocation - 1 - (callsPerLocation - 100)));
}

INSTANTIATE_TEST_SUITE_P(Providers, DecoratorConcurrencyTest, testing::ValuesIn(allProviders()), providerName);

} // namespace
