// What only the local disk has: links, special files, names that are not UTF-8, permissions, big
// folders read in several batches, atomic copies, the file://localhost form.

#include <KitPrelude.hpp>
#include <Unprivileged.hpp>

#include <sys/xattr.h>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

// Name -> whether the entry is a file.
std::map<std::string, bool> kindsOf(const std::vector<FolderEntry>& entries)
{
    std::map<std::string, bool> kinds;
    for (const auto& entry : entries)
        kinds[fl::i18n::ustring_to_utf8(entry.getName())] = entry.isFile();
    return kinds;
}

std::string contentOf(std::istream& in)
{
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::string contentOf(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return contentOf(in);
}

std::set<std::string> namesOnDisk(const std::filesystem::path& folder)
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.insert(entry.path().filename().string());
    return names;
}

class LocalProviderTest : public testing::Test {
protected:
    StorageIRI at(const std::filesystem::path& path) const { return provider::toStorageIRI(u"", path); }
    std::vector<FolderEntry> listed(const std::filesystem::path& folder, const ListOptions& listOptions) const
    {
        return remainingEntries(*local->list(at(folder), listOptions));
    }

    TempDir dir;
    std::shared_ptr<provider::IProvider> local = provider::local::makeLocalProvider();
};

TEST_F(LocalProviderTest, ExistsExtendedReportsLinksAndSpecialFilesAndExistsFollowsThem)
{
    const auto file = dir.writeFile("target.txt", "x");
    const auto folder = dir.makeFolder("target-folder");
    std::filesystem::create_symlink(file, dir / "to-file");
    std::filesystem::create_directory_symlink(folder, dir / "to-folder");
    std::filesystem::create_symlink(dir / "nowhere", dir / "dangling");
    std::filesystem::create_symlink("to-file", dir / "to-link-to-file"); // a chain, relative target
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    std::filesystem::create_symlink(dir / "fifo", dir / "to-fifo");

    struct Case {
        const char* name;
        ExistenceTypeExtended extended;
        ExistenceType followed;
    };
    for (const Case& c : {Case{"to-file", ExistenceTypeExtended::LinkToFile, ExistenceType::File},
                          Case{"to-folder", ExistenceTypeExtended::LinkToFolder, ExistenceType::Folder},
                          Case{"to-link-to-file", ExistenceTypeExtended::LinkToFile, ExistenceType::File},
                          Case{"dangling", ExistenceTypeExtended::BrokenLink, ExistenceType::NotFound},
                          Case{"fifo", ExistenceTypeExtended::Special, ExistenceType::File},
                          Case{"to-fifo", ExistenceTypeExtended::LinkToFile, ExistenceType::File}}) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(local->existsExtended(at(dir / c.name)), c.extended);
        EXPECT_EQ(local->exists(at(dir / c.name)), c.followed);
    }
    // Through a link to a folder, the folder's content is reachable.
    dir.writeFile("target-folder/inside.txt");
    EXPECT_EQ(local->existsExtended(at(dir / "to-folder" / "inside.txt")), ExistenceTypeExtended::File);
    EXPECT_EQ(local->existsExtended(at("/dev/null")), ExistenceTypeExtended::Special);

    // A loop of links is a broken link that cannot be followed.
    std::filesystem::create_symlink("loop-b", dir / "loop-a");
    std::filesystem::create_symlink("loop-a", dir / "loop-b");
    EXPECT_EQ(local->existsExtended(at(dir / "loop-a")), ExistenceTypeExtended::BrokenLink);
    EXPECT_TRUE(failsWith([&] { local->exists(at(dir / "loop-a")); }, ErrorCode::InvalidLocation, at(dir / "loop-a"), "ELOOP"));
}

