#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/File.hpp>
#include <foundation/storage/vfs/Folder.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <utility>

namespace foundation::storage::vfs {

namespace {

using provider::ReplacementPolicy;

// Providers never see MergeCollectingFailures: collecting failures is the library's business, and
// for a single file it means Replace.
ReplacementPolicy forProvider(ReplacementPolicy policy) noexcept
{
    return policy == ReplacementPolicy::MergeCollectingFailures ? ReplacementPolicy::Replace : policy;
}

provider::StorageItem bind(const provider::StorageIRI& location, const StorageSystemReference& system)
{
    return provider::StorageItem(detail::bindProvider(system, location), location);
}

} // namespace

File::File(provider::StorageItem item, StorageSystemReference system)
    : m_item(std::move(item)), m_storageSystem(std::move(system))
{
}

File::File(const AbsoluteIRI& location, StorageSystemReference system)
    : m_item(bind(detail::IRIAccess::storageIRI(location), system)), m_storageSystem(std::move(system))
{
}

File::File(const CanonicalAbsoluteIRI& location, StorageSystemReference system)
    : m_item(bind(detail::IRIAccess::storageIRI(location), system)), m_storageSystem(std::move(system)),
      m_canonical(true)
{
}

File::File(const Folder& parent, const ustring& name)
    : m_item(detail::translated([&] { return provider::StorageItem(parent.m_item, name); })),
      m_storageSystem(parent.m_storageSystem)
{
}

File::~File() = default;

const provider::StorageItem& File::live() const
{
    static_cast<void>(m_storageSystem.lock());
    return m_item;
}

File detail::HandleAccess::makeChildFile(const Folder& parent, ustring name)
{
    return File(translated([&] { return provider::StorageItem(parent.m_item, std::move(name)); }),
                parent.m_storageSystem);
}

AbsoluteIRI File::getLocation() const
{
    return detail::translated([&] { return detail::IRIAccess::make(m_item.getLocation(), true); });
}

CanonicalAbsoluteIRI File::getCanonicalLocation() const
{
    return detail::translated([&] {
        return detail::IRIAccess::makeCanonical(m_canonical ? m_item.getLocation() : live().getCanonicalLocation());
    });
}

ustring File::getName() const { return m_item.getName(); }

ustring File::getStem() const
{
    const ustring& name = m_item.getName();
    if (name.empty())
        return {};
    const std::size_t hidden = name.front() == u'.' ? 1 : 0;
    const std::size_t dot = name.rfind(u'.');
    if (dot == ustring::npos || dot < hidden)
        return name;
    return name.substr(0, dot);
}

ustring File::getExtension() const
{
    const ustring& name = m_item.getName();
    const std::size_t dot = name.rfind(u'.');
    return dot == ustring::npos ? ustring() : name.substr(dot);
}

Folder File::getParent() const { return Folder(m_item.getParent(), m_storageSystem); }

StorageSystemReference File::getStorageSystem() const { return m_storageSystem; }

bool File::fileExists() const
{
    try {
        return live().fileExists();
    } catch (const provider::Exception& error) {
        if (error.getErrorCode() == provider::ErrorCode::ResourceNotFound)
            return false;
        detail::translateProviderException();
    } catch (...) {
        detail::translateProviderException();
    }
}

provider::FileAttributes File::getAttributes() const
{
    return detail::translated([&] { return live().getFileAttributes(); });
}

provider::ExtendedAttributes File::getExtendedAttributes() const
{
    return detail::translated([&] { return live().getExtendedAttributes(); });
}

void File::createFile() const
{
    detail::translated([&] { live().createFile(); });
}

void File::removeFile() const
{
    detail::translated([&] { live().removeFile(); });
}

void File::setLastModified(const boost::posix_time::ptime& time) const
{
    detail::translated([&] { live().setLastModified(time); });
}

void File::setWritable(bool writable) const
{
    detail::translated([&] { live().setWritable(writable); });
}

void File::truncateToSize(std::uint64_t size) const
{
    detail::translated([&] { live().truncateToSize(size); });
}

void File::moveFile(const File& destination, const provider::ReplacementPolicy& policy) const
{
    detail::translated([&] { doMoveFile(destination, policy); });
}

void File::copyFile(const File& destination, const provider::ReplacementPolicy& policy) const
{
    provider::CopyFileOptions options;
    options.replacementPolicy = policy;
    detail::translated([&] { doCopyFile(destination, options); });
}

provider::TransactionStatus File::copyFile(const File& destination, const provider::CopyFileOptions& options) const
{
    return detail::translated([&] { return doCopyFile(destination, options); });
}

provider::TransactionStatus File::doCopyFile(const File& destination, const provider::CopyFileOptions& options) const
{
    provider::CopyFileOptions forwarded = options;
    forwarded.replacementPolicy = forProvider(options.replacementPolicy);
    // Within one scheme the copy keeps the source's time, set by the provider before the target
    // appears; across schemes the target storage's own time stands: the two may not even keep
    // times alike.
    forwarded.keepLastModified = destination.getLocation().getScheme() == getLocation().getScheme();
    return live().copyFile(destination.m_item, forwarded);
}

void File::doMoveFile(const File& destination, const provider::ReplacementPolicy& policy) const
{
    const ReplacementPolicy forwarded = forProvider(policy);
    if (m_item.getScheme() == destination.m_item.getScheme()) {
        live().moveFile(destination.m_item.getLocation(), forwarded);
        return;
    }
    copyFile(destination, forwarded);
    removeFile();
}

void File::swap(File& other) noexcept
{
    std::swap(m_item, other.m_item);
}

bool File::operator==(const File& other) const noexcept { return m_item.getLocation() == other.m_item.getLocation(); }

bool File::operator!=(const File& other) const noexcept { return m_item.getLocation() != other.m_item.getLocation(); }

bool File::operator<(const File& other) const noexcept { return m_item.getLocation() < other.m_item.getLocation(); }

std::ostream& operator<<(std::ostream& out, const File& file) { return out << file.getLocation(); }

provider::ByteStreamDevice File::open(const provider::ByteStreamOpenOptions& options) const
{
    return detail::translated([&] { return provider::ByteStreamDevice(live().openStream(options)); });
}

provider::ByteStreamDevice File::openReadOnly() const
{
    return detail::translated([&] { return provider::ByteStreamDevice(live().openReadOnlyStream()); });
}

provider::TransactionalStreamDevice File::openTransactionalStream(const provider::ByteStreamOpenOptions& options) const
{
    return detail::translated([&] { return provider::TransactionalStreamDevice(live().openTransactionalStream(options)); });
}

} // namespace foundation::storage::vfs
