#include <foundation/msg_svc/eventmgr/EventMgr.hpp>

#include <foundation/log/diagnostic_logger.hpp>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace foundation::msg_svc::eventmgr {

namespace {

foundation::log::diagnostic_logger& logger() noexcept
{
    // Never destroyed: callbacks may still fail on the dispatcher thread during process exit.
    static auto* instance = new foundation::log::diagnostic_logger("foundation::msg_svc::eventmgr");
    return *instance;
}

} // namespace

// One subscription. `callback` is called with no lock held; `running` lists the threads inside it,
// which disconnect() waits out.
struct Connection::Slot {
    Slot(EventFilter f, EventCallback c) : filter(std::move(f)), callback(std::move(c)) {}

    bool matches(const TypeInformation& type) const noexcept
    {
        if (!type.isA(filter.eventType))
            return false;
        if (!filter.userTag)
            return true;
        return filter.tagIsPrefix ? type.hasUserTagStartingWith(*filter.userTag) : type.hasUserTag(*filter.userTag);
    }

    void deliver(const boost::shared_ptr<const BaseEvent>& event)
    {
        const auto self = std::this_thread::get_id();
        {
            std::lock_guard lock(mutex);
            if (!connected)
                return;
            running.push_back(self);
        }
        try {
            callback(event);
        } catch (...) {
            if (logger().enabled(foundation::log::category_exception))
                logger().write(foundation::log::category_exception,
                               "Exception caught: " + foundation::log::current_exception_chain_as_string());
        }
        std::lock_guard lock(mutex);
        running.erase(std::find(running.begin(), running.end(), self));
        idle.notify_all();
    }

    const EventFilter filter;
    std::mutex mutex;
    std::condition_variable idle;
    bool connected = true;
    std::vector<std::thread::id> running;
    EventCallback callback;
};

// What the manager, its connections and its dispatcher thread share. The subscriber list is
// copied on change, so that a delivery works on a snapshot without holding the lock.
struct Connection::Core {
    using Slots = std::vector<std::shared_ptr<Slot>>;

    std::mutex mutex;
    std::shared_ptr<const Slots> slots = std::make_shared<const Slots>();
    std::condition_variable wake;
    std::deque<boost::shared_ptr<const BaseEvent>> queue;
    bool stopping = false;
    std::thread dispatcher;

    std::shared_ptr<const Slots> snapshot()
    {
        std::lock_guard lock(mutex);
        return slots;
    }

    void deliver(const boost::shared_ptr<const BaseEvent>& event)
    {
        const auto current = snapshot();
        const TypeInformation& type = event->getTypeInformation();
        for (const auto& slot : *current)
            if (slot->matches(type))
                slot->deliver(event);
    }

    void remove(const Slot* slot)
    {
        std::lock_guard lock(mutex);
        auto changed = std::make_shared<Slots>();
        changed->reserve(slots->size());
        for (const auto& each : *slots)
            if (each.get() != slot)
                changed->push_back(each);
        slots = std::move(changed);
    }

    // Runs on the dispatcher thread, which keeps the core alive through `self`.
    static void dispatch(std::shared_ptr<Core> self)
    {
        std::unique_lock lock(self->mutex);
        for (;;) {
            self->wake.wait(lock, [&] { return self->stopping || !self->queue.empty(); });
            if (self->stopping)
                return;
            auto event = std::move(self->queue.front());
            self->queue.pop_front();
            lock.unlock();
            self->deliver(event);
            event.reset();
            lock.lock();
        }
    }
};

Connection::Connection(std::shared_ptr<Slot> slot, std::weak_ptr<Core> core)
    : m_slot(std::move(slot)), m_core(std::move(core))
{
}

Connection::~Connection() { disconnect(); }

void Connection::disconnect()
{
    EventCallback released; // destroyed with no lock held
    {
        std::unique_lock lock(m_slot->mutex);
        if (!m_slot->connected)
            return;
        m_slot->connected = false;
        const auto self = std::this_thread::get_id();
        m_slot->idle.wait(lock, [&] {
            return std::all_of(m_slot->running.begin(), m_slot->running.end(),
                               [self](std::thread::id id) { return id == self; });
        });
        if (m_slot->running.empty())
            released = std::move(m_slot->callback);
    }
    if (const auto core = m_core.lock())
        core->remove(m_slot.get());
}

bool Connection::isConnected() const
{
    std::lock_guard lock(m_slot->mutex);
    return m_slot->connected;
}

EventMgr::EventMgr() : m_core(std::make_shared<Connection::Core>()) {}

EventMgr::~EventMgr()
{
    std::thread dispatcher;
    {
        std::lock_guard lock(m_core->mutex);
        m_core->stopping = true;
        m_core->queue.clear();
        dispatcher = std::move(m_core->dispatcher);
    }
    m_core->wake.notify_all();
    if (!dispatcher.joinable())
        return;
    // Destroyed by a callback on the dispatcher thread: that thread ends by itself once the
    // callback returns.
    if (dispatcher.get_id() == std::this_thread::get_id())
        dispatcher.detach();
    else
        dispatcher.join();
}

void EventMgr::publish(boost::shared_ptr<const BaseEvent> event, std::uint32_t deliveryOption)
{
    if (!event)
        throw std::invalid_argument("EventMgr::publish: the event is null");
    switch (static_cast<DeliveryOption>(deliveryOption)) {
    case DeliveryOption::Synchronous:
        m_core->deliver(event);
        return;
    case DeliveryOption::Queued: {
        std::lock_guard lock(m_core->mutex);
        if (!m_core->dispatcher.joinable())
            m_core->dispatcher = std::thread(&Connection::Core::dispatch, m_core);
        m_core->queue.push_back(std::move(event));
        m_core->wake.notify_one();
        return;
    }
    }
    throw std::invalid_argument("EventMgr::publish: unknown delivery option " + std::to_string(deliveryOption));
}

std::unique_ptr<Connection> EventMgr::subscribe(EventFilter filter, EventCallback callback)
{
    if (!callback)
        throw std::invalid_argument("EventMgr::subscribe: the callback is empty");
    auto slot = std::make_shared<Connection::Slot>(std::move(filter), std::move(callback));
    {
        std::lock_guard lock(m_core->mutex);
        auto changed = std::make_shared<Connection::Core::Slots>(*m_core->slots);
        changed->push_back(slot);
        m_core->slots = std::move(changed);
    }
    return std::unique_ptr<Connection>(new Connection(std::move(slot), m_core));
}

} // namespace foundation::msg_svc::eventmgr
