// What only the memory provider has: volumes named by the authority, a quota, a read-only mode,
// settings, snapshot listings in a fixed order, and a tree that stays whole under many threads.

#include <KitPrelude.hpp>

namespace {

using boost::posix_time::ptime;
using provider::memory::makeMemoryProvider;
using provider::memory::MemoryProviderOptions;
using testing::ElementsAre;
using testing::ElementsAreArray;

ustring number(std::uint64_t value)
{
    return fl::i18n::utf8_to_ustring(std::to_string(value));
}

ptime utcNow()
{
    return boost::posix_time::microsec_clock::universal_time();
}

std::vector<std::string> names(provider::IFolderEntryIterator& it)
{
    return entryNames(remainingEntries(it));
}

class MemoryProviderTest : public testing::Test {
protected:
    StorageIRI at(const ustring& relative) const { return StorageIRI(root, relative); }

    // A file of `size` zero bytes, with the folders on its way.
    StorageIRI file(const ustring& relative, std::uint64_t size = 0) const
    {
        const StorageIRI location = at(relative);
        memory->createFolderRecursive(location.getParent());
        memory->createFile(location);
        if (size)
            memory->truncateToSize(location, size);
        return location;
    }
    std::uint64_t sizeOf(const ustring& relative) const { return memory->getFileAttributes(at(relative)).getSize(); }
    std::vector<std::string> list(const ustring& relative, ListOptions options = {}) const
    {
        return names(*memory->list(at(relative), options));
    }
    std::optional<std::uint64_t> freeBytes() const { return memory->getProviderStorageInfo(root).freeBytes; }
    void configure(const std::string& key, const std::string& value) const
    {
        boost::property_tree::ptree settings;
        settings.put(key, value);
        memory->configure(settings);
    }

    std::shared_ptr<provider::IProvider> memory = makeMemoryProvider();
    const StorageIRI root{u"mem://test/"};
};

TEST_F(MemoryProviderTest, EveryNamedVolumeHasAnEmptyRootFolderOfItsOwn)
{
    for (const ustring volume : {u"mem://a/", u"mem://another-volume/", u"mem://caf%C3%A9/"}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(volume));
        const StorageIRI root(volume);
        EXPECT_EQ(memory->exists(root), ExistenceType::Folder);
        EXPECT_EQ(memory->existsExtended(root), ExistenceTypeExtended::Folder);
        EXPECT_EQ(memory->exists(StorageIRI(root, u"a")), ExistenceType::NotFound);
        EXPECT_FALSE(memory->list(root, {})->hasNext());
        // Suites skip what a provider lacks, so what memory has natively is pinned here.
        for (const auto feature : {ExtendedFeature::RecursiveRemoval, ExtendedFeature::RecursiveListing,
                                   ExtendedFeature::FlatWildcardListing, ExtendedFeature::RecursiveWildcardListing,
                                   ExtendedFeature::RecursiveWatching})
            EXPECT_TRUE(memory->hasFeature(root, feature)) << feature;
    }
    memory->createFile(StorageIRI(u"mem://a/only-here"));
    EXPECT_EQ(memory->exists(StorageIRI(u"mem://a/only-here")), ExistenceType::File);
    EXPECT_EQ(memory->exists(StorageIRI(u"mem://another-volume/only-here")), ExistenceType::NotFound);
    EXPECT_EQ(makeMemoryProvider()->exists(StorageIRI(u"mem://a/only-here")), ExistenceType::NotFound);
}

TEST_F(MemoryProviderTest, RefusalsNameTheReason)
{
    struct Case {
        StorageIRI location;
        const char* reason;
    };
    for (const Case& c : {Case{StorageIRI(u"file:///tmp"), "wrong-scheme"},
                          Case{StorageIRI(u"zip", root, u"/a"), "wrong-scheme"},
                          Case{StorageIRI(u"mem:///a"), "no-volume"},
                          Case{StorageIRI(u"mem://volume"), "no-path"},
                          Case{StorageIRI(root, ustring(u"a\0b", 3)), "nul-in-name"}}) {
        SCOPED_TRACE(text(c.location));
        const auto error = providerError([&] { memory->createFile(c.location); });
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->getErrorCode(), ErrorCode::InvalidLocation);
        EXPECT_THAT(contextKeys(*error), ElementsAre(c.reason));
    }
}

