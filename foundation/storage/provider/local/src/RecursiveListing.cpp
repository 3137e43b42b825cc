// Recursive listings of the local disk: one depth-first walk over open folder descriptors, each
// folder before its contents, entries named by their path relative to the listed folder ("a/b").
//
// Links are reported with the kind of what they lead to but are never entered, so a walk cannot loop
// or leave the tree through one. A subfolder that cannot be opened (no permission, or gone since it
// was read) is listed but its contents are left out. The walk holds one descriptor and the unread
// names of each folder on the current path.

#include "Batches.hpp"

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>

namespace foundation::storage::provider::local::detail {

namespace {

class TreeWalk final : public DirectoryWalk {
public:
    TreeWalk(FileDescriptor root, StorageIRI location, const ListOptions& options)
        : DirectoryWalk(std::move(location)), m_inspector(options)
    {
        m_stack.push_back(Frame{std::move(root), ustring(), {}, {}, 0});
        readChildren(m_stack.back());
    }

    bool read(Batch& batch) override
    {
        // A bounded share of the walk per call: the chain decides when a batch is full.
        for (int steps = 0; steps < 1024; ++steps)
            if (!step(batch))
                return false;
        return true;
    }

private:
    // The unread names of one folder, NUL-separated in one buffer.
    struct Frame {
        FileDescriptor folder;
        ustring relative; // "" for the root, else "a/b/"
        std::string names;
        std::vector<unsigned char> types;
        std::size_t next; // index into types; the name at `offset`
        std::size_t offset = 0;
    };

    void readChildren(Frame& frame)
    {
        for (;;) {
            const ssize_t got = m_reader.fill(frame.folder.get());
            if (got < 0) {
                const int error = errno;
                fail(error, "getdents64", at(frame.relative));
            }
            if (got == 0)
                break;
            m_reader.forEach([&](const char* name, unsigned char type) {
                frame.names.append(name);
                frame.names.push_back('\0');
                frame.types.push_back(type);
            });
        }
    }

    // Takes the next child of the deepest folder (adding it to `batch` when it is listed); false once
    // the whole tree is done.
    bool step(Batch& batch)
    {
        while (!m_stack.empty() && m_stack.back().next == m_stack.back().types.size())
            m_stack.pop_back();
        if (m_stack.empty())
            return false;
        Frame& frame = m_stack.back();
        const char* raw = frame.names.c_str() + frame.offset;
        const std::string_view name(raw);
        const unsigned char type = frame.types[frame.next++];
        frame.offset += name.size() + 1;
        batch.appendName(frame.relative);
        batch.appendName(name);
        // Only a record of these types can turn out to be a folder to enter; its name is kept before
        // the batch takes it over.
        ustring relative;
        if (type == DT_DIR || type == DT_UNKNOWN)
            relative = batch.pendingName();
        const int folder = frame.folder.get();
        if (m_inspector.take(batch, folder, raw, type, location()))
            descend(folder, raw, std::move(relative)); // may grow the stack: `frame` is not used after
        return true;
    }

    void descend(int parent, const char* rawName, ustring relative)
    {
        FileDescriptor sub(::openat(parent, rawName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!sub) {
            const int error = errno;
            // Unreadable, gone, or replaced by a file or a link since it was read: listed, not entered.
            if (error == EACCES || error == EPERM || error == ENOENT || error == ENOTDIR || error == ELOOP)
                return;
            fail(error, "openat", at(relative));
        }
        relative += u'/';
        m_stack.push_back(Frame{std::move(sub), std::move(relative), {}, {}, 0});
        try {
            readChildren(m_stack.back());
        } catch (const Exception& error) {
            if (error.getErrorCode() != ErrorCode::PermissionDenied && error.getErrorCode() != ErrorCode::ResourceNotFound)
                throw;
            m_stack.pop_back();
        }
    }

    StorageIRI at(const ustring& relative) const
    {
        if (relative.empty())
            return location();
        return StorageIRI(location(), relative.back() == u'/' ? relative.substr(0, relative.size() - 1) : relative);
    }

    EntryInspector m_inspector;
    DirectoryReader m_reader;
    std::vector<Frame> m_stack;
};

} // namespace

std::unique_ptr<IFolderEntryIterator> listTree(const StorageIRI& location, const ListOptions& options)
{
    return iterateBatches(std::make_unique<TreeWalk>(openListedFolder(location), location, options));
}

} // namespace foundation::storage::provider::local::detail
