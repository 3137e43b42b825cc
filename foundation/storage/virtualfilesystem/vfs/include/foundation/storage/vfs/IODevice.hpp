#pragma once

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/vfs/File.hpp>
#include <foundation/storage/vfs/IOException.hpp>

#include <boost/iostreams/categories.hpp>
#include <boost/iostreams/stream_buffer.hpp>

#include <ios>
#include <memory>
#include <string>
#include <string_view>

namespace foundation::storage::vfs {

// An unbuffered, seekable byte device over one file (the Boost.Iostreams device shape, so a Boost
// stream buffer can sit on it). Every operation is traced in the library's diagnostic log when
// someone listens; provider stream failures arrive as IOReadException, IOWriteException,
// IOSeekException or IOCloseException; any operation but is_open() on a closed (or moved-from)
// device throws std::logic_error "Cannot operate on a closed IODevice.".
//
// Copies share the provider's stream: one close() closes it for all, but only the closing copy
// becomes closed (the others then fail in the provider). The destructor drops this copy's share
// without closing the stream. Not synchronised.
class VFS_EXPORT IODevice {
public:
    using char_type = char;
    struct category : boost::iostreams::seekable_device_tag, boost::iostreams::closable_tag {};

    // Opens `file` for reading only.
    explicit IODevice(File file);
    IODevice(File file, provider::ByteStreamOpenOptions options);
    IODevice(const IODevice&);
    IODevice(IODevice&&) noexcept;
    IODevice& operator=(const IODevice&);
    IODevice& operator=(IODevice&&) noexcept;
    ~IODevice();

    // The bytes read; -1 at the end of the file.
    std::streamsize read(char* s, std::streamsize n) const;
    std::streamsize write(const char* s, std::streamsize n) const;
    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) const;
    // seek(0, cur), traced as such.
    std::streampos tell() const;
    // Closes the provider's stream; a second close() throws.
    void close();
    bool is_open() const noexcept;

private:
    File m_file;
    std::shared_ptr<provider::ByteStreamDevice> m_device;
};

// A 131072-byte stream buffer over an IODevice, itself a std::streambuf, with the device's
// operations. Every failure below is an I/O exception: those of the IODevice pass unchanged, any
// other becomes the operation's own (read: IOReadException, write and flush: IOWriteException, seek
// and tell: IOSeekException, close: IOCloseException) with ErrorCode::IOError. Not synchronised.
class VFS_EXPORT BufferedIODevice : public boost::iostreams::stream_buffer<IODevice> {
public:
    static constexpr std::streamsize bufferSize = 131072;

    // Opens `file` for reading only.
    explicit BufferedIODevice(File file);
    BufferedIODevice(File file, provider::ByteStreamOpenOptions options);
    explicit BufferedIODevice(IODevice device);
    ~BufferedIODevice() override;

    // The bytes read; -1 when none could be (the end of the file).
    std::streamsize read(char* s, std::streamsize n) const;
    std::streamsize write(const char* s, std::streamsize n) const;
    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) const;
    std::streampos tell() const;
    // Writes out what is buffered.
    void flush();
    // Writes out what is buffered and closes the device; a failure leaves it open.
    void close();
    bool is_open() const;

private:
    void writeOut();

    bool m_closed = false;
};

// A device on the provider's transactional stream of a file, which starts empty: what is written
// replaces the file's content when closed with StreamClosePolicy::Commit, at once and whole, and is
// dropped with Discard or when the device is destroyed unclosed. Provider failures arrive as I/O
// exceptions; use after close throws std::logic_error "Cannot operate on a closed
// TransactionalIODevice.". Movable, not copyable; not synchronised; not traced.
class VFS_EXPORT TransactionalIODevice {
public:
    TransactionalIODevice(File file, provider::ByteStreamAccess access);
    TransactionalIODevice(TransactionalIODevice&&) noexcept;
    TransactionalIODevice& operator=(TransactionalIODevice&&) noexcept;
    ~TransactionalIODevice();

    std::streamsize read(char* s, std::streamsize n) const;
    std::streamsize write(const char* s, std::streamsize n) const;
    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) const;
    std::streampos tell() const;
    // A failure leaves the device open, so that the caller may retry or discard.
    void close(provider::StreamClosePolicy policy);
    bool is_open() const noexcept;

private:
    std::unique_ptr<provider::TransactionalStreamDevice> m_device;
};

} // namespace foundation::storage::vfs
