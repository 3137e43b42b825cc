#pragma once

#include <foundation/storage/provider/Attributes.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <boost/iostreams/categories.hpp>

#include <cstdint>
#include <ios>
#include <memory>
#include <string>
#include <utility>

namespace foundation::storage::provider {

class IProvider;

// What a writable stream may do besides writing.
enum class ByteStreamAccess : std::int32_t {
    Write = 0,
    ReadWrite = 1,
};

// What opening a writable stream does when no file is there.
enum class ByteStreamCreation : std::int32_t {
    CreateIfMissing = 0,
    OpenExisting = 1, // ResourceNotFound when no file is there
};

// How a writable stream is opened. The four 32-bit fields travel between libraries in this order.
struct ByteStreamOpenOptions {
    ByteStreamAccess access = ByteStreamAccess::Write;
    ByteStreamCreation creation = ByteStreamCreation::CreateIfMissing;
    std::uint32_t keepContent = 1;     // 0: the file is emptied when opened
    std::uint32_t writeAtPosition = 1; // 0: every write goes to the end of the file
    std::uint32_t durable = 1;         // 0: a transactional stream's commit need not reach the disk before it returns
    friend bool operator==(const ByteStreamOpenOptions&, const ByteStreamOpenOptions&) = default;
};

// What a transactional stream's close does with what was written.
enum class StreamClosePolicy : std::int32_t {
    Commit = 0,  // the file takes the new content at once, whole
    Discard = 1, // the file keeps what it had
};

// Which byte-stream operation failed; picks the failure class.
enum class StreamOperation : std::int32_t {
    Read = 0,
    Write = 1,
    Seek = 2,
    Flush = 3, // reported as a write failure
    Close = 4,
};

// Throws the ByteStreamFailure leaf for `operation` (Flush -> ByteStreamWriteFailure) through
// boost::throw_exception.
[[noreturn]] VFS_EXPORT void throwByteStreamFailure(StreamOperation operation, std::string message, ErrorCode code,
                                                    ExceptionContexts contexts = {});

// A provider's open byte stream on one file. Not synchronised: one thread at a time. Every failure
// is a ByteStreamFailure leaf of the operation (read, write, seek; flush and close as documented)
// with the provider's code and contexts; a failed call leaves the position unspecified but the
// stream usable. Destroying an open stream releases it without reporting errors.
class VFS_EXPORT ByteStream {
public:
    ByteStream() = default;
    ByteStream(const ByteStream&) = delete;
    ByteStream& operator=(const ByteStream&) = delete;
    virtual ~ByteStream();

    // Up to `n` bytes at the position, which advances; -1 at the end of the file (0 only for n == 0).
    virtual std::streamsize read(char* s, std::streamsize n) = 0;
    // All `n` bytes at the position (at the end in append mode); returns n.
    virtual std::streamsize write(const char* s, std::streamsize n) = 0;
    // The new position; a position before the start is refused (InvalidLocation), one past the end
    // is allowed (a later write fills the gap with zero bytes).
    virtual std::streampos seek(std::streamoff off, std::ios_base::seekdir way) = 0;
    // Hands what the stream holds to the storage (not necessarily durable). Fails as a write.
    virtual void flush() = 0;
    // Releases the stream; ByteStreamCloseFailure when the storage reports an error. Any other call
    // afterwards fails as its operation.
    virtual void close() = 0;
    // The file's attributes as the stream found them on opening, for a stream that learnt them
    // with the open anyway (their link flag is false: a stream reads through links); nullopt for
    // the others. A copy takes its source's size and time from here instead of asking again, and
    // they belong to the very content the stream reads.
    virtual std::optional<FileAttributes> attributesAtOpen() const;
};

// A stream whose writes reach the file only when it is closed with StreamClosePolicy::Commit, all
// at once: a reader sees the old content or the whole new one, never a mix, also when the process
// dies. Closing with Discard, close() without a policy, and destroying it unclosed, all discard.
class VFS_EXPORT TransactionalByteStream : public ByteStream {
public:
    using ByteStream::close;
    void close() override;
    virtual void close(StreamClosePolicy policy) = 0;
};

// The Boost.Iostreams shape (a seekable device) over a provider stream. Copies share the stream,
// as Boost copies devices into its chains.
template <class Stream>
class GenericByteStreamDevice {
public:
    using char_type = char;
    struct category : boost::iostreams::seekable_device_tag, boost::iostreams::closable_tag,
                      boost::iostreams::flushable_tag {};

    GenericByteStreamDevice() = default;
    explicit GenericByteStreamDevice(std::unique_ptr<Stream> stream) : m_stream(std::move(stream)) {}

    std::streamsize read(char* s, std::streamsize n) { return m_stream->read(s, n); }
    std::streamsize write(const char* s, std::streamsize n) { return m_stream->write(s, n); }
    std::streampos seek(std::streamoff off, std::ios_base::seekdir way)
    {
        return m_stream->seek(off, way);
    }
    bool flush()
    {
        m_stream->flush();
        return true;
    }
    void close() { m_stream->close(); }

    Stream& stream() const noexcept { return *m_stream; }
    explicit operator bool() const noexcept { return m_stream != nullptr; }

protected:
    std::shared_ptr<Stream> m_stream;
};

using ByteStreamDevice = GenericByteStreamDevice<ByteStream>;

// Closing it needs a policy: close() discards, close(policy) decides.
class TransactionalStreamDevice : public GenericByteStreamDevice<TransactionalByteStream> {
public:
    using GenericByteStreamDevice::GenericByteStreamDevice;
    void close(StreamClosePolicy policy) { m_stream->close(policy); }
    using GenericByteStreamDevice::close;
};

// Copies the file at `from` on `source` to `to` on `target` through their streams, the target
// written transactionally: it appears whole or not at all. For copies between providers (see
// IProvider::copyFile for policy, progress and writability); failures are provider Exceptions
// naming the source (reading) or the target (everything else).
VFS_EXPORT TransactionStatus copyFileThroughStreams(const IProvider& source, const StorageIRI& from,
                                                    const IProvider& target, const StorageIRI& to,
                                                    const CopyFileOptions& options);

} // namespace foundation::storage::provider