TEST_F(MemoryProviderTest, TransfersOutOfTheProviderAreUnsupportedAndUnknownPoliciesRefused)
{
    const StorageIRI source = file(u"source.txt", 3);
    const StorageIRI onDisk(u"file:///tmp/vfs-memory-test-never-written");
    EXPECT_TRUE(failsWith([&] { memory->moveFile(source, onDisk, ReplacementPolicy::Replace); },
                          ErrorCode::UnsupportedOperation, onDisk, "cross-provider-move"));
    // Another memory provider is other storage, even for the same volume name.
    const auto other = makeMemoryProvider();
    const StorageIRI target = at(u"target.txt");
    EXPECT_EQ(memory->copyFile(source, *other, target, {}), provider::TransactionStatus::Completed);
    EXPECT_EQ(other->getFileAttributes(target).getSize(), 3u);
    EXPECT_EQ(memory->exists(target), ExistenceType::NotFound);

    EXPECT_TRUE(failsWith([&] { memory->moveFile(source, target, static_cast<ReplacementPolicy>(42)); },
                          ErrorCode::InvalidLocation, source, "unknown-policy"));
    EXPECT_EQ(memory->exists(source), ExistenceType::File);
}

TEST_F(MemoryProviderTest, QuotaCountsFileContentOfEveryVolumeAndRefusesGrowthBeyondIt)
{
    memory = makeMemoryProvider(MemoryProviderOptions{100, false});
    const StorageIRI elsewhere(u"mem://elsewhere/b");
    EXPECT_EQ(memory->getProviderStorageInfo(root).capacityBytes, 100u);
    EXPECT_EQ(freeBytes(), 100u);

    file(u"a", 60);
    file(u"folder/empty");
    memory->createFile(elsewhere);
    EXPECT_EQ(freeBytes(), 40u) << "folders and empty files take no space";
    EXPECT_TRUE(failsWith([&] { memory->truncateToSize(elsewhere, 41); }, ErrorCode::NoSpaceLeft, elsewhere, "ENOSPC"));
    EXPECT_EQ(memory->getFileAttributes(elsewhere).getSize(), 0u);
    memory->truncateToSize(elsewhere, 40);
    EXPECT_EQ(freeBytes(), 0u);
    EXPECT_EQ(memory->getProviderStorageInfo(elsewhere).availableBytes, 0u) << "one quota for all volumes";

    // A copy that would not fit leaves no target and keeps what it would have replaced.
    EXPECT_TRUE(failsWith([&] { memory->copyFile(at(u"a"), *memory, at(u"copy"), {}); }, ErrorCode::NoSpaceLeft, at(u"copy")));
    EXPECT_EQ(memory->exists(at(u"copy")), ExistenceType::NotFound);
    CopyFileOptions replace{ReplacementPolicy::Replace, {}};
    EXPECT_TRUE(failsWith([&] { memory->copyFile(at(u"a"), *memory, elsewhere, replace); }, ErrorCode::NoSpaceLeft, elsewhere));
    EXPECT_EQ(memory->getFileAttributes(elsewhere).getSize(), 40u);

    // Replacing by a move releases the target's bytes; shrinking and removing release theirs.
    memory->moveFile(at(u"a"), elsewhere, ReplacementPolicy::Replace);
    EXPECT_EQ(freeBytes(), 40u);
    memory->truncateToSize(elsewhere, 10);
    EXPECT_EQ(freeBytes(), 90u);
    file(u"folder/deeper/big", 50);
    memory->removeFolderRecursively(at(u"folder"));
    EXPECT_EQ(freeBytes(), 90u);

    // A quota below what is stored keeps everything and refuses growth only.
    configure("quotaBytes", "5");
    EXPECT_EQ(memory->getFileAttributes(elsewhere).getSize(), 10u);
    EXPECT_EQ(freeBytes(), 0u);
    memory->truncateToSize(elsewhere, 8);
    EXPECT_TRUE(failsWith([&] { memory->truncateToSize(elsewhere, 9); }, ErrorCode::NoSpaceLeft, elsewhere));

    memory->shutdown();
    EXPECT_EQ(freeBytes(), 5u);
}

