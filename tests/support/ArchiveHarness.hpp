#pragma once

// The zip: and tar: providers in the kit, their container in a memory volume. Zip is writable: the
// harness creates the archive through the provider and builds trees through it. Tar is read-only:
// the harness stages its trees and rebuilds the container on each makeFileWith()/makeFolder().

#include "ArchiveFixtures.hpp"

#include <foundation/storage/provider/archive/ArchiveProvider.hpp>
#include <foundation/storage/provider/memory/MemoryProvider.hpp>

#include <fl/i18n/ustring.hpp>

#include <map>
#include <memory>
#include <string>

namespace vfs_test {

// A memory provider for mem: and `archive` for its own scheme: what a storage system would resolve.
inline provider::archive::ArchiveProviderOptions archiveOptions(provider::archive::ArchiveFormat format)
{
    provider::archive::ArchiveProviderOptions options;
    options.format = format;
    return options;
}

inline provider::ProviderContext archiveContext(std::shared_ptr<provider::IProvider> memory,
                                                std::shared_ptr<std::weak_ptr<provider::IProvider>> archive)
{
    return {[memory, archive](const StorageIRI& location) -> std::shared_ptr<provider::IProvider> {
        if (location.getScheme() == u"mem")
            return memory;
        if (auto self = archive->lock(); self && location.getScheme() == self->capabilities().scheme)
            return self;
        provider::throwProviderError(provider::ErrorCode::UnsupportedOperation, location, {provider::ExceptionContext(u"resolve")});
    }};
}

class ArchiveHarness final : public ProviderHarness {
public:
    explicit ArchiveHarness(ArchiveRecipe recipe) : m_recipe(std::move(recipe))
    {
        const auto format = m_recipe.kind == ArchiveRecipe::Kind::Zip ? provider::archive::ArchiveFormat::Zip
                                                                      : provider::archive::ArchiveFormat::Tar;
        m_provider = provider::archive::makeArchiveProvider(archiveContext(m_memory, m_self), archiveOptions(format));
        *m_self = m_provider;
        m_root = StorageIRI(format == provider::archive::ArchiveFormat::Zip ? u"zip" : u"tar", m_container, u"/");
        if (writable())
            m_provider->createFolder(m_root);
        else
            rebuild();
    }

    std::shared_ptr<provider::IProvider> provider() const override { return m_provider; }
    StorageIRI root() const override { return m_root; }
    std::vector<StorageIRI> malformedLocations() const override
    {
        return {StorageIRI(m_root.getScheme() + u":///a"), StorageIRI(m_root, ustring(u"a\0b", 3))};
    }
    StorageIRI makeFolder(const ustring& relative) const override
    {
        if (writable())
            return ProviderHarness::makeFolder(relative);
        stage(relative, std::nullopt);
        rebuild();
        return StorageIRI(m_root, relative);
    }
    StorageIRI makeFileWith(const ustring& relative, const std::string& bytes) const override
    {
        if (writable())
            return ProviderHarness::makeFileWith(relative, bytes);
        stage(relative, bytes);
        rebuild();
        return StorageIRI(m_root, relative);
    }

private:
    bool writable() const { return m_provider->capabilities().writable; }
    void stage(const ustring& relative, std::optional<std::string> content) const
    {
        const std::string path = fl::i18n::ustring_to_utf8(StorageIRI(m_root, relative).getPath()).substr(1);
        for (std::size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1))
            m_staged.try_emplace(path.substr(0, slash), std::nullopt);
        m_staged[path] = std::move(content);
    }
    void rebuild() const
    {
        std::vector<ArchiveItem> items;
        for (const auto& [name, content] : m_staged)
            items.push_back({content ? name : name + "/", content});
        storeBytes(*m_memory, m_container, makeArchive(items, m_recipe));
    }

    ArchiveRecipe m_recipe;
    std::shared_ptr<provider::IProvider> m_memory = provider::memory::makeMemoryProvider();
    std::shared_ptr<std::weak_ptr<provider::IProvider>> m_self = std::make_shared<std::weak_ptr<provider::IProvider>>();
    std::shared_ptr<provider::IProvider> m_provider;
    StorageIRI m_container{u"mem://box/c.archive"};
    StorageIRI m_root;
    mutable std::map<std::string, std::optional<std::string>> m_staged;
};

} // namespace vfs_test
