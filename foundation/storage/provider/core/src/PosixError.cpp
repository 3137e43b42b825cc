#include <foundation/storage/provider/PosixError.hpp>

#include <boost/throw_exception.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

namespace foundation::storage::provider {

namespace {

struct ErrnoEntry {
    int value;
    const char* name;
};

// Searched front to back, so where a platform gives two names one value (EAGAIN and EWOULDBLOCK,
// EOPNOTSUPP and ENOTSUP, EDEADLK and EDEADLOCK) the first, more common name wins.
constexpr ErrnoEntry errnoNames[] = {
    {EPERM, "EPERM"},
    {ENOENT, "ENOENT"},
    {ESRCH, "ESRCH"},
    {EINTR, "EINTR"},
    {EIO, "EIO"},
    {ENXIO, "ENXIO"},
    {E2BIG, "E2BIG"},
    {ENOEXEC, "ENOEXEC"},
    {EBADF, "EBADF"},
    {ECHILD, "ECHILD"},
    {EAGAIN, "EAGAIN"},
    {EWOULDBLOCK, "EWOULDBLOCK"},
    {ENOMEM, "ENOMEM"},
    {EACCES, "EACCES"},
    {EFAULT, "EFAULT"},
    {EBUSY, "EBUSY"},
    {EEXIST, "EEXIST"},
    {EXDEV, "EXDEV"},
    {ENODEV, "ENODEV"},
    {ENOTDIR, "ENOTDIR"},
    {EISDIR, "EISDIR"},
    {EINVAL, "EINVAL"},
    {ENFILE, "ENFILE"},
    {EMFILE, "EMFILE"},
    {ENOTTY, "ENOTTY"},
    {ETXTBSY, "ETXTBSY"},
    {EFBIG, "EFBIG"},
    {ENOSPC, "ENOSPC"},
    {ESPIPE, "ESPIPE"},
    {EROFS, "EROFS"},
    {EMLINK, "EMLINK"},
    {EPIPE, "EPIPE"},
    {EDOM, "EDOM"},
    {ERANGE, "ERANGE"},
    {EDEADLK, "EDEADLK"},
    {ENAMETOOLONG, "ENAMETOOLONG"},
    {ENOLCK, "ENOLCK"},
    {ENOSYS, "ENOSYS"},
    {ENOTEMPTY, "ENOTEMPTY"},
    {ELOOP, "ELOOP"},
    {ENOMSG, "ENOMSG"},
    {EIDRM, "EIDRM"},
    {ENOSTR, "ENOSTR"},
    {ENODATA, "ENODATA"},
    {ETIME, "ETIME"},
    {ENOSR, "ENOSR"},
    {ENOLINK, "ENOLINK"},
    {EPROTO, "EPROTO"},
    {EMULTIHOP, "EMULTIHOP"},
    {EBADMSG, "EBADMSG"},
    {EOVERFLOW, "EOVERFLOW"},
    {EILSEQ, "EILSEQ"},
    {ENOTSOCK, "ENOTSOCK"},
    {EDESTADDRREQ, "EDESTADDRREQ"},
    {EMSGSIZE, "EMSGSIZE"},
    {EPROTOTYPE, "EPROTOTYPE"},
    {ENOPROTOOPT, "ENOPROTOOPT"},
    {EPROTONOSUPPORT, "EPROTONOSUPPORT"},
    {EOPNOTSUPP, "EOPNOTSUPP"},
    {ENOTSUP, "ENOTSUP"},
    {EAFNOSUPPORT, "EAFNOSUPPORT"},
    {EADDRINUSE, "EADDRINUSE"},
    {EADDRNOTAVAIL, "EADDRNOTAVAIL"},
    {ENETDOWN, "ENETDOWN"},
    {ENETUNREACH, "ENETUNREACH"},
    {ENETRESET, "ENETRESET"},
    {ECONNABORTED, "ECONNABORTED"},
    {ECONNRESET, "ECONNRESET"},
    {ENOBUFS, "ENOBUFS"},
    {EISCONN, "EISCONN"},
    {ENOTCONN, "ENOTCONN"},
    {ETIMEDOUT, "ETIMEDOUT"},
    {ECONNREFUSED, "ECONNREFUSED"},
    {EHOSTUNREACH, "EHOSTUNREACH"},
    {EALREADY, "EALREADY"},
    {EINPROGRESS, "EINPROGRESS"},
    {ESTALE, "ESTALE"},
    {EDQUOT, "EDQUOT"},
    {ECANCELED, "ECANCELED"},
    {EOWNERDEAD, "EOWNERDEAD"},
    {ENOTRECOVERABLE, "ENOTRECOVERABLE"},
#ifdef ENOTBLK
    {ENOTBLK, "ENOTBLK"},
#endif
#ifdef EREMOTEIO
    {EREMOTEIO, "EREMOTEIO"},
#endif
#ifdef ENOMEDIUM
    {ENOMEDIUM, "ENOMEDIUM"},
#endif
#ifdef EMEDIUMTYPE
    {EMEDIUMTYPE, "EMEDIUMTYPE"},
#endif
#ifdef EUCLEAN
    {EUCLEAN, "EUCLEAN"},
#endif
#ifdef ENOKEY
    {ENOKEY, "ENOKEY"},
#endif
#ifdef EKEYEXPIRED
    {EKEYEXPIRED, "EKEYEXPIRED"},
#endif
#ifdef EKEYREVOKED
    {EKEYREVOKED, "EKEYREVOKED"},
#endif
#ifdef EKEYREJECTED
    {EKEYREJECTED, "EKEYREJECTED"},
#endif
#ifdef ERFKILL
    {ERFKILL, "ERFKILL"},
#endif
#ifdef EHWPOISON
    {EHWPOISON, "EHWPOISON"},
#endif
};

// glibc with _GNU_SOURCE gives the GNU strerror_r (returns the text, maybe not in `buffer`); other
// C libraries give the XSI one (fills `buffer`, returns a status). Overloading picks whichever.
[[maybe_unused]] const char* strerrorText(const char* result, const char*) noexcept
{
    return result;
}
[[maybe_unused]] const char* strerrorText(int status, const char* buffer) noexcept
{
    return status == 0 ? buffer : "Unknown error";
}

} // namespace

ErrorCode errorCodeFromErrno(int error) noexcept
{
    switch (error) {
    case ENOENT:
    case ENOTDIR:
    case EISDIR: // a folder where a file was asked for: the file is not there
        return ErrorCode::ResourceNotFound;
    case EACCES:
    case EPERM:
        return ErrorCode::PermissionDenied;
    case EEXIST:
        return ErrorCode::ResourceAlreadyExists;
    case ENOTEMPTY:
        return ErrorCode::FolderNotEmpty;
    case ENOSPC:
    case EDQUOT:
        return ErrorCode::NoSpaceLeft;
    case EROFS:
        return ErrorCode::ReadOnlyProvider;
    case EFBIG:
        return ErrorCode::FileTooLarge;
    case EBUSY:
    case ETXTBSY:
        return ErrorCode::ResourceInUse;
    case EIO:
        return ErrorCode::IOError;
    case ENAMETOOLONG:
    case EINVAL:
    case ELOOP:
        return ErrorCode::InvalidLocation;
    case ENOSYS:
    case EXDEV: // a rename or link across file systems: the caller copies instead
    case EOPNOTSUPP:
#if ENOTSUP != EOPNOTSUPP
    case ENOTSUP:
#endif
        return ErrorCode::UnsupportedOperation;
    case ENOMEM:
        return ErrorCode::InternalError;
    default:
        return ErrorCode::Unknown;
    }
}

const char* errnoName(int error) noexcept
{
    for (const ErrnoEntry& entry : errnoNames) {
        if (entry.value == error)
            return entry.name;
    }
    // Values without a name are rare (a platform's own additions, garbage); the text lives in a
    // per-thread buffer, valid until this thread's next call for an unnamed value.
    thread_local char unnamed[16];
    std::snprintf(unnamed, sizeof unnamed, "E%d", error);
    return unnamed;
}

Exception posixError(int error, const char* call, const StorageIRI& location)
{
    char buffer[256];
    const char* text = strerrorText(::strerror_r(error, buffer, sizeof buffer), buffer);
    Exception result(errorCodeFromErrno(error), location, fl::i18n::utf8_to_ustring_lossy(text));
    result.withContext(fl::i18n::utf8_to_ustring_lossy(call)).withContext(fl::i18n::utf8_to_ustring_lossy(errnoName(error)));
    return result;
}

void throwPosixError(int error, const char* call, const StorageIRI& location)
{
    boost::throw_exception(posixError(error, call, location));
}

void throwPosixStreamError(StreamOperation operation, int error, const char* call, const StorageIRI& location,
                           std::optional<ErrorCode> code)
{
    const Exception failure = posixError(error, call, location);
    throwByteStreamFailure(operation, fl::i18n::ustring_to_utf8_lossy(location.toString() + u": " + failure.getMessage()),
                           code.value_or(failure.getErrorCode()), failure.getAllExceptionContexts());
}

std::uint64_t seekTarget(std::uint64_t position, std::uint64_t size, std::streamoff off, std::ios_base::seekdir way,
                         const StorageIRI& location)
{
    std::int64_t base = 0;
    if (way == std::ios_base::cur)
        base = static_cast<std::int64_t>(position);
    else if (way == std::ios_base::end)
        base = static_cast<std::int64_t>(size);
    else if (way != std::ios_base::beg)
        throwPosixStreamError(StreamOperation::Seek, EINVAL, "seek", location);
    if ((off > 0 && base > std::numeric_limits<std::int64_t>::max() - off) || base + off < 0)
        throwPosixStreamError(StreamOperation::Seek, EINVAL, "seek", location);
    return static_cast<std::uint64_t>(base + off);
}

} // namespace foundation::storage::provider
