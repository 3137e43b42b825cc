#include "Container.hpp"

#include <algorithm>
#include <cstring>

namespace foundation::storage::provider::archive::detail {

CachedContainer::CachedContainer(std::unique_ptr<ByteStream> stream, std::uint64_t size)
    : m_stream(std::move(stream)), m_size(size)
{
}

std::size_t CachedContainer::readStream(std::uint64_t offset, char* out, std::size_t n)
{
    if (offset != m_position) {
        m_stream->seek(static_cast<std::streamoff>(offset), std::ios_base::beg);
        m_position = offset;
    }
    std::size_t done = 0;
    while (done < n) {
        const std::streamsize got = m_stream->read(out + done, static_cast<std::streamsize>(n - done));
        if (got <= 0)
            break;
        done += static_cast<std::size_t>(got);
        m_position += static_cast<std::uint64_t>(got);
    }
    return done;
}

std::span<const char> CachedContainer::blockAt(std::uint64_t offset)
{
    if (offset >= m_size)
        return {};
    const std::uint64_t start = offset - offset % blockSize;
    Block* chosen = &m_blocks[0];
    for (Block& block : m_blocks) {
        if (!block.bytes.empty() && block.start == start) {
            chosen = &block;
            break;
        }
        if (block.lastUse < chosen->lastUse)
            chosen = &block;
    }
    if (chosen->bytes.empty() || chosen->start != start) {
        chosen->bytes.resize(static_cast<std::size_t>(std::min<std::uint64_t>(blockSize, m_size - start)));
        chosen->start = start;
        try {
            chosen->bytes.resize(readStream(start, chosen->bytes.data(), chosen->bytes.size()));
        } catch (...) {
            chosen->bytes.clear();
            throw;
        }
    }
    chosen->lastUse = ++m_clock;
    const std::size_t skip = static_cast<std::size_t>(offset - start);
    if (skip >= chosen->bytes.size())
        return {};
    return {chosen->bytes.data() + skip, chosen->bytes.size() - skip};
}

std::size_t CachedContainer::readAt(std::uint64_t offset, char* out, std::size_t n)
{
    std::size_t done = 0;
    while (done < n && offset + done < m_size) {
        const std::uint64_t at = offset + done;
        if (n - done >= blockSize) {
            const std::size_t got = readStream(at, out + done, n - done);
            done += got;
            if (got == 0)
                break;
            continue;
        }
        const std::span<const char> cached = blockAt(at);
        if (cached.empty())
            break;
        const std::size_t take = std::min(cached.size(), n - done);
        std::memcpy(out + done, cached.data(), take);
        done += take;
    }
    return done;
}

} // namespace foundation::storage::provider::archive::detail
