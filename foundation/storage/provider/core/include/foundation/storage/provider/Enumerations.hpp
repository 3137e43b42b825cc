#pragma once

#include <fl/export.hpp>

#include <cstdint>
#include <iosfwd>

namespace foundation::storage::provider {

// The numbers are part of the contract: they travel between libraries and into logs.

enum class ErrorCode : std::int32_t {
    FolderNotEmpty = 0,
    InvalidLocation = 1,
    PermissionDenied = 2,
    ResourceAlreadyExists = 3,
    ResourceNotFound = 4,
    FileTooLarge = 5,
    ResourceInUse = 6,
    ReadOnlyProvider = 7,
    NoSpaceLeft = 8,
    IOError = 9,
    InternalError = 10,
    UnsupportedOperation = 11,
    Unknown = 12,
};

// What exists at a location, links followed.
enum class ExistenceType : std::int32_t {
    File = 0,
    Folder = 1,
    NotFound = 2,
};

// What exists at a location, links reported as links.
enum class ExistenceTypeExtended : std::int32_t {
    File = 0,
    Folder = 1,
    LinkToFile = 2,
    LinkToFolder = 3,
    BrokenLink = 4,
    Special = 5, // device, FIFO, socket: neither a regular file nor a folder
    NotFound = 6,
};

// Optional capabilities a provider may implement natively; the library does the work itself for a
// provider that lacks one.
enum class ExtendedFeature : std::int32_t {
    RecursiveRemoval = 0,
    RecursiveListing = 1,
    FlatWildcardListing = 2,
    RecursiveWatching = 3,
    RecursiveWildcardListing = 4,
};

enum class EntryType : std::int32_t {
    File = 0,
    Folder = 1,
};

// What a copy or move does when its target exists.
enum class ReplacementPolicy : std::int32_t {
    FailIfExists = 0,         // fail with ResourceAlreadyExists
    Replace = 1,              // replace the target
    MergeFolders = 2,         // merge folders, replace files
    MergeCollectingFailures = 3, // as MergeFolders; a folder copy collects permission failures and goes on
    ReplaceIfNewer = 4,       // replace a file only when the source is newer, otherwise skip it
};

enum class TransactionStatus : std::int32_t {
    Completed = 0,
    NothingDone = 1, // skipped (target newer) or cancelled by a progress callback
};

VFS_EXPORT const char* toString(ErrorCode value) noexcept;
VFS_EXPORT const char* toString(ExistenceType value) noexcept;
VFS_EXPORT const char* toString(ExistenceTypeExtended value) noexcept;
VFS_EXPORT const char* toString(ExtendedFeature value) noexcept;
VFS_EXPORT const char* toString(EntryType value) noexcept;
VFS_EXPORT const char* toString(ReplacementPolicy value) noexcept;
VFS_EXPORT const char* toString(TransactionStatus value) noexcept;

// "Type::Value"; "Unhandled Type" for a value outside the enumeration.
template <class E>
    requires requires(E e) { toString(e); }
std::ostream& operator<<(std::ostream& out, E value)
{
    return out << toString(value);
}

} // namespace foundation::storage::provider
