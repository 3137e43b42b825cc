#include <Prelude.hpp>
#include <ProviderHarness.hpp>

namespace {

using provider::decorators::CallCountingProvider;
using Access = vfs::detail::StorageSystemAccess;

const provider::StorageIRI& storageIRI(const AbsoluteIRI& iri) { return vfs::detail::IRIAccess::storageIRI(iri); }

TEST(DefaultStorageSystemTest, OtherSchemesAreUnsupported)
{
    auto [system, ref] = vfs_test::makeSystem<DefaultStorageSystem>();
    const std::vector<std::pair<ustring, ustring>> foreign = {
        {u"http://example.com/a", u"http"},
        {u"files:///tmp", u"files"},
        {u"MEMORY://v/", u"memory"},
    };
    for (const auto& [text, scheme] : foreign) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(text));
        vfs_test::inspectThrown<vfs::UnsupportedIRISchemeException>(
            [&] { vfs::exists(AbsoluteIRI{text}, ref); }, [&](const vfs::UnsupportedIRISchemeException& error) {
                EXPECT_EQ(error.getScheme(), scheme);
                EXPECT_NE(dynamic_cast<const foundation::core::except::IInternalException*>(&error), nullptr);
            });
    }
}

// Records every decoration and hands out providers that count calls.
struct Decorations {
    std::mutex mutex;
    std::map<ustring, int> calls;
    std::map<ustring, std::shared_ptr<CallCountingProvider>> counters;

    vfs::DefaultStorageSystemOptions options()
    {
        vfs::DefaultStorageSystemOptions options;
        options.decorateProvider = [this](const ustring& scheme, std::shared_ptr<provider::IProvider> built) {
            std::lock_guard lock(mutex);
            ++calls[scheme];
            auto counting = std::make_shared<CallCountingProvider>(std::move(built));
            counters[scheme] = counting;
            return std::shared_ptr<provider::IProvider>(counting);
        };
        return options;
    }
};

TEST(DefaultStorageSystemTest, ServesLocalDiskAndMemoryThroughOneDecoratedProviderPerScheme)
{
    const vfs_test::TempDir dir;
    dir.writeFile("file.txt", "x");
    dir.makeFolder("folder");
    Decorations decorations;
    auto [system, ref] = vfs_test::makeSystem<DefaultStorageSystem>(decorations.options());
    const AbsoluteIRI file = vfs::toAbsoluteIRI(u"", dir / "file.txt");

    EXPECT_TRUE(decorations.calls.empty()) << "providers are built on first use";
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(vfs::exists(file, ref), ExistenceType::File);
    EXPECT_EQ(vfs::exists(vfs::toAbsoluteIRI(u"", dir / "folder"), ref), ExistenceType::Folder);
    EXPECT_EQ(vfs::existsExtended(vfs::toAbsoluteIRI(u"", dir / "missing"), ref), ExistenceTypeExtended::NotFound);
    EXPECT_EQ(vfs::existsExtended(AbsoluteIRI{u"mem://volume/"}, ref), ExistenceTypeExtended::Folder);
    EXPECT_EQ(decorations.calls, (std::map<ustring, int>{{u"file", 1}, {u"mem", 1}}));
    const auto& fileCounter = *decorations.counters.at(u"file");
    EXPECT_EQ(fileCounter.count(ProviderOperation::Exists, storageIRI(file)), 3u);
    EXPECT_EQ(fileCounter.count(ProviderOperation::ExistsExtended), 1u);

    // One provider per scheme, built once and shared.
    const auto local = Access::buildProvider(*system, storageIRI(AbsoluteIRI{u"file:///"}));
    const auto memory = Access::buildProvider(*system, storageIRI(AbsoluteIRI{u"mem://a/"}));
    EXPECT_NE(local, memory);
    EXPECT_EQ(Access::buildProvider(*system, storageIRI(AbsoluteIRI{u"FILE://localhost/tmp"})), local);
    EXPECT_EQ(Access::buildProvider(*system, storageIRI(AbsoluteIRI{u"mem://b/x"})), memory);
    // Another system has memory volumes of its own, even of the same names.
    EXPECT_NE(Access::buildProvider(*std::make_shared<DefaultStorageSystem>(), storageIRI(AbsoluteIRI{u"mem://a/"})), memory);
}

TEST(DefaultStorageSystemTest, AfterShutdownOperationsFailWithUnsupportedOperation)
{
    Decorations decorations;
    auto [system, ref] = vfs_test::makeSystem<DefaultStorageSystem>(decorations.options());
    EXPECT_EQ(vfs::exists(AbsoluteIRI{u"mem://v/"}, ref), ExistenceType::Folder);

    ref.shutdown();
    for (const ustring text : {u"mem://v/", u"file:///tmp"}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(text));
        const AbsoluteIRI location{text};
        const auto error = vfs_test::thrown<vfs::Exception>([&] { vfs::exists(location, ref); });
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->getErrorCode(), ErrorCode::UnsupportedOperation);
        EXPECT_EQ(error->getLocation(), location);
        EXPECT_FALSE(error->getExceptionContextsString().empty());
    }
    // Nothing is rebuilt after shutdown, and shutting down again is harmless.
    EXPECT_EQ(decorations.calls, (std::map<ustring, int>{{u"mem", 1}}));
    EXPECT_NO_THROW(system->shutdown());
    // Schemes are still checked first.
    EXPECT_THROW(vfs::exists(AbsoluteIRI{u"http://example.com/"}, ref), vfs::UnsupportedIRISchemeException);
}

