#pragma once

#include "Store.hpp"

#include <foundation/storage/provider/ByteStream.hpp>

#include <memory>

namespace foundation::storage::provider::s3::detail {

// Ranged GETs with read-ahead; every range is asked of the version first seen (If-Match), so a
// reader never mixes two versions of an object.
std::unique_ptr<ByteStream> makeReadStream(std::shared_ptr<Store> store, const StorageIRI& location, const ObjectInfo& object);

// A writable stream over a spool file, uploaded by close(). `existing` is the object when there is
// one (its content is fetched first when the options keep it); `transactional` streams upload only
// on close(Commit).
std::unique_ptr<TransactionalByteStream> makeSpoolStream(std::shared_ptr<Store> store, const StorageIRI& location,
                                                         const std::optional<ObjectInfo>& existing,
                                                         const ByteStreamOpenOptions& options, bool transactional);

// Cuts or extends (with zero bytes) the object to `size` through a spool.
void resizeObject(std::shared_ptr<Store> store, const StorageIRI& location, const ObjectInfo& object, std::uint64_t size);

} // namespace foundation::storage::provider::s3::detail
