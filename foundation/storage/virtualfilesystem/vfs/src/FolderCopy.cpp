#include "TreeVisitors.hpp"

#include <foundation/storage/vfs/Folder.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/exception/get_error_info.hpp>
#include <boost/exception/info.hpp>
#include <boost/throw_exception.hpp>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <ostream>
#include <thread>

namespace foundation::storage::vfs {

namespace detail {

namespace {

using provider::ReplacementPolicy;

bool isNotFound(const Exception& error) noexcept { return error.getErrorCode() == ErrorCode::ResourceNotFound; }

// How the target's provider keeps a folder's permission bits, when the source is on that very
// provider and it keeps any.
const provider::extensions::IFolderModeKeeping* modeKeeping(const Folder& source, const Folder& target)
{
    const auto& provider = HandleAccess::liveItem(target).getProvider();
    if (HandleAccess::liveItem(source).getProvider() != provider)
        return nullptr;
    return dynamic_cast<const provider::extensions::IFolderModeKeeping*>(provider.get());
}

// Makes the target folder, with the source's permission bits where the storage keeps them; true
// when the copy must finish them once the folder is filled.
bool createTargetFolder(const Folder& source, const Folder& target)
{
    const auto* keeping = modeKeeping(source, target);
    if (!keeping) {
        target.createFolder();
        return false;
    }
    translated([&] {
        keeping->createFolderLike(HandleAccess::liveItem(target).getLocation(),
                                  HandleAccess::liveItem(source).getLocation());
    });
    return true;
}

// How many transfers a copy between the two storages runs at once: what the slower side asks for.
unsigned transfersBetween(const Folder& source, const Folder& target)
{
    const auto of = [](const Folder& folder) { return HandleAccess::liveItem(folder).getProvider()->capabilities().parallelTransfers; };
    return std::clamp<unsigned>(std::max(of(source), of(target)), 1, 64);
}

// Runs `copy` inside a batch of changes on the destination's storage when it gathers changes: what
// the copy did becomes durable when the batch ends, also after a failure, which is reported then.
template <class Copy>
void inBatch(const Folder& destination, Copy&& copy)
{
    const provider::StorageItem& item = HandleAccess::liveItem(destination);
    const auto* batching = dynamic_cast<const provider::extensions::IChangeBatching*>(item.getProvider().get());
    if (!batching)
        return copy();
    translated([&] { batching->beginBatch(item.getLocation()); });
    try {
        copy();
    } catch (...) {
        try {
            translated([&] { batching->endBatch(item.getLocation()); });
        } catch (...) { // the copy's own failure is the one reported
        }
        throw;
    }
    translated([&] { batching->endBatch(item.getLocation()); });
}

// The folder's time; none when it has vanished.
std::optional<boost::posix_time::ptime> timeOf(const Folder& source)
{
    try {
        return source.getAttributes().getLastModified();
    } catch (const Exception& error) {
        if (!isNotFound(error) || !(error.getLocation() == source.getLocation()))
            throw;
        return std::nullopt;
    }
}

bool isLink(provider::ExistenceTypeExtended kind) noexcept
{
    using Kind = provider::ExistenceTypeExtended;
    return kind == Kind::LinkToFile || kind == Kind::LinkToFolder || kind == Kind::BrokenLink;
}

} // namespace

// Runs jobs on threads of its own with a bounded backlog. For transfers, which mostly wait on a
// server: more of them at once than the machine has cores pays off, which a pool sized to the
// cores (the parallel walk's) would not allow. After a job fails, the queued ones are dropped and
// the failure is rethrown to the next submit() or drain().
class TransferQueue {
public:
    explicit TransferQueue(unsigned threads) : m_backlog(2 * threads)
    {
        for (unsigned i = 0; i < threads; ++i)
            m_threads.emplace_back([this] { work(); });
    }
    ~TransferQueue()
    {
        {
            std::lock_guard lock(m_mutex);
            m_closing = true;
            m_jobs.clear();
        }
        m_changed.notify_all();
        for (auto& thread : m_threads)
            thread.join();
    }
    TransferQueue(const TransferQueue&) = delete;
    TransferQueue& operator=(const TransferQueue&) = delete;

