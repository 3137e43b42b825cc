#include <fl/i18n/append_utf8.hpp>
#include <Prelude.hpp>

namespace {

using namespace fl::i18n;
using namespace std::string_view_literals;

// Runs `action`, which must throw conversion_error; returns its offset.
template <class Action>
std::size_t failureOffset(Action&& action)
{
    return vfs_test::inspectThrown<conversion_error>(std::forward<Action>(action), [](const conversion_error& error) {
        EXPECT_THAT(error.what(), ::testing::HasSubstr(std::to_string(error.offset())));
        return error.offset();
    });
}

std::string hex(std::string_view bytes)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        out += digits[value >> 4];
        out += digits[value & 0xF];
        out += ' ';
    }
    return out;
}

struct Encoded {
    std::string_view utf8;
    std::u16string_view utf16;
    std::u32string_view utf32;
};

std::ostream& operator<<(std::ostream& out, const Encoded& c) { return out << hex(c.utf8); }

class I18nRoundTrip : public ::testing::TestWithParam<Encoded> {};

TEST_P(I18nRoundTrip, AllFormsAgree)
{
    const Encoded& c = GetParam();
    EXPECT_EQ(ustring_to_utf8(c.utf16), c.utf8);
    EXPECT_EQ(utf8_to_ustring(c.utf8), c.utf16);
    EXPECT_EQ(to_u32string(c.utf16), c.utf32);
    EXPECT_EQ(from_u32string(c.utf32), c.utf16);
    EXPECT_EQ(ustring_to_utf8_lossy(c.utf16), c.utf8);
    EXPECT_EQ(utf8_to_ustring_lossy(c.utf8), c.utf16);
    EXPECT_TRUE(is_valid_utf16(c.utf16));
}

const Encoded encodedCases[] = {
    {""sv, u""sv, U""sv},
    {"plain ASCII /~"sv, u"plain ASCII /~"sv, U"plain ASCII /~"sv},
    {"a\0b"sv, u"a\0b"sv, U"a\0b"sv},
    {"\xC2\x80"sv, u"\u0080"sv, U"\u0080"sv},
    {"caf\xC3\xA9"sv, u"caf\u00E9"sv, U"caf\u00E9"sv},
    {"\xE0\xA0\x80"sv, u"\u0800"sv, U"\u0800"sv},
    {"\xED\x9F\xBF\xEE\x80\x80"sv, u"\uD7FF\uE000"sv, U"\uD7FF\uE000"sv},
    {"\xEF\xBF\xBD\xEF\xBF\xBF"sv, u"\uFFFD\uFFFF"sv, U"\uFFFD\uFFFF"sv},
    {"\xF0\x90\x80\x80"sv, u"\U00010000"sv, U"\U00010000"sv},
    {"\xF4\x8F\xBF\xBF"sv, u"\U0010FFFF"sv, U"\U0010FFFF"sv},
    {"a\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E"sv, u"a\u00E9\u20AC\U0001D11E"sv, U"a\u00E9\u20AC\U0001D11E"sv},
};

INSTANTIATE_TEST_SUITE_P(Table, I18nRoundTrip, ::testing::ValuesIn(encodedCases));

struct BadUtf16 {
    std::u16string text;
    std::size_t offset; // of the first lone surrogate
    std::string lossy;
};

TEST(I18n, LoneSurrogatesThrowInStrictModeAndBecomeReplacementsInLossyMode)
{
    const std::string fffd = "\xEF\xBF\xBD";
    const BadUtf16 cases[] = {
        {{0xD800}, 0, fffd},
        {{0xDC00}, 0, fffd},
        {{u'a', 0xD800}, 1, "a" + fffd},
        {{0xDC00, 0xD800}, 0, fffd + fffd},
        {{u'x', u'y', 0xD800, 0xD800, 0xDC00}, 2, "xy" + fffd + "\xF0\x90\x80\x80"},
        {{0xD83D, 0xDE00, 0xDE00}, 2, "\xF0\x9F\x98\x80" + fffd},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lossy);
        EXPECT_FALSE(is_valid_utf16(c.text));
        EXPECT_EQ(failureOffset([&] { ustring_to_utf8(c.text); }), c.offset);
        EXPECT_EQ(failureOffset([&] { to_u32string(c.text); }), c.offset);
        EXPECT_EQ(ustring_to_utf8_lossy(c.text), c.lossy);
    }
}

struct BadUtf8 {
    std::string_view bytes;
    std::size_t offset;     // of the first ill-formed sequence
    std::u16string_view lossy; // one U+FFFD per maximal ill-formed subpart
};

