#include "Stream.hpp"

#include <foundation/storage/provider/PosixError.hpp>

#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

namespace foundation::storage::provider::memory::detail {

namespace {

// State and checks both stream kinds share.
class StreamBase {
protected:
    StreamBase(StorageIRI location, bool readable, bool writable, bool append)
        : m_location(std::move(location)), m_readable(readable), m_writable(writable), m_append(append)
    {
    }

    void usable(StreamOperation operation, bool allowed, const char* call) const
    {
        if (m_closed)
            throwPosixStreamError(operation, EBADF, call, m_location, ErrorCode::IOError);
        if (!allowed)
            throwPosixStreamError(operation, EBADF, call, m_location, ErrorCode::PermissionDenied);
    }

    StorageIRI m_location;
    std::uint64_t m_position = 0;
    bool m_readable;
    bool m_writable;
    bool m_append;
    bool m_closed = false;
};

class MemoryStream final : public ByteStream, StreamBase {
public:
    MemoryStream(std::shared_ptr<const StreamHost> host, StorageIRI location, std::shared_ptr<Content> content,
                 bool readable, bool writable, bool append)
        : StreamBase(std::move(location), readable, writable, append), m_host(std::move(host)),
          m_content(std::move(content))
    {
    }
    MemoryStream(const MemoryStream&) = delete;
    MemoryStream& operator=(const MemoryStream&) = delete;
    ~MemoryStream() override
    {
        if (!m_closed)
            m_host->release(*m_content);
    }

    std::streamsize read(char* s, std::streamsize n) override
    {
        usable(StreamOperation::Read, m_readable, "read");
        if (n <= 0)
            return 0;
        const std::size_t got = m_host->readAt(*m_content, m_position, s, static_cast<std::size_t>(n));
        if (got == 0)
            return -1;
        m_position += got;
        return static_cast<std::streamsize>(got);
    }

    std::streamsize write(const char* s, std::streamsize n) override
    {
        usable(StreamOperation::Write, m_writable, "write");
        if (n > 0)
            m_position = m_host->writeAt(m_location, *m_content, m_position, m_append, s, static_cast<std::size_t>(n));
        return n;
    }

    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override
    {
        usable(StreamOperation::Seek, true, "seek");
        const std::uint64_t size = way == std::ios_base::end ? m_host->sizeOf(*m_content) : 0;
        m_position = seekTarget(m_position, size, off, way, m_location);
        return static_cast<std::streamoff>(m_position);
    }

    void flush() override { usable(StreamOperation::Flush, true, "flush"); }

    // Content nobody else holds any more goes now, not when the stream object does.
    void close() override
    {
        usable(StreamOperation::Close, true, "close");
        m_closed = true;
        m_host->release(*m_content);
        m_content.reset();
    }

private:
    std::shared_ptr<const StreamHost> m_host;
    std::shared_ptr<Content> m_content;
};

// Writes go to a private copy that replaces the file's content on commit.
class MemoryTransactionalStream final : public TransactionalByteStream, StreamBase {
public:
    MemoryTransactionalStream(std::shared_ptr<const StreamHost> host, StorageIRI location, std::vector<std::byte> content,
                              bool readable, bool append, bool mustExist)
        : StreamBase(std::move(location), readable, true, append), m_host(std::move(host)), m_content(std::move(content)),
          m_mustExist(mustExist)
    {
    }

    std::streamsize read(char* s, std::streamsize n) override
    {
        usable(StreamOperation::Read, m_readable, "read");
        if (n <= 0)
            return 0;
        if (m_position >= m_content.size())
            return -1;
        const std::size_t got = std::min(static_cast<std::size_t>(n), static_cast<std::size_t>(m_content.size() - m_position));
        std::memcpy(s, m_content.data() + m_position, got);
        m_position += got;
        return static_cast<std::streamsize>(got);
    }

    std::streamsize write(const char* s, std::streamsize n) override
    {
        usable(StreamOperation::Write, true, "write");
        if (n <= 0)
            return n;
        const std::uint64_t at = m_append ? m_content.size() : m_position;
        const std::uint64_t end = at + static_cast<std::uint64_t>(n);
        if (end > m_content.size()) {
            m_host->checkRoom(m_location, end, StreamOperation::Write);
            try {
                m_content.resize(end);
            } catch (const std::bad_alloc&) {
                throwPosixStreamError(StreamOperation::Write, ENOSPC, "write", m_location);
            }
        }
        std::memcpy(m_content.data() + at, s, static_cast<std::size_t>(n));
        m_position = end;
        return n;
    }

    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override
    {
        usable(StreamOperation::Seek, true, "seek");
        m_position = seekTarget(m_position, m_content.size(), off, way, m_location);
        return static_cast<std::streamoff>(m_position);
    }

    void flush() override { usable(StreamOperation::Flush, true, "flush"); }

    using TransactionalByteStream::close;
    void close(StreamClosePolicy policy) override
    {
        usable(StreamOperation::Close, true, "close");
        if (policy == StreamClosePolicy::Commit)
            m_host->commit(m_location, m_content, m_mustExist);
        else if (policy != StreamClosePolicy::Discard)
            throwPosixStreamError(StreamOperation::Close, EINVAL, "close", m_location, ErrorCode::InvalidLocation);
        m_closed = true;
        std::vector<std::byte>().swap(m_content);
    }

private:
    std::shared_ptr<const StreamHost> m_host;
    std::vector<std::byte> m_content;
    bool m_mustExist;
};

} // namespace

std::unique_ptr<ByteStream> makeStream(std::shared_ptr<const StreamHost> host, StorageIRI location,
                                       std::shared_ptr<Content> content, bool readable, bool writable, bool append)
{
    try {
        return std::make_unique<MemoryStream>(host, std::move(location), content, readable, writable, append);
    } catch (...) {
        host->release(*content);
        throw;
    }
}

std::unique_ptr<TransactionalByteStream> makeTransactionalStream(std::shared_ptr<const StreamHost> host,
                                                                 StorageIRI location, std::vector<std::byte> content,
                                                                 bool readable, bool append, bool mustExist)
{
    return std::make_unique<MemoryTransactionalStream>(std::move(host), std::move(location), std::move(content), readable,
                                                       append, mustExist);
}

} // namespace foundation::storage::provider::memory::detail
