#include <foundation/storage/vfs/FolderListing.hpp>
#include <foundation/storage/vfs/FolderVisitor.hpp>
#include <foundation/storage/vfs/detail/FolderListingIteratorImpl.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <boost/throw_exception.hpp>
#include <boost/variant/get.hpp>
#include <boost/variant/variant.hpp>

#include <oneapi/tbb/task_group.h>

#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
extern "C" void AnnotateIgnoreReadsBegin(const char* file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char* file, int line);
#endif

namespace foundation::storage::vfs {

namespace {

using AnyEntry = boost::variant<FileEntry, FolderEntry>;

// A folder's children as entries. The provider is asked for names and kinds only, unless its
// listings bring attributes for free: an entry fetches its attributes when a visitor asks for them,
// so a walk costs no request per child that nobody looks at. Provider failures arrive translated,
// here or while advancing.
class Children {
public:
    explicit Children(const Folder& folder)
        : m_at(folder, detail::translated([&] {
              const provider::StorageItem& item = detail::HandleAccess::liveItem(folder);
              return item.getProvider()->capabilities().freeListingAttributes ? item.listAll(ustring())
                                                                              : item.listAllNamesOnly(ustring());
          })),
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

// Where a walk has gone through links to folders: for each, the canonical location of the folder
// holding the link. A link whose target holds one of these, or the folder it sits in, leads back
// round: the kernel's limit on links per path does not end such a walk, since every level lists a
// folder of its own.
struct LinkTrail {
    std::shared_ptr<const LinkTrail> up;
    CanonicalAbsoluteIRI from;
};
using Trail = std::shared_ptr<const LinkTrail>;

// The trail below `folder`; InvalidLocation with "circular_symlink" when it is a link that leads
// back round. Costs one request per folder, and the canonical locations only at links.
Trail enter(const Folder& folder, const Trail& trail)
{
    const auto kind = detail::translated([&] { return detail::HandleAccess::liveItem(folder).existsExtended(); });
    if (kind != provider::ExistenceTypeExtended::LinkToFolder)
        return trail;
    const CanonicalAbsoluteIRI target = folder.getCanonicalLocation();
    CanonicalAbsoluteIRI from = folder.getParent().getCanonicalLocation();
    const auto leadsBack = [&](const AbsoluteIRI& location) { return target == location || target.isAncestorOf(location); };
    bool circular = leadsBack(from);
    for (const LinkTrail* at = trail.get(); at && !circular; at = at->up.get())
        circular = leadsBack(at->from);
    if (circular)
        boost::throw_exception(Exception(ErrorCode::InvalidLocation, target)
                                   .withExceptionContexts({provider::ExceptionContext(u"circular_symlink")}));
    return std::make_shared<const LinkTrail>(LinkTrail{trail, std::move(from)});
}

// How a failure inside folder `entry` ends its visit: a folder that has vanished simply ends.
FolderVisitResult failedInside(FolderVisitor& visitor, const FolderEntry& entry, const Exception& error)
{
    if (error.getErrorCode() == ErrorCode::ResourceNotFound)
        return visitor.visitEntryAfter(entry);
    return visitor.visitFolderEntryFailed(entry, error);
}

FolderVisitResult walkSequentially(const FolderEntry& folder, FolderVisitor& visitor, const Trail& trail)
{
    const FolderVisitResult before = visitor.visitEntryBefore(folder);
    if (before != FolderVisitResult::Continue)
        return before;
    try {
        const Trail inner = enter(folder.getFolder(), trail);
        for (Children children(folder.getFolder()); !children.done(); children.advance()) {
            const AnyEntry& child = children.current();
            const FolderVisitResult result = child.which() == 0
                                                 ? visitor.visitEntry(boost::get<FileEntry>(child))
                                                 : walkSequentially(boost::get<FolderEntry>(child), visitor, inner);
            if (result == FolderVisitResult::Stop)
                return FolderVisitResult::Stop;
        }
    } catch (const Exception& error) {
        return failedInside(visitor, folder, error);
    }
    return visitor.visitEntryAfter(folder);
}

// Every child of every folder is one task, in a task group per folder (the root's bound to the
// walker's context, the others to that of the task walking the folder). A folder waits for all of
// its tasks; an exception that escaped one of them is rethrown there, and siblings not yet begun
// are left out.
class ParallelFolderWalker {
public:
    ParallelFolderWalker(FolderVisitor& visitor, const std::function<bool()>& cancel)
        : m_visitor(visitor), m_cancel(cancel)
    {
    }

