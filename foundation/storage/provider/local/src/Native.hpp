#pragma once

// What the local provider's sources share: descriptors, paths, times, attributes, error raising and
// the raw directory reader. Internal; not installed.

#include <foundation/storage/provider/IProvider.hpp>

#include <fl/filesystem/path.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace foundation::log {
template <class CharT>
class basic_diagnostic_logger;
}

namespace foundation::storage::provider::local::detail {

foundation::log::basic_diagnostic_logger<char>& logger() noexcept;

// Owns one file descriptor; closing errors are ignored (callers that care close explicitly).
class FileDescriptor {
public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int fd) noexcept : m_fd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    int get() const noexcept { return m_fd; }
    explicit operator bool() const noexcept { return m_fd >= 0; }
    int release() noexcept
    {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void reset() noexcept;
    // Closes now and reports the close's errno (0 when it succeeded or nothing was open).
    int close() noexcept;

private:
    int m_fd = -1;
};

// The one way from an IRI to a local path. Refuses with InvalidLocation what fromStorageIRI refuses
// (other schemes, remote authorities, NUL) and an IRI without a path.
std::string nativePath(const StorageIRI& location);
// The folder and the last name of a path as nativePath makes it (absolute and normalised): "/a/b"
// gives "/a" and "b", "/a" gives "/" and "a". Plain string work: a std::filesystem::path would
// split every component first.
std::string parentOf(const std::string& path);
std::string lastNameOf(const std::string& path);

// The provider exception for a failed call, as throwPosixError builds it; a folder met where a file
// was asked for (EISDIR) also carries "not-a-file".
[[noreturn]] void fail(int error, const char* call, const StorageIRI& location);
// As fail(), under `code` where the call's errno means something else here (rmdir's EEXIST is a
// folder that is not empty); `extra` is appended to the contexts when given.
[[noreturn]] void failAs(ErrorCode code, int error, const char* call, const StorageIRI& location,
                         const char16_t* extra = nullptr);
// ResourceNotFound for a location of the other kind; `mismatch` is "not-a-file" or "not-a-folder".
[[noreturn]] void failKind(const StorageIRI& location, const char16_t* mismatch);

// "<prefix><pid>-<random>": a name for a temporary entry that no other process or thread picks.
std::string temporaryName(const char* prefix);

// A temporary file "<prefix><random>" created (O_EXCL) in the folder `folder` beside `target`, with
// `flags` (O_WRONLY or O_RDWR) and `mode`; removed on destruction unless published. Creation failures
// are thrown for `target`.
class TemporaryFile {
public:
    TemporaryFile(int folder, const StorageIRI& target, const char* prefix, int flags, mode_t mode);
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile();

