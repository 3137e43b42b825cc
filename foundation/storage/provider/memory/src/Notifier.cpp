#include "Notifier.hpp"

#include <foundation/storage/provider/detail/ChangeCallbacks.hpp>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace foundation::storage::provider::memory::detail {

namespace {

using provider::detail::CallbackTable;

struct Record {
    std::uint64_t sequence; // the order of changes
    events::Kind kind;
    StorageIRI changed;
    bool folder;
    boost::property_tree::ptree extra;
};

struct Watch {
    CallbackTable::Id callback;
    std::uint64_t since; // the sequence of the first change it may see: none made before it began
    bool recursive;
    ChangeKinds kinds;
};

} // namespace

struct Notifier::Core {
    using Key = std::pair<StorageIRI, bool>; // location, file watch

    std::atomic<std::size_t> watchCount{0};
    std::atomic<std::uint64_t> cookies{0};
    CallbackTable callbacks;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Record> records;
    std::uint64_t recorded = 0;
    std::map<Key, Watch> watches;
    bool stopping = false;
    std::thread thread;

    static bool covers(const StorageIRI& location, bool file, const Watch& watch, const StorageIRI& changed)
    {
        if (changed == location)
            return true;
        if (file)
            return false;
        return watch.recursive ? location.isAncestorOf(changed) : changed.hasParent() && changed.getParent() == location;
    }

    // Runs on the notifier thread, which keeps the core alive through `self`.
    static void run(std::shared_ptr<Core> self)
    {
        std::unique_lock lock(self->mutex);
        for (;;) {
            self->wake.wait(lock, [&] { return self->stopping || !self->records.empty(); });
            if (self->stopping)
                return;
            std::deque<Record> batch;
            batch.swap(self->records);
            std::vector<std::pair<CallbackTable::Id, ChangeReport>> calls;
            for (Record& record : batch)
                for (const auto& [key, watch] : self->watches)
                    if (record.sequence >= watch.since && wantsKind(watch.kinds, record.kind) &&
                        covers(key.first, key.second, watch, record.changed))
                        calls.emplace_back(watch.callback,
                                           ChangeReport{record.kind, key.first, record.changed,
                                                        record.folder ? events::EntryType::Folder : events::EntryType::File,
                                                        record.extra});
            lock.unlock();
            for (auto& [id, report] : calls)
                self->callbacks.call(id, std::move(report));
            lock.lock();
        }
    }
};

Notifier::Notifier() : m_core(std::make_shared<Core>()) {}

Notifier::~Notifier()
{
    unwatchAll();
    std::thread thread;
    {
        std::lock_guard lock(m_core->mutex);
        m_core->stopping = true;
        thread = std::move(m_core->thread);
        m_core->wake.notify_all();
    }
    provider::detail::finishThread(thread);
}

bool Notifier::active() const noexcept { return m_core->watchCount.load(std::memory_order_acquire) != 0; }

std::uint64_t Notifier::nextCookie() noexcept { return m_core->cookies.fetch_add(1, std::memory_order_relaxed) + 1; }

void Notifier::record(events::Kind kind, StorageIRI changed, bool folder, boost::property_tree::ptree extra)
{
    std::lock_guard lock(m_core->mutex);
    m_core->records.push_back(Record{m_core->recorded++, kind, std::move(changed), folder, std::move(extra)});
    m_core->wake.notify_one();
}

void Notifier::watch(const StorageIRI& location, bool file, bool recursive, ChangeEventCallback callback, ChangeKinds kinds)
{
    const auto id = m_core->callbacks.add(std::move(callback));
    std::optional<CallbackTable::Id> replaced;
    {
        std::lock_guard lock(m_core->mutex);
        const Core::Key key(location, file);
        const auto found = m_core->watches.find(key);
        if (found != m_core->watches.end()) {
            replaced = found->second.callback;
            found->second = Watch{id, m_core->recorded, recursive, std::move(kinds)};
        } else {
            m_core->watches.emplace(key, Watch{id, m_core->recorded, recursive, std::move(kinds)});
            m_core->watchCount.fetch_add(1, std::memory_order_release);
        }
        if (!m_core->thread.joinable())
            m_core->thread = std::thread(&Core::run, m_core);
    }
    if (replaced)
        m_core->callbacks.remove(*replaced);
}

void Notifier::unwatch(const StorageIRI& location, bool file)
{
    CallbackTable::Id id = 0;
    {
        std::lock_guard lock(m_core->mutex);
        const auto found = m_core->watches.find(Core::Key(location, file));
        if (found == m_core->watches.end())
            return;
        id = found->second.callback;
        m_core->watches.erase(found);
        m_core->watchCount.fetch_sub(1, std::memory_order_release);
    }
    m_core->callbacks.remove(id);
}

void Notifier::unwatchAll()
{
    {
        std::lock_guard lock(m_core->mutex);
        m_core->watches.clear();
        m_core->watchCount.store(0, std::memory_order_release);
    }
    m_core->callbacks.clear();
}

} // namespace foundation::storage::provider::memory::detail
