#pragma once

#include <foundation/storage/provider/Enumerations.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

namespace foundation::storage::provider {

// The one interface a storage backend implements. Every operation names its subject by a
// StorageIRI; StorageItem pairs a provider with a location and forwards to these.
//
// Contract for implementations:
// - Thread-safe: one provider object serves many threads at once.
// - Every failure is a provider Exception (or one of the stream/event families) carrying the
//   location, one ErrorCode and contexts naming the failing native call and error; never a bare
//   errno, std::system_error or return code. "Not found" is exactly ResourceNotFound.
// - Callbacks are never invoked while a provider lock is held.
class VFS_EXPORT IProvider {
public:
    IProvider() = default;
    IProvider(const IProvider&) = delete;
    IProvider& operator=(const IProvider&) = delete;
    virtual ~IProvider();

    // What is at `location`, links followed. A missing location (or one below a file) answers
    // NotFound; other failures (permission, invalid location) throw.
    virtual ExistenceType exists(const StorageIRI& location) const = 0;
    // As exists(), but links are reported as links (LinkToFile, LinkToFolder, BrokenLink) and
    // devices, FIFOs and sockets as Special.
    virtual ExistenceTypeExtended existsExtended(const StorageIRI& location) const = 0;
    // Whether the provider implements `feature` natively at `location`.
    virtual bool hasFeature(const StorageIRI& location, ExtendedFeature feature) const = 0;
};

} // namespace foundation::storage::provider