std::ostream& operator<<(std::ostream& out, const BadUtf8& c) { return out << hex(c.bytes); }

class I18nBadUtf8 : public ::testing::TestWithParam<BadUtf8> {};

TEST_P(I18nBadUtf8, IsRejectedStrictlyAndReplacedLossily)
{
    const BadUtf8& c = GetParam();
    EXPECT_EQ(failureOffset([&] { utf8_to_ustring(c.bytes); }), c.offset);
    EXPECT_EQ(utf8_to_ustring_lossy(c.bytes), c.lossy);
    // As a name, every byte is kept: each ill-formed byte becomes U+DC00 + byte and comes back.
    const ustring native = native_to_ustring(c.bytes);
    EXPECT_EQ(ustring_to_native(native), c.bytes);
    EXPECT_TRUE(is_valid_native_utf16(native));
    EXPECT_EQ(canonical_native(native), native);
    for (std::size_t i = 0, n = 0; i < native.size(); ++i) {
        if (is_escaped_byte(native[i])) {
            EXPECT_EQ(static_cast<unsigned char>(c.bytes[c.offset + n++]), native[i] - 0xDC00) << i;
        }
    }
}

TEST(I18n, NativeNamesTakeOnlyByteUnitsAndFoldThemIntoTheCharacterTheySpell)
{
    EXPECT_EQ(native_to_ustring("a\xC3\x28\xC3\xA9"), u"a\xDCC3(\u00E9");
    EXPECT_EQ(canonical_native(u"\xDCC3\xDCA9\xDCFF"), u"\u00E9\xDCFF");
    for (const char16_t unit : {u'\xD800', u'\xDC7F', u'\xDD00', u'\xDFFF'}) {
        EXPECT_EQ(failureOffset([&] { ustring_to_native(ustring(u"ab") + unit); }), 2u);
        EXPECT_FALSE(is_valid_native_utf16(ustring(1, unit)));
    }
}

const BadUtf8 badUtf8Cases[] = {
    {"\x80"sv, 0, u"\uFFFD"},                                   // lone continuation byte
    {"a\xC3"sv, 1, u"a\uFFFD"},                                 // truncated at the end
    {"\xC3\x28"sv, 0, u"\uFFFD("},                              // continuation missing
    {"\xE2\x82"sv, 0, u"\uFFFD"},                               // truncated 3-byte sequence
    {"\xF0\x9F\x98"sv, 0, u"\uFFFD"},                           // truncated 4-byte sequence
    {"\xC0\xAF"sv, 0, u"\uFFFD\uFFFD"},                         // overlong "/"
    {"\xE0\x9F\xBF"sv, 0, u"\uFFFD\uFFFD\uFFFD"},               // overlong U+07FF
    {"\xF0\x8F\xBF\xBF"sv, 0, u"\uFFFD\uFFFD\uFFFD\uFFFD"},     // overlong U+FFFF
    {"\xED\xA0\x80"sv, 0, u"\uFFFD\uFFFD\uFFFD"},               // encoded high surrogate
    {"\xF4\x90\x80\x80"sv, 0, u"\uFFFD\uFFFD\uFFFD\uFFFD"},     // above U+10FFFF
    {"\xF8\x88\x80\x80\x80"sv, 0, u"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"}, // 5-byte form
    {"\xFE\xFF"sv, 0, u"\uFFFD\uFFFD"},
    {"ok\xE6\x97\xA5\xE6\x97"sv, 5, u"ok\u65E5\uFFFD"},
};

INSTANTIATE_TEST_SUITE_P(Table, I18nBadUtf8, ::testing::ValuesIn(badUtf8Cases));

TEST(I18n, AppendingConvertsWhereverTheFirstOtherByteStandsAndFailsWithoutATrace)
{
    // ASCII is widened (and narrowed) several units at a time, a short tail by converting the last
    // eight again: the first other unit goes to every offset, and ASCII alone comes in every length.
    for (std::size_t at = 0; at < 40; ++at) {
        SCOPED_TRACE(at);
        ustring ascii = u"x";
        append_utf8(ascii, std::string(at, 'a') + "yz");
        EXPECT_EQ(ascii, u"x" + ustring(at, u'a') + u"yz");
        EXPECT_EQ(ustring_to_utf8(ascii), "x" + std::string(at, 'a') + "yz") << "and narrowed back";
        const ustring expected = u"x" + ustring(at, u'a') + u"\u00E9bcdefghij";
        ustring out = u"x";
        append_utf8(out, std::string(at, 'a') + "\xC3\xA9" + "bcdefghij");
        EXPECT_EQ(out, expected);
        EXPECT_EQ(ustring_to_utf8(expected), "x" + std::string(at, 'a') + "\xC3\xA9" + "bcdefghij");
        EXPECT_EQ(failureOffset([&] { append_utf8(out, std::string(at, 'a') + "\xFF" + "bc"); }), at);
        EXPECT_EQ(out, expected) << "left as it was";
    }
}

