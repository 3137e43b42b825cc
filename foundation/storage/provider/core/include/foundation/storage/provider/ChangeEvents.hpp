#pragma once

#include <foundation/storage/events/EventKinds.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/property_tree/ptree_fwd.hpp>

#include <cstdint>
#include <functional>
#include <vector>

namespace foundation::storage::provider {

// What a provider calls for each change it reports: the kind, the location that was subscribed
// to, the changed item, its type, and free-form extra data ("rename.cookie", "rename.from",
// "rename.to", "reason", ...). Called on the provider's own watcher or polling thread, never while a
// provider lock is held; an exception it throws is logged and dropped by the provider. Code that
// calls one, or builds one from a lambda, includes <boost/property_tree/ptree.hpp>.
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

} // namespace foundation::storage::provider
