#include <foundation/storage/provider/Exception.hpp>

#include <boost/throw_exception.hpp>

namespace foundation::storage::provider {

ustring joinContextKeys(const ExceptionContexts& contexts)
{
    ustring out;
    for (const auto& context : contexts) {
        if (!out.empty())
            out += u':';
        out += context.getExceptionContextKey();
    }
    return out;
}

ExceptionContext::ExceptionContext(ustring key, ustring detail) : m_key(std::move(key)), m_detail(std::move(detail)) {}

Exception::Exception(ErrorCode code, StorageIRI location, ustring message)
    : m_code(code), m_location(std::move(location)), m_message(std::move(message))
{
}
Exception::Exception(const Exception&) = default;
Exception& Exception::operator=(const Exception&) = default;
Exception::~Exception() noexcept = default;

Exception& Exception::withContext(ustring key, ustring detail)
{
    m_contexts.emplace_back(std::move(key), std::move(detail));
    return *this;
}

Exception& Exception::withExceptionContexts(ExceptionContexts contexts)
{
    m_contexts = std::move(contexts);
    return *this;
}

boost::exception_detail::clone_base const* Exception::clone() const { return new Exception(*this); }
void Exception::rethrow() const { throw *this; }

ustring Exception::ToUstringImpl() const
{
    ustring text = u"foundation::storage::provider::Exception{Location=\"" + m_location.toAsciiString() +
                   u"\", ErrorCode=\"" + fl::i18n::utf8_to_ustring_lossy(toString(m_code)) + u"\", Contexts=\"" + joinContextKeys(m_contexts) + u"\"}";
    if (!m_message.empty())
        text += u": " + m_message;
    return text;
}

ChangeEventsNotSupportedException::ChangeEventsNotSupportedException(StorageIRI location)
    : m_location(std::move(location))
{
}
boost::exception_detail::clone_base const* ChangeEventsNotSupportedException::clone() const
{
    return new ChangeEventsNotSupportedException(*this);
}
void ChangeEventsNotSupportedException::rethrow() const { throw *this; }
ustring ChangeEventsNotSupportedException::ToUstringImpl() const
{
    return u"foundation::storage::provider::ChangeEventsNotSupportedException{Location=\"" +
           m_location.toAsciiString() + u"\"}";
}

ChangeEventsSubscriptionException::ChangeEventsSubscriptionException(StorageIRI location, ustring reason)
    : m_location(std::move(location)), m_reason(std::move(reason))
{
}
boost::exception_detail::clone_base const* ChangeEventsSubscriptionException::clone() const
{
    return new ChangeEventsSubscriptionException(*this);
}
void ChangeEventsSubscriptionException::rethrow() const { throw *this; }
ustring ChangeEventsSubscriptionException::ToUstringImpl() const
{
    ustring text = u"foundation::storage::provider::ChangeEventsSubscriptionException{Location=\"" +
                   m_location.toAsciiString() + u"\"}";
    if (!m_reason.empty())
        text += u": " + m_reason;
    return text;
}

ByteStreamFailure::ByteStreamFailure(std::string message, ErrorCode code, ExceptionContexts contexts)
    : m_message(std::move(message)), m_code(code), m_contexts(std::move(contexts))
{
}
ByteStreamFailure::ByteStreamFailure(const ByteStreamFailure&) = default;
ByteStreamFailure& ByteStreamFailure::operator=(const ByteStreamFailure&) = default;
ByteStreamFailure::~ByteStreamFailure() noexcept = default;
ustring ByteStreamFailure::ToUstringImpl() const { return fl::i18n::utf8_to_ustring_lossy(m_message); }

void throwProviderError(ErrorCode code, const StorageIRI& location, ExceptionContexts contexts, ustring message)
{
    boost::throw_exception(Exception(code, location, std::move(message)).withExceptionContexts(std::move(contexts)));
}

} // namespace foundation::storage::provider
