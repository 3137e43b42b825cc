#include <Prelude.hpp>

#include <sys/stat.h>

namespace {

using Names = std::vector<ustring>;

template <class Call>
ErrorCode codeOf(Call&& call)
{
    return vfs_test::inspectThrown<vfs::Exception>(std::forward<Call>(call),
                                                   [](const vfs::Exception& error) { return error.getErrorCode(); });
}

Names treeOf(const vfs::Folder& folder)
{
    const ustring prefix = folder.getLocation().toString() + u"/";
    Names names;
    for (const vfs::ListEntry& entry : folder.listAllRecursive(u""))
        names.push_back(entry.getLocation().toString().substr(prefix.size()));
    return vfs_test::sorted(names);
}

// Removes each file twice, so that the second removal meets a file that has already gone.
class VanishingFiles : public provider::decorators::ProviderDecorator {
public:
    using ProviderDecorator::ProviderDecorator;
    void doRemoveFile(const provider::StorageIRI& location) const override
    {
        ProviderDecorator::doRemoveFile(location);
        ProviderDecorator::doRemoveFile(location);
    }
};

// Asks for four transfers at once, as a remote storage does, so that tree copies take that path.
class ParallelTransfers : public provider::decorators::ProviderDecorator {
public:
    using ProviderDecorator::ProviderDecorator;
    provider::ProviderCapabilities capabilities() const override
    {
        auto capabilities = ProviderDecorator::capabilities();
        capabilities.parallelTransfers = 4;
        return capabilities;
    }
};

// The flag hides the provider's own recursive removal and listing, and has files copied four at
// once (under ThreadSanitizer in CI).
class FolderCopyTest : public vfs_test::OnEachSchemeAndFlag {
protected:
    FolderCopyTest()
        : OnEachSchemeAndFlag(flag() ? std::set{ExtendedFeature::RecursiveRemoval, ExtendedFeature::RecursiveListing}
                                     : std::set<ExtendedFeature>{},
                              flag() ? DecoratedStorage::Wrap([](auto inner) { return std::make_shared<ParallelTransfers>(inner); })
                                     : DecoratedStorage::Wrap())
    {
    }

    // src/{f (3 bytes), sub/{g}, empty/}; sub dated 2001.
    void SetUp() override
    {
        work.folder(u"src/sub").createFolderRecursive();
        work.folder(u"src/empty").createFolder();
        work.file(u"src/f").createFile();
        work.file(u"src/f").truncateToSize(3);
        work.file(u"src/sub/g").createFile();
        work.folder(u"src/sub").setLastModified(subTime);
    }

