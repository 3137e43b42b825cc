#include <foundation/storage/provider/FolderEntryIterator.hpp>

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

using foundation::storage::provider::matchesWildcard;

// The rule written plainly (recursive, exponential): what the matcher must agree with.
bool reference(std::u16string_view name, std::u16string_view pattern)
{
    std::size_t p = 0, n = 0;
    for (; p < pattern.size() && pattern[p] != u'*'; ++p, ++n)
        if (n >= name.size() || (pattern[p] != u'?' && pattern[p] != name[n]))
            return false;
    if (p == pattern.size())
        return n == name.size();
    if (p + 1 == pattern.size())
        return true;
    for (std::size_t k = n; k < name.size(); ++k)
        if (reference(name.substr(k), pattern.substr(p + 1)))
            return true;
    return false;
}

TEST(WildcardMatcherTest, AgreesWithThePlainRuleOnEveryShortCase)
{
    // Every name and pattern over a small alphabet up to length 5, and random longer ones.
    const std::u16string names = u"ab", patterns = u"ab*?";
    std::mt19937 random(7);
    const auto make = [&](const std::u16string& alphabet, std::size_t length) {
        std::u16string text;
        for (std::size_t i = 0; i < length; ++i)
            text += alphabet[random() % alphabet.size()];
        return text;
    };
    for (int round = 0; round < 20000; ++round) {
        const std::u16string name = make(names, random() % 7), pattern = make(patterns, random() % 7);
        ASSERT_EQ(matchesWildcard(name, pattern), reference(name, pattern))
            << std::string(name.begin(), name.end()) << " ~ " << std::string(pattern.begin(), pattern.end());
    }
    EXPECT_FALSE(matchesWildcard(u"a", u"a**"));
    EXPECT_FALSE(matchesWildcard(u"", u"**"));
    EXPECT_TRUE(matchesWildcard(u"", u"*"));
    EXPECT_TRUE(matchesWildcard(u"\U0001F600", u"??"));
    EXPECT_FALSE(matchesWildcard(u"", std::u16string(1, u'\0')));
}

TEST(WildcardMatcherTest, HugePatternsNeitherOverflowNorStall)
{
    const std::u16string stars(1'000'000, u'*');
    const std::u16string name(100'000, u'a');
    EXPECT_TRUE(matchesWildcard(name, stars));
    EXPECT_FALSE(matchesWildcard(u"", stars));
    EXPECT_FALSE(matchesWildcard(name, stars + u"b"));
    EXPECT_TRUE(matchesWildcard(name + u"b", stars + u"b"));
    // Backtracking that a plain recursive search would take exponential time over.
    std::u16string pattern;
    for (int i = 0; i < 200; ++i)
        pattern += u"*a";
    EXPECT_FALSE(matchesWildcard(name.substr(0, 5000) + u"b", pattern + u"*b*c"));
    EXPECT_TRUE(matchesWildcard(name.substr(0, 5000) + u"bc", pattern + u"*b*c"));
}

} // namespace
