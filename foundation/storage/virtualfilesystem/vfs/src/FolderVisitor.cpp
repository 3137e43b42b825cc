#include <foundation/storage/vfs/FolderListing.hpp>
#include <foundation/storage/vfs/FolderVisitor.hpp>
#include <foundation/storage/vfs/detail/FolderListingIteratorImpl.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <boost/throw_exception.hpp>
#include <boost/variant/get.hpp>
#include <boost/variant/variant.hpp>

#include <oneapi/tbb/task_group.h>

#include <mutex>
#include <optional>
#include <vector>

namespace foundation::storage::vfs {

namespace {

using AnyEntry = boost::variant<FileEntry, FolderEntry>;

// A folder's children as entries. The provider is asked for names and kinds only: an entry fetches
// its attributes when a visitor asks for them, so a walk costs no request per child that nobody
// looks at. Provider failures arrive translated, here or while advancing.
class Children {
public:
    explicit Children(const Folder& folder)
        : m_at(folder, detail::translated([&] { return detail::HandleAccess::item(folder).listAllNamesOnly(ustring()); })),
          m_end(folder)
    {
    }
    bool done() const { return m_at.equal(m_end); }
    const AnyEntry& current() const { return m_at.dereference(); }
    void advance() { m_at.increment(); }

private:
    detail::FolderListingIteratorImpl<AnyEntry> m_at;
    detail::FolderListingIteratorImpl<AnyEntry> m_end;
};

// How a failure inside folder `entry` ends its visit: a folder that has vanished simply ends.
FolderVisitResult failedInside(FolderVisitor& visitor, const FolderEntry& entry, const Exception& error)
{
    if (error.getErrorCode() == ErrorCode::ResourceNotFound)
        return visitor.visitEntryAfter(entry);
    return visitor.visitFolderEntryFailed(entry, error);
}

FolderVisitResult walkSequentially(const FolderEntry& folder, FolderVisitor& visitor)
{
    const FolderVisitResult before = visitor.visitEntryBefore(folder);
    if (before != FolderVisitResult::Continue)
        return before;
    try {
        for (Children children(folder.getFolder()); !children.done(); children.advance()) {
            const AnyEntry& child = children.current();
            const FolderVisitResult result = child.which() == 0
                                                 ? visitor.visitEntry(boost::get<FileEntry>(child))
                                                 : walkSequentially(boost::get<FolderEntry>(child), visitor);
            if (result == FolderVisitResult::Stop)
                return FolderVisitResult::Stop;
        }
    } catch (const Exception& error) {
        return failedInside(visitor, folder, error);
    }
    return visitor.visitEntryAfter(folder);
}

// Every child of every folder is one task. A folder's tasks run in a task group of their own, bound
// to the group of the task that walks the folder (the walker's context at the root): an exception in
// one subtree cancels that subtree's pending tasks and reaches the folder's wait.
class ParallelFolderWalker {
public:
    ParallelFolderWalker(FolderVisitor& visitor, const std::function<bool()>& cancel)
        : m_visitor(visitor), m_cancel(cancel)
    {
    }

    FolderVisitResult walkRoot(const FolderEntry& root) { return walk(root, &m_context); }

private:
    struct ChildResults {
        std::mutex mutex;
        std::vector<FolderVisitResult> results;

        void add(FolderVisitResult result)
        {
            std::lock_guard lock(mutex);
            results.push_back(result);
        }
        // Stop over Skip over Continue. Read after the group's wait, so without the lock.
        FolderVisitResult folded() const
        {
            FolderVisitResult folded = FolderVisitResult::Continue;
            for (const FolderVisitResult result : results) {
                if (result == FolderVisitResult::Stop)
                    return FolderVisitResult::Stop;
                if (result == FolderVisitResult::Skip)
                    folded = FolderVisitResult::Skip;
            }
            return folded;
        }
    };

