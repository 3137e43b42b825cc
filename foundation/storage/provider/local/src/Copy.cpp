// File copy on the local disk. The content goes into a file of its own in the target's folder,
// through copy_file_range (the kernel copies, or shares extents where the file system can), gets its
// mode (within the umask) and time, is made durable when asked, and only then takes the target's
// name: a reader sees the old target or the whole new one, and a failed or cancelled copy leaves
// nothing behind. A target that is a device, a FIFO or a file of several names is written into
// instead, as cp does.
//
// A copy that must not replace anything writes an unnamed file (O_TMPFILE) and links it in: one
// directory change instead of a temporary name's creation and rename, and not even a crash can
// leave a temporary behind. Where the file system or the process cannot do that, and for copies that
// replace, the content goes into a named temporary file that is renamed over the target.

#include "Native.hpp"

#include <foundation/storage/provider/PosixError.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
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
// From this size on, a copy that replaces nothing looks for its target before copying.
constexpr off_t checkFirstFrom = 1024 * 1024;

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

// Copies [offset, end) of `in` to the same offsets of `out`, through the kernel where it can; false
// when the progress callback cancelled.
bool copyExtent(int in, int out, off_t offset, off_t end, std::uint64_t& copied, std::uint64_t size,
                const CopyFileOptions& options, std::unique_ptr<char, FreeDeleter>& buffer, const StorageIRI& from,
                const StorageIRI& to)
{
    const std::size_t chunk = options.progress ? progressChunk : wholeFileChunk;
    off_t outOffset = offset;
    while (offset < end) {
        const std::size_t want = std::min(static_cast<std::size_t>(end - offset), chunk);
        ssize_t got = buffer ? -1 : ::copy_file_range(in, &offset, out, &outOffset, want, 0);
        if (got < 0 && !buffer) {
            if (errno == EINTR)
                continue;
            if (!kernelCannotCopy(errno))
                fail(errno, "copy_file_range", to);
            buffer.reset(static_cast<char*>(std::aligned_alloc(fallbackBufferAlignment, fallbackBufferSize)));
            if (!buffer)
                fail(ENOMEM, "aligned_alloc", to);
        }
        if (buffer) {
            got = ::pread(in, buffer.get(), std::min(want, fallbackBufferSize), offset);
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                fail(errno, "pread", from);
            for (ssize_t done = 0; done < got;) {
                const ssize_t written = ::pwrite(out, buffer.get() + done, static_cast<std::size_t>(got - done), outOffset);
                if (written < 0 && errno == EINTR)
                    continue;
                if (written < 0)
                    fail(errno, "pwrite", to);
                done += written;
                outOffset += written;
            }
            offset += got;
        }
        if (got == 0)
            break; // the source was cut short meanwhile
        copied += static_cast<std::uint64_t>(got);
        if (options.progress && !options.progress(copied, std::max(size, copied)))
            return false;
    }
    return true;
}

