#pragma once

#include "Formats.hpp"

#include <foundation/storage/provider/ByteStream.hpp>

#include <functional>

namespace foundation::storage::provider::archive::detail {

// A read-only stream on one entry. Readers that seek serve any position directly; a forward-only
// reader serves forward reads and short forward jumps, and the first backward seek or long jump
// spills the whole entry (through a fresh reader) to an unnamed temporary file that serves every
// read from then on. `size` is the entry's declared size, already checked against the expansion
// limit; an entry that ends early or runs on fails with IOError.
std::unique_ptr<ByteStream> makeEntryStream(StorageIRI location, std::uint64_t size,
                                            std::function<std::unique_ptr<EntryReader>()> open);

// An unnamed file in the temporary folder: it vanishes with its descriptor, whatever happens.
// Failures are ByteStreamFailures (NoSpaceLeft for a full temporary folder).
int unnamedTemporaryFile();

// A spool (it vanishes with its descriptor: in memory while small, else an unnamed temporary file)
// holding the first `size` bytes that
// `reader` gives (none without a reader), zero bytes after them up to `size`. Failures are
// ByteStreamFailures (NoSpaceLeft for a full temporary folder).
int spoolEntry(EntryReader* reader, std::uint64_t size);

// Stores the first `size` bytes of the descriptor `fd` as the entry, whole.
using EntryCommit = std::function<void(int fd, std::uint64_t size)>;

// A writable stream on the entry at `location`, spooled in the descriptor `spool` (taken over, holding the content
// the stream starts with). A transactional stream stores its content on close(Commit) only; a plain
// one at flush() and close(), and when destroyed with unstored writes. Writes that would make the
// entry larger than `limit` fail with NoSpaceLeft.
std::unique_ptr<TransactionalByteStream> makeEntryWriteStream(StorageIRI location, int spool, ByteStreamOpenOptions options,
                                                              bool transactional, std::uint64_t limit, EntryCommit commit);

} // namespace foundation::storage::provider::archive::detail
