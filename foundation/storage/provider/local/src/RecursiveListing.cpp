// Recursive listings of the local disk: one depth-first walk over open folder descriptors, each
// folder before its contents, entries named by their path relative to the listed folder ("a/b").
//
// Names-only listings never stat an entry whose d_type tells its kind; links are reported with the
// kind of what they lead to but are never entered, so a walk cannot loop or leave the tree through
// one. A subfolder that cannot be opened (no permission, or gone since it was read) is listed but
// its contents are left out. The walk is read ahead in batches into a chain shared by an iterator
// and its clones, as flat listings are; the walk itself holds one descriptor and the unread names
// of each folder on the current path.

#include "Native.hpp"

#include <foundation/storage/provider/PosixError.hpp>

#include <cerrno>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>

namespace foundation::storage::provider::local::detail {

namespace {

struct Entry {
    ustring name;
    bool isFile;
    std::optional<FileAttributes> fileAttributes;
    std::optional<FolderAttributes> folderAttributes;
};

struct Batch {
    std::vector<Entry> entries;
    std::shared_ptr<Batch> next; // written and read under the walk's lock
};

constexpr std::size_t batchSize = 4096;

class TreeWalk {
public:
    TreeWalk(FileDescriptor root, StorageIRI location, const ListOptions& options)
        : m_location(std::move(location)), m_kind(options.kind), m_withAttributes(options.withAttributes)
    {
        m_stack.push_back(Frame{std::move(root), ustring(), {}, 0});
        readChildren(m_stack.back());
    }

    const StorageIRI& location() const noexcept { return m_location; }

    // The batch after `batch`, walking on when nobody has yet; null at the end. A failure ends the
    // walk and is thrown again to every iterator that gets this far.
    std::shared_ptr<Batch> following(const std::shared_ptr<Batch>& batch)
    {
        std::lock_guard lock(m_mutex);
        if (batch->next)
            return batch->next;
        if (m_failure)
            std::rethrow_exception(m_failure);
        if (m_stack.empty())
            return nullptr;
        auto fresh = std::make_shared<Batch>();
        try {
            fresh->entries.reserve(batchSize);
            while (fresh->entries.size() < batchSize && step(fresh->entries)) {
            }
        } catch (...) {
            m_failure = std::current_exception();
            m_stack.clear();
            throw;
        }
        if (fresh->entries.empty())
            return nullptr;
        batch->next = fresh;
        return fresh;
    }

private:
    struct Child {
        std::string name;
        unsigned char type;
    };
    struct Frame {
        FileDescriptor folder;
        ustring relative; // "" for the root, else "a/b/"
        std::vector<Child> children;
        std::size_t next;
    };

    void readChildren(Frame& frame)
    {
        for (;;) {
            const ssize_t got = m_reader.fill(frame.folder.get());
            if (got < 0)
                fail(errno, "getdents64", at(frame.relative));
            if (got == 0)
                break;
            m_reader.forEach([&](const char* name, unsigned char type) { frame.children.push_back({name, type}); });
        }
    }

    // Takes the next child of the deepest folder (adding it to `into` when it is listed); false once
    // the whole tree is done.
    bool step(std::vector<Entry>& into)
    {
        while (!m_stack.empty() && m_stack.back().next == m_stack.back().children.size())
            m_stack.pop_back();
        if (m_stack.empty())
            return false;
        Frame& frame = m_stack.back();
        Child child = std::move(frame.children[frame.next++]);
        ustring name;
        name.reserve(frame.relative.size() + child.name.size());
        name = frame.relative;
        if (!appendName(name, child.name))
            return true; // cannot become an IRI: left out, as flat listings do
        const int folder = frame.folder.get();
        bool enter = false;
        if (auto entry = inspect(folder, child, std::move(name), enter)) {
            // Only reads the folder's names (and may grow the stack, so `frame` is not used after).
            if (enter)
                descend(folder, child.name, entry->name);
            if (m_kind == ListKind::All || (m_kind == ListKind::Files) == entry->isFile)
                into.push_back(*std::move(entry));
        }
        return true;
    }

    // Names are mostly ASCII: those are widened in place; the rest goes through the converter.
    static bool appendName(ustring& into, const std::string& raw)
    {
        for (const char c : raw)
            if (static_cast<unsigned char>(c) >= 0x80) {
                try {
                    into += fl::i18n::utf8_to_ustring(raw);
                } catch (const fl::i18n::conversion_error&) {
                    return false;
                }
                return true;
            }
        into.append(raw.begin(), raw.end());
        return true;
    }

