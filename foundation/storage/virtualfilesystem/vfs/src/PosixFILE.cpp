#include <foundation/storage/vfs/PosixFILE.hpp>

#include <foundation/storage/vfs/IODevice.hpp>
#include <foundation/storage/vfs/detail/Logger.hpp>

#include <boost/throw_exception.hpp>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

namespace foundation::storage::vfs {

PosixFILE::~PosixFILE() = default;

namespace {

// The error number for the exception in flight, which a storage-backed FILE reports instead.
int errorNumber() noexcept
{
    auto& log = detail::logger();
    if (log.enabled(foundation::log::category_exception)) {
        try {
            log.write(foundation::log::category_exception,
                      "Exception caught: " + foundation::log::current_exception_chain_as_string());
        } catch (...) {
        }
    }
    try {
        throw;
    } catch (const IOException& error) {
        switch (error.getErrorCode()) {
        case ErrorCode::PermissionDenied:
        case ErrorCode::ReadOnlyProvider:
            return EPERM;
        case ErrorCode::FileTooLarge:
            return EFBIG;
        case ErrorCode::NoSpaceLeft:
            return ENOSPC;
        default:
            return EIO;
        }
    } catch (...) {
        return EIO;
    }
}

class VfsPosixFILE final : public PosixFILE {
public:
    VfsPosixFILE(bool readable, bool writable, BufferedIODevice* device)
        : m_readable(readable), m_writable(writable), m_device(device)
    {
    }

    FILE* rawFile() const override { return nullptr; }
    FILE* releaseRawFile() override
    {
        boost::throw_exception(std::logic_error("Cannot release RAW file from VFS-based PosixFILE."));
    }

    void clearerr() override
    {
        m_eof = false;
        m_error = 0;
    }

    int fclose() override
    {
        try {
            m_device->close();
            return 0;
        } catch (...) {
            return errorNumber();
        }
    }

    int feof() const override { return m_eof ? 1 : 0; }
    int ferror() const override { return m_error; }

    int fflush() override
    {
        if (!m_writable) {
            m_error = EPERM;
            return -1;
        }
        try {
            m_device->flush();
            return 0;
        } catch (...) {
            m_error = errorNumber();
            return -1;
        }
    }

    std::size_t fread(void* buffer, std::size_t size, std::size_t count) override
    {
        if (!m_readable) {
            m_error = EPERM;
            return 0;
        }
        if (size == 0 || count == 0)
            return 0;
        const auto wanted = static_cast<std::streamsize>(size * count);
        std::streamsize got;
        try {
            got = m_device->read(static_cast<char*>(buffer), wanted);
        } catch (...) {
            m_error = errorNumber();
            return 0;
        }
        if (got < wanted)
            m_eof = true;
        return got < 0 ? 0 : static_cast<std::size_t>(got) / size;
    }

    int fseek(std::int64_t offset, int whence) override
    {
        std::ios_base::seekdir way;
        switch (whence) {
        case 0:
            way = std::ios_base::beg;
            break;
        case 1:
            way = std::ios_base::cur;
            break;
        case 2:
            way = std::ios_base::end;
            break;
        default:
            return ESPIPE;
        }
        try {
            m_device->seek(offset, way);
        } catch (...) {
            m_error = errorNumber();
            return m_error;
        }
        m_eof = false;
        return 0;
    }

    std::int64_t ftell() override
    {
        try {
            return static_cast<std::int64_t>(static_cast<std::streamoff>(m_device->tell()));
        } catch (...) {
            errno = errorNumber();
            return -1;
        }
    }

    // Each round passes the whole length, as the device writes all of it or throws.
    std::size_t fwrite(const void* buffer, std::size_t size, std::size_t count) override
    {
        if (!m_writable) {
            m_error = EPERM;
            return 0;
        }
        if (size == 0)
            return 0;
        const auto total = static_cast<std::streamsize>(size * count);
        std::streamsize done = 0;
        try {
            while (done < total)
                done += m_device->write(static_cast<const char*>(buffer) + done, total);
        } catch (...) {
            m_error = errorNumber();
        }
        return static_cast<std::size_t>(done) / size;
    }

    void rewind() override
    {
        m_error = 0;
        fseek(0, 0);
    }

private:
    bool m_readable;
    bool m_writable;
    std::unique_ptr<BufferedIODevice> m_device;
    bool m_eof = false;
    int m_error = 0;
};

class RawPosixFILE final : public PosixFILE {
public:
    RawPosixFILE(FILE* file, bool owns) : m_file(file), m_owns(owns) {}

    FILE* rawFile() const override { return m_file; }
    FILE* releaseRawFile() override
    {
        FILE* released = m_file;
        m_file = nullptr;
        m_owns = false;
        return released;
    }

    void clearerr() override { std::clearerr(m_file); }
    int fclose() override { return m_owns ? std::fclose(m_file) : 0; }
    int feof() const override { return std::feof(m_file); }
    int ferror() const override { return std::ferror(m_file); }
    int fflush() override { return std::fflush(m_file); }
    std::size_t fread(void* buffer, std::size_t size, std::size_t count) override
    {
        return std::fread(buffer, size, count, m_file);
    }
    std::size_t fwrite(const void* buffer, std::size_t size, std::size_t count) override
    {
        return std::fwrite(buffer, size, count, m_file);
    }
    void rewind() override { std::rewind(m_file); }

    int fseek(std::int64_t offset, int whence) override
    {
        switch (whence) {
        case 0:
            return setPosition(offset);
        case 1: {
            const std::int64_t position = ftell();
            return position < 0 ? -1 : setPosition(position + offset);
        }
        case 2:
            return ::fseeko64(m_file, offset, SEEK_END);
        default:
            return -1;
        }
    }

