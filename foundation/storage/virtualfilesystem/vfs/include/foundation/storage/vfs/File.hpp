#pragma once

#include <fl/i18n/ustring.hpp>
#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/events/EventKinds.hpp>
#include <foundation/storage/provider/StorageItem.hpp>
#include <foundation/storage/vfs/AbsoluteIRI.hpp>
#include <foundation/storage/vfs/StorageSystem.hpp>


#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace foundation::storage::vfs {

class Folder;
class EventPublisher;
class RecursiveEventPublisher;
namespace detail {
struct HandleAccess;
struct StreamAccess;
struct EventAccess;
}

// A file location bound to the provider that serves it. A cheap value: constructing one never
// touches the storage, so a File may name a file that does not exist yet (that is how files are
// created); a missing file, or a folder at the location, fails in the first operation that needs
// a file.
//
// Every provider failure reaches the caller as Exception (location, ErrorCode, the provider's
// contexts). A File is not synchronised; copies may be used from different threads.
class VFS_EXPORT File : public Resource {
public:
    // Binds `location` to the provider `system` builds for it. A storage system that has gone throws
    // std::runtime_error "StorageSystem has been destroyed"; an unserved scheme throws
    // UnsupportedIRISchemeException.
    File(const AbsoluteIRI& location, StorageSystemReference system);
    // As above; the location is taken as canonical, so getCanonicalLocation() never asks the provider.
    File(const CanonicalAbsoluteIRI& location, StorageSystemReference system);
    // The file `name` inside `parent`, with the parent's provider and storage system. A name that is
    // empty, absolute, holds NUL or climbs above the folder throws Exception (InvalidLocation).
    File(const Folder& parent, const ustring& name);

    File(const File&) = default;
    File(File&&) = default;
    File& operator=(const File&) = default;
    File& operator=(File&&) = default;
    ~File() override;

    AbsoluteIRI getLocation() const override;
    // The location with links and relative segments resolved by the provider (which may consult the
    // storage, and then needs the file to exist).
    CanonicalAbsoluteIRI getCanonicalLocation() const;
    // The last segment of the location; these four never reach the storage.
    ustring getName() const;
    // getName() in UTF-8, for printing (what is not Unicode becomes U+FFFD).
    std::string getNameUtf8() const { return fl::i18n::ustring_to_utf8_lossy(getName()); }
    // The name without its last extension; a name whose only dot leads it is its own stem.
    ustring getStem() const;
    // The last extension with its dot ("" without one); ".profile" is its own extension.
    ustring getExtension() const;
    Folder getParent() const;
    StorageSystemReference getStorageSystem() const;

    // False when nothing, or a folder, is at the location; other failures throw.
    bool fileExists() const;
    provider::FileAttributes getAttributes() const;
    provider::ExtendedAttributes getExtendedAttributes() const;

    // These change the storage, never the handle.
    void createFile() const;
    void removeFile() const;
    void setLastModified(const boost::posix_time::ptime& time) const;
    void setWritable(bool writable) const;
    void truncateToSize(std::uint64_t size) const;
    // Within one scheme a native move; across schemes a copy followed by removing this file, which
    // stays in place when the copy fails. MergeCollectingFailures acts as Replace.
    void moveFile(const File& destination, const provider::ReplacementPolicy& policy) const;
    // The target receives this file's content and, within one scheme, its modification time.
    // MergeCollectingFailures acts as Replace.
    void copyFile(const File& destination, const provider::ReplacementPolicy& policy) const;
    // As above, with a progress callback; NothingDone when the copy was skipped (ReplaceIfNewer) or
    // cancelled, and then the target is left as it was.
    provider::TransactionStatus copyFile(const File& destination, const provider::CopyFileOptions& options) const;

    // Exchanges the locations only: each File keeps its storage system and canonical flag. For that
    // reason there is no free swap(File&, File&): algorithms that swap elements (std::sort) use
    // std::swap, which moves whole values.
    void swap(File& other) noexcept;

    // By location alone: equal locations in different storage systems are equal.
    bool operator==(const File& other) const noexcept;
    bool operator!=(const File& other) const noexcept;
    bool operator<(const File& other) const noexcept;

private:
    friend class Folder;
    friend struct detail::HandleAccess;
    // The devices and streams open files through it.
    friend struct detail::StreamAccess;

    File(provider::StorageItem item, StorageSystemReference system);

    // ---- change events (reached through the functions of Events.hpp) ----
    friend struct detail::EventAccess;
    void publishEvents(const EventPublisher& publisher, const std::vector<events::Kind>& kinds) const;
    // Always Exception(InvalidLocation): a file cannot be watched recursively.
    void publishEventsRecursively(const RecursiveEventPublisher& publisher, const std::vector<events::Kind>& kinds) const;
    void stopPublishingEvents() const;

    provider::TransactionStatus doCopyFile(const File& destination, const provider::CopyFileOptions& options) const;
    void doMoveFile(const File& destination, const provider::ReplacementPolicy& policy) const;

    // Provider streams on this file; failures translated. The returned device owns the stream.
    provider::ByteStreamDevice open(const provider::ByteStreamOpenOptions& options) const;
    provider::ByteStreamDevice openReadOnly() const;
    provider::TransactionalStreamDevice openTransactionalStream(const provider::ByteStreamOpenOptions& options) const;

    // The item, for an operation that reaches the provider: throws std::runtime_error "StorageSystem
    // has been destroyed" once the storage system has gone, although the item still holds a provider.
    const provider::StorageItem& live() const;

    provider::StorageItem m_item;
    StorageSystemReference m_storageSystem;
    bool m_canonical = false;
};

// Writes the location.
VFS_EXPORT std::ostream& operator<<(std::ostream& out, const File& file);

// The whole content of `file`. Failures as IODevice's (<foundation/storage/vfs/IODevice.hpp>).
VFS_EXPORT std::string readAll(const File& file);
// Makes `bytes` the whole content of `file`, created when missing, through its transactional
// stream: a reader sees the old content or the new one, never a part, and a failure (an
// I/O exception) leaves the old content in place.
VFS_EXPORT void writeAll(const File& file, std::string_view bytes);

} // namespace foundation::storage::vfs
