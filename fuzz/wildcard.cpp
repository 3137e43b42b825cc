// The wildcard matcher against a reference that states its rules directly, memoised so that the
// reference itself stays fast: '*' and '?' over UTF-16 code units, every other unit literal, and a
// star followed by more pattern needing at least one remaining name unit.

#include "FuzzInput.hpp"

#include <foundation/storage/provider/FolderEntryIterator.hpp>

#include <string_view>
#include <vector>

namespace {

class Reference {
public:
    Reference(std::u16string_view name, std::u16string_view pattern)
        : m_name(name), m_pattern(pattern), m_memo((name.size() + 1) * (pattern.size() + 1), Unknown)
    {
    }
    bool matches() { return match(0, 0); }

private:
    enum State : signed char { Unknown = -1, No = 0, Yes = 1 };

    bool match(std::size_t p, std::size_t n)
    {
        signed char& memo = m_memo[p * (m_name.size() + 1) + n];
        if (memo == Unknown)
            memo = compute(p, n) ? Yes : No;
        return memo == Yes;
    }

    bool compute(std::size_t p, std::size_t n)
    {
        if (p == m_pattern.size())
            return n == m_name.size();
        const char16_t unit = m_pattern[p];
        if (unit != u'*') {
            if (n == m_name.size() || (unit != u'?' && unit != m_name[n]))
                return false;
            return match(p + 1, n + 1);
        }
        if (p + 1 == m_pattern.size())
            return true;
        for (std::size_t k = n; k < m_name.size(); ++k)
            if (match(p + 1, k))
                return true;
        return false;
    }

    std::u16string_view m_name;
    std::u16string_view m_pattern;
    std::vector<signed char> m_memo;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // The first byte splits the rest between the pattern and the name.
    if (size < 1)
        return 0;
    const std::u16string units = vfs_fuzz::unitsOf(data + 1, size - 1);
    const std::size_t split = units.empty() ? 0 : data[0] % (units.size() + 1);
    const std::u16string_view pattern = std::u16string_view(units).substr(0, split);
    const std::u16string_view name = std::u16string_view(units).substr(split);
    if (foundation::storage::provider::matchesWildcard(name, pattern) != Reference(name, pattern).matches())
        vfs_fuzz::violated("matchesWildcard agrees with the reference matcher");
    return 0;
}
