
#include <Prelude.hpp>
#include <foundation/storage/provider/local/LocalProvider.hpp>
#include <foundation/storage/provider/memory/MemoryProvider.hpp>

#include <boost/shared_ptr.hpp>

namespace {

using foundation::msg_svc::eventmgr::EventMgr;
using vfs::StorageSystem;
using vfs::StorageSystemReference;
using Access = vfs::detail::StorageSystemAccess;

// A storage system that serves every location with one provider, wrapped for fault injection, and
// records what is asked of it.
class TestSystem : public StorageSystem {
public:
    explicit TestSystem(std::shared_ptr<provider::IProvider> served = provider::memory::makeMemoryProvider())
        : faults(std::make_shared<FaultInjectingProvider>(std::move(served)))
    {
    }
    ~TestSystem() override
    {
        if (destroyed)
            *destroyed = true;
    }

    void shutdown() const override { ++shutdowns; }

    std::shared_ptr<FaultInjectingProvider> faults;
    // Runs first in buildProvider; may throw.
    std::function<void(const StorageIRI&)> onBuild;
    boost::shared_ptr<EventMgr> eventMgr;
    bool* destroyed = nullptr;
    mutable std::atomic<int> shutdowns{0};
    mutable std::atomic<int> builds{0};

protected:
    std::shared_ptr<provider::IProvider> buildProvider(const StorageIRI& location) const override
    {
        ++builds;
        if (onBuild)
            onBuild(location);
        return faults;
    }

private:
    boost::shared_ptr<EventMgr> getEventMgr() const override { return eventMgr; }
};

// EventMgr is only declared here: the pointer stands for "some event manager" and is compared, never
// dereferenced.
boost::shared_ptr<EventMgr> someEventMgr()
{
    static int marker;
    return boost::shared_ptr<EventMgr>(boost::shared_ptr<void>(), reinterpret_cast<EventMgr*>(&marker));
}

// The message of the std::runtime_error `call` throws; also checks that it is an IInternalException.
template <class Call>
std::string runtimeErrorFrom(Call&& call)
{
    EXPECT_THROW(call(), IInternalException);
    return vfs_test::whatOf<std::runtime_error>(std::forward<Call>(call));
}

const std::string destroyedMessage = "StorageSystem has been destroyed";
const StorageIRI anywhere{u"mem://v/"};

TEST(StorageSystemReferenceTest, ResolvesTheLiveSystemForwardsAndNeverKeepsItAlive)
{
    auto [system, ref] = vfs_test::makeSystem<TestSystem>();
    system->eventMgr = someEventMgr();

    bool destroyed = false;
    system->destroyed = &destroyed;
    EXPECT_EQ(ref.lock(), system);
    EXPECT_EQ(Access::buildProvider(ref, anywhere), system->faults);
    EXPECT_EQ(system->builds, 1);
    EXPECT_EQ(Access::getEventMgr(ref), system->eventMgr);
    ref.shutdown();
    EXPECT_EQ(system->shutdowns, 1);
    // References, copies included, never keep the system alive.
    const StorageSystemReference copy = ref;
    system.reset();
    EXPECT_TRUE(destroyed);
}

TEST(StorageSystemReferenceTest, DestroyedSystemFailsEveryOperationButShutdownAndComparison)
{
    // A reference is made from an owner that stays, never from a temporary one.
    static_assert(std::is_constructible_v<StorageSystemReference, std::shared_ptr<TestSystem>&>);
    static_assert(!std::is_constructible_v<StorageSystemReference, std::shared_ptr<TestSystem>>);
    auto system = std::make_shared<TestSystem>();
    auto gone = std::make_shared<TestSystem>();
    const StorageSystemReference ref{system};
    const StorageSystemReference other{gone};
    // Handles made while the system lived hold its provider, and still fail.
    const vfs::File file(AbsoluteIRI{u"mem://v/f"}, ref);
    const vfs::Folder folder(AbsoluteIRI{u"mem://v/"}, ref);
    file.createFile();
    system.reset();
    gone.reset();
    EXPECT_EQ(runtimeErrorFrom([&] { file.getAttributes(); }), destroyedMessage);
    EXPECT_EQ(runtimeErrorFrom([&] { vfs::IODevice device(file); }), destroyedMessage);
    EXPECT_EQ(runtimeErrorFrom([&] { folder.listFiles(u"").begin(); }), destroyedMessage);

    EXPECT_EQ(runtimeErrorFrom([&] { ref.lock(); }), destroyedMessage);
    EXPECT_EQ(runtimeErrorFrom([&] { Access::buildProvider(ref, anywhere); }), destroyedMessage);
    EXPECT_EQ(runtimeErrorFrom([&] { Access::getEventMgr(ref); }), destroyedMessage);
    // The free functions let it pass as it is, not translated.
    EXPECT_EQ(runtimeErrorFrom([&] { vfs::exists(AbsoluteIRI{u"mem://v/a"}, ref); }), destroyedMessage);
    EXPECT_EQ(runtimeErrorFrom([&] { vfs::existsExtended(AbsoluteIRI{u"mem://v/a"}, ref); }), destroyedMessage);

    EXPECT_NO_THROW(ref.shutdown());
    EXPECT_TRUE(ref == other);
}

TEST(StorageSystemReferenceTest, EqualWhenResolvingToTheSameSystemNow)
{
    auto first = std::make_shared<TestSystem>();
    auto second = std::make_shared<TestSystem>();
    const StorageSystemReference a{std::weak_ptr<StorageSystem>(first)};
    const StorageSystemReference b{std::weak_ptr<StorageSystem>(first)};
    const StorageSystemReference copy = a;
    const StorageSystemReference c{std::weak_ptr<StorageSystem>(second)};
    const StorageSystemReference viaFactory{std::function<std::shared_ptr<StorageSystem>()>([&] { return first; })};

    EXPECT_TRUE(a == b && b == a && a == copy);
    EXPECT_TRUE(a == viaFactory && viaFactory == a);
    EXPECT_FALSE(a != b);
    EXPECT_TRUE(a != c);
    EXPECT_FALSE(a == c);

    // Once one system goes, its references equal references to other gone systems only.
    first.reset();
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a == c);
}

