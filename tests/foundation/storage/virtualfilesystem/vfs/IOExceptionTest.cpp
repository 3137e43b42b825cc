
#include <Prelude.hpp>

#include <system_error>

namespace {

using vfs::IOException;

std::deque<ExceptionContext> contexts(std::initializer_list<const char16_t*> keys)
{
    std::deque<ExceptionContext> out;
    for (const auto* key : keys)
        out.emplace_back(key);
    return out;
}

template <class E, const char* Name>
struct Leaf {
    using Type = E;
    static constexpr const char* name = Name;
};
constexpr char readName[] = "IOReadException";
constexpr char writeName[] = "IOWriteException";
constexpr char seekName[] = "IOSeekException";
constexpr char closeName[] = "IOCloseException";

template <class L>
class IOExceptionTest : public testing::Test {};
using Leaves = testing::Types<Leaf<vfs::IOReadException, readName>, Leaf<vfs::IOWriteException, writeName>,
                              Leaf<vfs::IOSeekException, seekName>, Leaf<vfs::IOCloseException, closeName>>;
TYPED_TEST_SUITE(IOExceptionTest, Leaves);

TYPED_TEST(IOExceptionTest, MessageCodeAndCategoryComposeLikeSystemError)
{
    using E = typename TypeParam::Type;
    const E error;
    EXPECT_EQ(error.getErrorCode(), ErrorCode::IOError);
    EXPECT_EQ(std::string(error.what()), std::string(TypeParam::name) + ": iostream stream error");
    EXPECT_EQ(error.code(), std::make_error_code(std::io_errc::stream));
    EXPECT_EQ(E(ErrorCode::NoSpaceLeft).getErrorCode(), ErrorCode::NoSpaceLeft);
    EXPECT_EQ(std::string(E("disk on fire", ErrorCode::FileTooLarge).what()), "disk on fire: iostream stream error");
    EXPECT_EQ(E("disk on fire", ErrorCode::FileTooLarge).getErrorCode(), ErrorCode::FileTooLarge);
    EXPECT_EQ(std::string(E("", ErrorCode::NoSpaceLeft).what()), "iostream stream error");
    // what() through either base gives the same text.
    const E named("m", ErrorCode::IOError);
    EXPECT_STREQ(static_cast<const std::ios_base::failure&>(named).what(), named.what());
    EXPECT_STREQ(static_cast<const IOException&>(named).what(), named.what());
}

TYPED_TEST(IOExceptionTest, ContextsPopFromTheFrontAndCopiesAreDeep)
{
    using E = typename TypeParam::Type;
    E original("m", ErrorCode::ResourceInUse);
    EXPECT_FALSE(original.topExceptionContext().has_value());
    original.setExceptionContexts(contexts({u"x"}));
    original.setExceptionContexts(contexts({u"a", u"b"}));
    EXPECT_EQ(original.getExceptionContextsString(), u"a:b");
    EXPECT_EQ(*original.topExceptionContext(), ExceptionContext(u"a"));

    const E copy(original);
    copy.popExceptionContext();
    EXPECT_EQ(copy.getExceptionContextsString(), u"b");
    EXPECT_EQ(original.getExceptionContextsString(), u"a:b");
    E assigned;
    assigned = original;
    EXPECT_EQ(assigned.getExceptionContextsString(), u"a:b");
    EXPECT_EQ(assigned.getErrorCode(), ErrorCode::ResourceInUse);
    EXPECT_STREQ(assigned.what(), "m: iostream stream error");

    E moved(std::move(assigned));
    EXPECT_EQ(moved.getExceptionContextsString(), u"a:b");
    moved.popExceptionContext();
    moved.popExceptionContext();
    moved.popExceptionContext(); // popping nothing is harmless
    EXPECT_FALSE(moved.topExceptionContext().has_value());
}

TYPED_TEST(IOExceptionTest, RethrowAndCloneKeepTheLeafTypeCaughtAsAStandardStreamFailure)
{
    using E = typename TypeParam::Type;
    E original("m", ErrorCode::IOError);
    original.setExceptionContexts(contexts({u"read", u"EIO"}));
    const IOException& base = original;
    const auto same = [](const E& error) {
        EXPECT_EQ(error.getExceptionContextsString(), u"read:EIO");
        EXPECT_STREQ(error.what(), "m: iostream stream error");
    };
    vfs_test::inspectThrown<E>([&] { base.rethrow(); }, same);
    const std::unique_ptr<const boost::exception_detail::clone_base> clone(base.clone());
    const auto* cloned = dynamic_cast<const E*>(clone.get());
    ASSERT_NE(cloned, nullptr);
    same(*cloned);
    // A plain throw is captured whole by boost::current_exception.
    vfs_test::inspectThrown<E>(vfs_test::rethrowing(vfs_test::boostCaptured([&] { throw original; })), same);

    static_assert(std::is_abstract_v<IOException>);
    EXPECT_THROW(throw original, std::ios_base::failure);
    EXPECT_THROW(throw original, std::system_error);
    EXPECT_THROW(throw original, IInternalException);
    EXPECT_THROW(boost::throw_exception(original), E);
}

} // namespace
