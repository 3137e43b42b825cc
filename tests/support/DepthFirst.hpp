#pragma once

// Checks of the order recursive listings and walks promise, shared by the provider and library tests.

#include <gtest/gtest.h>

#include <cstddef>

namespace vfs_test {

// `names` are relative paths in listing order, folders without a trailing separator. Depth first:
// everything below an entry comes right after it and nowhere else.
template <class Names>
void expectDepthFirst(const Names& names)
{
    for (std::size_t i = 0; i < names.size(); ++i) {
        auto below = names[i];
        below.push_back('/');
        std::size_t end = i + 1;
        while (end < names.size() && names[end].starts_with(below))
            ++end;
        for (std::size_t k = 0; k < names.size(); ++k) {
            if (k <= i || k >= end) {
                EXPECT_FALSE(names[k].starts_with(below)) << "entry " << k << " is apart from entry " << i;
            }
        }
    }
}

} // namespace vfs_test
