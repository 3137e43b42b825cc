// What only the memory provider has: volumes named by the authority.

#include <ProviderHarness.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace vfs_test;
using provider::ErrorCode;
using provider::ExistenceType;
using provider::ExistenceTypeExtended;
using provider::ExtendedFeature;

TEST(MemoryProviderTest, EveryNamedVolumeHasAnEmptyRootFolder)
{
    const auto memory = provider::memory::makeMemoryProvider();
    for (const ustring volume : {u"mem://a/", u"mem://another-volume/", u"mem://caf%C3%A9/", u"mem://A/"}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(volume));
        const StorageIRI root(volume);
        EXPECT_EQ(memory->exists(root), ExistenceType::Folder);
        EXPECT_EQ(memory->existsExtended(root), ExistenceTypeExtended::Folder);
        EXPECT_EQ(memory->exists(StorageIRI(root, u"a")), ExistenceType::NotFound);
        EXPECT_FALSE(memory->hasFeature(root, ExtendedFeature::RecursiveRemoval));
    }
}

TEST(MemoryProviderTest, RefusalsNameTheReason)
{
    const auto memory = provider::memory::makeMemoryProvider();
    const StorageIRI root(u"mem://volume/");
    struct Case {
        StorageIRI location;
        const char* reason;
    };
    for (const Case& c : {Case{StorageIRI(u"file:///tmp"), "wrong-scheme"},
                          Case{StorageIRI(u"zip", root, u"/a"), "wrong-scheme"},
                          Case{StorageIRI(u"mem:///a"), "no-volume"},
                          Case{StorageIRI(u"mem://volume"), "no-path"},
                          Case{StorageIRI(root, ustring(u"a\0b", 3)), "nul-in-name"}}) {
        SCOPED_TRACE(text(c.location));
        const auto error = providerError([&] { memory->exists(c.location); });
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->getErrorCode(), ErrorCode::InvalidLocation);
        EXPECT_THAT(contextKeys(*error), testing::ElementsAre(c.reason));
    }
}

} // namespace
