#include <Prelude.hpp>

namespace {

using provider::CaseModifier;
using vfs::FolderRemovalPolicy;

const ptime older = time_from_string("2001-02-03 04:05:06");

constexpr auto codeOf = [](auto&& call) { return vfs_test::libraryErrorOf(call); };

// Builds the files (and the folders on their way) named relative to `work`'s root; a name ending in
// '/' is an empty folder.
void build(const WorkingFolder& work, const std::vector<ustring>& paths)
{
    for (const ustring& path : paths) {
        if (path.ends_with(u'/')) {
            work.folder(path).createFolderRecursive();
            continue;
        }
        const File file = work.file(path);
        file.getParent().createFolderRecursive();
        file.createFile();
        file.truncateToSize(path.size());
        file.setLastModified(older);
    }
}

// What is below `folder`, as sorted relative paths (folders with a trailing '/'), read through the
// library's listings.
std::vector<ustring> treeOf(const Folder& folder, const ustring& prefix = {})
{
    std::vector<ustring> found;
    for (const auto& entry : folder.listAllEntries(u"")) {
        if (const auto* file = boost::get<vfs::FileEntry>(&entry)) {
            found.push_back(prefix + file->getName());
            continue;
        }
        const auto& sub = boost::get<vfs::FolderEntry>(entry);
        found.push_back(prefix + sub.getName() + u"/");
        for (ustring& below : treeOf(sub.getFolder(), prefix + sub.getName() + u"/"))
            found.push_back(std::move(below));
    }
    std::sort(found.begin(), found.end());
    return found;
}

class FolderTest : public vfs_test::OnEachScheme {};
INSTANTIATE_TEST_SUITE_P(Providers, FolderTest, testing::Values("file", "mem"), vfs_test::schemeName);

// Recursive removal on each provider, with its own recursive removal and (flag set) the library's.
class RecursiveRemovalTest : public vfs_test::OnEachSchemeAndFlag {
protected:
    RecursiveRemovalTest() : OnEachSchemeAndFlag(flag() ? std::set{ExtendedFeature::RecursiveRemoval} : std::set<ExtendedFeature>{}) {}
};

INSTANTIATE_TEST_SUITE_P(Branches, RecursiveRemovalTest, vfs_test::eachSchemeAndFlag(),
                         vfs_test::schemeAndFlagName("native", "library"));

TEST_P(RecursiveRemovalTest, RemovesTheWholeTreeAndNothingBeside)
{
    build(work, {u"tree/f1", u"tree/b/f2", u"tree/b/c/", u"tree/d/e/f3", u"tree.keep/f", u"tree.txt", u"keep/g"});
    const auto& calls = storage.layers(scheme()).calls;
    calls->reset();

    work.folder(u"tree").removeFolder(FolderRemovalPolicy::Recursive);

    if (!flag()) {
        EXPECT_EQ(calls->count(ProviderOperation::RemoveFolderRecursively), 1u);
        EXPECT_EQ(calls->count(ProviderOperation::List), 0u);
    } else {
        EXPECT_EQ(calls->count(ProviderOperation::RemoveFolderRecursively), 0u);
        EXPECT_EQ(calls->count(ProviderOperation::RemoveFile), 3u);
        EXPECT_EQ(calls->count(ProviderOperation::RemoveFolder), 5u);
    }
    EXPECT_FALSE(work.folder(u"tree").folderExists());
    EXPECT_EQ(treeOf(work.root()), (std::vector<ustring>{u"keep/", u"keep/g", u"tree.keep/", u"tree.keep/f", u"tree.txt"}));

    // A root that is not there is an error in either branch; an empty one just goes.
    EXPECT_EQ(codeOf([&] { work.folder(u"tree").removeFolder(FolderRemovalPolicy::Recursive); }),
              ErrorCode::ResourceNotFound);
    build(work, {u"empty/"});
    work.folder(u"empty").removeFolder(FolderRemovalPolicy::Recursive);
    EXPECT_FALSE(work.folder(u"empty").folderExists());
}

TEST_P(FolderTest, MovesNativelyWithinASchemeAndMergesThroughTheFallback)
{
    build(work, {u"a/f", u"a/sub/g", u"b/h", u"c/"});
    const Folder a = work.folder(u"a");
    const Folder b = work.folder(u"b");

    EXPECT_EQ(codeOf([&] { a.moveFolder(b, ReplacementPolicy::FailIfExists); }), ErrorCode::ResourceAlreadyExists);
    EXPECT_EQ(codeOf([&] { a.moveFolder(b, ReplacementPolicy::Replace); }), ErrorCode::FolderNotEmpty);
    EXPECT_EQ(treeOf(work.root()),
              (std::vector<ustring>{u"a/", u"a/f", u"a/sub/", u"a/sub/g", u"b/", u"b/h", u"c/"}));

    // Merging into a non-empty folder is the library's: copy, then remove the source.
    a.moveFolder(b, ReplacementPolicy::MergeFolders);
    EXPECT_EQ(treeOf(work.root()), (std::vector<ustring>{u"b/", u"b/f", u"b/h", u"b/sub/", u"b/sub/g", u"c/"}));
    EXPECT_EQ(work.file(u"b/sub/g").getAttributes().getLastModified(), older);
    EXPECT_EQ(a.getLocation(), work.location(u"a")); // the handle keeps its location

    // A plain rename, and Replace over an empty folder.
    b.moveFolder(work.folder(u"d"), ReplacementPolicy::FailIfExists);
    work.folder(u"d").moveFolder(work.folder(u"c"), ReplacementPolicy::Replace);
    EXPECT_EQ(treeOf(work.root()), (std::vector<ustring>{u"c/", u"c/f", u"c/h", u"c/sub/", u"c/sub/g"}));
}

TEST(FolderMoveTest, FallbackCopyFailureRemovesNothingAndIsReportedLastWhenCollecting)
{
    for (const auto policy : {ReplacementPolicy::MergeFolders, ReplacementPolicy::MergeCollectingFailures}) {
        vfs_test::DecoratedStorage storage;
        const WorkingFolder work("mem", storage.ref);
        build(work, {u"a/f1", u"a/f2", u"c/x"});
        const auto& faults = storage.layers(u"mem").faults;
        faults->addFault({ProviderOperation::CopyFile, vfs::detail::IRIAccess::storageIRI(work.location(u"a/f1")),
                          provider::ErrorCode::PermissionDenied});

        EXPECT_EQ(codeOf([&] { work.folder(u"a").moveFolder(work.folder(u"c"), policy); }), ErrorCode::PermissionDenied);
        faults->clearFaults();
        EXPECT_EQ(treeOf(work.folder(u"a")), (std::vector<ustring>{u"f1", u"f2"}));
        EXPECT_FALSE(work.file(u"c/f1").fileExists());
        // Only the collecting policy goes on past the failure.
        if (policy == ReplacementPolicy::MergeCollectingFailures) {
            EXPECT_TRUE(work.file(u"c/f2").fileExists());
        }
    }
}

TEST(FolderMoveTest, ProviderThatCannotMoveIsReplacedByCopyAndDelete)
{
    vfs_test::DecoratedStorage storage;
    const WorkingFolder work("mem", storage.ref);
    build(work, {u"a/f", u"a/sub/g"});
    storage.layers(u"mem").faults->addFault(
        {ProviderOperation::MoveFolder, std::nullopt, provider::ErrorCode::UnsupportedOperation});

    work.folder(u"a").moveFolder(work.folder(u"c"), ReplacementPolicy::FailIfExists);
    EXPECT_EQ(treeOf(work.root()), (std::vector<ustring>{u"c/", u"c/f", u"c/sub/", u"c/sub/g"}));
    EXPECT_EQ(work.file(u"c/sub/g").getAttributes().getLastModified(), older);
}

TEST(FolderMoveTest, FallbackFollowsLinksButRefusesOneLeadingBackIntoTheTree)
{
    vfs_test::DecoratedStorage storage;
    const WorkingFolder work("file", storage.ref);
    const auto& dir = *work.localDir();
    dir.writeFile("outside/o", "o");
    dir.writeFile("a/sub/f", "f");
    dir.writeFile("c/x", "x");
    std::filesystem::create_directory_symlink(dir / "outside", dir / "a/toOutside");

    // A merge over a non-empty folder is the library's copy: the link's target is copied as a folder.
    work.folder(u"a").moveFolder(work.folder(u"c"), ReplacementPolicy::MergeFolders);
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "c/toOutside/o"));
    EXPECT_FALSE(std::filesystem::is_symlink(dir / "c/toOutside"));
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "outside/o"));
    EXPECT_FALSE(std::filesystem::exists(dir / "a"));

    dir.writeFile("b/sub/f", "f");
    std::filesystem::create_directory_symlink(dir / "b", dir / "b/sub/loop");
    const auto contexts = vfs_test::inspectThrown<vfs::Exception>(
        [&] { work.folder(u"b").moveFolder(work.folder(u"c"), ReplacementPolicy::MergeFolders); },
        [](const vfs::Exception& error) {
            EXPECT_EQ(error.getErrorCode(), ErrorCode::InvalidLocation);
            return error.getExceptionContextsString();
        });
    EXPECT_EQ(contexts, u"circular_symlink");
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "b/sub/f"));
    EXPECT_TRUE(std::filesystem::is_symlink(dir / "b/sub/loop"));
}

