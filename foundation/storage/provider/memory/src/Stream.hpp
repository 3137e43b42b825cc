#pragma once

// The memory provider's byte streams and what they need from their provider. Internal.

#include <foundation/storage/provider/ByteStream.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace foundation::storage::provider::memory::detail {

// The provider's side of its streams. Every call takes the provider's lock for its own duration and
// reports failures as the ByteStreamFailure of `operation`.
class StreamHost {
public:
    virtual ~StreamHost() = default;
    // Copies up to `n` bytes at `offset` of the file at `location`; 0 at (or past) its end.
    virtual std::size_t readAt(const StorageIRI& location, std::uint64_t offset, char* s, std::size_t n) const = 0;
    // Puts `n` bytes at `offset` (at the end with `append`), growing the file under the quota; returns
    // the offset just past them.
    virtual std::uint64_t writeAt(const StorageIRI& location, std::uint64_t offset, bool append, const char* s,
                                  std::size_t n) const = 0;
    virtual std::uint64_t sizeAt(const StorageIRI& location, StreamOperation operation) const = 0;
    // Whether content of `size` bytes could replace the file at `location` (or be created there)
    // under the quota and the size limit; throws the failure of `operation` when not.
    virtual void checkRoom(const StorageIRI& location, std::uint64_t size, StreamOperation operation) const = 0;
    // Makes `bytes` the content of the file at `location` at once, creating it where missing (unless
    // `mustExist`). Failures are close failures and leave both the file and `bytes` as they were.
    virtual void commit(const StorageIRI& location, std::vector<std::byte>& bytes, bool mustExist) const = 0;
};

std::unique_ptr<ByteStream> makeStream(std::shared_ptr<const StreamHost> host, StorageIRI location, bool readable,
                                       bool writable, bool append);
std::unique_ptr<TransactionalByteStream> makeTransactionalStream(std::shared_ptr<const StreamHost> host,
                                                                 StorageIRI location, std::vector<std::byte> content,
                                                                 bool readable, bool append, bool mustExist);

} // namespace foundation::storage::provider::memory::detail
