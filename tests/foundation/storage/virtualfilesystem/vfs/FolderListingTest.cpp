#include <Prelude.hpp>

#include <ranges>

namespace {

using provider::ListKind;
using vfs::FolderListing;
using vfs::FolderListingIterator;
using Entry = boost::variant<FileEntry, FolderEntry>;
using Names = std::vector<ustring>;

static_assert(std::input_iterator<FolderListingIterator<FileEntry>>);
static_assert(std::ranges::input_range<FolderListing<Entry>>);
static_assert(std::ranges::input_range<const FolderListing<ListEntry>>);

constexpr auto codeOf = [](auto&& call) { return vfs_test::libraryErrorOf(call); };

class FolderListingTest : public vfs_test::OnEachScheme {
protected:
    explicit FolderListingTest(vfs_test::ListingRecorder::Behaviour behaviour = {})
        : FolderListingTest(std::make_shared<vfs_test::RecorderSlot>(), behaviour)
    {
    }
    vfs_test::ListingRecorder& recorder() const
    {
        layers();
        return *slot->recorder;
    }

    // Files a.txt (1 byte), b.txt (2 bytes), folders sub (holding inner.txt) and sub2.
    void buildSample() const
    {
        for (const ustring name : {u"a.txt", u"b.txt"}) {
            const File file = work.file(name);
            file.createFile();
            file.truncateToSize(name == u"a.txt" ? 1 : 2);
        }
        work.folder(u"sub").createFolder();
        work.folder(u"sub2").createFolder();
        work.file(u"sub/inner.txt").createFile();
    }

private:
    FolderListingTest(std::shared_ptr<vfs_test::RecorderSlot> made, vfs_test::ListingRecorder::Behaviour behaviour)
        : OnEachScheme(vfs_test::recordingWrap(made, behaviour)), slot(std::move(made))
    {
    }

protected:
    std::shared_ptr<vfs_test::RecorderSlot> slot;
};

INSTANTIATE_TEST_SUITE_P(Providers, FolderListingTest, testing::Values("file", "mem"), vfs_test::schemeName);

TEST_P(FolderListingTest, HandlesListNamesOnlyAndEntriesTakeTheAttributesDelivered)
{
    buildSample();
    const Folder& root = work.root();
    const auto fileListing = root.listFileEntries(u"");
    const std::vector<FileEntry> fileEntries(fileListing.begin(), fileListing.end());
    const auto entryListing = root.listAllEntries(u"");
    const std::vector<Entry> entries(entryListing.begin(), entryListing.end());
    root.listFiles(u"");
    root.listFolders(u"");
    root.listAll(u"");
    root.listFolderEntries(u"");

    const auto seen = recorder().seen();
    ASSERT_EQ(seen.size(), 6u);
    const std::vector<std::pair<ListKind, bool>> expected{
        {ListKind::Files, true}, {ListKind::All, true},      {ListKind::Files, false},
        {ListKind::Folders, false}, {ListKind::All, false}, {ListKind::Folders, true}};
    for (std::size_t index = 0; index < seen.size(); ++index) {
        EXPECT_EQ(seen[index].kind, expected[index].first) << index;
        EXPECT_EQ(seen[index].withAttributes, expected[index].second) << index;
        EXPECT_FALSE(seen[index].recursive) << index;
    }

    layers().calls->reset();
    std::vector<provider::FileAttributes> fileAttributes;
    for (const FileEntry& entry : fileEntries)
        fileAttributes.push_back(entry.getAttributes());
    for (const Entry& entry : entries) {
        if (const auto* file = boost::get<FileEntry>(&entry))
            file->getAttributes();
        else
            boost::get<FolderEntry>(entry).getAttributes();
    }
    EXPECT_EQ(layers().calls->total(), 0u);

    ASSERT_EQ(fileEntries.size(), 2u);
    for (std::size_t index = 0; index < fileEntries.size(); ++index)
        EXPECT_EQ(fileAttributes[index], fileEntries[index].getFile().getAttributes());
}

class WithheldAttributesTest : public FolderListingTest {
protected:
    WithheldAttributesTest() : FolderListingTest({.ignorePattern = false, .withholdAttributes = true}) {}
};

INSTANTIATE_TEST_SUITE_P(Providers, WithheldAttributesTest, testing::Values("file", "mem"), vfs_test::schemeName);

TEST_P(WithheldAttributesTest, EntriesFetchWhatTheListingDidNotBring)
{
    buildSample();
    std::vector<FileEntry> files;
    for (const FileEntry& entry : work.root().listFileEntries(u""))
        files.push_back(entry);
    std::vector<FolderEntry> folders;
    for (const FolderEntry& entry : work.root().listFolderEntries(u""))
        folders.push_back(entry);
    ASSERT_EQ(files.size(), 2u);
    ASSERT_EQ(folders.size(), 2u);

    layers().calls->reset();
    EXPECT_EQ(files[0].getAttributes().getSize() + files[1].getAttributes().getSize(), 3u);
    files[0].getAttributes();
    folders[1].getAttributes();
    EXPECT_EQ(layers().calls->count(ProviderOperation::GetFileAttributes), 2u);
    EXPECT_EQ(layers().calls->count(ProviderOperation::GetFolderAttributes), 1u);
}

TEST_P(FolderListingTest, ListingsAreReiterableAndIteratorsIndependent)
{
    buildSample();
    const FolderListing<ListEntry> listing = work.root().listAll(u"");
    ASSERT_FALSE(listing.empty());

    // Each begin() is a fresh pass; a pass never consumes the listing.
    auto first = listing.begin();
    const ustring firstName = first->getName();
    ++first;
    const ustring secondName = first->getName();
    EXPECT_NE(firstName, secondName);
    auto again = listing.begin();
    EXPECT_EQ(again->getName(), firstName);
    EXPECT_EQ(std::distance(listing.begin(), listing.end()), 4);
    EXPECT_EQ(std::distance(listing.begin(), listing.end()), 4);

    // A copy equals its original until either moves, and then moves alone.
    auto copy = first;
    EXPECT_TRUE(copy == first);
    ++copy;
    EXPECT_FALSE(copy == first);
    EXPECT_EQ(first->getName(), secondName);
    const auto before = first++;
    EXPECT_EQ(before->getName(), secondName);
    EXPECT_NE(first->getName(), secondName);

    // Two passes standing on the same child by separate steps are not the same position.
    EXPECT_TRUE(listing.begin() == listing.begin());
    auto left = listing.begin();
    auto right = listing.begin();
    ++left;
    ++right;
    EXPECT_EQ(left->getName(), right->getName());
    EXPECT_FALSE(left == right);

    // Past the last child, an iterator stays at the end.
    auto it = listing.begin();
    for (int step = 0; step < 4; ++step)
        ++it;
    EXPECT_TRUE(it == listing.end());
    ++it;
    EXPECT_TRUE(it == listing.end());
    EXPECT_THROW(*it, std::logic_error);
    EXPECT_THROW(*listing.end(), std::logic_error);

    // Copies of a listing share it.
    const FolderListing<ListEntry> shared = listing;
    EXPECT_EQ(shared.begin()->getName(), firstName);
}

TEST_P(FolderListingTest, EmptyAndDefaultListings)
{
    const Folder empty = work.folder(u"empty");
    empty.createFolder();
    const auto files = empty.listFiles(u"");
    EXPECT_TRUE(files.empty());
    EXPECT_TRUE(files.begin() == files.end());
    EXPECT_TRUE(empty.listAllEntries(u"").empty());

    // Children of the other kind do not count.
    work.file(u"empty/only-a-file").createFile();
    EXPECT_TRUE(empty.listFolderEntries(u"").empty());
    EXPECT_FALSE(empty.listFileEntries(u"").empty());

    const FolderListing<File> none;
    EXPECT_TRUE(none.empty());
    EXPECT_TRUE(none.begin() == none.end());
    const FolderListingIterator<File> singular;
    EXPECT_TRUE(singular == FolderListingIterator<File>());
    EXPECT_FALSE(singular == files.end());
    EXPECT_FALSE(files.begin() == singular);
    FolderListingIterator<File> copyOfSingular = singular;
    EXPECT_TRUE(copyOfSingular == singular);
    EXPECT_THROW(*copyOfSingular, std::logic_error);
    EXPECT_THROW(++copyOfSingular, std::logic_error);
}

TEST_P(FolderListingTest, AFolderThatCannotBeListedFailsInTheListCall)
{
    buildSample();
    const Folder missing = work.folder(u"missing");
    const Folder notAFolder = work.folder(u"a.txt");
    for (const Folder& folder : {missing, notAFolder}) {
        EXPECT_EQ(codeOf([&] { folder.listAll(u""); }), ErrorCode::ResourceNotFound);
        EXPECT_EQ(codeOf([&] { folder.listAllEntries(u""); }), ErrorCode::ResourceNotFound);
        EXPECT_EQ(codeOf([&] { folder.listFiles(u"*"); }), ErrorCode::ResourceNotFound);
        EXPECT_EQ(codeOf([&] { folder.listFileEntries(u""); }), ErrorCode::ResourceNotFound);
        EXPECT_EQ(codeOf([&] { folder.listFolders(u""); }), ErrorCode::ResourceNotFound);
        EXPECT_EQ(codeOf([&] { folder.listFolderEntries(u"x?"); }), ErrorCode::ResourceNotFound);
    }
}

} // namespace