TEST(FolderMoveTest, AcrossSchemesCopiesThenRemovesWithoutAskingTheProviderToMove)
{
    vfs_test::DecoratedStorage storage;
    const WorkingFolder memory("mem", storage.ref);
    const WorkingFolder disk("file", storage.ref);
    build(memory, {u"tree/a/b/", u"tree/c/"});

    memory.folder(u"tree").moveFolder(disk.folder(u"tree"), ReplacementPolicy::FailIfExists);
    EXPECT_FALSE(memory.folder(u"tree").folderExists());
    EXPECT_EQ(treeOf(disk.root()), (std::vector<ustring>{u"tree/", u"tree/a/", u"tree/a/b/", u"tree/c/"}));

    // A file that cannot be written on the other side fails the move, and the source stays whole.
    build(memory, {u"withFile/x/f"});
    const auto fault = storage.layers(u"file").faults->addFault(
        {.operation = ProviderOperation::StreamClose, .code = provider::ErrorCode::NoSpaceLeft});
    EXPECT_EQ(codeOf([&] { memory.folder(u"withFile").moveFolder(disk.folder(u"withFile"), ReplacementPolicy::Replace); }),
              ErrorCode::NoSpaceLeft);
    EXPECT_EQ(treeOf(memory.root()), (std::vector<ustring>{u"withFile/", u"withFile/x/", u"withFile/x/f"}));
    storage.layers(u"file").faults->removeFault(fault);
    // The failed attempt left the folders on the disk; merging completes the move.
    memory.folder(u"withFile").moveFolder(disk.folder(u"withFile"), ReplacementPolicy::MergeFolders);
    EXPECT_TRUE(disk.file(u"withFile/x/f").fileExists());

    EXPECT_EQ(storage.layers(u"mem").calls->count(ProviderOperation::MoveFolder), 0u);
    EXPECT_EQ(storage.layers(u"file").calls->count(ProviderOperation::MoveFolder), 0u);
}

