#include <Prelude.hpp>

namespace {

constexpr auto codeOf = [](auto&& call) { return vfs_test::libraryErrorOf(call); };

class FolderEntriesTest : public vfs_test::OnEachScheme {
protected:
    std::uint64_t calls() const { return layers().calls->total(); }
    std::uint64_t calls(ProviderOperation operation) const { return layers().calls->count(operation); }
    void resetCalls() const { layers().calls->reset(); }

    File makeFile(const ustring& name, std::uint64_t size) const
    {
        const File file = work.file(name);
        file.createFile();
        file.truncateToSize(size);
        return file;
    }
};

INSTANTIATE_TEST_SUITE_P(Providers, FolderEntriesTest, testing::Values("file", "mem"), vfs_test::schemeName);

TEST_P(FolderEntriesTest, AttributesGivenAtConstructionAreKeptAndNeverFetched)
{
    const File file = makeFile(u"a.txt", 3);
    const auto fileAttributes = file.getAttributes();
    const Folder folder = work.folder(u"sub");
    folder.createFolder();
    const auto folderAttributes = folder.getAttributes();
    file.truncateToSize(10);
    file.setLastModified(time_from_string("2001-02-03 04:05:06"));
    folder.setLastModified(time_from_string("2001-02-03 04:05:06"));

    resetCalls();
    const FileEntry fileEntry(work.root(), u"a.txt", fileAttributes);
    const FolderEntry folderEntry(work.root(), u"sub", folderAttributes);
    EXPECT_EQ(fileEntry.getAttributes().getSize(), 3u);
    EXPECT_EQ(folderEntry.getAttributes(), folderAttributes);
    EXPECT_EQ(fileEntry.getFile(), file);
    EXPECT_EQ(calls(), 0u);

    // Made from a handle: the name is the handle's, and the attributes are fetched when asked.
    const FileEntry fromFile(file);
    EXPECT_EQ(fromFile.getName(), u"a.txt");
    EXPECT_EQ(fromFile.getAttributes().getSize(), 10u);
    EXPECT_EQ(FolderEntry(folder).getName(), u"sub");
}

TEST_P(FolderEntriesTest, NameOnlyEntriesFetchOnceAndShareWithCopies)
{
    makeFile(u"a.txt", 3);
    work.folder(u"sub").createFolder();

    resetCalls();
    const FileEntry entry(work.root(), u"a.txt");
    const FileEntry copy = entry; // made before anything was fetched
    const FolderEntry folderEntry(work.root(), u"sub");
    const FolderEntry folderCopy = folderEntry;
    EXPECT_EQ(entry.getName(), u"a.txt");
    EXPECT_EQ(calls(), 0u);

    EXPECT_EQ(entry.getAttributes().getSize(), 3u);
    EXPECT_EQ(calls(ProviderOperation::GetFileAttributes), 1u);
    EXPECT_EQ(&copy.getAttributes(), &entry.getAttributes());
    EXPECT_EQ(&copy.getFile(), &entry.getFile());
    EXPECT_EQ(entry.getFile().getLocation(), work.location(u"a.txt"));

    folderCopy.getAttributes();
    EXPECT_EQ(&folderEntry.getAttributes(), &folderCopy.getAttributes());
    EXPECT_EQ(folderEntry.getFolder(), work.folder(u"sub"));
    EXPECT_EQ(calls(ProviderOperation::GetFileAttributes), 1u);
    EXPECT_EQ(calls(ProviderOperation::GetFolderAttributes), 1u);
}

TEST_P(FolderEntriesTest, AFailedFetchLeavesTheEntryToTryAgain)
{
    // Nothing there yet, then the wrong kind, then the file.
    const FileEntry entry(work.root(), u"later");
    EXPECT_EQ(codeOf([&] { entry.getAttributes(); }), ErrorCode::ResourceNotFound);
    work.folder(u"later").createFolder();
    EXPECT_EQ(codeOf([&] { entry.getAttributes(); }), ErrorCode::ResourceNotFound);
    work.folder(u"later").removeFolder(vfs::FolderRemovalPolicy::NonRecursive);
    makeFile(u"later", 5);
    EXPECT_EQ(entry.getAttributes().getSize(), 5u);

    // A provider failure reaches the caller translated, with the location; the next call asks again.
    const FolderEntry folderEntry(work.root(), u"sub");
    work.folder(u"sub").createFolder();
    const auto fault = layers().faults->addFault({ProviderOperation::GetFolderAttributes, std::nullopt,
                                                  provider::ErrorCode::IOError, FaultInjectingProvider::Trigger::Once});
    vfs_test::inspectThrown<vfs::Exception>([&] { folderEntry.getAttributes(); }, [&](const vfs::Exception& error) {
        EXPECT_EQ(error.getErrorCode(), ErrorCode::IOError);
        EXPECT_EQ(error.getLocation(), work.location(u"sub"));
    });
    EXPECT_EQ(layers().faults->failuresInjected(fault), 1u);
    resetCalls();
    EXPECT_NO_THROW(folderEntry.getAttributes());
    EXPECT_EQ(calls(ProviderOperation::GetFolderAttributes), 1u);

    // A name the provider refuses fails where the handle is made, and keeps failing the same way.
    const FileEntry refused(work.root(), u"../outside");
    EXPECT_EQ(codeOf([&] { refused.getFile(); }), ErrorCode::InvalidLocation);
    EXPECT_EQ(codeOf([&] { refused.getAttributes(); }), ErrorCode::InvalidLocation);
}

// Under ThreadSanitizer in CI: the slots are filled once, whichever threads race for them, and the
// attributes slot (which forces the handle slot) never deadlocks with a thread forcing the handle.
TEST_P(FolderEntriesTest, ConcurrentFirstUseFetchesOnce)
{
    makeFile(u"a.txt", 4);
    work.folder(u"sub").createFolder();
    for (int round = 0; round < 25; ++round) {
        const FileEntry entry(work.root(), u"a.txt");
        const FileEntry copy = entry;
        const FolderEntry folderEntry(work.root(), u"sub");
        resetCalls();
        std::vector<const provider::FileAttributes*> seen(2);
        std::vector<const File*> files(2);
        const Folder* folders[2] = {};
        vfs_test::runTogether({
            [&] { seen[0] = &entry.getAttributes(); },
            [&] { seen[1] = &copy.getAttributes(); },
            [&] { files[0] = &entry.getFile(); },
            [&] { files[1] = &copy.getFile(); },
            [&] { folders[0] = &folderEntry.getFolder(); },
            [&] { folders[1] = &folderEntry.getFolder(); },
            [&] { folderEntry.getAttributes(); },
            [&] { folderEntry.getAttributes(); },
        });
        ASSERT_EQ(calls(ProviderOperation::GetFileAttributes), 1u) << "round " << round;
        ASSERT_EQ(calls(ProviderOperation::GetFolderAttributes), 1u) << "round " << round;
        EXPECT_EQ(seen[0], seen[1]);
        EXPECT_EQ(seen[0]->getSize(), 4u);
        EXPECT_EQ(files[0], files[1]);
        EXPECT_EQ(folders[0], folders[1]);
    }
}

TEST_P(FolderEntriesTest, ListEntryNamesLocationsAndOrder)
{
    resetCalls();
    const ListEntry plain(work.root(), u"name.txt");
    const ListEntry nested(work.root(), u"a/b");
    EXPECT_EQ(calls(), 0u);

    EXPECT_EQ(plain.getFilename(), u"name.txt");
    EXPECT_EQ(nested.getName(), u"a/b");
    EXPECT_EQ(nested.getFilename(), u"b");
    EXPECT_EQ(ListEntry(work.root(), u"a/").getFilename(), u"");
    EXPECT_EQ(ListEntry(work.root(), u"/").getFilename(), u"/");
    EXPECT_EQ(nested.getLocation(), work.location(u"a/b"));

    // Equality and order follow the child's location, not the parent handle.
    const Folder sameParent(work.root().getLocation(), storage.ref);
    EXPECT_TRUE(ListEntry(sameParent, u"name.txt") == plain);
    EXPECT_FALSE(ListEntry(sameParent, u"other") == plain);
    EXPECT_TRUE(ListEntry(work.folder(u"a"), u"b") == nested);
    EXPECT_EQ(ListEntry(work.root(), u"a") < ListEntry(work.root(), u"b"), work.location(u"a") < work.location(u"b"));
    EXPECT_EQ(ListEntry(work.root(), u"b") < ListEntry(work.root(), u"a"), work.location(u"b") < work.location(u"a"));
}

TEST_P(FolderEntriesTest, ListEntryAsksTheStorageForTheKindEveryTime)
{
    makeFile(u"f", 1);
    work.folder(u"d").createFolder();
    const ListEntry file(work.root(), u"f");
    const ListEntry folder(work.root(), u"d");
    const ListEntry gone(work.root(), u"gone");

    const auto asFile = file.getFileOrFolder();
    ASSERT_NE(boost::get<File>(&asFile), nullptr);
    EXPECT_EQ(boost::get<File>(asFile).getLocation(), work.location(u"f"));
    const auto asFolder = folder.getFileOrFolder();
    ASSERT_NE(boost::get<Folder>(&asFolder), nullptr);
    EXPECT_EQ(boost::get<Folder>(asFolder).getLocation(), work.location(u"d"));
    const auto vanished = gone.getFileOrFolder();
    EXPECT_NE(boost::get<File>(&vanished), nullptr);

    work.file(u"f").removeFile();
    work.folder(u"f").createFolder();
    const auto changed = file.getFileOrFolder();
    EXPECT_NE(boost::get<Folder>(&changed), nullptr);

    // Failures of the existence test reach the caller translated.
    layers().faults->addFault({ProviderOperation::Exists, std::nullopt, provider::ErrorCode::PermissionDenied,
                               FaultInjectingProvider::Trigger::Once});
    EXPECT_EQ(codeOf([&] { file.getFileOrFolder(); }), ErrorCode::PermissionDenied);
}

} // namespace
