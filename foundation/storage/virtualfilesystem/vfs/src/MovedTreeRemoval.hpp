#pragma once

// The second half of a folder move done by copying: removing the source. Internal.

#include <foundation/storage/vfs/Folder.hpp>

namespace foundation::storage::vfs::detail {

// Removes the tree at `source` that has just been copied to `destination`, file by file, keeping
// every file whose copy is not at the destination: a copy takes an item that the storage reports
// as gone for finished, so a report that was wrong must not cost the item its only copy. A folder
// that keeps anything then fails to go with FolderNotEmpty, which ends the removal.
void removeMovedTree(const Folder& source, const Folder& destination);

} // namespace foundation::storage::vfs::detail