template <class Handle>
class HandleValueTest : public testing::Test {};
using Handles = testing::Types<File, Folder>;
TYPED_TEST_SUITE(HandleValueTest, Handles);

TYPED_TEST(HandleValueTest, EqualByLocationAloneWhileCopiesAndSwapsCarryStorageAndCanonicalFlag)
{
    using Handle = TypeParam;
    vfs_test::DecoratedStorage first, second;
    const Handle a1(AbsoluteIRI(u"mem://v/a"), first.ref);
    const Handle a2(AbsoluteIRI(u"mem://v/a"), second.ref);
    const Handle b2(AbsoluteIRI(u"mem://v/b"), second.ref);
    EXPECT_TRUE(a1 == a2);
    EXPECT_FALSE(a1 != a2);
    EXPECT_TRUE(a1 != b2);
    EXPECT_TRUE(a1 < b2);
    EXPECT_FALSE(b2 < a1 || a1 < a2);

    Handle x(CanonicalAbsoluteIRI(u"mem://v/x"), first.ref);
    Handle y(AbsoluteIRI(u"mem://v/y"), second.ref);
    if constexpr (std::is_same_v<Handle, File>)
        y.createFile();
    else
        y.createFolder();
    x.swap(y);
    EXPECT_EQ(x.getLocation(), AbsoluteIRI(u"mem://v/y"));
    EXPECT_EQ(y.getLocation(), AbsoluteIRI(u"mem://v/x"));
    EXPECT_TRUE(x.getStorageSystem() == first.ref);
    EXPECT_TRUE(y.getStorageSystem() == second.ref);
    // The canonical flag stays too: x still answers without the provider, y asks (and x is missing).
    EXPECT_EQ(x.getCanonicalLocation(), AbsoluteIRI(u"mem://v/y"));
    EXPECT_EQ(codeOf([&] { y.getCanonicalLocation(); }), ErrorCode::ResourceNotFound);

    Handle copy(y);
    copy = x;
    EXPECT_TRUE(copy.getStorageSystem() == first.ref);
    EXPECT_EQ(copy.getCanonicalLocation(), AbsoluteIRI(u"mem://v/y"));

    std::ostringstream text;
    text << Handle(AbsoluteIRI(u"mem://v/caf\u00e9 1/"), first.ref);
    EXPECT_EQ(text.str(), "mem://v/caf\xc3\xa9%201");
}

