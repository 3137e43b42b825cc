#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/local/LocalProvider.hpp>

#include "Native.hpp"
#include "Watcher.hpp"

#include <foundation/storage/provider/PosixError.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/property_tree/ptree.hpp>

#include <cerrno>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace foundation::storage::provider::local {

namespace {

using detail::fail;
using detail::failAs;
using detail::failKind;
using detail::FileDescriptor;
using detail::nativePath;

bool isNotFound(int error) noexcept
{
    // ENOTDIR: some prefix of the path is a file, so nothing can exist below it.
    return error == ENOENT || error == ENOTDIR;
}

struct stat statOf(const std::string& path, const StorageIRI& location)
{
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        fail(errno, "stat", location);
    return info;
}

// A move's failure, reported for the location it concerns: what is wrong at the target (it exists,
// its folder is missing) for the destination, everything else for the source.
[[noreturn]] void failMove(int error, const char* call, const StorageIRI& location, const StorageIRI& destination)
{
    const bool aboutTarget = error == EEXIST || error == ENOTEMPTY || error == ENOENT || error == ENOTDIR;
    fail(error, call, aboutTarget ? destination : location);
}

// rename without replacing anything; 0 or the errno. File systems without RENAME_NOREPLACE get a
// check followed by a rename, which may replace a target that appears in between.
int renameNoReplace(const char* from, const char* to) noexcept
{
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
    struct stat info {};
    if (::lstat(to, &info) == 0)
        return EEXIST;
    return ::rename(from, to) == 0 ? 0 : errno;
}

// ---------------------------------------------------------------------------------------------
// Recursive removal: a walk over descriptors (openat/unlinkat) that never follows a link, so
// nothing outside the folder is touched even when links or concurrent renames point elsewhere.

class TreeRemoval {
public:
    explicit TreeRemoval(StorageIRI root) : m_root(std::move(root)) {}

    // Empties the open folder at `relative` (below the root; empty for the root itself).
    void empty(int folder, const std::string& relative)
    {
        std::vector<std::pair<std::string, unsigned char>> children;
        {
            // Gone before the walk goes deeper, so that a deep tree holds one buffer, not one a level.
            detail::DirectoryReader reader;
            for (;;) {
                const ssize_t got = reader.fill(folder);
                if (got < 0)
                    fail(errno, "getdents64", at(relative));
                if (got == 0)
                    break;
                reader.forEach([&](const char* name, unsigned char type) { children.emplace_back(name, type); });
            }
        }
        for (const auto& [name, type] : children)
            remove(folder, relative.empty() ? name : relative + '/' + name, name, type);
    }

private:
    void remove(int folder, const std::string& relative, const std::string& name, unsigned char type)
    {
        if (type == DT_UNKNOWN) {
            struct stat info {};
            if (::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno == ENOENT)
                    return;
                fail(errno, "fstatat", at(relative));
            }
            type = S_ISDIR(info.st_mode) ? DT_DIR : DT_REG;
        }
        if (type != DT_DIR) {
            if (::unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT)
                return;
            if (errno != EISDIR)
                fail(errno, "unlinkat", at(relative));
            // Replaced by a folder since it was read: remove that instead.
        }
        FileDescriptor child(::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!child) {
            if (errno == ENOENT)
                return;
            if (errno != ENOTDIR && errno != ELOOP)
                fail(errno, "openat", at(relative));
            // Replaced by a file or a link since it was read: that goes as a file.
            if (::unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT)
                return;
            fail(errno, "unlinkat", at(relative));
        }
        empty(child.get(), relative);
        child.reset();
        if (::unlinkat(folder, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT)
            fail(errno, "unlinkat", at(relative));
    }

    StorageIRI at(const std::string& relative) const
    {
        return relative.empty() ? m_root : StorageIRI(m_root, fl::i18n::native_to_ustring(relative));
    }

