#pragma once

#include <foundation/core/except/Exception.hpp>
#include <foundation/storage/provider/Enumerations.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/exception/exception.hpp>

#include <deque>
#include <string>

namespace foundation::storage::provider {

// One piece of information a provider attaches to a failure on its way up: a key (the failing
// call, "open"; the native error name, "ENOENT"; ...) and an optional free-text detail.
class VFS_EXPORT ExceptionContext {
public:
    explicit ExceptionContext(ustring key, ustring detail = {});
    const ustring& getExceptionContextKey() const noexcept { return m_key; }
    const ustring& getDetail() const noexcept { return m_detail; }
    friend bool operator==(const ExceptionContext&, const ExceptionContext&) = default;

private:
    ustring m_key;
    ustring m_detail;
};

using ExceptionContexts = std::deque<ExceptionContext>;

// The contexts' keys, front to back, joined by ':' ("open:ENOENT"); empty when there are none.
VFS_EXPORT ustring joinContextKeys(const ExceptionContexts& contexts);

// Every provider failure: the location it concerns, one error code, the contexts (front = top) and
// an optional message. Always thrown through boost::throw_exception.
//
//   boost::throw_exception(Exception(ErrorCode::ResourceNotFound, iri).withContext(u"open").withContext(u"ENOENT"));
class VFS_EXPORT Exception : public core::except::Exception<core::except::IInternalException, std::exception>,
                             public boost::exception {
public:
    Exception(ErrorCode code, StorageIRI location, ustring message = {});
    Exception(const Exception&);
    Exception& operator=(const Exception&);
    ~Exception() noexcept override;

    // Appends a context at the back; returns *this so that construction and contexts form one throw.
    Exception& withContext(ustring key, ustring detail = {});
    Exception& withExceptionContexts(ExceptionContexts contexts);

    const StorageIRI& getStorageIRI() const noexcept { return m_location; }
    ErrorCode getErrorCode() const noexcept { return m_code; }
    const ExceptionContexts& getAllExceptionContexts() const noexcept { return m_contexts; }
    const ustring& getMessage() const noexcept { return m_message; }

    boost::exception_detail::clone_base const* clone() const override;
    void rethrow() const override;

private:
    // foundation::storage::provider::Exception{Location="...", ErrorCode="ErrorCode::X", Contexts="a:b"}[: message]
    ustring ToUstringImpl() const override;

    ErrorCode m_code;
    StorageIRI m_location;
    ustring m_message;
    ExceptionContexts m_contexts;
};

// The location does not support change notification.
class VFS_EXPORT ChangeEventsNotSupportedException
    : public core::except::Exception<core::except::IInternalException, std::exception>,
      public boost::exception {
public:
    explicit ChangeEventsNotSupportedException(StorageIRI location);
    const StorageIRI& getStorageIRI() const noexcept { return m_location; }
    boost::exception_detail::clone_base const* clone() const override;
    void rethrow() const override;

private:
    ustring ToUstringImpl() const override;
    StorageIRI m_location;
};

// Subscribing to change notification at the location failed.
class VFS_EXPORT ChangeEventsSubscriptionException
    : public core::except::Exception<core::except::IInternalException, std::exception>,
      public boost::exception {
public:
    explicit ChangeEventsSubscriptionException(StorageIRI location, ustring reason = {});
    const StorageIRI& getStorageIRI() const noexcept { return m_location; }
    const ustring& getReason() const noexcept { return m_reason; }
    boost::exception_detail::clone_base const* clone() const override;
    void rethrow() const override;

private:
    ustring ToUstringImpl() const override;
    StorageIRI m_location;
    ustring m_reason;
};

// A failure inside a byte stream (read, write, seek, close). Deliberately not a provider Exception:
// stream failures are reported by their own family.
class VFS_EXPORT ByteStreamFailure
    : public core::except::Exception<core::except::IInternalException, std::exception>,
      public boost::exception {
public:
    ByteStreamFailure(std::string message, ErrorCode code, ExceptionContexts contexts = {});
    ByteStreamFailure(const ByteStreamFailure&);
    ByteStreamFailure& operator=(const ByteStreamFailure&);
    ~ByteStreamFailure() noexcept override;

    ErrorCode getErrorCode() const noexcept { return m_code; }
    const ExceptionContexts& getAllExceptionContexts() const noexcept { return m_contexts; }
    // The plain message, without decoration.
    const char* what() const noexcept override { return m_message.c_str(); }

private:
    ustring ToUstringImpl() const override;
    std::string m_message;
    ErrorCode m_code;
    ExceptionContexts m_contexts;
};

#define VFS_PROVIDER_BYTE_STREAM_FAILURE(Name)                                                         \
    class VFS_EXPORT Name : public ByteStreamFailure {                                                 \
    public:                                                                                            \
        using ByteStreamFailure::ByteStreamFailure;                                                    \
        boost::exception_detail::clone_base const* clone() const override { return new Name(*this); } \
        void rethrow() const override { throw *this; }                                                 \
    };
VFS_PROVIDER_BYTE_STREAM_FAILURE(ByteStreamReadFailure)
VFS_PROVIDER_BYTE_STREAM_FAILURE(ByteStreamWriteFailure)
VFS_PROVIDER_BYTE_STREAM_FAILURE(ByteStreamSeekFailure)
VFS_PROVIDER_BYTE_STREAM_FAILURE(ByteStreamCloseFailure)
#undef VFS_PROVIDER_BYTE_STREAM_FAILURE

// Throws provider::Exception(code, location) with the given contexts through boost::throw_exception.
[[noreturn]] VFS_EXPORT void throwProviderError(ErrorCode code, const StorageIRI& location,
                                                ExceptionContexts contexts = {}, ustring message = {});

} // namespace foundation::storage::provider
