#include <foundation/storage/provider/ChangeEvents.hpp>
#include <foundation/storage/provider/detail/ChangeCallbacks.hpp>

#include <foundation/log/diagnostic_logger.hpp>

#include <algorithm>

namespace foundation::storage::provider {

const char* toString(RecursiveFileWatching value) noexcept
{
    switch (value) {
    case RecursiveFileWatching::Recursive:
        return "RecursiveFileWatching::Recursive";
    case RecursiveFileWatching::NonRecursive:
        return "RecursiveFileWatching::NonRecursive";
    }
    return "Unhandled RecursiveFileWatching";
}

const char* toString(RecursiveChangePolling value) noexcept
{
    switch (value) {
    case RecursiveChangePolling::Recursive:
        return "RecursiveChangePolling::Recursive";
    case RecursiveChangePolling::NonRecursive:
        return "RecursiveChangePolling::NonRecursive";
    }
    return "Unhandled RecursiveChangePolling";
}

bool wantsKind(const ChangeKinds& kinds, events::Kind kind) noexcept
{
    return kinds.empty() || kind == events::Kind::Overflow || std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}

namespace detail {

namespace {

foundation::log::diagnostic_logger& watchLogger() noexcept
{
    // Never destroyed: watcher threads may report during process exit.
    static auto* instance = new foundation::log::diagnostic_logger("foundation::storage::provider::events");
    return *instance;
}

} // namespace

CallbackTable::Id CallbackTable::add(ChangeEventCallback callback)
{
    auto shared = std::make_shared<const ChangeEventCallback>(std::move(callback));
    std::lock_guard lock(m_mutex);
    const Id id = m_next++;
    m_callbacks.emplace(id, std::move(shared));
    return id;
}

void CallbackTable::remove(Id id)
{
    std::shared_ptr<const ChangeEventCallback> released; // destroyed with no lock held
    std::unique_lock lock(m_mutex);
    const auto found = m_callbacks.find(id);
    if (found == m_callbacks.end())
        return;
    released = std::move(found->second);
    m_callbacks.erase(found);
    const auto self = std::this_thread::get_id();
    m_idle.wait(lock, [&] {
        return std::none_of(m_running.begin(), m_running.end(),
                            [&](const auto& run) { return run.first == id && run.second != self; });
    });
}

void CallbackTable::clear()
{
    std::vector<Id> ids;
    {
        std::lock_guard lock(m_mutex);
        for (const auto& entry : m_callbacks)
            ids.push_back(entry.first);
    }
    for (const Id id : ids)
        remove(id);
}

void CallbackTable::call(Id id, ChangeReport report)
{
    std::shared_ptr<const ChangeEventCallback> callback;
    const auto self = std::this_thread::get_id();
    {
        std::lock_guard lock(m_mutex);
        const auto found = m_callbacks.find(id);
        if (found == m_callbacks.end())
            return;
        callback = found->second;
        m_running.emplace_back(id, self);
    }
    try {
        (*callback)(report.kind, report.subscription, report.changed, report.entryType, std::move(report.extra));
    } catch (...) {
        if (watchLogger().enabled(foundation::log::category_exception))
            watchLogger().write(foundation::log::category_exception,
                                "Exception caught: " + foundation::log::current_exception_chain_as_string());
    }
    // A callback removed meanwhile goes here, before remove() returns, with no lock held.
    callback.reset();
    // Notified under the lock: once remove() sees the call finished, the table may be destroyed.
    std::lock_guard lock(m_mutex);
    m_running.erase(std::find(m_running.begin(), m_running.end(), std::make_pair(id, self)));
    m_idle.notify_all();
}

void finishThread(std::thread& thread)
{
    if (!thread.joinable())
        return;
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
    else
        thread.join();
}

} // namespace detail

} // namespace foundation::storage::provider
