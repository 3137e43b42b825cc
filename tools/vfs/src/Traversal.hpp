#pragma once

// Depth-first visits of a folder tree for ls -R, tree, find and du: each folder before its content,
// children in name order, links to folders listed but not entered (so a link loop cannot trap a
// visit). A folder that cannot be listed is reported and skipped; the visit goes on.

#include "Tool.hpp"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vfs_tool {

struct VisitedEntry {
    explicit VisitedEntry(vfs::AbsoluteIRI where) : location(std::move(where)) {}

    vfs::AbsoluteIRI location;
    std::string name;
    std::string relativePath; // from the visited root, "/"-separated
    bool isFile = true;
    int depth = 1; // children of the root are at depth 1
    bool isLastChild = false;
    std::optional<provider::FileAttributes> fileAttributes;     // with attributes, for files
    std::optional<provider::FolderAttributes> folderAttributes; // for folders, always
    std::optional<vfs::Folder> folder;                          // for folders
    std::optional<provider::ExtendedAttributes> extended;       // for files, when asked for and known
    bool dangling = false; // a link that leads nowhere or loops: no attributes (found only with them)

    // A folder that a recursive visit enters: not a link (a link loop cannot trap a visit).
    bool enterable() const { return !isFile && !(folderAttributes && folderAttributes->isSymlink()); }
};

struct TraversalOptions {
    bool withAttributes = false;
    bool withExtended = false; // files' extended attributes too (kind, links, inode); implies attributes
    bool recursive = true;
    bool includeHidden = true;
    ustring pattern; // '*'/'?' filter on names; folders are entered whatever their name
};

// The children of `folder` in name order, hidden ones left out unless asked for, files filtered by
// the pattern (folders are kept whatever their name). `parent` is the entry of `folder` itself (its
// relative path and depth), or null for the root. Failures throw.
std::vector<VisitedEntry> childrenOf(const vfs::Folder& folder, const TraversalOptions& options,
                                     const VisitedEntry* parent);

// Calls `visit` for every entry; returning false from it for a folder skips its content. A folder
// that fails to list calls `onFailure` from inside a catch block (so it can rethrow and report) and
// the visit goes on with its siblings. Ctrl-C stops the visit with ToolError "interrupted".
void traverse(const vfs::Folder& root, const TraversalOptions& options,
              const std::function<bool(const VisitedEntry&)>& visit, const std::function<void()>& onFailure);

} // namespace vfs_tool
