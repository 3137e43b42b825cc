// Creating, removing and describing files and folders, as every provider must.

#include <KitPrelude.hpp>

namespace {

class FileAndFolderConformance : public ProviderTest {};

pt::ptime utc(int year, int month, int day, int hour, int minute, int second, int microsecond)
{
    return pt::ptime(boost::gregorian::date(year, month, day),
                     pt::hours(hour) + pt::minutes(minute) + pt::seconds(second) + pt::microseconds(microsecond));
}

TEST_P(FileAndFolderConformance, CreationMakesAnEmptyWritableFileOrFolderThatRemovalTakesAway)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI file = below(u"new.txt");
    const StorageIRI folder = below(u"new");
    provider->createFile(file);
    provider->createFolder(folder);
    EXPECT_EQ(provider->exists(file), ExistenceType::File);
    EXPECT_EQ(provider->getFileAttributes(file).getSize(), 0u);
    EXPECT_TRUE(provider->getFileAttributes(file).isWritable());
    EXPECT_EQ(provider->exists(folder), ExistenceType::Folder);
    EXPECT_TRUE(provider->getFolderAttributes(folder).isWritable());
    EXPECT_FALSE(provider->list(folder, {})->hasNext());

    provider->removeFile(file);
    provider->removeFolder(folder);
    EXPECT_EQ(provider->exists(root), ExistenceType::Folder);
    EXPECT_TRUE(tree().empty());
}

TEST_P(FileAndFolderConformance, CreateFolderRecursiveCreatesMissingAncestorsAndAcceptsAnExistingFolder)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    makeFile(u"a/kept.txt", 4);
    provider->createFolderRecursive(below(u"a/b/c/d"));
    for (const ustring relative : {u"a", u"a/b", u"a/b/c", u"a/b/c/d"})
        EXPECT_EQ(provider->exists(below(relative)), ExistenceType::Folder) << fl::i18n::ustring_to_utf8(relative);

    const auto before = tree();
    EXPECT_NO_THROW(provider->createFolderRecursive(below(u"a/b/c/d")));
    EXPECT_NO_THROW(provider->createFolderRecursive(below(u"a")));
    EXPECT_NO_THROW(provider->createFolderRecursive(root));
    EXPECT_EQ(tree(), before);
    EXPECT_EQ(provider->getFileAttributes(below(u"a/kept.txt")).getSize(), 4u);
}

