
#include <Prelude.hpp>

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

class ExceptionTest : public testing::Test {
protected:
    const AbsoluteIRI location{u"file:///tmp/\u00e4 b.txt"};

    // The text every Exception produces, with the location's ASCII form and the given middle parts.
    std::string expectedText(const std::string& code, const std::string& contextKeys) const
    {
        return "foundation::storage::provider::Exception{Location=\"" +
               fl::i18n::ustring_to_utf8(location.toAsciiString()) + "\", ErrorCode=\"" + code +
               "\"}\"} with ExceptionContext{\"" + contextKeys + "\"}";
    }
};

TEST_F(ExceptionTest, TextNamesTheProviderClassAndAlwaysHasTheContextPart)
{
    ASSERT_NE(location.toAsciiString(), location.toString()) << "the location must need escaping";
    const vfs::Exception bare(ErrorCode::ResourceNotFound, location);
    EXPECT_EQ(std::string(bare.what()), expectedText("ErrorCode::ResourceNotFound", ""));
    EXPECT_EQ(bare.ToUstring(), fl::i18n::utf8_to_ustring(bare.what()));
    EXPECT_EQ(*boost::get_error_info<vfs::ErrorCodeInfo>(bare), ErrorCode::ResourceNotFound);
    EXPECT_EQ(*boost::get_error_info<vfs::AbsoluteIRIInfo>(bare), location);

    vfs::Exception withContexts(ErrorCode::FileTooLarge, location);
    withContexts.withExceptionContexts(contexts({u"open", u"EFBIG"}));
    EXPECT_EQ(std::string(withContexts.what()), expectedText("ErrorCode::FileTooLarge", "open:EFBIG"));
    EXPECT_EQ(std::string(vfs::Exception(static_cast<ErrorCode>(42), location).what()),
              expectedText("Unhandled ErrorCode", ""));
}

TEST_F(ExceptionTest, ContextsJoinPopAndTopFromTheFrontAndAreReplacedWhole)
{
    vfs::Exception error(ErrorCode::IOError, location);
    EXPECT_FALSE(error.topExceptionContext().has_value());
    vfs::Exception& self = error.withExceptionContexts(contexts({u"a", u"b", u"c"}));
    EXPECT_EQ(&self, &error);
    EXPECT_EQ(error.getExceptionContextsString(), u"a:b:c");
    EXPECT_EQ(*error.topExceptionContext(), ExceptionContext(u"a", u"detail of a"));
    error.popExceptionContext();
    EXPECT_EQ(error.getExceptionContextsString(), u"b:c");
    error.popExceptionContext();
    error.popExceptionContext();
    error.popExceptionContext(); // popping nothing is harmless
    EXPECT_EQ(error.getExceptionContextsString(), u"");
    EXPECT_FALSE(error.topExceptionContext().has_value());
    error.withExceptionContexts(contexts({u"x"})).withExceptionContexts(contexts({u"y", u"z"}));
    EXPECT_EQ(error.getExceptionContextsString(), u"y:z");
}

TEST_F(ExceptionTest, CopiesClonesAndRethrowsKeepEverythingAndOwnTheirContexts)
{
    vfs::Exception original(ErrorCode::ReadOnlyProvider, location);
    original.withExceptionContexts(contexts({u"write", u"EROFS"}));
    const auto same = [&](const vfs::Exception& error) {
        EXPECT_EQ(error.getErrorCode(), ErrorCode::ReadOnlyProvider);
        EXPECT_EQ(error.getLocation(), location);
        EXPECT_EQ(std::string(error.what()), expectedText("ErrorCode::ReadOnlyProvider", "write:EROFS"));
    };

    const vfs::Exception copy(original);
    copy.popExceptionContext();
    EXPECT_EQ(copy.getExceptionContextsString(), u"EROFS");
    EXPECT_EQ(original.getExceptionContextsString(), u"write:EROFS");
    vfs::Exception assigned(ErrorCode::Unknown, AbsoluteIRI{u"mem://v/"});
    assigned = original;
    same(assigned);

    const std::unique_ptr<const boost::exception_detail::clone_base> clone(original.clone());
    const auto* cloned = dynamic_cast<const vfs::Exception*>(clone.get());
    ASSERT_NE(cloned, nullptr);
    same(*cloned);
    vfs_test::inspectThrown<vfs::Exception>([&] { cloned->rethrow(); }, same);
    // Thrown with a plain throw, boost::current_exception still captures the whole object.
    vfs_test::inspectThrown<vfs::Exception>(vfs_test::rethrowing(vfs_test::boostCaptured([&] { throw original; })), same);
    EXPECT_THROW(boost::throw_exception(original), IInternalException);
    EXPECT_THROW(boost::throw_exception(original), std::exception);
}

template <class E>
class ChangeEventsExceptionTest : public testing::Test {};

struct NotSupported {
    using Type = vfs::ChangeEventsNotSupportedException;
    static constexpr const char* name = "foundation::storage::vfs::ChangeEventsNotSupportedException";
};
struct Subscription {
    using Type = vfs::ChangeEventsSubscriptionException;
    static constexpr const char* name = "foundation::storage::vfs::ChangeEventsSubscriptionException";
};
using ChangeEventsExceptions = testing::Types<NotSupported, Subscription>;
TYPED_TEST_SUITE(ChangeEventsExceptionTest, ChangeEventsExceptions);

TYPED_TEST(ChangeEventsExceptionTest, TextLocationCloneAndRethrow)
{
    using E = typename TypeParam::Type;
    const AbsoluteIRI location{u"mem://v/\u00e4"};
    ASSERT_NE(location.toAsciiString(), location.toString()) << "the location must need escaping";
    const E error(location);
    EXPECT_EQ(error.getLocation(), location);
    EXPECT_EQ(std::string(error.what()),
              std::string(TypeParam::name) + "{Location=\"" + fl::i18n::ustring_to_utf8(location.toAsciiString()) + "\"}");

    const std::unique_ptr<const boost::exception_detail::clone_base> clone(error.clone());
    const auto* cloned = dynamic_cast<const E*>(clone.get());
    ASSERT_NE(cloned, nullptr);
    EXPECT_EQ(cloned->getLocation(), location);
    EXPECT_THROW(cloned->rethrow(), E);
    EXPECT_THROW(boost::throw_exception(error), IInternalException);
    EXPECT_THROW(boost::throw_exception(error), boost::exception);
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
