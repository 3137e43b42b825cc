// The behaviour every provider owes the library, run against each provider in allProviders():
// existence, refusal of locations it does not serve, thread safety and the storage-wide operations.
// Files and folders, moves and copies, and listings have suites of their own beside this one.

#include <KitPrelude.hpp>

namespace {

using provider::CaseModifier;
using provider::FilenameSensitivity;

class ProviderConformance : public ProviderTest {};

TEST_P(ProviderConformance, ExistenceQueriesAgreeOnEveryKindOfLocation)
{
    const StorageIRI file = makeFile(u"folder/plain.txt");
    struct Case {
        StorageIRI location;
        ExistenceType kind;
    };
    const Case cases[] = {
        {root, ExistenceType::Folder},
        {below(u"folder"), ExistenceType::Folder},
        {file, ExistenceType::File},
        {below(u"missing"), ExistenceType::NotFound},
        {below(u"missing/deeper/still"), ExistenceType::NotFound},
        {below(u"folder/plain.tx"), ExistenceType::NotFound},
        {StorageIRI(file, u"child"), ExistenceType::NotFound},
        {StorageIRI(file, u"child/grandchild"), ExistenceType::NotFound},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(text(c.location));
        EXPECT_EQ(provider->exists(c.location), c.kind);
        const auto extended = c.kind == ExistenceType::File     ? ExistenceTypeExtended::File
                              : c.kind == ExistenceType::Folder ? ExistenceTypeExtended::Folder
                                                                : ExistenceTypeExtended::NotFound;
        EXPECT_EQ(provider->existsExtended(c.location), extended);
        EXPECT_EQ(provider->fileExists(c.location), c.kind == ExistenceType::File);
        EXPECT_EQ(provider->folderExists(c.location), c.kind == ExistenceType::Folder);
    }
}

TEST_P(ProviderConformance, AReadOnlyStorageRefusesEveryChangeAndStillReads)
{
    VFS_SKIP_UNLESS(!writable(), "a writable storage");
    const StorageIRI existing = makeFile(u"folder/file.txt", 3);
    const StorageIRI empty = makeFolder(u"empty");
    const auto before = tree();
    const auto attributes = provider->getFileAttributes(existing);
    const StorageIRI fresh = below(u"fresh");
    const std::vector<std::pair<std::function<void()>, StorageIRI>> changes = {
        {[&] { provider->createFile(fresh); }, fresh},
        {[&] { provider->createFolder(fresh); }, fresh},
        {[&] { provider->createFolderRecursive(below(u"fresh/deeper")); }, below(u"fresh/deeper")},
        {[&] { provider->removeFile(existing); }, existing},
        {[&] { provider->removeFolder(empty); }, empty},
        {[&] { provider->removeFolderRecursively(below(u"folder")); }, below(u"folder")},
        {[&] { provider->truncateToSize(existing, 1); }, existing},
        {[&] { provider->setWritable(existing, false); }, existing},
        {[&] { provider->setLastModified(existing, boost::posix_time::ptime(boost::gregorian::date(2000, 1, 1))); }, existing},
        {[&] { provider->moveFile(existing, fresh, provider::ReplacementPolicy::FailIfExists); }, existing},
        {[&] { provider->moveFolder(empty, fresh, provider::ReplacementPolicy::FailIfExists); }, empty},
        {[&] { provider->copyFile(existing, *provider, fresh, {}); }, fresh},
        {[&] { provider->openStream(existing, {}); }, existing},
        {[&] { provider->openTransactionalStream(fresh, {}); }, fresh},
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_TRUE(failsWith(changes[i].first, ErrorCode::ReadOnlyProvider, changes[i].second));
    }
    EXPECT_EQ(tree(), before);
    EXPECT_EQ(provider->getFileAttributes(existing), attributes);
    provider->createFolderRecursive(below(u"folder")); // already there: nothing to change
    provider->flushFilesystem(existing);
    EXPECT_EQ(provider->openReadOnlyStream(existing)->read(std::array<char, 8>{}.data(), 8), 3);
}

TEST_P(ProviderConformance, NamesWithSpacesEscapesAndNonAsciiReachTheResource)
{
    // The provider must use the decoded path, not the IRI text, to find the resource.
    for (const ustring name : {u"with space.txt", u"per%cent 100%.txt", u"hash#and?query!.txt", u"caf\u00e9 \u65e5\u672c.txt"}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(name));
        const StorageIRI file = makeFile(name);
        EXPECT_EQ(provider->exists(file), ExistenceType::File);
        EXPECT_EQ(provider->exists(StorageIRI(file.toString())), ExistenceType::File) << text(file);
        EXPECT_EQ(provider->exists(StorageIRI(file.toAsciiString())), ExistenceType::File) << text(file);
    }
}

