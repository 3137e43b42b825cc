#include "Index.hpp"

#include <fl/i18n/ustring.hpp>

namespace foundation::storage::provider::archive::detail {

// A backslash is a character of a name, as on POSIX: "..\\x" is a plain name inside its folder.
std::optional<std::vector<ustring>> entrySegments(std::string_view raw)
{
    if (raw.find('\0') != std::string_view::npos)
        return std::nullopt;
    std::vector<ustring> segments;
    std::size_t start = 0;
    while (start <= raw.size()) {
        std::size_t end = raw.find('/', start);
        if (end == std::string_view::npos)
            end = raw.size();
        const std::string_view segment = raw.substr(start, end - start);
        start = end + 1;
        if (segment.empty() || segment == ".")
            continue;
        if (segment == "..")
            return std::nullopt;
        segments.push_back(fl::i18n::native_to_ustring(segment));
    }
    return segments;
}

Index::Index(StorageIRI container, Stamp stamp) : m_container(std::move(container)), m_stamp(stamp)
{
    Node root;
    root.modified = stamp.modified;
    m_nodes.push_back(std::move(root));
}

std::size_t Index::childFolder(std::size_t parent, const ustring& name)
{
    const auto found = m_nodes[parent].children.find(name);
    if (found != m_nodes[parent].children.end()) {
        Node& existing = m_nodes[found->second];
        if (!existing.folder) // a file where entries need a folder: the folder wins
            existing = Node{true, 0, m_stamp.modified, std::nullopt, std::nullopt, {}};
        return found->second;
    }
    m_nodes.push_back(Node{true, 0, m_stamp.modified, std::nullopt, std::nullopt, {}});
    return m_nodes[parent].children[name] = m_nodes.size() - 1;
}

void Index::add(std::string_view rawName, bool folder, std::uint64_t size, boost::posix_time::ptime modified,
                std::optional<std::uint32_t> mode, Entry entry)
{
    const auto segments = entrySegments(rawName);
    if (!segments || segments->empty())
        return;
    std::size_t parent = 0;
    for (std::size_t i = 0; i + 1 < segments->size(); ++i)
        parent = childFolder(parent, (*segments)[i]);
    const ustring& name = segments->back();
    const auto found = m_nodes[parent].children.find(name);
    if (folder) {
        const std::size_t at = childFolder(parent, name);
        m_nodes[at].modified = modified;
        m_nodes[at].mode = mode;
        m_nodes[at].entry = entry;
        return;
    }
    Node file{false, size, modified, mode, entry, {}};
    if (found == m_nodes[parent].children.end()) {
        m_nodes.push_back(std::move(file));
        m_nodes[parent].children[name] = m_nodes.size() - 1;
    } else if (!m_nodes[found->second].folder || m_nodes[found->second].children.empty()) {
        m_nodes[found->second] = std::move(file);
    }
}

const Node* Index::find(const StorageIRI& location) const
{
    std::size_t at = 0;
    for (const std::u16string_view segment : location.getPathView()) {
        const auto& children = m_nodes[at].children;
        const auto found = children.find(ustring(segment));
        if (found == children.end())
            return nullptr;
        at = found->second;
    }
    return &m_nodes[at];
}

} // namespace foundation::storage::provider::archive::detail
