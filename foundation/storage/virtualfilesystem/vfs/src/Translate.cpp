#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/IOException.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <boost/exception/diagnostic_information.hpp>
#include <boost/exception/errinfo_nested_exception.hpp>
#include <boost/exception_ptr.hpp>
#include <boost/throw_exception.hpp>

#include <sstream>

namespace foundation::storage::vfs::detail {

namespace {

// Where a diagnostic sink for internal or unknown provider errors attaches. The text is composed
// but deliberately not emitted: these errors already reach the caller as exceptions.
void composeInternalErrorDiagnostic(const AbsoluteIRI& location, const provider::Exception& error)
{
    std::ostringstream text;
    text << "Internal or Unknown error while operating on " << location << "\n"
         << boost::diagnostic_information(error, true);
}

template <class LibraryException>
[[noreturn]] void throwWithNestedCause(const AbsoluteIRI& location)
{
    LibraryException error(location);
    error << boost::errinfo_nested_exception(boost::current_exception());
    boost::throw_exception(error);
}

template <class IOError>
[[noreturn]] void throwIOError(const provider::ByteStreamFailure& failure)
{
    IOError error(std::string(failure.what()), toErrorCode(failure.getErrorCode()));
    error.setExceptionContexts(failure.getAllExceptionContexts());
    boost::throw_exception(error);
}

[[noreturn]] void translateByteStreamFailure()
{
    try {
        throw;
    } catch (const provider::ByteStreamReadFailure& failure) {
        throwIOError<IOReadException>(failure);
    } catch (const provider::ByteStreamWriteFailure& failure) {
        throwIOError<IOWriteException>(failure);
    } catch (const provider::ByteStreamSeekFailure& failure) {
        throwIOError<IOSeekException>(failure);
    } catch (const provider::ByteStreamCloseFailure& failure) {
        throwIOError<IOCloseException>(failure);
    }
}

} // namespace

void translateProviderException()
{
    try {
        throw;
    } catch (const provider::Exception& error) {
        const AbsoluteIRI location = IRIAccess::make(error.getStorageIRI(), true);
        const auto code = error.getErrorCode();
        if (code == provider::ErrorCode::InternalError || code == provider::ErrorCode::Unknown)
            composeInternalErrorDiagnostic(location, error);
        boost::throw_exception(
            Exception(toErrorCode(code), location).withExceptionContexts(error.getAllExceptionContexts()));
    } catch (const provider::ChangeEventsNotSupportedException& error) {
        throwWithNestedCause<ChangeEventsNotSupportedException>(IRIAccess::make(error.getStorageIRI(), true));
    } catch (const provider::ChangeEventsSubscriptionException& error) {
        throwWithNestedCause<ChangeEventsSubscriptionException>(IRIAccess::make(error.getStorageIRI(), true));
    } catch (const provider::ByteStreamFailure&) {
        translateByteStreamFailure();
    }
}

} // namespace foundation::storage::vfs::detail
