#pragma once

// The local provider's change notification: inotify, read on a thread of the watcher's own.

#include <foundation/storage/provider/detail/ChangeCallbacks.hpp>

#include <memory>
#include <optional>

namespace foundation::storage::provider::local::detail {

// File watches watch the file's folder for the file's name, so that a file replaced by a rename
// (as editors save) is still followed. Folder watches watch the folder; recursive ones every folder
// below it as well, adding folders created or moved in later. Renames carry the kernel's cookie, and
// both halves of a rename seen together name each other ("rename.from", "rename.to"). A folder
// created below a recursive watch is watched as soon as its creation is read; what it holds by then
// is reported as created (earlier changes to that content are not seen). A full kernel queue is
// reported as Overflow to every watch. Thread-safe.
class Watcher {
public:
    // Throws ChangeEventsSubscriptionException (or ChangeEventsNotSupportedException) when inotify
    // cannot be set up; `location` is named by that error.
    explicit Watcher(const StorageIRI& location);
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    // Ends every watch and the thread.
    ~Watcher();

    // Replace a watch of the same sort at the location; a start that fails leaves neither. Failures:
    // ResourceNotFound for a missing location or one of the other kind, PermissionDenied,
    // ChangeEventsSubscriptionException when the kernel's limit of watches is reached.
    void watchFile(const StorageIRI& location, ChangeEventCallback callback, ChangeKinds kinds);
    void watchFolder(const StorageIRI& location, ChangeEventCallback callback, ChangeKinds kinds, bool recursive);
    void unwatch(const StorageIRI& location, bool file);
    void unwatchAll();

    struct Core;

private:
    // Adds the kernel watches of a file (through its folder) or a folder (and its tree when
    // recursive), replacing an earlier watch of the same location.
    void start(const StorageIRI& location, ChangeEventCallback callback, ChangeKinds kinds, bool file, bool recursive);
    void finishStart(const StorageIRI& location, provider::detail::CallbackTable::Id added,
                     std::optional<provider::detail::CallbackTable::Id> replaced, int failure);

    std::shared_ptr<Core> m_core;
};

} // namespace foundation::storage::provider::local::detail
