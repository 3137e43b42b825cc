#pragma once

#include <foundation/core/except/Exception.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/vfs/AbsoluteIRI.hpp>

#include <boost/exception/exception.hpp>

#include <cstdint>
#include <deque>
#include <optional>
#include <iosfwd>
#include <string>
#include <system_error>
#include <vector>

namespace foundation::storage::vfs {

// The library's error codes. The numbering differs from the provider's in three places
// (FileTooLarge, ResourceInUse, ReadOnlyProvider); toErrorCode() maps between them.
enum class ErrorCode : std::int32_t {
    FolderNotEmpty = 0,
    InvalidLocation = 1,
    PermissionDenied = 2,
    ResourceAlreadyExists = 3,
    ResourceNotFound = 4,
    ReadOnlyProvider = 5,
    FileTooLarge = 6,
    ResourceInUse = 7,
    NoSpaceLeft = 8,
    IOError = 9,
    InternalError = 10,
    UnsupportedOperation = 11,
    Unknown = 12,
};

// "ErrorCode::ResourceNotFound"; "Unhandled ErrorCode" outside the enumeration.
VFS_EXPORT std::ostream& operator<<(std::ostream& out, const ErrorCode& code);
// The library code for a provider code; Unknown for anything outside the provider's enumeration.
VFS_EXPORT ErrorCode toErrorCode(provider::ErrorCode code) noexcept;
// The category of std::error_codes made from ErrorCodes: name "foundation::storage::vfs", messages
// as operator<< prints the code. An ErrorCode converts to std::error_code implicitly.
VFS_EXPORT const std::error_category& errorCategory() noexcept;
VFS_EXPORT std::error_code make_error_code(ErrorCode code) noexcept;

struct TagErrorCode;
struct TagAbsoluteIRI;
using ErrorCodeInfo = boost::error_info<TagErrorCode, ErrorCode>;
using AbsoluteIRIInfo = boost::error_info<TagAbsoluteIRI, AbsoluteIRI>;

// Every failure of an operation on a location: the location, one ErrorCode and the provider's
// exception contexts (front = top).
class VFS_EXPORT Exception : public core::except::Exception<core::except::IInternalException, std::exception>,
                             public boost::exception {
public:
    Exception(const ErrorCode& code, const AbsoluteIRI& location);
    Exception(const Exception&);
    Exception& operator=(const Exception&);
    ~Exception() noexcept override;

    AbsoluteIRI getLocation() const;
    ErrorCode getErrorCode() const;
    // getErrorCode() in errorCategory().
    std::error_code code() const { return make_error_code(getErrorCode()); }
    // Every context, front = top; the exception keeps them (popExceptionContext() removes them).
    std::vector<provider::ExceptionContext> getExceptionContexts() const
    {
        return {m_contexts.begin(), m_contexts.end()};
    }
    // The contexts' keys, front to back, joined by ':'; empty when there are none.
    ustring getExceptionContextsString() const;
    void popExceptionContext() const;
    std::optional<provider::ExceptionContext> topExceptionContext() const;
    Exception& withExceptionContexts(std::deque<provider::ExceptionContext> contexts);

    boost::exception_detail::clone_base const* clone() const override;
    void rethrow() const override;

private:
    ustring ToUstringImpl() const override;
    mutable std::deque<provider::ExceptionContext> m_contexts;
};

// The location does not support change notification.
class VFS_EXPORT ChangeEventsNotSupportedException
    : public core::except::Exception<core::except::IInternalException, std::exception>,
      public boost::exception {
public:
    explicit ChangeEventsNotSupportedException(const AbsoluteIRI& location);
    AbsoluteIRI getLocation() const;
    boost::exception_detail::clone_base const* clone() const override;
    void rethrow() const override;

private:
    ustring ToUstringImpl() const override;
};

// Subscribing to change notification at the location failed.
class VFS_EXPORT ChangeEventsSubscriptionException
    : public core::except::Exception<core::except::IInternalException, std::exception>,
      public boost::exception {
public:
    explicit ChangeEventsSubscriptionException(const AbsoluteIRI& location);
    AbsoluteIRI getLocation() const;
    boost::exception_detail::clone_base const* clone() const override;
    void rethrow() const override;

private:
    ustring ToUstringImpl() const override;
};

// A text that is not a valid absolute IRI. Thrown wrapped so that it is also an IInternalException
// and a boost::exception.
class VFS_EXPORT InvalidIRIException : public std::exception {
public:
    explicit InvalidIRIException(const ustring& invalidIRIString);
    InvalidIRIException(const InvalidIRIException&) = default;
    InvalidIRIException& operator=(const InvalidIRIException&) = default;
    ~InvalidIRIException() noexcept override;

    ustring getInvalidIRIString() const { return m_invalidIRIString; }
    const char* what() const noexcept override { return m_message.c_str(); }

private:
    ustring m_invalidIRIString;
    std::string m_message;
};

// A scheme that a storage system does not serve; thrown by StorageSystem implementations.
class VFS_EXPORT UnsupportedIRISchemeException : public std::exception {
public:
    explicit UnsupportedIRISchemeException(const ustring& scheme);
    UnsupportedIRISchemeException(const UnsupportedIRISchemeException&) = default;
    UnsupportedIRISchemeException& operator=(const UnsupportedIRISchemeException&) = default;
    ~UnsupportedIRISchemeException() noexcept override;

    ustring getScheme() const { return m_scheme; }
    const char* what() const noexcept override { return m_message.c_str(); }

private:
    ustring m_scheme;
    std::string m_message;
};

} // namespace foundation::storage::vfs

template <>
struct std::is_error_code_enum<foundation::storage::vfs::ErrorCode> : std::true_type {};