// Every refusal names its code and location, and changes nothing.
TEST_P(FileAndFolderConformance, FailuresReportCodeAndLocationAndLeaveTheTreeAlone)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI file = makeFile(u"file.txt", 3);
    const StorageIRI full = makeFolder(u"full");
    makeFile(u"full/inner.txt", 5);
    const StorageIRI empty = makeFolder(u"empty");
    const StorageIRI missing = below(u"missing");
    const StorageIRI missingChild = below(u"missing/child");
    const StorageIRI belowFile = StorageIRI(file, u"child");
    const StorageIRI deepBelowFile = StorageIRI(file, u"a/b");
    const auto before = tree();

    const auto time = utc(2020, 1, 2, 3, 4, 5, 6);
    std::vector<Refusal> cases = {
        {"createFile over a file", [&] { provider->createFile(file); }, ErrorCode::ResourceAlreadyExists, {file}},
        {"createFile over a folder", [&] { provider->createFile(empty); }, ErrorCode::ResourceAlreadyExists, {empty}},
        {"createFile without parent", [&] { provider->createFile(missingChild); }, ErrorCode::ResourceNotFound, {missingChild}},
        {"createFile below a file", [&] { provider->createFile(belowFile); }, ErrorCode::ResourceNotFound, {belowFile}},
        {"createFolder over a file", [&] { provider->createFolder(file); }, ErrorCode::ResourceAlreadyExists, {file}},
        {"createFolder over a folder", [&] { provider->createFolder(empty); }, ErrorCode::ResourceAlreadyExists, {empty}},
        {"createFolder without parent", [&] { provider->createFolder(missingChild); }, ErrorCode::ResourceNotFound, {missingChild}},
        {"createFolder below a file", [&] { provider->createFolder(belowFile); }, ErrorCode::ResourceNotFound, {belowFile}},
        {"createFolderRecursive over a file", [&] { provider->createFolderRecursive(file); },
         ErrorCode::ResourceAlreadyExists, {file}},
        {"createFolderRecursive through a file", [&] { provider->createFolderRecursive(deepBelowFile); },
         ErrorCode::ResourceAlreadyExists, {deepBelowFile}},
        {"removeFile of nothing", [&] { provider->removeFile(missing); }, ErrorCode::ResourceNotFound, {missing}},
        {"removeFile below a file", [&] { provider->removeFile(belowFile); }, ErrorCode::ResourceNotFound, {belowFile}},
        {"removeFile of an empty folder", [&] { provider->removeFile(empty); }, ErrorCode::ResourceNotFound, {empty}, "not-a-file"},
        {"removeFile of a full folder", [&] { provider->removeFile(full); }, ErrorCode::ResourceNotFound, {full}, "not-a-file"},
        {"removeFolder of nothing", [&] { provider->removeFolder(missing); }, ErrorCode::ResourceNotFound, {missing}},
        {"removeFolder of a file", [&] { provider->removeFolder(file); }, ErrorCode::ResourceNotFound, {file}, "not-a-folder"},
        {"removeFolder of a full folder", [&] { provider->removeFolder(full); }, ErrorCode::FolderNotEmpty, {full}},
        {"getFileAttributes of a folder", [&] { provider->getFileAttributes(empty); }, ErrorCode::ResourceNotFound, {empty}, "not-a-file"},
        {"getFileAttributes of nothing", [&] { provider->getFileAttributes(missing); }, ErrorCode::ResourceNotFound, {missing}},
        {"getFileAttributes below a file", [&] { provider->getFileAttributes(belowFile); }, ErrorCode::ResourceNotFound, {belowFile}},
        {"getFolderAttributes of a file", [&] { provider->getFolderAttributes(file); }, ErrorCode::ResourceNotFound, {file}, "not-a-folder"},
        {"getFolderAttributes of nothing", [&] { provider->getFolderAttributes(missing); }, ErrorCode::ResourceNotFound, {missing}},
        {"getExtendedAttributes of nothing", [&] { provider->getExtendedAttributes(missing); }, ErrorCode::ResourceNotFound, {missing}},
        {"setLastModified of nothing", [&] { provider->setLastModified(missing, time); }, ErrorCode::ResourceNotFound, {missing}},
        {"setWritable of nothing", [&] { provider->setWritable(missing, false); }, ErrorCode::ResourceNotFound, {missing}},
        {"truncateToSize of nothing", [&] { provider->truncateToSize(missing, 1); }, ErrorCode::ResourceNotFound, {missing}},
        {"truncateToSize of a folder", [&] { provider->truncateToSize(empty, 1); }, ErrorCode::ResourceNotFound, {empty}, "not-a-file"},
    };
    if (hasFeature(ExtendedFeature::RecursiveRemoval)) {
        cases.push_back({"removeFolderRecursively of nothing", [&] { provider->removeFolderRecursively(missing); },
                         ErrorCode::ResourceNotFound, {missing}});
        cases.push_back({"removeFolderRecursively of a file", [&] { provider->removeFolderRecursively(file); },
                         ErrorCode::ResourceNotFound, {file}, "not-a-folder"});
    } else {
        cases.push_back({"removeFolderRecursively unsupported", [&] { provider->removeFolderRecursively(full); },
                         ErrorCode::UnsupportedOperation, {full}});
    }
    expectRefusals(cases);
    EXPECT_EQ(tree(), before);
}

