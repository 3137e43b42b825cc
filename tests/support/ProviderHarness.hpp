#pragma once

// What provider tests need from each provider under test: the provider, a folder of its own to
// work in, a way to build trees there, and the locations of its scheme it must refuse. A new
// provider joins every suite built on this by one harness class and one entry in allProviders().

#include "ExceptionCapture.hpp"
#include "TempDir.hpp"

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/IProvider.hpp>
#include <foundation/storage/provider/local/LocalProvider.hpp>
#include <foundation/storage/provider/memory/MemoryProvider.hpp>

#include <fl/i18n/ustring.hpp>

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
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
    return thrown<provider::Exception>(std::forward<Call>(call));
}

// A fixture run once for each provider of allProviders(): its harness, the provider, and the
// harness's root folder.
class ProviderTest : public testing::TestWithParam<ProviderUnderTest> {
protected:
    StorageIRI below(const ustring& relative) const { return StorageIRI(root, relative); }

    const std::unique_ptr<ProviderHarness> harness = GetParam().make();
    const std::shared_ptr<provider::IProvider> provider = harness->provider();
    const StorageIRI root = harness->root();
};

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

namespace detail {

inline void writeField(std::ostream& out, const ustring& field)
{
    const std::string utf8 = fl::i18n::ustring_to_utf8(field);
    out << utf8.size() << ':' << utf8;
}

inline ustring readField(std::istream& in)
{
    std::size_t size = 0;
    char colon = 0;
    in >> size >> colon;
    std::string utf8(size, '\0');
    in.read(utf8.data(), static_cast<std::streamsize>(size));
    if (!in || colon != ':')
        throw std::runtime_error("malformed provider error text");
    return fl::i18n::utf8_to_ustring(utf8);
}

} // namespace detail

// A provider failure, or none, as text and back: for failures met in another process (see
// Unprivileged.hpp). Code, location, message and contexts survive; strings travel as length:bytes.
inline void writeProviderError(std::ostream& out, const std::optional<provider::Exception>& error)
{
    out << (error ? 1 : 0) << ' ';
    if (!error)
        return;
    out << static_cast<int>(error->getErrorCode()) << ' ';
    detail::writeField(out, error->getStorageIRI().toString());
    detail::writeField(out, error->getMessage());
    out << error->getAllExceptionContexts().size() << ' ';
    for (const auto& context : error->getAllExceptionContexts()) {
        detail::writeField(out, context.getExceptionContextKey());
        detail::writeField(out, context.getDetail());
    }
}

inline std::optional<provider::Exception> readProviderError(std::istream& in)
{
    int present = 0;
    in >> present;
    if (!in)
        throw std::runtime_error("malformed provider error text");
    if (!present)
        return std::nullopt;
    int code = 0;
    in >> code;
    const ustring location = detail::readField(in);
    const ustring message = detail::readField(in);
    std::size_t count = 0;
    in >> count;
    provider::ExceptionContexts contexts;
    for (std::size_t i = 0; i < count; ++i) {
        ustring key = detail::readField(in);
        contexts.emplace_back(std::move(key), detail::readField(in));
    }
    provider::Exception error(static_cast<provider::ErrorCode>(code),
                              location.empty() ? StorageIRI() : StorageIRI(location), message);
    error.withExceptionContexts(std::move(contexts));
    return error;
}

} // namespace vfs_test