    static void cancelAndWait(tbb::task_group& group) noexcept
    {
        group.cancel();
        try {
            group.wait();
        } catch (...) {
            // The walk is already ending with its own outcome.
        }
    }

    FolderVisitResult visitChild(const AnyEntry& child)
    {
        if (m_cancel())
            return FolderVisitResult::Stop;
        if (const auto* file = boost::get<FileEntry>(&child))
            return m_visitor.visitEntry(*file);
        return walk(boost::get<FolderEntry>(child), nullptr);
    }

    FolderVisitResult walk(const FolderEntry& folder, tbb::task_group_context* context)
    {
        if (m_cancel())
            return FolderVisitResult::Stop;
        const FolderVisitResult before = m_visitor.visitEntryBefore(folder);
        if (before != FolderVisitResult::Continue)
            return before;

        ChildResults children;
        std::optional<tbb::task_group> group;
        if (context)
            group.emplace(*context);
        else
            group.emplace();
        try {
            for (Children listing(folder.getFolder()); !listing.done(); listing.advance())
                group->run([this, &children, child = listing.current()] { children.add(visitChild(child)); });
        } catch (const Exception& error) {
            cancelAndWait(*group);
            return failedInside(m_visitor, folder, error);
        } catch (...) {
            cancelAndWait(*group);
            throw;
        }
        // Rethrows what escaped a task, once every task of the group has finished.
        if (group->wait() == tbb::task_group_status::canceled)
            return FolderVisitResult::Stop; // an enclosing group is winding down
        if (m_cancel() || children.folded() == FolderVisitResult::Stop)
            return FolderVisitResult::Stop;
        return m_visitor.visitEntryAfter(folder);
    }

    FolderVisitor& m_visitor;
    const std::function<bool()>& m_cancel;
    tbb::task_group_context m_context;
};

} // namespace

std::ostream& operator<<(std::ostream& out, const FolderVisitResult& result)
{
    switch (result) {
    case FolderVisitResult::Continue:
        return out << "FolderVisitResult::Continue";
    case FolderVisitResult::Skip:
        return out << "FolderVisitResult::Skip";
    case FolderVisitResult::Stop:
        return out << "FolderVisitResult::Stop";
    }
    return out << "Unhandled FolderVisitResult";
}

FolderVisitor::~FolderVisitor() = default;

FolderVisitResult FolderVisitor::visitBefore(const Folder&) { return FolderVisitResult::Continue; }
FolderVisitResult FolderVisitor::visitEntryBefore(const FolderEntry& entry) { return visitBefore(entry.getFolder()); }
FolderVisitResult FolderVisitor::visit(const File&) { return FolderVisitResult::Continue; }
FolderVisitResult FolderVisitor::visitEntry(const FileEntry& entry) { return visit(entry.getFile()); }
FolderVisitResult FolderVisitor::visitAfter(const Folder&) { return FolderVisitResult::Continue; }
FolderVisitResult FolderVisitor::visitEntryAfter(const FolderEntry& entry) { return visitAfter(entry.getFolder()); }

FolderVisitResult FolderVisitor::visitFolderFailed(const Folder&, const Exception& exception)
{
    boost::throw_exception(Exception(exception));
}

FolderVisitResult FolderVisitor::visitFolderEntryFailed(const FolderEntry& entry, const Exception& exception)
{
    return visitFolderFailed(entry.getFolder(), exception);
}

FolderVisitResult walkFolder(const Folder& root, FolderVisitor& visitor)
{
    return walkSequentially(FolderEntry(root), visitor);
}

FolderVisitResult walkFolderParallel(const Folder& root, FolderVisitor& visitor)
{
    return walkFolderParallel(root, visitor, [] { return false; });
}

FolderVisitResult walkFolderParallel(const Folder& root, FolderVisitor& visitor, const std::function<bool()>& cancel)
{
    ParallelFolderWalker walker(visitor, cancel);
    return walker.walkRoot(FolderEntry(root));
}

} // namespace foundation::storage::vfs
