#include <foundation/storage/provider/FolderEntryIterator.hpp>

namespace foundation::storage::provider {

// Plainly recursive: the depth is bounded by the number of '*' in the pattern, the cost by the
// product of the name length and that number.
bool matchesWildcard(std::u16string_view name, std::u16string_view pattern) noexcept
{
    std::size_t p = 0, n = 0;
    while (p < pattern.size() && pattern[p] != u'*') {
        if (n >= name.size())
            return false;
        if (pattern[p] != u'?' && pattern[p] != name[n])
            return false;
        ++n;
        ++p;
    }
    if (p == pattern.size())
        return n == name.size();
    if (p + 1 == pattern.size())
        return true;
    const std::u16string_view rest = pattern.substr(p + 1);
    // Only non-empty remainders are tried: a star followed by more pattern needs one unit at least.
    for (std::size_t k = n; k < name.size(); ++k)
        if (matchesWildcard(name.substr(k), rest))
            return true;
    return false;
}

} // namespace foundation::storage::provider