// Content a stream holds after its file left the tree stays counted, its growth charged, until its
// last stream goes; so open streams never take the volume past its quota.
TEST_F(MemoryProviderTest, ContentHeldOpenKeepsCountingUntilItsLastStreamGoes)
{
    memory = makeMemoryProvider(MemoryProviderOptions{100, false});
    const StorageIRI a = file(u"a", 30);
    auto writer = memory->openStream(a, {provider::ByteStreamAccess::Write, provider::ByteStreamCreation::OpenExisting, 1, 0});
    auto reader = memory->openReadOnlyStream(a);
    memory->removeFile(a);
    EXPECT_EQ(freeBytes(), 70u);
    const std::string bytes(40, 'x');
    writer->write(bytes.data(), 40);
    EXPECT_EQ(freeBytes(), 30u);
    EXPECT_THROW(writer->write(bytes.data(), 31), provider::ByteStreamWriteFailure);
    writer->close();
    EXPECT_EQ(freeBytes(), 30u) << "the reader still holds the content";
    EXPECT_EQ(reader->seek(0, std::ios_base::end), 70) << "the reader sees the writer's writes";

    // A commit over a file held open needs room beside the old content.
    const StorageIRI b = file(u"b", 20);
    const auto old = memory->openReadOnlyStream(b);
    const auto replacing = memory->openTransactionalStream(b, {provider::ByteStreamAccess::Write,
                                                               provider::ByteStreamCreation::OpenExisting, 0, 1});
    reader.reset();
    EXPECT_EQ(freeBytes(), 80u) << "a stream that goes unclosed gives the space back too";
    replacing->write(bytes.data(), 15);
    file(u"c", 70);
    EXPECT_THROW(replacing->close(provider::StreamClosePolicy::Commit), provider::ByteStreamCloseFailure);
    memory->removeFile(at(u"c"));
    replacing->close(provider::StreamClosePolicy::Commit);
    EXPECT_EQ(freeBytes(), 65u);
    memory->shutdown();
    EXPECT_EQ(freeBytes(), 80u);
    old->close();
    EXPECT_EQ(freeBytes(), 100u);
}

// What read-only refuses is the kit's business (ReadOnlyMemory); here only that the setting switches.
TEST_F(MemoryProviderTest, TheReadOnlySettingSwitchesWritingOffAndOn)
{
    const StorageIRI fresh = at(u"fresh");
    configure("readOnly", "true");
    EXPECT_TRUE(failsWith([&] { memory->createFile(fresh); }, ErrorCode::ReadOnlyProvider, fresh));
    configure("readOnly", "false");
    memory->createFile(fresh);
    EXPECT_EQ(memory->exists(fresh), ExistenceType::File);

    const auto readOnly = makeMemoryProvider(MemoryProviderOptions{100, true});
    EXPECT_TRUE(failsWith([&] { readOnly->createFolder(root); }, ErrorCode::ReadOnlyProvider, root));
}

