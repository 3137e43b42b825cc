#include <foundation/storage/vfs/FileStream.hpp>

#include <foundation/storage/vfs/detail/TextModeAdapter.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include "StreamAccess.hpp"

#include <algorithm>
#include <cstring>

namespace foundation::storage::vfs {

namespace detail {

namespace {

using TextDevice = TextModeAdapter<provider::ByteStreamDevice>;

} // namespace

FileStreamBuffer::FileStreamBuffer() = default;
FileStreamBuffer::~FileStreamBuffer() = default;

void FileStreamBuffer::openOn(const provider::ByteStreamDevice& device, bool binary)
{
    m_binary = binary;
    if (binary)
        push(device, static_cast<int>(bufferSize));
    else
        push(TextDevice(device), static_cast<int>(bufferSize));
}

std::streamsize FileStreamBuffer::deviceRead(char* s, std::streamsize n)
{
    return m_binary ? component<provider::ByteStreamDevice>(0)->read(s, n) : component<TextDevice>(0)->read(s, n);
}

std::streamsize FileStreamBuffer::deviceWrite(const char* s, std::streamsize n)
{
    return m_binary ? component<provider::ByteStreamDevice>(0)->write(s, n) : component<TextDevice>(0)->write(s, n);
}

// The buffer reads from the device only when its get area is empty and no output is pending (the
// put area is unset while reading), so going to the device directly keeps the chain's position
// arithmetic right: the device's position is the stream's.
std::streamsize FileStreamBuffer::xsgetn(char* s, std::streamsize n)
{
    const std::streamsize buffered = std::min<std::streamsize>(n, egptr() - gptr());
    if (buffered > 0) {
        std::memcpy(s, gptr(), static_cast<std::size_t>(buffered));
        gbump(static_cast<int>(buffered));
    }
    std::streamsize done = buffered;
    if (n - done < bufferSize || pptr() != nullptr || !is_complete())
        return done + filtering_streambuf::xsgetn(s + done, n - done);
    // Text mode delivers less than it reads; the short remainders cost a few small reads, which is
    // still cheaper than copying a whole buffer.
    while (done < n) {
        const std::streamsize got = deviceRead(s + done, n - done);
        if (got <= 0)
            break;
        done += got;
    }
    return done;
}

// Direct writes happen only outside reading (no get area), after what is buffered is written out.
std::streamsize FileStreamBuffer::xsputn(const char* s, std::streamsize n)
{
    if (n < bufferSize || gptr() != nullptr || !is_complete())
        return filtering_streambuf::xsputn(s, n);
    if (pptr() != pbase() && pubsync() != 0)
        return 0;
    return deviceWrite(s, n);
}

// Boost's buffer writes out pending output before seeking but ignores a failure to, and then drops
// that output: the caller would lose data with no stream state set.
auto FileStreamBuffer::seekoff(off_type off, std::ios_base::seekdir way, std::ios_base::openmode which) -> pos_type
{
    if (pptr() != pbase() && pubsync() != 0)
        return pos_type(off_type(-1));
    return filtering_streambuf::seekoff(off, way, which);
}

auto FileStreamBuffer::seekpos(pos_type position, std::ios_base::openmode which) -> pos_type
{
    if (pptr() != pbase() && pubsync() != 0)
        return pos_type(off_type(-1));
    return filtering_streambuf::seekpos(position, which);
}

bool openFileStream(std::basic_ios<char>& stream, FileStreamBuffer& buffer, const File& file, int mode)
{
    if (buffer.is_complete()) {
        stream.setstate(std::ios_base::failbit);
        return false;
    }
    const OpenMode openMode(mode);
    provider::ByteStreamDevice device =
        openMode.isReadOnly() ? StreamAccess::openReadOnly(file)
                              : StreamAccess::open(file, openMode.toByteStreamOpenOptions());
    if (openMode.includesAtEnd())
        translated([&] { device.seek(0, std::ios_base::end); });
    buffer.openOn(device, openMode.includesBinary());
    return true;
}

void closeFileStream(std::basic_ios<char>& stream, FileStreamBuffer& buffer)
{
    if (!buffer.is_complete()) {
        stream.setstate(std::ios_base::failbit);
        return;
    }
    try {
        // The buffer swallows a failure of its own sync; the stream reports it as the standard
        // streams do a failed close.
        if (buffer.pubsync() != 0)
            stream.setstate(std::ios_base::badbit);
        buffer.reset();
    } catch (...) {
        try {
            buffer.reset(); // the chain is no longer open: this only drops its links
        } catch (...) {
        }
        translateProviderException();
    }
}

} // namespace detail

namespace {

constexpr int in = static_cast<int>(std::ios_base::in);
constexpr int out = static_cast<int>(std::ios_base::out);
constexpr int app = static_cast<int>(std::ios_base::app);
constexpr int trunc = static_cast<int>(std::ios_base::trunc);

int ofstreamMode(int mode)
{
    return (mode & (in | app | trunc)) == 0 ? mode | out | trunc : mode | out;
}

} // namespace

#define VFS_FILE_STREAM(Name, Base, Amend)                                                           \
    Name::Name() : Base(buffer.get()) {}                                                             \
    Name::Name(const File& file, int mode) : Base(buffer.get())                                      \
    {                                                                                                \
        open(file, mode);                                                                            \
    }                                                                                                \
    Name::~Name() = default;                                                                         \
    void Name::open(const File& file, int mode)                                                      \
    {                                                                                                \
        if (detail::openFileStream(*this, *buffer, file, Amend))                                     \
            this->init(buffer.get());                                                                \
    }                                                                                                \
    void Name::close() { detail::closeFileStream(*this, *buffer); }                                  \
    bool Name::is_open() const { return buffer->is_complete(); }                                     \
    std::basic_streambuf<char>* Name::rdbuf() const { return buffer.get(); }

VFS_FILE_STREAM(fstream, std::iostream, mode)
VFS_FILE_STREAM(ifstream, std::istream, mode | in)
VFS_FILE_STREAM(ofstream, std::ostream, ofstreamMode(mode))
#undef VFS_FILE_STREAM

} // namespace foundation::storage::vfs
