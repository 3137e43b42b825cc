#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/Folder.hpp>
#include <foundation/storage/vfs/FolderEntries.hpp>
#include <foundation/storage/vfs/FolderListing.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <boost/throw_exception.hpp>
#include <boost/variant/get.hpp>
#include <boost/variant/variant.hpp>

#include <optional>
#include <utility>
#include <vector>

namespace foundation::storage::vfs {

namespace {

using ProviderCode = provider::ErrorCode;
using provider::ReplacementPolicy;
using AnyEntry = boost::variant<FileEntry, FolderEntry>;

provider::StorageItem bind(const provider::StorageIRI& location, const StorageSystemReference& system)
{
    return provider::StorageItem(detail::bindProvider(system, location), location);
}

// A provider's move of a folder is retried as copy and delete when the provider cannot move there at
// all, or when a merging policy meets a target that a rename cannot merge into.
bool moveFallsBack(ProviderCode code, ReplacementPolicy policy) noexcept
{
    if (code == ProviderCode::UnsupportedOperation)
        return true;
    const bool merging = policy == ReplacementPolicy::MergeFolders ||
                         policy == ReplacementPolicy::MergeCollectingFailures ||
                         policy == ReplacementPolicy::ReplaceIfNewer;
    return merging && (code == ProviderCode::FolderNotEmpty || code == ProviderCode::PermissionDenied ||
                       code == ProviderCode::ResourceAlreadyExists);
}

// Collecting failures is the library's business; to a provider the policy means merging.
ReplacementPolicy folderPolicyForProvider(ReplacementPolicy policy) noexcept
{
    return policy == ReplacementPolicy::MergeCollectingFailures ? ReplacementPolicy::MergeFolders : policy;
}

// The children of `folder` as one snapshot: the tree is changed while they are handled, and no
// provider has to keep a listing stable under its own removals.
std::vector<AnyEntry> childrenOf(const Folder& folder)
{
    std::vector<AnyEntry> children;
    for (const AnyEntry& entry : folder.listAllEntries(ustring()))
        children.push_back(entry);
    return children;
}

bool isMissing(const Exception& error, const AbsoluteIRI& location)
{
    return error.getErrorCode() == ErrorCode::ResourceNotFound && error.getLocation() == location;
}

void removeIgnoringMissing(const File& file)
{
    try {
        file.removeFile();
    } catch (const Exception& error) {
        if (!isMissing(error, file.getLocation()))
            throw;
    }
}

void removeTree(const Folder& folder, bool isRoot);

void removeChild(const Folder& parent, const AnyEntry& child)
{
    if (const auto* file = boost::get<FileEntry>(&child)) {
        removeIgnoringMissing(file->getFile());
        return;
    }
    const auto& subfolder = boost::get<FolderEntry>(child);
    bool isLink = false;
    try {
        isLink = subfolder.getAttributes().isSymlink();
    } catch (const Exception& error) {
        if (isMissing(error, subfolder.getFolder().getLocation()))
            return;
        throw;
    }
    if (isLink)
        removeIgnoringMissing(File(parent, subfolder.getName()));
    else
        removeTree(subfolder.getFolder(), false);
}

// Deletes `folder` and everything below it, files first, each folder after its contents. Links are
// removed as links: a linked folder's contents are never touched. What has vanished meanwhile counts
// as removed, except the root itself.
void removeTree(const Folder& folder, bool isRoot)
{
    try {
        for (const AnyEntry& child : childrenOf(folder))
            removeChild(folder, child);
        folder.removeFolder(FolderRemovalPolicy::NonRecursive);
    } catch (const Exception& error) {
        if (isRoot || !isMissing(error, folder.getLocation()))
            throw;
    }
}

// The state of one copy of a tree: what the policy asks, the failures MergeCollectingFailures puts
// aside, and the source folders being copied (outermost first, canonical locations computed when a
// link needs them) to recognise a link that leads back into the copy.
class TreeCopy {
public:
    explicit TreeCopy(ReplacementPolicy policy) : m_policy(policy) {}

    void copy(const Folder& source, const Folder& target)
    {
        prepareTarget(target);
        m_path.push_back({source, std::nullopt});
        for (const AnyEntry& child : childrenOf(source)) {
            if (const auto* file = boost::get<FileEntry>(&child)) {
                copyFile(file->getFile(), File(target, file->getName()));
                continue;
            }
            const auto& subfolder = boost::get<FolderEntry>(child);
            if (subfolder.getAttributes().isSymlink())
                refuseCircularLink(subfolder.getFolder());
            copy(subfolder.getFolder(), Folder(target, subfolder.getName()));
        }
        m_path.pop_back();
        target.setLastModified(source.getAttributes().getLastModified());
    }