TEST_F(MemoryProviderTest, ConfigureIsAllOrNothingAndNamesTheRefusedSetting)
{
    struct Case {
        std::string key;
        std::string value;
        const char* named;
    };
    for (const Case& c : {Case{"bogus", "1", "bogus"}, Case{"quota", "1", "quota"}, Case{"quotaBytes", "-1", "quotaBytes"},
                          Case{"quotaBytes", "12x", "quotaBytes"}, Case{"quotaBytes", "", "quotaBytes"},
                          Case{"quotaBytes", " 5", "quotaBytes"}, Case{"quotaBytes", "+5", "quotaBytes"},
                          Case{"quotaBytes", "18446744073709551616", "quotaBytes"},
                          Case{"readOnly", "yes", "readOnly"}, Case{"readOnly", "TRUE", "readOnly"},
                          Case{"readOnly", "", "readOnly"}}) {
        SCOPED_TRACE(c.key + "=" + c.value);
        boost::property_tree::ptree settings;
        settings.put("quotaBytes", "10"); // valid, and must not be applied
        settings.put("readOnly", "true");
        settings.push_back({c.key, boost::property_tree::ptree(c.value)});
        const auto error = providerError([&] { memory->configure(settings); });
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->getErrorCode(), ErrorCode::InvalidLocation);
        EXPECT_THAT(contextKeys(*error), ElementsAre("configure", c.named));
        EXPECT_THAT(fl::i18n::ustring_to_utf8(error->getMessage()), testing::HasSubstr(c.key));
        EXPECT_EQ(memory->getProviderStorageInfo(root).capacityBytes, std::nullopt);
        memory->createFile(at(u"still-writable")); // readOnly was not applied either
        memory->removeFile(at(u"still-writable"));
    }

    boost::property_tree::ptree nested;
    nested.put("quotaBytes.inner", "5");
    EXPECT_TRUE(providerError([&] { memory->configure(nested); }).has_value());

    boost::property_tree::ptree valid;
    valid.put("quotaBytes", "18446744073709551614");
    valid.put("readOnly", "false");
    memory->configure(valid);
    EXPECT_EQ(memory->getProviderStorageInfo(root).capacityBytes, 18446744073709551614u);
    memory->configure(boost::property_tree::ptree());
    EXPECT_EQ(memory->getProviderStorageInfo(root).capacityBytes, 18446744073709551614u);
}

TEST_F(MemoryProviderTest, NonWritableFilesAndFoldersRefuseChanges)
{
    const StorageIRI locked = file(u"locked", 2);
    const StorageIRI other = file(u"other", 5);
    memory->setWritable(locked, false);
    EXPECT_FALSE(memory->getFileAttributes(locked).isWritable());
    EXPECT_TRUE(failsWith([&] { memory->truncateToSize(locked, 0); }, ErrorCode::PermissionDenied, locked, "EACCES"));
    EXPECT_TRUE(failsWith([&] { memory->moveFile(other, locked, ReplacementPolicy::Replace); }, ErrorCode::PermissionDenied, locked));
    EXPECT_TRUE(failsWith([&] { memory->copyFile(other, *memory, locked, {ReplacementPolicy::Replace, {}}); },
                          ErrorCode::PermissionDenied, locked));
    EXPECT_EQ(sizeOf(u"locked"), 2u);
    EXPECT_EQ(sizeOf(u"other"), 5u);
    // A copy takes the writability along; renaming is the folder's business, not the file's.
    memory->copyFile(locked, *memory, at(u"locked-copy"), {});
    EXPECT_FALSE(memory->getFileAttributes(at(u"locked-copy")).isWritable());
    memory->moveFile(locked, at(u"renamed"), ReplacementPolicy::FailIfExists);
    EXPECT_FALSE(memory->getFileAttributes(at(u"renamed")).isWritable());

    const StorageIRI sealed = at(u"outer/sealed");
    file(u"outer/sealed/inside", 4);
    memory->setWritable(sealed, false);
    EXPECT_FALSE(memory->getFolderAttributes(sealed).isWritable());
    const auto before = treeOf(*memory, root);
    const std::vector<std::pair<std::function<void()>, StorageIRI>> refused = {
        {[&] { memory->createFile(at(u"outer/sealed/new")); }, at(u"outer/sealed/new")},
        {[&] { memory->createFolder(at(u"outer/sealed/new")); }, at(u"outer/sealed/new")},
        {[&] { memory->createFolderRecursive(at(u"outer/sealed/new/deeper")); }, at(u"outer/sealed/new/deeper")},
        {[&] { memory->removeFile(at(u"outer/sealed/inside")); }, at(u"outer/sealed/inside")},
        {[&] { memory->moveFile(at(u"outer/sealed/inside"), at(u"out"), ReplacementPolicy::Replace); }, at(u"outer/sealed/inside")},
        {[&] { memory->moveFile(other, at(u"outer/sealed/in"), ReplacementPolicy::Replace); }, at(u"outer/sealed/in")},
        {[&] { memory->copyFile(other, *memory, at(u"outer/sealed/in"), {}); }, at(u"outer/sealed/in")},
        // Removing the tree would empty the sealed folder: nothing at all is removed.
        {[&] { memory->removeFolderRecursively(at(u"outer")); }, sealed},
    };
    for (std::size_t i = 0; i < refused.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_TRUE(failsWith(refused[i].first, ErrorCode::PermissionDenied, refused[i].second, "EACCES"));
    }
    EXPECT_EQ(treeOf(*memory, root), before);

    memory->setWritable(sealed, true);
    memory->removeFolderRecursively(at(u"outer"));
    EXPECT_EQ(memory->exists(at(u"outer")), ExistenceType::NotFound);
}

