#pragma once

// The kinds of storage changes, without the event classes (and the event manager) around them.

#include <fl/export.hpp>

#include <cstdint>
#include <iosfwd>

namespace foundation::storage::events {

// What happened to a watched item. The numbers travel between libraries and into logs.
enum class Kind : std::int32_t {
    Created = 0,
    Removed = 1,
    Modified = 2,          // content written
    AttributesChanged = 3, // times, permissions, owners, extended attributes
    RenamedFrom = 4,       // the item left this location; its RenamedTo partner shares "rename.cookie"
    RenamedTo = 5,         // the item arrived at this location
    // Changes were lost (the kernel's queue overflowed, a folder could not be watched): the watcher
    // should look again at the reported location. Delivered whatever kinds were asked for.
    Overflow = 6,
};

enum class EntryType : std::int32_t {
    File = 0,
    Folder = 1,
};

// "Kind::Created"; "Unhandled Kind" outside the enumeration (likewise for EntryType).
VFS_EXPORT const char* toString(Kind kind) noexcept;
VFS_EXPORT const char* toString(EntryType type) noexcept;
VFS_EXPORT std::ostream& operator<<(std::ostream& out, Kind kind);
VFS_EXPORT std::ostream& operator<<(std::ostream& out, EntryType type);

} // namespace foundation::storage::events