    StorageIRI m_root;
};

// ---------------------------------------------------------------------------------------------

// The provider keeps no state but its watcher and poller: every operation converts the IRI and asks
// the kernel, so any number of threads may call it at once.
class LocalProvider final : public IProvider,
                            public extensions::IFlushableFilesystem,
                            public extensions::IFolderModeKeeping,
                            public extensions::ILinkKeeping {
public:
    ~LocalProvider() override { endPolling(); }

    ProviderCapabilities capabilities() const override
    {
        ProviderCapabilities capabilities;
        capabilities.scheme = u"file";
        capabilities.authority = ProviderCapabilities::Authority::LocalHost;
        for (const auto feature : {ExtendedFeature::RecursiveRemoval, ExtendedFeature::RecursiveListing,
                                   ExtendedFeature::FlatWildcardListing, ExtendedFeature::RecursiveWatching})
            capabilities.with(feature);
        capabilities.watching = true;
        capabilities.extendedAttributes = true;
        capabilities.atomicReplace = true;
        return capabilities;
    }

    // ---- existence and kind --------------------------------------------------------------------

    ExistenceType doExists(const StorageIRI& location) const override
    {
        const std::string path = nativePath(location);
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) {
            const int error = errno;
            if (isNotFound(error))
                return ExistenceType::NotFound;
            throwPosixError(error, "stat", location);
        }
        return S_ISDIR(info.st_mode) ? ExistenceType::Folder : ExistenceType::File;
    }

