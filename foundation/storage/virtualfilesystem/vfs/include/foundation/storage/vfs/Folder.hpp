#pragma once

#include <foundation/storage/provider/StorageItem.hpp>
#include <foundation/storage/vfs/AbsoluteIRI.hpp>
#include <foundation/storage/vfs/File.hpp>
#include <foundation/storage/vfs/StorageSystem.hpp>

#include <boost/variant/variant_fwd.hpp>

#include <fl/chrono/duration.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <iosfwd>
#include <vector>

namespace foundation::storage::vfs {

class FileEntry;
class Folder;
class FolderEntry;
class ListEntry;
template <class T>
class FolderListing;

enum class FolderRemovalPolicy : std::int32_t {
    NonRecursive = 0, // an empty folder only; the provider reports anything else
    Recursive = 1,    // the folder and everything below it; links inside are removed, not followed
};

// "FolderRemovalPolicy::Recursive"; a value outside the enumeration writes nothing.
VFS_EXPORT std::ostream& operator<<(std::ostream& out, const FolderRemovalPolicy& policy);

// What a tree copy does with a symbolic link it meets inside the tree.
enum class LinkHandling : std::int32_t {
    Follow = 0, // copies what the link leads to (a link to a folder is walked into); a dangling link is passed over
    Keep = 1,   // makes a link with the same target text at the target (a relative target stays relative)
    Skip = 2,   // leaves the link out
};

// "LinkHandling::Keep"; a value outside the enumeration writes nothing.
VFS_EXPORT std::ostream& operator<<(std::ostream& out, const LinkHandling& links);

// How far a tree copy or removal has got.
struct TreeProgress {
    std::uint64_t files = 0;   // files copied (or found already there) or removed
    std::uint64_t folders = 0; // folders made or merged into (copy), or removed
    std::uint64_t bytes = 0;   // bytes copied, the file under way included; 0 for a removal
};

// Told after each file and each folder of a tree copy or removal, and during the copy of a large
// file after each chunk, on the calling thread. Answering false stops the work there: a file being
// copied is abandoned without a target, what is done stays done.
using TreeProgressObserver = std::function<bool(const TreeProgress& progress)>;

// Asked by a tree copy or removal before it goes into a folder below its root (a link to a folder
// that a copy follows included), on the calling thread; false leaves that folder's content alone: a
// copy makes the folder and copies nothing into it, a removal keeps it and the folders above it. For
// example, staying on one file system as cp -x and rm --one-file-system do. Empty: every folder.
using TreeBoundary = std::function<bool(const Folder& folder)>;

// A storage's ordering of paths, as its provider defines it: true when `first` orders before
// `second` under the name rules the CaseModifier selects. Calling an empty comparator (a
// moved-from one included) throws std::bad_function_call.
class VFS_EXPORT PathComparator {
public:
    explicit PathComparator(provider::PathComparatorFunction comparator);
    PathComparator(const PathComparator&) = default;
    // Leaves `other` empty.
    PathComparator(PathComparator&& other) noexcept;
    PathComparator& operator=(const PathComparator&) = default;
    PathComparator& operator=(PathComparator&& other) noexcept;
    ~PathComparator();

    bool operator()(const ustring& first, const ustring& second, provider::CaseModifier modifier) const;

private:
    provider::PathComparatorFunction m_comparator;
};

// A folder location bound to the provider that serves it: the twin of File. Constructing one never
// touches the storage; the handle names its location for life, whatever is later created, removed or
// moved there. Every provider failure reaches the caller as Exception. Not synchronised; copies may
// be used from different threads.
class VFS_EXPORT Folder {
public:
    // Binds `location` to the provider `system` builds for it. A storage system that has gone throws
    // std::runtime_error "StorageSystem has been destroyed"; an unserved scheme throws
    // UnsupportedIRISchemeException.
    Folder(const AbsoluteIRI& location, StorageSystemReference system);
    // As above; the location is taken as canonical, so getCanonicalLocation() never asks the provider.
    Folder(const CanonicalAbsoluteIRI& location, StorageSystemReference system);
    // The folder `name` inside `parent`, with the parent's provider and storage system (not taken as
    // canonical). A name that is empty, absolute, holds NUL or climbs above the folder throws
    // Exception (InvalidLocation).
    Folder(const Folder& parent, const ustring& name);

    Folder(const Folder& other);
    Folder(Folder&& other) noexcept;
    // Strong guarantee: a failing copy leaves this folder as it was.
    Folder& operator=(const Folder& other);
    Folder& operator=(Folder&& other) noexcept;
    ~Folder();

