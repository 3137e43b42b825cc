#include <Prelude.hpp>

namespace {

using vfs::FileOrFolder;

class FileOrFolderTest : public testing::TestWithParam<std::string> {
protected:
    vfs_test::DecoratedStorage storage;
    vfs_test::WorkingFolder work{GetParam(), storage.ref};
};

INSTANTIATE_TEST_SUITE_P(Providers, FileOrFolderTest, testing::Values("file", "mem"));

TEST_P(FileOrFolderTest, MixingKindsIsRefusedBeforeTheStorageIsAsked)
{
    const FileOrFolder file = work.file(u"f");
    const FileOrFolder folder = work.folder(u"d");
    vfs::getParent(file).listAll(u""); // binds the provider
    const auto& calls = *storage.layers(fl::i18n::utf8_to_ustring(GetParam())).calls;
    const auto before = calls.total();
    const auto message = [](auto&& call) { return vfs_test::whatOf<std::logic_error>(call); };
    EXPECT_EQ(message([&] { vfs::copy(file, folder, ReplacementPolicy::Replace); }), "Can't make a folder out of a file.");
    EXPECT_EQ(message([&] { vfs::copy(folder, file, ReplacementPolicy::Replace); }), "Can't make a file out of a folder.");
    EXPECT_EQ(message([&] { vfs::move(file, folder, ReplacementPolicy::Replace); }), "Can't change a file to a folder.");
    EXPECT_EQ(message([&] { vfs::move(folder, file, ReplacementPolicy::Replace); }), "Can't change a folder to a file.");
    EXPECT_EQ(calls.total(), before);
}

TEST_P(FileOrFolderTest, DispatchesToTheHeldKind)
{
    work.folder(u"d").createFolder();
    work.file(u"d/f").createFile();
    const FileOrFolder file = work.file(u"d/f");
    const FileOrFolder folder = work.folder(u"d");
    EXPECT_TRUE(vfs::exists(file));
    EXPECT_TRUE(vfs::exists(folder));
    EXPECT_FALSE(vfs::exists(FileOrFolder(work.folder(u"missing"))));
    EXPECT_FALSE(vfs::exists(FileOrFolder(work.folder(u"d/f")))); // a file is no folder
    EXPECT_EQ(vfs::getName(file), u"f");
    EXPECT_EQ(vfs::getParent(file), work.folder(u"d"));
    EXPECT_FALSE(vfs::isSymlink(folder));

    const auto time = boost::posix_time::time_from_string("2003-04-05 06:07:08");
    vfs::setLastModified(folder, time);
    EXPECT_EQ(vfs::getLastModified(folder), time);

    vfs::copy(file, FileOrFolder(work.file(u"d/g")), ReplacementPolicy::FailIfExists);
    vfs::copy(folder, FileOrFolder(work.folder(u"e")), ReplacementPolicy::FailIfExists);
    EXPECT_TRUE(work.file(u"e/g").fileExists());

    // The policy means nothing to a file.
    vfs::remove(file, vfs::FolderRemovalPolicy::Recursive);
    EXPECT_FALSE(work.file(u"d/f").fileExists());
    EXPECT_TRUE(work.file(u"d/g").fileExists());
}

TEST_P(FileOrFolderTest, MakingOneAsksTheStorageWhatIsThere)
{
    work.file(u"f").createFile();
    EXPECT_EQ(vfs::makeFileOrFolder(work.location(u"f"), storage.ref).which(), 0);
    EXPECT_EQ(vfs::makeFileOrFolder(work.root().getLocation(), storage.ref).which(), 1);
    EXPECT_EQ(vfs_test::inspectThrown<vfs::Exception>(
                  [&] { vfs::makeFileOrFolder(work.location(u"missing"), storage.ref); },
                  [](const vfs::Exception& error) { return error.getErrorCode(); }),
              vfs::ErrorCode::ResourceNotFound);

    // Entries name themselves without a handle, and force one for their location.
    const auto entries = work.root().listAllEntries(u"f");
    EXPECT_EQ(vfs::getName(*entries.begin()), u"f");
    EXPECT_EQ(vfs::getLocation(*entries.begin()), work.location(u"f"));
}

} // namespace