TEST(HandleChildTest, ChildrenAndParentsShareTheStorageSystemAndEscapingNamesAreRefused)
{
    vfs_test::DecoratedStorage first, second;
    const Folder root(AbsoluteIRI(u"mem://v/"), first.ref);
    EXPECT_FALSE(root.hasParent());
    EXPECT_EQ(root.getParent(), root);
    const Folder child(root, u"p/q");
    EXPECT_TRUE(child.hasParent());
    EXPECT_EQ(child.getName(), u"q");
    EXPECT_EQ(child.getParent(), Folder(AbsoluteIRI(u"mem://v/p"), second.ref));
    EXPECT_TRUE(child.getParent().getStorageSystem() == first.ref);

    const File file(child, u"x/y.txt");
    EXPECT_EQ(file.getLocation(), AbsoluteIRI(u"mem://v/p/q/x/y.txt"));
    EXPECT_EQ(file.getName(), u"y.txt");
    EXPECT_TRUE(file.getStorageSystem() == first.ref);
    EXPECT_EQ(file.getParent(), Folder(child, u"x"));
    EXPECT_TRUE(file.getParent().getStorageSystem() == first.ref);
    EXPECT_EQ(codeOf([&] { Folder(root, u"../up"); }), ErrorCode::InvalidLocation);
    for (const ustring& bad : {ustring(u""), ustring(u"/etc/passwd"), ustring(u"../out"), ustring(u"a\0b", 3)})
        EXPECT_EQ(codeOf([&] { File(root, bad); }), ErrorCode::InvalidLocation);
}

TEST(CanonicalHandleTest, ACanonicalHandleNeverAsksTheProviderButItsChildAndParentDo)
{
    vfs_test::DecoratedStorage storage;
    const WorkingFolder work("file", storage.ref);
    const auto& dir = *work.localDir();
    dir.makeFolder("real/inner");
    std::filesystem::create_directory_symlink(dir / "real", dir / "link");
    const auto& calls = storage.layers(u"file").calls;

    const Folder trusted(CanonicalAbsoluteIRI(work.location(u"link").toString()), storage.ref);
    calls->reset();
    EXPECT_EQ(trusted.getCanonicalLocation(), work.location(u"link"));
    EXPECT_EQ(calls->count(ProviderOperation::GetCanonicalLocation), 0u);

    const auto real = vfs::toCanonicalAbsoluteIRI(u"", dir / "real");
    EXPECT_EQ(Folder(work.location(u"link"), storage.ref).getCanonicalLocation(), real);
    EXPECT_EQ(Folder(trusted, u"inner").getCanonicalLocation(), AbsoluteIRI(real, u"inner"));
    EXPECT_EQ(Folder(trusted, u"inner").getParent().getCanonicalLocation(), real);
    EXPECT_EQ(calls->count(ProviderOperation::GetCanonicalLocation), 3u);

    // The same for files: taken as canonical they never ask; a child of a canonical folder does.
    dir.writeFile("real/file.txt", "x");
    calls->reset();
    const File trustedFile(CanonicalAbsoluteIRI(work.location(u"link/file.txt").toString()), storage.ref);
    EXPECT_EQ(trustedFile.getCanonicalLocation(), work.location(u"link/file.txt"));
    EXPECT_EQ(calls->count(ProviderOperation::GetCanonicalLocation), 0u);
    EXPECT_EQ(File(trusted, u"file.txt").getCanonicalLocation(), AbsoluteIRI(real, u"file.txt"));
    EXPECT_EQ(calls->count(ProviderOperation::GetCanonicalLocation), 1u);
    EXPECT_EQ(codeOf([&] { work.file(u"missing").getCanonicalLocation(); }), ErrorCode::ResourceNotFound);
}

TEST_P(FolderTest, PathComparatorIsTheStoragesOwn)
{
    // Code-unit order puts 'B' (0x42) before 'a' (0x61); folded, a comes first.
    const vfs::PathComparator less = work.root().getPathComparator();
    EXPECT_TRUE(less(u"B", u"a", CaseModifier::AsStorage));
    EXPECT_TRUE(less(u"a", u"B", CaseModifier::ForceCaseInsensitive));
}

TEST(PathComparatorTest, AnEmptyComparatorFailsAndTheCallablesFailuresAreTranslated)
{
    const vfs::PathComparator empty(nullptr);
    EXPECT_THROW(empty(u"a", u"b", CaseModifier::AsStorage), std::bad_function_call);
    const vfs::PathComparator failing([](const ustring&, const ustring&, CaseModifier) -> bool {
        provider::throwProviderError(provider::ErrorCode::ReadOnlyProvider, provider::StorageIRI(u"mem://v/x"));
    });
    EXPECT_EQ(codeOf([&] { failing(u"a", u"b", CaseModifier::AsStorage); }), ErrorCode::ReadOnlyProvider);
}

} // namespace