    ExistenceTypeExtended doExistsExtended(const StorageIRI& location) const override
    {
        const std::string path = nativePath(location);
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0) {
            const int error = errno;
            if (isNotFound(error))
                return ExistenceTypeExtended::NotFound;
            throwPosixError(error, "lstat", location);
        }
        if (S_ISLNK(info.st_mode)) {
            struct stat target {};
            if (::stat(path.c_str(), &target) != 0) {
                const int error = errno;
                // A loop of links resolves to nothing, just like a dangling one.
                if (isNotFound(error) || error == ELOOP)
                    return ExistenceTypeExtended::BrokenLink;
                throwPosixError(error, "stat", location);
            }
            return S_ISDIR(target.st_mode) ? ExistenceTypeExtended::LinkToFolder : ExistenceTypeExtended::LinkToFile;
        }
        if (S_ISDIR(info.st_mode))
            return ExistenceTypeExtended::Folder;
        if (S_ISREG(info.st_mode))
            return ExistenceTypeExtended::File;
        return ExistenceTypeExtended::Special;
    }

    StorageIRI doGetCanonicalLocation(const StorageIRI& location) const override
    {
        return toCanonicalizedStorageIRI(u"", nativePath(location));
    }

    // ---- attributes ----------------------------------------------------------------------------

    FileAttributes doGetFileAttributes(const StorageIRI& location) const override
    {
        const std::string path = nativePath(location);
        bool symlink = false;
        const struct stat info = followedStat(path, location, symlink);
        if (S_ISDIR(info.st_mode))
            failKind(location, u"not-a-file");
        const bool writable = detail::WriteAccess(path.c_str(), info.st_dev).allows(info);
        return detail::fileAttributes(info, writable, symlink, location.getName());
    }

    FolderAttributes doGetFolderAttributes(const StorageIRI& location) const override
    {
        const std::string path = nativePath(location);
        bool symlink = false;
        const struct stat info = followedStat(path, location, symlink);
        if (!S_ISDIR(info.st_mode))
            failKind(location, u"not-a-folder");
        const bool writable = detail::WriteAccess(path.c_str(), info.st_dev).allows(info);
        return detail::folderAttributes(info, writable, symlink, location.getName());
    }

    // The xattrs of a path (links followed). A file system without xattrs, or an attribute that
    // vanishes between listing and reading, gives fewer entries, never an error.
    static std::map<std::string, std::string> namedAttributesOf(const std::string& path,
                                                                const StorageIRI& location)
    {
        std::map<std::string, std::string> named;
        std::string names;
        for (;;) {
            const ssize_t size = ::listxattr(path.c_str(), nullptr, 0);
            if (size < 0) {
                if (errno == ENOTSUP || errno == ENOSYS)
                    return named;
                fail(errno, "listxattr", location);
            }
            names.resize(static_cast<std::size_t>(size));
            const ssize_t got = ::listxattr(path.c_str(), names.data(), names.size());
            if (got >= 0) {
                names.resize(static_cast<std::size_t>(got));
                break;
            }
            if (errno != ERANGE) // ERANGE: the list grew in between; ask again
                fail(errno, "listxattr", location);
        }
        for (std::size_t begin = 0; begin < names.size();) {
            const std::string name(names.c_str() + begin);
            begin += name.size() + 1;
            const ssize_t size = ::getxattr(path.c_str(), name.c_str(), nullptr, 0);
            if (size < 0)
                continue;
            std::string value(static_cast<std::size_t>(size), '\0');
            const ssize_t got = ::getxattr(path.c_str(), name.c_str(), value.data(), value.size());
            if (got < 0)
                continue;
            value.resize(static_cast<std::size_t>(got));
            named.emplace(name, std::move(value));
        }
        return named;
    }

    ExtendedAttributes doGetExtendedAttributes(const StorageIRI& location) const override
    {
        const struct stat info = statOf(nativePath(location), location);
        ExtendedAttributes attributes;
        attributes.lastAccessed = detail::toPtime(info.st_atim);
        attributes.statusChanged = detail::toPtime(info.st_ctim);
        attributes.posixMode = static_cast<std::uint32_t>(info.st_mode);
        attributes.ownerId = static_cast<std::uint32_t>(info.st_uid);
        attributes.groupId = static_cast<std::uint32_t>(info.st_gid);
        attributes.linkCount = static_cast<std::uint64_t>(info.st_nlink);
        attributes.device = static_cast<std::uint64_t>(info.st_dev);
        attributes.inode = static_cast<std::uint64_t>(info.st_ino);
        // st_blocks counts 512-byte units whatever the file system's block size.
        attributes.allocatedBytes = static_cast<std::uint64_t>(info.st_blocks) * 512;
        attributes.namedAttributes = namedAttributesOf(nativePath(location), location);
        return attributes;
    }

    void doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const override
    {
        const std::string path = nativePath(location);
        struct timespec times[2];
        times[0].tv_sec = 0;
        times[0].tv_nsec = UTIME_OMIT;
        times[1] = detail::toTimespec(time, location);
        if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0)
            fail(errno, "utimensat", location);
    }

    // Writable: every class that may read may also write; not writable: nobody may write.
    void doSetWritable(const StorageIRI& location, bool writable) const override
    {
        const std::string path = nativePath(location);
        const mode_t mode = statOf(path, location).st_mode & 07777;
        mode_t changed = mode & ~static_cast<mode_t>(S_IWUSR | S_IWGRP | S_IWOTH);
        if (writable)
            changed |= (mode & (S_IRUSR | S_IRGRP | S_IROTH)) >> 1;
        if (changed != mode && ::chmod(path.c_str(), changed) != 0)
            fail(errno, "chmod", location);
    }

    void doTruncateToSize(const StorageIRI& location, std::uint64_t size) const override
    {
        const std::string path = nativePath(location);
        if (size > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()))
            fail(EFBIG, "truncate", location);
        if (::truncate(path.c_str(), static_cast<off_t>(size)) != 0)
            fail(errno, "truncate", location);
    }

    // ---- creation and removal ------------------------------------------------------------------

    void doCreateFile(const StorageIRI& location) const override
    {
        const std::string path = nativePath(location);
        FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOCTTY | O_CLOEXEC, 0666));
        if (!file)
            fail(errno, "open", location);
        if (const int error = file.close())
            fail(error, "close", location);
    }

    void doRemoveFile(const StorageIRI& location) const override
    {
        const std::string path = nativePath(location);
        if (::unlink(path.c_str()) != 0)
            fail(errno, "unlink", location);
    }

    void doCreateFolder(const StorageIRI& location) const override
    {
        const std::string path = nativePath(location);
        if (::mkdir(path.c_str(), 0777) != 0)
            fail(errno, "mkdir", location);
    }

    mode_t modeOf(const StorageIRI& location) const
    {
        checkLocation(location);
        struct stat info {};
        const std::string path = nativePath(location);
        if (::stat(path.c_str(), &info) != 0)
            fail(errno, "stat", location);
        return info.st_mode;
    }

    // The owner keeps full access while the copy adds children; mkdir applies the umask.
    void createFolderLike(const StorageIRI& location, const StorageIRI& model) const override
    {
        checkLocation(location);
        const mode_t bits = modeOf(model) & (0777 | S_ISVTX);
        const std::string path = nativePath(location);
        if (::mkdir(path.c_str(), bits | S_IRWXU) != 0)
            fail(errno, "mkdir", location);
    }

    void finishFolderLike(const StorageIRI& location, const StorageIRI& model) const override
    {
        checkLocation(location);
        const mode_t withheld = S_IRWXU & ~modeOf(model);
        if (withheld == 0)
            return;
        const std::string path = nativePath(location);
        if (::chmod(path.c_str(), modeOf(location) & 07777 & ~withheld) != 0)
            fail(errno, "chmod", location);
    }

    // ---- links kept by tree copies ------------------------------------------------------------

    ustring readLink(const StorageIRI& location) const override
    {
        checkLocation(location);
        const std::string path = nativePath(location);
        std::string target(256, '\0');
        for (;;) {
            const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
            if (length < 0) {
                if (errno == EINVAL)
                    failAs(ErrorCode::InvalidLocation, EINVAL, "readlink", location, u"not-a-link");
                fail(errno, "readlink", location);
            }
            if (static_cast<std::size_t>(length) < target.size()) {
                target.resize(static_cast<std::size_t>(length));
                return fl::i18n::native_to_ustring(target);
            }
            target.resize(target.size() * 4); // may have been cut short
        }
    }

    // A replacement is made under a temporary name beside the entry and renamed over it, so that
    // the name always holds the old entry or the new link.
    void createLink(const StorageIRI& location, const ustring& target, bool replace) const override
    {
        checkLocation(location);
        const std::string path = nativePath(location);
        const std::string text = fl::i18n::ustring_to_native(target);
        if (text.empty() || text.find('\0') != std::string::npos)
            throwProviderError(ErrorCode::InvalidLocation, location,
                               {ExceptionContext(u"symlink"), ExceptionContext(u"invalid-link-target")});
        if (::symlink(text.c_str(), path.c_str()) == 0)
            return;
        if (errno != EEXIST || !replace)
            fail(errno, "symlink", location);
        struct stat there {};
        if (::lstat(path.c_str(), &there) == 0 && S_ISDIR(there.st_mode))
            failAs(ErrorCode::ResourceAlreadyExists, EISDIR, "symlink", location, u"not-a-file");
        const std::string folder = detail::parentOf(path);
        std::string temporary;
        for (int attempt = 0;; ++attempt) {
            temporary = (folder == "/" ? folder : folder + '/') + detail::temporaryName(".vfs-link-");
            if (::symlink(text.c_str(), temporary.c_str()) == 0)
                break;
            if (errno != EEXIST || attempt == 16)
                fail(errno, "symlink", location);
        }
        if (::rename(temporary.c_str(), path.c_str()) != 0) {
            const int error = errno;
            ::unlink(temporary.c_str());
            if (error == EISDIR)
                failAs(ErrorCode::ResourceAlreadyExists, EISDIR, "rename", location, u"not-a-file");
            fail(error, "rename", location);
        }
    }

    void doCreateFolderRecursive(const StorageIRI& location) const override
    {
        std::string path = nativePath(location);
        while (path.size() > 1 && path.back() == '/')
            path.pop_back();
        // Up from the location until a folder exists or is made, then down again.
        std::vector<std::string> missing;
        for (std::string current = path;;) {
            if (makeFolderUnlessPresent(current, location))
                break;
            missing.push_back(current);
            const std::size_t slash = current.find_last_of('/');
            if (slash == std::string::npos)
                fail(ENOENT, "mkdir", location);
            current.erase(slash == 0 ? 1 : slash);
        }
        for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder)
            if (!makeFolderUnlessPresent(*folder, location))
                fail(ENOENT, "mkdir", location);
    }

    void doRemoveFolder(const StorageIRI& location) const override
    {
        const std::string path = nativePath(location);
        if (::rmdir(path.c_str()) == 0)
            return;
        const int error = errno;
        if (error == EEXIST) // what some file systems say for ENOTEMPTY
            failAs(ErrorCode::FolderNotEmpty, error, "rmdir", location);
        struct stat info {};
        if (error == ENOTDIR && ::lstat(path.c_str(), &info) == 0)
            failKind(location, u"not-a-folder");
        fail(error, "rmdir", location);
    }

    void doRemoveFolderRecursively(const StorageIRI& location) const override
    {
        const std::string path = nativePath(location);
        if (!location.hasParent())
            throwProviderError(ErrorCode::InvalidLocation, location, {ExceptionContext(u"root")},
                               u"refusing to remove the root folder");
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0)
            fail(errno, "lstat", location);
        if (S_ISLNK(info.st_mode)) {
            // A link to a folder is removed itself; the folder it leads to stays.
            if (!S_ISDIR(statOf(path, location).st_mode))
                failKind(location, u"not-a-folder");
            if (::unlink(path.c_str()) != 0)
                fail(errno, "unlink", location);
            return;
        }
        if (!S_ISDIR(info.st_mode))
            failKind(location, u"not-a-folder");
        FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder)
            fail(errno, "open", location);
        TreeRemoval(location).empty(folder.get(), {});
        folder.reset();
        if (::rmdir(path.c_str()) != 0 && errno != ENOENT)
            fail(errno, "rmdir", location);
    }

    // ---- moving and copying --------------------------------------------------------------------

    void doMoveFile(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override
    {
        const std::string source = nativePath(location);
        const std::string target = nativePath(destination);
        const struct stat sourceInfo = statOf(source, location);
        if (S_ISDIR(sourceInfo.st_mode))
            failKind(location, u"not-a-file");

        // Across file systems, as mv does: a copy that keeps the time and is on the disk before the
        // source goes.
        const auto copyThenRemove = [&] {
            CopyFileOptions options;
            options.replacementPolicy = policy;
            options.keepLastModified = true;
            if (detail::copyFile(location, destination, options) == TransactionStatus::Completed &&
                ::unlink(source.c_str()) != 0 && errno != ENOENT)
                fail(errno, "unlink", location);
        };
        if (policy == ReplacementPolicy::FailIfExists) {
            if (const int error = renameNoReplace(source.c_str(), target.c_str()))
                error == EXDEV ? copyThenRemove() : failMove(error, "renameat2", location, destination);
            return;
        }
        struct stat targetInfo {};
        if (::lstat(target.c_str(), &targetInfo) == 0) {
            if (S_ISDIR(targetInfo.st_mode))
                throwProviderError(ErrorCode::ResourceAlreadyExists, destination, {ExceptionContext(u"not-a-file")});
            if (policy == ReplacementPolicy::ReplaceIfNewer && ::stat(target.c_str(), &targetInfo) == 0 &&
                !detail::newer(sourceInfo.st_mtim, targetInfo.st_mtim))
                return;
        }
        if (::rename(source.c_str(), target.c_str()) != 0) {
            if (errno == EXDEV)
                return copyThenRemove();
            // EISDIR: a folder took the target's place since it was looked at.
            if (errno == EISDIR)
                failAs(ErrorCode::ResourceAlreadyExists, EISDIR, "rename", destination, u"not-a-file");
            failMove(errno, "rename", location, destination);
        }
    }

    void doMoveFolder(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override
    {
        const std::string source = nativePath(location);
        const std::string target = nativePath(destination);
        if (!S_ISDIR(statOf(source, location).st_mode))
            failKind(location, u"not-a-folder");
        // rename() refuses it too (EINVAL), but would name the source: the destination is the
        // location at fault.
        if (location.isAncestorOf(destination))
            failAs(ErrorCode::InvalidLocation, EINVAL, "rename", destination, u"into-itself");

        if (policy != ReplacementPolicy::Replace) {
            // The merging policies (and keeping the newer) are the library's business: a folder in
            // the way is reported, and the library merges.
            if (const int error = renameNoReplace(source.c_str(), target.c_str()))
                failMove(error, "renameat2", location, destination);
            return;
        }
        struct stat targetInfo {};
        if (::lstat(target.c_str(), &targetInfo) == 0 && !S_ISDIR(targetInfo.st_mode))
            throwProviderError(ErrorCode::ResourceAlreadyExists, destination, {ExceptionContext(u"not-a-folder")});
        if (::rename(source.c_str(), target.c_str()) != 0) {
            const int error = errno;
            if (error == ENOTEMPTY || error == EEXIST)
                failAs(ErrorCode::FolderNotEmpty, error, "rename", destination);
            failMove(error, "rename", location, destination);
        }
    }

    TransactionStatus doCopyFile(const StorageIRI& location, const StorageIRI& destination,
                                 const CopyFileOptions& options) const override
    {
        return detail::copyFile(location, destination, options);
    }

    // ---- byte streams --------------------------------------------------------------------------

    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const override
    {
        return detail::openReadOnlyStream(location);
    }

    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const override
    {
        return detail::openStream(location, options);
    }

    std::unique_ptr<TransactionalByteStream> doOpenTransactionalStream(const StorageIRI& location,
                                                                     const ByteStreamOpenOptions& options) const override
    {
        return detail::openTransactionalStream(location, options);
    }

    // ---- listing -------------------------------------------------------------------------------

    std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI& location, const ListOptions& options) const override
    {
        return options.recursive ? detail::listTree(location, options) : detail::listFolder(location, options);
    }

    // ---- the storage as a whole ----------------------------------------------------------------

    void doFlushFilesystem(const StorageIRI& location) const override
    {
        const std::string path = nativePath(location);
        FileDescriptor any(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (!any)
            fail(errno, "open", location);
        if (::syncfs(any.get()) != 0)
            fail(errno, "syncfs", location);
    }

    void flushFilesystem() override { ::sync(); }

    ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& location) const override
    {
        const std::string path = nativePath(location);
        struct statvfs info {};
        if (::statvfs(path.c_str(), &info) != 0)
            fail(errno, "statvfs", location);
        const auto unit = static_cast<std::uint64_t>(info.f_frsize);
        ProviderStorageInfo result;
        result.capacityBytes = static_cast<std::uint64_t>(info.f_blocks) * unit;
        result.freeBytes = static_cast<std::uint64_t>(info.f_bfree) * unit;
        result.availableBytes = static_cast<std::uint64_t>(info.f_bavail) * unit;
        result.description = u"local disk";
        return result;
    }

    void doConfigure(const boost::property_tree::ptree& settings) const override
    {
        if (settings.empty())
            return;
        const ustring key = fl::i18n::utf8_to_ustring_lossy(settings.begin()->first);
        throwProviderError(ErrorCode::InvalidLocation, StorageIRI(), {ExceptionContext(u"configure", key)},
                           u"the local provider has no setting \"" + key + u"\"");
    }

    void doShutdown() const override
    {
        if (detail::Watcher* watcher = existingWatcher())
            watcher->unwatchAll();
    }

    // ---- change events -------------------------------------------------------------------------

    void doPublishFileEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds) const override
    {
        watcher(location).watchFile(location, std::move(callback), kinds);
    }

    void doPublishFolderEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds,
                             RecursiveFileWatching recursive) const override
    {
        watcher(location).watchFolder(location, std::move(callback), kinds, recursive == RecursiveFileWatching::Recursive);
    }

    void doStopPublishingFileEvents(const StorageIRI& location) const override
    {
        if (detail::Watcher* watcher = existingWatcher())
            watcher->unwatch(location, true);
    }

    void doStopPublishingFolderEvents(const StorageIRI& location) const override
    {
        if (detail::Watcher* watcher = existingWatcher())
            watcher->unwatch(location, false);
    }