    // Queues `job`, waiting while the backlog is full; `tick` runs on this thread, the lock
    // released, each time a job ends meanwhile.
    void submit(std::function<void()> job, const std::function<void()>& tick)
    {
        std::unique_lock lock(m_mutex);
        waitFor(lock, [&] { return m_jobs.size() < m_backlog || m_failure; }, tick);
        rethrowFailure();
        m_jobs.push_back(std::move(job));
        m_changed.notify_all();
    }

    // Returns once every queued job has ended.
    void drain(const std::function<void()>& tick)
    {
        std::unique_lock lock(m_mutex);
        waitFor(lock, [&] { return m_jobs.empty() && m_running == 0; }, tick);
        rethrowFailure();
    }

private:
    template <class Done>
    void waitFor(std::unique_lock<std::mutex>& lock, Done done, const std::function<void()>& tick)
    {
        while (!done()) {
            const std::uint64_t ended = m_ended;
            m_changed.wait(lock, [&] { return done() || m_ended != ended; });
            lock.unlock();
            tick();
            lock.lock();
        }
    }

    void rethrowFailure()
    {
        if (const std::exception_ptr failure = std::exchange(m_failure, nullptr))
            std::rethrow_exception(failure);
    }

    void work()
    {
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [&] { return m_closing || !m_jobs.empty(); });
            if (m_closing)
                return;
            std::function<void()> job = std::move(m_jobs.front());
            m_jobs.pop_front();
            ++m_running;
            lock.unlock();
            std::exception_ptr failure;
            try {
                job();
            } catch (...) {
                failure = std::current_exception();
            }
            job = nullptr; // the job's handles go before the queue says it has ended
            lock.lock();
            --m_running;
            ++m_ended;
            if (failure && !m_failure) {
                m_failure = failure;
                m_jobs.clear();
            }
            m_changed.notify_all();
        }
    }

    const std::size_t m_backlog;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::function<void()>> m_jobs;
    std::size_t m_running = 0;
    std::uint64_t m_ended = 0;
    std::exception_ptr m_failure;
    bool m_closing = false;
    std::vector<std::thread> m_threads;
};

FolderCopyVisitor::FolderCopyVisitor(Folder destinationRoot, ReplacementPolicy policy, TreeProgressObserver observer,
                                     bool forMove, unsigned transfers, LinkHandling links, TreeBoundary boundary)
    : m_destinationRoot(std::move(destinationRoot)), m_policy(policy), m_forMove(forMove), m_links(links),
      m_boundary(std::move(boundary)), m_observer(std::move(observer))
{
    if (transfers > 1)
        m_queue = std::make_unique<TransferQueue>(transfers);
}

FolderCopyVisitor::~FolderCopyVisitor() = default;

FolderVisitResult FolderCopyVisitor::copyLink(const provider::StorageItem& source, const ustring& name)
{
    if (m_links == LinkHandling::Skip)
        return FolderVisitResult::Skip;
    const File target(*m_current, name);
    const provider::StorageItem& into = HandleAccess::liveItem(target);
    const auto* reader = dynamic_cast<const provider::extensions::ILinkKeeping*>(source.getProvider().get());
    const auto* maker = dynamic_cast<const provider::extensions::ILinkKeeping*>(into.getProvider().get());
    // Only a merge replaces what is there; the other policies leave it, as they leave a file.
    const bool replace =
        m_policy == ReplacementPolicy::MergeFolders || m_policy == ReplacementPolicy::MergeCollectingFailures;
    try {
        if (!reader || !maker)
            boost::throw_exception(Exception(ErrorCode::UnsupportedOperation, target.getLocation())
                                       .withExceptionContexts({provider::ExceptionContext(u"symlink")}));
        translated([&] { maker->createLink(into.getLocation(), reader->readLink(source.getLocation()), replace); });
        ++m_files;
    } catch (const Exception& error) {
        const ErrorCode code = error.getErrorCode();
        if (code == ErrorCode::UnsupportedOperation && m_policy == ReplacementPolicy::MergeCollectingFailures) {
            std::lock_guard lock(m_collectedMutex);
            m_collected.push_back(error); // one more entry left out
        } else if (replace || code != ErrorCode::ResourceAlreadyExists) {
            throw;
        } else {
            ++m_files;
        }
    }
    return report() == FolderVisitResult::Stop ? FolderVisitResult::Stop : FolderVisitResult::Skip;
}