TEST_P(FileAndFolderConformance, SetLastModifiedIsReadBackToTheMicrosecond)
{
    VFS_SKIP_UNLESS(capabilities().settableTimes, "times cannot be set");
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI file = makeFile(u"folder/file.txt", 1);
    const StorageIRI folder = below(u"folder");
    // Before the epoch, at it, and well after it: conversions must not lose the fraction's sign.
    // A storage keeps times at its stated resolution (read back rounded down to it); one that
    // cannot keep a time before the epoch refuses it (InvalidLocation, "time-out-of-range").
    const std::int64_t step = std::max<std::int64_t>(1, capabilities().timeResolution.count() / 1000);
    const pt::ptime epoch(boost::gregorian::date(1970, 1, 1));
    for (const pt::ptime asked : {utc(2021, 3, 4, 5, 6, 7, 891234), utc(1969, 7, 20, 20, 17, 40, 123456),
                                  utc(1970, 1, 1, 0, 0, 0, 1), utc(2100, 12, 31, 23, 59, 59, 999999)}) {
        SCOPED_TRACE(pt::to_iso_extended_string(asked));
        const std::int64_t ticks = (asked - epoch).total_microseconds();
        const pt::ptime time = epoch + pt::microseconds(ticks - ((ticks % step) + step) % step);
        if (const auto refused = asked < epoch ? providerError([&] { provider->setLastModified(file, asked); }) : std::nullopt) {
            EXPECT_EQ(refused->getErrorCode(), ErrorCode::InvalidLocation);
            EXPECT_EQ(contextKeys(*refused).back(), "time-out-of-range");
            continue;
        }
        provider->setLastModified(file, asked);
        EXPECT_EQ(provider->getFileAttributes(file).getLastModified(), time);
        provider->setLastModified(folder, asked);
        EXPECT_EQ(provider->getFolderAttributes(folder).getLastModified(), time);
        EXPECT_EQ(provider->getFileAttributes(file).getLastModified(), time) << "the folder's time is its own";
    }
}

TEST_P(FileAndFolderConformance, SetWritableTogglesWritabilityOfFilesAndFolders)
{
    VFS_SKIP_UNLESS(capabilities().settableWritability, "writability cannot be set");
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI file = makeFile(u"file.txt");
    const StorageIRI folder = makeFolder(u"folder");
    provider->setWritable(file, false);
    provider->setWritable(folder, false);
    EXPECT_FALSE(provider->getFileAttributes(file).isWritable());
    EXPECT_FALSE(provider->getFolderAttributes(folder).isWritable());

    provider->setWritable(file, true);
    EXPECT_TRUE(provider->getFileAttributes(file).isWritable());
    EXPECT_FALSE(provider->getFolderAttributes(folder).isWritable()) << "each location has its own flag";
    provider->setWritable(folder, true);
    EXPECT_TRUE(provider->getFolderAttributes(folder).isWritable());
}

TEST_P(FileAndFolderConformance, NamesWithALeadingDotAreHidden)
{
    struct Case {
        const char16_t* name;
        bool isFile;
        bool hidden;
    };
    for (const Case& c : {Case{u".profile", true, true}, Case{u".config", false, true}, Case{u"visible.txt", true, false},
                          Case{u"visible", false, false}, Case{u"dot.in.the.middle", true, false},
                          Case{u"trailing.", false, false}}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(c.name));
        if (c.isFile) {
            EXPECT_EQ(provider->getFileAttributes(makeFile(c.name)).isHidden(), c.hidden);
        } else {
            EXPECT_EQ(provider->getFolderAttributes(makeFolder(c.name)).isHidden(), c.hidden);
        }
    }
    EXPECT_FALSE(provider->getFileAttributes(makeFile(u".config/inside.txt")).isHidden())
        << "only the location's own name counts";
}

TEST_P(FileAndFolderConformance, TruncateToSizeShrinksAndExtends)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI file = makeFile(u"file.txt");
    for (const std::uint64_t size : {5000ull, 10ull, 0ull, 300001ull, 300000ull}) {
        provider->truncateToSize(file, size);
        EXPECT_EQ(provider->getFileAttributes(file).getSize(), size);
    }
    provider->truncateToSize(file, 300000);
    EXPECT_EQ(provider->getFileAttributes(file).getSize(), 300000u) << "the same size again changes nothing";
}

INSTANTIATE_TEST_SUITE_P(Providers, FileAndFolderConformance, testing::ValuesIn(allProviders()), providerName);

} // namespace
