#include <foundation/storage/vfs/Exception.hpp>

#include <boost/exception/get_error_info.hpp>
#include <boost/exception/info.hpp>

#include <sstream>

namespace foundation::storage::vfs {

namespace {

const char* errorCodeText(ErrorCode code) noexcept
{
    static const char* const names[] = {
        "ErrorCode::FolderNotEmpty",   "ErrorCode::InvalidLocation", "ErrorCode::PermissionDenied",
        "ErrorCode::ResourceAlreadyExists", "ErrorCode::ResourceNotFound", "ErrorCode::ReadOnlyProvider",
        "ErrorCode::FileTooLarge",     "ErrorCode::ResourceInUse",   "ErrorCode::NoSpaceLeft",
        "ErrorCode::IOError",          "ErrorCode::InternalError",   "ErrorCode::UnsupportedOperation",
        "ErrorCode::Unknown"};
    const auto index = static_cast<std::int64_t>(code);
    return index >= 0 && index < static_cast<std::int64_t>(std::size(names)) ? names[index] : "Unhandled ErrorCode";
}

std::string messageOf(const char* className, const char* field, const ustring& value)
{
    return std::string("foundation::storage::vfs::") + className + "{" + field + "=\"" +
           fl::i18n::ustring_to_utf8_lossy(value) + "\"}";
}

} // namespace

std::ostream& operator<<(std::ostream& out, const ErrorCode& code) { return out << errorCodeText(code); }

ErrorCode toErrorCode(provider::ErrorCode code) noexcept
{
    switch (static_cast<std::int32_t>(code)) {
    case 0: case 1: case 2: case 3: case 4: case 8: case 9: case 10: case 11:
        return static_cast<ErrorCode>(static_cast<std::int32_t>(code));
    case 5:
        return ErrorCode::FileTooLarge;
    case 6:
        return ErrorCode::ResourceInUse;
    case 7:
        return ErrorCode::ReadOnlyProvider;
    default:
        return ErrorCode::Unknown;
    }
}

Exception::Exception(const ErrorCode& code, const AbsoluteIRI& location)
{
    *this << ErrorCodeInfo(code) << AbsoluteIRIInfo(location);
}
Exception::Exception(const Exception&) = default;
Exception& Exception::operator=(const Exception&) = default;
Exception::~Exception() noexcept = default;

AbsoluteIRI Exception::getLocation() const { return *boost::get_error_info<AbsoluteIRIInfo>(*this); }
ErrorCode Exception::getErrorCode() const { return *boost::get_error_info<ErrorCodeInfo>(*this); }

namespace {

class ErrorCategory final : public std::error_category {
public:
    const char* name() const noexcept override { return "foundation::storage::vfs"; }
    std::string message(int value) const override
    {
        std::ostringstream text;
        text << static_cast<ErrorCode>(value);
        return text.str();
    }
};

} // namespace

const std::error_category& errorCategory() noexcept
{
    static const ErrorCategory category;
    return category;
}

std::error_code make_error_code(ErrorCode code) noexcept
{
    return {static_cast<int>(code), errorCategory()};
}

ustring Exception::getExceptionContextsString() const { return provider::joinContextKeys(m_contexts); }

void Exception::popExceptionContext() const
{
    if (!m_contexts.empty())
        m_contexts.pop_front();
}

std::optional<provider::ExceptionContext> Exception::topExceptionContext() const
{
    if (m_contexts.empty())
        return std::nullopt;
    return m_contexts.front();
}

Exception& Exception::withExceptionContexts(std::deque<provider::ExceptionContext> contexts)
{
    m_contexts = std::move(contexts);
    return *this;
}

boost::exception_detail::clone_base const* Exception::clone() const { return new Exception(*this); }
void Exception::rethrow() const { throw *this; }

ustring Exception::ToUstringImpl() const
{
    // The provider's class name and the doubled closing "\"}" are part of the established text that
    // log scrapers match on.
    return u"foundation::storage::provider::Exception{Location=\"" + getLocation().toAsciiString() +
           u"\", ErrorCode=\"" + fl::i18n::utf8_to_ustring_lossy(errorCodeText(getErrorCode())) + u"\"}" + u"\"} with ExceptionContext{\"" +
           getExceptionContextsString() + u"\"}";
}

ChangeEventsNotSupportedException::ChangeEventsNotSupportedException(const AbsoluteIRI& location)
{
    *this << AbsoluteIRIInfo(location);
}
AbsoluteIRI ChangeEventsNotSupportedException::getLocation() const
{
    return *boost::get_error_info<AbsoluteIRIInfo>(*this);
}
boost::exception_detail::clone_base const* ChangeEventsNotSupportedException::clone() const
{
    return new ChangeEventsNotSupportedException(*this);
}
void ChangeEventsNotSupportedException::rethrow() const { throw *this; }
ustring ChangeEventsNotSupportedException::ToUstringImpl() const
{
    return u"foundation::storage::vfs::ChangeEventsNotSupportedException{Location=\"" +
           getLocation().toAsciiString() + u"\"}";
}

ChangeEventsSubscriptionException::ChangeEventsSubscriptionException(const AbsoluteIRI& location)
{
    *this << AbsoluteIRIInfo(location);
}
AbsoluteIRI ChangeEventsSubscriptionException::getLocation() const
{
    return *boost::get_error_info<AbsoluteIRIInfo>(*this);
}
boost::exception_detail::clone_base const* ChangeEventsSubscriptionException::clone() const
{
    return new ChangeEventsSubscriptionException(*this);
}
void ChangeEventsSubscriptionException::rethrow() const { throw *this; }
ustring ChangeEventsSubscriptionException::ToUstringImpl() const
{
    return u"foundation::storage::vfs::ChangeEventsSubscriptionException{Location=\"" +
           getLocation().toAsciiString() + u"\"}";
}

InvalidIRIException::InvalidIRIException(const ustring& invalidIRIString)
    : m_invalidIRIString(invalidIRIString), m_message(messageOf("InvalidIRIException", "invalidIRIString", invalidIRIString))
{
}
InvalidIRIException::~InvalidIRIException() noexcept = default;

UnsupportedIRISchemeException::UnsupportedIRISchemeException(const ustring& scheme)
    : m_scheme(scheme), m_message(messageOf("UnsupportedIRISchemeException", "scheme", scheme))
{
}
UnsupportedIRISchemeException::~UnsupportedIRISchemeException() noexcept = default;

} // namespace foundation::storage::vfs
