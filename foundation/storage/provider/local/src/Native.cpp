#include "Native.hpp"

#include <foundation/log/diagnostic_logger.hpp>
#include <foundation/storage/provider/PosixError.hpp>

#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <boost/throw_exception.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cerrno>
#include <cstring>
#include <mutex>

#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace foundation::storage::provider::local::detail {

namespace {

// One getdents64 call fills this much: about two thousand entries of short names, and still below
// the size at which malloc maps fresh pages for every listing.
constexpr std::size_t directoryBufferSize = 64 * 1024;

const boost::posix_time::ptime& epoch()
{
    static const boost::posix_time::ptime value(boost::gregorian::date(1970, 1, 1));
    return value;
}

// The seconds since the epoch of the first and last second boost::gregorian can represent.
constexpr std::int64_t earliestSecond = -17987443200;  // 1400-01-01T00:00:00
constexpr std::int64_t latestSecond = 253402300799;    // 9999-12-31T23:59:59

} // namespace

foundation::log::diagnostic_logger& logger() noexcept
{
    // Never destroyed: listings may end during static destruction.
    static auto* instance = new foundation::log::diagnostic_logger("foundation::storage::provider::local");
    return *instance;
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept
{
    if (this != &other) {
        reset();
        m_fd = other.release();
    }
    return *this;
}

void FileDescriptor::reset() noexcept
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

int FileDescriptor::close() noexcept
{
    if (m_fd < 0)
        return 0;
    // Linux releases the descriptor even when close fails, so it is never retried.
    const int result = ::close(release());
    return result == 0 ? 0 : errno;
}

std::string nativePath(const StorageIRI& location)
{
    if (!location.hasPath())
        throwProviderError(ErrorCode::InvalidLocation, location, {ExceptionContext(u"no-path")});
    return localPathText(location);
}

std::string parentOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? std::string("/") : path.substr(0, slash);
}

std::string lastNameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

void fail(int error, const char* call, const StorageIRI& location)
{
    Exception failure = posixError(error, call, location);
    if (error == EISDIR)
        failure.withContext(u"not-a-file");
    boost::throw_exception(failure);
}

void failAs(ErrorCode code, int error, const char* call, const StorageIRI& location, const char16_t* extra)
{
    const Exception translated = posixError(error, call, location);
    Exception failure(code, location, translated.getMessage());
    failure.withExceptionContexts(translated.getAllExceptionContexts());
    if (extra)
        failure.withContext(extra);
    boost::throw_exception(failure);
}

void failKind(const StorageIRI& location, const char16_t* mismatch)
{
    throwProviderError(ErrorCode::ResourceNotFound, location, {ExceptionContext(mismatch)});
}

boost::posix_time::ptime toPtime(const struct timespec& time) noexcept
{
    if (time.tv_sec < earliestSecond)
        return epoch() + boost::posix_time::seconds(earliestSecond);
    if (time.tv_sec > latestSecond)
        return epoch() + boost::posix_time::seconds(latestSecond) + boost::posix_time::microseconds(999999);
    return epoch() + boost::posix_time::seconds(time.tv_sec) + boost::posix_time::microseconds(time.tv_nsec / 1000);
}

struct timespec toTimespec(const boost::posix_time::ptime& time, const StorageIRI& location)
{
    if (time.is_special())
        throwProviderError(ErrorCode::InvalidLocation, location, {ExceptionContext(u"invalid-time")},
                           u"the time is not a date and time");
    const std::int64_t micros = (time - epoch()).total_microseconds();
    std::int64_t seconds = micros / 1000000;
    std::int64_t rest = micros % 1000000;
    if (rest < 0) {
        rest += 1000000;
        --seconds;
    }
    struct timespec result {};
    result.tv_sec = static_cast<time_t>(seconds);
    result.tv_nsec = static_cast<long>(rest * 1000);
    return result;
}

