#pragma once

#include <fl/export.hpp>
#include <fl/i18n/ustring.hpp>
#include <foundation/storage/provider/Enumerations.hpp>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>

namespace boost::posix_time {
class ptime;
} // namespace boost::posix_time

namespace foundation::storage::provider {

using fl::i18n::ustring;

// Times are UTC with microsecond resolution (what boost::posix_time keeps). The attributes hold a
// time without the (heavy) definition of boost::posix_time::ptime: code that makes attributes or
// reads their times includes <boost/date_time/posix_time/ptime.hpp> itself.

namespace detail {

// A boost::posix_time::ptime by value, special values (not_a_date_time, infinities) included.
class VFS_EXPORT StoredTime {
public:
    StoredTime(const boost::posix_time::ptime& time) noexcept;
    boost::posix_time::ptime get() const noexcept;
    friend bool operator==(const StoredTime&, const StoredTime&) = default;

private:
    std::int64_t m_representation; // the bytes of the ptime
};

} // namespace detail

struct ExtendedAttributes; // <foundation/storage/provider/ExtendedAttributes.hpp>

class VFS_EXPORT FileAttributes {
public:
    FileAttributes(std::uint64_t size, const boost::posix_time::ptime& lastModified, bool writable,
                   bool symlink = false, bool hidden = false) noexcept
        : m_size(size), m_lastModified(lastModified), m_writable(writable), m_symlink(symlink), m_hidden(hidden)
    {
    }
    std::uint64_t getSize() const noexcept { return m_size; }
    boost::posix_time::ptime getLastModified() const noexcept;
    bool isWritable() const noexcept { return m_writable; }
    // The location is a symbolic link; the other attributes are those of its target.
    bool isSymlink() const noexcept { return m_symlink; }
    // Hidden by the storage's convention (a leading '.' on POSIX).
    bool isHidden() const noexcept { return m_hidden; }
    friend bool operator==(const FileAttributes&, const FileAttributes&) = default;

private:
    std::uint64_t m_size;
    detail::StoredTime m_lastModified;
    bool m_writable;
    bool m_symlink;
    bool m_hidden;
};

class VFS_EXPORT FolderAttributes {
public:
    FolderAttributes(const boost::posix_time::ptime& lastModified, bool writable, bool symlink = false,
                     bool hidden = false) noexcept
        : m_lastModified(lastModified), m_writable(writable), m_symlink(symlink), m_hidden(hidden)
    {
    }
    boost::posix_time::ptime getLastModified() const noexcept;
    bool isWritable() const noexcept { return m_writable; }
    bool isSymlink() const noexcept { return m_symlink; }
    bool isHidden() const noexcept { return m_hidden; }
    friend bool operator==(const FolderAttributes&, const FolderAttributes&) = default;

private:
    detail::StoredTime m_lastModified;
    bool m_writable;
    bool m_symlink;
    bool m_hidden;
};

// Space of the storage behind a location. Fields are empty where the storage cannot tell.
struct ProviderStorageInfo {
    std::optional<std::uint64_t> capacityBytes;
    std::optional<std::uint64_t> freeBytes;
    std::optional<std::uint64_t> availableBytes; // free to an unprivileged caller
    ustring description;                         // "local disk", "memory volume", ...
};

// How names compare on a storage.
enum class FilenameSensitivity : std::int32_t {
    CaseSensitive = 0,
    CaseInsensitive = 1,
};

// How a path comparison treats case: as the storage does, or forced either way.
enum class CaseModifier : std::int32_t {
    AsStorage = 0,
    ForceCaseSensitive = 1,
    ForceCaseInsensitive = 2,
};

// Strict weak ordering of two paths (true when `first` orders before `second`) under the storage's
// name rules as modified by the CaseModifier. Case-insensitive comparison folds ASCII letters only.
using PathComparatorFunction = std::function<bool(const ustring& first, const ustring& second, CaseModifier)>;

// The comparator of a storage whose names compare as `storage` says: code units in order, ASCII
// letters folded when the storage or the modifier makes the comparison case-insensitive. Every
// provider answers getPathComparator() with this.
inline PathComparatorFunction makePathComparator(FilenameSensitivity storage)
{
    return [storage](const ustring& first, const ustring& second, CaseModifier modifier) {
        const bool fold = modifier == CaseModifier::ForceCaseInsensitive ||
                          (modifier == CaseModifier::AsStorage && storage == FilenameSensitivity::CaseInsensitive);
        if (!fold)
            return first < second;
        return std::lexicographical_compare(first.begin(), first.end(), second.begin(), second.end(),
                                            [](char16_t a, char16_t b) {
                                                return fl::i18n::tolower_ascii(a) < fl::i18n::tolower_ascii(b);
                                            });
    };
}

// A copy's options. `progress` (optional) is called after each chunk with the bytes copied so far and
// the total; returning false cancels the copy, which then leaves no target behind and reports
// TransactionStatus::NothingDone.
struct CopyFileOptions {
    ReplacementPolicy replacementPolicy = ReplacementPolicy::FailIfExists;
    std::function<bool(std::uint64_t copied, std::uint64_t total)> progress;
    // True: the content is on the disk before the target appears under its name. False: it appears
    // whole all the same, but reaches the disk when the storage next flushes; for callers that copy
    // many files and flush once at the end (a file-by-file sync costs milliseconds each).
    bool durable = true;
    // True: the target carries the source's modification time from the moment it appears (the
    // time is set on the new content before it takes the target's name). False: the target's
    // storage gives it the time of the copy.
    bool keepLastModified = false;
};

} // namespace foundation::storage::provider