    // The first failure put aside, if any.
    void throwCollected() const
    {
        if (!m_collected.empty())
            boost::throw_exception(m_collected.front());
    }

private:
    struct Visited {
        Folder folder;
        std::optional<CanonicalAbsoluteIRI> canonical;
    };

    void prepareTarget(const Folder& target) const
    {
        if (!target.folderExists()) {
            target.createFolder();
            return;
        }
        switch (m_policy) {
        case ReplacementPolicy::FailIfExists:
            boost::throw_exception(Exception(ErrorCode::ResourceAlreadyExists, target.getLocation()));
        case ReplacementPolicy::Replace:
            // Replaces an empty folder only: the provider reports FolderNotEmpty otherwise.
            target.removeFolder(FolderRemovalPolicy::NonRecursive);
            target.createFolder();
            return;
        default:
            return; // merge into it
        }
    }

    void copyFile(const File& source, const File& target)
    {
        try {
            source.copyFile(target, m_policy);
        } catch (const Exception& error) {
            if (m_policy == ReplacementPolicy::MergeCollectingFailures &&
                error.getErrorCode() == ErrorCode::PermissionDenied)
                m_collected.push_back(error);
            else if (!isMissing(error, source.getLocation())) // a source that vanished is skipped
                throw;
        }
    }

    void refuseCircularLink(const Folder& link)
    {
        const CanonicalAbsoluteIRI target = link.getCanonicalLocation();
        for (Visited& visited : m_path) {
            if (!visited.canonical)
                visited.canonical = visited.folder.getCanonicalLocation();
            if (target == *visited.canonical || target.isAncestorOf(*visited.canonical))
                boost::throw_exception(Exception(ErrorCode::InvalidLocation, target)
                                           .withExceptionContexts({provider::ExceptionContext(u"circular_symlink")}));
        }
    }

