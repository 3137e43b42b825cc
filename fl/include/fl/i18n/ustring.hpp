#pragma once

#include <fl/export.hpp>

#include <stdexcept>
#include <string>
#include <string_view>

namespace fl::i18n {

// Every name, path and IRI text of the library's interface is UTF-16.
using ustring = std::u16string;

// Thrown by the strict conversions on ill-formed input: a lone surrogate in UTF-16, a malformed or
// overlong sequence in UTF-8, a surrogate or out-of-range value in UTF-32. The message says what and
// where (code unit offset).
class VFS_EXPORT conversion_error : public std::runtime_error {
public:
    conversion_error(const std::string& what, std::size_t offset);
    std::size_t offset() const noexcept { return m_offset; }

private:
    std::size_t m_offset;
};

// Strict conversions: ill-formed input throws conversion_error, nothing is silently replaced.
VFS_EXPORT std::string ustring_to_utf8(std::u16string_view text);
VFS_EXPORT ustring utf8_to_ustring(std::string_view text);
VFS_EXPORT std::u32string to_u32string(std::u16string_view text);
VFS_EXPORT ustring from_u32string(std::u32string_view text);

// Lenient conversions for diagnostics (exception messages, log records): never throw on bad input;
// every ill-formed unit or sequence becomes U+FFFD. Only allocation can fail.
VFS_EXPORT std::string ustring_to_utf8_lossy(std::u16string_view text);
VFS_EXPORT ustring utf8_to_ustring_lossy(std::string_view text);

// True when the text holds no lone surrogate.
VFS_EXPORT bool is_valid_utf16(std::u16string_view text) noexcept;

// Names on a disk are bytes, not necessarily UTF-8. These conversions keep every name: valid UTF-8
// converts as usual and each byte of an ill-formed sequence becomes the lone surrogate U+DC00 + byte
// (U+DC80..U+DCFF), so a name comes back byte for byte. ustring_to_native throws conversion_error on
// any other lone surrogate. Escaped units that spell valid UTF-8 together (U+DCC3 U+DCA9) give the
// bytes of that character: canonical_native folds them into it, so one name has one ustring.
VFS_EXPORT ustring native_to_ustring(std::string_view bytes);
VFS_EXPORT std::string ustring_to_native(std::u16string_view text);
VFS_EXPORT ustring canonical_native(std::u16string_view text);
// True when the text is valid UTF-16 apart from lone units U+DC80..U+DCFF.
VFS_EXPORT bool is_valid_native_utf16(std::u16string_view text) noexcept;
constexpr bool is_escaped_byte(char16_t unit) noexcept { return unit >= 0xDC80 && unit <= 0xDCFF; }

// ASCII-only character classes: false for every code point outside U+0000..U+007F, whatever the
// locale says.
constexpr bool isdigit_ascii(char32_t c) noexcept { return c >= U'0' && c <= U'9'; }
constexpr bool isalpha_ascii(char32_t c) noexcept { return (c >= U'a' && c <= U'z') || (c >= U'A' && c <= U'Z'); }
constexpr bool isalnum_ascii(char32_t c) noexcept { return isalpha_ascii(c) || isdigit_ascii(c); }
constexpr bool isxdigit_ascii(char32_t c) noexcept
{
    return isdigit_ascii(c) || (c >= U'a' && c <= U'f') || (c >= U'A' && c <= U'F');
}
constexpr bool isupper_ascii(char32_t c) noexcept { return c >= U'A' && c <= U'Z'; }
constexpr char32_t tolower_ascii(char32_t c) noexcept { return isupper_ascii(c) ? c + (U'a' - U'A') : c; }

} // namespace fl::i18n

namespace fl {
using i18n::ustring;
}