TEST(StorageSystemReferenceTest, MovedFromReferenceThrowsBadFunctionCall)
{
    auto [system, ref] = vfs_test::makeSystem<TestSystem>();
    const StorageSystemReference moved(std::move(ref));
    EXPECT_EQ(moved.lock(), system);
    // NOLINTBEGIN(bugprone-use-after-move)
    EXPECT_THROW(ref.shutdown(), std::bad_function_call);
    EXPECT_THROW(vfs::exists(AbsoluteIRI{u"mem://v/"}, ref), std::bad_function_call);
    // NOLINTEND(bugprone-use-after-move)
}

TEST(StorageSystemReferenceTest, FactoryIsCalledAnewForEveryOperation)
{
    std::atomic<int> calls{0};
    std::shared_ptr<TestSystem> current = std::make_shared<TestSystem>();
    const StorageSystemReference ref{std::function<std::shared_ptr<StorageSystem>()>([&] {
        ++calls;
        return current;
    })};

    EXPECT_EQ(vfs::exists(AbsoluteIRI{u"mem://v/"}, ref), ExistenceType::Folder);
    EXPECT_EQ(vfs::exists(AbsoluteIRI{u"mem://v/"}, ref), ExistenceType::Folder);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(current->builds, 2);

    // A different system from the next call on.
    auto previous = std::exchange(current, std::make_shared<TestSystem>());
    ref.shutdown();
    EXPECT_EQ(current->shutdowns, 1);
    EXPECT_EQ(previous->shutdowns, 0);

    current.reset();
    EXPECT_EQ(runtimeErrorFrom([&] { ref.lock(); }), destroyedMessage);
    EXPECT_NO_THROW(ref.shutdown());
}

class CountingDecorator : public vfs::StorageSystemDecorator {
public:
    using StorageSystemDecorator::StorageSystemDecorator;
    mutable int builds = 0;

protected:
    std::shared_ptr<provider::IProvider> buildProvider(const StorageIRI& location) const override
    {
        ++builds;
        return StorageSystemDecorator::buildProvider(location);
    }
};

