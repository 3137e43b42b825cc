#pragma once

#include <foundation/storage/provider/IProvider.hpp>

#include <cstdint>
#include <limits>
#include <memory>

namespace foundation::storage::provider::memory {

// The starting settings; configure() changes them later with the keys "quotaBytes" (decimal) and
// "readOnly" ("true" or "false").
struct MemoryProviderOptions {
    // Total bytes of file content, over every volume, the provider may hold; growth beyond it fails
    // with NoSpaceLeft and changes nothing.
    std::uint64_t quotaBytes = std::numeric_limits<std::uint64_t>::max();
    // Every change fails with ReadOnlyProvider.
    bool readOnly = false;
    // The scheme served: "mem", or another one an application registers for its own volumes.
    ustring scheme = u"mem";
};

// An in-process file system serving mem://VOLUME/path IRIs, for tests and scratch data. Each
// provider instance has its own volumes; a volume exists (with an empty root folder) as soon as it
// is named, and shutdown() empties them all. Thread-safe.
//
// It behaves as a POSIX file system without links: a folder's time changes when its children do;
// a non-writable file refuses truncation and replacement and a non-writable folder refuses adding
// and removing children (PermissionDenied); names starting with '.' are hidden; a volume's root
// cannot be removed or moved (ResourceInUse). Failures carry the operation's name and the errno
// name a disk would report ("removeFolder", "ENOTEMPTY"), or "not-a-file" / "not-a-folder" for a
// location of the other kind. Files and folders move and copy across volumes of one provider;
// copyFile into another provider writes through that provider's transactional stream. Listings are
// snapshots in code-unit order and every extended feature is native. Change events come from a
// notifier thread of the provider's own, in the order of the changes.
VFS_EXPORT std::shared_ptr<IProvider> makeMemoryProvider(MemoryProviderOptions options = {});

} // namespace foundation::storage::provider::memory