TEST(I18n, Utf32OutsideTheCodeSpaceIsRejected)
{
    EXPECT_EQ(failureOffset([] { from_u32string(std::u32string{U'a', U'b', 0xD800}); }), 2u);
    EXPECT_EQ(failureOffset([] { from_u32string(std::u32string{U'a', 0xDFFF}); }), 1u);
    EXPECT_EQ(failureOffset([] { from_u32string(std::u32string{0x110000}); }), 0u);
    EXPECT_EQ(failureOffset([] { from_u32string(std::u32string{0xFFFFFFFF}); }), 0u);
}

TEST(I18n, AsciiClassesIgnoreEverythingBeyondAscii)
{
    for (const char32_t c : {U'\u00E9', U'\u00C0', U'\u0130', U'\u212A', U'\uFF21', U'\u0661', U'\U0001D400'}) {
        EXPECT_FALSE(isalpha_ascii(c));
        EXPECT_FALSE(isalnum_ascii(c));
        EXPECT_FALSE(isdigit_ascii(c));
        EXPECT_FALSE(isxdigit_ascii(c));
        EXPECT_FALSE(isupper_ascii(c));
        EXPECT_EQ(tolower_ascii(c), c);
    }
    EXPECT_EQ(tolower_ascii(U'Q'), U'q');
    EXPECT_EQ(tolower_ascii(U'@'), U'@');
    EXPECT_EQ(tolower_ascii(U'['), U'[');
    EXPECT_TRUE(isxdigit_ascii(U'f') && isxdigit_ascii(U'F') && !isxdigit_ascii(U'g'));
}

// Every conversion either round-trips exactly or fails in strict mode; lossy mode always produces
// well-formed output.
TEST(I18n, RandomInputKeepsTheConversionsConsistent)
{
    std::mt19937 random(7);
    const auto pick = [&](unsigned max) { return std::uniform_int_distribution<unsigned>(0, max)(random); };
    int validUtf16 = 0;
    int validUtf8 = 0;
    for (int i = 0; i < 5000; ++i) {
        std::u16string text;
        for (unsigned n = pick(12); n > 0; --n) {
            switch (pick(3)) {
            case 0:
                text.push_back(static_cast<char16_t>(0xD800 + pick(0x7FF)));
                break;
            case 1:
                text.push_back(static_cast<char16_t>(pick(0x7F)));
                break;
            default:
                text.push_back(static_cast<char16_t>(pick(0xFFFF)));
            }
        }
        const std::string lossy = ustring_to_utf8_lossy(text);
        EXPECT_TRUE(is_valid_utf16(utf8_to_ustring(lossy)));
        if (is_valid_utf16(text)) {
            ++validUtf16;
            EXPECT_EQ(lossy, ustring_to_utf8(text));
            EXPECT_EQ(utf8_to_ustring(lossy), text);
            EXPECT_EQ(from_u32string(to_u32string(text)), text);
        } else {
            EXPECT_THROW(ustring_to_utf8(text), conversion_error);
            EXPECT_THROW(to_u32string(text), conversion_error);
        }

        std::string bytes;
        for (unsigned n = pick(12); n > 0; --n)
            bytes.push_back(static_cast<char>(pick(3) == 0 ? pick(0x7F) : 0x80 + pick(0x7F)));
        const std::u16string decoded = utf8_to_ustring_lossy(bytes);
        EXPECT_TRUE(is_valid_utf16(decoded)) << hex(bytes);
        std::u16string strict;
        if (const auto error = vfs_test::thrown<conversion_error>([&] { strict = utf8_to_ustring(bytes); })) {
            EXPECT_LT(error->offset(), bytes.size());
            EXPECT_NE(decoded.find(u'\uFFFD'), std::u16string::npos) << hex(bytes);
        } else {
            ++validUtf8;
            EXPECT_EQ(strict, decoded);
            EXPECT_EQ(ustring_to_utf8(strict), bytes);
        }
        if (::testing::Test::HasFailure())
            return;
    }
    EXPECT_GT(validUtf16, 200);
    EXPECT_GT(validUtf8, 200);
}

} // namespace