    // The last segment of the location; never reaches the storage.
    ustring getName() const;
    // getName() in UTF-8, for printing (what is not Unicode becomes U+FFFD).
    std::string getNameUtf8() const { return fl::i18n::ustring_to_utf8_lossy(getName()); }
    bool hasParent() const noexcept;
    // The root's parent is the root.
    Folder getParent() const;
    AbsoluteIRI getLocation() const;
    CanonicalAbsoluteIRI getCanonicalLocation() const;
    StorageSystemReference getStorageSystem() const;

    // False when nothing, or a file, is at the location; other failures throw.
    bool folderExists() const;
    void createFolder() const;
    // Creates the missing ancestors too; succeeds when the folder exists.
    void createFolderRecursive() const;
    // Recursive removal uses the provider's own when it has one; otherwise the library deletes the
    // tree entry by entry (files, then each folder after its contents). Nothing is rolled back when a
    // removal fails part way.
    void removeFolder(const FolderRemovalPolicy& policy) const;
    // As above, telling `observer` of each entry removed; false when the observer stopped it. The
    // library walks the tree itself for this one (a provider's own recursive removal cannot report).
    // A folder that `boundary` keeps out is left, with its ancestors, and the removal goes on.
    bool removeFolder(const FolderRemovalPolicy& policy, const TreeProgressObserver& observer,
                      const TreeBoundary& boundary = {}) const;
    // A native move where the provider can; otherwise (another scheme, a provider that cannot move
    // there, or a merging policy over an existing target) a copy under `policy` followed by a
    // recursive removal of this folder. A failing copy removes nothing; a failing removal leaves the
    // copy in place.
    void moveFolder(const Folder& destination, const provider::ReplacementPolicy& policy) const;

    provider::FolderAttributes getAttributes() const;
    provider::ExtendedAttributes getExtendedAttributes() const;
    void setLastModified(const boost::posix_time::ptime& time) const;
    void setWritable(bool writable) const;
    // Makes everything written below this folder durable.
    void flushFilesystem();
    provider::FilenameSensitivity getFilenameSensitivity() const;
    PathComparator getPathComparator() const;

    // Listings of the direct children, evaluated lazily and re-iterable. A non-empty `pattern`
    // ('*' and '?') keeps only the names that match it.
    FolderListing<ListEntry> listAll(ustring pattern = {}) const;
    FolderListing<boost::variant<FileEntry, FolderEntry>> listAllEntries(ustring pattern = {}) const;
    FolderListing<File> listFiles(ustring pattern = {}) const;
    FolderListing<FileEntry> listFileEntries(ustring pattern = {}) const;
    FolderListing<Folder> listFolders(ustring pattern = {}) const;
    FolderListing<FolderEntry> listFolderEntries(ustring pattern = {}) const;
    // The whole tree below this folder (not the folder itself), depth first, each folder before its
    // contents; names are paths relative to this folder. Where the library walks the tree itself, a
    // non-empty pattern applies at every level: a subfolder whose own name does not match is neither
    // listed nor entered. A subfolder that cannot be read for lack of permission, or that vanishes,
    // is listed but its contents are skipped. The listing follows links to folders as the provider
    // lists them.
    FolderListing<ListEntry> listAllRecursive(ustring pattern = {}) const;
    FolderListing<boost::variant<FileEntry, FolderEntry>> listAllEntriesRecursive(ustring pattern = {}) const;

    // Makes `destination` a copy of this folder's tree under `policy` (FailIfExists: an existing
    // folder fails with ResourceAlreadyExists; Replace: an existing empty folder is made anew, a
    // non-empty one fails with FolderNotEmpty; MergeFolders: merged, files replaced;
    // MergeCollectingFailures: as MergeFolders, and files that cannot be copied for lack of
    // permission are left out and reported together at the end). Where files already exist under
    // the other policies they are left as they are. Each copied folder keeps its source's
    // modification time. A destination inside this folder (or this folder itself) is refused with
    // InvalidLocation before anything is copied; a link inside the tree that leads back above the
    // copy fails with InvalidLocation and the context "circular_symlink". Nothing is rolled back. The
    // copy is not synced to the disk (flushFilesystem() on the destination does that); a move that
    // falls back to copying syncs it before removing the source.
    void copyFolder(const Folder& destination, const provider::ReplacementPolicy& policy) const;
    // As above, telling `observer` how far the copy has got; false when the observer stopped it (the
    // part copied stays, without the folders' modification times, and permission failures collected
    // until then are not reported).
    bool copyFolder(const Folder& destination, const provider::ReplacementPolicy& policy,
                    const TreeProgressObserver& observer) const;
    // As above, with `links` deciding what becomes of the links inside the tree (the two above follow
    // them). Keeping a link needs both storages to hold links (provider::extensions::ILinkKeeping):
    // where either cannot, that link fails with UnsupportedOperation (collected with the permission
    // failures under MergeCollectingFailures). A link already at the target is replaced under the
    // merging policies and left as it is under the others; a folder there fails with
    // ResourceAlreadyExists. A kept link counts as a file in the progress. A folder that `boundary`
    // keeps out is made empty at the target (with its mode and time where they are kept).
    bool copyFolder(const Folder& destination, const provider::ReplacementPolicy& policy,
                    const TreeProgressObserver& observer, LinkHandling links,
                    const TreeBoundary& boundary = {}) const;
    // copyFolder into the folder of this folder's name inside `destination`.
    void copyFolderInto(const Folder& destination, const provider::ReplacementPolicy& policy) const;