FolderVisitResult FolderCopyVisitor::report()
{
    if (m_observer && !m_stopped && !m_observer(TreeProgress{m_files.load(), m_folders, m_bytes.load()}))
        m_stopped = true;
    return m_stopped ? FolderVisitResult::Stop : FolderVisitResult::Continue;
}

void FolderCopyVisitor::abandon() { m_queue.reset(); }

void FolderCopyVisitor::finish()
{
    if (!m_queue)
        return;
    m_queue->drain([this] { report(); });
    report(); // the last copies may have ended before the wait began
    for (const Unfinished& folder : std::exchange(m_unfinished, {}))
        finishTarget(folder.source, folder.target, folder.madeWithMode, folder.time);
}

FolderVisitResult FolderCopyVisitor::visitBefore(const Folder& source)
{
    if (m_current) {
        try {
            if (source.getAttributes().isSymlink()) {
                if (m_links != LinkHandling::Follow)
                    return copyLink(HandleAccess::liveItem(source), source.getName());
                // A link that leads to the current target or above it would copy the copy; one that
                // leads to a folder holding the link itself would copy its own tree again and again.
                const CanonicalAbsoluteIRI leadsTo = source.getCanonicalLocation();
                const auto within = [&](const AbsoluteIRI& location) {
                    return leadsTo == location || leadsTo.isAncestorOf(location);
                };
                if (within(m_current->getLocation()) || within(source.getParent().getCanonicalLocation()))
                    boost::throw_exception(Exception(ErrorCode::InvalidLocation, leadsTo)
                                               .withExceptionContexts({provider::ExceptionContext(u"circular_symlink")}));
            }
        } catch (const Exception& error) {
            if (!isNotFound(error) || !(error.getLocation() == source.getLocation()))
                throw;
            return FolderVisitResult::Skip; // vanished since it was listed: nothing to copy
        }
    }
    Folder target = m_current ? Folder(*m_current, source.getName()) : m_destinationRoot;
    bool made = false;
    if (!target.folderExists()) {
        made = createTargetFolder(source, target);
    } else if (m_policy == ReplacementPolicy::FailIfExists) {
        boost::throw_exception(Exception(ErrorCode::ResourceAlreadyExists, target.getLocation()));
    } else if (m_policy == ReplacementPolicy::Replace) {
        // An existing non-empty folder makes the copy fail with FolderNotEmpty here.
        target.removeFolder(FolderRemovalPolicy::NonRecursive);
        made = createTargetFolder(source, target);
    }
    if (m_current && m_boundary && !m_boundary(source)) {
        // Kept out: the folder is there, empty, as finished as a filled one.
        finishTarget(source, target, made, timeOf(source));
        ++m_folders;
        return report() == FolderVisitResult::Stop ? FolderVisitResult::Stop : FolderVisitResult::Skip;
    }
    m_current = std::move(target);
    m_entered.push_back(source.getLocation());
    m_madeWithMode.push_back(made);
    ++m_folders;
    return report();
}

