#include <foundation/storage/vfs/Events.hpp>

#include <foundation/msg_svc/eventmgr/EventMgr.hpp>

#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/detail/Logger.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <boost/make_shared.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/throw_exception.hpp>
#include <boost/variant/apply_visitor.hpp>
#include <boost/variant/get.hpp>

#include <atomic>
#include <stdexcept>

namespace foundation::storage::vfs {

namespace {

namespace eventmgr = msg_svc::eventmgr;
using FileOrFolder = boost::variant<File, Folder>;

// Every publisher the library makes delivers on the event manager's dispatcher thread, so that no
// subscriber runs on (and holds up) a provider's watcher thread.
constexpr auto libraryDeliveryOption = static_cast<std::uint32_t>(eventmgr::DeliveryOption::Queued);

AbsoluteIRI locationOf(const FileOrFolder& item)
{
    return boost::apply_visitor([](const auto& handle) { return handle.getLocation(); }, item);
}

StorageSystemReference storageSystemOf(const FileOrFolder& item)
{
    return boost::apply_visitor([](const auto& handle) { return handle.getStorageSystem(); }, item);
}

boost::shared_ptr<const eventmgr::TypeInformation> typeInformationFor(events::Kind kind, const AbsoluteIRI& subscription)
{
    auto information = boost::make_shared<eventmgr::DerivedTypeInformation<Event>>();
    information->addUserTag(events::createEventType(kind, subscription.toString()));
    return information;
}

// The event manager to publish into; ChangeEventsNotSupportedException when there is none.
boost::shared_ptr<eventmgr::EventMgr> eventMgrFor(const StorageSystemReference& system, const AbsoluteIRI& location)
{
    auto manager = detail::StorageSystemAccess::getEventMgr(system);
    if (!manager)
        boost::throw_exception(ChangeEventsNotSupportedException(location));
    return manager;
}

// The Event of one provider report, its handles bound to `system`; null for a location that no
// storage system serves (it has no handle).
boost::shared_ptr<const Event> makeEvent(const StorageSystemReference& system, const events::Kind& kind,
                                         const provider::StorageIRI& subscription, const provider::StorageIRI& changed,
                                         const events::EntryType& entryType, boost::property_tree::ptree extra)
{
    try {
        const AbsoluteIRI location = detail::IRIAccess::make(changed, true);
        const FileOrFolder item = static_cast<std::int32_t>(entryType) != 0 ? FileOrFolder(Folder(location, system))
                                                                            : FileOrFolder(File(location, system));
        return boost::make_shared<const Event>(kind, detail::IRIAccess::make(subscription, true), item, std::move(extra));
    } catch (const UnsupportedIRISchemeException&) {
        return nullptr;
    }
}

bool systemLives(const StorageSystemReference& system) noexcept
{
    try {
        return system.lock() != nullptr;
    } catch (...) {
        return false;
    }
}

} // namespace

namespace detail {

struct EventAccess {
    static void publish(const File& file, const EventPublisher& publisher, const std::vector<events::Kind>& kinds)
    {
        file.publishEvents(publisher, kinds);
    }
    static void publish(const Folder& folder, const EventPublisher& publisher, const std::vector<events::Kind>& kinds)
    {
        folder.publishEvents(publisher, kinds);
    }
    template <class Handle>
    static void publishRecursively(const Handle& handle, const RecursiveEventPublisher& publisher,
                                   const std::vector<events::Kind>& kinds)
    {
        handle.publishEventsRecursively(publisher, kinds);
    }
    template <class Handle>
    static void stop(const Handle& handle)
    {
        handle.stopPublishingEvents();
    }
    static void startPolling(const Folder& folder, const EventPublisher& publisher, const std::vector<events::Kind>& kinds,
                             std::chrono::milliseconds interval)
    {
        folder.startChangePolling(publisher, kinds, interval);
    }
    static void stopPolling(const Folder& folder) { folder.stopChangePolling(); }
};

} // namespace detail

// ---- WithRecursiveChangeEvents, EventData, ExtendedEventData, Event ------------------------------

std::ostream& operator<<(std::ostream& out, const WithRecursiveChangeEvents& value)
{
    return out << (static_cast<std::int32_t>(value) == 0 ? "WithRecursiveChangeEvents::Yes"
                                                         : "WithRecursiveChangeEvents::No");
}

EventData::EventData(const events::Kind& kind, const boost::variant<File, Folder>& fileOrFolder)
    : m_kind(kind), m_fileOrFolder(fileOrFolder)
{
}

ExtendedEventData::ExtendedEventData(boost::property_tree::ptree data)
    : m_data(std::make_shared<const boost::property_tree::ptree>(std::move(data)))
{
}

bool ExtendedEventData::empty() const
{
    return !m_data || m_data->empty();
}

boost::property_tree::ptree ExtendedEventData::getData() const
{
    return m_data ? *m_data : boost::property_tree::ptree();
}

boost::property_tree::ptree ExtendedEventData::getData(const ustring& property) const
{
    std::string path;
    try {
        path = fl::i18n::ustring_to_utf8(property);
        static const boost::property_tree::ptree none;
        return (m_data ? *m_data : none).get_child(boost::property_tree::ptree::path_type(path, '.'));
    } catch (...) {
        throw std::runtime_error("Unable to extract extended event data property " +
                                 (path.empty() ? fl::i18n::ustring_to_utf8_lossy(property) : path));
    }
}

Event::Event(const events::Kind& kind, const AbsoluteIRI& subscriptionLocation, const boost::variant<File, Folder>& item,
             boost::property_tree::ptree extendedData)
    : events::Event(typeInformationFor(kind, subscriptionLocation)),
      m_subscriptionLocation(subscriptionLocation),
      m_simpleData(kind, locationOf(item).toString(),
                   boost::get<Folder>(&item) ? events::EntryType::Folder : events::EntryType::File),
      m_eventData(kind, item),
      m_extendedData(std::move(extendedData))
{
}

Event::Event(const Event& other) = default;

AbsoluteIRI Event::getLocation() const { return locationOf(m_eventData.getFileOrFolder()); }
Event::~Event() = default;

msg_svc::eventmgr::BaseEvent* Event::clone() const { return new Event(*this); }

// ---- publishers -------------------------------------------------------------------------------

EventPublisher::EventPublisher(std::shared_ptr<StorageSystem> storageSystem,
                               boost::shared_ptr<msg_svc::eventmgr::EventMgr> eventMgr, std::uint32_t deliveryOption)
    : m_storageSystem(std::move(storageSystem)), m_eventMgr(std::move(eventMgr)), m_deliveryOption(deliveryOption)
{
}

void EventPublisher::operator()(const events::Kind& kind, const provider::StorageIRI& subscription,
                                const provider::StorageIRI& changed, const events::EntryType& entryType,
                                boost::property_tree::ptree extra) const
{
    if (!m_storageSystem) {
        auto& log = detail::logger();
        if (log.enabled(foundation::log::category_results))
            log.write(foundation::log::category_results, "Storage system found to be null");
        return;
    }
    if (!m_eventMgr)
        return;
    const StorageSystemReference reference{std::weak_ptr<StorageSystem>(m_storageSystem)};
    if (auto event = makeEvent(reference, kind, subscription, changed, entryType, std::move(extra)))
        m_eventMgr->publish(std::move(event), m_deliveryOption);
}

RecursiveEventPublisher::RecursiveEventPublisher(std::shared_ptr<StorageSystem> storageSystem,
                                                 boost::shared_ptr<msg_svc::eventmgr::EventMgr> eventMgr,
                                                 std::uint32_t deliveryOption, const AbsoluteIRI&)
    : m_publisher(std::move(storageSystem), std::move(eventMgr), deliveryOption)
{
}

void RecursiveEventPublisher::operator()(const events::Kind& kind, const provider::StorageIRI& subscription,
                                         const provider::StorageIRI& changed, const events::EntryType& entryType,
                                         boost::property_tree::ptree extra) const
{
    m_publisher(kind, subscription, changed, entryType, std::move(extra));
}

// ---- the handles' watch operations --------------------------------------------------------------

void File::publishEvents(const EventPublisher& publisher, const std::vector<events::Kind>& kinds) const
{
    detail::translated([&] { live().publishFileEvents(provider::ChangeEventCallback(publisher), kinds); });
}

void File::publishEventsRecursively(const RecursiveEventPublisher&, const std::vector<events::Kind>&) const
{
    boost::throw_exception(Exception(ErrorCode::InvalidLocation, getLocation()));
}

void File::stopPublishingEvents() const
{
    detail::translated([&] { live().stopPublishingFileEvents(); });
}

void Folder::publishEvents(const EventPublisher& publisher, const std::vector<events::Kind>& kinds) const
{
    detail::translated([&] {
        live().publishFolderEvents(provider::ChangeEventCallback(publisher), kinds,
                                   provider::RecursiveFileWatching::NonRecursive);
    });
}

void Folder::publishEventsRecursively(const RecursiveEventPublisher& publisher, const std::vector<events::Kind>& kinds) const
{
    const bool native = detail::translated([&] { return live().hasFeature(provider::ExtendedFeature::RecursiveWatching); });
    if (!native)
        boost::throw_exception(Exception(ErrorCode::UnsupportedOperation, getLocation()));
    detail::translated([&] {
        live().publishFolderEvents(provider::ChangeEventCallback(publisher), kinds,
                                   provider::RecursiveFileWatching::Recursive);
    });
}

void Folder::stopPublishingEvents() const
{
    detail::translated([&] { live().stopPublishingFolderEvents(); });
}

void Folder::startChangePolling(const EventPublisher& publisher, const std::vector<events::Kind>& kinds,
                                std::chrono::milliseconds interval) const
{
    detail::translated([&] {
        live().startChangePollingMechanism(provider::ChangeEventCallback(publisher), kinds, interval,
                                           provider::RecursiveChangePolling::NonRecursive);
    });
}

void Folder::stopChangePolling() const
{
    detail::translated([&] { live().stopChangePollingMechanism(); });
}

// ---- subscribing and unsubscribing --------------------------------------------------------------

namespace detail {

msg_svc::eventmgr::EventMgr& publishEventsFor(const boost::variant<File, Folder>& item,
                                              const std::vector<events::Kind>& kinds, WithRecursiveChangeEvents recursive)
{
    const StorageSystemReference reference = storageSystemOf(item);
    const auto manager = eventMgrFor(reference, locationOf(item));
    if (recursive == WithRecursiveChangeEvents::No) {
        const EventPublisher publisher(reference.lock(), manager, libraryDeliveryOption);
        boost::apply_visitor([&](const auto& handle) { EventAccess::publish(handle, publisher, kinds); }, item);
    } else {
        const RecursiveEventPublisher publisher(reference.lock(), manager, libraryDeliveryOption, locationOf(item));
        boost::apply_visitor([&](const auto& handle) { EventAccess::publishRecursively(handle, publisher, kinds); }, item);
    }
    return *manager;
}

void stopPublishingEventsFor(const boost::variant<File, Folder>& item)
{
    boost::apply_visitor([](const auto& handle) { EventAccess::stop(handle); }, item);
}

msg_svc::eventmgr::EventMgr& startChangePolling(const Folder& folder, const std::vector<events::Kind>& kinds,
                                                std::chrono::milliseconds interval)
{
    const StorageSystemReference reference = folder.getStorageSystem();
    const auto manager = eventMgrFor(reference, folder.getLocation());
    EventAccess::startPolling(folder, EventPublisher(reference.lock(), manager, libraryDeliveryOption), kinds, interval);
    return *manager;
}

void stopChangePollingFor(const Folder& folder) { EventAccess::stopPolling(folder); }

} // namespace detail

// ---- watch handles ------------------------------------------------------------------------------

struct Watch::State {
    // The provider's item: it stops the watch also after the storage system has gone.
    provider::StorageItem item;
    enum class Way { File, Folder, Polling } way = Way::File;
    std::atomic<bool> running{true};

