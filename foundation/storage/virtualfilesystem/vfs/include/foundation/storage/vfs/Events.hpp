#pragma once

#include <foundation/storage/events/Event.hpp>
#include <foundation/storage/vfs/File.hpp>
#include <foundation/storage/vfs/Folder.hpp>

#include <boost/property_tree/ptree_fwd.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/variant/variant.hpp>

#include <fl/chrono/duration.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <iosfwd>
#include <string>
#include <vector>

namespace foundation::msg_svc::eventmgr {
class Connection;
class EventMgr;
} // namespace foundation::msg_svc::eventmgr

namespace foundation::storage::vfs {

// Change events of files and folders. The plain way is a watch handle:
//
//   auto watch = vfs::watch(folder, [](const vfs::Event& change) { ... }, {.recursive = true});
//   ...                // the watch ends when `watch` is destroyed or stopped
//
// The lower level publishes into the storage system's event manager, to which any number of
// subscribers connect; there a live watch keeps its storage system alive (the provider holds the
// publisher, which holds the system) until unsubscribe or the system's shutdown.

enum class WithRecursiveChangeEvents : std::int32_t {
    Yes = 0,
    No = 1,
};

// "WithRecursiveChangeEvents::Yes" for 0, "WithRecursiveChangeEvents::No" for any other value.
VFS_EXPORT std::ostream& operator<<(std::ostream& out, const WithRecursiveChangeEvents& value);

// What changed, as a handle.
class VFS_EXPORT EventData {
public:
    EventData(const events::Kind& kind, const boost::variant<File, Folder>& fileOrFolder);
    events::Kind getKind() const { return m_kind; }
    boost::variant<File, Folder> getFileOrFolder() const { return m_fileOrFolder; }

private:
    events::Kind m_kind;
    boost::variant<File, Folder> m_fileOrFolder;
};

// The provider's free-form data about a change (for example "rename.cookie").
class VFS_EXPORT ExtendedEventData {
public:
    ExtendedEventData() = default;
    explicit ExtendedEventData(boost::property_tree::ptree data);
    // True when the tree's root has no children (a value at the root alone does not count).
    bool empty() const;
    boost::property_tree::ptree getData() const;
    // The subtree at the '.'-separated path; std::runtime_error "Unable to extract extended event
    // data property <path>" when there is none.
    boost::property_tree::ptree getData(const ustring& property) const;

private:
    // Shared between the copies of one event, which never change it; null for no data.
    std::shared_ptr<const boost::property_tree::ptree> m_data;
};

// A change of a watched file or folder, published to the storage system's event manager. Its type
// information carries one user tag, events::createEventType(kind, subscription location text), so
// that subscribers can pick the events of one watch (events::eventTypePrefix) or of one kind.
// Immutable; every getter returns a copy.
class VFS_EXPORT Event : public events::Event {
public:
    using EventBase = events::Event;
    static constexpr bool admitsUserTags = true;
    static std::string EventType() { return "foundation::storage::vfs::Event"; }

    Event(const events::Kind& kind, const AbsoluteIRI& subscriptionLocation, const boost::variant<File, Folder>& item,
          boost::property_tree::ptree extendedData);
    Event(const Event& other);
    ~Event() override;

    msg_svc::eventmgr::BaseEvent* clone() const override;
    events::SimpleEventData getSimpleEventData() const override { return m_simpleData; }

    EventData getEventData() const { return m_eventData; }
    // Where the change happened: the location of the changed file or folder.
    AbsoluteIRI getLocation() const;
    // The location given when subscribing; an ancestor of the changed item for folder watches.
    AbsoluteIRI getEventSubscriptionLocation() const { return m_subscriptionLocation; }
    ExtendedEventData getExtendedEventData() const { return m_extendedData; }
    bool hasExtendedEventData() const { return !m_extendedData.empty(); }

private:
    AbsoluteIRI m_subscriptionLocation;
    events::SimpleEventData m_simpleData;
    EventData m_eventData;
    ExtendedEventData m_extendedData;
};

// The callback a watch hands the provider: turns each report into an Event and publishes it with
// `deliveryOption`. Runs on the provider's watcher or polling thread. A report for a location no
// storage system serves is dropped; other failures propagate to the provider, which logs them.
class VFS_EXPORT EventPublisher {
public:
    EventPublisher(std::shared_ptr<StorageSystem> storageSystem,
                   boost::shared_ptr<msg_svc::eventmgr::EventMgr> eventMgr, std::uint32_t deliveryOption);

