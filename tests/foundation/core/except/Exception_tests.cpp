#include <Prelude.hpp>

namespace except_test {

using foundation::core::except::Exception;
using foundation::core::except::IException;
using foundation::core::except::ustring;
using foundation::core::except::detail::AnonymousInternalException;

// An exception whose text lives in a member that a test can change after construction.
class TextException : public Exception<IException, std::runtime_error> {
public:
    explicit TextException(ustring text) : Exception("base message"), m_text(std::move(text)) {}
    void setText(ustring text) { m_text = std::move(text); }
    boost::exception_detail::clone_base const* clone() const override { return new TextException(*this); }
    void rethrow() const override { throw *this; }

private:
    ustring ToUstringImpl() const override { return m_text; }
    ustring m_text;
};

// Keeps the default text: the message of its standard base.
class PlainException : public Exception<IInternalException, std::logic_error> {
public:
    using Exception::Exception;
    boost::exception_detail::clone_base const* clone() const override { return new PlainException(*this); }
    void rethrow() const override { throw *this; }
};

struct TextCase {
    const char* name;
    ustring text;
    std::string utf8;
};

class ExceptionText : public ::testing::TestWithParam<TextCase> {};

TEST_P(ExceptionText, WhatIsUtf8OfToUstringAndIsCached)
{
    const TextException e(GetParam().text);
    EXPECT_EQ(e.ToUstring(), GetParam().text);
    EXPECT_EQ(std::string(e.what()), GetParam().utf8);
    EXPECT_EQ(e.what(), e.what()) << "the text is computed once and kept";
    const std::exception& asStd = e;
    EXPECT_STREQ(asStd.what(), GetParam().utf8.c_str());
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ExceptionText,
    ::testing::Values(TextCase{"Ascii", u"file not found", "file not found"},
                      TextCase{"Empty", u"", ""},
                      TextCase{"SurrogatePair", u"a\U0001F600b", "a\xf0\x9f\x98\x80" "b"},
                      TextCase{"LoneHighAtEnd", ustring(u"x") + char16_t(0xD83D), "x\xef\xbf\xbd"}),
    [](const ::testing::TestParamInfo<TextCase>& info) { return std::string(info.param.name); });

TEST(Exception, DefaultTextIsTheStandardMessage)
{
    const PlainException e("precondition violated");
    EXPECT_STREQ(e.what(), "precondition violated");
    EXPECT_EQ(e.ToUstring(), u"precondition violated");
}

TEST(Exception, CopiesComputeTheirOwnText)
{
    auto original = std::make_unique<TextException>(u"one");
    const char* originalText = original->what();

    TextException copy(*original);
    copy.setText(u"two");
    EXPECT_STREQ(copy.what(), "two");
    EXPECT_NE(copy.what(), originalText);
    EXPECT_STREQ(original->what(), "one");

    TextException assigned(u"three");
    EXPECT_STREQ(assigned.what(), "three");
    assigned = *original;
    EXPECT_STREQ(assigned.what(), "one") << "assignment drops the cached text";

    // The copy owns its text: it survives the original.
    original.reset();
    EXPECT_STREQ(copy.what(), "two");
    EXPECT_STREQ(assigned.what(), "one");
}

TEST(Exception, ConcurrentWhatOnOneObjectAgrees)
{
    constexpr int threadCount = 4;
    constexpr int rounds = 100;
    for (int round = 0; round < rounds; ++round) {
        const TextException e(u"shared \u00e9v\u00e9nement " + ustring(1, char16_t(u'0' + round % 10)));
        const std::string expected = std::string("shared \xc3\xa9v\xc3\xa9nement ") + char('0' + round % 10);
        std::vector<const char*> seen(threadCount, nullptr);
        vfs_test::runOnThreads(threadCount, [&](int t) { seen[static_cast<std::size_t>(t)] = e.what(); });
        for (const char* text : seen) {
            EXPECT_EQ(text, seen.front()) << "every caller gets the text that won the race";
            EXPECT_EQ(std::string(text), expected);
        }
    }
}

TEST(AnonymousInternalException, KeepsTheOriginalMessageAndIsCaughtThroughEveryInterface)
{
    const auto thrower = [] { foundation::core::except::throwInternal(std::runtime_error("disk on fire")); };
    vfs_test::inspectThrown<IInternalException>(
        thrower, [](const IInternalException& e) { EXPECT_EQ(e.ToUstring(), u"disk on fire"); });
    vfs_test::inspectThrown<std::runtime_error>(
        thrower, [](const std::runtime_error& e) { EXPECT_STREQ(e.what(), "disk on fire"); });
    vfs_test::inspectThrown<boost::exception>(
        thrower, [](const boost::exception& e) { EXPECT_NE(dynamic_cast<const IException*>(&e), nullptr); });

    const AnonymousInternalException<std::out_of_range> inPlace(std::in_place, "index 7");
    EXPECT_STREQ(static_cast<const std::logic_error&>(inPlace).what(), "index 7");
    // A message that is not UTF-8 still converts, each bad byte becoming U+FFFD.
    const AnonymousInternalException<std::runtime_error> bad(std::runtime_error("bad \xff byte"));
    EXPECT_EQ(bad.ToUstring(), u"bad \uFFFD byte");
    EXPECT_STREQ(bad.what(), "bad \xff byte");
}

// boost::current_exception() must clone through the exception's own clone(), so that the copy keeps
// the most-derived type (a fallback would slice it to std::runtime_error and drop the interfaces).
template <class Throw>
void expectCloneKeepsTypeAndMessage(Throw thrower)
{
    vfs_test::inspectThrown<IInternalException>(thrower, [](const IInternalException& original) {
        const boost::exception_ptr captured = boost::current_exception();
        ASSERT_TRUE(captured);
        vfs_test::inspectThrown<IInternalException>(vfs_test::rethrowing(captured), [&](const IInternalException& e) {
            EXPECT_EQ(typeid(e), typeid(original));
            EXPECT_NE(dynamic_cast<const void*>(&e), dynamic_cast<const void*>(&original))
                << "a clone, not the original object";
            EXPECT_EQ(e.ToUstring(), u"lost volume");
            const auto* standard = dynamic_cast<const std::runtime_error*>(&e);
            ASSERT_NE(standard, nullptr);
            EXPECT_STREQ(standard->what(), "lost volume");
        });
    });
}

TEST(AnonymousInternalException, BoostCurrentExceptionClonesAndRethrowsIt)
{
    expectCloneKeepsTypeAndMessage(
        [] { foundation::core::except::throwInternal(std::runtime_error("lost volume")); });
    expectCloneKeepsTypeAndMessage(
        [] { throw AnonymousInternalException<std::runtime_error>(std::runtime_error("lost volume")); });
}

} // namespace except_test