TEST_F(LocalProviderTest, ListingsFollowLinksForTheKindAndMarkThemInTheAttributes)
{
    dir.writeFile("listed/file.txt", "12345");
    const auto folder = dir.makeFolder("listed/folder");
    const auto listedFolder = dir / "listed";
    std::filesystem::create_symlink("file.txt", listedFolder / "to-file");
    std::filesystem::create_directory_symlink("folder", listedFolder / "to-folder");
    std::filesystem::create_symlink("nowhere", listedFolder / "dangling");
    std::filesystem::create_symlink("loop-b", listedFolder / "loop-a");
    std::filesystem::create_symlink("loop-a", listedFolder / "loop-b");
    ASSERT_EQ(::mkfifo((listedFolder / "fifo").c_str(), 0600), 0);

    // Links count as what they lead to; links leading nowhere, and special files, as files.
    const std::map<std::string, bool> all = {{"file.txt", true}, {"folder", false}, {"to-file", true},
                                             {"to-folder", false}, {"dangling", true}, {"loop-a", true},
                                             {"loop-b", true}, {"fifo", true}};
    for (const bool withAttributes : {false, true}) {
        SCOPED_TRACE(withAttributes ? "with attributes" : "names only");
        EXPECT_EQ(kindsOf(listed(listedFolder, makeListOptions(ListKind::All, withAttributes))), all);
        EXPECT_THAT(entryNames(listed(listedFolder, makeListOptions(ListKind::Folders, withAttributes))),
                    testing::UnorderedElementsAre("folder", "to-folder"));
        EXPECT_EQ(listed(listedFolder, makeListOptions(ListKind::Files, withAttributes)).size(), 6u);
    }

    std::map<std::string, FolderEntry> byName;
    for (auto& entry : listed(listedFolder, makeListOptions(ListKind::All, true)))
        byName.emplace(fl::i18n::ustring_to_utf8(entry.getName()), entry);
    // A link's attributes are its target's, marked as a link, and agree with getFileAttributes.
    ASSERT_TRUE(byName.at("to-file").getFileAttributes().has_value());
    EXPECT_EQ(byName.at("to-file").getFileAttributes()->getSize(), 5u);
    EXPECT_TRUE(byName.at("to-file").getFileAttributes()->isSymlink());
    EXPECT_FALSE(byName.at("file.txt").getFileAttributes()->isSymlink());
    EXPECT_TRUE(*byName.at("to-file").getFileAttributes() == local->getFileAttributes(at(listedFolder / "to-file")));
    ASSERT_TRUE(byName.at("to-folder").getFolderAttributes().has_value());
    EXPECT_TRUE(byName.at("to-folder").getFolderAttributes()->isSymlink());
    EXPECT_TRUE(*byName.at("to-folder").getFolderAttributes() ==
                local->getFolderAttributes(at(listedFolder / "to-folder")));
    EXPECT_TRUE(local->getFolderAttributes(at(folder)) == *byName.at("folder").getFolderAttributes());
    // What a link leads nowhere has no attributes to give; a FIFO has a file's.
    for (const char* nowhere : {"dangling", "loop-a", "loop-b"}) {
        EXPECT_FALSE(byName.at(nowhere).getFileAttributes().has_value()) << nowhere;
        EXPECT_FALSE(byName.at(nowhere).getFolderAttributes().has_value()) << nowhere;
    }
    ASSERT_TRUE(byName.at("fifo").getFileAttributes().has_value());
    EXPECT_EQ(byName.at("fifo").getFileAttributes()->getSize(), 0u);
    EXPECT_FALSE(byName.at("fifo").getFileAttributes()->isSymlink());
}

