#include <Prelude.hpp>

namespace {

using boost::property_tree::ptree;
using vfs::DefaultStorageSystemOptions;

constexpr auto codeOf = [](auto&& call) { return vfs_test::libraryErrorOf(call); };

// A provider that has both optional capabilities, over a real memory provider: records what it is
// asked, and fails with `failWith` when set.
class CapableProvider : public provider::decorators::ProviderDecorator {
public:
    using ProviderDecorator::ProviderDecorator;
    using ProviderDecorator::flushFilesystem;

    void invalidate(const StorageIRI& location) override
    {
        std::lock_guard lock(mutex);
        invalidated.push_back(location);
        failIfAsked(location);
    }
    void flushFilesystem() override
    {
        std::lock_guard lock(mutex);
        ++flushes;
        failIfAsked(StorageIRI(u"mem://flushed/"));
    }
    void doConfigure(const ptree& settings) const override
    {
        std::lock_guard lock(mutex);
        configured.push_back(settings);
    }

    mutable std::mutex mutex;
    std::vector<StorageIRI> invalidated;
    int flushes = 0;
    mutable std::vector<ptree> configured;
    std::optional<provider::ErrorCode> failWith;

private:
    void failIfAsked(const StorageIRI& location) const
    {
        if (failWith)
            provider::throwProviderError(*failWith, location, {provider::ExceptionContext(u"asked-to-fail")});
    }
};

// A DefaultStorageSystem whose providers are wrapped in CapableProvider; `capable` is the last one
// built.
struct CapableSystem {
    DefaultStorageSystemOptions options()
    {
        DefaultStorageSystemOptions options;
        options.decorateProvider = [this](const ustring&, std::shared_ptr<provider::IProvider> built) {
            capable = std::make_shared<CapableProvider>(std::move(built));
            // A plain decorator on top must pass both capabilities through to the capable provider.
            return std::make_shared<provider::decorators::CallCountingProvider>(capable);
        };
        return options;
    }

