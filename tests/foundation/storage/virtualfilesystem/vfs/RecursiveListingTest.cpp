#include <Prelude.hpp>

#include <DepthFirst.hpp>

namespace {

using Names = std::vector<ustring>;

// Names in listing order, as paths relative to the listed folder.
template <class T>
Names inOrder(const vfs::FolderListing<T>& listing, const vfs::Folder& root)
{
    const ustring prefix = root.getLocation().toString() + u"/";
    Names names;
    for (const T& element : listing) {
        ustring location;
        if constexpr (std::is_same_v<T, vfs::ListEntry>)
            location = element.getLocation().toString();
        else
            location = vfs::getLocation(element).toString();
        names.push_back(location.substr(prefix.size()));
    }
    return names;
}

// The flag hides the provider's own recursive listing, so that the library walks.
class RecursiveListingTest : public vfs_test::OnEachSchemeAndFlag {
protected:
    RecursiveListingTest()
        : OnEachSchemeAndFlag(flag() ? std::set{ExtendedFeature::RecursiveListing, ExtendedFeature::FlatWildcardListing}
                                     : std::set<ExtendedFeature>{})
    {
    }
    static bool native() { return !flag(); }

    // r/{a/{x.txt, b.txt/{y.txt, z}}, docs/{in.txt}, c.txt}
    void SetUp() override
    {
        for (const ustring folder : {u"r/a/b.txt", u"r/docs"})
            work.folder(folder).createFolderRecursive();
        for (const ustring file : {u"r/a/x.txt", u"r/a/b.txt/y.txt", u"r/a/b.txt/z", u"r/docs/in.txt", u"r/c.txt"})
            work.file(file).createFile();
    }
    vfs::Folder tree() const { return work.folder(u"r"); }
};

INSTANTIATE_TEST_SUITE_P(Providers, RecursiveListingTest, vfs_test::eachSchemeAndFlag(),
                         vfs_test::schemeAndFlagName("native", "library"));

TEST_P(RecursiveListingTest, PatternMatchesBareNames)
{
    vfs_test::expectDepthFirst(inOrder(tree().listAllRecursive(u""), tree()));
    const Names found = vfs_test::sorted(inOrder(tree().listAllRecursive(u"*.txt"), tree()));
    if (native()) // only the names are matched; every folder is entered
        EXPECT_EQ(found, (Names{u"a/b.txt", u"a/b.txt/y.txt", u"a/x.txt", u"c.txt", u"docs/in.txt"}));
    else // the library's walk enters only folders whose own names match
        EXPECT_EQ(found, (Names{u"c.txt"}));
    // A matching folder is entered either way.
    EXPECT_EQ(vfs_test::sorted(inOrder(work.folder(u"r/a").listAllEntriesRecursive(u"*.txt"), work.folder(u"r/a"))),
              (Names{u"b.txt", u"b.txt/y.txt", u"x.txt"}));
}

TEST_P(RecursiveListingTest, UnreadableOrVanishedSubfolderIsListedButNotEntered)
{
    if (native())
        GTEST_SKIP() << "the provider's own walk reads its folders below the decorators";
    auto& faults = this->faults();
    const std::vector<std::pair<provider::ErrorCode, bool>> cases{{provider::ErrorCode::PermissionDenied, true},
                                                                  {provider::ErrorCode::ResourceNotFound, true},
                                                                  {provider::ErrorCode::IOError, false}};
    for (const auto& [code, absorbed] : cases) {
        const auto fault =
            faults.addFault({ProviderOperation::List, provider::StorageIRI(work.location(u"r/a").toString()), code});
        if (absorbed) {
            const Names names = vfs_test::sorted(inOrder(tree().listAllRecursive(u""), tree()));
            EXPECT_EQ(names, (Names{u"a", u"c.txt", u"docs", u"docs/in.txt"}));
        } else {
            EXPECT_THROW(inOrder(tree().listAllEntriesRecursive(u""), tree()), vfs::Exception);
        }
        faults.removeFault(fault);
    }
    // The root's own failure is not absorbed.
    faults.addFault({ProviderOperation::List, provider::StorageIRI(tree().getLocation().toString()),
                     provider::ErrorCode::PermissionDenied});
    EXPECT_THROW(tree().listAllRecursive(u""), vfs::Exception);
}

// Links to folders: the provider's walk lists them but never enters them; the library's walk follows
// them and a loop ends (the kernel refuses an ever longer path through it) instead of running on.
TEST(LocalRecursiveListingTest, LinkLoopsEnd)
{
    for (const bool native : {true, false}) {
        vfs_test::DecoratedStorage storage(native ? std::set<ExtendedFeature>{}
                                                  : std::set<ExtendedFeature>{ExtendedFeature::RecursiveListing});
        vfs_test::WorkingFolder work{"file", storage.ref};
        work.folder(u"r/a").createFolderRecursive();
        work.file(u"r/a/f").createFile();
        std::filesystem::create_directory_symlink("..", work.localDir()->path() / "r/a/loop");
        Names names;
        try {
            for (const vfs::ListEntry& entry : work.folder(u"r").listAllRecursive(u""))
                names.push_back(entry.getName());
        } catch (const vfs::Exception& error) {
            EXPECT_FALSE(native) << error.what();
        }
        if (native)
            EXPECT_EQ(vfs_test::sorted(names), (Names{u"a", u"a/f", u"a/loop"}));
        else
            EXPECT_LT(names.size(), 1000u);
    }
}

} // namespace
