#pragma once

#include "Formats.hpp"

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

typedef struct zip zip_t;

namespace foundation::storage::provider::archive::detail {

// An entry's path as segments ("a/b/" -> {a, b}).
using Segments = std::vector<ustring>;

// The modification time an entry records in its NTFS extra field (100 ns ticks, any year), which
// this library writes for every entry it stores or touches; nullopt when the entry has none.
std::optional<boost::posix_time::ptime> recordedTime(zip_t* zip, std::uint64_t index);

// One change of a zip container. libzip reads the current archive through the container's read
// stream and writes the whole new archive straight into the container's transactional stream,
// which the container's storage takes at once on commit: a reader, or a crash, sees the old
// archive or the new one. Entries left alone are copied as they are stored, never recompressed.
// Failures (a full disk included) discard the new archive and leave the old one whole; they are
// provider Exceptions naming the container. One thread at a time.
//
// A batched edit gathers many changes before its one commit: it deflates each added file (up to a
// size) into a spool of its own on other threads meanwhile, or copies a larger one there as it is,
// so that the caller's descriptors need not stay open and the commit only copies what is deflated;
// it keeps a list of the entries it added for the caller's view of the changed tree.
class ZipEdit {
public:
    // Opens the container; `missing` says it does not exist yet (the change creates it).
    ZipEdit(const ContainerAccess& access, bool missing, bool batched = false);
    ZipEdit(const ZipEdit&) = delete;
    ZipEdit& operator=(const ZipEdit&) = delete;
    ~ZipEdit();

    struct Match {
        std::uint64_t index;
        Segments path; // cleaned
        bool folder;   // its name ends in '/'
    };
    // The entries whose cleaned path is `path` and, with `below`, those under it; by ascending
    // index (of duplicates, the last one is the one readers see).
    std::vector<Match> entries(const Segments& path, bool below) const;

    void remove(std::uint64_t index);
    // Renames an entry to `path`; a folder entry keeps its trailing '/'.
    void rename(const Match& entry, const Segments& path);
    // New entries, stamped with the current time and Unix permissions (0755 folders, 0644 files).
    std::uint64_t addFolder(const Segments& path);
    // The file's content is the first `size` bytes of the descriptor `fd` (duplicated; read when
    // the change is committed); `fd` < 0 is an empty file.
    std::uint64_t addFile(const Segments& path, int fd, std::uint64_t size);
    void setTime(std::uint64_t index, boost::posix_time::ptime time);
    // The Unix mode with its type bits (S_IFREG, S_IFDIR); nullopt when the entry records none.
    std::optional<std::uint32_t> mode(std::uint64_t index) const;
    void setMode(std::uint64_t index, std::uint32_t mode);
    // Keeps the folder at `path` (not the root) when the change has taken its last entry away:
    // folders the archive only implies would vanish with their content.
    void keepFolder(const Segments& path);

    struct Added {
        std::string name; // as stored, a folder's with its trailing '/'
        bool folder;
        std::uint64_t size;
    };
    // The entries added since the last call.
    std::vector<Added> takeAdded() { return std::exchange(m_added, {}); }

    // Writes the new archive when anything changed; a change that leaves no entry writes an empty
    // archive, as does `createEmpty` for a container that is missing.
    void commit(bool createEmpty = false);

private:
    struct Source;
    struct Spool;
    struct Deflater;
    [[noreturn]] void fail(const char16_t* call) const;
    // Entry indexes by cleaned path, with whether the entry is a folder; built on first use.
    using Paths = std::map<Segments, std::vector<std::pair<std::uint64_t, bool>>>;
    Paths& paths() const;
    void unmap(std::uint64_t index, const Segments& path);
    std::uint64_t added(const Segments& path, std::int64_t index, bool folder, std::uint64_t size);

    ContainerAccess m_access;
    std::unique_ptr<Source> m_source;
    zip_t* m_zip = nullptr;
    mutable std::optional<Paths> m_paths;
    std::shared_ptr<Spool> m_spool; // batched only
    std::unique_ptr<Deflater> m_deflater; // batched only
    std::vector<Added> m_added;
};

} // namespace foundation::storage::provider::archive::detail
