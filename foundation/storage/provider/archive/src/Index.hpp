#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace foundation::storage::provider::archive::detail {

// When a container counts as unchanged: the index built from it stays valid.
struct Stamp {
    std::uint64_t size = 0;
    boost::posix_time::ptime modified;
    friend bool operator==(const Stamp&, const Stamp&) = default;
};

// Where an entry's bytes are.
struct Entry {
    std::uint64_t ordinal = 0;    // zip: the entry's index; tar: its place among the headers
    std::uint64_t dataOffset = 0; // tar: where its data starts in the (uncompressed) stream
    bool window = false;          // stored as is at dataOffset of the container itself
    bool encrypted = false;
    bool sparse = false;          // tar: a sparse file
};

struct Node {
    bool folder = true;
    std::uint64_t size = 0;
    boost::posix_time::ptime modified;
    std::optional<std::uint32_t> mode;
    std::optional<Entry> entry; // empty for the root and for folders the archive only implies
    std::map<ustring, std::size_t> children;
};

class ZipHandlePool;
class TarReaderPool;

// The segments of an entry name, cleaned as Index::add() cleans them; nullopt when the entry must
// stay unreachable.
std::optional<std::vector<ustring>> entrySegments(std::string_view raw);

// A container's entries as a tree of paths. Built once, then only read (shared by every thread).
class Index {
public:
    Index(StorageIRI container, Stamp stamp);

    // Adds an entry under its name as the archive spells it (bytes, UTF-8 where the archive says
    // so). Names are cleaned: leading '/', empty and '.' segments dropped; a name with a ".."
    // segment or a NUL is left out. A later entry replaces an earlier
    // one of the same path; a file never replaces a folder that holds entries, and a file that stands
    // where a later entry needs a folder becomes that folder.
    void add(std::string_view rawName, bool folder, std::uint64_t size, boost::posix_time::ptime modified,
             std::optional<std::uint32_t> mode, Entry entry);

    // The node at the location's path; nullptr when none.
    const Node* find(const StorageIRI& location) const;
    const StorageIRI& container() const noexcept { return m_container; }
    const Stamp& stamp() const noexcept { return m_stamp; }
    const Node& node(std::size_t index) const { return m_nodes[index]; }

    // Open zip readers of this container kept for reuse (zip indexes only).
    std::shared_ptr<ZipHandlePool> zipHandles;
    // Readers of this compressed tar left after an entry, kept to read a later entry from there.
    std::shared_ptr<TarReaderPool> tarReaders;
    // Tar: where the data of the last entry ends in the decompressed stream.
    std::uint64_t plainSize = 0;

private:
    std::size_t childFolder(std::size_t parent, const ustring& name);

    StorageIRI m_container;
    Stamp m_stamp;
    std::vector<Node> m_nodes;
};

} // namespace foundation::storage::provider::archive::detail