TEST(DefaultStorageSystemTest, ConcurrentExistsFromSeveralThreadsSharesOneProviderPerScheme)
{
    const vfs_test::TempDir dir;
    dir.writeFile("file.txt");
    dir.makeFolder("folder");
    Decorations decorations;
    auto [system, ref] = vfs_test::makeSystem<DefaultStorageSystem>(decorations.options());

    struct Probe {
        AbsoluteIRI location;
        ExistenceType expected;
    };
    const std::vector<Probe> probes = {
        {vfs::toAbsoluteIRI(u"", dir / "file.txt"), ExistenceType::File},
        {vfs::toAbsoluteIRI(u"", dir / "folder"), ExistenceType::Folder},
        {vfs::toAbsoluteIRI(u"", dir / "missing"), ExistenceType::NotFound},
        {AbsoluteIRI{u"mem://v/"}, ExistenceType::Folder},
        {AbsoluteIRI{u"mem://v/missing"}, ExistenceType::NotFound},
    };
    constexpr int threads = 4;
    constexpr int rounds = 100;
    std::atomic<int> wrong{0};
    std::atomic<int> failed{0};
    vfs_test::runOnThreads(threads, [&](int t) {
        // Each thread starts on another probe, so that both schemes are first built concurrently.
        for (int r = 0; r < rounds; ++r)
            for (std::size_t p = 0; p < probes.size(); ++p) {
                const auto& probe = probes[(p + static_cast<std::size_t>(t)) % probes.size()];
                try {
                    if (vfs::exists(probe.location, ref) != probe.expected)
                        ++wrong;
                } catch (...) {
                    ++failed;
                }
            }
    });

    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(decorations.calls, (std::map<ustring, int>{{u"file", 1}, {u"mem", 1}}));
    EXPECT_EQ(decorations.counters.at(u"file")->count(ProviderOperation::Exists), 3u * threads * rounds);
    EXPECT_EQ(decorations.counters.at(u"mem")->count(ProviderOperation::Exists), 2u * threads * rounds);
}

TEST(DefaultStorageSystemTest, ApplicationsRegisterSchemesWhoseProvidersReachOtherStorageThroughTheResolver)
{
    auto [system, ref] = vfs_test::makeSystem<DefaultStorageSystem>();
    provider::ProviderResolver resolve;
    system->registerScheme(u"Box", [&resolve](const provider::ProviderContext& context) {
        resolve = context.resolve;
        return provider::memory::makeMemoryProvider({.scheme = u"box"});
    });
    for (const ustring refused : {u"mem", u"BOX", u"", u"1x", u"a b"}) // taken, or not a scheme name
        EXPECT_THROW(system->registerScheme(refused, [](auto&) { return nullptr; }), std::invalid_argument);
    auto builtIn = std::make_shared<DefaultStorageSystem>()->schemes(); // file, mem, and those built in
    builtIn.insert(builtIn.begin(), u"box");
    EXPECT_EQ(system->schemes(), builtIn);

    const vfs::Folder box(AbsoluteIRI{u"box://v/"}, ref);
    vfs::File(box, u"made.txt").createFile();
    EXPECT_EQ(vfs::exists(AbsoluteIRI{u"box://v/made.txt"}, ref), ExistenceType::File);
    ASSERT_TRUE(resolve);

    // A nested location reads its container through the container's own provider.
    const auto memory = Access::buildProvider(*system, storageIRI(AbsoluteIRI{u"mem://v/"}));
    EXPECT_EQ(resolve(provider::StorageIRI(u"mem://v/c.bin")), memory);
    memory->createFolder(provider::StorageIRI(u"mem://v/folder"));
    memory->openStream(provider::StorageIRI(u"mem://v/c.bin"), {})->write("abc", 3);
    char bytes[4] = {};
    EXPECT_EQ(provider::openContainer(resolve, provider::StorageIRI(u"box", provider::StorageIRI(u"mem://v/c.bin"), u"/x"))->read(bytes, 4), 3);
    EXPECT_STREQ(bytes, "abc");
    for (const ustring container : {u"mem://v/missing.bin", u"mem://v/folder"}) {
        const provider::StorageIRI inner(container);
        const auto error = vfs_test::providerError([&] { provider::openContainer(resolve, provider::StorageIRI(u"box", inner, u"/x")); });
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->getErrorCode(), provider::ErrorCode::ResourceNotFound);
        EXPECT_TRUE(error->getStorageIRI() == inner);
    }

    // Settings reach the scheme's provider; a refused one is the library's error.
    boost::property_tree::ptree settings;
    settings.put("quotaBytes", "2");
    system->configure(u"MEM", settings);
    EXPECT_EQ(memory->getProviderStorageInfo(provider::StorageIRI(u"mem://v/")).capacityBytes, 2u);
    settings.put("no-such-setting", "1");
    vfs_test::inspectThrown<vfs::Exception>([&] { system->configure(u"mem", settings); },
                                            [](const vfs::Exception& error) { EXPECT_EQ(error.getErrorCode(), ErrorCode::InvalidLocation); });
    EXPECT_THROW(system->configure(u"nope", settings), vfs::UnsupportedIRISchemeException);
}

} // namespace
