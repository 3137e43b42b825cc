// The behaviour every provider owes the library, run against each provider in allProviders().

#include <ProviderHarness.hpp>
#include <Threads.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <optional>
#include <vector>

namespace {

using namespace vfs_test;
using provider::ErrorCode;
using provider::ExistenceType;
using provider::ExistenceTypeExtended;
using provider::ExtendedFeature;

class ProviderConformance : public ProviderTest {};

TEST_P(ProviderConformance, ExistsReportsTheRootAsAFolder)
{
    EXPECT_EQ(provider->exists(root), ExistenceType::Folder);
    EXPECT_EQ(provider->existsExtended(root), ExistenceTypeExtended::Folder);
}

TEST_P(ProviderConformance, ExistsReportsAMissingChildAsNotFound)
{
    for (const ustring relative : {u"missing", u"missing.txt", u"missing/deeper/still"}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(relative));
        EXPECT_EQ(provider->exists(below(relative)), ExistenceType::NotFound);
        EXPECT_EQ(provider->existsExtended(below(relative)), ExistenceTypeExtended::NotFound);
    }
}

TEST_P(ProviderConformance, ExistsReportsAFileAsAFile)
{
    const auto file = harness->makeFile(u"plain.txt");
    if (!file)
        GTEST_SKIP() << "the harness cannot create files for this provider yet";
    EXPECT_EQ(provider->exists(*file), ExistenceType::File);
    EXPECT_EQ(provider->existsExtended(*file), ExistenceTypeExtended::File);
    EXPECT_EQ(provider->exists(below(u"plain.tx")), ExistenceType::NotFound);
}

TEST_P(ProviderConformance, ExistsReportsALocationBelowAFileAsNotFound)
{
    const auto file = harness->makeFile(u"folder/file.txt");
    if (!file)
        GTEST_SKIP() << "the harness cannot create files for this provider yet";
    EXPECT_EQ(provider->exists(below(u"folder")), ExistenceType::Folder);
    for (const ustring relative : {u"child", u"child/grandchild"}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(relative));
        EXPECT_EQ(provider->exists(StorageIRI(*file, relative)), ExistenceType::NotFound);
        EXPECT_EQ(provider->existsExtended(StorageIRI(*file, relative)), ExistenceTypeExtended::NotFound);
    }
}

TEST_P(ProviderConformance, NamesWithSpacesEscapesAndNonAsciiReachTheResource)
{
    // The provider must use the decoded path, not the IRI text, to find the resource.
    for (const ustring name : {u"with space.txt", u"per%cent 100%.txt", u"hash#and?query!.txt", u"caf\u00e9 \u65e5\u672c.txt"}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(name));
        const auto file = harness->makeFile(name);
        if (!file)
            GTEST_SKIP() << "the harness cannot create files for this provider yet";
        EXPECT_EQ(provider->exists(*file), ExistenceType::File);
        EXPECT_EQ(provider->exists(StorageIRI(file->toString())), ExistenceType::File) << text(*file);
        EXPECT_EQ(provider->exists(StorageIRI(file->toAsciiString())), ExistenceType::File) << text(*file);
    }
}

TEST_P(ProviderConformance, InvalidLocationsAreRefusedWithInvalidLocation)
{
    auto locations = foreignLocations(root);
    for (auto& location : harness->malformedLocations())
        locations.push_back(location);

    for (const auto& location : locations) {
        SCOPED_TRACE(text(location));
        const auto calls = {
            std::function<void()>([&] { provider->exists(location); }),
            std::function<void()>([&] { provider->existsExtended(location); }),
            std::function<void()>([&] { provider->hasFeature(location, ExtendedFeature::RecursiveListing); }),
        };
        for (const auto& call : calls) {
            const auto error = providerError(call);
            ASSERT_TRUE(error.has_value());
            EXPECT_EQ(error->getErrorCode(), ErrorCode::InvalidLocation);
            EXPECT_TRUE(error->getStorageIRI() == location) << text(error->getStorageIRI());
            EXPECT_FALSE(error->getAllExceptionContexts().empty()) << "the refusal must say why";
        }
    }
}

TEST_P(ProviderConformance, ExistsServesManyThreadsAtOnce)
{
    const std::optional<StorageIRI> file = harness->makeFile(u"shared.txt");
    const StorageIRI missing = below(u"missing");
    constexpr int threadCount = 8;
    constexpr int rounds = 300;

    std::atomic<int> wrong{0};
    runOnThreads(threadCount, [&](int) {
        for (int i = 0; i < rounds; ++i) {
            try {
                if (provider->exists(root) != ExistenceType::Folder)
                    ++wrong;
                if (provider->existsExtended(missing) != ExistenceTypeExtended::NotFound)
                    ++wrong;
                if (file && provider->exists(*file) != ExistenceType::File)
                    ++wrong;
            } catch (...) {
                ++wrong;
            }
        }
    });
    EXPECT_EQ(wrong.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(Providers, ProviderConformance, testing::ValuesIn(allProviders()), providerName);

} // namespace
