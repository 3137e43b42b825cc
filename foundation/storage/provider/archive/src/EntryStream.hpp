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

} // namespace foundation::storage::provider::archive::detail