    ReplacementPolicy m_policy;
    std::vector<Exception> m_collected;
    std::vector<Visited> m_path;
};

} // namespace

std::ostream& operator<<(std::ostream& out, const FolderRemovalPolicy& policy)
{
    switch (policy) {
    case FolderRemovalPolicy::NonRecursive:
        return out << "FolderRemovalPolicy::NonRecursive";
    case FolderRemovalPolicy::Recursive:
        return out << "FolderRemovalPolicy::Recursive";
    }
    return out;
}

PathComparator::PathComparator(provider::PathComparatorFunction comparator) : m_comparator(std::move(comparator)) {}

PathComparator::PathComparator(PathComparator&& other) noexcept : m_comparator(std::exchange(other.m_comparator, {}))
{
}

PathComparator& PathComparator::operator=(PathComparator&& other) noexcept
{
    if (this != &other)
        m_comparator = std::exchange(other.m_comparator, {});
    return *this;
}

PathComparator::~PathComparator() = default;

bool PathComparator::operator()(const ustring& first, const ustring& second, provider::CaseModifier modifier) const
{
    return detail::translated([&] { return m_comparator(first, second, modifier); });
}

Folder::Folder(provider::StorageItem item, StorageSystemReference system)
    : m_item(std::move(item)), m_storageSystem(std::move(system))
{
}

Folder::Folder(const AbsoluteIRI& location, StorageSystemReference system)
    : m_item(bind(detail::IRIAccess::storageIRI(location), system)), m_storageSystem(std::move(system))
{
}

Folder::Folder(const CanonicalAbsoluteIRI& location, StorageSystemReference system)
    : m_item(bind(detail::IRIAccess::storageIRI(location), system)), m_storageSystem(std::move(system)),
      m_canonical(true)
{
}

Folder::Folder(const Folder& parent, const ustring& name)
    : m_item(detail::translated([&] { return provider::StorageItem(parent.m_item, name); })),
      m_storageSystem(parent.m_storageSystem)
{
}

Folder::Folder(const Folder& other) = default;

Folder detail::HandleAccess::makeChildFolder(const Folder& parent, ustring name)
{
    return Folder(translated([&] { return provider::StorageItem(parent.m_item, std::move(name)); }),
                  parent.m_storageSystem);
}

Folder::Folder(Folder&& other) noexcept = default;

Folder& Folder::operator=(const Folder& other)
{
    StorageSystemReference system(other.m_storageSystem);
    m_item = other.m_item;
    m_storageSystem = std::move(system);
    m_canonical = other.m_canonical;
    return *this;
}

Folder& Folder::operator=(Folder&& other) noexcept
{
    if (this != &other) {
        m_item = std::move(other.m_item);
        m_storageSystem = std::move(other.m_storageSystem);
    }
    m_canonical = other.m_canonical;
    return *this;
}

Folder::~Folder() = default;

ustring Folder::getName() const { return m_item.getName(); }

bool Folder::hasParent() const noexcept { return m_item.hasParent(); }

Folder Folder::getParent() const { return Folder(m_item.getParent(), m_storageSystem); }

AbsoluteIRI Folder::getLocation() const
{
    return detail::translated([&] { return detail::IRIAccess::make(m_item.getLocation(), true); });
}

CanonicalAbsoluteIRI Folder::getCanonicalLocation() const
{
    return detail::translated([&] {
        return detail::IRIAccess::makeCanonical(m_canonical ? m_item.getLocation() : m_item.getCanonicalLocation());
    });
}

StorageSystemReference Folder::getStorageSystem() const { return m_storageSystem; }

bool Folder::folderExists() const
{
    try {
        return m_item.folderExists();
    } catch (const provider::Exception& error) {
        if (error.getErrorCode() == ProviderCode::ResourceNotFound)
            return false;
        detail::translateProviderException();
    } catch (...) {
        detail::translateProviderException();
    }
}

void Folder::createFolder() const
{
    detail::translated([&] { m_item.createFolder(); });
}

void Folder::createFolderRecursive() const
{
    detail::translated([&] { m_item.createFolderRecursive(); });
}

void Folder::removeFolder(const FolderRemovalPolicy& policy) const
{
    detail::translated([&] {
        if (policy == FolderRemovalPolicy::NonRecursive)
            m_item.removeFolder();
        else if (m_item.hasFeature(provider::ExtendedFeature::RecursiveRemoval))
            m_item.removeFolderRecursively();
        else
            removeTreeEntryByEntry();
    });
}

void Folder::moveFolder(const Folder& destination, const provider::ReplacementPolicy& policy) const
{
    if (destination.m_item.getScheme() == m_item.getScheme()) {
        try {
            m_item.moveFolder(destination.m_item.getLocation(), folderPolicyForProvider(policy));
            return;
        } catch (const provider::Exception& error) {
            if (!moveFallsBack(error.getErrorCode(), policy))
                detail::translateProviderException();
        } catch (...) {
            detail::translateProviderException();
        }
    }
    copyTreeForMove(destination, policy);
    removeFolder(FolderRemovalPolicy::Recursive);
}

void Folder::removeTreeEntryByEntry() const { removeTree(*this, true); }

void Folder::copyTreeForMove(const Folder& destination, provider::ReplacementPolicy policy) const
{
    // Copying a folder into itself would never end, and onto itself would overwrite what it reads.
    const auto& source = m_item.getLocation();
    const auto& target = destination.m_item.getLocation();
    if (source == target || (source.isAncestorOf(target) && folderExists()))
        boost::throw_exception(Exception(ErrorCode::InvalidLocation, destination.getLocation()));
    TreeCopy copy(policy);
    copy.copy(*this, destination);
    copy.throwCollected();
}

provider::FolderAttributes Folder::getAttributes() const
{
    return detail::translated([&] { return m_item.getFolderAttributes(); });
}

provider::ExtendedAttributes Folder::getExtendedAttributes() const
{
    return detail::translated([&] { return m_item.getExtendedAttributes(); });
}

void Folder::setLastModified(const boost::posix_time::ptime& time) const
{
    detail::translated([&] { m_item.setLastModified(time); });
}

void Folder::setWritable(bool writable) const
{
    detail::translated([&] { m_item.setWritable(writable); });
}

void Folder::flushFilesystem()
{
    detail::translated([&] { m_item.flushFilesystem(); });
}

provider::FilenameSensitivity Folder::getFilenameSensitivity() const
{
    return detail::translated([&] { return m_item.getFilenameSensitivity(); });
}

PathComparator Folder::getPathComparator() const
{
    return detail::translated([&] { return PathComparator(m_item.getPathComparator()); });
}

void Folder::swap(Folder& other) noexcept
{
    std::swap(m_item, other.m_item);
}

bool Folder::operator==(const Folder& other) const noexcept
{
    return m_item.getLocation() == other.m_item.getLocation();
}

bool Folder::operator!=(const Folder& other) const noexcept
{
    return m_item.getLocation() != other.m_item.getLocation();
}

bool Folder::operator<(const Folder& other) const noexcept { return m_item.getLocation() < other.m_item.getLocation(); }

std::ostream& operator<<(std::ostream& out, const Folder& folder) { return out << folder.getLocation(); }

} // namespace foundation::storage::vfs