TEST_F(MemoryProviderTest, TimesFollowCreationAndChangeAndCanBeSet)
{
    const ptime old(boost::gregorian::date(2001, 2, 3), boost::posix_time::hours(4) + boost::posix_time::microseconds(567));
    const ptime before = utcNow();
    const StorageIRI location = file(u"folder/file");
    const ptime after = utcNow();
    EXPECT_GE(memory->getFileAttributes(location).getLastModified(), before);
    EXPECT_LE(memory->getFileAttributes(location).getLastModified(), after);

    memory->setLastModified(location, old);

    // Renaming keeps the file's time and changes the folder's, as on disk.
    memory->moveFile(location, at(u"folder/renamed"), ReplacementPolicy::FailIfExists);
    EXPECT_EQ(memory->getFileAttributes(at(u"folder/renamed")).getLastModified(), old);
    EXPECT_GE(memory->getFolderAttributes(at(u"folder")).getLastModified(), after);

    memory->truncateToSize(at(u"folder/renamed"), 1);
    EXPECT_GE(memory->getFileAttributes(at(u"folder/renamed")).getLastModified(), after);

    memory->setLastModified(at(u"folder/renamed"), old);
    memory->copyFile(at(u"folder/renamed"), *memory, at(u"copy"), {});
    EXPECT_GE(memory->getFileAttributes(at(u"copy")).getLastModified(), after) << "a copy is a new file";

    for (const ptime special : {ptime(boost::posix_time::not_a_date_time), ptime(boost::posix_time::pos_infin)}) {
        EXPECT_TRUE(failsWith([&] { memory->setLastModified(at(u"folder/renamed"), special); }, ErrorCode::InvalidLocation,
                              at(u"folder/renamed"), "not-a-time"));
    }
    EXPECT_EQ(memory->getFileAttributes(at(u"folder/renamed")).getLastModified(), old);
}

TEST_F(MemoryProviderTest, CopyReportsProgressWithNoLockHeldAndCancellingLeavesNothing)
{
    constexpr std::uint64_t size = 3 * (std::uint64_t(1) << 20) + 5;
    memory = makeMemoryProvider(MemoryProviderOptions{size * 4, false});
    const StorageIRI source = file(u"source", size);
    const auto freeBefore = freeBytes();

    // The callback changes the tree: were a provider lock held, it would never return.
    std::vector<std::pair<std::uint64_t, std::uint64_t>> reports;
    CopyFileOptions options;
    options.progress = [&](std::uint64_t copied, std::uint64_t total) {
        reports.emplace_back(copied, total);
        memory->createFile(at(u"made-during-copy-" + number(reports.size())));
        return reports.size() < 2;
    };
    EXPECT_EQ(memory->copyFile(source, *memory, at(u"target"), options), TransactionStatus::NothingDone);
    EXPECT_THAT(reports, ElementsAre(std::pair(std::uint64_t(1) << 20, size), std::pair(std::uint64_t(2) << 20, size)));
    EXPECT_EQ(memory->exists(at(u"target")), ExistenceType::NotFound);
    EXPECT_EQ(freeBytes(), freeBefore);

    // An empty file reports once, as done.
    options.progress = [&](std::uint64_t copied, std::uint64_t total) {
        reports.emplace_back(copied, total);
        return true;
    };
    reports.clear();
    memory->copyFile(file(u"empty"), *memory, at(u"empty-copy"), options);
    EXPECT_THAT(reports, ElementsAre(std::pair(std::uint64_t(0), std::uint64_t(0))));

    // What changed while the callback ran is checked again before the target is put in place.
    options.progress = [&](std::uint64_t, std::uint64_t) {
        if (memory->exists(at(u"raced")) == ExistenceType::NotFound)
            file(u"raced", 1);
        return true;
    };
    EXPECT_TRUE(failsWith([&] { memory->copyFile(source, *memory, at(u"raced"), options); }, ErrorCode::ResourceAlreadyExists,
                          at(u"raced")));
    EXPECT_EQ(sizeOf(u"raced"), 1u);
    // Failed and cancelled copies took no space; a finished one takes its size.
    EXPECT_EQ(freeBytes(), *freeBefore - 1);
    memory->copyFile(source, *memory, at(u"target"), {});
    EXPECT_EQ(freeBytes(), *freeBefore - 1 - size);
}

