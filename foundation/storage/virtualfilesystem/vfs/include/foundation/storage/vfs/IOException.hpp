#pragma once

#include <foundation/core/except/Exception.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/vfs/Exception.hpp>

#include <deque>
#include <ios>
#include <optional>
#include <string>

namespace foundation::storage::vfs {

// A failed byte-stream operation. Also a std::ios_base::failure, so a failure inside a device under
// a standard stream buffer travels the iostream machinery as an ordinary stream failure. Carries the
// library's ErrorCode and the provider's contexts.
class VFS_EXPORT IOException : public core::except::IInternalException, public std::ios_base::failure {
public:
    IOException(const IOException&);
    IOException(IOException&&) noexcept;
    IOException& operator=(const IOException&);
    IOException& operator=(IOException&&) noexcept;
    ~IOException() noexcept override;

    boost::exception_detail::clone_base const* clone() const override = 0;
    void rethrow() const override = 0;

    // "<message>: iostream stream error" (without ": " when the message is empty).
    const char* what() const noexcept override;
    ErrorCode getErrorCode() const noexcept { return m_errorCode; }
    ustring getExceptionContextsString() const;
    void popExceptionContext() const;
    std::optional<provider::ExceptionContext> topExceptionContext() const;
    void setExceptionContexts(std::deque<provider::ExceptionContext> contexts);

protected:
    IOException(const std::string& message, ErrorCode code);

private:
    // Composed here rather than taken from the std::system_error part, whose text (separator, code
    // message) varies between standard libraries.
    std::string m_message;
    ErrorCode m_errorCode;
    mutable std::deque<provider::ExceptionContext> m_contexts;
};

#define VFS_IO_EXCEPTION(Name)                                                                          \
    class VFS_EXPORT Name : public IOException {                                                        \
    public:                                                                                             \
        explicit Name(ErrorCode code = ErrorCode::IOError);                                             \
        Name(const std::string& message, ErrorCode code);                                              \
        Name(const Name&) = default;                                                                    \
        Name(Name&&) noexcept = default;                                                                \
        Name& operator=(const Name&) = default;                                                         \
        Name& operator=(Name&&) noexcept = default;                                                     \
        ~Name() noexcept override;                                                                      \
        boost::exception_detail::clone_base const* clone() const override { return new Name(*this); }  \
        void rethrow() const override { throw *this; }                                                  \
    };
VFS_IO_EXCEPTION(IOReadException)
VFS_IO_EXCEPTION(IOWriteException)
VFS_IO_EXCEPTION(IOSeekException)
VFS_IO_EXCEPTION(IOCloseException)
#undef VFS_IO_EXCEPTION

} // namespace foundation::storage::vfs