    explicit State(provider::StorageItem watched) : item(std::move(watched)) {}
};

Watch::Watch() noexcept = default;
Watch::Watch(std::shared_ptr<State> state) noexcept : m_state(std::move(state)) {}
Watch::Watch(Watch&& other) noexcept = default;

Watch& Watch::operator=(Watch&& other) noexcept
{
    if (this != &other) {
        stop();
        m_state = std::move(other.m_state);
    }
    return *this;
}

Watch::~Watch() { stop(); }

bool Watch::active() const noexcept { return m_state && m_state->running.load(); }

void Watch::stop() noexcept
{
    // Kept here until the provider has let go of the callback: stopping from inside the callback
    // may release the last other owner.
    const std::shared_ptr<State> state = std::move(m_state);
    if (!state || !state->running.exchange(false))
        return;
    try {
        switch (state->way) {
        case State::Way::File:
            state->item.stopPublishingFileEvents();
            break;
        case State::Way::Folder:
            state->item.stopPublishingFolderEvents();
            break;
        case State::Way::Polling:
            state->item.stopChangePollingMechanism();
            break;
        }
    } catch (...) {
        auto& log = detail::logger();
        if (log.enabled(foundation::log::category_exception))
            log.write(foundation::log::category_exception,
                      "Exception caught: " + foundation::log::current_exception_chain_as_string());
    }
}

Watch watch(const boost::variant<File, Folder>& item, std::function<void(const Event&)> callback, WatchOptions options)
{
    if (!callback)
        boost::throw_exception(std::invalid_argument("A watch needs a callback."));
    const Folder* folder = boost::get<Folder>(&item);
    const AbsoluteIRI location = locationOf(item);
    if (!folder && (options.recursive || options.pollInterval.count() > 0))
        boost::throw_exception(Exception(ErrorCode::InvalidLocation, location));
    const provider::StorageItem& live =
        folder ? detail::HandleAccess::liveItem(*folder) : detail::HandleAccess::liveItem(boost::get<File>(item));
    const bool recursiveNative =
        folder && options.recursive && options.pollInterval.count() == 0 &&
        detail::translated([&] { return live.hasFeature(provider::ExtendedFeature::RecursiveWatching); });
    if (folder && options.recursive && options.pollInterval.count() == 0 && !recursiveNative)
        boost::throw_exception(Exception(ErrorCode::UnsupportedOperation, location));
    auto state = std::make_shared<Watch::State>(live);
    // The provider holds the callback; it reaches the storage system only through the reference.
    provider::ChangeEventCallback report =
        [system = storageSystemOf(item), callback = std::move(callback)](
            const events::Kind& kind, const provider::StorageIRI& subscription, const provider::StorageIRI& changed,
            const events::EntryType& entryType, boost::property_tree::ptree extra) {
            boost::shared_ptr<const Event> event;
            try {
                event = makeEvent(system, kind, subscription, changed, entryType, std::move(extra));
            } catch (const std::runtime_error&) {
                if (systemLives(system))
                    throw;
                return; // the storage system has gone: no handle, no event
            }
            if (event)
                callback(*event);
        };
    detail::translated([&] {
        if (!folder) {
            live.publishFileEvents(std::move(report), options.kinds);
        } else if (options.pollInterval.count() > 0) {
            state->way = Watch::State::Way::Polling;
            live.startChangePollingMechanism(std::move(report), options.kinds, options.pollInterval,
                                             options.recursive ? provider::RecursiveChangePolling::Recursive
                                                               : provider::RecursiveChangePolling::NonRecursive);
        } else {
            state->way = Watch::State::Way::Folder;
            live.publishFolderEvents(std::move(report), options.kinds,
                                     options.recursive ? provider::RecursiveFileWatching::Recursive
                                                       : provider::RecursiveFileWatching::NonRecursive);
        }
    });
    return Watch(std::move(state));
}

Watch watch(const AbsoluteIRI& location, const StorageSystemReference& system, std::function<void(const Event&)> callback,
            WatchOptions options)
{
    if (exists(location, system) == provider::ExistenceType::File)
        return watch(File(location, system), std::move(callback), std::move(options));
    return watch(Folder(location, system), std::move(callback), std::move(options));
}

void unsubscribe(const boost::variant<File, Folder>& item, const std::unique_ptr<msg_svc::eventmgr::Connection>& connection)
{
    detail::stopPublishingEventsFor(item);
    if (connection)
        connection->disconnect();
}

void unsubscribeFromChangePolling(const Folder& folder, const std::unique_ptr<msg_svc::eventmgr::Connection>& connection)
{
    detail::stopChangePollingFor(folder);
    if (connection)
        connection->disconnect();
}

} // namespace foundation::storage::vfs