TEST_F(MemoryProviderTest, ListingsAreSnapshotsInCodeUnitOrder)
{
    for (const ustring name : {u"b", u"B", u"a", u"\u00e9", u"Z", u"_", u".hidden", u"10", u"9"})
        file(u"folder/" + name, 1);
    memory->createFolder(at(u"folder/sub"));
    const std::vector<std::string> expected = {".hidden", "10", "9", "B", "Z", "_", "a", "b", "sub", "\xc3\xa9"};
    EXPECT_THAT(list(u"folder"), ElementsAreArray(expected));

    auto it = memory->list(at(u"folder"), makeListOptions(ListKind::All, true));
    EXPECT_TRUE(providerError([&] { it->current(); }).has_value()) << "no entry before the first next()";
    it->next();
    // Neither the iterator nor its clone sees what happens after the listing was taken.
    memory->removeFolderRecursively(at(u"folder"));
    auto clone = it->clone();
    const std::vector<std::string> rest(expected.begin() + 1, expected.end());
    EXPECT_THAT(names(*it), ElementsAreArray(rest));
    EXPECT_THAT(names(*clone), ElementsAreArray(rest));
    EXPECT_TRUE(providerError([&] { it->next(); }).has_value()) << "no entry past the end";
    EXPECT_TRUE(failsWith([&] { memory->list(at(u"folder"), {}); }, ErrorCode::ResourceNotFound, at(u"folder"), "ENOENT"));

    // Recursive listings keep the order too, folders that do not match the pattern searched.
    for (const ustring path : {u"a/x.txt", u"a/b/y.txt", u"c.txt"})
        file(path, 2);
    EXPECT_THAT(list(u"", makeListOptions(ListKind::All, false, u"*.txt", true)), ElementsAre("a/b/y.txt", "a/x.txt", "c.txt"));
}

TEST_F(MemoryProviderTest, FilesAndFoldersMoveAcrossVolumesButNeverIntoThemselves)
{
    const StorageIRI one(u"mem://one/"), two(u"mem://two/");
    memory->createFile(StorageIRI(one, u"f"));
    memory->truncateToSize(StorageIRI(one, u"f"), 7);
    memory->moveFile(StorageIRI(one, u"f"), StorageIRI(two, u"g"), ReplacementPolicy::FailIfExists);
    EXPECT_EQ(memory->exists(StorageIRI(one, u"f")), ExistenceType::NotFound);
    EXPECT_EQ(memory->getFileAttributes(StorageIRI(two, u"g")).getSize(), 7u);

    memory->createFolderRecursive(StorageIRI(one, u"tree/sub/leaf"));
    memory->copyFile(StorageIRI(two, u"g"), *memory, StorageIRI(one, u"tree/sub/g"), {});
    const auto tree = treeOf(*memory, StorageIRI(one, u"tree"));
    EXPECT_TRUE(failsWith([&] { memory->moveFolder(StorageIRI(one, u"tree"), StorageIRI(one, u"tree/sub/leaf/x"),
                                                   ReplacementPolicy::FailIfExists); },
                          ErrorCode::InvalidLocation, StorageIRI(one, u"tree/sub/leaf/x"), "into-itself"));
    memory->moveFolder(StorageIRI(one, u"tree"), StorageIRI(two, u"tree"), ReplacementPolicy::FailIfExists);
    EXPECT_EQ(treeOf(*memory, StorageIRI(two, u"tree")), tree);
    EXPECT_EQ(memory->exists(StorageIRI(one, u"tree")), ExistenceType::NotFound);

    // A volume's root stays where it is.
    EXPECT_TRUE(failsWith([&] { memory->removeFolder(one); }, ErrorCode::ResourceInUse, one, "EBUSY"));
    EXPECT_TRUE(failsWith([&] { memory->removeFolderRecursively(two); }, ErrorCode::ResourceInUse, two, "EBUSY"));
    EXPECT_TRUE(failsWith([&] { memory->moveFolder(one, StorageIRI(two, u"one"), ReplacementPolicy::FailIfExists); },
                          ErrorCode::ResourceInUse, one, "EBUSY"));
    EXPECT_TRUE(failsWith([&] { memory->moveFolder(StorageIRI(two, u"tree"), one, ReplacementPolicy::Replace); },
                          ErrorCode::ResourceInUse, one, "EBUSY"));
    EXPECT_EQ(treeOf(*memory, StorageIRI(two, u"tree")), tree);
}

