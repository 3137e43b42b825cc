#pragma once

#include <foundation/msg_svc/eventmgr/BaseEvent.hpp>

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace foundation::msg_svc::eventmgr {

// How publish() delivers an event.
enum class DeliveryOption : std::uint32_t {
    // On the publishing thread, before publish() returns.
    Synchronous = 0,
    // On the manager's own dispatcher thread, in the order of publication; publish() only queues.
    Queued = 1,
};

// Which events a subscriber receives.
struct EventFilter {
    EventFilter() = default;
    EventFilter(std::string type, std::optional<ustring> tag = std::nullopt, bool prefix = false)
        : eventType(std::move(type)), userTag(std::move(tag)), tagIsPrefix(prefix)
    {
    }

    // The event's class or one of its bases (BaseEvent's name: every event).
    std::string eventType = BaseEvent::EventType();
    // When set, the event must carry this user tag (or, with tagIsPrefix, a tag starting with it).
    std::optional<ustring> userTag;
    bool tagIsPrefix = false;
};

using EventCallback = std::function<void(const boost::shared_ptr<const BaseEvent>& event)>;

// One subscription. Destroying the connection disconnects it.
class VFS_EXPORT Connection {
public:
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    virtual ~Connection();

    // Ends the subscription; safe from any thread, any number of times, also after the manager is
    // gone. When it returns the callback is not running on any other thread and will not be called
    // again; called from inside the callback itself, it returns at once and that call finishes. The
    // callback object is released here unless it is running.
    virtual void disconnect();
    virtual bool isConnected() const;

    struct Slot;
    struct Core;

private:
    friend class EventMgr;
    Connection(std::shared_ptr<Slot> slot, std::weak_ptr<Core> core);
    std::shared_ptr<Slot> m_slot;
    std::weak_ptr<Core> m_core;
};

// Delivers published events to the subscribers whose filter they match. Thread-safe: any thread may
// publish, subscribe and disconnect at any time, also from inside a callback. A callback that throws
// loses that one event (the failure goes to the "foundation::msg_svc::eventmgr" diagnostic channel);
// the other subscribers still receive it. The dispatcher thread starts with the first queued event.
class VFS_EXPORT EventMgr {
public:
    EventMgr();
    EventMgr(const EventMgr&) = delete;
    EventMgr& operator=(const EventMgr&) = delete;
    // Queued events not yet delivered are dropped; waits for a delivery in progress unless called
    // from the dispatcher thread itself.
    virtual ~EventMgr();

    // `deliveryOption` is a DeliveryOption value; std::invalid_argument for a null event or an
    // unknown option.
    virtual void publish(boost::shared_ptr<const BaseEvent> event, std::uint32_t deliveryOption);
    // std::invalid_argument for an empty callback.
    virtual std::unique_ptr<Connection> subscribe(EventFilter filter, EventCallback callback);

private:
    std::shared_ptr<Connection::Core> m_core;
};

} // namespace foundation::msg_svc::eventmgr