// A file with holes (fewer bytes allocated than its size) keeps them: only its data extents are
// copied, found with SEEK_DATA and SEEK_HOLE, and the target is cut to the source's length at the end,
// so a large file with little data copies in the time its data takes. Nothing when this does not
// apply (the source has no holes, the target is not a regular file, either offset is not at the
// start, or the file system cannot tell holes); otherwise as copyContent.
std::optional<bool> copySparse(int in, int out, const struct stat& source, const CopyFileOptions& options,
                               const StorageIRI& from, const StorageIRI& to)
{
    struct stat target {};
    if (!S_ISREG(source.st_mode) || source.st_blocks * 512 >= source.st_size || ::fstat(out, &target) != 0 ||
        !S_ISREG(target.st_mode) || ::lseek(in, 0, SEEK_CUR) != 0 || ::lseek(out, 0, SEEK_CUR) != 0)
        return std::nullopt;
    std::unique_ptr<char, FreeDeleter> buffer;
    std::uint64_t copied = 0;
    const auto size = static_cast<std::uint64_t>(source.st_size);
    for (off_t position = 0;;) {
        const off_t data = ::lseek(in, position, SEEK_DATA);
        if (data < 0) {
            if (errno == ENXIO)
                break; // no data after `position`: a hole up to the end
            if (position == 0 && (errno == EINVAL || errno == EOPNOTSUPP))
                return std::nullopt;
            fail(errno, "lseek", from);
        }
        const off_t hole = ::lseek(in, data, SEEK_HOLE);
        if (hole < 0)
            fail(errno, "lseek", from);
        copied = static_cast<std::uint64_t>(data); // the hole before counts as copied
        if (!copyExtent(in, out, data, hole, copied, size, options, buffer, from, to))
            return false;
        position = hole;
    }
    const off_t end = ::lseek(in, 0, SEEK_END);
    if (end < 0)
        fail(errno, "lseek", from);
    if (::ftruncate(out, end) != 0)
        fail(errno, "ftruncate", to);
    if (options.progress && static_cast<std::uint64_t>(end) > copied &&
        !options.progress(static_cast<std::uint64_t>(end), std::max(size, static_cast<std::uint64_t>(end))))
        return false;
    if (::lseek(out, end, SEEK_SET) < 0)
        fail(errno, "lseek", to);
    return true;
}

} // namespace

