#include <foundation/storage/vfs/detail/Translate.hpp>

#include <Prelude.hpp>

#include <ErrorCodeTable.hpp>

namespace {

// What translateProviderException() throws for the exception `raise` throws.
std::exception_ptr translate(const std::function<void()>& raise)
{
    return vfs_test::captured(
        [&] { vfs_test::whileHandling(raise, [] { vfs::detail::translateProviderException(); }); });
}

const StorageIRI location{u"file:///tmp/\u00e4/x.txt"};
const provider::ExceptionContexts providerContexts = {ExceptionContext(u"open", u"the call"),
                                                      ExceptionContext(u"ENOENT"), ExceptionContext(u"third")};

TEST(TranslateTest, ProviderExceptionBecomesExceptionWithMappedCodeLocationAndAllContexts)
{
    for (const auto& [code, expected] : vfs_test::libraryCodeOfProviderCode()) {
        SCOPED_TRACE(code);
        const auto translated = translate([code = code] {
            boost::throw_exception(provider::Exception(static_cast<provider::ErrorCode>(code), location, u"message")
                                       .withExceptionContexts(providerContexts));
        });
        const auto check = [expected = expected](const vfs::Exception& error) {
            EXPECT_EQ(error.getErrorCode(), expected);
            EXPECT_EQ(error.getLocation(), AbsoluteIRI{location.toString()});
            EXPECT_EQ(error.getExceptionContextsString(), u"open:ENOENT:third");
            EXPECT_EQ(*error.topExceptionContext(), providerContexts.front());
            // Nothing else of the provider exception travels along.
            EXPECT_EQ(boost::get_error_info<boost::errinfo_nested_exception>(error), nullptr);
            EXPECT_EQ(std::string(error.what()).find("message"), std::string::npos);
        };
        vfs_test::inspectThrown<vfs::Exception>(vfs_test::rethrowing(translated), check);
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
    vfs_test::inspectThrown<Library>(vfs_test::rethrowing(translated), [](const Library& error) {
        EXPECT_EQ(error.getLocation(), AbsoluteIRI{location.toString()});
        const auto* nested = boost::get_error_info<boost::errinfo_nested_exception>(error);
        ASSERT_NE(nested, nullptr);
        vfs_test::inspectThrown<Provider>(vfs_test::rethrowing(*nested),
                                          [](const Provider& cause) { EXPECT_EQ(cause.getStorageIRI(), location); });
    });
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
    vfs_test::inspectThrown<Library>(vfs_test::rethrowing(translated), [](const Library& error) {
        EXPECT_STREQ(error.what(), "short read at 42: iostream stream error");
        EXPECT_EQ(error.getErrorCode(), ErrorCode::FileTooLarge);
        EXPECT_EQ(error.getExceptionContextsString(), u"open:ENOENT:third");
        EXPECT_EQ(*error.topExceptionContext(), providerContexts.front());
    });
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
        const auto after = vfs_test::captured([&, &raise = raise] {
            vfs_test::whileHandling(raise, [&] {
                original = std::current_exception();
                vfs::detail::translateProviderException();
            });
        });
        ASSERT_TRUE(original);
        EXPECT_EQ(after, original);
    }
}

TEST(TranslateTest, InternalAndUnknownProviderErrorsWriteNoTrace)
{
    vfs_test::RecordingListener trace(vfs::detail::logger(), foundation::log::category_all);
    for (const auto code : {provider::ErrorCode::InternalError, provider::ErrorCode::Unknown}) {
        const auto translated = translate([code] { provider::throwProviderError(code, location, providerContexts); });
        EXPECT_THROW(std::rethrow_exception(translated), vfs::Exception);
    }
    EXPECT_THAT(trace.take(), testing::IsEmpty());
}

TEST(TranslateTest, TranslatedReturnsTheResultOrTranslates)
{
    EXPECT_EQ(vfs::detail::translated([] { return 42; }), 42);
    int value = 1;
    int& same = vfs::detail::translated([&]() -> int& { return value; });
    EXPECT_EQ(&same, &value);
    vfs_test::inspectThrown<vfs::Exception>(
        [] {
            vfs::detail::translated(
                []() -> int { provider::throwProviderError(provider::ErrorCode::ReadOnlyProvider, location); });
        },
        [](const vfs::Exception& error) { EXPECT_EQ(error.getErrorCode(), ErrorCode::ReadOnlyProvider); });
}

} // namespace
