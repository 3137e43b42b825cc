#pragma once

#include <foundation/storage/provider/Attributes.hpp>

#include <memory>
#include <optional>

namespace foundation::storage::provider {

// One child of a listed folder: its bare name (a relative path "a/b" in recursive listings), its
// kind, and its attributes when the listing was asked for them and the provider had them.
class VFS_EXPORT FolderEntry {
public:
    FolderEntry(ustring name, bool isFile, std::optional<FileAttributes> fileAttributes = std::nullopt,
                std::optional<FolderAttributes> folderAttributes = std::nullopt)
        : m_name(std::move(name)), m_isFile(isFile), m_fileAttributes(std::move(fileAttributes)),
          m_folderAttributes(std::move(folderAttributes))
    {
    }
    const ustring& getName() const noexcept { return m_name; }
    // Moves the name out (listings hand it on to the handle they build); getName() is then empty.
    ustring takeName() noexcept { return std::move(m_name); }
    bool isFile() const noexcept { return m_isFile; }
    const std::optional<FileAttributes>& getFileAttributes() const noexcept { return m_fileAttributes; }
    const std::optional<FolderAttributes>& getFolderAttributes() const noexcept { return m_folderAttributes; }

private:
    ustring m_name;
    bool m_isFile;
    std::optional<FileAttributes> m_fileAttributes;
    std::optional<FolderAttributes> m_folderAttributes;
};

// A provider's iterator over a folder's children. It starts before the first child:
//   while (it->hasNext()) { it->next(); use(it->current()); }
// Not synchronised: one iterator is used by one thread at a time; clones are independent and may be
// used from other threads. Failures (the folder vanished, an I/O error) are provider Exceptions.
class VFS_EXPORT IFolderEntryIterator {
public:
    IFolderEntryIterator() = default;
    IFolderEntryIterator(const IFolderEntryIterator&) = delete;
    IFolderEntryIterator& operator=(const IFolderEntryIterator&) = delete;
    virtual ~IFolderEntryIterator();

    // The entry the iterator stands on; only valid after a next().
    virtual FolderEntry current() const = 0;
    // Whether another entry follows the current position.
    virtual bool hasNext() const = 0;
    // Moves to the following entry; only valid when hasNext() is true.
    virtual void next() = 0;
    // An independent iterator at the same position.
    virtual std::unique_ptr<IFolderEntryIterator> clone() const = 0;
};

// What a listing returns.
enum class ListKind : std::int32_t {
    All = 0,
    Files = 1,
    Folders = 2,
};

struct ListOptions {
    ListKind kind = ListKind::All;
    // Deliver attributes with each entry (costs one stat per entry on disk); names-only otherwise.
    bool withAttributes = false;
    // Only names matching this '*'/'?' pattern (see matchesWildcard); empty means every name. A
    // provider without ExtendedFeature::FlatWildcardListing may ignore it.
    ustring pattern;
    // The whole subtree, depth first, each folder before its contents; entry names are then paths
    // relative to the listed folder ("a/b"). Only for providers with ExtendedFeature::RecursiveListing.
    bool recursive = false;
};

// The one wildcard matcher: '*' matches any run of code units, '?' exactly one; every other unit is a
// literal, compared exactly (no case folding, no escapes). A '*' that is followed by more pattern
// needs at least one remaining unit ("a**" does not match "a"; "*" matches "").
VFS_EXPORT bool matchesWildcard(std::u16string_view name, std::u16string_view pattern) noexcept;

} // namespace foundation::storage::provider
