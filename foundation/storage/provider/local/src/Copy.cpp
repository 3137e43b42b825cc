// File copy on the local disk. The content goes into a temporary file next to the target, through
// copy_file_range (the kernel copies, or shares extents where the file system can), is made durable,
// and only then takes the target's name: a reader sees the old target or the whole new one, and a
// failed or cancelled copy leaves nothing behind.

#include "Native.hpp"

#include <foundation/storage/provider/PosixError.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace foundation::storage::provider::local::detail {

namespace {

// Bytes per copy_file_range call when a progress callback wants to hear between chunks; without
// one, the kernel is asked for everything at once.
constexpr std::size_t progressChunk = 8 * 1024 * 1024;
constexpr std::size_t wholeFileChunk = std::size_t(1) << 30;
// The read/write fallback's buffer: large and page-aligned, which the kernel copies fastest.
constexpr std::size_t fallbackBufferSize = 1024 * 1024;
constexpr std::size_t fallbackBufferAlignment = 4096;

struct FreeDeleter {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

// Copies up to `chunk` bytes from the current offset of `in` to that of `out` through user space;
// 0 at the end of `in`.
std::size_t copyThroughBuffer(int in, int out, std::unique_ptr<char, FreeDeleter>& buffer, const StorageIRI& from,
                              const StorageIRI& to)
{
    if (!buffer) {
        buffer.reset(static_cast<char*>(std::aligned_alloc(fallbackBufferAlignment, fallbackBufferSize)));
        if (!buffer)
            fail(ENOMEM, "aligned_alloc", to);
    }
    ssize_t got;
    do
        got = ::read(in, buffer.get(), fallbackBufferSize);
    while (got < 0 && errno == EINTR);
    if (got < 0)
        fail(errno, "read", from);
    for (ssize_t done = 0; done < got;) {
        const ssize_t written = ::write(out, buffer.get() + done, static_cast<std::size_t>(got - done));
        if (written < 0) {
            if (errno == EINTR)
                continue;
            fail(errno, "write", to);
        }
        done += written;
    }
    return static_cast<std::size_t>(got);
}

bool kernelCannotCopy(int error) noexcept
{
    // Across file systems the kernel may refuse (EXDEV); some file systems or old kernels lack the
    // call altogether.
    return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == ENOTSUP;
}

} // namespace

bool copyContent(int in, int out, std::uint64_t size, const CopyFileOptions& options, const StorageIRI& from,
                 const StorageIRI& to)
{
    const std::size_t chunk = options.progress ? progressChunk : wholeFileChunk;
    bool kernelCopies = true;
    std::unique_ptr<char, FreeDeleter> buffer;
    std::uint64_t copied = 0;
    for (;;) {
        std::size_t got;
        if (kernelCopies) {
            const ssize_t result = ::copy_file_range(in, nullptr, out, nullptr, chunk, 0);
            if (result < 0) {
                if (errno == EINTR)
                    continue;
                if (!kernelCannotCopy(errno))
                    fail(errno, "copy_file_range", to);
                kernelCopies = false;
                continue;
            }
            got = static_cast<std::size_t>(result);
        } else {
            got = copyThroughBuffer(in, out, buffer, from, to);
        }
        if (got == 0)
            return true;
        copied += got;
        if (options.progress && !options.progress(copied, std::max(size, copied)))
            return false;
    }
}

TransactionStatus copyFile(const StorageIRI& from, const StorageIRI& to, const CopyFileOptions& options)
{
    const fl::filesystem::path source = nativePath(from);
    const fl::filesystem::path target = nativePath(to);
    const ReplacementPolicy policy = options.replacementPolicy;

    // Non-blocking, so that a FIFO found here is refused below instead of waiting for a writer.
    FileDescriptor in(::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!in)
        fail(errno, "open", from);
    struct stat sourceInfo {};
    if (::fstat(in.get(), &sourceInfo) != 0)
        fail(errno, "fstat", from);
    if (S_ISDIR(sourceInfo.st_mode))
        failKind(from, u"not-a-file");
    if (!S_ISREG(sourceInfo.st_mode))
        throwProviderError(ErrorCode::UnsupportedOperation, from, {ExceptionContext(u"not-a-regular-file")});

    struct stat targetInfo {};
    if (::stat(target.c_str(), &targetInfo) == 0) {
        if (S_ISDIR(targetInfo.st_mode))
            throwProviderError(ErrorCode::ResourceAlreadyExists, to, {ExceptionContext(u"not-a-file")});
        if (policy == ReplacementPolicy::FailIfExists)
            throwPosixError(EEXIST, "stat", to);
        if (policy == ReplacementPolicy::ReplaceIfNewer && !newer(sourceInfo.st_mtim, targetInfo.st_mtim))
            return TransactionStatus::NothingDone;
    } else {
        // A link that leads nowhere is a file in the way like any other; without one, only a
        // missing target is fine (a missing folder on the way fails when the folder is opened).
        const int error = errno;
        struct stat linkInfo {};
        const bool link = ::lstat(target.c_str(), &linkInfo) == 0 && S_ISLNK(linkInfo.st_mode);
        if (!link && error != ENOENT)
            fail(error, "stat", to);
        if (link && policy == ReplacementPolicy::FailIfExists)
            throwPosixError(EEXIST, "lstat", to);
    }

    const std::string name = target.filename().native();
    FileDescriptor folder(::open(target.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        fail(errno, "open", to);
    TemporaryFile temporary(folder.get(), to, ".vfs-copy-", O_WRONLY, 0600);
    if (!copyContent(in.get(), temporary.fd(), static_cast<std::uint64_t>(sourceInfo.st_size), options, from, to))
        return TransactionStatus::NothingDone;
    if (::fchmod(temporary.fd(), sourceInfo.st_mode & 07777) != 0)
        fail(errno, "fchmod", to);
    if (options.durable && ::fsync(temporary.fd()) != 0)
        fail(errno, "fsync", to);
    if (const int error = temporary.close())
        fail(error, "close", to);

    if (policy == ReplacementPolicy::FailIfExists) {
        if (::renameat2(folder.get(), temporary.name().c_str(), folder.get(), name.c_str(), RENAME_NOREPLACE) != 0) {
            if (errno != EINVAL && errno != ENOSYS)
                fail(errno, "renameat2", to);
            // Without RENAME_NOREPLACE, a hard link is the atomic "create unless present"; the
            // temporary name goes with the guard.
            if (::linkat(folder.get(), temporary.name().c_str(), folder.get(), name.c_str(), 0) != 0)
                fail(errno, "linkat", to);
            return TransactionStatus::Completed;
        }
    } else if (::renameat(folder.get(), temporary.name().c_str(), folder.get(), name.c_str()) != 0) {
        if (errno == EISDIR)
            failAs(ErrorCode::ResourceAlreadyExists, EISDIR, "renameat", to, u"not-a-file");
        fail(errno, "renameat", to);
    }
    temporary.published();
    return TransactionStatus::Completed;
}

} // namespace foundation::storage::provider::local::detail
