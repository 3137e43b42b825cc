#pragma once

#include <foundation/storage/events/Event.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/property_tree/ptree.hpp>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <thread>
#include <unordered_map>
#include <vector>

namespace foundation::storage::provider {

// What a provider calls for each change it reports: the kind, the location that was subscribed
// to, the changed item, its type, and free-form extra data ("rename.cookie", "rename.from",
// "rename.to", "reason", ...). Called on the provider's own watcher or polling thread, never while a
// provider lock is held; an exception it throws is logged and dropped by the provider.
using ChangeEventCallback = std::function<void(const events::Kind& kind, const StorageIRI& subscription,
                                               const StorageIRI& changed, const events::EntryType& entryType,
                                               boost::property_tree::ptree extra)>;

// Which kinds a watch reports; empty means every kind. Overflow is reported whatever is asked for.
using ChangeKinds = std::vector<events::Kind>;

enum class RecursiveFileWatching : std::int32_t {
    Recursive = 0,    // the folder and everything below it, including folders created later
    NonRecursive = 1, // the folder itself and its direct children
};

enum class RecursiveChangePolling : std::int32_t {
    Recursive = 0,
    NonRecursive = 1,
};

VFS_EXPORT const char* toString(RecursiveFileWatching value) noexcept;
VFS_EXPORT const char* toString(RecursiveChangePolling value) noexcept;

// Whether a watch asked for `kinds` reports `kind`.
VFS_EXPORT bool wantsKind(const ChangeKinds& kinds, events::Kind kind) noexcept;

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
