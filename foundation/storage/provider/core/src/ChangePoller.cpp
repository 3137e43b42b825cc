#include <foundation/storage/provider/ChangePoller.hpp>

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/detail/ChangeCallbacks.hpp>

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace foundation::storage::provider {

namespace {

using Clock = std::chrono::steady_clock;

struct EntryState {
    bool isFile;
    std::uint64_t size;
    boost::posix_time::ptime modified;
    bool writable;
};

// Relative path -> state; nullopt when the folder itself could not be found.
using Snapshot = std::optional<std::map<ustring, EntryState>>;

void collect(const IProvider& provider, const StorageIRI& folder, const ustring& prefix, bool recursive,
             std::map<ustring, EntryState>& into)
{
    std::vector<ustring> subfolders;
    for (auto it = provider.list(folder, ListOptions{ListKind::All, true, {}, false}); it->hasNext();) {
        it->next();
        const FolderEntry entry = it->current();
        const ustring path = prefix + entry.getName();
        if (entry.isFile()) {
            const auto& attributes = entry.getFileAttributes();
            into[path] = attributes ? EntryState{true, attributes->getSize(), attributes->getLastModified(), attributes->isWritable()}
                                    : EntryState{true, 0, {}, true};
        } else {
            const auto& attributes = entry.getFolderAttributes();
            into[path] = EntryState{false, 0, {}, attributes ? attributes->isWritable() : true};
            if (recursive)
                subfolders.push_back(entry.getName());
        }
    }
    for (const ustring& name : subfolders) {
        try {
            collect(provider, StorageIRI(folder, name), prefix + name + u"/", true, into);
        } catch (const Exception& error) {
            // Gone between the two listings: its removal shows in the next snapshot.
            if (error.getErrorCode() != ErrorCode::ResourceNotFound)
                throw;
        }
    }
}

Snapshot snapshotOf(const IProvider& provider, const StorageIRI& folder, bool recursive)
{
    std::map<ustring, EntryState> entries;
    try {
        collect(provider, folder, {}, recursive, entries);
    } catch (const Exception& error) {
        if (error.getErrorCode() == ErrorCode::ResourceNotFound)
            return std::nullopt;
        throw;
    }
    return entries;
}

void diff(const StorageIRI& folder, const Snapshot& before, const Snapshot& after, std::vector<ChangeReport>& out)
{
    const auto report = [&](events::Kind kind, const ustring& path, bool isFile) {
        out.push_back(ChangeReport{kind, folder, path.empty() ? folder : StorageIRI(folder, path),
                                   isFile ? events::EntryType::File : events::EntryType::Folder, {}});
    };
    static const std::map<ustring, EntryState> none;
    const auto& old = before ? *before : none;
    const auto& now = after ? *after : none;
    if (!before && after)
        report(events::Kind::Created, {}, false);
    // Removals deepest first, as a disk reports them; creations parents first.
    for (auto it = old.rbegin(); it != old.rend(); ++it) {
        const auto found = now.find(it->first);
        if (found == now.end() || found->second.isFile != it->second.isFile)
            report(events::Kind::Removed, it->first, it->second.isFile);
    }
    for (const auto& [path, state] : now) {
        const auto found = old.find(path);
        if (found == old.end() || found->second.isFile != state.isFile) {
            report(events::Kind::Created, path, state.isFile);
            continue;
        }
        const EntryState& was = found->second;
        if (state.isFile && (state.size != was.size || state.modified != was.modified))
            report(events::Kind::Modified, path, true);
        if (state.writable != was.writable)
            report(events::Kind::AttributesChanged, path, state.isFile);
    }
    if (before && !after)
        report(events::Kind::Removed, {}, false);
}

} // namespace

struct ChangePoller::Core {
    struct Polling {
        detail::CallbackTable::Id callback;
        ChangeKinds kinds;
        Clock::duration interval;
        bool recursive;
        Snapshot snapshot;
        Clock::time_point due;
    };

    explicit Core(const IProvider& p) : provider(p) {}

    const IProvider& provider;
    detail::CallbackTable callbacks;
    std::mutex mutex;
    std::condition_variable wake;
    std::map<StorageIRI, Polling> pollings;
    bool stopping = false;
    std::thread thread;

    // Runs on the polling thread, which keeps the core alive through `self`.
    static void run(std::shared_ptr<Core> self)
    {
        std::unique_lock lock(self->mutex);
        while (!self->stopping) {
            if (self->pollings.empty()) {
                self->wake.wait(lock);
                continue;
            }
            auto next = self->pollings.begin();
            for (auto it = self->pollings.begin(); it != self->pollings.end(); ++it)
                if (it->second.due < next->second.due)
                    next = it;
            if (const Clock::time_point due = next->second.due; Clock::now() < due) {
                // A copy: the polling may be stopped, and its entry erased, while this waits.
                self->wake.wait_until(lock, due);
                continue;
            }
            const StorageIRI folder = next->first;
            const Polling polling = next->second;
            lock.unlock();
            std::vector<ChangeReport> reports;
            Snapshot fresh = polling.snapshot;
            try {
                fresh = snapshotOf(self->provider, folder, polling.recursive);
                diff(folder, polling.snapshot, fresh, reports);
            } catch (...) {
                // The storage cannot be read just now: say so once per failed round, try again later.
                boost::property_tree::ptree extra;
                extra.put("reason", "the folder could not be listed");
                reports.push_back(ChangeReport{events::Kind::Overflow, folder, folder, events::EntryType::Folder, extra});
            }
            lock.lock();
            const auto current = self->pollings.find(folder);
            // Stopped or restarted meanwhile: what was found belongs to a polling that is gone.
            if (current == self->pollings.end() || current->second.callback != polling.callback)
                continue;
            current->second.snapshot = std::move(fresh);
            current->second.due = Clock::now() + polling.interval;
            lock.unlock();
            for (auto& report : reports)
                if (wantsKind(polling.kinds, report.kind))
                    self->callbacks.call(polling.callback, std::move(report));
            lock.lock();
        }
    }
};

ChangePoller::ChangePoller(const IProvider& provider) : m_core(std::make_shared<Core>(provider)) {}

ChangePoller::~ChangePoller()
{
    stopAll();
    std::thread thread;
    {
        std::lock_guard lock(m_core->mutex);
        m_core->stopping = true;
        thread = std::move(m_core->thread);
        m_core->wake.notify_all();
    }
    detail::finishThread(thread);
}

void ChangePoller::start(const StorageIRI& folder, ChangeEventCallback callback, ChangeKinds kinds,
                         std::chrono::milliseconds interval, RecursiveChangePolling recursive)
{
    if (interval.count() <= 0)
        throwProviderError(ErrorCode::InvalidLocation, folder, {ExceptionContext(u"startChangePollingMechanism"), ExceptionContext(u"interval")},
                           u"the polling interval must be positive");
    const bool deep = recursive == RecursiveChangePolling::Recursive;
    std::map<ustring, EntryState> entries;
    collect(m_core->provider, folder, {}, deep, entries); // a missing folder fails as the provider says
    Core::Polling polling{0, std::move(kinds), interval, deep, std::move(entries), Clock::now() + interval};
    polling.callback = m_core->callbacks.add(std::move(callback));
    std::optional<detail::CallbackTable::Id> replaced;
    {
        std::lock_guard lock(m_core->mutex);
        const auto found = m_core->pollings.find(folder);
        if (found != m_core->pollings.end()) {
            replaced = found->second.callback;
            found->second = std::move(polling);
        } else {
            m_core->pollings.emplace(folder, std::move(polling));
        }
        if (!m_core->thread.joinable())
            m_core->thread = std::thread(&Core::run, m_core);
        m_core->wake.notify_all();
    }
    if (replaced)
        m_core->callbacks.remove(*replaced);
}

void ChangePoller::stop(const StorageIRI& folder)
{
    std::optional<detail::CallbackTable::Id> id;
    {
        std::lock_guard lock(m_core->mutex);
        const auto found = m_core->pollings.find(folder);
        if (found == m_core->pollings.end())
            return;
        id = found->second.callback;
        m_core->pollings.erase(found);
        m_core->wake.notify_all();
    }
    m_core->callbacks.remove(*id);
}

void ChangePoller::stopAll()
{
    {
        std::lock_guard lock(m_core->mutex);
        m_core->pollings.clear();
        m_core->wake.notify_all();
    }
    m_core->callbacks.clear();
}

} // namespace foundation::storage::provider
