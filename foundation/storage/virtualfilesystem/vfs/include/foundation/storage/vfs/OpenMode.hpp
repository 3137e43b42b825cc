#pragma once

#include <foundation/storage/provider/ByteStream.hpp>

#include <fl/export.hpp>

namespace foundation::storage::vfs {

// A standard iostream open mode (std::ios_base::openmode bits as an int) in the provider's terms:
// a read-only open, or a writable one with provider open options.
//
//   mode (of in/out/app/trunc)   access     creation          keepContent  writeAtPosition
//   out                          Write      OpenExisting      1            1
//   in|out                       ReadWrite  OpenExisting      1            1
//   out|app, app                 Write      CreateIfMissing   1            0
//   in|out|app, in|app           ReadWrite  CreateIfMissing   1            0
//   out|trunc                    Write      CreateIfMissing   0            1
//   in|out|trunc                 ReadWrite  CreateIfMissing   0            1
//
// Any other mode is refused by toByteStreamOpenOptions() with std::runtime_error (also an
// IInternalException) "toByteStreamCreate called with bad openmode".
class VFS_EXPORT OpenMode {
public:
    // `app` alone and `in|app` gain `out`; nothing else changes. Never throws.
    OpenMode(int const& mode);

    int getOpenMode() const noexcept { return m_openMode; }
    bool includesAtEnd() const noexcept { return m_atEnd; }
    bool includesBinary() const noexcept { return m_binary; }
    // Of in and out, only in: the file is opened for reading alone and the options are not needed.
    bool isReadOnly() const noexcept;
    provider::ByteStreamOpenOptions toByteStreamOpenOptions() const;

private:
    int m_openMode;
    bool m_atEnd;
    bool m_binary;
};

namespace detail {

// The two decisions of OpenMode::toByteStreamOpenOptions on a normalised mode, each refusing what it
// cannot decide with std::runtime_error: "toByteStreamAccess called with bad openmode" (a mode
// without out), "toByteStreamCreate called with bad openmode" (any mode outside the table).
VFS_EXPORT provider::ByteStreamAccess toByteStreamAccess(int mode);
VFS_EXPORT provider::ByteStreamCreation toByteStreamCreate(int mode);

} // namespace detail

} // namespace foundation::storage::vfs
