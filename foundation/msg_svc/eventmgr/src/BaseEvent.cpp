#include <foundation/msg_svc/eventmgr/BaseEvent.hpp>

#include <algorithm>
#include <stdexcept>

namespace foundation::msg_svc::eventmgr {

TypeInformation::~TypeInformation() = default;

const std::string& TypeInformation::getTypeName(std::size_t level) const
{
    const auto& names = getTypeNames();
    if (level >= names.size())
        throw std::out_of_range("eventmgr::BaseEvent has no base types.");
    return names[level];
}

bool TypeInformation::isA(std::string_view typeName) const noexcept
{
    const auto& names = getTypeNames();
    return std::find(names.begin(), names.end(), typeName) != names.end();
}

void TypeInformation::addUserTag(ustring tag)
{
    if (!admitsUserTags())
        throw std::logic_error("cannot add user tags.");
    m_userTags.push_back(std::move(tag));
}

const std::vector<ustring>& TypeInformation::getUserTags() const
{
    if (!admitsUserTags() && !m_userTags.empty())
        throw std::out_of_range("userTags_ populated for event with NoUserEventTags");
    return m_userTags;
}

bool TypeInformation::hasUserTag(std::u16string_view tag) const noexcept
{
    return std::find(m_userTags.begin(), m_userTags.end(), tag) != m_userTags.end();
}

bool TypeInformation::hasUserTagStartingWith(std::u16string_view prefix) const noexcept
{
    return std::any_of(m_userTags.begin(), m_userTags.end(),
                       [prefix](const ustring& tag) { return std::u16string_view(tag).starts_with(prefix); });
}

bool operator==(const TypeInformation& a, const TypeInformation& b) noexcept
{
    return a.getTypeId() == b.getTypeId() && a.m_userTags == b.m_userTags;
}

BaseEvent::BaseEvent(boost::shared_ptr<const TypeInformation> typeInformation)
    : m_typeInformation(std::move(typeInformation))
{
    if (!m_typeInformation)
        throw std::invalid_argument("BaseEvent: the type information is null");
}

BaseEvent::~BaseEvent() = default;

bool BaseEvent::canBeSerialized() const { return false; }

void BaseEvent::fillStream(std::ostream& out) const
{
    out << m_typeInformation->getTypeName() << '{';
    const char* separator = "";
    for (const ustring& tag : m_typeInformation->getUserTags()) {
        out << separator << fl::i18n::ustring_to_utf8_lossy(tag);
        separator = ", ";
    }
    out << '}';
}

bool BaseEvent::isQORVEXClientsAllowed() const { return false; }

} // namespace foundation::msg_svc::eventmgr
