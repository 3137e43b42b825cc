#pragma once

// The iterator of every local listing, flat or recursive. A directory walk fills batches of
// finished entries; the batches form a chain shared by an iterator and its clones, each of which
// walks it at its own pace and takes the chain's lock only to step past the last batch anybody has
// read. Batches that every iterator has passed are freed.
//
// A batch keeps its names in one buffer rather than a string each, so that reading ahead costs no
// allocation per entry; an entry's own string is made when an iterator hands it out.

#include "Native.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace foundation::storage::provider::local::detail {

class Batch {
public:
    // Entries are added in two steps: the reader appends the name (appendName), looks at the entry,
    // then keeps it (add) or drops the pending name (drop).
    void appendName(std::u16string_view part) { m_names.append(part); }
    // Appends a native name: bytes that are not UTF-8 become U+DC80..U+DCFF, so no name is lost.
    void appendName(std::string_view raw);
    std::u16string_view pendingName() const noexcept
    {
        return std::u16string_view(m_names).substr(m_committed);
    }
    void drop() noexcept { m_names.resize(m_committed); }
    void add(bool isFile, std::optional<FileAttributes> file = std::nullopt,
             std::optional<FolderAttributes> folder = std::nullopt);

    void reserve(std::size_t entries, std::size_t nameUnits);
    std::size_t size() const noexcept { return m_entries.size(); }
    bool empty() const noexcept { return m_entries.empty(); }
    FolderEntry entry(std::size_t index) const;

    // Written and read under the chain's lock: the batch after this one and this one's place in the
    // chain (the empty batch ahead of the first is 0).
    std::shared_ptr<Batch> next;
    std::size_t sequence = 0;

private:
    static constexpr std::uint32_t none = UINT32_MAX;
    // Small, so that a batch of names-only entries is little more than its names.
    struct Entry {
        std::uint32_t nameEnd;    // the name begins where the previous entry's ends
        std::uint32_t attributes; // index into the attributes of the entry's kind, or none
        bool isFile;
    };
    std::u16string m_names;
    std::size_t m_committed = 0;
    std::vector<Entry> m_entries;
    std::vector<FileAttributes> m_fileAttributes;
    std::vector<FolderAttributes> m_folderAttributes;
};

// What walks the storage for a listing. Used by one thread at a time (the chain sees to that), so
// not synchronised.
class DirectoryWalk {
public:
    explicit DirectoryWalk(StorageIRI location) : m_location(std::move(location)) {}
    DirectoryWalk(const DirectoryWalk&) = delete;
    DirectoryWalk& operator=(const DirectoryWalk&) = delete;
    virtual ~DirectoryWalk() = default;

    const StorageIRI& location() const noexcept { return m_location; }
    // Adds the next entries to `batch` (possibly none); false once the walk is done.
    virtual bool read(Batch& batch) = 0;

private:
    const StorageIRI m_location;
};

// What a listing makes of one directory record: the entry's kind (links followed) and, when asked
// for, its attributes. Names-only listings stat only records whose d_type does not tell the kind.
class EntryInspector {
public:
    explicit EntryInspector(const ListOptions& options) noexcept
        : m_kind(options.kind), m_withAttributes(options.withAttributes)
    {
    }
    // Adds the record `raw` of the open folder `folder`, whose name is `batch`'s pending name, when
    // it is of the listed kind, and drops it otherwise or when it has vanished since it was read. True
    // when it is a folder itself rather than a link to one. Failures are thrown for the entry's
    // location below `listed`.
    bool take(Batch& batch, int folder, const char* raw, unsigned char type, const StorageIRI& listed);

private:
    bool keep(bool isFile) const noexcept { return m_kind == ListKind::All || (m_kind == ListKind::Files) == isFile; }

    const ListKind m_kind;
    const bool m_withAttributes;
    // Credentials and the mount's read-only flag are taken at the first entry that needs them: a
    // tree that crosses into a read-only mount is judged by where it started.
    std::optional<WriteAccess> m_writeAccess;
};

// The listing's iterator over `walk`; the first batch is read at the first hasNext().
std::unique_ptr<IFolderEntryIterator> iterateBatches(std::unique_ptr<DirectoryWalk> walk);

// The open folder at `location` for a listing; ResourceNotFound ("not-a-folder") for a file.
FileDescriptor openListedFolder(const StorageIRI& location);

} // namespace foundation::storage::provider::local::detail