    std::shared_ptr<CapableProvider> capable;
    vfs_test::SystemUnderTest<DefaultStorageSystem> sut = vfs_test::makeSystem<DefaultStorageSystem>(options());
};

TEST(ConfigureProviderTest, HandsTheProviderATreeWithDottedKeysAsPaths)
{
    CapableSystem system;
    Folder folder(AbsoluteIRI(u"mem://v/"), system.sut.ref);

    vfs::configureProvider(folder, {});
    vfs::configureProvider(folder, {{"x.y", "1"}, {"x.z", "2"}, {"x", "top"}, {"a", "3"}, {"b.c.d", "4"}});

    ASSERT_EQ(system.capable->configured.size(), 2u);
    const ptree& empty = system.capable->configured[0];
    EXPECT_TRUE(empty.empty());
    EXPECT_TRUE(empty.data().empty());

    const ptree& tree = system.capable->configured[1];
    EXPECT_EQ(tree.size(), 3u); // a, b, x: keys sharing a first segment share its node
    EXPECT_EQ(tree.count("x"), 1u);
    EXPECT_EQ(tree.get_child("x").data(), "top");
    EXPECT_EQ(tree.get_child("x").size(), 2u);
    EXPECT_EQ(tree.get<std::string>("x.y"), "1");
    EXPECT_EQ(tree.get<std::string>("x.z"), "2");
    EXPECT_EQ(tree.get<std::string>("a"), "3");
    EXPECT_EQ(tree.get<std::string>("b.c.d"), "4");
    EXPECT_TRUE(tree.get_child("b").data().empty());
}

// What each setting does is the provider's; here that one takes effect, and that refusals arrive as
// the library's errors naming the folder whose provider refused them.
TEST(ConfigureProviderTest, SettingsTakeEffectAndRefusalsArriveAsExceptions)
{
    auto [system, ref] = vfs_test::makeSystem<DefaultStorageSystem>();
    Folder memory(AbsoluteIRI(u"mem://v/"), ref);
    vfs::configureProvider(memory, {{"readOnly", "true"}});
    EXPECT_EQ(codeOf([&] { Folder(memory, u"a").createFolder(); }), ErrorCode::ReadOnlyProvider);

    const auto refused = [&](Folder& folder, std::map<std::string, std::string> settings) {
        return vfs_test::inspectThrown<vfs::Exception>(
            [&] { vfs::configureProvider(folder, std::move(settings)); },
            [](const vfs::Exception& error) { return std::make_pair(error.getErrorCode(), error.getLocation().toString()); });
    };
    EXPECT_EQ(refused(memory, {{"bogus", "1"}}), std::make_pair(ErrorCode::InvalidLocation, memory.getLocation().toString()));
    const vfs_test::TempDir dir;
    Folder disk(vfs::toAbsoluteIRI(u"", dir.path()), ref);
    EXPECT_EQ(refused(disk, {{"anything", "1"}}), std::make_pair(ErrorCode::InvalidLocation, disk.getLocation().toString()));
}

TEST(ShutdownProviderTest, MemoryProviderDropsItsContent)
{
    auto [system, ref] = vfs_test::makeSystem<DefaultStorageSystem>();
    Folder volume(AbsoluteIRI(u"mem://v/"), ref);
    const Folder a(volume, u"a");
    a.createFolder();
    vfs::shutdownProvider(volume);
    EXPECT_FALSE(a.folderExists());
    EXPECT_TRUE(volume.folderExists());
}

TEST(StorageInfoTest, ReportsTheProvidersSpace)
{
    DefaultStorageSystemOptions options;
    options.memory.quotaBytes = 1000;
    auto [system, ref] = vfs_test::makeSystem<DefaultStorageSystem>(options);
    const Folder volume(AbsoluteIRI(u"mem://v/"), ref);
    const vfs::File file(volume, u"f");
    file.createFile();
    file.truncateToSize(300);

    const auto memory = vfs::getStorageInfo(volume);
    EXPECT_EQ(memory.capacityBytes, 1000u);
    EXPECT_EQ(memory.freeBytes, 700u);
    EXPECT_FALSE(memory.description.empty());

    const vfs_test::TempDir dir;
    const auto disk = vfs::getStorageInfo(Folder(vfs::toAbsoluteIRI(u"", dir.path()), ref));
    ASSERT_TRUE(disk.capacityBytes.has_value());
    EXPECT_GT(*disk.capacityBytes, 0u);

    EXPECT_EQ(codeOf([&] { vfs::getStorageInfo(Folder(vfs::toAbsoluteIRI(u"", dir / "missing"), ref)); }),
              ErrorCode::ResourceNotFound);
}

TEST(OptionalCapabilityTest, ReachesAProviderThatHasThemAndTranslatesItsFailures)
{
    CapableSystem system;
    const Folder folder(AbsoluteIRI(u"mem://v/some/folder"), system.sut.ref);

    vfs::invalidateFolder(folder);
    vfs::extensions::flushFilesystem(AbsoluteIRI(u"mem://other/x"), system.sut.ref);
    EXPECT_EQ(system.capable->invalidated, std::vector<StorageIRI>{StorageIRI(u"mem://v/some/folder")});
    EXPECT_EQ(system.capable->flushes, 1);

    system.capable->failWith = provider::ErrorCode::IOError;
    EXPECT_EQ(codeOf([&] { vfs::invalidateFolder(folder); }), ErrorCode::IOError);
    system.capable->failWith = provider::ErrorCode::ReadOnlyProvider;
    EXPECT_EQ(codeOf([&] { vfs::extensions::flushFilesystem(AbsoluteIRI(u"mem://v/"), system.sut.ref); }),
              ErrorCode::ReadOnlyProvider);
    EXPECT_EQ(system.capable->flushes, 2);
}

TEST(OptionalCapabilityTest, ProvidersWithoutThemAreLeftAlone)
{
    auto [system, ref] = vfs_test::makeSystem<DefaultStorageSystem>();
    const vfs_test::TempDir dir;
    // Neither provider caches anything to invalidate; flushing memory has nothing to do.
    EXPECT_NO_THROW(vfs::invalidateFolder(Folder(AbsoluteIRI(u"mem://v/missing"), ref)));
    EXPECT_NO_THROW(vfs::extensions::flushFilesystem(AbsoluteIRI(u"mem://v/missing"), ref));
    EXPECT_NO_THROW(vfs::invalidateFolder(Folder(vfs::toAbsoluteIRI(u"", dir.path()), ref)));
    EXPECT_NO_THROW(vfs::extensions::flushFilesystem(vfs::toAbsoluteIRI(u"", dir.path()), ref));
}

TEST(OptionalCapabilityTest, StorageSystemThatHasGoneFails)
{
    auto system = std::make_unique<CapableSystem>();
    const vfs::StorageSystemReference ref = system->sut.ref;
    const Folder folder(AbsoluteIRI(u"mem://v/"), ref);
    system.reset();

    const auto message = [](auto call) { return vfs_test::whatOf<std::runtime_error>(call); };
    EXPECT_EQ(message([&] { vfs::invalidateFolder(folder); }), "StorageSystem has been destroyed");
    EXPECT_EQ(message([&] { vfs::extensions::flushFilesystem(AbsoluteIRI(u"mem://v/"), ref); }),
              "StorageSystem has been destroyed");
}

} // namespace
