#include <foundation/storage/events/Event.hpp>

namespace foundation::storage::events {

const char* toString(Kind kind) noexcept
{
    switch (kind) {
    case Kind::Created:
        return "Kind::Created";
    case Kind::Removed:
        return "Kind::Removed";
    case Kind::Modified:
        return "Kind::Modified";
    case Kind::AttributesChanged:
        return "Kind::AttributesChanged";
    case Kind::RenamedFrom:
        return "Kind::RenamedFrom";
    case Kind::RenamedTo:
        return "Kind::RenamedTo";
    case Kind::Overflow:
        return "Kind::Overflow";
    }
    return "Unhandled Kind";
}

const char* toString(EntryType type) noexcept
{
    switch (type) {
    case EntryType::File:
        return "EntryType::File";
    case EntryType::Folder:
        return "EntryType::Folder";
    }
    return "Unhandled EntryType";
}

std::ostream& operator<<(std::ostream& out, Kind kind) { return out << toString(kind); }
std::ostream& operator<<(std::ostream& out, EntryType type) { return out << toString(type); }

Event::Event(boost::shared_ptr<const msg_svc::eventmgr::TypeInformation> typeInformation)
    : BaseEvent(std::move(typeInformation))
{
}

Event::~Event() = default;

ustring eventTypePrefix(const ustring& subscriptionLocation) { return subscriptionLocation + u' '; }

ustring createEventType(Kind kind, const ustring& subscriptionLocation)
{
    const char* name = toString(kind);
    return eventTypePrefix(subscriptionLocation) + ustring(name, name + std::char_traits<char>::length(name));
}

} // namespace foundation::storage::events
