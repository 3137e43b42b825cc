#pragma once

// The memory provider's change notification: the provider records each change it makes, and a
// thread of the notifier's own matches the records against the watches and calls their callbacks,
// so that no callback runs under the provider's lock or on the changing thread.

#include <foundation/storage/provider/ChangeEvents.hpp>

#include <atomic>
#include <memory>

#include <boost/property_tree/ptree.hpp>

namespace foundation::storage::provider::memory::detail {

class Notifier {
public:
    Notifier();
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;
    // Ends every watch and the thread.
    ~Notifier();

    // Whether any watch exists; changes need not be recorded otherwise.
    bool active() const noexcept;
    // Queues one change; cheap, never blocks on a callback. Called under the provider's lock, which
    // keeps the records in the order of the changes.
    void record(events::Kind kind, StorageIRI changed, bool folder, boost::property_tree::ptree extra = {});
    // A file watch reports changes of `location` itself; a folder watch also those of its children
    // and, when recursive, of everything below it. Replaces a watch of the same sort and location.
    void watch(const StorageIRI& location, bool file, bool recursive, ChangeEventCallback callback, ChangeKinds kinds);
    void unwatch(const StorageIRI& location, bool file);
    void unwatchAll();
    // A cookie shared by the two halves of one rename.
    std::uint64_t nextCookie() noexcept;

    struct Core;

private:
    std::shared_ptr<Core> m_core;
};

} // namespace foundation::storage::provider::memory::detail