TEST_F(LocalProviderTest, NamesThatAreNotUtf8AreListedEnteredAndRemovedByTheirBytes)
{
    const auto folder = dir.makeFolder("mixed");
    for (const char* raw : {"bad-\xff\xfe.txt", "truncated-\xc3", "lone-surrogate-\xed\xa0\x80"}) {
        const int fd = ::open((folder / raw).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        ASSERT_GE(fd, 0) << raw;
        ::close(fd);
    }
    ASSERT_EQ(::mkdir((folder / "folder-\x80").c_str(), 0755), 0);
    dir.writeFile("mixed/folder-\x80/inside.txt", "x");
    dir.writeFile("mixed/caf\xc3\xa9.txt", "ok");

    const auto files = testing::UnorderedElementsAre("bad-\xff\xfe.txt", "truncated-\xc3", "lone-surrogate-\xed\xa0\x80",
                                                     "caf\xc3\xa9.txt");
    for (const bool withAttributes : {false, true}) {
        SCOPED_TRACE(withAttributes ? "with attributes" : "names only");
        EXPECT_THAT(entryNames(listed(folder, makeListOptions(ListKind::Files, withAttributes))), files);
        EXPECT_THAT(entryNames(listed(folder, makeListOptions(ListKind::Files, withAttributes, u"*.txt"))),
                    testing::UnorderedElementsAre("bad-\xff\xfe.txt", "caf\xc3\xa9.txt"));
        EXPECT_THAT(entryNames(listed(folder, makeListOptions(ListKind::Folders, withAttributes))),
                    testing::ElementsAre("folder-\x80"));
        ListOptions recursive = makeListOptions(ListKind::Files, withAttributes);
        recursive.recursive = true;
        EXPECT_THAT(entryNames(listed(folder, recursive)),
                    testing::UnorderedElementsAre("bad-\xff\xfe.txt", "truncated-\xc3", "lone-surrogate-\xed\xa0\x80",
                                                  "caf\xc3\xa9.txt", "folder-\x80/inside.txt"));
    }
    local->removeFolderRecursively(at(folder));
    EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST_F(LocalProviderTest, FoldersReadInManyBatchesListWholeAndClonesGoOnIndependentlyOnOtherThreads)
{
    // Names near the longest allowed, so that few entries fill several getdents64 batches; and more
    // entries than one batch of the iterator holds, so that clones are made on either side of a seam.
    constexpr int count = 2600;
    const auto folder = dir.makeFolder("big");
    std::set<std::string> expected;
    for (int i = 0; i < count; ++i) {
        const std::string name = "entry-" + std::to_string(i) + "-" + std::string(230, 'x');
        if (i % 10 == 0)
            std::filesystem::create_directory(folder / name);
        else
            std::ofstream(folder / name).put('x');
        expected.insert(name);
    }

    for (const auto& [withAttributes, recursive] : {std::pair{false, false}, {true, false}, {false, true}}) {
        SCOPED_TRACE(std::string(withAttributes ? "with attributes" : "names only") + (recursive ? ", recursive" : ""));
        ListOptions listOptions = makeListOptions(ListKind::All, withAttributes);
        listOptions.recursive = recursive;
        const auto original = local->list(at(folder), listOptions);
        std::vector<std::unique_ptr<provider::IFolderEntryIterator>> clones;
        std::vector<std::size_t> clonedAt;
        std::vector<std::string> order;
        clones.push_back(original->clone());
        clonedAt.push_back(0);
        while (original->hasNext()) {
            original->next();
            order.push_back(fl::i18n::ustring_to_utf8(original->current().getName()));
            if (order.size() % 250 == 0) {
                clones.push_back(original->clone());
                clonedAt.push_back(order.size());
            }
        }
        EXPECT_EQ(order.size(), expected.size()) << "no name twice";
        EXPECT_EQ(std::set<std::string>(order.begin(), order.end()), expected);

        std::vector<std::vector<std::string>> rests(clones.size());
        runOnThreads(static_cast<int>(clones.size()), [&](int index) { rests[index] = entryNames(remainingEntries(*clones[index])); });
        for (std::size_t i = 0; i < clones.size(); ++i)
            EXPECT_EQ(rests[i], std::vector<std::string>(order.begin() + static_cast<std::ptrdiff_t>(clonedAt[i]), order.end()))
                << "clone made after " << clonedAt[i] << " entries";
    }
    // A listing given up after its first entries, while the rest is being read ahead, goes quietly.
    for (int i = 0; i < 20; ++i) {
        const auto abandoned = local->list(at(folder), makeListOptions(ListKind::All, i % 2 == 0));
        for (int step = 0; step <= i * 60 && abandoned->hasNext(); ++step)
            abandoned->next();
    }
    // A pattern that matches one late name: batches without a match are read past.
    EXPECT_THAT(entryNames(listed(folder, makeListOptions(ListKind::All, false, u"entry-2599-*"))),
                testing::ElementsAre("entry-2599-" + std::string(230, 'x')));
    EXPECT_TRUE(listed(folder, makeListOptions(ListKind::Folders, true, u"entry-2599-*")).empty());
}

// Links inside a removed tree are covered through the library's removal; what is the provider's
// alone is a link named as the folder itself.
TEST_F(LocalProviderTest, RecursiveRemovalOfALinkRemovesTheLinkOnly)
{
    const auto outside = dir.writeFile("outside/keep.txt", "kept");
    // A link named as the folder goes itself; the folder it leads to stays whole.
    const auto link = dir / "link-to-outside";
    std::filesystem::create_directory_symlink(outside.parent_path(), link);
    local->removeFolderRecursively(at(link));
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link)));
    EXPECT_EQ(contentOf(outside), "kept");
    // A link to a file is no folder.
    std::filesystem::create_symlink(outside, dir / "link-to-file");
    const auto error = providerError([&] { local->removeFolderRecursively(at(dir / "link-to-file")); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->getErrorCode(), ErrorCode::ResourceNotFound);
    EXPECT_THAT(contextKeys(*error), testing::Contains("not-a-folder"));
    EXPECT_TRUE(std::filesystem::is_symlink(dir / "link-to-file"));
}