    int fd() const noexcept { return m_file.get(); }
    const std::string& name() const noexcept { return m_name; }
    int close() noexcept { return m_file.close(); }
    void published() noexcept { m_published = true; }
    // Closes and removes it now.
    void discard() noexcept;

private:
    int m_folder;
    std::string m_name;
    FileDescriptor m_file;
    bool m_published = false;
};

// Copies everything from the current offset of `in` (whose fstat is `source`) to that of `out`
// (copy_file_range, or through a buffer where the kernel cannot), calling options.progress after
// each chunk; the holes of a sparse file stay holes in a regular target. False when the progress
// callback cancelled.
bool copyContent(int in, int out, const struct stat& source, const CopyFileOptions& options, const StorageIRI& from,
                 const StorageIRI& to);

// Times on disk and in attributes. A time outside what boost::posix_time can hold (before 1400 or
// after 9999) is clamped to the nearest one it can.
boost::posix_time::ptime toPtime(const struct timespec& time) noexcept;
// Throws InvalidLocation ("invalid-time") for a special value (not_a_date_time, infinities).
struct timespec toTimespec(const boost::posix_time::ptime& time, const StorageIRI& location);
inline bool newer(const struct timespec& a, const struct timespec& b) noexcept
{
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

// Whether the caller may write an entry, judged from its mode the way the kernel's permission check
// does (the owner's bits for the owner, else the group's for a member, else the others'), on a mount
// that is not read-only. The mode counts even for root, who may write anything: a file made
// read-only is reported so. Access control lists are not consulted. The credentials and the mount's
// flags are read once, and the supplementary groups only when an entry's group needs them, so that
// a listing judges thousands of entries without a system call each. Not synchronised.
class WriteAccess {
public:
    // For entries of the folder open as `folder`.
    explicit WriteAccess(int folder) noexcept;
    // For the one entry at `path`, whose stat gave `device`. A mount's read-only flag is remembered
    // per device for a second, so that attribute queries one path at a time cost a single stat;
    // a remount is seen at the latest a second later (a write then fails as the mount demands).
    WriteAccess(const char* path, dev_t device) noexcept;
    bool allows(const struct stat& info) const noexcept;

private:
    WriteAccess() noexcept;
    bool inGroups(gid_t group) const noexcept;

    uid_t m_uid;
    gid_t m_gid;
    mutable std::optional<std::vector<gid_t>> m_groups;
    bool m_readOnlyMount = false;
};

FileAttributes fileAttributes(const struct stat& target, bool writable, bool symlink, std::u16string_view name);
FolderAttributes folderAttributes(const struct stat& target, bool writable, bool symlink, std::u16string_view name);

// Reads a directory's entries through getdents64, one large batch per call, skipping "." and "..".
// Not synchronised.
class DirectoryReader {
public:
    DirectoryReader();
    ~DirectoryReader();
    DirectoryReader(const DirectoryReader&) = delete;
    DirectoryReader& operator=(const DirectoryReader&) = delete;

    // Reads the next batch of `folder`; false at the end. Failures are thrown for `location`.
    bool read(int folder, const StorageIRI& location);
    // As read(): the bytes read, 0 at the end, -1 with errno set on failure.
    ssize_t fill(int folder) noexcept;
    // An upper bound of the entries in the last batch (a record takes at least 24 bytes).
    std::size_t capacityHint() const noexcept { return m_filled / 24; }
    // Calls each(name, d_type) for every entry of the last batch; `name` is NUL-terminated.
    template <class Each>
    void forEach(Each&& each) const
    {
        for (std::size_t offset = 0; offset < m_filled;) {
            const Record record = at(offset);
            offset += record.length;
            if (!isDotOrDotDot(record.name))
                each(record.name, record.type);
        }
    }

private:
    struct Record {
        const char* name;
        unsigned char type;
        std::size_t length;
    };
    Record at(std::size_t offset) const noexcept;
    static bool isDotOrDotDot(const char* name) noexcept
    {
        return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
    }

    std::unique_ptr<std::byte[]> m_buffer;
    std::size_t m_filled = 0;
};

// The byte streams of IProvider on the local disk.
std::unique_ptr<ByteStream> openReadOnlyStream(const StorageIRI& location);
std::unique_ptr<ByteStream> openStream(const StorageIRI& location, const ByteStreamOpenOptions& options);
std::unique_ptr<TransactionalByteStream> openTransactionalStream(const StorageIRI& location,
                                                                 const ByteStreamOpenOptions& options);

// The children of the folder at `location` (see IProvider::list).
std::unique_ptr<IFolderEntryIterator> listFolder(const StorageIRI& location, const ListOptions& options);
// The whole tree below the folder at `location` (see IProvider::list with `recursive`).
std::unique_ptr<IFolderEntryIterator> listTree(const StorageIRI& location, const ListOptions& options);

// Copies the file at `from` to `to`, both on the local disk (see IProvider::copyFile).
TransactionStatus copyFile(const StorageIRI& from, const StorageIRI& to, const CopyFileOptions& options);

} // namespace foundation::storage::provider::local::detail
