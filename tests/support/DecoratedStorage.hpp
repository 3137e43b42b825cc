#pragma once

// A DefaultStorageSystem whose providers tests can steer and observe, and a working folder on each
// of its schemes: the library's handles are tested against the real providers, with faults injected
// and calls counted where a test needs to.

#include "ExceptionCapture.hpp"
#include "TempDir.hpp"

#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>
#include <foundation/storage/vfs/DefaultStorageSystem.hpp>
#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/File.hpp>
#include <foundation/storage/vfs/Folder.hpp>

#include <fl/i18n/ustring.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

namespace vfs_test {

// The decorators around one provider, outermost first: faults, then counting, then feature masking
// over the real provider. Counting therefore sees every call that no fault stopped, hasFeature
// included.
struct ProviderLayers {
    std::shared_ptr<foundation::storage::provider::decorators::FaultInjectingProvider> faults;
    std::shared_ptr<foundation::storage::provider::decorators::CallCountingProvider> calls;
};

class DecoratedStorage {
public:
    // `hidden` features are masked on every provider; `wrap`, when given, goes between the counting
    // layer and the masking one (for a recording decorator of the test's own).
    using Wrap = std::function<std::shared_ptr<foundation::storage::provider::IProvider>(
        std::shared_ptr<foundation::storage::provider::IProvider>)>;

    explicit DecoratedStorage(std::set<foundation::storage::provider::ExtendedFeature> hidden = {}, Wrap wrap = {},
                              foundation::storage::vfs::DefaultStorageSystemOptions options = {})
        : m_state(std::make_shared<State>())
    {
        namespace decorators = foundation::storage::provider::decorators;
        options.decorateProvider = [state = m_state, hidden = std::move(hidden), wrap = std::move(wrap)](
                                       const fl::i18n::ustring& scheme,
                                       std::shared_ptr<foundation::storage::provider::IProvider> built) {
            std::shared_ptr<foundation::storage::provider::IProvider> inner =
                std::make_shared<decorators::FeatureMaskingProvider>(std::move(built), hidden);
            if (wrap)
                inner = wrap(std::move(inner));
            ProviderLayers layers;
            layers.calls = std::make_shared<decorators::CallCountingProvider>(std::move(inner));
            layers.faults = std::make_shared<decorators::FaultInjectingProvider>(layers.calls);
            std::lock_guard lock(state->mutex);
            state->layers[scheme] = layers;
            return std::shared_ptr<foundation::storage::provider::IProvider>(layers.faults);
        };
        system = std::make_shared<foundation::storage::vfs::DefaultStorageSystem>(std::move(options));
        ref = foundation::storage::vfs::StorageSystemReference(
            std::weak_ptr<foundation::storage::vfs::StorageSystem>(system));
    }

    // The layers of the provider serving `scheme` ("file" or "mem"), built now if need be.
    const ProviderLayers& layers(const fl::i18n::ustring& scheme) const
    {
        const foundation::storage::vfs::AbsoluteIRI any(scheme == u"file" ? u"file:///" : u"mem://any/");
        foundation::storage::vfs::Folder binding(any, ref);
        std::lock_guard lock(m_state->mutex);
        return m_state->layers.at(scheme);
    }

    std::shared_ptr<foundation::storage::vfs::DefaultStorageSystem> system;
    foundation::storage::vfs::StorageSystemReference ref{
        std::weak_ptr<foundation::storage::vfs::StorageSystem>()};

private:
    struct State {
        std::mutex mutex;
        std::map<fl::i18n::ustring, ProviderLayers> layers;
    };
    std::shared_ptr<State> m_state;
};

// An existing, empty folder for one test on one scheme: a fresh temporary folder on the local disk,
// or the root of a memory volume of the test's own storage system.
class WorkingFolder {
public:
    WorkingFolder(const std::string& scheme, const foundation::storage::vfs::StorageSystemReference& ref)
        : m_root(makeRoot(scheme, ref))
    {
    }