TEST(StorageSystemDecoratorTest, ForwardsButReportsNoEventManager)
{
    auto wrapped = std::make_shared<TestSystem>();
    wrapped->eventMgr = someEventMgr();
    ASSERT_EQ(Access::getEventMgr(*wrapped), someEventMgr());

    const vfs::StorageSystemDecorator decorator(wrapped);
    EXPECT_EQ(Access::buildProvider(decorator, anywhere), wrapped->faults);
    EXPECT_EQ(wrapped->builds, 1);
    decorator.shutdown();
    EXPECT_EQ(wrapped->shutdowns, 1);
    EXPECT_EQ(Access::getEventMgr(decorator), nullptr);

    // Copies share the wrapped system; a reference to a decorator resolves to the decorator.
    const vfs::StorageSystemDecorator copy(decorator);
    copy.shutdown();
    EXPECT_EQ(wrapped->shutdowns, 2);

    auto counting = std::make_shared<CountingDecorator>(wrapped);
    const StorageSystemReference ref{std::weak_ptr<StorageSystem>(counting)};
    EXPECT_EQ(vfs::exists(AbsoluteIRI{u"mem://v/"}, ref), ExistenceType::Folder);
    EXPECT_EQ(counting->builds, 1);
    EXPECT_EQ(wrapped->builds, 2);
    EXPECT_EQ(Access::getEventMgr(ref), nullptr);
    ref.shutdown();
    EXPECT_EQ(wrapped->shutdowns, 3);
}

// exists() and existsExtended() against the local disk behind a fault-injecting provider.
class ExistsTest : public testing::Test, protected vfs_test::SystemUnderTest<TestSystem> {
protected:
    ExistsTest() : SystemUnderTest(vfs_test::makeSystem<TestSystem>(provider::local::makeLocalProvider())) {}

    void SetUp() override
    {
        dir.writeFile("file.txt", "x");
        dir.makeFolder("folder");
        std::filesystem::create_symlink(dir / "file.txt", dir / "link.txt");
    }

    AbsoluteIRI at(const std::string& relative) const { return vfs::toAbsoluteIRI(u"", dir / relative); }

    vfs_test::TempDir dir;
};

TEST_F(ExistsTest, ProviderResourceNotFoundAnswersNotFound)
{
    const auto file = at("file.txt");
    system->faults->addFault({.operation = ProviderOperation::Exists,
                              .location = vfs::detail::IRIAccess::storageIRI(file),
                              .code = provider::ErrorCode::ResourceNotFound});
    system->faults->addFault({.operation = ProviderOperation::ExistsExtended,
                              .code = provider::ErrorCode::ResourceNotFound});
    EXPECT_EQ(vfs::exists(file, ref), ExistenceType::NotFound);
    EXPECT_EQ(vfs::exists(at("folder"), ref), ExistenceType::Folder);
    EXPECT_EQ(vfs::existsExtended(file, ref), ExistenceTypeExtended::NotFound);
    EXPECT_EQ(vfs::existsExtended(at("folder"), ref), ExistenceTypeExtended::NotFound);
}

TEST_F(ExistsTest, FailuresWhileBuildingTheProvider)
{
    // A provider error is translated like any other.
    system->onBuild = [](const StorageIRI& location) {
        provider::throwProviderError(provider::ErrorCode::InvalidLocation, location, {provider::ExceptionContext(u"build")});
    };
    const auto file = at("file.txt");
    const auto error = vfs_test::thrown<vfs::Exception>([&] { vfs::exists(file, ref); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->getErrorCode(), ErrorCode::InvalidLocation);
    EXPECT_EQ(error->getLocation(), file);
    EXPECT_EQ(error->getExceptionContextsString(), u"build");

    // A scheme the system does not serve passes untouched.
    system->onBuild = [](const StorageIRI& location) {
        foundation::core::except::throwInternal(vfs::UnsupportedIRISchemeException(location.getScheme()));
    };
    vfs_test::inspectThrown<vfs::UnsupportedIRISchemeException>(
        [&] { vfs::exists(AbsoluteIRI{u"http://example.com/a"}, ref); },
        [](const vfs::UnsupportedIRISchemeException& unsupported) { EXPECT_EQ(unsupported.getScheme(), u"http"); });
}

} // namespace
