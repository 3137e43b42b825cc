#include <Prelude.hpp>

namespace {

using foundation::storage::provider::matchesWildcard;

// The fuzz target holds the matcher to a reference over arbitrary names and patterns; these are
// the edges: repeated stars, empty names, surrogate pairs as two units, NUL as a literal.
TEST(WildcardMatcherTest, Edges)
{
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