FolderVisitResult FolderCopyVisitor::visitFolderFailed(const Folder& source, const Exception& failure)
{
    if (m_policy != ReplacementPolicy::MergeCollectingFailures || failure.getErrorCode() != ErrorCode::PermissionDenied)
        return FolderVisitor::visitFolderFailed(source, failure);
    {
        std::lock_guard lock(m_collectedMutex);
        m_collected.push_back(failure);
    }
    // The folder's visitAfter will not come: the copy goes back up from its target here.
    if (!m_entered.empty() && m_entered.back() == source.getLocation()) {
        m_entered.pop_back();
        m_madeWithMode.pop_back();
        if (!(*m_current == m_destinationRoot))
            m_current = m_current->getParent();
    }
    return FolderVisitResult::Skip;
}

FolderVisitResult FolderCopyVisitor::visit(const File& source) { return visitFile(source, std::nullopt); }

FolderVisitResult FolderCopyVisitor::visitEntry(const FileEntry& source)
{
    const provider::FileAttributes* known = source.getKnownAttributes();
    return visitFile(source.getFile(), known ? std::optional<bool>(known->isSymlink()) : std::nullopt);
}

FolderVisitResult FolderCopyVisitor::visitFile(const File& source, std::optional<bool> link)
{
    if (m_links != LinkHandling::Follow && link.value_or(true)) {
        try {
            const provider::StorageItem& item = HandleAccess::liveItem(source);
            if (isLink(translated([&] { return item.existsExtended(); })))
                return copyLink(item, source.getName()) == FolderVisitResult::Stop ? FolderVisitResult::Stop
                                                                                    : FolderVisitResult::Continue;
        } catch (const Exception& error) {
            // As for a file: a source gone meanwhile, or a name the target cannot take, is passed over.
            if (error.getErrorCode() != ErrorCode::ResourceNotFound && error.getErrorCode() != ErrorCode::InvalidLocation)
                throw;
            return report();
        }
    }
    const File target(*m_current, source.getName());
    if (!m_queue)
        return copyOne(source, target, true) ? report() : FolderVisitResult::Stop;
    m_queue->submit(
        [this, source, target] {
            if (!m_stopped)
                copyOne(source, target, false);
        },
        [this] { report(); });
    return report();
}

bool FolderCopyVisitor::copyOne(const File& source, const File& target, bool onWalkingThread)
{
    // ReplaceIfNewer merges too: the provider compares the two times and skips an older source.
    const bool merging = m_policy == ReplacementPolicy::MergeFolders ||
                         m_policy == ReplacementPolicy::MergeCollectingFailures ||
                         m_policy == ReplacementPolicy::ReplaceIfNewer;
    try {
        // Not synced file by file: a move flushes the destination once, at the end, before the
        // source goes; a plain copy is left to the caller's flushFilesystem(), as cp leaves it.
        provider::CopyFileOptions options;
        // Without merging, a file already in the target is left as it is: the provider is told to
        // replace nothing, which asks the storage once instead of looking first and copying after.
        options.replacementPolicy = merging ? m_policy : ReplacementPolicy::FailIfExists;
        options.durable = false;
        std::uint64_t counted = 0;
        if (m_observer)
            options.progress = [&](std::uint64_t copied, std::uint64_t) {
                m_bytes += copied - counted;
                counted = copied;
                // Away from the walking thread the observer is told by the walk, not here.
                return onWalkingThread ? report() == FolderVisitResult::Continue : !m_stopped;
            };
        source.copyFile(target, options);
        if (m_stopped)
            return false; // abandoned part way: the provider left no target
    } catch (const Exception& error) {
        const ErrorCode code = error.getErrorCode();
        if (!merging && code == ErrorCode::ResourceAlreadyExists && target.fileExists()) {
            ++m_files;
            return true;
        }
        const bool sourceVanished = code == ErrorCode::ResourceNotFound && error.getLocation() == source.getLocation();
        const bool collected = m_policy == ReplacementPolicy::MergeCollectingFailures && code == ErrorCode::PermissionDenied;
        if (m_forMove && !sourceVanished && !collected)
            throw;
        if (collected) {
            std::lock_guard lock(m_collectedMutex);
            m_collected.push_back(error);
        } else if (code == ErrorCode::ResourceNotFound && !(error.getLocation() == source.getLocation()))
            // Not the source: a target folder has gone from under the copy.
            boost::throw_exception(Exception(ErrorCode::InvalidLocation, error.getLocation()));
        else if (code != ErrorCode::ResourceNotFound && code != ErrorCode::InvalidLocation)
            throw;
    }
    ++m_files;
    return true;
}

