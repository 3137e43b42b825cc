#include <foundation/storage/vfs/IOException.hpp>

#include <ExceptionCapture.hpp>

#include <boost/exception_ptr.hpp>

#include <gtest/gtest.h>

#include <deque>
#include <ios>
#include <memory>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

namespace {

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;
using foundation::core::except::IInternalException;
using provider::ExceptionContext;
using vfs::ErrorCode;
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

TYPED_TEST(IOExceptionTest, DefaultNamesItselfAndReportsIOError)
{
    using E = typename TypeParam::Type;
    const E error;
    EXPECT_EQ(error.getErrorCode(), ErrorCode::IOError);
    EXPECT_EQ(std::string(error.what()), std::string(TypeParam::name) + ": iostream stream error");
    EXPECT_EQ(error.code(), std::make_error_code(std::io_errc::stream));
    EXPECT_EQ(&error.code().category(), &std::iostream_category());
    EXPECT_EQ(error.getExceptionContextsString(), u"");
    EXPECT_FALSE(error.topExceptionContext().has_value());

    const E coded(ErrorCode::NoSpaceLeft);
    EXPECT_EQ(coded.getErrorCode(), ErrorCode::NoSpaceLeft);
    EXPECT_EQ(std::string(coded.what()), std::string(TypeParam::name) + ": iostream stream error");
}

TYPED_TEST(IOExceptionTest, MessageComposesLikeSystemError)
{
    using E = typename TypeParam::Type;
    EXPECT_EQ(std::string(E("disk on fire", ErrorCode::FileTooLarge).what()), "disk on fire: iostream stream error");
    EXPECT_EQ(E("disk on fire", ErrorCode::FileTooLarge).getErrorCode(), ErrorCode::FileTooLarge);
    EXPECT_EQ(std::string(E("", ErrorCode::NoSpaceLeft).what()), "iostream stream error");
    // what() through either base gives the same text.
    const E error("m", ErrorCode::IOError);
    const std::ios_base::failure& failure = error;
    const IOException& io = error;
    EXPECT_STREQ(failure.what(), error.what());
    EXPECT_STREQ(io.what(), error.what());
}

TYPED_TEST(IOExceptionTest, ContextsJoinPopAndTopFromTheFront)
{
    using E = typename TypeParam::Type;
    E error;
    error.setExceptionContexts(contexts({u"A", u"B", u"C"}));
    EXPECT_EQ(error.getExceptionContextsString(), u"A:B:C");
    EXPECT_EQ(error.topExceptionContext()->getExceptionContextKey(), u"A");
    error.popExceptionContext();
    EXPECT_EQ(error.getExceptionContextsString(), u"B:C");
    ASSERT_TRUE(error.topExceptionContext().has_value());
    EXPECT_EQ(*error.topExceptionContext(), ExceptionContext(u"B"));
    error.popExceptionContext();
    error.popExceptionContext();
    EXPECT_EQ(error.getExceptionContextsString(), u"");
    error.popExceptionContext();
    EXPECT_EQ(error.getExceptionContextsString(), u"");
    EXPECT_FALSE(error.topExceptionContext().has_value());

    error.setExceptionContexts(contexts({u"x"}));
    error.setExceptionContexts(contexts({u"y"}));
    EXPECT_EQ(error.getExceptionContextsString(), u"y");
}

TYPED_TEST(IOExceptionTest, CopiesAreDeepAndMovesTakeTheContexts)
{
    using E = typename TypeParam::Type;
    E original("m", ErrorCode::ResourceInUse);
    original.setExceptionContexts(contexts({u"a", u"b"}));

    const E copy(original);
    copy.popExceptionContext();
    EXPECT_EQ(copy.getExceptionContextsString(), u"b");
    EXPECT_EQ(original.getExceptionContextsString(), u"a:b");
    EXPECT_EQ(copy.getErrorCode(), ErrorCode::ResourceInUse);
    EXPECT_STREQ(copy.what(), "m: iostream stream error");

    E assigned;
    assigned = original;
    EXPECT_EQ(assigned.getExceptionContextsString(), u"a:b");
    EXPECT_EQ(assigned.getErrorCode(), ErrorCode::ResourceInUse);
    EXPECT_STREQ(assigned.what(), "m: iostream stream error");

    E moved(std::move(assigned));
    EXPECT_EQ(moved.getExceptionContextsString(), u"a:b");
    EXPECT_EQ(assigned.getExceptionContextsString(), u""); // NOLINT(bugprone-use-after-move)
    EXPECT_STREQ(moved.what(), "m: iostream stream error");

    E moveAssigned;
    moveAssigned = std::move(moved);
    EXPECT_EQ(moveAssigned.getExceptionContextsString(), u"a:b");
    EXPECT_EQ(moveAssigned.getErrorCode(), ErrorCode::ResourceInUse);
    EXPECT_EQ(moved.getExceptionContextsString(), u""); // NOLINT(bugprone-use-after-move)
}

TYPED_TEST(IOExceptionTest, RethrowAndCloneKeepTheLeafType)
{
    using E = typename TypeParam::Type;
    E original("m", ErrorCode::IOError);
    original.setExceptionContexts(contexts({u"read", u"EIO"}));
    const IOException& base = original;

    vfs_test::inspectThrown<E>([&] { base.rethrow(); },
                               [](const E& error) { EXPECT_EQ(error.getExceptionContextsString(), u"read:EIO"); });

    const std::unique_ptr<const boost::exception_detail::clone_base> clone(base.clone());
    const auto* cloned = dynamic_cast<const E*>(clone.get());
    ASSERT_NE(cloned, nullptr);
    EXPECT_EQ(cloned->getExceptionContextsString(), u"read:EIO");
    EXPECT_STREQ(cloned->what(), "m: iostream stream error");

    // A plain throw is captured whole by boost::current_exception.
    const auto captured = vfs_test::boostCaptured([&] { throw original; });
    vfs_test::inspectThrown<E>(vfs_test::rethrowing(captured),
                               [](const E& error) { EXPECT_EQ(error.getExceptionContextsString(), u"read:EIO"); });
}

TYPED_TEST(IOExceptionTest, IsCaughtAsAStandardStreamFailure)
{
    using E = typename TypeParam::Type;
    static_assert(std::is_abstract_v<IOException>);
    const E error("m", ErrorCode::IOError);
    EXPECT_THROW(throw error, IOException);
    EXPECT_THROW(throw error, std::ios_base::failure);
    EXPECT_THROW(throw error, std::system_error);
    EXPECT_THROW(throw error, std::exception);
    EXPECT_THROW(throw error, IInternalException);
    EXPECT_THROW(boost::throw_exception(error), E);
}

} // namespace
