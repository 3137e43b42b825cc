#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/IOException.hpp>
#include <foundation/storage/vfs/detail/Logger.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <foundation/log/diagnostic_logger.hpp>

#include <boost/exception/errinfo_nested_exception.hpp>
#include <boost/exception/get_error_info.hpp>
#include <boost/throw_exception.hpp>

#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

namespace {

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;
using fl::i18n::ustring;
using provider::ExceptionContext;
using provider::StorageIRI;
using vfs::AbsoluteIRI;
using vfs::ErrorCode;

// What translateProviderException() throws for the exception `raise` throws.
std::exception_ptr translate(const std::function<void()>& raise)
{
    try {
        try {
            raise();
        } catch (...) {
            vfs::detail::translateProviderException();
        }
    } catch (...) {
        return std::current_exception();
    }
    ADD_FAILURE() << "nothing was thrown";
    return nullptr;
}

const StorageIRI location{u"file:///tmp/\u00e4/x.txt"};
const provider::ExceptionContexts providerContexts = {ExceptionContext(u"open", u"the call"),
                                                      ExceptionContext(u"ENOENT"), ExceptionContext(u"third")};

TEST(TranslateTest, ProviderExceptionBecomesExceptionWithMappedCodeLocationAndAllContexts)
{
    const std::vector<std::pair<int, ErrorCode>> table = {
        {0, ErrorCode::FolderNotEmpty},   {1, ErrorCode::InvalidLocation},
        {2, ErrorCode::PermissionDenied}, {3, ErrorCode::ResourceAlreadyExists},
        {4, ErrorCode::ResourceNotFound}, {5, ErrorCode::FileTooLarge},
        {6, ErrorCode::ResourceInUse},    {7, ErrorCode::ReadOnlyProvider},
        {8, ErrorCode::NoSpaceLeft},      {9, ErrorCode::IOError},
        {10, ErrorCode::InternalError},   {11, ErrorCode::UnsupportedOperation},
        {12, ErrorCode::Unknown},         {13, ErrorCode::Unknown},
    };
    for (const auto& [code, expected] : table) {
        SCOPED_TRACE(code);
        const auto translated = translate([code = code] {
            boost::throw_exception(provider::Exception(static_cast<provider::ErrorCode>(code), location, u"message")
                                       .withExceptionContexts(providerContexts));
        });
        try {
            std::rethrow_exception(translated);
        } catch (const vfs::Exception& error) {
            EXPECT_EQ(error.getErrorCode(), expected);
            EXPECT_EQ(error.getLocation(), AbsoluteIRI{location.toString()});
            EXPECT_EQ(error.getExceptionContextsString(), u"open:ENOENT:third");
            EXPECT_EQ(*error.topExceptionContext(), providerContexts.front());
            // Nothing else of the provider exception travels along.
            EXPECT_EQ(boost::get_error_info<boost::errinfo_nested_exception>(error), nullptr);
            EXPECT_EQ(std::string(error.what()).find("message"), std::string::npos);
        } catch (...) {
            ADD_FAILURE() << "not a vfs::Exception";
        }
    }
}

TEST(TranslateTest, ProviderLocationWithoutPathIsAnInvalidIRI)
{
    const auto translated = translate([] { provider::throwProviderError(provider::ErrorCode::IOError, StorageIRI()); });
    EXPECT_THROW(std::rethrow_exception(translated), vfs::InvalidIRIException);
}

template <class Library, class Provider>
void expectChangeEventsTranslation(const Provider& original)
{
    const auto translated = translate([&] { boost::throw_exception(original); });
    try {
        std::rethrow_exception(translated);
    } catch (const Library& error) {
        EXPECT_EQ(error.getLocation(), AbsoluteIRI{location.toString()});
        const auto* nested = boost::get_error_info<boost::errinfo_nested_exception>(error);
        ASSERT_NE(nested, nullptr);
        try {
            boost::rethrow_exception(*nested);
        } catch (const Provider& cause) {
            EXPECT_EQ(cause.getStorageIRI(), location);
        } catch (...) {
            ADD_FAILURE() << "the nested cause is not the provider exception";
        }
    } catch (...) {
        ADD_FAILURE() << "not translated to " << typeid(Library).name();
    }
}

TEST(TranslateTest, ChangeEventsExceptionsKeepTheirNamesAndNestTheCause)
{
    expectChangeEventsTranslation<vfs::ChangeEventsNotSupportedException>(
        provider::ChangeEventsNotSupportedException(location));
    expectChangeEventsTranslation<vfs::ChangeEventsSubscriptionException>(
        provider::ChangeEventsSubscriptionException(location, u"inotify limit"));
}

template <class Library, class Provider>
void expectByteStreamTranslation()
{
    SCOPED_TRACE(typeid(Provider).name());
    const auto translated = translate([] {
        boost::throw_exception(Provider("short read at 42", provider::ErrorCode::FileTooLarge, providerContexts));
    });
    try {
        std::rethrow_exception(translated);
    } catch (const Library& error) {
        EXPECT_STREQ(error.what(), "short read at 42: iostream stream error");
        EXPECT_EQ(error.getErrorCode(), ErrorCode::FileTooLarge);
        EXPECT_EQ(error.getExceptionContextsString(), u"open:ENOENT:third");
        EXPECT_EQ(*error.topExceptionContext(), providerContexts.front());
    } catch (...) {
        ADD_FAILURE() << "not translated to " << typeid(Library).name();
    }
}

TEST(TranslateTest, ByteStreamFailuresBecomeTheMatchingIOException)
{
    expectByteStreamTranslation<vfs::IOReadException, provider::ByteStreamReadFailure>();
    expectByteStreamTranslation<vfs::IOWriteException, provider::ByteStreamWriteFailure>();
    expectByteStreamTranslation<vfs::IOSeekException, provider::ByteStreamSeekFailure>();
    expectByteStreamTranslation<vfs::IOCloseException, provider::ByteStreamCloseFailure>();
    // Caught as a standard stream failure, as the iostream machinery does.
    const auto translated = translate(
        [] { boost::throw_exception(provider::ByteStreamSeekFailure("m", provider::ErrorCode::IOError)); });
    EXPECT_THROW(std::rethrow_exception(translated), std::ios_base::failure);
}

// A byte-stream failure of a kind the library has no I/O exception for.
class TruncateFailure : public provider::ByteStreamFailure {
public:
    using ByteStreamFailure::ByteStreamFailure;
    boost::exception_detail::clone_base const* clone() const override { return new TruncateFailure(*this); }
    void rethrow() const override { throw *this; }
};

TEST(TranslateTest, EverythingElsePassesAsTheSameObject)
{
    const std::vector<std::pair<std::string, std::function<void()>>> raisers = {
        {"runtime_error", [] { throw std::runtime_error("x"); }},
        {"int", [] { throw 7; }},
        {"other ByteStreamFailure",
         [] { boost::throw_exception(TruncateFailure("m", provider::ErrorCode::IOError)); }},
        {"library Exception",
         [] { boost::throw_exception(vfs::Exception(ErrorCode::IOError, AbsoluteIRI{u"file:///a"})); }},
        {"IOReadException", [] { throw vfs::IOReadException(); }},
        {"bad_alloc", [] { throw std::bad_alloc(); }},
    };
    for (const auto& [name, raise] : raisers) {
        SCOPED_TRACE(name);
        std::exception_ptr original;
        std::exception_ptr after;
        try {
            try {
                raise();
            } catch (...) {
                original = std::current_exception();
                vfs::detail::translateProviderException();
            }
        } catch (...) {
            after = std::current_exception();
        }
        ASSERT_TRUE(original);
        EXPECT_EQ(after, original);
    }
}

TEST(TranslateTest, InternalAndUnknownProviderErrorsWriteNoTrace)
{
    std::mutex mutex;
    std::vector<std::string> records;
    foundation::log::diagnostic_listener listener(vfs::detail::logger(), foundation::log::category_all,
                                                  [&](unsigned, int, const std::string& text) {
                                                      std::lock_guard lock(mutex);
                                                      records.push_back(text);
                                                  });
    for (const auto code : {provider::ErrorCode::InternalError, provider::ErrorCode::Unknown}) {
        const auto translated = translate([code] { provider::throwProviderError(code, location, providerContexts); });
        EXPECT_THROW(std::rethrow_exception(translated), vfs::Exception);
    }
    std::lock_guard lock(mutex);
    EXPECT_TRUE(records.empty()) << records.front();
}

TEST(TranslateTest, TranslatedReturnsTheResultOrTranslates)
{
    EXPECT_EQ(vfs::detail::translated([] { return 42; }), 42);
    int value = 1;
    int& same = vfs::detail::translated([&]() -> int& { return value; });
    EXPECT_EQ(&same, &value);
    try {
        vfs::detail::translated([]() -> int { provider::throwProviderError(provider::ErrorCode::ReadOnlyProvider, location); });
        FAIL() << "no exception";
    } catch (const vfs::Exception& error) {
        EXPECT_EQ(error.getErrorCode(), ErrorCode::ReadOnlyProvider);
    }
}

} // namespace
