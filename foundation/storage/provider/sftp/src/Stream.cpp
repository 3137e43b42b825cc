// Byte streams on SFTP file handles. A stream holds a connection of its own for its life. Reads and
// writes go out in requests of at least 1 MiB: libssh2 splits such a request into many SFTP
// packets in flight at once (read-ahead for reads, pipelined writes), which is what makes a
// transfer fast over a link with latency. Transactional streams write a temporary beside the
// target, flush it on the server (fsync@openssh.com) and rename it over the target on commit.

#include "Stream.hpp"

#include <foundation/storage/provider/PosixError.hpp>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <vector>

#include <unistd.h>

namespace foundation::storage::provider::sftp::detail {

namespace {

constexpr std::size_t requestBytes = std::size_t{1} << 20;

struct HandleCloser {
    void operator()(LIBSSH2_SFTP_HANDLE* handle) const noexcept { ::libssh2_sftp_close_handle(handle); }
};
using Handle = std::unique_ptr<LIBSSH2_SFTP_HANDLE, HandleCloser>;

// The open handle and where it stands. One thread at a time, as every stream.
class HandleStream {
public:
    HandleStream(Pool::Lease lease, Handle handle, StorageIRI location, bool readable, bool writable, bool append,
                 std::optional<std::uint64_t> sizeAtOpen = std::nullopt)
        : m_lease(std::move(lease)), m_handle(std::move(handle)), m_location(std::move(location)), m_readable(readable),
          m_writable(writable), m_append(append), m_sizeAtOpen(sizeAtOpen)
    {
    }

    // Up to `n` bytes: from what an earlier request brought, or from one large request.
    std::streamsize read(char* s, std::streamsize n)
    {
        usable(StreamOperation::Read, m_readable);
        if (n <= 0)
            return 0;
        writeOut(StreamOperation::Read);
        if ((m_position < m_readStart || m_position >= m_readStart + m_readLength) &&
            static_cast<std::size_t>(n) >= requestSize()) {
            // A reader that asks for a whole request's worth gets it straight into its buffer.
            m_readLength = 0;
            place(m_position);
            const ssize_t got = ::libssh2_sftp_read(m_handle.get(), s, requestSize());
            if (got < 0)
                m_lease->failStream(StreamOperation::Read, "sftp_read", m_location);
            m_handlePosition += static_cast<std::uint64_t>(got);
            m_position += static_cast<std::uint64_t>(got);
            return got == 0 ? -1 : static_cast<std::streamsize>(got);
        }
        if (m_position < m_readStart || m_position >= m_readStart + m_readLength) {
            // Sized once: growing it back after each short answer would clear the new bytes.
            if (m_read.size() < requestBytes)
                m_read.resize(requestBytes);
            m_readLength = 0;
            m_readStart = m_position;
            place(m_position);
            // libssh2 answers what has arrived and keeps the rest of a large request in flight.
            const ssize_t got = ::libssh2_sftp_read(m_handle.get(), m_read.data(), requestSize());
            if (got < 0)
                m_lease->failStream(StreamOperation::Read, "sftp_read", m_location);
            m_readLength = static_cast<std::size_t>(got);
            m_handlePosition += static_cast<std::uint64_t>(got);
            if (got == 0)
                return -1;
        }
        const auto offset = static_cast<std::size_t>(m_position - m_readStart);
        const auto count = std::min(static_cast<std::size_t>(n), m_readLength - offset);
        std::copy_n(m_read.data() + offset, count, s);
        m_position += count;
        return static_cast<std::streamsize>(count);
    }

    // Gathered into requests of requestBytes; a write that does not continue the gathered bytes
    // sends them first.
    std::streamsize write(const char* s, std::streamsize n)
    {
        usable(StreamOperation::Write, m_writable);
        m_readLength = 0;
        if (m_append) {
            writeOut(StreamOperation::Write);
            m_position = size(StreamOperation::Write);
        }
        if (!m_write.empty() && m_position != m_writeStart + m_write.size())
            writeOut(StreamOperation::Write);
        if (m_write.empty())
            m_writeStart = m_position;
        m_write.insert(m_write.end(), s, s + n);
        m_position += static_cast<std::uint64_t>(n);
        if (m_write.size() >= requestBytes)
            writeOut(StreamOperation::Write);
        return n;
    }

