#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/Folder.hpp>
#include <foundation/storage/vfs/FolderEntries.hpp>
#include <foundation/storage/vfs/FolderListing.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <boost/throw_exception.hpp>
#include "MovedTreeRemoval.hpp"
#include "TreeVisitors.hpp"

#include <utility>

namespace foundation::storage::vfs {

namespace {

using ProviderCode = provider::ErrorCode;
using provider::ReplacementPolicy;

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

const provider::StorageItem& Folder::live() const
{
    static_cast<void>(m_storageSystem.lock());
    return m_item;
}

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
        return detail::IRIAccess::makeCanonical(m_canonical ? m_item.getLocation() : live().getCanonicalLocation());
    });
}

StorageSystemReference Folder::getStorageSystem() const { return m_storageSystem; }

bool Folder::folderExists() const
{
    try {
        return live().folderExists();
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
    detail::translated([&] { live().createFolder(); });
}

void Folder::createFolderRecursive() const
{
    detail::translated([&] { live().createFolderRecursive(); });
}

void Folder::removeFolder(const FolderRemovalPolicy& policy) const
{
    const bool native = detail::translated([&] {
        if (policy == FolderRemovalPolicy::NonRecursive) {
            live().removeFolder();
            return true;
        }
        if (!live().hasFeature(provider::ExtendedFeature::RecursiveRemoval))
            return false;
        live().removeFolderRecursively();
        return true;
    });
    if (!native)
        detail::removeTreeByWalking(*this, TreeProgressObserver());
}

bool Folder::removeFolder(const FolderRemovalPolicy& policy, const TreeProgressObserver& observer,
                          const TreeBoundary& boundary) const
{
    if (policy == FolderRemovalPolicy::NonRecursive) {
        removeFolder(policy);
        if (observer)
            observer(TreeProgress{0, 1, 0}); // done already: nothing left to stop
        return true;
    }
    return detail::removeTreeByWalking(*this, observer, boundary);
}

void Folder::moveFolder(const Folder& destination, const provider::ReplacementPolicy& policy) const
{
    if (destination.m_item.getScheme() == m_item.getScheme()) {
        try {
            live().moveFolder(destination.m_item.getLocation(), folderPolicyForProvider(policy));
            return;
        } catch (const provider::Exception& error) {
            if (!moveFallsBack(error.getErrorCode(), policy))
                detail::translateProviderException();
        } catch (...) {
            detail::translateProviderException();
        }
    }
    detail::copyTree(*this, destination, policy, TreeProgressObserver(), true);
    detail::removeMovedTree(*this, destination);
}

provider::FolderAttributes Folder::getAttributes() const
{
    return detail::translated([&] { return live().getFolderAttributes(); });
}

provider::ExtendedAttributes Folder::getExtendedAttributes() const
{
    return detail::translated([&] { return live().getExtendedAttributes(); });
}

void Folder::setLastModified(const boost::posix_time::ptime& time) const
{
    detail::translated([&] { live().setLastModified(time); });
}

void Folder::setWritable(bool writable) const
{
    detail::translated([&] { live().setWritable(writable); });
}

void Folder::flushFilesystem()
{
    detail::translated([&] { live().flushFilesystem(); });
}

provider::FilenameSensitivity Folder::getFilenameSensitivity() const
{
    return detail::translated([&] { return live().getFilenameSensitivity(); });
}

PathComparator Folder::getPathComparator() const
{
    return detail::translated([&] { return PathComparator(live().getPathComparator()); });
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
