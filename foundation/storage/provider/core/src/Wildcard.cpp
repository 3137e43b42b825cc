#include <foundation/storage/provider/FolderEntryIterator.hpp>

namespace foundation::storage::provider {

namespace {

// The pattern as the matcher reads it. A '*' followed by more pattern gives back all but the last
// remaining unit at most, so where stars follow one another inside a pattern they act as one, and
// a run of two or more stars at the end needs one unit at least: it reads as "?*".
class Pattern {
public:
    explicit Pattern(std::u16string_view pattern) noexcept
    {
        std::size_t stars = 0;
        while (stars < pattern.size() && pattern[pattern.size() - 1 - stars] == u'*')
            ++stars;
        m_body = pattern.substr(0, pattern.size() - stars);
        m_tail = stars == 0 ? u"" : stars == 1 ? u"*" : u"?*";
    }

    std::size_t size() const noexcept { return m_body.size() + m_tail.size(); }
    char16_t operator[](std::size_t at) const noexcept
    {
        return at < m_body.size() ? m_body[at] : m_tail[at - m_body.size()];
    }

private:
    std::u16string_view m_body;
    std::u16string_view m_tail;
};

} // namespace

// Iterative, backtracking to the latest star only: a later star can absorb whatever an earlier one
// would have taken more, so the cost is at most the product of the name's and the pattern's lengths
// and no pattern, however long, deepens the stack.
bool matchesWildcard(std::u16string_view name, std::u16string_view text) noexcept
{
    const Pattern pattern(text);
    constexpr std::size_t none = static_cast<std::size_t>(-1);
    std::size_t p = 0, n = 0, star = none, resume = 0;
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == u'*') {
            star = p++;
            resume = n;
        } else if (p < pattern.size() && (pattern[p] == u'?' || pattern[p] == name[n])) {
            ++p;
            ++n;
        } else if (star != none) {
            p = star + 1;
            n = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == u'*')
        ++p;
    return p == pattern.size();
}

} // namespace foundation::storage::provider
