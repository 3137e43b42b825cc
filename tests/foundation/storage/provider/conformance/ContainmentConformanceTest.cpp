// Names and locations that try to leave their folder or their storage are refused or stay inside.

#include <KitPrelude.hpp>

#include <foundation/storage/provider/StorageItem.hpp>

namespace {

class ContainmentConformance : public ProviderTest {};

TEST_P(ContainmentConformance, HostileChildNamesAreRefusedOrStayInsideTheFolder)
{
    const StorageIRI folder = makeFolder(u"in");
    makeFile(u"outside.txt");
    const provider::StorageItem item(provider, folder);

    // Refused before the storage is asked.
    for (const ustring& name : {ustring(u""), ustring(u".."), ustring(u"../outside.txt"), ustring(u"a/../../outside.txt"),
                               ustring(u"/etc/passwd"), ustring(u"."), ustring(u"a\0b", 3)}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8_lossy(name));
        EXPECT_TRUE(failsWith([&] { provider::StorageItem(item, name); }, ErrorCode::InvalidLocation, folder,
                              "child-name"));
    }

    // Escapes are not interpreted in names: these are plain names of files inside the folder.
    for (const ustring& name : {ustring(u"%2E%2E"), ustring(u"..%2Foutside.txt"), ustring(u"..\\outside.txt"),
                               ustring(u"...")}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8_lossy(name));
        const provider::StorageItem child(item, name);
        EXPECT_TRUE(folder.isAncestorOf(child.getLocation()));
        if (writable())
            provider->createFile(child.getLocation());
        else
            harness->makeFile(u"in/" + name);
        EXPECT_TRUE(provider->fileExists(StorageIRI(folder, name)));
    }
    EXPECT_EQ(tree().count(u"outside.txt"), 1u);
    EXPECT_EQ(tree().size(), 6u); // outside.txt, in/ and the four files inside
}

TEST_P(ContainmentConformance, OverlongNamesFailWithAnErrorOfTheFamilyAndLeaveNothing)
{
    const ustring longName(5000, u'n');
    const StorageIRI location = below(longName);
    try {
        provider->createFile(location);
        // A storage without a name limit must then hold exactly that file.
        EXPECT_TRUE(provider->fileExists(location));
        provider->removeFile(location);
    } catch (const provider::Exception& error) {
        EXPECT_EQ(error.getStorageIRI(), location);
    }
    EXPECT_TRUE(tree().empty());
}

INSTANTIATE_TEST_SUITE_P(Providers, ContainmentConformance, testing::ValuesIn(allProviders()), providerName);

} // namespace