TEST_F(MemoryProviderTest, ShutdownEmptiesEveryVolumeAndKeepsTheSettings)
{
    memory = makeMemoryProvider(MemoryProviderOptions{1000, false});
    file(u"a/b", 10);
    memory->createFile(StorageIRI(u"mem://other/c"));
    auto taken = memory->list(root, {});
    memory->shutdown();

    EXPECT_THAT(names(*taken), ElementsAre("a"));
    EXPECT_FALSE(memory->list(root, {})->hasNext());
    EXPECT_EQ(memory->exists(StorageIRI(u"mem://other/c")), ExistenceType::NotFound);
    EXPECT_EQ(freeBytes(), 1000u);
    file(u"again", 1);
    EXPECT_EQ(freeBytes(), 999u);
}

TEST_F(MemoryProviderTest, AttributesAndStorageReportWhatMemoryKnows)
{
    file(u"folder/file", 9);
    provider::ExtendedAttributes expected;
    expected.allocatedBytes = 9;
    EXPECT_EQ(memory->getExtendedAttributes(at(u"folder/file")), expected);
    expected.allocatedBytes = 0;
    EXPECT_EQ(memory->getExtendedAttributes(at(u"folder")), expected);
    const auto info = memory->getProviderStorageInfo(root);
    EXPECT_EQ(info.capacityBytes, std::nullopt) << "no quota, no known capacity";
    EXPECT_EQ(info.freeBytes, std::nullopt);
    EXPECT_EQ(info.description, u"memory volume");
}

TEST_F(MemoryProviderTest, FilesLargerThanTheMachineAreRefused)
{
    const StorageIRI location = file(u"huge");
    EXPECT_TRUE(failsWith([&] { memory->truncateToSize(location, std::uint64_t(1) << 62); }, ErrorCode::FileTooLarge,
                          location, "EFBIG"));
    EXPECT_EQ(sizeOf(u"huge"), 0u);
}

TEST_F(MemoryProviderTest, TreesDeeperThanTheStackCanHoldAreWalkedAndDropped)
{
    // Nested destructors or a recursive walk would need far more stack than a thread has.
    constexpr int depth = 100000;
    ustring path = u"d";
    for (int i = 1; i < depth; ++i)
        path += u"/d";
    memory->createFolderRecursive(at(path));
    memory->createFile(at(path + u"/bottom"));
    memory->truncateToSize(at(path + u"/bottom"), 3);
    EXPECT_EQ(memory->exists(at(path + u"/bottom")), ExistenceType::File);
    memory->removeFolderRecursively(at(u"d"));
    EXPECT_FALSE(memory->list(root, {})->hasNext());

    memory->createFolderRecursive(at(path));
    memory->shutdown();
    EXPECT_FALSE(memory->list(root, {})->hasNext());
}

