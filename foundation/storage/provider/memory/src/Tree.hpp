#pragma once

// The memory provider's tree and the listings taken from it. Nothing here locks: the provider holds
// its lock around every use.

#include <foundation/storage/provider/FolderEntryIterator.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string_view>
#include <variant>
#include <vector>

namespace foundation::storage::provider::memory::detail {

using boost::posix_time::ptime;

// The current UTC time at the resolution attributes keep.
ptime now();

// A file's bytes, shared by its node and the plain streams open on it: a stream keeps the content it
// opened whatever later happens to the name, as an open descriptor keeps its inode. Guarded by the
// provider's lock, as the tree is.
struct Content {
    std::vector<std::byte> bytes;
    std::size_t openStreams = 0; // plain streams holding it
    bool linked = true;          // whether a file of the tree holds it
};

// One file or folder. Folders own their children; a file holds its content (never null). Times and
// writability belong to both kinds, as on disk.
struct Node {
    struct Folder {
        // Ordered by code unit, which makes listings deterministic; std::less<> lets path segments
        // (string views) look children up without a copy.
        std::map<ustring, std::unique_ptr<Node>, std::less<>> children;
    };
    struct File {
        std::shared_ptr<Content> content;
    };

    Node(std::variant<Folder, File> content, ptime lastModified, bool writable = true)
        : content(std::move(content)), lastModified(lastModified), writable(writable)
    {
    }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;
    // Dismantles the subtree without recursion, so that no depth of folders exhausts the stack.
    ~Node();

    Folder* asFolder() noexcept { return std::get_if<Folder>(&content); }
    const Folder* asFolder() const noexcept { return std::get_if<Folder>(&content); }
    File* asFile() noexcept { return std::get_if<File>(&content); }
    const File* asFile() const noexcept { return std::get_if<File>(&content); }
    std::uint64_t size() const noexcept { return asFile() ? asFile()->content->bytes.size() : 0; }

    std::variant<Folder, File> content;
    ptime lastModified;
    bool writable;
};

// Names that begin with '.' are hidden, as on POSIX, so that filters treat both storages alike.
bool isHiddenName(std::u16string_view name) noexcept;
FileAttributes fileAttributes(const Node& file, std::u16string_view name);
FolderAttributes folderAttributes(const Node& folder, std::u16string_view name);

// Visits every node below `folder` depth first, each folder before its contents, siblings in name
// order: visit(relativePath, node) with paths such as "a/b". Iterative, whatever the depth.
void forEachBelow(const Node& folder, const std::function<void(std::u16string_view, const Node&)>& visit);

// The entries of `folder` that `options` select. Patterns are matched against the bare name (the
// last segment of a recursive listing's relative path).
std::vector<FolderEntry> collectEntries(const Node& folder, const ListOptions& options);

// An iterator over entries taken beforehand: it holds no lock and sees no later change. Clones
// share the entries. `location` is the listed folder, named by misuse errors.
std::unique_ptr<IFolderEntryIterator> makeSnapshotIterator(StorageIRI location,
                                                           std::shared_ptr<const std::vector<FolderEntry>> entries);

} // namespace foundation::storage::provider::memory::detail
