#pragma once

// The memory provider's byte streams and what they need from their provider. Internal.

#include <foundation/storage/provider/ByteStream.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace foundation::storage::provider::memory::detail {

struct Content;

// The provider's side of its streams. Every call takes the provider's lock for its own duration and
// reports failures as the ByteStreamFailure of `operation`. A plain stream works on the content it
// opened, never on whatever its name holds later; `location` only names it in failures and events.
class StreamHost {
public:
    virtual ~StreamHost() = default;
    // Copies up to `n` bytes at `offset` of `content`; 0 at (or past) its end.
    virtual std::size_t readAt(const Content& content, std::uint64_t offset, char* s, std::size_t n) const = 0;
    // Puts `n` bytes at `offset` (at the end with `append`), growing the content under the quota;
    // returns the offset just past them. The change is reported for `location` only while the file
    // there still holds `content`.
    virtual std::uint64_t writeAt(const StorageIRI& location, Content& content, std::uint64_t offset, bool append,
                                  const char* s, std::size_t n) const = 0;
    virtual std::uint64_t sizeOf(const Content& content) const = 0;
    // Ends one plain stream's hold on `content`, taken when the stream was opened.
    virtual void release(Content& content) const noexcept = 0;
    // Whether content of `size` bytes could replace the file at `location` (or be created there)
    // under the quota and the size limit; throws the failure of `operation` when not.
    virtual void checkRoom(const StorageIRI& location, std::uint64_t size, StreamOperation operation) const = 0;
    // Makes `bytes` the content of the file at `location` at once, creating it where missing (unless
    // `mustExist`). Failures are close failures and leave both the file and `bytes` as they were.
    virtual void commit(const StorageIRI& location, std::vector<std::byte>& bytes, bool mustExist) const = 0;
};

// The stream takes over one hold on `content` (see StreamHost::release), whatever it throws.
std::unique_ptr<ByteStream> makeStream(std::shared_ptr<const StreamHost> host, StorageIRI location,
                                       std::shared_ptr<Content> content, bool readable, bool writable, bool append);
std::unique_ptr<TransactionalByteStream> makeTransactionalStream(std::shared_ptr<const StreamHost> host,
                                                                 StorageIRI location, std::vector<std::byte> content,
                                                                 bool readable, bool append, bool mustExist);

} // namespace foundation::storage::provider::memory::detail
