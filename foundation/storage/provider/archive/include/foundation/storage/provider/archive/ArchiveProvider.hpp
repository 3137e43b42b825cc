#pragma once

#include <foundation/storage/provider/IProvider.hpp>
#include <foundation/storage/provider/ProviderResolver.hpp>

#include <cstdint>
#include <memory>
#include <string>

namespace foundation::storage::provider::archive {

// Which kind of archive a provider reads.
enum class ArchiveFormat : std::int32_t {
    Zip = 0, // zip:INNER!/path
    Tar = 1, // tar:INNER!/path, plain or compressed with gzip, xz, zstd or bzip2 (told by the content)
};

// The starting settings; configure() changes them later with the keys "expansionLimitBytes"
// (decimal) and "passphrase".
struct ArchiveProviderOptions {
    ArchiveFormat format = ArchiveFormat::Zip;
    // The most bytes one entry may expand to when it is read or spilled to a temporary file; an
    // entry that declares or produces more fails with NoSpaceLeft (a "zip bomb" stops here).
    std::uint64_t expansionLimitBytes = std::uint64_t{16} << 30;
    // Opens encrypted zip entries; without it they answer PermissionDenied.
    std::string passphrase;
};

// A storage over the entries of an archive held by any other storage: the container
// (the file the inner IRI names) is read through the provider `context.resolve` finds for it,
// through its byte streams, so an archive on disk, in memory or inside another archive reads alike.
//
// Each container is indexed once (path -> entry) and the index is shared by every thread; it is
// rebuilt when the container's size or modification time changes. Folders that entries imply are
// folders. Names are cleaned as an extracting tool would: leading '/' dropped, empty and '.'
// segments collapsed; an entry with a ".." segment or a NUL is left out,
// so nothing is reachable outside the archive. Of two entries with one path the later one wins; a
// file whose path is also a folder of other entries is left out. Links and special files are left
// out.
//
// Zip archives are written through libzip; tar is read-only (the front answers ReadOnlyProvider).
// A change of a missing container creates it. Each change is committed, whole, before its call
// returns: libzip writes the new archive into the container's transactional stream, so readers and
// crashes see the old archive or the new one; untouched entries are copied without recompressing.
// Changes of one provider run one at a time. Writing streams spool the entry in an unnamed temporary
// file and store it when a transactional stream commits, or when a plain one is flushed or closed;
// writing an entry beyond the expansion limit fails with NoSpaceLeft. Names with an empty, "." or
// ".." segment are refused (InvalidLocation). Times are kept to 100 ns (an NTFS extra field, with
// the DOS time beside it); removing the last entry of a folder the archive only implied keeps the
// folder. The root stands for the container: its time and writability are the container's, and it
// cannot be removed or moved (InvalidLocation).
//
// Streams: stored zip entries and entries of an uncompressed tar are windows on the container and
// seek freely; compressed entries inflate forward, and a backward seek or a long forward jump
// spills the entry once to an unnamed temporary file that serves it from then on. An archive that
// is truncated, corrupt or not an archive at all answers IOError naming the container.
VFS_EXPORT std::shared_ptr<IProvider> makeArchiveProvider(ProviderContext context, ArchiveProviderOptions options);
VFS_EXPORT std::shared_ptr<IProvider> makeZipProvider(ProviderContext context);
VFS_EXPORT std::shared_ptr<IProvider> makeTarProvider(ProviderContext context);

} // namespace foundation::storage::provider::archive