    const ptime subTime = time_from_string("2001-02-03 04:05:06");
    const vfs::Folder src = work.folder(u"src");
    const Names srcTree{u"empty", u"f", u"sub", u"sub/g"};
};

INSTANTIATE_TEST_SUITE_P(Providers, FolderCopyTest, vfs_test::eachSchemeAndFlag(),
                         vfs_test::schemeAndFlagName("native", "library_parallel"));

TEST_P(FolderCopyTest, NeverIntoItsOwnTree)
{
    for (const ustring target : {u"src/sub/inner", u"src"}) {
        EXPECT_EQ(codeOf([&] { src.copyFolder(work.folder(target), ReplacementPolicy::MergeFolders); }),
                  ErrorCode::InvalidLocation);
        EXPECT_EQ(treeOf(src), srcTree);
    }
}

TEST_P(FolderCopyTest, PoliciesMeetAnExistingDestination)
{
    // d/{f (1 byte), extra}
    const auto prepare = [&](const ustring& name) {
        const vfs::Folder destination = work.folder(name);
        destination.createFolder();
        work.file(name + u"/f").createFile();
        work.file(name + u"/f").truncateToSize(1);
        work.file(name + u"/extra").createFile();
        return destination;
    };
    EXPECT_EQ(codeOf([&] { src.copyFolder(prepare(u"d0"), ReplacementPolicy::FailIfExists); }),
              ErrorCode::ResourceAlreadyExists);
    EXPECT_EQ(codeOf([&] { src.copyFolder(prepare(u"d1"), ReplacementPolicy::Replace); }), ErrorCode::FolderNotEmpty);

    src.copyFolder(prepare(u"d2"), ReplacementPolicy::MergeFolders);
    EXPECT_EQ(treeOf(work.folder(u"d2")), (Names{u"empty", u"extra", u"f", u"sub", u"sub/g"}));
    EXPECT_EQ(work.file(u"d2/f").getAttributes().getSize(), 3u);

    // A newer target file is kept (d4/f), an older one replaced (d4/sub/g, 1 byte from 2000).
    const vfs::Folder d4 = prepare(u"d4");
    work.folder(u"d4/sub").createFolder();
    work.file(u"d4/sub/g").createFile();
    work.file(u"d4/sub/g").truncateToSize(1);
    work.file(u"d4/sub/g").setLastModified(boost::posix_time::time_from_string("2000-01-01 00:00:00"));
    src.copyFolder(d4, ReplacementPolicy::ReplaceIfNewer);
    EXPECT_EQ(work.file(u"d4/f").getAttributes().getSize(), 1u);
    EXPECT_EQ(work.file(u"d4/sub/g").getAttributes().getSize(), 0u);

    // Permission failures are put aside and reported together once the rest is copied.
    faults().addFault({ProviderOperation::CopyFile, provider::StorageIRI(work.location(u"src/sub/g").toString()),
                       provider::ErrorCode::PermissionDenied});
    const auto collected = vfs_test::inspectThrown<vfs::Exception>(
        [&] { src.copyFolder(prepare(u"d3"), ReplacementPolicy::MergeCollectingFailures); },
        [](const vfs::Exception& error) {
            const auto* all = boost::get_error_info<vfs::CollectedCopyFailures>(error);
            return all ? all->size() : 0u;
        });
    EXPECT_EQ(collected, 1u);
    EXPECT_EQ(work.file(u"d3/f").getAttributes().getSize(), 3u);
    EXPECT_FALSE(work.file(u"d3/sub/g").fileExists());
}

TEST_P(FolderCopyTest, ObserversAndBoundariesSteerCopyAndRemoval)
{
    vfs::TreeProgress last;
    const auto follow = [&](const vfs::TreeProgress& progress) {
        last = progress;
        return true;
    };
    ASSERT_TRUE(src.copyFolder(work.folder(u"d"), ReplacementPolicy::FailIfExists, follow));
    EXPECT_EQ(std::tie(last.files, last.folders, last.bytes), std::make_tuple(2u, 3u, 3u));
    EXPECT_EQ(treeOf(work.folder(u"d")), srcTree);
    EXPECT_EQ(work.file(u"d/f").getAttributes().getSize(), 3u);
    EXPECT_EQ(work.folder(u"d/sub").getAttributes().getLastModified(), subTime);

    // Stopped as the bytes of f arrive: f is not left behind half-made, nothing after it is copied
    // (copies under way on other threads end whole or leave nothing).
    EXPECT_FALSE(src.copyFolder(work.folder(u"e"), ReplacementPolicy::FailIfExists,
                                [](const vfs::TreeProgress& progress) { return progress.bytes == 0; }));
    if (!flag()) {
        EXPECT_FALSE(work.file(u"e/f").fileExists());
        EXPECT_LT(treeOf(work.folder(u"e")).size(), srcTree.size());
    } else if (work.file(u"e/f").fileExists()) {
        EXPECT_EQ(work.file(u"e/f").getAttributes().getSize(), 3u);
    }
    EXPECT_EQ(treeOf(src), srcTree);

    // A removal stopped after two entries leaves the other two.
    EXPECT_FALSE(work.folder(u"d").removeFolder(vfs::FolderRemovalPolicy::Recursive,
                                                [](const vfs::TreeProgress& progress) {
                                                    return progress.files + progress.folders < 2;
                                                }));
    EXPECT_EQ(treeOf(work.folder(u"d")).size(), 2u);
    EXPECT_TRUE(work.folder(u"d").removeFolder(vfs::FolderRemovalPolicy::Recursive, follow));
    EXPECT_FALSE(work.folder(u"d").folderExists());
    EXPECT_EQ(last.files + last.folders, 3u); // what was left, and d itself

    // A boundary keeps sub out: a copy makes it empty, a removal leaves it and the folders above it.
    const vfs::TreeBoundary notSub = [](const vfs::Folder& folder) { return folder.getName() != u"sub"; };
    ASSERT_TRUE(src.copyFolder(work.folder(u"b"), ReplacementPolicy::FailIfExists, {}, vfs::LinkHandling::Follow, notSub));
    EXPECT_EQ(treeOf(work.folder(u"b")), (Names{u"empty", u"f", u"sub"}));
    EXPECT_TRUE(src.removeFolder(vfs::FolderRemovalPolicy::Recursive, {}, notSub));
    EXPECT_EQ(treeOf(src), (Names{u"sub", u"sub/g"}));
}

TEST(FolderRemovalTest, FilesVanishingMeanwhileCountAsRemoved)
{
    for (const std::string scheme : {"file", "mem"}) {
        vfs_test::DecoratedStorage storage({ExtendedFeature::RecursiveRemoval}, [](auto inner) {
            return std::make_shared<VanishingFiles>(std::move(inner));
        });
        vfs_test::WorkingFolder work{scheme, storage.ref};
        work.folder(u"t/a").createFolderRecursive();
        work.file(u"t/a/b").createFile();
        work.folder(u"t").removeFolder(vfs::FolderRemovalPolicy::Recursive);
        EXPECT_FALSE(work.folder(u"t").folderExists()) << scheme;
    }
}

// Links: removal never follows one out of the tree, and a copy that a link leads back above the
// destination fails instead of copying the copy.
TEST(LocalFolderTreeTest, LinksLeadNowhereOutsideTheTree)
{
    for (const bool library : {false, true}) {
        vfs_test::DecoratedStorage storage(library ? std::set<ExtendedFeature>{ExtendedFeature::RecursiveRemoval}
                                                   : std::set<ExtendedFeature>{});
        vfs_test::WorkingFolder work{"file", storage.ref};
        const auto disk = work.localDir()->path();
        work.folder(u"outside").createFolder();
        work.folder(u"t/a").createFolderRecursive();
        work.file(u"outside/keep").createFile();
        work.file(u"t/a/f").createFile();
        std::filesystem::create_directory_symlink(disk / "outside", disk / "t/a/to-folder");
        std::filesystem::create_symlink(disk / "outside/keep", disk / "t/to-file");
        std::filesystem::create_directory_symlink("..", disk / "t/a/loop");
        std::filesystem::create_symlink(disk / "nowhere", disk / "t/a/broken");
        ASSERT_EQ(::mkfifo((disk / "t/a/fifo").c_str(), 0600), 0);
        work.folder(u"t").removeFolder(vfs::FolderRemovalPolicy::Recursive);
        EXPECT_FALSE(std::filesystem::exists(disk / "t")) << library;
        EXPECT_TRUE(std::filesystem::exists(disk / "outside/keep")) << library;

        work.folder(u"s").createFolder();
        std::filesystem::create_directory_symlink(disk, disk / "s/up");
        const auto contexts = vfs_test::inspectThrown<vfs::Exception>(
            [&] { work.folder(u"s").copyFolder(work.folder(u"d"), ReplacementPolicy::FailIfExists); },
            [](const vfs::Exception& error) { return error.getExceptionContextsString(); });
        EXPECT_EQ(contexts, u"circular_symlink");
    }

    // A copy follows links, keeps them with their target text, or leaves them out; a storage that
    // cannot hold links fails each one.
    vfs_test::DecoratedStorage storage;
    vfs_test::WorkingFolder work{"file", storage.ref};
    const auto disk = work.localDir()->path();
    work.folder(u"t/sub").createFolderRecursive();
    work.file(u"t/sub/f").createFile();
    std::filesystem::create_symlink("sub/f", disk / "t/rel");
    std::filesystem::create_directory_symlink(disk / "t/sub", disk / "t/abs");
    std::filesystem::create_symlink("nowhere", disk / "t/broken");
    const auto kind = [](const std::filesystem::path& path) -> std::string {
        const auto status = std::filesystem::symlink_status(path);
        if (std::filesystem::is_symlink(status))
            return "->" + std::filesystem::read_symlink(path).string();
        return std::filesystem::is_directory(status) ? "folder" : std::filesystem::exists(status) ? "file" : "-";
    };
    const struct {
        vfs::LinkHandling links;
        std::vector<std::string> kinds; // of rel, abs, broken
    } rows[] = {
        {vfs::LinkHandling::Follow, {"file", "folder", "-"}},
        {vfs::LinkHandling::Keep, {"->sub/f", "->" + (disk / "t/sub").string(), "->nowhere"}},
        {vfs::LinkHandling::Skip, {"-", "-", "-"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.links));
        const auto copy = disk / "copy";
        std::filesystem::remove_all(copy);
        EXPECT_TRUE(work.folder(u"t").copyFolder(work.folder(u"copy"), ReplacementPolicy::FailIfExists, {}, row.links));
        EXPECT_EQ((std::vector{kind(copy / "rel"), kind(copy / "abs"), kind(copy / "broken")}), row.kinds);
        EXPECT_EQ(kind(copy / "sub/f"), "file");
    }
    // Merging again replaces the links that are there.
    std::filesystem::remove(disk / "copy/rel");
    std::filesystem::create_symlink("elsewhere", disk / "copy/rel");
    work.folder(u"t").copyFolder(work.folder(u"copy"), ReplacementPolicy::MergeFolders, {}, vfs::LinkHandling::Keep);
    EXPECT_EQ(kind(disk / "copy/rel"), "->sub/f");
    const vfs::Folder memory(AbsoluteIRI(u"mem://links/copy"), storage.ref);
    EXPECT_EQ(codeOf([&] {
                  work.folder(u"t").copyFolder(memory, ReplacementPolicy::FailIfExists, {}, vfs::LinkHandling::Keep);
              }),
              ErrorCode::UnsupportedOperation);
    const auto collected = vfs_test::inspectThrown<vfs::Exception>(
        [&] { work.folder(u"t").copyFolder(memory, ReplacementPolicy::MergeCollectingFailures, {}, vfs::LinkHandling::Keep); },
        [](const vfs::Exception& error) { return boost::get_error_info<vfs::CollectedCopyFailures>(error)->size(); });
    EXPECT_EQ(collected, 3u);
    EXPECT_TRUE(vfs::File(memory, u"sub/f").fileExists());
}

} // namespace