private:
    // The watcher, made with the first watch; `location` is named if inotify cannot be set up.
    detail::Watcher& watcher(const StorageIRI& location) const
    {
        std::lock_guard lock(m_watcherMutex);
        if (!m_watcher)
            m_watcher = std::make_unique<detail::Watcher>(location);
        return *m_watcher;
    }

    detail::Watcher* existingWatcher() const
    {
        std::lock_guard lock(m_watcherMutex);
        return m_watcher.get();
    }

    // stat of the location with links followed; `symlink` tells whether the location itself is one.
    static struct stat followedStat(const std::string& path, const StorageIRI& location, bool& symlink)
    {
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0)
            fail(errno, "lstat", location);
        symlink = S_ISLNK(info.st_mode);
        return symlink ? statOf(path, location) : info;
    }

    // Makes the folder at `path`; true when it was made or a folder (links followed) is already
    // there, false when its parent is missing. A file in the way is ResourceAlreadyExists.
    static bool makeFolderUnlessPresent(const std::string& path, const StorageIRI& location)
    {
        if (::mkdir(path.c_str(), 0777) == 0)
            return true;
        const int error = errno;
        if (error == ENOENT)
            return false;
        struct stat info {};
        if (error == EEXIST && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
            return true;
        if (error == EEXIST || error == ENOTDIR)
            failAs(ErrorCode::ResourceAlreadyExists, error, "mkdir", location, u"not-a-folder");
        fail(error, "mkdir", location);
    }

    // The watcher lives from the first watch to the end.
    mutable std::mutex m_watcherMutex;
    mutable std::unique_ptr<detail::Watcher> m_watcher;
};

} // namespace

std::shared_ptr<IProvider> makeLocalProvider()
{
    return std::make_shared<LocalProvider>();
}

} // namespace foundation::storage::provider::local