TEST_P(ProviderConformance, EveryOperationRefusesLocationsItDoesNotServeWithInvalidLocation)
{
    auto locations = foreignLocations(root);
    for (auto& location : harness->malformedLocations())
        locations.push_back(location);
    const StorageIRI target = below(u"target");
    const bool recursiveRemoval = hasFeature(ExtendedFeature::RecursiveRemoval);

    for (const auto& location : locations) {
        SCOPED_TRACE(text(location));
        std::vector<std::pair<const char*, std::function<void()>>> calls = {
            {"exists", [&] { provider->exists(location); }},
            {"existsExtended", [&] { provider->existsExtended(location); }},
            {"hasFeature", [&] { provider->hasFeature(location, ExtendedFeature::RecursiveListing); }},
            {"fileExists", [&] { provider->fileExists(location); }},
            {"folderExists", [&] { provider->folderExists(location); }},
            {"getCanonicalLocation", [&] { provider->getCanonicalLocation(location); }},
            {"getFileAttributes", [&] { provider->getFileAttributes(location); }},
            {"getFolderAttributes", [&] { provider->getFolderAttributes(location); }},
            {"getExtendedAttributes", [&] { provider->getExtendedAttributes(location); }},
            {"setLastModified", [&] { provider->setLastModified(location, boost::posix_time::from_time_t(0)); }},
            {"setWritable", [&] { provider->setWritable(location, false); }},
            {"truncateToSize", [&] { provider->truncateToSize(location, 1); }},
            {"createFile", [&] { provider->createFile(location); }},
            {"removeFile", [&] { provider->removeFile(location); }},
            {"createFolder", [&] { provider->createFolder(location); }},
            {"createFolderRecursive", [&] { provider->createFolderRecursive(location); }},
            {"removeFolder", [&] { provider->removeFolder(location); }},
            {"moveFile", [&] { provider->moveFile(location, target, provider::ReplacementPolicy::Replace); }},
            {"moveFolder", [&] { provider->moveFolder(location, target, provider::ReplacementPolicy::Replace); }},
            {"copyFile", [&] { provider->copyFile(location, *provider, target, {}); }},
            {"list", [&] { provider->list(location, {}); }},
            {"flushFilesystem", [&] { provider->flushFilesystem(location); }},
            {"getFilenameSensitivity", [&] { provider->getFilenameSensitivity(location); }},
            {"getPathComparator", [&] { provider->getPathComparator(location); }},
            {"getProviderStorageInfo", [&] { provider->getProviderStorageInfo(location); }},
        };
        if (recursiveRemoval)
            calls.emplace_back("removeFolderRecursively", [&] { provider->removeFolderRecursively(location); });
        for (const auto& [name, call] : calls) {
            SCOPED_TRACE(name);
            const auto error = providerError(call);
            ASSERT_TRUE(error.has_value());
            EXPECT_EQ(error->getErrorCode(), ErrorCode::InvalidLocation);
            EXPECT_TRUE(error->getStorageIRI() == location) << text(error->getStorageIRI());
            EXPECT_FALSE(error->getAllExceptionContexts().empty()) << "the refusal must say why";
        }
    }
    EXPECT_TRUE(tree().empty());
}

TEST_P(ProviderConformance, ConcurrentCreationsOfOneNameHaveExactlyOneWinner)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    constexpr int threadCount = 4;
    constexpr int names = 40;
    std::atomic<int> created[names] = {};
    std::atomic<int> unexpected{0};
    runOnThreads(threadCount, [&](int thread) {
        for (int i = 0; i < names; ++i) {
            const StorageIRI location = below(u"n" + fl::i18n::utf8_to_ustring(std::to_string(i)));
            try {
                // Half the threads race for a file, half for a folder, under the same name.
                if (thread % 2 == 0)
                    provider->createFile(location);
                else
                    provider->createFolder(location);
                ++created[i];
            } catch (const provider::Exception& error) {
                if (error.getErrorCode() != ErrorCode::ResourceAlreadyExists || !(error.getStorageIRI() == location))
                    ++unexpected;
            } catch (...) {
                ++unexpected;
            }
        }
    });
    EXPECT_EQ(unexpected.load(), 0);
    for (int i = 0; i < names; ++i)
        EXPECT_EQ(created[i].load(), 1) << "name " << i;
    EXPECT_EQ(tree().size(), std::size_t(names));
}

