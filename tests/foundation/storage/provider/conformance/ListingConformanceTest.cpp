// Listing a folder's children, as every provider must: kinds, attributes, patterns, clones and
// recursive listings where the provider has them.

#include <DepthFirst.hpp>
#include <KitPrelude.hpp>

namespace {

ListOptions options(ListKind kind, bool withAttributes, ustring pattern = {}, bool recursive = false)
{
    return makeListOptions(kind, withAttributes, std::move(pattern), recursive);
}

std::vector<std::string> namesOf(const std::vector<FolderEntry>& entries) { return entryNames(entries, true); }

std::set<std::string> sorted(const std::vector<std::string>& names)
{
    return {names.begin(), names.end()};
}

const char* kindName(ListKind kind)
{
    return kind == ListKind::All ? "All" : kind == ListKind::Files ? "Files" : "Folders";
}

class ListingConformance : public ProviderTest {
protected:
    // a.txt (3 bytes), b.log (empty), .hidden (1 byte), sub/ holding x.txt, empty/.
    void makeFlatTree() const
    {
        makeFile(u"a.txt", 3);
        makeFile(u"b.log");
        makeFile(u".hidden", 1);
        makeFile(u"sub/x.txt", 9);
        makeFolder(u"empty");
        if (writable() && capabilities().settableWritability)
            provider->setWritable(below(u"b.log"), false);
    }

