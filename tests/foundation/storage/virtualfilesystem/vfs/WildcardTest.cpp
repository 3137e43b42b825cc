#include <Prelude.hpp>
#include <foundation/storage/vfs/detail/FolderIteratorWildcardsImpl.hpp>
#include <foundation/storage/vfs/detail/FolderListingIteratorImpl.hpp>

namespace {

using Entry = boost::variant<FileEntry, FolderEntry>;
using Handle = boost::variant<File, Folder>;
using Names = std::vector<ustring>;
using vfs_test::sorted;

const ustring smiley = u"\U0001F600"; // one character, two UTF-16 code units

// What an implementation yields from where it stands to the end it was made with.
template <class T>
Names drain(const vfs::detail::IFolderIteratorImpl<T>& start, const vfs::detail::IFolderIteratorImpl<T>& end)
{
    Names names;
    for (auto at = start.cloneImpl(); !at->equal(end); at->increment())
        names.push_back(nameOf(at->dereference()));
    return sorted(std::move(names));
}

const Names sampleFiles{u"a.txt", u"b.TXT", u"c.txt.bak", u"a", u"ab", u"data", u"x", u".hidden", smiley};
const Names sampleFolders{u"dir.txt", u"d"};

void buildSample(const vfs_test::WorkingFolder& work)
{
    for (const ustring& name : sampleFiles)
        work.file(name).createFile();
    for (const ustring& name : sampleFolders)
        work.folder(name).createFolder();
    work.file(u"d/x.txt").createFile(); // a grandchild: no flat listing shows it, whatever the pattern
}

// Scheme, and whether the provider filters (otherwise its wildcard feature is hidden and the library
// filters). Both must give the same answers: the providers use the same matcher as the library.
class WildcardTest : public testing::TestWithParam<std::tuple<std::string, bool>> {
protected:
    static bool providerFilters() { return std::get<1>(GetParam()); }
    static std::set<ExtendedFeature> hidden()
    {
        if (providerFilters())
            return {};
        return {ExtendedFeature::FlatWildcardListing};
    }

