#include "Tree.hpp"

#include <foundation/storage/provider/Exception.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <utility>

namespace foundation::storage::provider::memory::detail {

ptime now()
{
    return boost::posix_time::microsec_clock::universal_time();
}

Node::~Node()
{
    Folder* folder = asFolder();
    if (!folder || folder->children.empty())
        return;
    std::vector<std::unique_ptr<Node>> pending;
    for (auto& [name, child] : folder->children)
        pending.push_back(std::move(child));
    folder->children.clear();
    while (!pending.empty()) {
        std::unique_ptr<Node> node = std::move(pending.back());
        pending.pop_back();
        if (Folder* inner = node->asFolder()) {
            for (auto& [name, child] : inner->children)
                pending.push_back(std::move(child));
            inner->children.clear();
        }
    }
}

bool isHiddenName(std::u16string_view name) noexcept
{
    return !name.empty() && name.front() == u'.';
}

FileAttributes fileAttributes(const Node& file, std::u16string_view name)
{
    return FileAttributes(file.size(), file.lastModified, file.writable, false, isHiddenName(name));
}

FolderAttributes folderAttributes(const Node& folder, std::u16string_view name)
{
    return FolderAttributes(folder.lastModified, folder.writable, false, isHiddenName(name));
}

void forEachBelow(const Node& folder, const std::function<void(std::u16string_view, const Node&)>& visit)
{
    using Children = std::map<ustring, std::unique_ptr<Node>, std::less<>>;
    struct Level {
        const Children* children;
        Children::const_iterator next;
        std::size_t prefixLength; // of `path` up to and including this folder's trailing '/'
    };
    const Node::Folder* top = folder.asFolder();
    if (!top)
        return;
    ustring path;
    std::vector<Level> levels{{&top->children, top->children.begin(), 0}};
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.children->end()) {
            levels.pop_back();
            continue;
        }
        const auto& [name, child] = *level.next++;
        path.resize(level.prefixLength);
        path += name;
        visit(path, *child);
        if (const Node::Folder* inner = child->asFolder(); inner && !inner->children.empty()) {
            path += u'/';
            levels.push_back({&inner->children, inner->children.begin(), path.size()});
        }
    }
}

std::vector<FolderEntry> collectEntries(const Node& folder, const ListOptions& options)
{
    std::vector<FolderEntry> entries;
    const auto add = [&](std::u16string_view path, std::u16string_view name, const Node& node) {
        const bool isFile = node.asFile() != nullptr;
        if ((options.kind == ListKind::Files && !isFile) || (options.kind == ListKind::Folders && isFile))
            return;
        if (!options.pattern.empty() && !matchesWildcard(name, options.pattern))
            return;
        if (!options.withAttributes) // not emplace_back: g++ 12 sees a false maybe-uninitialized there
            entries.push_back(FolderEntry(ustring(path), isFile));
        else if (isFile)
            entries.emplace_back(ustring(path), true, fileAttributes(node, name));
        else
            entries.emplace_back(ustring(path), false, std::nullopt, folderAttributes(node, name));
    };
    if (options.recursive) {
        forEachBelow(folder, [&](std::u16string_view path, const Node& node) {
            const std::size_t slash = path.rfind(u'/');
            add(path, slash == std::u16string_view::npos ? path : path.substr(slash + 1), node);
        });
    } else if (const Node::Folder* children = folder.asFolder()) {
        for (const auto& [name, child] : children->children)
            add(name, name, *child);
    }
    return entries;
}

namespace {

class SnapshotIterator final : public IFolderEntryIterator {
public:
    SnapshotIterator(StorageIRI location, std::shared_ptr<const std::vector<FolderEntry>> entries,
                     std::size_t position = 0)
        : m_location(std::move(location)), m_entries(std::move(entries)), m_position(position)
    {
    }

    FolderEntry current() const override
    {
        if (m_position == 0)
            misuse(u"current-before-next");
        return (*m_entries)[m_position - 1];
    }
    bool hasNext() const override { return m_position < m_entries->size(); }
    void next() override
    {
        if (!hasNext())
            misuse(u"next-past-end");
        ++m_position;
    }
    std::unique_ptr<IFolderEntryIterator> clone() const override
    {
        return std::make_unique<SnapshotIterator>(m_location, m_entries, m_position);
    }

private:
    [[noreturn]] void misuse(std::u16string_view what) const
    {
        throwProviderError(ErrorCode::InternalError, m_location, {ExceptionContext(u"list"), ExceptionContext(ustring(what))});
    }

    StorageIRI m_location;
    std::shared_ptr<const std::vector<FolderEntry>> m_entries;
    std::size_t m_position; // entries already passed; current() is the one before it
};

} // namespace

std::unique_ptr<IFolderEntryIterator> makeSnapshotIterator(StorageIRI location,
                                                           std::shared_ptr<const std::vector<FolderEntry>> entries)
{
    return std::make_unique<SnapshotIterator>(std::move(location), std::move(entries));
}

} // namespace foundation::storage::provider::memory::detail
