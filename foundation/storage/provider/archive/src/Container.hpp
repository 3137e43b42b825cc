#pragma once

#include <foundation/storage/provider/ByteStream.hpp>

#include <array>
#include <cstdint>
#include <exception>
#include <memory>
#include <span>
#include <vector>

namespace foundation::storage::provider::archive::detail {

// A container's read stream reached by offset, through a few cached blocks, so that the small
// reads archive libraries make (headers, directories) do not become many small reads of a remote
// container. Reads of a block or more go straight to the stream. One thread at a time.
class CachedContainer {
public:
    static constexpr std::size_t blockSize = 64 * 1024;

    CachedContainer(std::unique_ptr<ByteStream> stream, std::uint64_t size);

    // The size the container had when it was opened.
    std::uint64_t size() const noexcept { return m_size; }
    // Up to `n` bytes at `offset`; fewer only at the end of the container.
    std::size_t readAt(std::uint64_t offset, char* out, std::size_t n);
    // The cached bytes from `offset` to the end of its block (empty at the end); valid until the
    // next call.
    std::span<const char> blockAt(std::uint64_t offset);

private:
    struct Block {
        std::uint64_t start = 0;
        std::vector<char> bytes;
        std::uint64_t lastUse = 0;
    };
    std::size_t readStream(std::uint64_t offset, char* out, std::size_t n);

    std::unique_ptr<ByteStream> m_stream;
    std::uint64_t m_size;
    std::uint64_t m_position = 0;
    std::uint64_t m_clock = 0;
    std::array<Block, 8> m_blocks;
};

// What a C library's callback caught: kept to be rethrown once the library call returns.
struct CaughtFailure {
    std::exception_ptr error;
    void rethrowIfAny()
    {
        if (error)
            std::rethrow_exception(std::exchange(error, nullptr));
    }
};

} // namespace foundation::storage::provider::archive::detail