namespace {

// Remembered read-only flags of recently asked mounts, by device.
class MountFlags {
public:
    bool readOnly(const char* path, dev_t device) noexcept
    {
        const auto now = std::chrono::steady_clock::now();
        {
            std::lock_guard lock(m_mutex);
            for (const Entry& entry : m_entries)
                if (entry.device == device && now - entry.asked < freshFor)
                    return entry.readOnly;
        }
        struct statvfs mount {};
        if (::statvfs(path, &mount) != 0)
            return false; // the caller's own call on the path reports what is wrong with it
        const bool readOnly = (mount.f_flag & ST_RDONLY) != 0;
        std::lock_guard lock(m_mutex);
        Entry& slot = *std::min_element(m_entries.begin(), m_entries.end(), [device](const Entry& a, const Entry& b) {
            // The device's own slot first, then the oldest.
            return (a.device == device) != (b.device == device) ? a.device == device : a.asked < b.asked;
        });
        slot = Entry{device, readOnly, now};
        return readOnly;
    }

private:
    static constexpr std::chrono::seconds freshFor{1};
    struct Entry {
        dev_t device = 0;
        bool readOnly = false;
        std::chrono::steady_clock::time_point asked{};
    };
    std::mutex m_mutex;
    std::array<Entry, 8> m_entries{};
};

} // namespace

WriteAccess::WriteAccess() noexcept : m_uid(::geteuid()), m_gid(::getegid()) {}

WriteAccess::WriteAccess(int folder) noexcept : WriteAccess()
{
    struct statvfs mount {};
    if (::fstatvfs(folder, &mount) == 0)
        m_readOnlyMount = (mount.f_flag & ST_RDONLY) != 0;
}

WriteAccess::WriteAccess(const char* path, dev_t device) noexcept : WriteAccess()
{
    static MountFlags flags;
    m_readOnlyMount = flags.readOnly(path, device);
}

bool WriteAccess::inGroups(gid_t group) const noexcept
{
    if (!m_groups) {
        try {
            m_groups.emplace();
            const int count = ::getgroups(0, nullptr);
            if (count > 0) {
                m_groups->resize(static_cast<std::size_t>(count));
                m_groups->resize(static_cast<std::size_t>(std::max(0, ::getgroups(count, m_groups->data()))));
            }
        } catch (const std::bad_alloc&) {
            m_groups->clear(); // judged by the primary group alone
        }
    }
    return std::find(m_groups->begin(), m_groups->end(), group) != m_groups->end();
}

bool WriteAccess::allows(const struct stat& info) const noexcept
{
    if (m_readOnlyMount || (info.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0)
        return false;
    if (m_uid == 0)
        return true;
    if (info.st_uid == m_uid)
        return (info.st_mode & S_IWUSR) != 0;
    if (info.st_gid == m_gid || inGroups(info.st_gid))
        return (info.st_mode & S_IWGRP) != 0;
    return (info.st_mode & S_IWOTH) != 0;
}

FileAttributes fileAttributes(const struct stat& target, bool writable, bool symlink, std::u16string_view name)
{
    return FileAttributes(static_cast<std::uint64_t>(target.st_size), toPtime(target.st_mtim), writable, symlink,
                          !name.empty() && name.front() == u'.');
}

FolderAttributes folderAttributes(const struct stat& target, bool writable, bool symlink, std::u16string_view name)
{
    return FolderAttributes(toPtime(target.st_mtim), writable, symlink, !name.empty() && name.front() == u'.');
}

// ---------------------------------------------------------------------------------------------
// DirectoryReader

DirectoryReader::DirectoryReader()
    // operator new's alignment suits struct dirent64, whose records the kernel aligns to 8 bytes.
    : m_buffer(new std::byte[directoryBufferSize])
{
}

DirectoryReader::~DirectoryReader() = default;

bool DirectoryReader::read(int folder, const StorageIRI& location)
{
    const ssize_t got = fill(folder);
    if (got < 0)
        fail(errno, "getdents64", location);
    return got > 0;
}

ssize_t DirectoryReader::fill(int folder) noexcept
{
    ssize_t got;
    do
        got = ::getdents64(folder, m_buffer.get(), directoryBufferSize);
    while (got < 0 && errno == EINTR);
    m_filled = got > 0 ? static_cast<std::size_t>(got) : 0;
    return got;
}

DirectoryReader::Record DirectoryReader::at(std::size_t offset) const noexcept
{
    const auto* entry = reinterpret_cast<const struct dirent64*>(m_buffer.get() + offset);
    return Record{entry->d_name, entry->d_type, entry->d_reclen};
}

} // namespace foundation::storage::provider::local::detail
