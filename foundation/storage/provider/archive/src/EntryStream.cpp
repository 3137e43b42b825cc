#include "EntryStream.hpp"

#include <fl/i18n/ustring.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fcntl.h>
#include <unistd.h>

namespace foundation::storage::provider::archive::detail {

namespace {

// Beyond this a forward jump spills instead of inflating and dropping what it passes.
constexpr std::uint64_t longJump = 1 << 20;

[[noreturn]] void failRead(const std::string& what, ErrorCode code, ustring context)
{
    throwByteStreamFailure(StreamOperation::Read, what, code, {ExceptionContext(std::move(context))});
}

// An unnamed file in the temporary folder: it vanishes with its descriptor, whatever happens.
int unnamedTemporaryFile()
{
    const std::string folder = std::filesystem::temp_directory_path().string();
    int fd = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0) {
        if (std::FILE* file = std::tmpfile()) {
            fd = ::fcntl(fileno(file), F_DUPFD_CLOEXEC, 0);
            std::fclose(file);
        }
    }
    if (fd < 0)
        failRead(std::string("no temporary file to spill the entry to: ") + std::strerror(errno),
                 errno == ENOSPC ? ErrorCode::NoSpaceLeft : ErrorCode::IOError, u"spill");
    return fd;
}

class EntryStream final : public ByteStream {
public:
    EntryStream(StorageIRI location, std::uint64_t size, std::function<std::unique_ptr<EntryReader>()> open)
        : m_location(std::move(location)), m_size(size), m_open(std::move(open))
    {
    }
    ~EntryStream() override
    {
        if (m_spill >= 0)
            ::close(m_spill);
    }

    std::streamsize read(char* s, std::streamsize n) override
    {
        checkOpen(StreamOperation::Read);
        if (n <= 0)
            return 0;
        if (m_position >= m_size)
            return -1;
        const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(static_cast<std::uint64_t>(n), m_size - m_position));
        return translated([&] {
            if (m_spill < 0)
                position();
            std::size_t got = 0;
            if (m_spill >= 0) {
                const ssize_t done = ::pread(m_spill, s, wanted, static_cast<off_t>(m_position));
                if (done < 0)
                    failRead(std::string("reading the spilled entry: ") + std::strerror(errno), ErrorCode::IOError, u"pread");
                got = static_cast<std::size_t>(done);
            } else {
                got = m_reader->read(s, wanted);
                m_readerPosition += got;
            }
            if (got == 0)
                failRead("the entry ends before its recorded size", ErrorCode::IOError, u"truncated-entry");
            m_position += got;
            return static_cast<std::streamsize>(got);
        });
    }

    std::streamsize write(const char*, std::streamsize) override
    {
        checkOpen(StreamOperation::Write);
        throwByteStreamFailure(StreamOperation::Write, "an archive entry opened for reading", ErrorCode::PermissionDenied,
                               {ExceptionContext(u"read-only-stream")});
    }

    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override
    {
        checkOpen(StreamOperation::Seek);
        const std::streamoff base = way == std::ios_base::beg   ? 0
                                    : way == std::ios_base::cur ? static_cast<std::streamoff>(m_position)
                                                                : static_cast<std::streamoff>(m_size);
        if (base + off < 0)
            throwByteStreamFailure(StreamOperation::Seek, "a position before the start", ErrorCode::InvalidLocation,
                                   {ExceptionContext(u"seek")});
        m_position = static_cast<std::uint64_t>(base + off);
        return static_cast<std::streampos>(base + off);
    }

    void flush() override { checkOpen(StreamOperation::Flush); }

    void close() override
    {
        checkOpen(StreamOperation::Close);
        m_closed = true;
        m_reader.reset();
        if (m_spill >= 0)
            ::close(std::exchange(m_spill, -1));
    }

private:
    void checkOpen(StreamOperation operation) const
    {
        if (m_closed)
            throwByteStreamFailure(operation, "the stream is closed", ErrorCode::InvalidLocation, {ExceptionContext(u"closed")});
    }

    // Provider failures of reopening the container come out as failures of the read.
    template <class Call>
    std::streamsize translated(Call&& call)
    {
        try {
            return call();
        } catch (const ContainerChanged&) {
            throwByteStreamFailure(StreamOperation::Read, "the archive changed while the entry was read", ErrorCode::IOError,
                                   {ExceptionContext(u"container-changed")});
        } catch (const Exception& error) {
            throwByteStreamFailure(StreamOperation::Read, fl::i18n::ustring_to_utf8_lossy(error.getMessage().empty() ? error.getStorageIRI().toString() : error.getMessage()),
                                   error.getErrorCode(), error.getAllExceptionContexts());
        }
    }

    // Brings the reader to m_position, or spills when it cannot get there cheaply.
    void position()
    {
        if (!m_reader) {
            m_reader = m_open();
            m_readerPosition = 0;
        }
        if (m_readerPosition == m_position)
            return;
        if (m_reader->seek(m_position)) {
            m_readerPosition = m_position;
            return;
        }
        if (m_position > m_readerPosition && m_position - m_readerPosition <= longJump) {
            char scratch[16 * 1024];
            while (m_readerPosition < m_position) {
                const std::size_t got = m_reader->read(scratch, static_cast<std::size_t>(std::min<std::uint64_t>(sizeof scratch, m_position - m_readerPosition)));
                if (got == 0)
                    failRead("the entry ends before its recorded size", ErrorCode::IOError, u"truncated-entry");
                m_readerPosition += got;
            }
            return;
        }
        spill();
    }

    void spill()
    {
        m_reader.reset();
        const int fd = unnamedTemporaryFile();
        try {
            const std::unique_ptr<EntryReader> reader = m_open();
            std::vector<char> buffer(256 * 1024);
            std::uint64_t written = 0;
            for (;;) {
                const std::size_t got = reader->read(buffer.data(), buffer.size());
                if (got == 0)
                    break;
                if (written + got > m_size)
                    failRead("the entry runs past its recorded size", ErrorCode::IOError, u"oversized-entry");
                for (std::size_t done = 0; done < got;) {
                    const ssize_t n = ::pwrite(fd, buffer.data() + done, got - done, static_cast<off_t>(written + done));
                    if (n < 0)
                        failRead(std::string("spilling the entry: ") + std::strerror(errno),
                                 errno == ENOSPC ? ErrorCode::NoSpaceLeft : ErrorCode::IOError, u"spill");
                    done += static_cast<std::size_t>(n);
                }
                written += got;
            }
            if (written != m_size)
                failRead("the entry ends before its recorded size", ErrorCode::IOError, u"truncated-entry");
        } catch (...) {
            ::close(fd);
            throw;
        }
        m_spill = fd;
    }

    StorageIRI m_location;
    std::uint64_t m_size;
    std::function<std::unique_ptr<EntryReader>()> m_open;
    std::unique_ptr<EntryReader> m_reader;
    std::uint64_t m_readerPosition = 0;
    std::uint64_t m_position = 0;
    int m_spill = -1;
    bool m_closed = false;
};

} // namespace

std::unique_ptr<ByteStream> makeEntryStream(StorageIRI location, std::uint64_t size,
                                            std::function<std::unique_ptr<EntryReader>()> open)
{
    return std::make_unique<EntryStream>(std::move(location), size, std::move(open));
}

} // namespace foundation::storage::provider::archive::detail