    // Sends the gathered bytes; libssh2 keeps the packets of one large write in flight together.
    void writeOut(StreamOperation operation)
    {
        if (m_write.empty())
            return;
        place(m_writeStart);
        for (std::size_t done = 0; done < m_write.size();) {
            const ssize_t put = ::libssh2_sftp_write(m_handle.get(), m_write.data() + done, m_write.size() - done);
            if (put < 0) {
                m_write.clear(); // what failed is not sent again
                m_handlePosition = ~std::uint64_t{0};
                m_lease->failStream(operation, "sftp_write", m_location);
            }
            done += static_cast<std::size_t>(put);
            m_handlePosition += static_cast<std::uint64_t>(put);
        }
        m_write.clear(); // keeps its capacity for the next bytes
    }

    std::streampos seek(std::streamoff off, std::ios_base::seekdir way)
    {
        usable(StreamOperation::Seek, true);
        // The size costs a round trip: asked for only when the seek is from the end.
        const std::uint64_t size = way == std::ios_base::end ? this->size(StreamOperation::Seek) : 0;
        m_position = seekTarget(m_position, size, off, way, m_location);
        return static_cast<std::streamoff>(m_position);
    }

    std::uint64_t size(StreamOperation operation)
    {
        writeOut(operation);
        LIBSSH2_SFTP_ATTRIBUTES attributes{};
        if (::libssh2_sftp_fstat_ex(m_handle.get(), &attributes, 0) != 0)
            m_lease->failStream(operation, "sftp_fstat", m_location);
        return attributes.filesize;
    }

    void flush()
    {
        usable(StreamOperation::Flush, true);
        writeOut(StreamOperation::Flush);
    }

    // Closes the handle; false when the server reported a failure.
    bool closeHandle() noexcept { return !m_handle || ::libssh2_sftp_close_handle(m_handle.release()) == 0; }

    void closePlain()
    {
        usable(StreamOperation::Close, true);
        m_closed = true;
        try {
            writeOut(StreamOperation::Close);
        } catch (...) {
            closeHandle();
            m_lease.release();
            throw;
        }
        if (!closeHandle())
            m_lease->failStream(StreamOperation::Close, "sftp_close", m_location);
        m_lease.release();
    }

    void usable(StreamOperation operation, bool allowed) const
    {
        if (m_closed)
            throwByteStreamFailure(operation, text() + ": the stream is closed", ErrorCode::InvalidLocation,
                                   {ExceptionContext(u"closed")});
        if (!allowed)
            throwByteStreamFailure(operation, text() + ": the stream was not opened for this", ErrorCode::PermissionDenied,
                                   {ExceptionContext(u"EBADF")});
    }

    std::string text() const { return fl::i18n::ustring_to_utf8_lossy(m_location.toString()); }

    Pool::Lease m_lease;
    Handle m_handle;
    StorageIRI m_location;
    bool m_readable;
    bool m_writable;
    bool m_append;
    std::optional<std::uint64_t> m_sizeAtOpen; // of a file opened for reading only
    bool m_closed = false;
    std::uint64_t m_position = 0;
    std::uint64_t m_handlePosition = 0; // where libssh2's own offset of the handle stands
    std::vector<char> m_read;           // its first m_readLength bytes: from m_readStart on, received
    std::size_t m_readLength = 0;
    std::uint64_t m_readStart = 0;
    std::vector<char> m_write;          // bytes for m_writeStart on, not sent yet
    std::uint64_t m_writeStart = 0;

private:
    // libssh2 sends a read as packets for the whole request at once: asking 1 MiB of a 100-byte
    // file costs 32 packets each way. So a file whose size is known is asked for what remains
    // (and one packet's worth to find its end, or what it has grown by).
    std::size_t requestSize() const
    {
        constexpr std::size_t onePacket = 30000;
        if (!m_sizeAtOpen)
            return requestBytes;
        const std::uint64_t left = *m_sizeAtOpen > m_position ? *m_sizeAtOpen - m_position : 0;
        return static_cast<std::size_t>(std::clamp<std::uint64_t>(left, onePacket, requestBytes));
    }

