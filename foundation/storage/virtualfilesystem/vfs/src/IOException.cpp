#include <foundation/storage/vfs/IOException.hpp>

namespace foundation::storage::vfs {

IOException::IOException(const std::string& message, ErrorCode code)
    : std::ios_base::failure(message, std::io_errc::stream),
      m_message(message.empty() ? "iostream stream error" : message + ": iostream stream error"), m_errorCode(code)
{
}
IOException::IOException(const IOException&) = default;
// Moves leave the source with no message; its what() then says "Unknown exception".
IOException::IOException(IOException&& other) noexcept
    : core::except::IInternalException(other), std::ios_base::failure(other), m_message(std::move(other.m_message)),
      m_errorCode(other.m_errorCode), m_contexts(std::move(other.m_contexts))
{
}
IOException& IOException::operator=(const IOException&) = default;
IOException& IOException::operator=(IOException&& other) noexcept
{
    std::ios_base::failure::operator=(other);
    m_message = std::move(other.m_message);
    m_errorCode = other.m_errorCode;
    m_contexts = std::move(other.m_contexts);
    return *this;
}
IOException::~IOException() noexcept = default;

const char* IOException::what() const noexcept
{
    return m_message.empty() ? "Unknown exception" : m_message.c_str();
}

ustring IOException::getExceptionContextsString() const { return provider::joinContextKeys(m_contexts); }

void IOException::popExceptionContext() const
{
    if (!m_contexts.empty())
        m_contexts.pop_front();
}

std::optional<provider::ExceptionContext> IOException::topExceptionContext() const
{
    if (m_contexts.empty())
        return std::nullopt;
    return m_contexts.front();
}

void IOException::setExceptionContexts(std::deque<provider::ExceptionContext> contexts)
{
    m_contexts = std::move(contexts);
}

#define VFS_IO_EXCEPTION_BODY(Name)                                                              \
    Name::Name(ErrorCode code) : IOException(#Name, code) {}                                     \
    Name::Name(const std::string& message, ErrorCode code) : IOException(message, code) {}      \
    Name::~Name() noexcept = default;
VFS_IO_EXCEPTION_BODY(IOReadException)
VFS_IO_EXCEPTION_BODY(IOWriteException)
VFS_IO_EXCEPTION_BODY(IOSeekException)
VFS_IO_EXCEPTION_BODY(IOCloseException)
#undef VFS_IO_EXCEPTION_BODY

} // namespace foundation::storage::vfs
