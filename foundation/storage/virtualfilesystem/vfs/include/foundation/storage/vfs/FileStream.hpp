#pragma once

#include <foundation/storage/vfs/File.hpp>
#include <foundation/storage/vfs/OpenMode.hpp>

#include <boost/iostreams/filtering_streambuf.hpp>

#include <istream>
#include <memory>
#include <ostream>

namespace foundation::storage::vfs {

namespace detail {

// The buffer of the file streams: a seekable Boost filtering_streambuf whose chain holds, while
// open, the provider's device, or the text-mode adapter over it, with a 131072-byte buffer.
// Transfers of at least a buffer's size, with nothing buffered in their way, go between the
// caller's memory and the device directly instead of being copied through the buffer.
class VFS_EXPORT FileStreamBuffer : public boost::iostreams::filtering_streambuf<boost::iostreams::seekable> {
public:
    static constexpr std::streamsize bufferSize = 131072;

    FileStreamBuffer();
    ~FileStreamBuffer() override;

    // Pushes `device` (or the text-mode adapter over it) onto the empty chain.
    void openOn(const provider::ByteStreamDevice& device, bool binary);

protected:
    std::streamsize xsgetn(char* s, std::streamsize n) override;
    std::streamsize xsputn(const char* s, std::streamsize n) override;
    // A seek first writes out pending output; when that fails, the seek fails and the output stays.
    pos_type seekoff(off_type off, std::ios_base::seekdir way, std::ios_base::openmode which) override;
    pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

private:
    std::streamsize deviceRead(char* s, std::streamsize n);
    std::streamsize deviceWrite(const char* s, std::streamsize n);

    bool m_binary = true;
};

// Owns a stream's buffer; a base of the streams so that the buffer exists before the standard
// stream base is given it.
struct VFS_EXPORT FileStreamBufferHolder {
    std::unique_ptr<FileStreamBuffer> buffer = std::make_unique<FileStreamBuffer>();
};

// The shared steps of the streams' open() and close(); `mode` already amended by the stream class.
// openFileStream answers whether the buffer was opened (the stream then re-initialises itself on it).
VFS_EXPORT bool openFileStream(std::basic_ios<char>& stream, FileStreamBuffer& buffer, const File& file, int mode);
VFS_EXPORT void closeFileStream(std::basic_ios<char>& stream, FileStreamBuffer& buffer);

} // namespace detail

// Standard iostreams on a File, binary or text (CR LF on disk, LF in the program). `mode` is an int
// of std::ios_base::openmode bits, interpreted by OpenMode.
//
// open() on an open stream, and close() on a closed one, set failbit and do nothing else. A bad
// mode or a failed open throws (std::runtime_error for the mode, Exception for the file, an
// I/O exception for the initial seek of `ate`) and leaves the stream closed. Failures of reads,
// writes and seeks inside the buffer set badbit (or throw as the stream's exception mask asks);
// close() writes out what is buffered and closes the provider's stream, throwing I/O exceptions
// (IOCloseException for the provider's close). Not synchronised.
class VFS_EXPORT fstream : private detail::FileStreamBufferHolder, public std::iostream {
public:
    fstream();
    // `mode` unchanged.
    fstream(const File& file, int mode);
    ~fstream() override;

    void open(const File& file, int mode);
    void close();
    bool is_open() const;
    std::basic_streambuf<char>* rdbuf() const;
};

class VFS_EXPORT ifstream : private detail::FileStreamBufferHolder, public std::istream {
public:
    ifstream();
    // `mode | in`.
    ifstream(const File& file, int mode);
    ~ifstream() override;

    void open(const File& file, int mode);
    void close();
    bool is_open() const;
    std::basic_streambuf<char>* rdbuf() const;
};

class VFS_EXPORT ofstream : private detail::FileStreamBufferHolder, public std::ostream {
public:
    ofstream();
    // `mode | out | trunc` when `mode` has none of in, app, trunc; `mode | out` otherwise.
    ofstream(const File& file, int mode);
    ~ofstream() override;

    void open(const File& file, int mode);
    void close();
    bool is_open() const;
    std::basic_streambuf<char>* rdbuf() const;
};

} // namespace foundation::storage::vfs
