#pragma once

// Turns fuzzer bytes into UTF-16 text: two bytes per code unit, little end first, so every unit
// (lone surrogates and U+0000 included) is reachable.

#include <cstddef>
#include <cstdint>
#include <string>

namespace vfs_fuzz {

inline std::u16string unitsOf(const std::uint8_t* data, std::size_t size)
{
    std::u16string text;
    text.reserve(size / 2);
    for (std::size_t i = 0; i + 1 < size; i += 2)
        text.push_back(static_cast<char16_t>(data[i] | (data[i + 1] << 8)));
    return text;
}

// Stops the fuzzer with a message that names the failed property.
[[noreturn]] inline void violated(const char* property)
{
    __builtin_printf("property violated: %s\n", property);
    __builtin_trap();
}

} // namespace vfs_fuzz