// Several threads change one tree at once, each in a folder of its own and all together in one
// shared folder, while another lists the whole tree. Afterwards the tree, the quota's count and the
// claims on shared names must be exactly what the operations add up to.
TEST_F(MemoryProviderTest, ConcurrentCreateRemoveMoveAndListKeepTheTreeConsistent)
{
    constexpr std::uint64_t quota = 1 << 20;
    memory = makeMemoryProvider(MemoryProviderOptions{quota, false});
    constexpr int workers = 4;
    constexpr int rounds = 60;
    memory->createFolder(at(u"claims"));

    std::atomic<int> finished{0};
    std::atomic<int> claimed{0};
    std::atomic<int> misordered{0};
    std::atomic<int> listings{0};
    runOnThreads(workers + 1, [&](int index) {
        if (index == workers) {
            ListOptions options;
            options.recursive = true;
            options.withAttributes = true;
            do {
                std::set<ustring> folders;
                for (auto it = memory->list(root, options); it->hasNext();) {
                    it->next();
                    const auto entry = it->current();
                    const auto slash = entry.getName().rfind(u'/');
                    if (slash != ustring::npos && !folders.count(entry.getName().substr(0, slash)))
                        ++misordered;
                    if (!entry.isFile())
                        folders.insert(entry.getName());
                }
                ++listings;
            } while (finished.load() < workers);
            return;
        }
        const ustring own = u"t" + number(index) + u"/";
        for (int r = 0; r < rounds; ++r) {
            const ustring round = own + number(r) + u"/";
            memory->createFolderRecursive(at(round + u"deep"));
            memory->createFile(at(round + u"deep/f"));
            memory->truncateToSize(at(round + u"deep/f"), r % 5 + 1);
            memory->moveFile(at(round + u"deep/f"), at(round + u"g"), ReplacementPolicy::Replace);
            memory->copyFile(at(round + u"g"), *memory, at(round + u"copy"), {});
            memory->moveFolder(at(round + u"deep"), at(round + u"moved"), ReplacementPolicy::FailIfExists);
            if (r % 2) {
                memory->removeFolderRecursively(at(round));
            } else {
                memory->removeFolder(at(round + u"moved"));
                memory->removeFile(at(round + u"copy"));
            }
            try {
                memory->createFile(at(u"claims/" + number(r)));
                ++claimed;
            } catch (const provider::Exception& error) {
                if (error.getErrorCode() != ErrorCode::ResourceAlreadyExists)
                    throw;
            }
            memory->list(at(own), {});
        }
        ++finished;
    });

    std::map<ustring, std::optional<std::uint64_t>> expected;
    std::uint64_t used = 0;
    expected[u"claims"] = std::nullopt;
    for (int r = 0; r < rounds; ++r)
        expected[u"claims/" + number(r)] = 0;
    for (int index = 0; index < workers; ++index) {
        const ustring own = u"t" + number(index);
        expected[own] = std::nullopt;
        for (int r = 0; r < rounds; r += 2) {
            expected[own + u"/" + number(r)] = std::nullopt;
            expected[own + u"/" + number(r) + u"/g"] = r % 5 + 1;
            used += r % 5 + 1;
        }
    }
    EXPECT_EQ(treeOf(*memory, root), expected);
    EXPECT_EQ(claimed.load(), rounds) << "every shared name is claimed exactly once";
    EXPECT_EQ(misordered.load(), 0) << "a listing showed an entry before its folder";
    EXPECT_GT(listings.load(), 0);
    EXPECT_EQ(freeBytes(), quota - used);
}

TEST(MemoryProviderCapabilities, FlushAndInvalidateAreOfferedAndCheckTheirLocation)
{
    const auto memory = makeMemoryProvider();
    auto* flushable = dynamic_cast<provider::extensions::IFlushableFilesystem*>(memory.get());
    auto* invalidatable = dynamic_cast<provider::extensions::IInvalidatable*>(memory.get());
    ASSERT_NE(flushable, nullptr);
    ASSERT_NE(invalidatable, nullptr);
    memory->createFolder(StorageIRI(u"mem://v/a"));
    EXPECT_NO_THROW(flushable->flushFilesystem());
    EXPECT_NO_THROW(invalidatable->invalidate(StorageIRI(u"mem://v/a")));
    EXPECT_EQ(memory->exists(StorageIRI(u"mem://v/a")), ExistenceType::Folder);
    EXPECT_TRUE(failsWith([&] { invalidatable->invalidate(StorageIRI(u"file:///tmp")); }, ErrorCode::InvalidLocation,
                          StorageIRI(u"file:///tmp")));
}

} // namespace
