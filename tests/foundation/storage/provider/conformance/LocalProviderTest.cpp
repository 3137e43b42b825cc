// What only the local disk has: links, special files, permissions, the file://localhost form.

#include <ProviderHarness.hpp>
#include <Unprivileged.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <sys/stat.h>

namespace {

using namespace vfs_test;
using provider::ErrorCode;
using provider::ExistenceType;
using provider::ExistenceTypeExtended;

class LocalProviderTest : public testing::Test {
protected:
    StorageIRI at(const std::filesystem::path& path) const { return provider::toStorageIRI(u"", path); }

    TempDir dir;
    std::shared_ptr<provider::IProvider> local = provider::local::makeLocalProvider();
};

TEST_F(LocalProviderTest, ExistsExtendedReportsLinksAsLinksAndExistsFollowsThem)
{
    const auto file = dir.writeFile("target.txt", "x");
    const auto folder = dir.makeFolder("target-folder");
    std::filesystem::create_symlink(file, dir / "to-file");
    std::filesystem::create_directory_symlink(folder, dir / "to-folder");
    std::filesystem::create_symlink(dir / "nowhere", dir / "dangling");
    std::filesystem::create_symlink("to-file", dir / "to-link-to-file"); // a chain, relative target

    struct Case {
        const char* name;
        ExistenceTypeExtended extended;
        ExistenceType followed;
    };
    for (const Case& c : {Case{"to-file", ExistenceTypeExtended::LinkToFile, ExistenceType::File},
                          Case{"to-folder", ExistenceTypeExtended::LinkToFolder, ExistenceType::Folder},
                          Case{"to-link-to-file", ExistenceTypeExtended::LinkToFile, ExistenceType::File},
                          Case{"dangling", ExistenceTypeExtended::BrokenLink, ExistenceType::NotFound}}) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(local->existsExtended(at(dir / c.name)), c.extended);
        EXPECT_EQ(local->exists(at(dir / c.name)), c.followed);
    }
    // Through a link to a folder, the folder's content is reachable.
    dir.writeFile("target-folder/inside.txt");
    EXPECT_EQ(local->existsExtended(at(dir / "to-folder" / "inside.txt")), ExistenceTypeExtended::File);
}

TEST_F(LocalProviderTest, ALoopOfLinksIsABrokenLinkThatCannotBeFollowed)
{
    std::filesystem::create_symlink("loop-b", dir / "loop-a");
    std::filesystem::create_symlink("loop-a", dir / "loop-b");

    EXPECT_EQ(local->existsExtended(at(dir / "loop-a")), ExistenceTypeExtended::BrokenLink);
    const auto error = providerError([&] { local->exists(at(dir / "loop-a")); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->getErrorCode(), ErrorCode::InvalidLocation);
    EXPECT_THAT(contextKeys(*error), testing::ElementsAre("stat", "ELOOP"));
}

TEST_F(LocalProviderTest, SpecialFilesAreSpecialAndExistAsFiles)
{
    const auto fifo = dir / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::filesystem::create_symlink(fifo, dir / "to-fifo");

    EXPECT_EQ(local->existsExtended(at(fifo)), ExistenceTypeExtended::Special);
    EXPECT_EQ(local->exists(at(fifo)), ExistenceType::File);
    EXPECT_EQ(local->existsExtended(at(dir / "to-fifo")), ExistenceTypeExtended::LinkToFile);
    EXPECT_EQ(local->existsExtended(at("/dev/null")), ExistenceTypeExtended::Special);
    EXPECT_EQ(local->exists(at("/dev/null")), ExistenceType::File);
}

TEST_F(LocalProviderTest, PermissionDeniedCarriesTheFailingCallAndErrno)
{
    // As root the calls run in a child that has become nobody, which must be able to reach the
    // closed folder: /tmp is searchable by everyone and so is the folder made there.
    const TempDir reachable("/tmp");
    ASSERT_EQ(::chmod(reachable.path().c_str(), 0711), 0);
    const auto closed = reachable.makeFolder("closed");
    reachable.writeFile("closed/inside.txt");
    ASSERT_EQ(::chmod(closed.c_str(), 0), 0);
    const StorageIRI inside = at(closed / "inside.txt");

    std::istringstream report(runWithPermissionsEnforced([&] {
        std::ostringstream out;
        out << static_cast<int>(local->exists(at(closed))) << ' ';
        writeProviderError(out, providerError([&] { local->exists(inside); }));
        writeProviderError(out, providerError([&] { local->existsExtended(inside); }));
        return out.str();
    }));
    int closedExistence = -1;
    report >> closedExistence;
    const auto followed = readProviderError(report);
    const auto extended = readProviderError(report);

    // The closed folder itself can still be examined; what is inside cannot.
    EXPECT_EQ(static_cast<ExistenceType>(closedExistence), ExistenceType::Folder);
    ASSERT_TRUE(followed.has_value());
    EXPECT_EQ(followed->getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_TRUE(followed->getStorageIRI() == inside);
    EXPECT_THAT(contextKeys(*followed), testing::ElementsAre("stat", "EACCES"));
    EXPECT_FALSE(followed->getMessage().empty());

    ASSERT_TRUE(extended.has_value());
    EXPECT_EQ(extended->getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_THAT(contextKeys(*extended), testing::ElementsAre("lstat", "EACCES"));
}

TEST_F(LocalProviderTest, LocalhostAuthorityNamesTheLocalDisk)
{
    dir.writeFile("here.txt");
    const StorageIRI viaLocalhost(u"file://localhost" + at(dir / "here.txt").getPath());
    EXPECT_EQ(local->exists(viaLocalhost), ExistenceType::File);
}

} // namespace