    FolderVisitResult walkRoot(const FolderEntry& root) { return walk(root, &m_context, Trail()); }

private:
    // The outcome of one folder's child tasks: the strongest answer (Stop over Skip over Continue)
    // and the first failure that escaped one of them (kept here rather than left to oneTBB, so that
    // every hand-over between threads is one ThreadSanitizer sees; once a task has failed, siblings
    // that have not begun are left out). An answer is one atomic step: a folder's children finish
    // on any thread, a few hundred thousand times in a large walk.
    struct ChildResults {
        std::atomic<FolderVisitResult> strongest{FolderVisitResult::Continue};
        std::mutex mutex;
        std::exception_ptr failure;
        std::atomic<bool> failed{false};

        static int strength(FolderVisitResult result) noexcept
        {
            return result == FolderVisitResult::Stop ? 2 : result == FolderVisitResult::Skip ? 1 : 0;
        }
        void add(FolderVisitResult result) noexcept
        {
            FolderVisitResult seen = strongest.load(std::memory_order_relaxed);
            while (strength(result) > strength(seen) &&
                   !strongest.compare_exchange_weak(seen, result, std::memory_order_acq_rel)) {
            }
        }
        void fail(std::exception_ptr error)
        {
            std::lock_guard lock(mutex);
            if (!failure)
                failure = std::move(error);
            failed = true;
        }
        // Rethrows a failure; otherwise the strongest answer.
        FolderVisitResult folded()
        {
            {
                std::lock_guard lock(mutex);
                if (failure)
                    std::rethrow_exception(failure);
            }
            return strongest.load(std::memory_order_acquire);
        }
    };

    // What one task needs, made before the task is spawned and owned by the task. oneTBB hands it
    // over through synchronisation that ThreadSanitizer cannot see; the annotations make the
    // hand-over visible to it and cost nothing in other builds.
    struct Spawn {
        ParallelFolderWalker* walker;
        ChildResults* results;
        AnyEntry child;
        Trail trail;

        static Spawn* publish(Spawn* spawn) noexcept
        {
#if defined(__SANITIZE_THREAD__)
            __tsan_release(spawn);
#endif
            return spawn;
        }
        static std::unique_ptr<Spawn> receive(Spawn* const& captured) noexcept
        {
#if defined(__SANITIZE_THREAD__)
            AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
            Spawn* spawn = captured;
            AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
            __tsan_acquire(spawn);
            return std::unique_ptr<Spawn>(spawn);
#else
            return std::unique_ptr<Spawn>(captured);
#endif
        }
        void run()
        {
            if (results->failed)
                return;
            try {
                results->add(walker->visitChild(child, trail));
            } catch (...) {
                results->fail(std::current_exception());
            }
        }
    };

    // Ends a folder's visit early: tasks that have not begun return at once (each still frees what
    // it was handed), and the walk waits for those under way.
    static void abandon(tbb::task_group& group, ChildResults& children) noexcept
    {
        children.failed = true;
        try {
            group.wait();
        } catch (...) {
            // Tasks catch what their visits throw; the walk is ending with its own outcome anyway.
        }
    }

    FolderVisitResult visitChild(const AnyEntry& child, const Trail& trail)
    {
        if (m_cancel())
            return FolderVisitResult::Stop;
        if (const auto* file = boost::get<FileEntry>(&child))
            return m_visitor.visitEntry(*file);
        return walk(boost::get<FolderEntry>(child), nullptr, trail);
    }

    FolderVisitResult walk(const FolderEntry& folder, tbb::task_group_context* context, const Trail& trail)
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
            const Trail inner = enter(folder.getFolder(), trail);
            for (Children listing(folder.getFolder()); !listing.done(); listing.advance()) {
                auto spawn = std::make_unique<Spawn>(Spawn{this, &children, listing.current(), inner});
                group->run([spawn = Spawn::publish(spawn.get())] { Spawn::receive(spawn)->run(); });
                spawn.release(); // now the task's
            }
        } catch (const Exception& error) {
            abandon(*group, children);
            return failedInside(m_visitor, folder, error);
        } catch (...) {
            abandon(*group, children);
            throw;
        }
        if (group->wait() == tbb::task_group_status::canceled)
            return FolderVisitResult::Stop; // an enclosing group is winding down
        // Rethrows what escaped a task, now that every task of the group has finished.
        const FolderVisitResult folded = children.folded();
        if (m_cancel() || folded == FolderVisitResult::Stop)
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
    return walkSequentially(FolderEntry(root), visitor, Trail());
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