FolderVisitResult FolderCopyVisitor::visitAfter(const Folder& source)
{
    const Folder target = *m_current;
    bool madeWithMode = false;
    if (!m_entered.empty()) {
        m_entered.pop_back();
        madeWithMode = m_madeWithMode.back();
        m_madeWithMode.pop_back();
    }
    if (!(target == m_destinationRoot))
        m_current = target.getParent();
    // The folder's mode and time come after its files; its time is asked for now, while the
    // copies go on.
    if (m_queue) {
        m_unfinished.push_back({source, target, madeWithMode, timeOf(source)});
        if (m_unfinished.size() >= 1024)
            finish(); // a tree of many folders holds a bounded number of them
    } else {
        finishTarget(source, target, madeWithMode, timeOf(source));
    }
    return FolderVisitResult::Continue;
}

void FolderCopyVisitor::finishTarget(const Folder& source, const Folder& target, bool madeWithMode,
                                     const std::optional<boost::posix_time::ptime>& time)
{
    try {
        if (madeWithMode)
            translated([&] {
                modeKeeping(source, target)
                    ->finishFolderLike(HandleAccess::liveItem(target).getLocation(),
                                       HandleAccess::liveItem(source).getLocation());
            });
        if (time) // a source that vanished after its contents were copied keeps the copy's time
            target.setLastModified(*time);
    } catch (const Exception& error) {
        if (!isNotFound(error) || !(error.getLocation() == source.getLocation()))
            throw;
    }
}

EntryDeletionVisitor::EntryDeletionVisitor(Folder root, TreeProgressObserver observer, TreeBoundary boundary)
    : m_root(std::move(root)), m_observer(std::move(observer)), m_boundary(std::move(boundary))
{
}

FolderVisitResult EntryDeletionVisitor::report()
{
    return !m_observer || m_observer(m_progress) ? FolderVisitResult::Continue : FolderVisitResult::Stop;
}

FolderVisitResult EntryDeletionVisitor::visitBefore(const Folder& folder)
{
    bool link = false;
    try {
        link = folder.getAttributes().isSymlink();
    } catch (const Exception& error) {
        if (!isNotFound(error) || folder == m_root)
            throw;
        return FolderVisitResult::Skip;
    }
    if (!link) {
        if (!m_keeping.empty() && m_boundary && !m_boundary(folder)) {
            m_keeping.assign(m_keeping.size(), true); // nothing above it can go now
            return FolderVisitResult::Skip;
        }
        m_keeping.push_back(false);
        return FolderVisitResult::Continue;
    }
    return visit(File(folder.getParent(), folder.getName())) == FolderVisitResult::Stop ? FolderVisitResult::Stop
                                                                                          : FolderVisitResult::Skip;
}

FolderVisitResult EntryDeletionVisitor::visit(const File& file)
{
    try {
        file.removeFile();
    } catch (const Exception& error) {
        if (!isNotFound(error))
            throw;
    }
    ++m_progress.files;
    return report();
}

FolderVisitResult EntryDeletionVisitor::visitAfter(const Folder& folder)
{
    const bool keeping = !m_keeping.empty() && m_keeping.back();
    if (!m_keeping.empty())
        m_keeping.pop_back();
    if (keeping)
        return FolderVisitResult::Continue;
    try {
        folder.removeFolder(FolderRemovalPolicy::NonRecursive);
    } catch (const Exception& error) {
        if (!isNotFound(error) || folder == m_root)
            throw;
    }
    ++m_progress.folders;
    const FolderVisitResult answer = report();
    return folder == m_root ? FolderVisitResult::Continue : answer; // nothing is left to stop
}

