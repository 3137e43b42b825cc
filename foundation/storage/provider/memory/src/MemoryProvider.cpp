#include <foundation/storage/provider/memory/MemoryProvider.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string_view>
#include <variant>
#include <vector>

namespace foundation::storage::provider::memory {

namespace {

using Clock = std::chrono::system_clock;

// One file or folder. Folders own their children; a file owns its bytes. Times and writability
// belong to both kinds, as on disk.
struct Node {
    struct Folder {
        // std::less<> so that path segments (string views) look children up without a copy.
        std::map<ustring, std::unique_ptr<Node>, std::less<>> children;
    };
    struct File {
        std::vector<std::byte> bytes;
    };

    std::variant<Folder, File> content;
    Clock::time_point lastModified = Clock::now();
    bool writable = true;

    const Folder* asFolder() const noexcept { return std::get_if<Folder>(&content); }
};

[[noreturn]] void refuse(const StorageIRI& location, std::u16string_view reason, ustring detail = {})
{
    throwProviderError(ErrorCode::InvalidLocation, location, {ExceptionContext(ustring(reason), std::move(detail))});
}

// Volumes are keyed by the IRI's authority. Every operation takes m_mutex: shared to read the tree,
// exclusive to change it; nothing calls out of the provider while holding it.
class MemoryProvider final : public IProvider {
public:
    explicit MemoryProvider(MemoryProviderOptions options) : m_options(options) {}

    ExistenceType exists(const StorageIRI& location) const override
    {
        checkLocation(location);
        std::shared_lock lock(m_mutex);
        const Node* node = find(location);
        if (!node)
            return ExistenceType::NotFound;
        return node->asFolder() ? ExistenceType::Folder : ExistenceType::File;
    }

    // Memory volumes hold no links and no special files, so this differs from exists() only in type.
    ExistenceTypeExtended existsExtended(const StorageIRI& location) const override
    {
        switch (exists(location)) {
        case ExistenceType::File:
            return ExistenceTypeExtended::File;
        case ExistenceType::Folder:
            return ExistenceTypeExtended::Folder;
        case ExistenceType::NotFound:
            break;
        }
        return ExistenceTypeExtended::NotFound;
    }

    bool hasFeature(const StorageIRI& location, ExtendedFeature) const override
    {
        checkLocation(location);
        return false;
    }

private:
    static void checkLocation(const StorageIRI& location)
    {
        if (const ustring scheme = location.getScheme(); scheme != u"mem")
            refuse(location, u"wrong-scheme", scheme);
        if (location.hasInnerIRI())
            refuse(location, u"nested-iri");
        const ustring& volume = location.getAuthority();
        if (volume.empty())
            refuse(location, u"no-volume");
        if (!location.hasPath())
            refuse(location, u"no-path");
        if (volume.find(u'\0') != ustring::npos || location.getPath().find(u'\0') != ustring::npos)
            refuse(location, u"nul-in-name");
    }

    // The node at `location`, or null. A path that continues below a file finds nothing. Caller
    // holds m_mutex.
    const Node* find(const StorageIRI& location) const
    {
        const auto volume = m_volumes.find(location.getAuthority());
        // A volume nobody has written to yet is an empty root folder.
        const Node* node = volume == m_volumes.end() ? &m_unusedVolumeRoot : volume->second.get();
        for (std::u16string_view segment : location.getPathView()) {
            const Node::Folder* folder = node->asFolder();
            if (!folder)
                return nullptr;
            const auto child = folder->children.find(segment);
            if (child == folder->children.end())
                return nullptr;
            node = child->second.get();
        }
        return node;
    }

    MemoryProviderOptions m_options;
    mutable std::shared_mutex m_mutex;
    std::map<ustring, std::unique_ptr<Node>, std::less<>> m_volumes;
    const Node m_unusedVolumeRoot{Node::Folder{}};
};

} // namespace

std::shared_ptr<IProvider> makeMemoryProvider(MemoryProviderOptions options)
{
    return std::make_shared<MemoryProvider>(options);
}

} // namespace foundation::storage::provider::memory
