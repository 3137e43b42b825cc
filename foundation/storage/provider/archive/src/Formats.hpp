#pragma once

#include "Container.hpp"
#include "Index.hpp"

#include <foundation/storage/provider/ProviderResolver.hpp>
#include <foundation/storage/provider/archive/ArchiveProvider.hpp>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::storage::provider::archive::detail {

// An entry's bytes from its start, forward; some readers also seek.
class EntryReader {
public:
    virtual ~EntryReader() = default;
    // Up to `n` bytes; 0 at the end of the entry.
    virtual std::size_t read(char* out, std::size_t n) = 0;
    // Moves to `offset` of the entry when the reader can; false when it reads only forward.
    virtual bool seek(std::uint64_t offset) = 0;
};

struct ZipHandle;

// Open zip readers of one container, kept so that opening an entry does not read the central
// directory again. A reader is used by one stream at a time.
class ZipHandlePool {
public:
    ZipHandlePool();
    ~ZipHandlePool();
    std::unique_ptr<ZipHandle> take();
    void give(std::unique_ptr<ZipHandle> handle);

private:
    std::mutex m_mutex;
    std::vector<std::unique_ptr<ZipHandle>> m_idle;
};

// Everything a format needs to read one container.
struct ContainerAccess {
    ArchiveFormat format;
    StorageIRI location; // a location inside the archive (its inner IRI names the container)
    ProviderResolver resolve;
    std::string passphrase;
    // No entry, nor a decompressed copy of a whole compressed tar, takes more bytes than this.
    std::uint64_t expansionLimit = 0;
    // The bytes that the decompressed copies made while indexing hold, over all the indexes of
    // the provider that are alive; none is made beyond a budget.
    std::shared_ptr<std::atomic<std::uint64_t>> plainCopies;
};

// Reads the container's directory (zip) or headers (tar). Failures are provider Exceptions naming
// the container: its provider's own, or IOError ("archive-read") for what is not a readable archive.
std::shared_ptr<const Index> buildIndex(const ContainerAccess& access, Stamp stamp);

// The container no longer has the size its index was built from.
struct ContainerChanged {};

// A reader of the file `node` of `index` (ContainerChanged when the container changed since). An encrypted entry without the right passphrase is
// PermissionDenied, a compression or encryption the library lacks UnsupportedOperation.
std::unique_ptr<EntryReader> openEntryReader(const ContainerAccess& access, const std::shared_ptr<const Index>& index,
                                             const Node& node);

} // namespace foundation::storage::provider::archive::detail