    // Exchanges the locations only: each Folder keeps its storage system and canonical flag. For that
    // reason there is no free swap(Folder&, Folder&): algorithms that swap elements use std::swap,
    // which moves whole values.
    void swap(Folder& other) noexcept;

    // By location alone: the storage systems play no part.
    bool operator==(const Folder& other) const noexcept;
    bool operator!=(const Folder& other) const noexcept;
    bool operator<(const Folder& other) const noexcept;

private:
    friend class File;
    friend struct detail::HandleAccess;

    Folder(provider::StorageItem item, StorageSystemReference system);

    // ---- change events (reached through the functions of Events.hpp) ----
    friend struct detail::EventAccess;
    void publishEvents(const EventPublisher& publisher, const std::vector<events::Kind>& kinds) const;
    // Exception(UnsupportedOperation) when the provider cannot watch recursively.
    void publishEventsRecursively(const RecursiveEventPublisher& publisher, const std::vector<events::Kind>& kinds) const;
    void stopPublishingEvents() const;
    void startChangePolling(const EventPublisher& publisher, const std::vector<events::Kind>& kinds,
                            std::chrono::milliseconds interval) const;
    void stopChangePolling() const;

    // The provider's iterators behind the listings; the pattern is handed on unchanged.
    std::unique_ptr<provider::IFolderEntryIterator> doListAll(ustring pattern) const;
    std::unique_ptr<provider::IFolderEntryIterator> doListAllEntries(ustring pattern) const;
    std::unique_ptr<provider::IFolderEntryIterator> doListFiles(ustring pattern) const;
    std::unique_ptr<provider::IFolderEntryIterator> doListFileEntries(ustring pattern) const;
    std::unique_ptr<provider::IFolderEntryIterator> doListFolders(ustring pattern) const;
    std::unique_ptr<provider::IFolderEntryIterator> doListFolderEntries(ustring pattern) const;
    std::unique_ptr<provider::IFolderEntryIterator> doListAllRecursive_provider_specialization(ustring pattern) const;
    std::unique_ptr<provider::IFolderEntryIterator> doListAllEntriesRecursive_provider_specialization(
        ustring pattern) const;
    bool providerSupportsFlatWildcardListing() const;

    // The item, for an operation that reaches the provider: throws std::runtime_error "StorageSystem
    // has been destroyed" once the storage system has gone, although the item still holds a provider.
    const provider::StorageItem& live() const;

    provider::StorageItem m_item;
    StorageSystemReference m_storageSystem;
    bool m_canonical = false;
};

// Writes the location.
VFS_EXPORT std::ostream& operator<<(std::ostream& out, const Folder& folder);

namespace detail {

// The library's access to the provider item inside a handle, and its way to make handles from items
// (listings, entries, the provider extensions).
struct HandleAccess {
    static const provider::StorageItem& item(const File& file) noexcept { return file.m_item; }
    static const provider::StorageItem& item(const Folder& folder) noexcept { return folder.m_item; }
    // As item(), for an operation that reaches the provider: fails once the storage system has gone.
    static const provider::StorageItem& liveItem(const File& file) { return file.live(); }
    static const provider::StorageItem& liveItem(const Folder& folder) { return folder.live(); }
    static File makeFile(provider::StorageItem item, StorageSystemReference system)
    {
        return File(std::move(item), std::move(system));
    }
    static Folder makeFolder(provider::StorageItem item, StorageSystemReference system)
    {
        return Folder(std::move(item), std::move(system));
    }
    // The child `name` of `parent`, as File(parent, name) and Folder(parent, name) make it, taking
    // the name over.
    static File makeChildFile(const Folder& parent, ustring name);
    static Folder makeChildFolder(const Folder& parent, ustring name);
};

} // namespace detail

} // namespace foundation::storage::vfs