    // A seek drops what libssh2 has read ahead: only when the offset really changes.
    void place(std::uint64_t offset)
    {
        if (m_handlePosition != offset)
            ::libssh2_sftp_seek64(m_handle.get(), offset);
        m_handlePosition = offset;
    }
};

class PlainStream final : public ByteStream {
public:
    explicit PlainStream(HandleStream stream, std::optional<FileAttributes> attributes = std::nullopt)
        : m_stream(std::move(stream)), m_attributes(std::move(attributes))
    {
    }
    std::streamsize read(char* s, std::streamsize n) override { return m_stream.read(s, n); }
    std::streamsize write(const char* s, std::streamsize n) override { return m_stream.write(s, n); }
    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override { return m_stream.seek(off, way); }
    void flush() override { m_stream.flush(); }
    void close() override { m_stream.closePlain(); }
    std::optional<FileAttributes> attributesAtOpen() const override { return m_attributes; }

private:
    HandleStream m_stream;
    std::optional<FileAttributes> m_attributes; // of a file opened for reading only
};

Handle open(Connection& connection, const std::string& path, unsigned long flags, long mode, const StorageIRI& location,
            const char* call)
{
    LIBSSH2_SFTP_HANDLE* handle = ::libssh2_sftp_open_ex(connection.sftp(), path.data(), static_cast<unsigned>(path.size()),
                                                        flags, mode, LIBSSH2_SFTP_OPENFILE);
    if (!handle)
        connection.fail(call, location);
    return Handle(handle);
}

// A file is there (links followed): its attributes; nothing there: nullopt; a folder there:
// ResourceNotFound ("not-a-file").
std::optional<LIBSSH2_SFTP_ATTRIBUTES> fileAt(Connection& connection, const std::string& path, const StorageIRI& location)
{
    LIBSSH2_SFTP_ATTRIBUTES attributes{};
    if (::libssh2_sftp_stat_ex(connection.sftp(), path.data(), static_cast<unsigned>(path.size()), LIBSSH2_SFTP_STAT,
                               &attributes) != 0) {
        if (connection.lastStatus() == LIBSSH2_FX_NO_SUCH_FILE)
            return std::nullopt;
        connection.fail("sftp_stat", location);
    }
    if (isFolder(attributes))
        throwProviderError(ErrorCode::ResourceNotFound, location, {ExceptionContext(u"open"), ExceptionContext(u"not-a-file")});
    return attributes;
}

class TransactionalStream final : public TransactionalByteStream {
public:
    TransactionalStream(HandleStream stream, std::string temporary, std::string target, bool mustExist)
        : m_stream(std::move(stream)), m_temporary(std::move(temporary)), m_target(std::move(target)), m_mustExist(mustExist)
    {
    }
    ~TransactionalStream() override
    {
        if (!m_stream.m_closed)
            discard();
    }

    std::streamsize read(char* s, std::streamsize n) override { return m_stream.read(s, n); }
    std::streamsize write(const char* s, std::streamsize n) override { return m_stream.write(s, n); }
    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override { return m_stream.seek(off, way); }
    void flush() override { m_stream.flush(); }