    void operator()(const events::Kind& kind, const provider::StorageIRI& subscription,
                    const provider::StorageIRI& changed, const events::EntryType& entryType,
                    boost::property_tree::ptree extra) const;

private:
    std::shared_ptr<StorageSystem> m_storageSystem;
    boost::shared_ptr<msg_svc::eventmgr::EventMgr> m_eventMgr;
    std::uint32_t m_deliveryOption;
};

// The publisher of a recursive watch; behaves as EventPublisher.
class VFS_EXPORT RecursiveEventPublisher {
public:
    RecursiveEventPublisher(std::shared_ptr<StorageSystem> storageSystem,
                            boost::shared_ptr<msg_svc::eventmgr::EventMgr> eventMgr, std::uint32_t deliveryOption,
                            const AbsoluteIRI& subscriptionLocation);

    void operator()(const events::Kind& kind, const provider::StorageIRI& subscription,
                    const provider::StorageIRI& changed, const events::EntryType& entryType,
                    boost::property_tree::ptree extra) const;

private:
    EventPublisher m_publisher;
};

// How vfs::watch watches.
struct WatchOptions {
    // A folder's whole tree, not only its children (the provider must watch trees itself).
    bool recursive = false;
    // Zero: the provider's own watching (inotify on the local disk). Otherwise the folder's listing
    // is compared at this interval, which any provider can do.
    std::chrono::milliseconds pollInterval{0};
    // The kinds to report; empty: every kind.
    std::vector<events::Kind> kinds{};
};

// A running watch: stops when destroyed, moved over or stopped, and releases then everything the
// watch holds (the provider's watch, its thread's share, the callback). Holds no storage system,
// so it never keeps one alive. Movable, not copyable; one object is used by one thread at a time.
class VFS_EXPORT Watch {
public:
    Watch() noexcept;
    Watch(Watch&& other) noexcept;
    Watch& operator=(Watch&& other) noexcept;
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch();

    // Ends the watch: once it returns, the callback is not running and is not called again, except
    // when called from inside the callback, which then finishes its current call. Safe at any time,
    // also after the storage system has gone; a provider failure while stopping is logged.
    void stop() noexcept;
    bool active() const noexcept;

    // What the library's watch function starts; defined in the library only.
    struct State;
    explicit Watch(std::shared_ptr<State> state) noexcept;

private:
    std::shared_ptr<State> m_state;
};

// Watches a file or a folder and calls `callback` with each change until the returned Watch ends.
// The callback runs on the provider's watcher or polling thread, one call at a time; a slow
// callback delays the reports after it (a full kernel queue is reported as events::Kind::Overflow).
// An exception leaving it is logged. A report whose storage system has gone is dropped.
// A provider keeps one watch per location and way of watching: a second watch of the same location
// replaces the first. Failures: Exception with InvalidLocation for a recursive or polling watch
// of a file, UnsupportedOperation for a recursive watch the provider cannot do; the provider's
// translated (ResourceNotFound for a missing item, ChangeEventsSubscriptionException when the
// watch cannot be added); std::runtime_error when the storage system has gone.
VFS_EXPORT Watch watch(const boost::variant<File, Folder>& item, std::function<void(const Event&)> callback,
                       WatchOptions options = {});
// As above, for what is at `location` now.
VFS_EXPORT Watch watch(const AbsoluteIRI& location, const StorageSystemReference& system,
                       std::function<void(const Event&)> callback, WatchOptions options = {});

// Stops the item's watch, then (when `connection` is not null) disconnects it.
VFS_EXPORT void unsubscribe(const boost::variant<File, Folder>& item,
                            const std::unique_ptr<msg_svc::eventmgr::Connection>& connection);
// Stops the folder's polling, then (when `connection` is not null) disconnects it.
VFS_EXPORT void unsubscribeFromChangePolling(const Folder& folder,
                                             const std::unique_ptr<msg_svc::eventmgr::Connection>& connection);

namespace detail {

// Starts watching `item` (recursively, for a folder, with Yes) and returns the event manager to
// subscribe to, which stays valid as long as the storage system keeps it. An empty `kinds` asks for
// every kind. Failures: ChangeEventsNotSupportedException when the storage system has no event
// manager (the provider is not asked); Exception with UnsupportedOperation for a recursive watch the
// provider cannot do, InvalidLocation for a recursive watch of a file; the provider's failures
// translated (ResourceNotFound for a missing item, ChangeEventsSubscriptionException when the
// watch cannot be added).
VFS_EXPORT msg_svc::eventmgr::EventMgr& publishEventsFor(const boost::variant<File, Folder>& item,
                                                         const std::vector<events::Kind>& kinds,
                                                         WithRecursiveChangeEvents recursive);
VFS_EXPORT void stopPublishingEventsFor(const boost::variant<File, Folder>& item);
// Polls `folder` every `interval` and returns the event manager (failures as publishEventsFor).
VFS_EXPORT msg_svc::eventmgr::EventMgr& startChangePolling(const Folder& folder, const std::vector<events::Kind>& kinds,
                                                           std::chrono::milliseconds interval);
VFS_EXPORT void stopChangePollingFor(const Folder& folder);

} // namespace detail

} // namespace foundation::storage::vfs