TEST_F(LocalProviderTest, PermissionFailuresCarryTheFailingCallAndErrno)
{
    const TempDir reachable("/tmp");
    ASSERT_EQ(::chmod(reachable.path().c_str(), 0711), 0);
    const auto closed = reachable.makeFolder("closed");
    reachable.writeFile("closed/inside.txt");
    const StorageIRI inside = at(closed / "inside.txt");
    const auto readOnly = reachable.makeFolder("read-only");
    const auto source = reachable.writeFile("source.txt", "content");
    const auto mine = reachable.writeFile("everyones.txt");
    const auto tree = reachable.makeFolder("tree");
    reachable.writeFile("tree/free.txt");
    reachable.writeFile("tree/locked/inside.txt");
    const auto unsearchable = reachable.makeFolder("unsearchable");
    reachable.writeFile("unsearchable/inside.txt");
    ASSERT_EQ(::chmod(closed.c_str(), 0), 0);
    ASSERT_EQ(::chmod(unsearchable.c_str(), 0444), 0);
    ASSERT_EQ(::chmod(readOnly.c_str(), 0555), 0);
    ASSERT_EQ(::chmod(source.c_str(), 0644), 0);
    ASSERT_EQ(::chmod(mine.c_str(), 0666), 0);
    ASSERT_EQ(::chmod(tree.c_str(), 0777), 0);
    ASSERT_EQ(::chmod((tree / "locked").c_str(), 0555), 0);

    std::istringstream report(runWithPermissionsEnforced([&] {
        std::ostringstream out;
        // The closed folder itself can still be examined; what is inside cannot.
        out << static_cast<int>(local->exists(at(closed))) << ' ';
        writeProviderError(out, providerError([&] { local->exists(inside); }));
        writeProviderError(out, providerError([&] { local->existsExtended(inside); }));
        writeProviderError(out, providerError([&] { local->list(at(closed), ListOptions{}); }));
        // Names can be read where nothing can be examined; the attributes' failure stays.
        out << entryNames(remainingEntries(*local->list(at(unsearchable), ListOptions{}))).size() << ' ';
        const auto withAttributes = local->list(at(unsearchable), makeListOptions(ListKind::All, true));
        writeProviderError(out, providerError([&] { withAttributes->hasNext(); }));
        writeProviderError(out, providerError([&] { withAttributes->hasNext(); }));
        writeProviderError(out, providerError([&] {
            local->copyFile(at(source), *local, at(readOnly / "copy.txt"), CopyFileOptions{});
        }));
        writeProviderError(out, providerError([&] { local->removeFolderRecursively(at(tree)); }));
        // Mode bits that grant writing are not enough: the caller must be let in.
        out << local->getFileAttributes(at(source)).isWritable() << ' '
            << local->getFileAttributes(at(mine)).isWritable() << ' ';
        return out.str();
    }));
    int closedExistence = -1;
    report >> closedExistence;
    const auto followed = readProviderError(report);
    const auto extended = readProviderError(report);
    const auto listing = readProviderError(report);
    std::size_t namesOnly = 0;
    report >> namesOnly;
    const auto attributes = readProviderError(report);
    const auto attributesAgain = readProviderError(report);
    const auto copy = readProviderError(report);
    const auto removal = readProviderError(report);
    bool sourceWritable = true, mineWritable = false;
    report >> sourceWritable >> mineWritable;

    EXPECT_EQ(static_cast<ExistenceType>(closedExistence), ExistenceType::Folder);
    ASSERT_TRUE(followed.has_value() && extended.has_value());
    EXPECT_EQ(followed->getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_TRUE(followed->getStorageIRI() == inside);
    EXPECT_THAT(contextKeys(*followed), testing::ElementsAre("stat", "EACCES"));
    EXPECT_FALSE(followed->getMessage().empty());
    EXPECT_EQ(extended->getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_THAT(contextKeys(*extended), testing::ElementsAre("lstat", "EACCES"));
    ASSERT_TRUE(listing.has_value());
    EXPECT_EQ(listing->getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_THAT(contextKeys(*listing), testing::ElementsAre("open", "EACCES"));
    EXPECT_EQ(namesOnly, 1u);
    ASSERT_TRUE(attributes.has_value());
    EXPECT_EQ(attributes->getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_TRUE(attributes->getStorageIRI() == at(unsearchable / "inside.txt")) << text(attributes->getStorageIRI());
    EXPECT_THAT(contextKeys(*attributes), testing::ElementsAre("fstatat", "EACCES"));
    ASSERT_TRUE(attributesAgain.has_value()) << "a listing that broke off stays broken";
    EXPECT_EQ(attributesAgain->getErrorCode(), ErrorCode::PermissionDenied);
    ASSERT_TRUE(copy.has_value());
    EXPECT_EQ(copy->getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_TRUE(copy->getStorageIRI() == at(readOnly / "copy.txt"));
    EXPECT_TRUE(namesOnDisk(readOnly).empty());
    // The walk stops at what it may not remove, naming it; what it could remove is gone.
    ASSERT_TRUE(removal.has_value());
    EXPECT_EQ(removal->getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_TRUE(removal->getStorageIRI() == at(tree / "locked" / "inside.txt")) << text(removal->getStorageIRI());
    EXPECT_THAT(contextKeys(*removal), testing::ElementsAre("unlinkat", "EACCES"));
    EXPECT_TRUE(std::filesystem::exists(tree / "locked" / "inside.txt"));
    if (::geteuid() == 0) {
        // Only for root is the source somebody else's (the checks ran as nobody).
        EXPECT_FALSE(sourceWritable);
    }
    EXPECT_TRUE(mineWritable);
}

TEST_F(LocalProviderTest, ACopyReplacesTheTargetWholeAndAFailedOneLeavesNoTrace)
{
    // Over two progress chunks, each page numbered, so that a page lost or misplaced shows.
    std::string content(9 << 20, 'x');
    for (std::size_t page = 0; page < content.size() / 4096; ++page)
        content.replace(page * 4096, 12, std::to_string(1000000000000 + page));
    const auto source = dir.writeFile("copies/source.bin", content);
    const auto target = dir.writeFile("copies/target.bin", "old");
    ASSERT_EQ(::chmod(source.c_str(), 0640), 0);
    const auto folder = source.parent_path();
    const std::set<std::string> bothFiles = {"source.bin", "target.bin"};

    // A progress callback that throws cancels as well, leaving no temporary file.
    CopyFileOptions throwing;
    throwing.replacementPolicy = ReplacementPolicy::Replace;
    throwing.progress = [](std::uint64_t, std::uint64_t) -> bool { throw std::runtime_error("stop"); };
    EXPECT_THROW(local->copyFile(at(source), *local, at(target), throwing), std::runtime_error);
    EXPECT_EQ(contentOf(target), "old");
    EXPECT_EQ(namesOnDisk(folder), bothFiles);

    // A reader of the old target keeps reading the old content: the new one is another file that
    // took the name, never the old one rewritten in place.
    std::ifstream oldReader(target, std::ios::binary);
    CopyFileOptions replacing;
    replacing.replacementPolicy = ReplacementPolicy::Replace;
    EXPECT_EQ(local->copyFile(at(source), *local, at(target), replacing), TransactionStatus::Completed);
    EXPECT_EQ(contentOf(oldReader), "old");
    EXPECT_TRUE(contentOf(target) == content);
    EXPECT_EQ(std::filesystem::status(target).permissions(), std::filesystem::status(source).permissions());
    EXPECT_EQ(namesOnDisk(folder), bothFiles);
}

TEST_F(LocalProviderTest, ACopyThatReplacesNothingRefusesWhateverStandsInItsWayAndLeavesItAlone)
{
    // A small source is refused when it is linked in, a large one before its content is copied.
    for (const std::size_t size : {std::size_t(10), std::size_t(2) << 20}) {
        SCOPED_TRACE(size);
        const auto folder = dir.makeFolder("refusals-" + std::to_string(size));
        const auto source = dir.writeFile("refusals-" + std::to_string(size) + "/source", std::string(size, 's'));
        dir.writeFile("refusals-" + std::to_string(size) + "/file", "kept");
        std::filesystem::create_directory(folder / "folder");
        std::filesystem::create_directory_symlink(folder / "folder", folder / "to-folder");
        std::filesystem::create_symlink(folder / "nowhere", folder / "dangling");
        const std::set<std::string> before = namesOnDisk(folder);
        for (const auto& [name, contexts] :
             {std::pair{"file", std::vector<std::string>{"lstat", "EEXIST"}}, {"dangling", {"lstat", "EEXIST"}},
              {"folder", {"not-a-file"}}, {"to-folder", {"not-a-file"}}}) {
            SCOPED_TRACE(name);
            const auto error = providerError([&] { local->copyFile(at(source), *local, at(folder / name), CopyFileOptions{}); });
            ASSERT_TRUE(error.has_value());
            EXPECT_EQ(error->getErrorCode(), ErrorCode::ResourceAlreadyExists);
            EXPECT_EQ(contextKeys(*error), contexts);
        }
        EXPECT_EQ(contentOf(folder / "file"), "kept");
        EXPECT_TRUE(std::filesystem::is_symlink(folder / "dangling"));
        EXPECT_EQ(namesOnDisk(folder), before) << "no temporary file left";
    }
}

TEST_F(LocalProviderTest, CopyRefusesSpecialFilesAtOnce)
{
    const auto fifo = dir / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // Refused at once: opening the FIFO must not wait for a writer.
    const auto error = providerError([&] { local->copyFile(at(fifo), *local, at(dir / "copy"), CopyFileOptions{}); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->getErrorCode(), ErrorCode::UnsupportedOperation);
    EXPECT_THAT(contextKeys(*error), testing::ElementsAre("not-a-regular-file"));
    EXPECT_FALSE(std::filesystem::exists(dir / "copy"));
    // Nor does a transactional stream, whose commit would put a regular file in its place.
    EXPECT_TRUE(failsWith([&] { local->openTransactionalStream(at(fifo), {}); }, ErrorCode::UnsupportedOperation,
                          at(fifo), "not-a-regular-file"));
    EXPECT_TRUE(std::filesystem::is_fifo(fifo));
}

TEST_F(LocalProviderTest, TimesBeyondWhatAttributesHoldAreClampedAndSpecialTimesRefused)
{
    // ext4 keeps times between 1901 and 2446 only; tmpfs keeps any.
    struct statfs memory {};
    if (::statfs("/dev/shm", &memory) != 0 || memory.f_type != TMPFS_MAGIC)
        GTEST_SKIP() << "no tmpfs at /dev/shm";
    const TempDir wide("/dev/shm");
    const auto file = wide.writeFile("file.txt");
    const pt::ptime epoch(boost::gregorian::date(1970, 1, 1));
    struct Case {
        time_t seconds;
        pt::ptime expected;
    };
    for (const Case& c : {Case{(pt::ptime(boost::gregorian::date(9999, 12, 31)) - epoch).total_seconds() + 86400 * 400,
                               pt::ptime(boost::gregorian::date(9999, 12, 31), pt::hours(24) - pt::microseconds(1))},
                          Case{(pt::ptime(boost::gregorian::date(1400, 1, 1)) - epoch).total_seconds() - 86400,
                               pt::ptime(boost::gregorian::date(1400, 1, 1))}}) {
        struct timespec times[2] = {{0, UTIME_OMIT}, {c.seconds, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
        EXPECT_EQ(local->getFileAttributes(at(file)).getLastModified(), c.expected);
    }

    for (const pt::ptime special : {pt::ptime(pt::not_a_date_time), pt::ptime(pt::pos_infin), pt::ptime(pt::neg_infin)}) {
        const auto refusal = providerError([&] { local->setLastModified(at(file), special); });
        ASSERT_TRUE(refusal.has_value());
        EXPECT_EQ(refusal->getErrorCode(), ErrorCode::InvalidLocation);
        EXPECT_THAT(contextKeys(*refusal), testing::ElementsAre("invalid-time"));
    }
}

TEST_F(LocalProviderTest, StorageWideAnswersComeFromTheDiskAndNoSettingIsAccepted)
{
    const auto file = dir.writeFile("file.txt", "abc");
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    const auto extended = local->getExtendedAttributes(at(file));
    EXPECT_EQ(extended.inode, static_cast<std::uint64_t>(info.st_ino));
    EXPECT_EQ(extended.device, static_cast<std::uint64_t>(info.st_dev));
    EXPECT_EQ(extended.posixMode, static_cast<std::uint32_t>(info.st_mode));
    EXPECT_EQ(extended.linkCount, 1u);
    ASSERT_EQ(::link(file.c_str(), (dir / "hard-link").c_str()), 0);
    EXPECT_EQ(local->getExtendedAttributes(at(file)).linkCount, 2u);
    // Named attributes come along where the file system keeps user xattrs (tmpfs and ext4 do).
    const std::string value("line 1\0binary", 13);
    if (::setxattr(file.c_str(), "user.comment", value.data(), value.size(), 0) == 0) {
        const auto named = local->getExtendedAttributes(at(file)).namedAttributes;
        ASSERT_EQ(named.count("user.comment"), 1u);
        EXPECT_EQ(named.at("user.comment"), value);
    } else {
        EXPECT_TRUE(errno == ENOTSUP || errno == EPERM) << std::strerror(errno);
    }

    struct statvfs space {};
    ASSERT_EQ(::statvfs(dir.path().c_str(), &space), 0);
    const auto storage = local->getProviderStorageInfo(at(dir.path()));
    EXPECT_EQ(storage.capacityBytes, static_cast<std::uint64_t>(space.f_blocks) * space.f_frsize);
    ASSERT_TRUE(storage.availableBytes.has_value() && storage.freeBytes.has_value());
    EXPECT_LE(*storage.availableBytes, *storage.freeBytes);

    auto* flushable = dynamic_cast<provider::extensions::IFlushableFilesystem*>(local.get());
    ASSERT_NE(flushable, nullptr);
    EXPECT_NO_THROW(flushable->flushFilesystem());

    EXPECT_NO_THROW(local->configure(boost::property_tree::ptree()));
    boost::property_tree::ptree settings;
    settings.put("quotaBytes", "100");
    const auto refusal = providerError([&] { local->configure(settings); });
    ASSERT_TRUE(refusal.has_value());
    EXPECT_EQ(refusal->getErrorCode(), ErrorCode::InvalidLocation);
    ASSERT_EQ(refusal->getAllExceptionContexts().size(), 1u);
    EXPECT_EQ(refusal->getAllExceptionContexts()[0].getDetail(), u"quotaBytes");
}

} // namespace