namespace {

[[noreturn]] void refuseIntoItself(const AbsoluteIRI& target)
{
    boost::throw_exception(
        Exception(ErrorCode::InvalidLocation, target).withExceptionContexts({provider::ExceptionContext(u"into-itself")}));
}

} // namespace

bool copyTree(const Folder& source, const Folder& destination, ReplacementPolicy policy,
              const TreeProgressObserver& observer, bool forMove, LinkHandling links, const TreeBoundary& boundary)
{
    // Into its own subtree the copy would never end; onto itself it would overwrite what it reads.
    const AbsoluteIRI target = destination.getLocation();
    const AbsoluteIRI from = source.getLocation();
    if ((from == target || from.isAncestorOf(target)) && source.folderExists())
        refuseIntoItself(target);
    FolderCopyVisitor visitor(destination, policy, observer, forMove, transfersBetween(source, destination), links,
                              boundary);
    inBatch(destination, [&] {
        try {
            walkFolder(source, visitor);
            visitor.finish();
        } catch (...) {
            visitor.abandon(); // no copy runs on once the batch ends
            throw;
        }
    });
    if (visitor.stopped() && !destination.folderExists())
        return false; // stopped before the first folder was made
    if (forMove)
        Folder(destination).flushFilesystem(); // the source is removed next: the copy must outlive a crash
    if (visitor.stopped())
        return false;
    if (visitor.collected().empty())
        return true;
    // A fresh exception like the first: a copy would share its error information with the copy
    // inside the list it carries, and so never be freed.
    const Exception& first = visitor.collected().front();
    Exception contexts(first);
    std::deque<provider::ExceptionContext> kept;
    for (auto top = contexts.topExceptionContext(); top; top = contexts.topExceptionContext()) {
        kept.push_back(*top);
        contexts.popExceptionContext();
    }
    Exception summary(first.getErrorCode(), first.getLocation());
    summary.withExceptionContexts(std::move(kept));
    boost::throw_exception(boost::enable_error_info(summary) << CollectedCopyFailures(visitor.collected()));
}

bool removeTreeByWalking(const Folder& root, const TreeProgressObserver& observer, const TreeBoundary& boundary)
{
    EntryDeletionVisitor visitor(root, observer, boundary);
    return walkFolder(root, visitor) != FolderVisitResult::Stop;
}

} // namespace detail

void Folder::copyFolder(const Folder& destination, const provider::ReplacementPolicy& policy) const
{
    copyFolder(destination, policy, TreeProgressObserver());
}

bool Folder::copyFolder(const Folder& destination, const provider::ReplacementPolicy& policy,
                        const TreeProgressObserver& observer) const
{
    return detail::copyTree(*this, destination, policy, observer, false);
}

bool Folder::copyFolder(const Folder& destination, const provider::ReplacementPolicy& policy,
                        const TreeProgressObserver& observer, LinkHandling links,
                        const TreeBoundary& boundary) const
{
    return detail::copyTree(*this, destination, policy, observer, false, links, boundary);
}

std::ostream& operator<<(std::ostream& out, const LinkHandling& links)
{
    switch (links) {
    case LinkHandling::Follow:
        return out << "LinkHandling::Follow";
    case LinkHandling::Keep:
        return out << "LinkHandling::Keep";
    case LinkHandling::Skip:
        return out << "LinkHandling::Skip";
    }
    return out;
}

void Folder::copyFolderInto(const Folder& destination, const provider::ReplacementPolicy& policy) const
{
    copyFolder(Folder(destination, getName()), policy);
}

} // namespace foundation::storage::vfs