    const foundation::storage::vfs::Folder& root() const noexcept { return *m_root; }
    foundation::storage::vfs::AbsoluteIRI location(const fl::i18n::ustring& relative) const
    {
        return foundation::storage::vfs::AbsoluteIRI(m_root->getLocation(), relative);
    }
    foundation::storage::vfs::File file(const fl::i18n::ustring& relative) const
    {
        return foundation::storage::vfs::File(location(relative), m_root->getStorageSystem());
    }
    foundation::storage::vfs::Folder folder(const fl::i18n::ustring& relative) const
    {
        return foundation::storage::vfs::Folder(location(relative), m_root->getStorageSystem());
    }
    // The local temporary folder; null on memory.
    const TempDir* localDir() const noexcept { return m_dir ? &*m_dir : nullptr; }

private:
    std::optional<foundation::storage::vfs::Folder> makeRoot(const std::string& scheme,
                                                             const foundation::storage::vfs::StorageSystemReference& ref)
    {
        if (scheme == "mem")
            return foundation::storage::vfs::Folder(foundation::storage::vfs::AbsoluteIRI(u"mem://work/"), ref);
        if (scheme != "file")
            throw std::invalid_argument("no working folder on scheme " + scheme);
        m_dir.emplace();
        return foundation::storage::vfs::Folder(foundation::storage::vfs::toAbsoluteIRI(u"", m_dir->path()), ref);
    }

    std::optional<TempDir> m_dir;
    std::optional<foundation::storage::vfs::Folder> m_root;
};

// The library code of the Exception `call` throws; the test fails when it throws none.
template <class Call>
foundation::storage::vfs::ErrorCode libraryErrorOf(Call&& call)
{
    return inspectThrown<foundation::storage::vfs::Exception>(
        std::forward<Call>(call), [](const foundation::storage::vfs::Exception& error) { return error.getErrorCode(); });
}

// A test run once on the local disk ("file") and once in memory ("mem"), each time with a
// DecoratedStorage of its own and a working folder on that scheme.
class OnEachScheme : public testing::TestWithParam<std::string> {
protected:
    explicit OnEachScheme(DecoratedStorage::Wrap wrap = {}) : storage({}, std::move(wrap)) {}

    fl::i18n::ustring scheme() const { return fl::i18n::utf8_to_ustring(GetParam()); }
    const ProviderLayers& layers() const { return storage.layers(scheme()); }

    DecoratedStorage storage;
    WorkingFolder work{GetParam(), storage.ref};
};

inline std::string schemeName(const testing::TestParamInfo<std::string>& info) { return info.param; }

// A test run on each scheme, each time once per value of a flag the test gives a meaning (`flag()`):
// the library's fallback against the provider's own feature, a parallel walk against a sequential
// one. `hidden` features are masked on the providers of that run.
class OnEachSchemeAndFlag : public testing::TestWithParam<std::tuple<std::string, bool>> {
protected:
    explicit OnEachSchemeAndFlag(std::set<foundation::storage::provider::ExtendedFeature> hidden = {},
                                 DecoratedStorage::Wrap wrap = {})
        : storage(std::move(hidden), std::move(wrap))
    {
    }

    static bool flag() { return std::get<1>(GetParam()); }
    static fl::i18n::ustring scheme() { return fl::i18n::utf8_to_ustring(std::get<0>(GetParam())); }
    const ProviderLayers& layers() const { return storage.layers(scheme()); }
    foundation::storage::provider::decorators::FaultInjectingProvider& faults() const { return *layers().faults; }

    DecoratedStorage storage;
    WorkingFolder work{std::get<0>(GetParam()), storage.ref};
};

inline auto eachSchemeAndFlag() { return testing::Combine(testing::Values("file", "mem"), testing::Bool()); }

// Test names: the scheme, then `whenSet` or `whenClear`.
inline auto schemeAndFlagName(std::string whenClear, std::string whenSet)
{
    return [=](const testing::TestParamInfo<std::tuple<std::string, bool>>& info) {
        return std::get<0>(info.param) + "_" + (std::get<1>(info.param) ? whenSet : whenClear);
    };
}

} // namespace vfs_test
