#pragma once

#include <foundation/storage/provider/ChangeEvents.hpp>
#include <foundation/storage/provider/IProvider.hpp>

#include <fl/chrono/duration.hpp>
#include <memory>

namespace foundation::storage::provider {

// Change polling for any provider: snapshots a folder's listing with attributes at an interval,
// compares it with the previous one and reports Created, Removed, Modified (a file's size or time)
// and AttributesChanged (writability). A rename is seen as Removed and Created. A folder that
// disappears is reported Removed after its content, and Created when it comes back. One thread per
// poller serves every polled folder; it starts with the first polling.
class VFS_EXPORT ChangePoller {
public:
    // `provider` lists the folders; it must outlive the poller (a provider owns its poller).
    explicit ChangePoller(const IProvider& provider);
    ChangePoller(const ChangePoller&) = delete;
    ChangePoller& operator=(const ChangePoller&) = delete;
    // Stops every polling.
    ~ChangePoller();

    // Polls `folder`, replacing a polling of it already running. The first snapshot is taken before
    // this returns, so every later change is reported; its failure is thrown (ResourceNotFound for a
    // missing folder). A non-positive interval is refused with InvalidLocation.
    void start(const StorageIRI& folder, ChangeEventCallback callback, ChangeKinds kinds,
               std::chrono::milliseconds interval, RecursiveChangePolling recursive);
    // Does nothing for a folder that is not polled. Returns once the folder's callback is not
    // running on another thread.
    void stop(const StorageIRI& folder);
    void stopAll();

    struct Core;

private:
    std::shared_ptr<Core> m_core;
};

} // namespace foundation::storage::provider
