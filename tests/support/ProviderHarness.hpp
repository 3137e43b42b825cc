#pragma once

// What provider tests need from each provider under test: the provider, a folder of its own to
// work in, a way to build trees there, and the locations of its scheme it must refuse. A new
// provider joins every suite built on this by one harness class and one entry in allProviders().

#include "TempDir.hpp"

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/IProvider.hpp>
#include <foundation/storage/provider/local/LocalProvider.hpp>
#include <foundation/storage/provider/memory/MemoryProvider.hpp>

#include <fl/i18n/ustring.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace vfs_test {

namespace provider = foundation::storage::provider;
using fl::i18n::ustring;
using provider::StorageIRI;

class ProviderHarness {
public:
    virtual ~ProviderHarness() = default;

    virtual std::shared_ptr<provider::IProvider> provider() const = 0;
    // An existing, empty folder that belongs to this test alone.
    virtual StorageIRI root() const = 0;
    // Creates an empty file at `relative` below root() (missing folders on the way too) without
    // going through the provider, and returns its location; nullopt where the harness cannot build
    // trees for its provider.
    virtual std::optional<StorageIRI> makeFile(const ustring& relative) = 0;
    // Locations of the provider's own scheme that it must refuse with InvalidLocation.
    virtual std::vector<StorageIRI> malformedLocations() const = 0;
};

class LocalHarness final : public ProviderHarness {
public:
    LocalHarness() : m_root(provider::toStorageIRI(u"", m_dir.path())) {}

    std::shared_ptr<provider::IProvider> provider() const override { return m_provider; }
    StorageIRI root() const override { return m_root; }
    std::optional<StorageIRI> makeFile(const ustring& relative) override
    {
        m_dir.writeFile(fl::i18n::ustring_to_utf8(relative));
        return StorageIRI(m_root, relative);
    }
    std::vector<StorageIRI> malformedLocations() const override
    {
        return {StorageIRI(u"file://remote.example/tmp/a"), StorageIRI(m_root, ustring(u"a\0b", 3))};
    }

    const TempDir& dir() const noexcept { return m_dir; }

private:
    TempDir m_dir;
    std::shared_ptr<provider::IProvider> m_provider = provider::local::makeLocalProvider();
    StorageIRI m_root;
};

// The memory provider offers no way yet to create anything, so the harness works on the empty root
// of a volume and builds no trees.
class MemoryHarness final : public ProviderHarness {
public:
    std::shared_ptr<provider::IProvider> provider() const override { return m_provider; }
    StorageIRI root() const override { return m_root; }
    std::optional<StorageIRI> makeFile(const ustring&) override { return std::nullopt; }
    std::vector<StorageIRI> malformedLocations() const override
    {
        return {StorageIRI(u"mem:///a"), StorageIRI(u"mem://volume"), StorageIRI(m_root, ustring(u"a\0b", 3))};
    }

private:
    std::shared_ptr<provider::IProvider> m_provider = provider::memory::makeMemoryProvider();
    StorageIRI m_root{u"mem://harness/"};
};

struct ProviderUnderTest {
    std::string name;
    std::function<std::unique_ptr<ProviderHarness>()> make;
    friend std::ostream& operator<<(std::ostream& out, const ProviderUnderTest& p) { return out << p.name; }
};

inline std::vector<ProviderUnderTest> allProviders()
{
    return {
        {"Local", [] { return std::make_unique<LocalHarness>(); }},
        {"Memory", [] { return std::make_unique<MemoryHarness>(); }},
    };
}

inline std::string providerName(const testing::TestParamInfo<ProviderUnderTest>& info)
{
    return info.param.name;
}

// Locations no provider of this library serves.
inline std::vector<StorageIRI> foreignLocations(const StorageIRI& root)
{
    return {StorageIRI(u"bogus://volume/a"), StorageIRI(u"http://example.com/a"), StorageIRI(u"zip", root, u"/a")};
}

// The provider exception `call` throws; nullopt when it returns normally. Other exceptions pass.
template <class Call>
std::optional<provider::Exception> providerError(Call&& call)
{
    try {
        std::forward<Call>(call)();
    } catch (const provider::Exception& error) {
        return error;
    }
    return std::nullopt;
}

// The context keys in order, as UTF-8, for readable comparisons.
inline std::vector<std::string> contextKeys(const provider::Exception& error)
{
    std::vector<std::string> keys;
    for (const auto& context : error.getAllExceptionContexts())
        keys.push_back(fl::i18n::ustring_to_utf8(context.getExceptionContextKey()));
    return keys;
}

inline std::string text(const StorageIRI& iri)
{
    return fl::i18n::ustring_to_utf8(iri.toString());
}

} // namespace vfs_test
