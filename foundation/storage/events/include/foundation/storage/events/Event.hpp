#pragma once

#include <foundation/msg_svc/eventmgr/BaseEvent.hpp>

#include <cstdint>
#include <ostream>
#include <string>

namespace foundation::storage::events {

using fl::i18n::ustring;

// What happened to a watched item. The numbers travel between libraries and into logs.
enum class Kind : std::int32_t {
    Created = 0,
    Removed = 1,
    Modified = 2,          // content written
    AttributesChanged = 3, // times, permissions, owners, extended attributes
    RenamedFrom = 4,       // the item left this location; its RenamedTo partner shares "rename.cookie"
    RenamedTo = 5,         // the item arrived at this location
    // Changes were lost (the kernel's queue overflowed, a folder could not be watched): the watcher
    // should look again at the reported location. Delivered whatever kinds were asked for.
    Overflow = 6,
};

enum class EntryType : std::int32_t {
    File = 0,
    Folder = 1,
};

// "Kind::Created"; "Unhandled Kind" outside the enumeration (likewise for EntryType).
VFS_EXPORT const char* toString(Kind kind) noexcept;
VFS_EXPORT const char* toString(EntryType type) noexcept;
VFS_EXPORT std::ostream& operator<<(std::ostream& out, Kind kind);
VFS_EXPORT std::ostream& operator<<(std::ostream& out, EntryType type);

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