    std::int64_t ftell() override
    {
        fpos64_t position;
        if (::fgetpos64(m_file, &position) != 0)
            return -1;
        return static_cast<std::int64_t>(position.__pos);
    }

private:
    int setPosition(std::int64_t offset)
    {
        fpos64_t position;
        if (::fgetpos64(m_file, &position) != 0)
            return -1;
        position.__pos = offset;
        return ::fsetpos64(m_file, &position);
    }

    FILE* m_file;
    bool m_owns;
};

} // namespace

namespace {

// A C mode without its "b"s, which change nothing here wherever they stand.
std::string withoutB(const char* mode)
{
    std::string kept;
    for (const char* c = mode; c && *c; ++c) {
        if (*c != 'b')
            kept += *c;
    }
    return kept;
}

} // namespace

PosixFILE* openPosixFile(File file, const char* mode)
{
    const std::string kept = withoutB(mode);
    using provider::ByteStreamAccess;
    using provider::ByteStreamCreation;
    struct Row {
        const char* mode;
        bool readable;
        bool writable;
        provider::ByteStreamOpenOptions options;
    };
    static const Row rows[] = {
        {"w", false, true, {ByteStreamAccess::Write, ByteStreamCreation::CreateIfMissing, 0, 1}},
        {"w+", true, true, {ByteStreamAccess::ReadWrite, ByteStreamCreation::CreateIfMissing, 0, 1}},
        {"r+", true, true, {ByteStreamAccess::ReadWrite, ByteStreamCreation::OpenExisting, 1, 1}},
        {"a", false, true, {ByteStreamAccess::Write, ByteStreamCreation::CreateIfMissing, 1, 0}},
        {"a+", true, true, {ByteStreamAccess::ReadWrite, ByteStreamCreation::CreateIfMissing, 1, 0}},
    };
    if (kept == "r")
        return new VfsPosixFILE(true, false, new BufferedIODevice(std::move(file)));
    for (const Row& row : rows) {
        if (kept == row.mode)
            return new VfsPosixFILE(row.readable, row.writable, new BufferedIODevice(std::move(file), row.options));
    }
    boost::throw_exception(std::logic_error("Invalid open mode"));
}

PosixFILE* adaptPosixFile(FILE* file, bool owns)
{
    return file ? new RawPosixFILE(file, owns) : nullptr;
}

// ---------------------------------------------------------------------------------------------
// A FILE* through fopencookie

namespace {

// The C library buffers a cookie stream itself, and has no flush call for the cookie: a write it
// passes down must reach the storage at once, or fflush() would leave the bytes in the adapter's
// buffer and report a full storage only at fclose(). Its buffer is given the adapter's size, so that
// the storage still sees large writes.
struct Cookie {
    std::unique_ptr<PosixFILE> file;
    std::unique_ptr<char[]> buffer = std::make_unique<char[]>(static_cast<std::size_t>(BufferedIODevice::bufferSize));
};

ssize_t cookieRead(void* cookie, char* buffer, std::size_t size)
{
    PosixFILE& file = *static_cast<Cookie*>(cookie)->file;
    const std::size_t got = file.fread(buffer, 1, size);
    if (got == 0 && file.ferror()) {
        errno = file.ferror();
        file.clearerr();
        return -1;
    }
    return static_cast<ssize_t>(got);
}

// The C library takes a short count for an error; errno says which.
ssize_t cookieWrite(void* cookie, const char* buffer, std::size_t size)
{
    PosixFILE& file = *static_cast<Cookie*>(cookie)->file;
    const std::size_t put = file.fwrite(buffer, 1, size);
    if (put == size && !file.ferror() && file.fflush() == 0)
        return static_cast<ssize_t>(put);
    errno = file.ferror() ? file.ferror() : EIO;
    file.clearerr();
    // All of it taken but not stored: an error; the device keeps the bytes and tries again at close.
    return put == size ? -1 : static_cast<ssize_t>(put);
}

int cookieSeek(void* cookie, off64_t* offset, int whence)
{
    PosixFILE& file = *static_cast<Cookie*>(cookie)->file;
    if (const int error = file.fseek(*offset, whence)) {
        file.clearerr();
        errno = error;
        return -1;
    }
    const std::int64_t position = file.ftell();
    if (position < 0)
        return -1;
    *offset = position;
    return 0;
}

int cookieClose(void* cookie)
{
    const std::unique_ptr<Cookie> owned(static_cast<Cookie*>(cookie));
    const int error = owned->file->fclose();
    if (error) {
        errno = error;
        return -1;
    }
    return 0;
}

} // namespace

FILE* openCFile(File file, const char* mode)
{
    auto cookie = std::make_unique<Cookie>();
    cookie->file.reset(openPosixFile(std::move(file), mode));
    const cookie_io_functions_t functions{cookieRead, cookieWrite, cookieSeek, cookieClose};
    // The C library reads a "b" only in a few places ("bw" it refuses, "rbb+" it takes as "r"), so
    // it gets the mode the adapter was opened with, without them.
    FILE* opened = ::fopencookie(cookie.get(), withoutB(mode).c_str(), functions);
    if (!opened)
        throw std::bad_alloc();
    std::setvbuf(opened, cookie->buffer.get(), _IOFBF, static_cast<std::size_t>(BufferedIODevice::bufferSize));
    cookie.release();
    return opened;
}

} // namespace foundation::storage::vfs