    std::vector<FolderEntry> listed(const StorageIRI& folder, const ListOptions& listOptions) const
    {
        return listedEntries(*provider, folder, listOptions);
    }
};

TEST_P(ListingConformance, EachKindListsExactlyTheChildrenOfThatKindWithAttributesExactlyWhenAsked)
{
    makeFlatTree();
    const std::set<std::string> files = {".hidden", "a.txt", "b.log"};
    const std::set<std::string> folders = {"empty/", "sub/"};
    std::set<std::string> all = files;
    all.insert(folders.begin(), folders.end());

    for (const auto& [kind, expected] : {std::pair{ListKind::All, all}, std::pair{ListKind::Files, files},
                                         std::pair{ListKind::Folders, folders}}) {
        for (const bool withAttributes : {false, true}) {
            SCOPED_TRACE(std::string(kindName(kind)) + (withAttributes ? ", with attributes" : ", names only"));
            const auto entries = listed(root, options(kind, withAttributes));
            EXPECT_EQ(entries.size(), expected.size()) << "no name twice";
            EXPECT_EQ(sorted(namesOf(entries)), expected);
            for (const auto& entry : entries) {
                SCOPED_TRACE(fl::i18n::ustring_to_utf8(entry.getName()));
                const StorageIRI location = below(entry.getName());
                if (entry.isFile()) {
                    EXPECT_FALSE(entry.getFolderAttributes().has_value());
                    ASSERT_EQ(entry.getFileAttributes().has_value(), withAttributes);
                    if (withAttributes) {
                        EXPECT_TRUE(*entry.getFileAttributes() == provider->getFileAttributes(location));
                    }
                } else {
                    EXPECT_FALSE(entry.getFileAttributes().has_value());
                    ASSERT_EQ(entry.getFolderAttributes().has_value(), withAttributes);
                    if (withAttributes) {
                        EXPECT_TRUE(*entry.getFolderAttributes() == provider->getFolderAttributes(location));
                    }
                }
            }
        }
    }
    // The attributes themselves, not only their agreement with getFileAttributes.
    for (const auto& entry : listed(root, options(ListKind::Files, true))) {
        const auto& attributes = *entry.getFileAttributes();
        EXPECT_EQ(attributes.getSize(), entry.getName() == u"a.txt" ? 3u : entry.getName() == u".hidden" ? 1u : 0u);
        EXPECT_EQ(attributes.isHidden(), entry.getName() == u".hidden");
        if (writable() && capabilities().settableWritability) {
            EXPECT_EQ(attributes.isWritable(), entry.getName() != u"b.log");
        }
    }
}

TEST_P(ListingConformance, ACloneContinuesFromWhereItWasMadeIndependently)
{
    for (int i = 0; i < 20; ++i) {
        const ustring n = fl::i18n::utf8_to_ustring(std::to_string(i));
        if (i % 3 == 0)
            makeFolder(u"folder" + n);
        else
            makeFile(u"file" + n, static_cast<std::uint64_t>(i));
    }
    for (const bool withAttributes : {false, true}) {
        SCOPED_TRACE(withAttributes ? "with attributes" : "names only");
        const auto everything = namesOf(listed(root, options(ListKind::All, withAttributes)));
        ASSERT_EQ(everything.size(), 20u);

        const auto original = provider->list(root, options(ListKind::All, withAttributes));
        const auto atStart = original->clone();
        for (int i = 0; i < 7; ++i)
            original->next();
        const auto midway = original->clone();
        EXPECT_EQ(midway->current().getName(), original->current().getName());
        EXPECT_EQ(midway->current().isFile(), original->current().isFile());

        // Each drained in turn: none may disturb another.
        const auto restOfClone = namesOf(remainingEntries(*midway));
        const auto restOfOriginal = namesOf(remainingEntries(*original));
        const auto fromStart = namesOf(remainingEntries(*atStart));
        EXPECT_EQ(restOfClone, std::vector<std::string>(everything.begin() + 7, everything.end()));
        EXPECT_EQ(restOfOriginal, restOfClone);
        EXPECT_EQ(fromStart, everything);
        EXPECT_FALSE(original->clone()->hasNext()) << "a clone of an exhausted iterator is exhausted";
    }
}

TEST_P(ListingConformance, ListingAFileOrNothingIsNotFound)
{
    const StorageIRI file = makeFile(u"file.txt");
    const StorageIRI missing = below(u"missing");
    const StorageIRI belowFile = StorageIRI(file, u"child");
    for (const bool withAttributes : {false, true}) {
        SCOPED_TRACE(withAttributes ? "with attributes" : "names only");
        EXPECT_TRUE(failsWith([&] { provider->list(file, options(ListKind::All, withAttributes)); },
                              ErrorCode::ResourceNotFound, file, "not-a-folder"));
        EXPECT_TRUE(failsWith([&] { provider->list(missing, options(ListKind::Files, withAttributes)); },
                              ErrorCode::ResourceNotFound, missing));
        EXPECT_TRUE(failsWith([&] { provider->list(belowFile, options(ListKind::Folders, withAttributes)); },
                              ErrorCode::ResourceNotFound, belowFile));
    }
}

TEST_P(ListingConformance, RecursiveListingIsDepthFirstWithEachFolderBeforeItsContent)
{
    if (!hasFeature(ExtendedFeature::RecursiveListing))
        GTEST_SKIP() << "no native recursive listing";
    makeFile(u"a.txt", 1);
    makeFile(u"d1/b.txt", 2);
    makeFile(u"d1/d2/c.txt", 3);
    makeFolder(u"d1/d2/d3");
    makeFile(u"d1/z.txt", 4);
    makeFile(u"e/f.txt", 5);
    makeFolder(u"g");
    const StorageIRI listedFolder = root;
    const auto expectedTree = tree();

    std::set<std::string> files, folders;
    for (const auto& [name, size] : expectedTree)
        (size ? files : folders).insert(fl::i18n::ustring_to_utf8(name) + (size ? "" : "/"));
    std::set<std::string> all = files;
    all.insert(folders.begin(), folders.end());

    for (const auto& [kind, expected] : {std::pair{ListKind::All, all}, std::pair{ListKind::Files, files},
                                         std::pair{ListKind::Folders, folders}}) {
        for (const bool withAttributes : {false, true}) {
            SCOPED_TRACE(std::string(kindName(kind)) + (withAttributes ? ", with attributes" : ", names only"));
            const auto entries = listed(listedFolder, options(kind, withAttributes, {}, true));
            const auto names = namesOf(entries);
            EXPECT_EQ(names.size(), expected.size()) << "no name twice";
            EXPECT_EQ(sorted(names), expected);
            expectDepthFirst(entryNames(entries));
            for (const auto& entry : entries) {
                SCOPED_TRACE(fl::i18n::ustring_to_utf8(entry.getName()));
                const bool hasAttributes = entry.getFileAttributes().has_value() || entry.getFolderAttributes().has_value();
                EXPECT_EQ(hasAttributes, withAttributes);
                if (withAttributes && entry.isFile()) {
                    EXPECT_EQ(entry.getFileAttributes()->getSize(), expectedTree.at(entry.getName()));
                }
            }
        }
    }
    // Below the root too: names stay relative to the listed folder.
    EXPECT_EQ(sorted(namesOf(listed(below(u"d1"), options(ListKind::All, false, {}, true)))),
              (std::set<std::string>{"b.txt", "d2/", "d2/c.txt", "d2/d3/", "z.txt"}));
}

INSTANTIATE_TEST_SUITE_P(Providers, ListingConformance, testing::ValuesIn(allProviders()), providerName);

} // namespace
