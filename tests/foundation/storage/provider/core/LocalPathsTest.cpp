#include <Prelude.hpp>

#include <ProviderHarness.hpp>

namespace {

using Code = provider::ErrorCode;

using foundation::storage::provider::Exception;
using foundation::storage::provider::fromStorageIRI;
using foundation::storage::provider::locationsAreEquivalent;
using foundation::storage::provider::toCanonicalizedStorageIRI;
using foundation::storage::provider::toStorageIRI;
using vfs_test::providerError;

std::string utf8(const StorageIRI& iri) { return fl::i18n::ustring_to_utf8_lossy(iri.toString()); }

TEST(LocalPaths, AbsolutePathsBecomeFileIRIsAndBack)
{
    const struct {
        std::string path;
        std::u16string_view iri;
        std::string back;
    } cases[] = {
        {"/", u"file:///", "/"},
        {"/tmp/a.txt", u"file:///tmp/a.txt", "/tmp/a.txt"},
        {"/tmp/a b/100%/x#y?z!", u"file:///tmp/a%20b/100%25/x%23y%3Fz%21", "/tmp/a b/100%/x#y?z!"},
        {"/tmp/\xC3\xA9t\xC3\xA9/\xF0\x9F\x98\x80", u"file:///tmp/\u00E9t\u00E9/\U0001F600",
         "/tmp/\xC3\xA9t\xC3\xA9/\xF0\x9F\x98\x80"},
        {"/tmp//a/./b/", u"file:///tmp/a/b", "/tmp/a/b"},
        {"/tmp/a/../../..", u"file:///", "/"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        const StorageIRI iri = toStorageIRI(u"", c.path);
        EXPECT_EQ(iri.toString(), c.iri);
        EXPECT_TRUE(iri == toStorageIRI(u"file", c.path));
        EXPECT_TRUE(iri == toStorageIRI(u"FILE", c.path));
        EXPECT_EQ(fromStorageIRI(iri).native(), c.back);
        EXPECT_TRUE(toStorageIRI(u"", fromStorageIRI(iri)) == iri);
    }
    EXPECT_EQ(fromStorageIRI(StorageIRI(u"file:///tmp/a%20b/%C3%A9")).native(), "/tmp/a b/\xC3\xA9");
    EXPECT_EQ(fromStorageIRI(StorageIRI(u"file://localhost/x")).native(), "/x");
    EXPECT_EQ(fromStorageIRI(StorageIRI(u"file:/x%21")).native(), "/x!");
}

TEST(LocalPaths, RelativePathsAreMadeAbsoluteLexically)
{
    const fs::path cwd = fs::current_path();
    EXPECT_TRUE(toStorageIRI(u"", "rel/x") == toStorageIRI(u"", cwd / "rel/x"));
    EXPECT_TRUE(toStorageIRI(u"", ".") == toStorageIRI(u"", cwd));
    EXPECT_TRUE(toStorageIRI(u"", "no-such-folder/..") == toStorageIRI(u"", cwd));
}

TEST(LocalPaths, RefusalsAreInvalidLocation)
{
    const auto refused = [](auto action) {
        const auto error = providerError(action);
        return error && error->getErrorCode() == Code::InvalidLocation;
    };
    EXPECT_TRUE(refused([] { toStorageIRI(u"mem", "/tmp"); }));
    EXPECT_TRUE(refused([] { toStorageIRI(u"files", "/tmp"); }));
    EXPECT_TRUE(refused([] { toCanonicalizedStorageIRI(u"mem", "/tmp"); }));
    EXPECT_TRUE(refused([] { toStorageIRI(u"", ""); }));
    // Bytes that are not UTF-8 are no refusal: they come back as they went in.
    for (const std::string path : {"/tmp/\xFF", "/tmp/\xC0\xAF", "/tmp/\xED\xA0\x80"})
        EXPECT_EQ(fromStorageIRI(toStorageIRI(u"", path)).native(), path);
    EXPECT_TRUE(refused([] { toStorageIRI(u"", std::string("/tmp/a\0b", 8)); }));

    for (const auto text : {u"mem://v/x", u"zip:file:///a.zip!/x", u"file://server/share", u"file:///a%00b", u"file:",
                            u"file://", u"x:/tmp"}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(text));
        const StorageIRI iri{ustring(text)};
        const auto error = providerError([&] { fromStorageIRI(iri); });
        ASSERT_TRUE(error);
        EXPECT_EQ(error->getErrorCode(), Code::InvalidLocation);
        EXPECT_TRUE(error->getStorageIRI() == iri);
    }
    EXPECT_TRUE(refused([] { fromStorageIRI(StorageIRI()); }));
}

TEST(LocalPaths, CanonicalisationResolvesLinksAndReportsErrno)
{
    const vfs_test::TempDir temp;
    const fs::path real = fs::canonical(temp.path()); // the temporary folder itself may sit behind a link
    temp.makeFolder("target/sub");
    temp.writeFile("target/sub/file.txt", "x");
    fs::create_directory_symlink(temp / "target", temp / "link");
    fs::create_symlink("sub/file.txt", temp / "target/rel-link");

    EXPECT_TRUE(toCanonicalizedStorageIRI(u"", temp / "link") == toStorageIRI(u"", real / "target"));
    EXPECT_TRUE(toCanonicalizedStorageIRI(u"", temp / "link/sub/../sub/file.txt") ==
                toStorageIRI(u"", real / "target/sub/file.txt"));
    EXPECT_TRUE(toCanonicalizedStorageIRI(u"file", temp / "link/rel-link") ==
                toStorageIRI(u"", real / "target/sub/file.txt"));

    // ".." after a link climbs from the link's target, which only the disk knows.
    temp.makeFolder("elsewhere/deep");
    fs::create_directory_symlink(temp / "elsewhere/deep", temp / "target/jump");
    EXPECT_TRUE(toCanonicalizedStorageIRI(u"", temp / "target/jump/..") == toStorageIRI(u"", real / "elsewhere"));
    EXPECT_TRUE(toStorageIRI(u"", temp / "target/jump/..") == toStorageIRI(u"", temp / "target"));

    const fs::path missing = temp / "target/missing/x";
    auto error = providerError([&] { toCanonicalizedStorageIRI(u"", missing); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getErrorCode(), Code::ResourceNotFound);
    ASSERT_EQ(error->getAllExceptionContexts().size(), 2u);
    EXPECT_EQ(error->getAllExceptionContexts()[0].getExceptionContextKey(), u"realpath");
    EXPECT_EQ(error->getAllExceptionContexts()[1].getExceptionContextKey(), u"ENOENT");
    EXPECT_TRUE(error->getStorageIRI() == toStorageIRI(u"", missing)) << utf8(error->getStorageIRI());

    error = providerError([&] { toCanonicalizedStorageIRI(u"", temp / "target/sub/file.txt/below"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getErrorCode(), Code::ResourceNotFound);
    ASSERT_EQ(error->getAllExceptionContexts().size(), 2u);
    EXPECT_EQ(error->getAllExceptionContexts()[1].getExceptionContextKey(), u"ENOTDIR");

    fs::create_symlink("loop", temp / "loop");
    error = providerError([&] { toCanonicalizedStorageIRI(u"", temp / "loop"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getErrorCode(), Code::InvalidLocation);
    ASSERT_EQ(error->getAllExceptionContexts().size(), 2u);
    EXPECT_EQ(error->getAllExceptionContexts()[1].getExceptionContextKey(), u"ELOOP");
}

TEST(LocalPaths, EquivalenceFollowsLinksAndInodes)
{
    const vfs_test::TempDir temp;
    const fs::path file = temp.writeFile("a.txt", "a");
    temp.writeFile("b.txt", "a");
    fs::create_symlink(file, temp / "link");
    fs::create_hard_link(file, temp / "hard");
    const auto iri = [&](const fs::path& path) { return toStorageIRI(u"", path); };

    EXPECT_TRUE(locationsAreEquivalent(iri(file), iri(temp / "link")));
    EXPECT_TRUE(locationsAreEquivalent(iri(temp / "link"), iri(file)));
    EXPECT_TRUE(locationsAreEquivalent(iri(file), iri(temp / "hard")));
    fs::create_directory_symlink(temp.path(), temp / "self");
    EXPECT_TRUE(locationsAreEquivalent(iri(temp.path()), iri(temp / "self")));
    EXPECT_TRUE(locationsAreEquivalent(iri(temp / "self/self/a.txt"), iri(file)));
    EXPECT_FALSE(locationsAreEquivalent(iri(file), iri(temp / "b.txt")));
    EXPECT_FALSE(locationsAreEquivalent(iri(file), iri(temp / "missing")));
    EXPECT_FALSE(locationsAreEquivalent(iri(temp / "missing"), iri(temp / "missing2")));
    // Equal IRIs name the same resource whether or not it exists, on any scheme.
    EXPECT_TRUE(locationsAreEquivalent(iri(temp / "missing"), iri(temp / "missing")));
    EXPECT_TRUE(locationsAreEquivalent(StorageIRI(u"mem://v/a"), StorageIRI(u"MEM://v/x/../a")));
    EXPECT_FALSE(locationsAreEquivalent(StorageIRI(u"mem://v/a"), StorageIRI(u"mem://v/b")));
    EXPECT_FALSE(locationsAreEquivalent(StorageIRI(u"mem:" + iri(file).getPath()), iri(file)));
    EXPECT_FALSE(locationsAreEquivalent(StorageIRI(u"file://otherhost" + iri(file).getPath()), iri(file)));
}

} // namespace
