#pragma once

#include <foundation/msg_svc/eventmgr/BaseEvent.hpp>
#include <foundation/storage/events/EventKinds.hpp>

#include <cstdint>
#include <ostream>
#include <string>

namespace foundation::storage::events {

using fl::i18n::ustring;

// The plain form of a change: its kind, the text of the changed item's location and its type.
class VFS_EXPORT SimpleEventData {
public:
    SimpleEventData(Kind kind, ustring location, EntryType entryType)
        : m_kind(kind), m_location(std::move(location)), m_entryType(entryType)
    {
    }
    Kind getKind() const noexcept { return m_kind; }
    const ustring& getLocation() const noexcept { return m_location; }
    EntryType getEntryType() const noexcept { return m_entryType; }
    friend bool operator==(const SimpleEventData&, const SimpleEventData&) = default;

private:
    Kind m_kind;
    ustring m_location;
    EntryType m_entryType;
};

// The base of every storage change event; concrete classes add their own forms of the data.
class VFS_EXPORT Event : public msg_svc::eventmgr::BaseEvent {
public:
    using EventBase = msg_svc::eventmgr::BaseEvent;
    static constexpr bool admitsUserTags = true;
    static std::string EventType() { return "foundation::storage::events::Event"; }

    explicit Event(boost::shared_ptr<const msg_svc::eventmgr::TypeInformation> typeInformation);
    ~Event() override;

    virtual SimpleEventData getSimpleEventData() const = 0;

protected:
    Event(const Event&) = default;
};

// The user tag of the events of `kind` reported for a subscription at `subscriptionLocation` (an
// IRI text): the location, one space, the kind ("file:///tmp/a Kind::Created"). An IRI's text holds
// no space, so eventTypePrefix(location) starts exactly the tags of that subscription location.
VFS_EXPORT ustring createEventType(Kind kind, const ustring& subscriptionLocation);
VFS_EXPORT ustring eventTypePrefix(const ustring& subscriptionLocation);

} // namespace foundation::storage::events