TEST_P(ProviderConformance, GetCanonicalLocationNamesAnExistingLocationStably)
{
    const StorageIRI canonicalRoot = provider->getCanonicalLocation(root);
    EXPECT_EQ(provider->exists(canonicalRoot), ExistenceType::Folder);
    EXPECT_TRUE(provider->getCanonicalLocation(canonicalRoot) == canonicalRoot);

    const StorageIRI file = makeFile(u"folder/file.txt");
    EXPECT_TRUE(provider->getCanonicalLocation(file) == StorageIRI(canonicalRoot, u"folder/file.txt"))
        << text(provider->getCanonicalLocation(file));
    EXPECT_TRUE(provider->getCanonicalLocation(below(u"folder")) == StorageIRI(canonicalRoot, u"folder"));

    for (const StorageIRI& missing : {below(u"missing"), StorageIRI(file, u"below")}) {
        SCOPED_TRACE(text(missing));
        EXPECT_TRUE(failsWith([&] { provider->getCanonicalLocation(missing); }, ErrorCode::ResourceNotFound, missing));
    }
}

TEST_P(ProviderConformance, CreationHonoursTheReportedFilenameSensitivity)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    makeFile(u"Name.txt");
    if (provider->getFilenameSensitivity(root) == FilenameSensitivity::CaseSensitive) {
        provider->createFile(below(u"name.txt"));
        EXPECT_EQ(tree().size(), 2u);
    } else {
        EXPECT_TRUE(failsWith([&] { provider->createFile(below(u"name.txt")); }, ErrorCode::ResourceAlreadyExists,
                              below(u"name.txt")));
        EXPECT_EQ(provider->exists(below(u"NAME.TXT")), ExistenceType::File);
    }
}

TEST_P(ProviderConformance, PathComparatorOrdersByCodeUnitsFoldingAsciiCaseOnlyWhenAsked)
{
    const auto less = provider->getPathComparator(root);
    ASSERT_TRUE(less);
    const bool storageInsensitive = provider->getFilenameSensitivity(root) == FilenameSensitivity::CaseInsensitive;

    struct Case {
        const char16_t* first;
        const char16_t* second;
        bool sensitiveLess;   // first orders before second, case kept
        bool insensitiveLess; // first orders before second, ASCII case folded
    };
    const Case cases[] = {
        {u"/a", u"/b", true, true},
        {u"/a", u"/a", false, false},
        {u"/a", u"/a/b", true, true},
        {u"/B", u"/a", true, false},
        {u"/a", u"/B", false, true},
        {u"/ABC", u"/abc", true, false},
        {u"/abc", u"/ABC", false, false},
        {u"/Z/x", u"/a/x", true, false},
        {u"/\u00c9", u"/\u00e9", true, true},                   // only ASCII letters fold
        {u"/\U0001F600", u"/\uFF21", true, true},               // code units, not code points
        {u"/a/b", u"/a-b", false, false},                       // '/' (0x2F) after '-' (0x2D)
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(ustring(c.first) + u" < " + c.second));
        EXPECT_EQ(less(c.first, c.second, CaseModifier::ForceCaseSensitive), c.sensitiveLess);
        EXPECT_EQ(less(c.first, c.second, CaseModifier::ForceCaseInsensitive), c.insensitiveLess);
        EXPECT_EQ(less(c.first, c.second, CaseModifier::AsStorage),
                  storageInsensitive ? c.insensitiveLess : c.sensitiveLess);
    }
}

TEST_P(ProviderConformance, StorageInfoIsConsistent)
{
    const auto info = provider->getProviderStorageInfo(root);
    EXPECT_FALSE(info.description.empty());
    if (info.capacityBytes && info.freeBytes) {
        EXPECT_LE(*info.freeBytes, *info.capacityBytes);
    }
    if (info.freeBytes && info.availableBytes) {
        EXPECT_LE(*info.availableBytes, *info.freeBytes);
    }
    const StorageIRI file = makeFile(u"file.txt");
    EXPECT_NO_THROW(provider->getProviderStorageInfo(file));
}

TEST_P(ProviderConformance, FlushFilesystemAcceptsAnExistingFolderAndRefusesAMissingOne)
{
    makeFile(u"folder/file.txt", 10);
    EXPECT_NO_THROW(provider->flushFilesystem(root));
    EXPECT_NO_THROW(provider->flushFilesystem(below(u"folder")));
    EXPECT_TRUE(failsWith([&] { provider->flushFilesystem(below(u"missing")); }, ErrorCode::ResourceNotFound,
                          below(u"missing")));
}

INSTANTIATE_TEST_SUITE_P(Providers, ProviderConformance, testing::ValuesIn(allProviders()), providerName);

} // namespace
