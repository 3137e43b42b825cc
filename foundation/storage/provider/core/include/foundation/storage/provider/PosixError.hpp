#pragma once

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <optional>

namespace foundation::storage::provider {

// The one translation of POSIX errors into provider errors, shared by everything that calls the
// operating system (the local provider, canonicalisation of local paths).

// The provider code for an errno value (ENOENT, ENOTDIR and EISDIR -> ResourceNotFound, EACCES and
// EPERM -> PermissionDenied, EEXIST -> ResourceAlreadyExists, ENOTEMPTY -> FolderNotEmpty, ENOSPC and
// EDQUOT -> NoSpaceLeft, EROFS -> ReadOnlyProvider, EFBIG -> FileTooLarge, EBUSY and ETXTBSY ->
// ResourceInUse, EIO -> IOError, ENAMETOOLONG, EINVAL and ELOOP -> InvalidLocation, ENOSYS, EXDEV
// and EOPNOTSUPP -> UnsupportedOperation, ENOMEM -> InternalError, anything else -> Unknown).
VFS_EXPORT ErrorCode errorCodeFromErrno(int error) noexcept;
// The symbolic name of an errno value ("ENOENT"); "E<number>" for one without a name.
VFS_EXPORT const char* errnoName(int error) noexcept;
// The provider exception for a failed native call: code from errorCodeFromErrno, contexts
// (call, errno name), message strerror(error).
VFS_EXPORT Exception posixError(int error, const char* call, const StorageIRI& location);
[[noreturn]] VFS_EXPORT void throwPosixError(int error, const char* call, const StorageIRI& location);
// The same failure met inside an open byte stream: the ByteStreamFailure leaf of `operation` with the
// code (or `code` where the errno means something else there), the contexts (call, errno name) and
// the message "<location>: <strerror>".
[[noreturn]] VFS_EXPORT void throwPosixStreamError(StreamOperation operation, int error, const char* call,
                                                   const StorageIRI& location,
                                                   std::optional<ErrorCode> code = std::nullopt);

// Where a seek by `off` from `way` lands, for a stream at `position` in a file of `size` bytes (only
// read for std::ios_base::end). A position before the start, or beyond what a position can hold,
// fails as the seek would natively (EINVAL) naming `location`.
VFS_EXPORT std::uint64_t seekTarget(std::uint64_t position, std::uint64_t size, std::streamoff off, std::ios_base::seekdir way,
                                    const StorageIRI& location);

} // namespace foundation::storage::provider