    void close(StreamClosePolicy policy) override
    {
        m_stream.usable(StreamOperation::Close, true);
        if (policy != StreamClosePolicy::Commit) {
            discard();
            return;
        }
        m_stream.m_closed = true;
        Connection& connection = *m_stream.m_lease;
        const StorageIRI& location = m_stream.m_location;
        try {
            m_stream.writeOut(StreamOperation::Close);
            // fsync@openssh.com: the content is on the server's disk before it takes the name. A
            // server without the extension answers OP_UNSUPPORTED; the rename still makes it whole.
            if (::libssh2_sftp_fsync(m_stream.m_handle.get()) != 0 && connection.lastStatus() != LIBSSH2_FX_OP_UNSUPPORTED)
                connection.failStream(StreamOperation::Close, "sftp_fsync", location);
            if (!m_stream.closeHandle())
                connection.failStream(StreamOperation::Close, "sftp_close", location);
            LIBSSH2_SFTP_ATTRIBUTES attributes{};
            if (m_mustExist && ::libssh2_sftp_stat_ex(connection.sftp(), m_target.data(), static_cast<unsigned>(m_target.size()),
                                                      LIBSSH2_SFTP_STAT, &attributes) != 0)
                connection.failStream(StreamOperation::Close, "sftp_stat", location);
            try {
                renameReplacing(connection, m_temporary, m_target, location, false);
            } catch (const Exception& error) {
                throwByteStreamFailure(StreamOperation::Close, m_stream.text() + ": " + error.what(), error.getErrorCode(),
                                       error.getAllExceptionContexts());
            }
        } catch (...) {
            removeTemporary();
            m_stream.m_lease.release();
            throw;
        }
        m_stream.m_lease.release();
    }

private:
    void discard() noexcept
    {
        m_stream.m_closed = true;
        m_stream.closeHandle();
        removeTemporary();
        m_stream.m_lease.release();
    }

    void removeTemporary() noexcept
    {
        m_stream.closeHandle();
        if (!m_stream.m_lease->broken())
            ::libssh2_sftp_unlink_ex(m_stream.m_lease->sftp(), m_temporary.data(), static_cast<unsigned>(m_temporary.size()));
    }

