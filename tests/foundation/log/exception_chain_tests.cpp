#include <Prelude.hpp>

#include <boost/exception/info.hpp>

namespace chain_test {

using foundation::log::current_exception_chain_as_string;

struct CopyError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct BoostError : std::runtime_error, boost::exception {
    using std::runtime_error::runtime_error;
};

// Carries information but no message.
struct Note : boost::exception {};

// A platform exception that is not a std::exception: its text comes from ToUstring().
struct Described : foundation::core::except::IException {
    boost::exception_detail::clone_base const* clone() const override { return new Described(*this); }
    void rethrow() const override { throw *this; }

private:
    foundation::core::except::ustring ToUstringImpl() const override { return u"r\u00e9sum\u00e9 lost"; }
};

template <class Throw>
std::string chainOf(Throw thrower)
{
    return vfs_test::whileHandling(thrower, [] { return current_exception_chain_as_string(); });
}

// Runs `innermost`, which throws, then each of `wrappers` in the handler of what the one before
// threw, so that each can nest its predecessor.
template <class Innermost>
void throwNested(Innermost innermost)
{
    innermost();
}

template <class Innermost, class Wrapper, class... Wrappers>
void throwNested(Innermost innermost, Wrapper wrapper, Wrappers... wrappers)
{
    throwNested([&] { vfs_test::whileHandling(innermost, wrapper); }, wrappers...);
}

TEST(ExceptionChain, StandardNestingThreeLevels)
{
    const std::string chain = chainOf([] {
        throwNested([] { throw std::runtime_error("disk failed"); },
                    [] { std::throw_with_nested(std::logic_error("provider failed")); },
                    [] { std::throw_with_nested(CopyError("copy failed")); });
    });
    EXPECT_EQ(chain, "chain_test::CopyError: copy failed\n"
                     "std::logic_error: provider failed\n"
                     "std::runtime_error: disk failed");
}

TEST(ExceptionChain, BoostNestingThreeLevels)
{
    const std::string chain = chainOf([] {
        throwNested([] { boost::throw_exception(std::runtime_error("disk failed")); },
                    [] {
                        boost::throw_exception(BoostError("provider failed")
                                               << boost::errinfo_nested_exception(boost::current_exception()));
                    },
                    [] {
                        boost::throw_exception(BoostError("copy failed")
                                               << boost::errinfo_nested_exception(boost::current_exception()));
                    });
    });
    EXPECT_EQ(chain, "chain_test::BoostError: copy failed\n"
                     "chain_test::BoostError: provider failed\n"
                     "std::runtime_error: disk failed");
}

TEST(ExceptionChain, MixedNestingAndTypesWithoutMessage)
{
    const std::string chain = chainOf([] {
        throwNested([] { throw 42; },
                    [] { throw Note() << boost::errinfo_nested_exception(boost::current_exception()); },
                    [] { std::throw_with_nested(Described()); });
    });
    EXPECT_EQ(chain, "chain_test::Described: r\xc3\xa9sum\xc3\xa9 lost\n"
                     "chain_test::Note\n"
                     "int");

    EXPECT_EQ(chainOf([] { throw "plain text"; }), "char const*: plain text");
}

TEST(ExceptionChain, OutsideAHandler)
{
    EXPECT_EQ(current_exception_chain_as_string(), "no exception");
    try {
        throw std::runtime_error("handled");
    } catch (...) {
    }
    EXPECT_EQ(current_exception_chain_as_string(), "no exception");
}

} // namespace chain_test
