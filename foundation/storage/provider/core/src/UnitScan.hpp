#pragma once

// Scans of UTF-16 text for a few code units, four units per step: child names are checked on every
// handle a listing makes, so these run once per listed entry.

#include <cstdint>
#include <cstring>
#include <string_view>

namespace foundation::storage::provider::detail {

// Whether `text` holds the unit `a` or `b`, or (when `surrogates`) any surrogate.
inline bool holdsAny(std::u16string_view text, char16_t a, char16_t b, bool surrogates) noexcept
{
    constexpr std::uint64_t ones = 0x0001000100010001u;
    constexpr std::uint64_t highs = 0x8000800080008000u;
    // Non-zero when some 16-bit lane of `v` is zero.
    const auto zeroLane = [](std::uint64_t v) { return (v - ones) & ~v & highs; };
    const std::uint64_t wantA = ones * a;
    const std::uint64_t wantB = ones * b;
    const std::uint64_t surrogateMask = surrogates ? ones * 0xF800u : 0;
    const std::uint64_t surrogateBits = surrogates ? ones * 0xD800u : ones; // never matches without
    std::size_t i = 0;
    for (std::uint64_t word; i + 4 <= text.size(); i += 4) {
        std::memcpy(&word, text.data() + i, sizeof word);
        if ((zeroLane(word ^ wantA) | zeroLane(word ^ wantB) | zeroLane((word & surrogateMask) ^ surrogateBits)) != 0)
            return true;
    }
    for (; i < text.size(); ++i) {
        const char16_t c = text[i];
        if (c == a || c == b || (surrogates && (c & 0xF800) == 0xD800))
            return true;
    }
    return false;
}

} // namespace foundation::storage::provider::detail
