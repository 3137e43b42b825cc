#pragma once

#include <foundation/storage/provider/IProvider.hpp>

#include <cstdint>
#include <limits>
#include <memory>

namespace foundation::storage::provider::memory {

struct MemoryProviderOptions {
    // Total bytes of file content the provider may hold; writes beyond it fail with NoSpaceLeft.
    std::uint64_t quotaBytes = std::numeric_limits<std::uint64_t>::max();
    // Every change fails with ReadOnlyProvider.
    bool readOnly = false;
};

// An in-process file system serving mem://VOLUME/path IRIs. Each provider instance has its own
// volumes; a volume exists (with an empty root folder) as soon as it is named. Thread-safe.
VFS_EXPORT std::shared_ptr<IProvider> makeMemoryProvider(MemoryProviderOptions options = {});

} // namespace foundation::storage::provider::memory
