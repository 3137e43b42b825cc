
#include <Prelude.hpp>

#include <system_error>

namespace {

std::string streamed(ErrorCode code)
{
    std::ostringstream out;
    out << code;
    return out.str();
}

std::deque<ExceptionContext> contexts(std::initializer_list<const char16_t*> keys)
{
    std::deque<ExceptionContext> out;
    for (const auto* key : keys)
        out.emplace_back(key, u"detail of " + ustring(key));
    return out;
}

TEST(ErrorCodeTest, StreamsTypeQualifiedNamesAndFlagsUnknownValues)
{
    // The library's order differs from the provider's at 5..7: the names must follow the values.
    const std::vector<std::pair<int, std::string>> table = {
        {5, "ErrorCode::ReadOnlyProvider"}, {6, "ErrorCode::FileTooLarge"}, {7, "ErrorCode::ResourceInUse"},
        {12, "ErrorCode::Unknown"},         {13, "Unhandled ErrorCode"},    {-1, "Unhandled ErrorCode"},
    };
    for (const auto& [value, text] : table)
        EXPECT_EQ(streamed(static_cast<ErrorCode>(value)), text) << value;
}

// The location needs escaping, so that the texts show they carry its ASCII form.
const AbsoluteIRI location{u"file:///tmp/\u00e4 b.txt"};
const std::string asciiLocation = fl::i18n::ustring_to_utf8(location.toAsciiString());

// The text every Exception produces, with the given code and context keys.
std::string providerText(const std::string& code, const std::string& contextKeys)
{
    return "foundation::storage::provider::Exception{Location=\"" + asciiLocation + "\", ErrorCode=\"" + code +
           "\"}\"} with ExceptionContext{\"" + contextKeys + "\"}";
}

// One row per exception type the library throws for an operation: how one is made (with contexts
// where the type has them), another to assign over, the text it gives and what it carries.
struct LocatedRow {
    using Type = vfs::Exception;
    static Type make() { return Type(ErrorCode::ReadOnlyProvider, location).withExceptionContexts(contexts({u"write", u"EROFS"})); }
    static Type other() { return Type(ErrorCode::Unknown, AbsoluteIRI{u"mem://v/"}); }
    static std::string text() { return providerText("ErrorCode::ReadOnlyProvider", "write:EROFS"); }
    static void carries(const Type& error)
    {
        EXPECT_EQ(error.getErrorCode(), ErrorCode::ReadOnlyProvider);
        EXPECT_EQ(error.getLocation(), location);
    }
    static void setContexts(Type& error, std::deque<ExceptionContext> given) { error.withExceptionContexts(std::move(given)); }
};

template <class E, const char* Name>
struct EventsRow {
    using Type = E;
    static Type make() { return Type(location); }
    static Type other() { return Type(AbsoluteIRI{u"mem://v/"}); }
    static std::string text() { return std::string("foundation::storage::vfs::") + Name + "{Location=\"" + asciiLocation + "\"}"; }
    static void carries(const Type& error) { EXPECT_EQ(error.getLocation(), location); }
};
constexpr char notSupported[] = "ChangeEventsNotSupportedException";
constexpr char subscription[] = "ChangeEventsSubscriptionException";

template <class E, const char* Name>
struct IORow {
    using Type = E;
    static constexpr const char* name = Name;
    static Type make()
    {
        Type error("m", ErrorCode::ResourceInUse);
        error.setExceptionContexts(contexts({u"read", u"EIO"}));
        return error;
    }
    static Type other() { return Type(); }
    static std::string text() { return "m: iostream stream error"; }
    static void carries(const Type& error)
    {
        EXPECT_EQ(error.getErrorCode(), ErrorCode::ResourceInUse);
        EXPECT_EQ(error.getExceptionContextsString(), u"read:EIO");
    }
    static void setContexts(Type& error, std::deque<ExceptionContext> given) { error.setExceptionContexts(std::move(given)); }
};
constexpr char readName[] = "IOReadException";
constexpr char writeName[] = "IOWriteException";
constexpr char seekName[] = "IOSeekException";
constexpr char closeName[] = "IOCloseException";
using Read = IORow<vfs::IOReadException, readName>;
using Write = IORow<vfs::IOWriteException, writeName>;
using Seek = IORow<vfs::IOSeekException, seekName>;
using Close = IORow<vfs::IOCloseException, closeName>;
using IORows = testing::Types<Read, Write, Seek, Close>;

template <class Row>
class LibraryExceptionTest : public testing::Test {};
using Rows = testing::Types<LocatedRow, EventsRow<vfs::ChangeEventsNotSupportedException, notSupported>,
                            EventsRow<vfs::ChangeEventsSubscriptionException, subscription>, Read, Write, Seek, Close>;
TYPED_TEST_SUITE(LibraryExceptionTest, Rows);

TYPED_TEST(LibraryExceptionTest, CopiesAssignmentsClonesAndRethrowsKeepTypeTextAndPayload)
{
    using Row = TypeParam;
    using E = typename Row::Type;
    const E original = Row::make();
    const auto same = [](const E& error) {
        EXPECT_EQ(std::string(error.what()), Row::text());
        Row::carries(error);
    };
    same(original);
    E assigned = Row::other();
    assigned = original;
    same(assigned);

    const std::unique_ptr<const boost::exception_detail::clone_base> clone(original.clone());
    const auto* cloned = dynamic_cast<const E*>(clone.get());
    ASSERT_NE(cloned, nullptr);
    same(*cloned);
    vfs_test::inspectThrown<E>([&] { cloned->rethrow(); }, same);
    // Thrown with a plain throw, boost::current_exception still captures the whole object.
    vfs_test::inspectThrown<E>(vfs_test::rethrowing(vfs_test::boostCaptured([&] { throw original; })), same);
    EXPECT_THROW(boost::throw_exception(original), E);
    EXPECT_THROW(boost::throw_exception(original), IInternalException);
    EXPECT_THROW(boost::throw_exception(original), boost::exception);
    EXPECT_THROW(boost::throw_exception(original), std::exception);
}

template <class Row>
class ExceptionContextsTest : public testing::Test {};
using RowsWithContexts = testing::Types<LocatedRow, Read, Write, Seek, Close>;
TYPED_TEST_SUITE(ExceptionContextsTest, RowsWithContexts);

TYPED_TEST(ExceptionContextsTest, ContextsPopAndTopFromTheFrontAreReplacedWholeAndCopiesOwnTheirs)
{
    using Row = TypeParam;
    auto error = Row::other();
    EXPECT_FALSE(error.topExceptionContext().has_value());
    Row::setContexts(error, contexts({u"x"}));
    Row::setContexts(error, contexts({u"a", u"b", u"c"}));
    EXPECT_EQ(error.getExceptionContextsString(), u"a:b:c");
    EXPECT_EQ(*error.topExceptionContext(), ExceptionContext(u"a", u"detail of a"));

    const auto copy(error);
    copy.popExceptionContext();
    EXPECT_EQ(copy.getExceptionContextsString(), u"b:c");
    EXPECT_EQ(error.getExceptionContextsString(), u"a:b:c");
    auto moved(std::move(error));
    EXPECT_EQ(moved.getExceptionContextsString(), u"a:b:c");
    for (int pop = 0; pop < 4; ++pop) // popping nothing is harmless
        moved.popExceptionContext();
    EXPECT_EQ(moved.getExceptionContextsString(), u"");
    EXPECT_FALSE(moved.topExceptionContext().has_value());
}

TEST(LocatedExceptionTest, TextNamesTheProviderClassAndAlwaysHasTheContextPart)
{
    ASSERT_NE(location.toAsciiString(), location.toString()) << "the location must need escaping";
    const vfs::Exception bare(ErrorCode::ResourceNotFound, location);
    EXPECT_EQ(std::string(bare.what()), providerText("ErrorCode::ResourceNotFound", ""));
    EXPECT_EQ(bare.ToUstring(), fl::i18n::utf8_to_ustring(bare.what()));
    EXPECT_EQ(*boost::get_error_info<vfs::ErrorCodeInfo>(bare), ErrorCode::ResourceNotFound);
    EXPECT_EQ(*boost::get_error_info<vfs::AbsoluteIRIInfo>(bare), location);
    EXPECT_EQ(std::string(vfs::Exception(static_cast<ErrorCode>(42), location).what()), providerText("Unhandled ErrorCode", ""));
    vfs::Exception error(ErrorCode::IOError, location);
    EXPECT_EQ(&error.withExceptionContexts(contexts({u"open"})), &error);
}

template <class Row>
class IOExceptionTest : public testing::Test {};
TYPED_TEST_SUITE(IOExceptionTest, IORows);

TYPED_TEST(IOExceptionTest, MessageCodeAndCategoryComposeLikeSystemErrorAndAreCaughtAsStreamFailures)
{
    using E = typename TypeParam::Type;
    const E error;
    EXPECT_EQ(error.getErrorCode(), ErrorCode::IOError);
    EXPECT_EQ(std::string(error.what()), std::string(TypeParam::name) + ": iostream stream error");
    EXPECT_EQ(error.code(), std::make_error_code(std::io_errc::stream));
    EXPECT_EQ(E(ErrorCode::NoSpaceLeft).getErrorCode(), ErrorCode::NoSpaceLeft);
    EXPECT_EQ(E("disk on fire", ErrorCode::FileTooLarge).getErrorCode(), ErrorCode::FileTooLarge);
    EXPECT_EQ(std::string(E("disk on fire", ErrorCode::FileTooLarge).what()), "disk on fire: iostream stream error");
    EXPECT_EQ(std::string(E("", ErrorCode::NoSpaceLeft).what()), "iostream stream error");
    // what() through either base gives the same text.
    const E named("m", ErrorCode::IOError);
    EXPECT_STREQ(static_cast<const std::ios_base::failure&>(named).what(), named.what());
    EXPECT_STREQ(static_cast<const vfs::IOException&>(named).what(), named.what());
    vfs_test::inspectThrown<E>([&] { static_cast<const vfs::IOException&>(named).rethrow(); },
                               [](const E& thrown) { EXPECT_STREQ(thrown.what(), "m: iostream stream error"); });

    static_assert(std::is_abstract_v<vfs::IOException>);
    EXPECT_THROW(throw named, std::ios_base::failure);
    EXPECT_THROW(throw named, std::system_error);
}

TEST(ValueExceptionTest, MessagesNameTheTypeAndTheValueAndSurviveCopies)
{
    for (const auto& [text, message] : std::vector<std::pair<ustring, std::string>>{
             {u"", "foundation::storage::vfs::InvalidIRIException{invalidIRIString=\"\"}"},
             {u"x:\u00e4\"", "foundation::storage::vfs::InvalidIRIException{invalidIRIString=\"x:\xC3\xA4\"\"}"}}) {
        const vfs::InvalidIRIException error(text);
        EXPECT_EQ(error.getInvalidIRIString(), text);
        EXPECT_EQ(std::string(error.what()), message);
        vfs::InvalidIRIException assigned(u"other");
        assigned = error;
        EXPECT_EQ(assigned.getInvalidIRIString(), text);
        EXPECT_EQ(std::string(assigned.what()), message);
    }
    // A lone surrogate cannot be UTF-8; the message still exists and the text is kept exactly.
    const ustring broken(u"file:///\xD800");
    EXPECT_EQ(vfs::InvalidIRIException(broken).getInvalidIRIString(), broken);
    EXPECT_THAT(vfs::InvalidIRIException(broken).what(),
                testing::StartsWith("foundation::storage::vfs::InvalidIRIException{invalidIRIString=\"file:///"));

    const vfs::UnsupportedIRISchemeException error(u"http");
    vfs::UnsupportedIRISchemeException assigned(u"zip");
    assigned = error;
    EXPECT_EQ(assigned.getScheme(), u"http");
    EXPECT_STREQ(assigned.what(), "foundation::storage::vfs::UnsupportedIRISchemeException{scheme=\"http\"}");
    // Storage systems throw it wrapped, as the library throws InvalidIRIException.
    vfs_test::inspectThrown<IInternalException>(
        [&] { foundation::core::except::throwInternal(error); }, [](const IInternalException& wrapped) {
            const auto* original = dynamic_cast<const vfs::UnsupportedIRISchemeException*>(&wrapped);
            ASSERT_NE(original, nullptr);
            EXPECT_EQ(original->getScheme(), u"http");
            EXPECT_NE(dynamic_cast<const boost::exception*>(&wrapped), nullptr);
        });
}

} // namespace