    HandleStream m_stream;
    std::string m_temporary;
    std::string m_target;
    bool m_mustExist;
};

} // namespace

std::string siblingName(const StorageIRI& location, const char* what)
{
    thread_local std::mt19937_64 random{std::random_device{}()};
    char name[80];
    std::snprintf(name, sizeof name, ".vfs-%s-%x-%016llx", what, static_cast<unsigned>(::getpid()),
                  static_cast<unsigned long long>(random()));
    std::string folder = remotePath(location.getParent());
    if (folder.back() != '/')
        folder += '/';
    return folder + name;
}

void renameReplacing(Connection& connection, const std::string& from, const std::string& to, const StorageIRI& target,
                     bool folder)
{
    LIBSSH2_SFTP* sftp = connection.sftp();
    const auto rename = [&](const std::string& a, const std::string& b) {
        return ::libssh2_sftp_rename_ex(sftp, a.data(), static_cast<unsigned>(a.size()), b.data(), static_cast<unsigned>(b.size()),
                                        LIBSSH2_SFTP_RENAME_OVERWRITE | LIBSSH2_SFTP_RENAME_ATOMIC | LIBSSH2_SFTP_RENAME_NATIVE) == 0;
    };
    if (rename(from, to))
        return;
    LIBSSH2_SFTP_ATTRIBUTES attributes{};
    if (connection.lastStatus() != LIBSSH2_FX_FAILURE ||
        ::libssh2_sftp_stat_ex(sftp, to.data(), static_cast<unsigned>(to.size()), LIBSSH2_SFTP_LSTAT, &attributes) != 0)
        connection.fail("sftp_rename", target);
    const std::string aside = siblingName(target, "aside");
    if (!rename(to, aside))
        connection.fail("sftp_rename", target);
    if (!rename(from, to)) {
        const Exception error = connection.failure("sftp_rename", target);
        rename(aside, to);
        throw error;
    }
    if (folder)
        ::libssh2_sftp_rmdir_ex(sftp, aside.data(), static_cast<unsigned>(aside.size()));
    else
        ::libssh2_sftp_unlink_ex(sftp, aside.data(), static_cast<unsigned>(aside.size()));
}

std::unique_ptr<ByteStream> openPlainStream(Pool::Lease lease, const StorageIRI& location, bool writable,
                                            const ByteStreamOpenOptions& options)
{
    Connection& connection = *lease;
    const std::string path = remotePath(location);
    unsigned long flags = LIBSSH2_FXF_READ;
    bool readable = true;
    if (writable) {
        readable = options.access == ByteStreamAccess::ReadWrite;
        flags = LIBSSH2_FXF_WRITE | (readable ? LIBSSH2_FXF_READ : 0) |
                (options.creation == ByteStreamCreation::CreateIfMissing ? LIBSSH2_FXF_CREAT : 0) |
                (options.keepContent ? 0 : LIBSSH2_FXF_TRUNC);
    }
    if (!writable) {
        // Opened first and then asked what it opened: as many round trips as looking first, and
        // the attributes are those of the content read. A folder opens for reading on POSIX servers.
        Handle handle = open(connection, path, flags, 0, location, "sftp_open");
        LIBSSH2_SFTP_ATTRIBUTES attributes{};
        if (::libssh2_sftp_fstat_ex(handle.get(), &attributes, 0) != 0)
            connection.fail("sftp_fstat", location);
        if (isFolder(attributes))
            throwProviderError(ErrorCode::ResourceNotFound, location, {ExceptionContext(u"open"), ExceptionContext(u"not-a-file")});
        std::optional<std::uint64_t> sizeAtOpen;
        if (attributes.flags & LIBSSH2_SFTP_ATTR_SIZE)
            sizeAtOpen = attributes.filesize;
        HandleStream stream(std::move(lease), std::move(handle), location, true, false, false, sizeAtOpen);
        return std::make_unique<PlainStream>(std::move(stream), fileAttributes(attributes, location.getName(), false));
    }
    // A missing file is "no such file" only when nothing should be created: look first.
    const auto existing = fileAt(connection, path, location);
    if (!existing && !(flags & LIBSSH2_FXF_CREAT))
        throwPosixError(ENOENT, "open", location);
    Handle handle = open(connection, path, flags, 0666, location, "sftp_open_write");
    HandleStream stream(std::move(lease), std::move(handle), location, readable, writable, !options.writeAtPosition);
    return std::make_unique<PlainStream>(std::move(stream));
}

std::unique_ptr<TransactionalByteStream> openTransactionalStream(Pool::Lease lease, const StorageIRI& location,
                                                                 const ByteStreamOpenOptions& options)
{
    Connection& connection = *lease;
    const std::string path = remotePath(location);
    const auto existing = fileAt(connection, path, location);
    const bool mustExist = options.creation == ByteStreamCreation::OpenExisting;
    // The rename at commit would put a regular file in place of a device, a FIFO or a socket.
    if (existing && (existing->flags & LIBSSH2_SFTP_ATTR_PERMISSIONS) && !LIBSSH2_SFTP_S_ISREG(existing->permissions))
        throwProviderError(ErrorCode::UnsupportedOperation, location,
                           {ExceptionContext(u"openTransactionalStream"), ExceptionContext(u"not-a-regular-file")});
    if (!existing && mustExist)
        throwPosixError(ENOENT, "open", location);
    const std::string temporary = siblingName(location, "tmp");
    const long mode = existing ? static_cast<long>(existing->permissions & 07777) : 0666;
    Handle handle = open(connection, temporary, LIBSSH2_FXF_READ | LIBSSH2_FXF_WRITE | LIBSSH2_FXF_CREAT | LIBSSH2_FXF_EXCL,
                         mode, location, "sftp_open_temporary");
    HandleStream stream(std::move(lease), std::move(handle), location, options.access == ByteStreamAccess::ReadWrite, true,
                        !options.writeAtPosition);
    auto transactional = std::make_unique<TransactionalStream>(std::move(stream), temporary, path, mustExist);
    if (existing && options.keepContent) {
        // The temporary starts as a copy of the file, read and written in large requests.
        Handle source = open(connection, path, LIBSSH2_FXF_READ, 0, location, "sftp_open");
        std::vector<char> buffer(requestBytes);
        for (;;) {
            const ssize_t got = ::libssh2_sftp_read(source.get(), buffer.data(), buffer.size());
            if (got < 0)
                connection.fail("sftp_read", location);
            if (got == 0)
                break;
            transactional->write(buffer.data(), got);
        }
        transactional->seek(0, std::ios_base::beg);
    }
    return transactional;
}

} // namespace foundation::storage::provider::sftp::detail
