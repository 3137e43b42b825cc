#pragma once

#include <foundation/storage/vfs/File.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace foundation::storage::vfs {

// The C stdio operations on either a storage file or an ordinary C FILE*, for code written against
// FILE*. A storage-backed object (openPosixFile) reports failures as the C library does: through
// return values, the end-of-file and error indicators and errno, never by throwing; error numbers
// are EPERM for PermissionDenied and ReadOnlyProvider, EFBIG for FileTooLarge, ENOSPC for
// NoSpaceLeft, EIO for everything else. Not synchronised. Delete the object when done (after
// fclose(), which a storage-backed object needs to write out what it buffers).
class VFS_EXPORT PosixFILE {
public:
    PosixFILE(const PosixFILE&) = delete;
    PosixFILE& operator=(const PosixFILE&) = delete;

    // The wrapped C file; null for a storage-backed object.
    virtual FILE* rawFile() const = 0;
    // Gives up the wrapped C file; a storage-backed object throws std::logic_error.
    virtual FILE* releaseRawFile() = 0;
    virtual ~PosixFILE();

    virtual void clearerr() = 0;
    virtual int fclose() = 0;
    virtual int feof() const = 0;
    virtual int ferror() const = 0;
    virtual int fflush() = 0;
    virtual std::size_t fread(void* buffer, std::size_t size, std::size_t count) = 0;
    // whence 0, 1, 2: from the start, the position, the end. A storage-backed object answers 0 or a
    // positive error number (ESPIPE for another whence).
    virtual int fseek(std::int64_t offset, int whence) = 0;
    virtual std::int64_t ftell() = 0;
    virtual std::size_t fwrite(const void* buffer, std::size_t size, std::size_t count) = 0;
    virtual void rewind() = 0;

protected:
    PosixFILE() = default;
};

// A storage-backed object over a 131072-byte buffer. `mode` is one of r, w, w+, r+, a, a+, with
// any number of b anywhere (ignored); any other throws std::logic_error "Invalid open mode". A
// failed open throws as File's operations and IODevice do. The caller owns the result.
VFS_EXPORT PosixFILE* openPosixFile(File file, const char* mode);
// An object forwarding to `file`, which it closes in fclose() only when it `owns` it (and never in
// its destructor); null for a null `file`. The caller owns the result.
VFS_EXPORT PosixFILE* adaptPosixFile(FILE* file, bool owns);

// A real C FILE* (glibc fopencookie) over openPosixFile(file, mode), for C code that takes one:
// fread, fprintf, fseek, ... work as on any FILE*, with the C library's own buffer in front of the
// device's, and report the error numbers above through errno. fclose() writes out, closes the
// storage file and frees everything; its result tells whether the close succeeded. Throws as
// openPosixFile does; std::bad_alloc when the C library cannot make the FILE.
VFS_EXPORT FILE* openCFile(File file, const char* mode);

} // namespace foundation::storage::vfs
