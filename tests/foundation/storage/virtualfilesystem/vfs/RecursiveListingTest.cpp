#include <foundation/storage/vfs.hpp>

#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>

#include <DecoratedStorage.hpp>
#include <DepthFirst.hpp>
#include <ListingSupport.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;
using fl::i18n::ustring;
using provider::ExtendedFeature;
using provider::decorators::ProviderOperation;
using Entry = boost::variant<vfs::FileEntry, vfs::FolderEntry>;
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

// Scheme, and whether the provider's own recursive listing is used (otherwise the library walks).
class RecursiveListingTest : public testing::TestWithParam<std::tuple<std::string, bool>> {
protected:
    static bool native() { return std::get<1>(GetParam()); }
    static std::set<ExtendedFeature> hidden()
    {
        if (native())
            return {};
        return {ExtendedFeature::RecursiveListing, ExtendedFeature::FlatWildcardListing};
    }

    // r/{a/{x.txt, b.txt/{y.txt, z}}, docs/{in.txt}, c.txt}
    void SetUp() override
    {
        for (const ustring folder : {u"r/a/b.txt", u"r/docs"})
            work.folder(folder).createFolderRecursive();
        for (const ustring file : {u"r/a/x.txt", u"r/a/b.txt/y.txt", u"r/a/b.txt/z", u"r/docs/in.txt", u"r/c.txt"})
            work.file(file).createFile();
    }
    vfs::Folder tree() const { return work.folder(u"r"); }

    vfs_test::DecoratedStorage storage{hidden()};
    vfs_test::WorkingFolder work{std::get<0>(GetParam()), storage.ref};
};

INSTANTIATE_TEST_SUITE_P(Providers, RecursiveListingTest,
                         testing::Combine(testing::Values("file", "mem"), testing::Bool()), [](const auto& info) {
                             return std::get<0>(info.param) + (std::get<1>(info.param) ? "_native" : "_library");
                         });

TEST_P(RecursiveListingTest, WholeTreeDepthFirstWithoutTheRoot)
{
    const Names all{u"a", u"a/b.txt", u"a/b.txt/y.txt", u"a/b.txt/z", u"a/x.txt", u"c.txt", u"docs", u"docs/in.txt"};
    const auto names = tree().listAllRecursive(u"");
    EXPECT_EQ(vfs_test::sorted(inOrder(names, tree())), all);
    vfs_test::expectDepthFirst(inOrder(names, tree()));
    // Two passes give the same sequence; entries carry their kind.
    EXPECT_EQ(inOrder(names, tree()), inOrder(names, tree()));
    const auto entries = tree().listAllEntriesRecursive(u"");
    EXPECT_EQ(vfs_test::sorted(inOrder(entries, tree())), all);
    for (const Entry& entry : entries)
        EXPECT_EQ(entry.which() == 1, vfs::getName(entry) == u"a" || vfs::getName(entry) == u"docs" ||
                                          vfs::getName(entry).ends_with(u"b.txt"));

    const vfs::Folder empty = work.folder(u"r/empty");
    empty.createFolder();
    EXPECT_TRUE(empty.listAllRecursive(u"").empty());
    EXPECT_TRUE(empty.listAllEntriesRecursive(u"").begin() == empty.listAllEntriesRecursive(u"").end());
}

TEST_P(RecursiveListingTest, PatternMatchesBareNames)
{
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
    auto& faults = *storage.layers(fl::i18n::utf8_to_ustring(std::get<0>(GetParam()))).faults;
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
