#pragma once

#include <fl/export.hpp>
#include <fl/i18n/ustring.hpp>

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <vector>

namespace foundation::msg_svc::eventmgr {

using fl::i18n::ustring;

// Describes an event's class for the event manager: the chain of its type names, most derived
// first and BaseEvent's last, and the user tags one event carries beyond its class (the storage
// events, for instance, tag each event with its subscription location and kind). Subscribers
// filter on both. Not synchronised: tags are added before the information is handed to an event,
// which shares it read-only afterwards.
class VFS_EXPORT TypeInformation {
public:
    TypeInformation(const TypeInformation&) = delete;
    TypeInformation& operator=(const TypeInformation&) = delete;
    virtual ~TypeInformation();

    // The type names, level 0 first; never empty.
    virtual const std::vector<std::string>& getTypeNames() const = 0;
    // Whether the described class lets its events carry user tags.
    virtual bool admitsUserTags() const = 0;
    virtual const std::type_info& getTypeId() const = 0;

    // The name at `level` of the chain; std::out_of_range "eventmgr::BaseEvent has no base types."
    // beyond the last level.
    const std::string& getTypeName(std::size_t level = 0) const;
    // Whether the class is the one named `typeName` or derives from it.
    bool isA(std::string_view typeName) const noexcept;

    // std::logic_error "cannot add user tags." for a class that admits none.
    void addUserTag(ustring tag);
    // std::out_of_range "userTags_ populated for event with NoUserEventTags" when a class that
    // admits no tags was given some.
    const std::vector<ustring>& getUserTags() const;
    bool hasUserTag(std::u16string_view tag) const noexcept;
    bool hasUserTagStartingWith(std::u16string_view prefix) const noexcept;

    // The same class with the same tags, in the same order.
    friend VFS_EXPORT bool operator==(const TypeInformation& a, const TypeInformation& b) noexcept;

protected:
    TypeInformation() = default;
    explicit TypeInformation(std::vector<ustring> userTags) : m_userTags(std::move(userTags)) {}

private:
    std::vector<ustring> m_userTags;
};

// The root of every event. An event class names itself and its direct base for the type chain:
//
//   class MyEvent : public BaseEvent {
//   public:
//       using EventBase = BaseEvent;
//       static constexpr bool admitsUserTags = true;
//       static std::string EventType() { return "my::MyEvent"; }
//       ...
//   };
//
// Events are immutable once published; the manager shares them between subscribers and threads.
class VFS_EXPORT BaseEvent {
public:
    static constexpr bool admitsUserTags = false;
    static std::string EventType() { return "foundation::msg_svc::eventmgr::BaseEvent"; }

    // std::invalid_argument when `typeInformation` is null.
    explicit BaseEvent(boost::shared_ptr<const TypeInformation> typeInformation);
    BaseEvent& operator=(const BaseEvent&) = delete;
    virtual ~BaseEvent();

    // A copy of the whole event, owned by the caller.
    virtual BaseEvent* clone() const = 0;
    // Whether fillStream() writes a form the event can be rebuilt from; the base's form is a
    // description for people, so false.
    virtual bool canBeSerialized() const;
    // Writes the type name and the user tags: "Type{tag, tag}".
    virtual void fillStream(std::ostream& out) const;
    // Whether the event may leave the process for out-of-process clients; the base keeps it in.
    virtual bool isQORVEXClientsAllowed() const;

    const TypeInformation& getTypeInformation() const noexcept { return *m_typeInformation; }
    const boost::shared_ptr<const TypeInformation>& getTypeInformationPointer() const noexcept
    {
        return m_typeInformation;
    }

protected:
    // Shares the type information.
    BaseEvent(const BaseEvent&) = default;

private:
    boost::shared_ptr<const TypeInformation> m_typeInformation;
};

namespace detail {

template <class T>
void appendTypeNames(std::vector<std::string>& names)
{
    names.push_back(T::EventType());
    if constexpr (!std::is_same_v<T, BaseEvent>) {
        static_assert(std::is_base_of_v<typename T::EventBase, T>, "EventBase must be the event's base class");
        appendTypeNames<typename T::EventBase>(names);
    }
}

} // namespace detail

// The type information of the event class T (see BaseEvent for what T declares).
template <class T>
class DerivedTypeInformation final : public TypeInformation {
public:
    DerivedTypeInformation() = default;
    // Takes the tags as they are, also for a class that admits none (getUserTags then refuses).
    explicit DerivedTypeInformation(std::vector<ustring> userTags) : TypeInformation(std::move(userTags)) {}

    const std::vector<std::string>& getTypeNames() const override
    {
        static const std::vector<std::string> names = [] {
            std::vector<std::string> chain;
            detail::appendTypeNames<T>(chain);
            return chain;
        }();
        return names;
    }
    bool admitsUserTags() const override { return T::admitsUserTags; }
    const std::type_info& getTypeId() const override { return typeid(T); }
};

} // namespace foundation::msg_svc::eventmgr