    // Without the feature, the provider below lists every child whatever the pattern, so that only
    // the library's filter can make the answers right.
    std::shared_ptr<vfs_test::RecorderSlot> slot = std::make_shared<vfs_test::RecorderSlot>();
    vfs_test::DecoratedStorage storage{hidden(), vfs_test::recordingWrap(slot, {.ignorePattern = !providerFilters()})};
    vfs_test::WorkingFolder work{std::get<0>(GetParam()), storage.ref};
};

INSTANTIATE_TEST_SUITE_P(Providers, WildcardTest,
                         testing::Combine(testing::Values("file", "mem"), testing::Bool()),
                         [](const auto& info) {
                             return std::get<0>(info.param) + (std::get<1>(info.param) ? "_native" : "_library");
                         });

TEST_P(WildcardTest, PatternsSelectBareNamesByCodeUnits)
{
    buildSample(work);
    Names everything = sampleFiles;
    everything.insert(everything.end(), sampleFolders.begin(), sampleFolders.end());
    const std::vector<std::pair<ustring, Names>> table{
        {u"*.txt", {u"a.txt", u"dir.txt"}},          // no case folding, and the whole name must match
        {u"*.TXT", {u"b.TXT"}},
        {u"?", {u"a", u"d", u"x"}},                  // one code unit
        {u"??", {u"ab", smiley}},                    // a surrogate pair is two
        {u"a**", {u"a.txt", u"ab"}},                 // a star followed by more needs a unit left
        {u"*", everything},
        {u"*.t?t", {u"a.txt", u"dir.txt"}},
        {u"*e*", {u".hidden"}},                     // a leading dot is an ordinary unit
        {u"nothing*", {}},
    };
    for (const auto& [pattern, expected] : table) {
        EXPECT_EQ(namesOf(work.root().listAll(pattern)), sorted(expected))
            << "pattern " << std::string(pattern.begin(), pattern.end());
        // The provider is handed the pattern whether or not it can use it.
        EXPECT_EQ(slot->recorder->seen().back().pattern, pattern);
    }
}

TEST_P(WildcardTest, EveryListingMemberFilters)
{
    buildSample(work);
    const Folder& root = work.root();
    EXPECT_EQ(namesOf(root.listFiles(u"*.txt")), Names{u"a.txt"});
    EXPECT_EQ(namesOf(root.listFileEntries(u"?")), (Names{u"a", u"x"}));
    EXPECT_EQ(namesOf(root.listFolders(u"*.txt")), Names{u"dir.txt"});
    EXPECT_EQ(namesOf(root.listFolderEntries(u"?")), Names{u"d"});
    EXPECT_EQ(namesOf(root.listAllEntries(u"??")), sorted({u"ab", smiley}));
    EXPECT_EQ(namesOf(root.listAll(u"d*")), (Names{u"d", u"data", u"dir.txt"}));

    // Filtered entries still carry the attributes the listing delivered.
    const auto entries = root.listFileEntries(u"a*");
    const std::vector<FileEntry> kept(entries.begin(), entries.end());
    ASSERT_EQ(kept.size(), 3u);
    auto& calls = *storage.layers(root.getLocation().getScheme()).calls;
    calls.reset();
    for (const FileEntry& entry : kept)
        entry.getAttributes();
    EXPECT_EQ(calls.total(), 0u);
    EXPECT_TRUE(root.listAll(u"nothing*").empty());
}

// Whether the library filters is decided by the provider's feature alone: a provider that claims
// the feature is trusted (here one that claims it and ignores patterns shows every child), and an
// empty pattern never asks.
class WildcardDecisionTest : public testing::TestWithParam<std::string> {};

INSTANTIATE_TEST_SUITE_P(Providers, WildcardDecisionTest, testing::Values("file", "mem"));

TEST_P(WildcardDecisionTest, TheLibraryFiltersOnlyForProvidersWithoutTheFeature)
{
    const ustring scheme(GetParam().begin(), GetParam().end());
    for (const bool featureHidden : {false, true}) {
        std::set<ExtendedFeature> hidden;
        if (featureHidden)
            hidden.insert(ExtendedFeature::FlatWildcardListing);
        auto slot = std::make_shared<vfs_test::RecorderSlot>();
        vfs_test::DecoratedStorage storage(hidden, vfs_test::recordingWrap(slot, {.ignorePattern = true}));
        const vfs_test::WorkingFolder work(GetParam(), storage.ref);
        buildSample(work);
        auto& calls = *storage.layers(scheme).calls;

        calls.reset();
        EXPECT_EQ(namesOf(work.root().listAll(u"")).size(), 11u);
        EXPECT_EQ(calls.count(ProviderOperation::HasFeature), 0u);

        const Names found = namesOf(work.root().listAll(u"*.txt"));
        EXPECT_EQ(calls.count(ProviderOperation::HasFeature), 1u);
        if (featureHidden)
            EXPECT_EQ(found, (Names{u"a.txt", u"dir.txt"}));
        else
            EXPECT_EQ(found.size(), 11u);
    }
}

// The filter over the implementations directly: element types no Folder member yields, and entries
// named by relative paths as recursive listings name them.
class WildcardImplTest : public testing::Test {
protected:
    vfs_test::DecoratedStorage storage;
    vfs_test::WorkingFolder work{"mem", storage.ref};
    std::shared_ptr<provider::IProvider> served = storage.layers(u"mem").calls;
    provider::StorageIRI rootIRI = vfs::detail::IRIAccess::storageIRI(work.root().getLocation());
};

TEST_F(WildcardImplTest, MatchesTheLastSegmentOfEntryNames)
{
    work.folder(u"sub").createFolder();
    for (const char16_t* name : {u"x0", u"sub/x1", u"sub/y"})
        work.file(name).createFile();
    work.folder(u"sub/deeper/x2").createFolderRecursive();
    ASSERT_TRUE(served->hasFeature(rootIRI, ExtendedFeature::RecursiveListing));

    const auto listRecursively = [&] {
        return served->list(rootIRI, provider::ListOptions{provider::ListKind::All, true, u"", true});
    };
    using Plain = vfs::detail::FolderListingIteratorImpl<Entry>;
    const auto plain = std::make_shared<Plain>(work.root(), listRecursively());
    EXPECT_EQ(drain(*plain, *plain->buildEndIterator()),
              (Names{u"sub", u"sub/deeper", u"sub/deeper/x2", u"sub/x1", u"sub/y", u"x0"}));

    const auto matching = [&](const ustring& pattern) {
        const auto inner = std::make_shared<Plain>(work.root(), listRecursively());
        const vfs::detail::FolderIteratorWildcardsImpl<Entry> filtered(inner, pattern);
        return drain(filtered, *filtered.buildEndIterator());
    };
    EXPECT_EQ(matching(u"x*"), (Names{u"sub/deeper/x2", u"sub/x1", u"x0"}));
    EXPECT_EQ(matching(u"sub/*"), Names{}); // names are bare: a separator is a literal no name holds
    EXPECT_EQ(matching(u"sub"), Names{u"sub"});
    EXPECT_EQ(matching(u"deeper"), Names{u"sub/deeper"});
}

TEST_F(WildcardImplTest, FiltersFilesOrFolders)
{
    buildSample(work);
    const auto inner = std::make_shared<vfs::detail::FolderListingIteratorImpl<Handle>>(
        work.root(), served->list(rootIRI, provider::ListOptions{provider::ListKind::All, false, u"", false}));
    const vfs::detail::FolderIteratorWildcardsImpl<Handle> filtered(inner, u"d*");
    const auto end = filtered.buildEndIterator();
    EXPECT_EQ(drain(filtered, *end), (Names{u"d", u"data", u"dir.txt"}));
    for (auto at = filtered.cloneImpl(); !at->equal(*end); at->increment())
        EXPECT_EQ(boost::get<File>(&at->dereference()) != nullptr, nameOf(at->dereference()) == u"data");

    // A clone stands where its original stood; only the original can make the end.
    const auto clone = filtered.cloneImpl();
    EXPECT_TRUE(clone->equal(filtered));
    EXPECT_THROW(clone->buildEndIterator(), std::logic_error);
    // Implementations of another kind are never equal.
    EXPECT_FALSE(filtered.equal(*inner));
    EXPECT_FALSE(inner->equal(filtered));
    // Made over nothing, a filter stands at its end.
    const vfs::detail::FolderIteratorWildcardsImpl<Handle> nothing;
    EXPECT_TRUE(nothing.equal(vfs::detail::FolderIteratorWildcardsImpl<Handle>()));
    EXPECT_THROW(nothing.dereference(), std::logic_error);
}

} // namespace
