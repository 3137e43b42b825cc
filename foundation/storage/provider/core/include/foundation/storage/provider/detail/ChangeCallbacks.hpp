#pragma once

// What the watchers of the providers share to hand their reports to callbacks.

#include <foundation/storage/provider/ChangeEvents.hpp>

#include <boost/property_tree/ptree.hpp>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace foundation::storage::provider {

// One change as a watcher found it, before it is handed to a callback.
struct ChangeReport {
    events::Kind kind;
    StorageIRI subscription;
    StorageIRI changed;
    events::EntryType entryType;
    boost::property_tree::ptree extra;
};

namespace detail {

// The callbacks of the live watches of one watcher, called with no lock held. remove() returns only
// once no call of that callback is running on another thread and none will start; called from inside
// the callback itself, it does not wait. Thread-safe.
class VFS_EXPORT CallbackTable {
public:
    using Id = std::uint64_t;

    Id add(ChangeEventCallback callback);
    void remove(Id id);
    void clear();
    // Calls the callback of `id` unless it has been removed; a callback's exception is logged on the
    // provider diagnostic channel and dropped, so that it never ends a watcher thread.
    void call(Id id, ChangeReport report);

private:
    std::mutex m_mutex;
    std::condition_variable m_idle;
    Id m_next = 1;
    std::unordered_map<Id, std::shared_ptr<const ChangeEventCallback>> m_callbacks;
    std::vector<std::pair<Id, std::thread::id>> m_running;
};

// Ends a worker thread whose state it shares: joins it, or detaches it when the last owner goes on
// that very thread (a callback released the provider), in which case the thread ends by itself.
VFS_EXPORT void finishThread(std::thread& thread);

} // namespace detail

} // namespace foundation::storage::provider