bool copyContent(int in, int out, const struct stat& source, const CopyFileOptions& options, const StorageIRI& from,
                 const StorageIRI& to)
{
    if (const std::optional<bool> done = copySparse(in, out, source, options, from, to))
        return *done;
    const auto size = static_cast<std::uint64_t>(source.st_size);
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

namespace {

// Mode, time and durability of the new content in `out`, once copied from `in`; false when the
// progress callback cancelled.
bool fillTarget(int in, int out, const struct stat& sourceInfo, const CopyFileOptions& options, const StorageIRI& from,
                const StorageIRI& to)
{
    if (!copyContent(in, out, sourceInfo, options, from, to))
        return false;
    // The permission bits came with the file's creation, limited by the umask as for any new file.
    // The set-ID bits stay only where the copy keeps the source's owner or group (it is owned by
    // this process), so that no copy grants another user's rights.
    mode_t special = sourceInfo.st_mode & (S_ISUID | S_ISGID | S_ISVTX);
    if (sourceInfo.st_uid != ::geteuid())
        special &= ~mode_t(S_ISUID);
    if (sourceInfo.st_gid != ::getegid())
        special &= ~mode_t(S_ISGID);
    if (special != 0) {
        struct stat made {};
        if (::fstat(out, &made) != 0)
            fail(errno, "fstat", to);
        if (::fchmod(out, (made.st_mode & 0777) | special) != 0)
            fail(errno, "fchmod", to);
    }
    if (options.keepLastModified) {
        const struct timespec times[2] = {{0, UTIME_OMIT}, sourceInfo.st_mtim};
        if (::futimens(out, times) != 0)
            fail(errno, "futimens", to);
    }
    if (options.durable && ::fsync(out) != 0)
        fail(errno, "fsync", to);
    return true;
}

// The failure for a target that is already there when nothing may be replaced: a folder (or a link
// to one) is "not-a-file"; a file or any link is in the way.
[[noreturn]] void refuseExisting(const char* target, const StorageIRI& to)
{
    struct stat linkInfo {};
    struct stat info {};
    const bool folder = ::lstat(target, &linkInfo) == 0 &&
                        (S_ISDIR(linkInfo.st_mode) || (S_ISLNK(linkInfo.st_mode) && ::stat(target, &info) == 0 && S_ISDIR(info.st_mode)));
    if (folder)
        throwProviderError(ErrorCode::ResourceAlreadyExists, to, {ExceptionContext(u"not-a-file")});
    throwPosixError(EEXIST, "lstat", to);
}

// How this process gives an unnamed file a name. linkat with AT_EMPTY_PATH needs a capability on
// older kernels; naming the descriptor under /proc does not, but needs /proc.
enum class UnnamedLink { Untried, EmptyPath, ProcFd, Impossible };
std::atomic<UnnamedLink> unnamedLink{UnnamedLink::Untried};

// Links the unnamed file `fd` in as `target`; false when this process cannot link unnamed files
// at all. Anything else that fails (the name taken meanwhile, the folder gone) is thrown.
bool linkUnnamed(int fd, const char* target, const StorageIRI& to)
{
    const UnnamedLink method = unnamedLink.load(std::memory_order_relaxed);
    if (method != UnnamedLink::ProcFd) {
        if (::linkat(fd, "", AT_FDCWD, target, AT_EMPTY_PATH) == 0) {
            unnamedLink.store(UnnamedLink::EmptyPath, std::memory_order_relaxed);
            return true;
        }
        if (errno == EEXIST)
            refuseExisting(target, to);
        // Without the capability the call answers ENOENT, as it does for a missing folder.
        if (method == UnnamedLink::EmptyPath || (errno != ENOENT && errno != EPERM))
            fail(errno, "linkat", to);
    }
    char byDescriptor[32];
    std::snprintf(byDescriptor, sizeof byDescriptor, "/proc/self/fd/%d", fd);
    if (::linkat(AT_FDCWD, byDescriptor, AT_FDCWD, target, AT_SYMLINK_FOLLOW) == 0) {
        unnamedLink.store(UnnamedLink::ProcFd, std::memory_order_relaxed);
        return true;
    }
    const int error = errno;
    if (error == EEXIST)
        refuseExisting(target, to);
    if (error == ENOENT && method == UnnamedLink::Untried && ::access("/proc/self/fd", F_OK) != 0) {
        unnamedLink.store(UnnamedLink::Impossible, std::memory_order_relaxed);
        return false;
    }
    fail(error, "linkat", to);
}

// The copy through an unnamed file; nothing when this file system or process cannot make or link
// one (the source is then back at its start, for the named way).
std::optional<TransactionStatus> copyUnnamed(int in, const struct stat& sourceInfo, const std::string& target,
                                             const CopyFileOptions& options, const StorageIRI& from, const StorageIRI& to)
{
    if (unnamedLink.load(std::memory_order_relaxed) == UnnamedLink::Impossible)
        return std::nullopt;
    FileDescriptor out(::open(parentOf(target).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, sourceInfo.st_mode & 0777));
    if (!out) {
        // No unnamed files on this file system (EOPNOTSUPP) or in this kernel (EISDIR, EINVAL).
        if (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)
            return std::nullopt;
        fail(errno, "open", to);
    }
    if (!fillTarget(in, out.get(), sourceInfo, options, from, to))
        return TransactionStatus::NothingDone;
    if (!linkUnnamed(out.get(), target.c_str(), to)) {
        if (::lseek(in, 0, SEEK_SET) != 0)
            fail(errno, "lseek", from);
        return std::nullopt;
    }
    if (const int error = out.close()) {
        ::unlink(target.c_str()); // a write the storage reports only now: the copy is not whole
        fail(error, "close", to);
    }
    return TransactionStatus::Completed;
}

// Writes into the existing file at `target`: a device or a FIFO stays what it is, and a file with
// other names keeps them, as cp does. Unlike a replacement this is not atomic: a failure or a
// cancellation part way leaves the target with part of the content.
TransactionStatus copyThrough(int in, const struct stat& sourceInfo, const std::string& target,
                              const CopyFileOptions& options, const StorageIRI& from, const StorageIRI& to)
{
    FileDescriptor out(::open(target.c_str(), O_WRONLY | O_TRUNC | O_NOCTTY | O_CLOEXEC));
    if (!out)
        fail(errno, "open", to);
    if (!copyContent(in, out.get(), sourceInfo, options, from, to))
        return TransactionStatus::NothingDone;
    if (options.durable && ::fsync(out.get()) != 0 && errno != EINVAL)
        fail(errno, "fsync", to);
    if (const int error = out.close())
        fail(error, "close", to);
    return TransactionStatus::Completed;
}

} // namespace

TransactionStatus copyFile(const StorageIRI& from, const StorageIRI& to, const CopyFileOptions& options)
{
    const std::string source = nativePath(from);
    std::string target = nativePath(to);
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

    if (policy == ReplacementPolicy::FailIfExists) {
        // The final link or rename refuses a target that is there. A large file is checked first
        // as well, so that an existing target costs no copy; for a small one the check would cost
        // more than the copy it might save.
        struct stat linkInfo {};
        if (sourceInfo.st_size >= checkFirstFrom && ::lstat(target.c_str(), &linkInfo) == 0)
            refuseExisting(target.c_str(), to);
        if (const std::optional<TransactionStatus> status = copyUnnamed(in.get(), sourceInfo, target, options, from, to))
            return *status;
    } else {
        struct stat targetInfo {};
        if (::stat(target.c_str(), &targetInfo) == 0) {
            if (S_ISDIR(targetInfo.st_mode))
                throwProviderError(ErrorCode::ResourceAlreadyExists, to, {ExceptionContext(u"not-a-file")});
            if (policy == ReplacementPolicy::ReplaceIfNewer && !newer(sourceInfo.st_mtim, targetInfo.st_mtim))
                return TransactionStatus::NothingDone;
            if (targetInfo.st_dev == sourceInfo.st_dev && targetInfo.st_ino == sourceInfo.st_ino)
                failAs(ErrorCode::InvalidLocation, EINVAL, "stat", to, u"same-file");
            // Never a regular file in place of a device, a FIFO or a socket, and no second name of
            // a file split off from the others.
            if (!S_ISREG(targetInfo.st_mode) || targetInfo.st_nlink > 1)
                return copyThrough(in.get(), sourceInfo, target, options, from, to);
            // A link stays a link: the file it leads to is replaced, in its own folder.
            struct stat linkInfo {};
            if (::lstat(target.c_str(), &linkInfo) == 0 && S_ISLNK(linkInfo.st_mode)) {
                char* resolved = ::realpath(target.c_str(), nullptr);
                if (!resolved)
                    fail(errno, "realpath", to);
                target = resolved;
                std::free(resolved);
            }
        } else if (errno != ENOENT) {
            // A link that leads nowhere is replaced like a file; only a missing target is fine
            // otherwise (a missing folder on the way fails when the folder is opened).
            const int error = errno;
            struct stat linkInfo {};
            if (::lstat(target.c_str(), &linkInfo) != 0 || !S_ISLNK(linkInfo.st_mode))
                fail(error, "stat", to);
        }
    }

    const std::string name = lastNameOf(target);
    FileDescriptor folder(::open(parentOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        fail(errno, "open", to);
    TemporaryFile temporary(folder.get(), to, ".vfs-copy-", O_WRONLY, sourceInfo.st_mode & 0777);
    if (!fillTarget(in.get(), temporary.fd(), sourceInfo, options, from, to))
        return TransactionStatus::NothingDone;
    if (const int error = temporary.close())
        fail(error, "close", to);

    if (policy == ReplacementPolicy::FailIfExists) {
        if (::renameat2(folder.get(), temporary.name().c_str(), folder.get(), name.c_str(), RENAME_NOREPLACE) != 0) {
            if (errno == EEXIST)
                refuseExisting(target.c_str(), to);
            if (errno != EINVAL && errno != ENOSYS)
                fail(errno, "renameat2", to);
            // Without RENAME_NOREPLACE, a hard link is the atomic "create unless present"; the
            // temporary name goes with the guard.
            if (::linkat(folder.get(), temporary.name().c_str(), folder.get(), name.c_str(), 0) != 0) {
                if (errno == EEXIST)
                    refuseExisting(target.c_str(), to);
                fail(errno, "linkat", to);
            }
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
