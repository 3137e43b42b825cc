#pragma once

#include <foundation/storage/provider/IProvider.hpp>

#include <functional>
#include <memory>

namespace foundation::storage::provider {

// The provider that serves a location, as the storage system that built the asking provider finds
// it (UnsupportedIRISchemeException or a provider Exception when it serves none). A provider of a
// nested scheme (`zip:file:///a.zip!/x`) reaches its container through it, so any storage can hold
// the container, another nested one included.
using ProviderResolver = std::function<std::shared_ptr<IProvider>(const StorageIRI& location)>;

// What a storage system hands a provider factory when it builds a provider.
struct ProviderContext {
    // Never empty.
    ProviderResolver resolve;
};

// The container of `nested` (the file its inner IRI names) opened for reading through the
// provider that `resolve` finds for it. A container that is missing or a folder is
// ResourceNotFound naming the container (context "container", and "not-a-file" for a folder); the
// container provider's own failures (PermissionDenied, ...) name it as they are. A location
// without an inner IRI is refused with InvalidLocation.
VFS_EXPORT std::unique_ptr<ByteStream> openContainer(const ProviderResolver& resolve, const StorageIRI& nested);

} // namespace foundation::storage::provider