    void descend(int parent, const std::string& rawName, const ustring& name)
    {
        FileDescriptor sub(::openat(parent, rawName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!sub) {
            const int error = errno;
            // Unreadable, gone, or replaced by a file or a link since it was read: listed, not entered.
            if (error == EACCES || error == EPERM || error == ENOENT || error == ENOTDIR || error == ELOOP)
                return;
            fail(error, "openat", at(name));
        }
        m_stack.push_back(Frame{std::move(sub), name + u'/', {}, 0});
        try {
            readChildren(m_stack.back());
        } catch (const Exception& error) {
            if (error.getErrorCode() != ErrorCode::PermissionDenied && error.getErrorCode() != ErrorCode::ResourceNotFound)
                throw;
            m_stack.pop_back();
        }
    }

    // The entry's kind (links followed) and, when asked for, its attributes; `enter` tells whether it
    // is a folder itself rather than a link to one. nullopt when it has vanished since it was read.
    std::optional<Entry> inspect(int folder, const Child& child, ustring name, bool& enter)
    {
        const char* raw = child.name.c_str();
        if (!m_withAttributes && child.type == DT_DIR) {
            enter = true;
            return Entry{std::move(name), false, {}, {}};
        }
        if (!m_withAttributes && child.type != DT_LNK && child.type != DT_UNKNOWN)
            return Entry{std::move(name), true, {}, {}};
        struct stat info {};
        bool symlink = child.type == DT_LNK;
        if (!symlink) {
            if (::fstatat(folder, raw, &info, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno == ENOENT)
                    return std::nullopt;
                fail(errno, "fstatat", at(name));
            }
            symlink = S_ISLNK(info.st_mode);
            enter = S_ISDIR(info.st_mode);
        }
        if (symlink && ::fstatat(folder, raw, &info, 0) != 0) {
            const int error = errno;
            if (error == ENOENT || error == ENOTDIR || error == ELOOP || error == EACCES)
                return Entry{std::move(name), true, {}, {}}; // leads nowhere: a file without attributes
            fail(error, "fstatat", at(name));
        }
        const bool isFile = !S_ISDIR(info.st_mode);
        if (!m_withAttributes)
            return Entry{std::move(name), isFile, {}, {}};
        // Credentials and the read-only flag are taken once, at the first folder that needs them: a
        // tree that crosses into a read-only mount is judged by where it started.
        if (!m_writeAccess)
            m_writeAccess.emplace(folder, nullptr);
        const bool writable = m_writeAccess->allows(info);
        const std::u16string_view bare = std::u16string_view(name).substr(name.rfind(u'/') + 1);
        if (isFile) {
            auto attributes = fileAttributes(info, writable, symlink, bare);
            return Entry{std::move(name), true, std::move(attributes), {}};
        }
        auto attributes = folderAttributes(info, writable, symlink, bare);
        return Entry{std::move(name), false, {}, std::move(attributes)};
    }

    StorageIRI at(const ustring& relative) const
    {
        if (relative.empty())
            return m_location;
        return StorageIRI(m_location, relative.back() == u'/' ? relative.substr(0, relative.size() - 1) : relative);
    }

    std::mutex m_mutex;
    const StorageIRI m_location;
    const ListKind m_kind;
    const bool m_withAttributes;
    std::optional<WriteAccess> m_writeAccess;
    DirectoryReader m_reader;
    std::vector<Frame> m_stack;
    std::exception_ptr m_failure;
};

// Positions are (batch, index of the next entry in it); the entry before that is current(). A fresh
// iterator stands on an empty batch ahead of the first real one.
class TreeIterator final : public IFolderEntryIterator {
public:
    explicit TreeIterator(std::shared_ptr<TreeWalk> walk) : m_walk(std::move(walk)), m_batch(std::make_shared<Batch>()) {}

    FolderEntry current() const override
    {
        if (m_next == 0)
            throwProviderError(ErrorCode::InternalError, m_walk->location(), {ExceptionContext(u"current-before-next")});
        const Entry& entry = m_batch->entries[m_next - 1];
        return FolderEntry(entry.name, entry.isFile, entry.fileAttributes, entry.folderAttributes);
    }

    bool hasNext() const override { return m_next < m_batch->entries.size() || lookAhead(); }

    void next() override
    {
        if (m_next < m_batch->entries.size()) {
            ++m_next;
            return;
        }
        if (!lookAhead())
            throwProviderError(ErrorCode::InternalError, m_walk->location(), {ExceptionContext(u"next-past-the-end")});
        m_batch = std::move(m_ahead);
        m_lookedAhead = false;
        m_next = 1;
    }

    std::unique_ptr<IFolderEntryIterator> clone() const override
    {
        return std::unique_ptr<IFolderEntryIterator>(new TreeIterator(*this));
    }

private:
    TreeIterator(const TreeIterator& other)
        : IFolderEntryIterator(), m_walk(other.m_walk), m_batch(other.m_batch), m_next(other.m_next),
          m_ahead(other.m_ahead), m_lookedAhead(other.m_lookedAhead)
    {
    }

    bool lookAhead() const
    {
        if (!m_lookedAhead) {
            m_ahead = m_walk->following(m_batch);
            m_lookedAhead = true;
        }
        return m_ahead != nullptr;
    }

    std::shared_ptr<TreeWalk> m_walk;
    std::shared_ptr<Batch> m_batch;
    std::size_t m_next = 0;
    mutable std::shared_ptr<Batch> m_ahead;
    mutable bool m_lookedAhead = false;
};

} // namespace

std::unique_ptr<IFolderEntryIterator> listTree(const StorageIRI& location, const ListOptions& options)
{
    const fl::filesystem::path path = nativePath(location);
    FileDescriptor root(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root) {
        const int error = errno;
        struct stat info {};
        if (error == ENOTDIR && ::stat(path.c_str(), &info) == 0)
            failKind(location, u"not-a-folder");
        fail(error, "open", location);
    }
    return std::make_unique<TreeIterator>(std::make_shared<TreeWalk>(std::move(root), location, options));
}

} // namespace foundation::storage::provider::local::detail
