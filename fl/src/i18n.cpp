#include <fl/i18n/append_utf8.hpp>
#include <fl/i18n/ustring.hpp>

#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace fl::i18n {

namespace {

constexpr char32_t replacement = 0xFFFD;

bool isHighSurrogate(char32_t c) noexcept { return c >= 0xD800 && c <= 0xDBFF; }
bool isLowSurrogate(char32_t c) noexcept { return c >= 0xDC00 && c <= 0xDFFF; }
bool isSurrogate(char32_t c) noexcept { return c >= 0xD800 && c <= 0xDFFF; }

// Decodes the code point of UTF-16 text at `i` and advances `i`. Returns false on a lone surrogate
// (then `i` is advanced past the offending unit).
bool nextUtf16(std::u16string_view text, std::size_t& i, char32_t& out) noexcept
{
    const char32_t unit = text[i++];
    if (!isSurrogate(unit)) {
        out = unit;
        return true;
    }
    if (isHighSurrogate(unit) && i < text.size() && isLowSurrogate(text[i])) {
        out = 0x10000 + ((unit - 0xD800) << 10) + (char32_t(text[i++]) - 0xDC00);
        return true;
    }
    return false;
}

// Decodes one UTF-8 sequence at `i` and advances `i`. Returns false on a malformed, truncated,
// overlong or surrogate sequence; `i` then skips exactly the maximal ill-formed prefix (at least one
// byte), so that lossy decoding emits one U+FFFD per such prefix.
bool nextUtf8(std::string_view text, std::size_t& i, char32_t& out) noexcept
{
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80) {
        out = lead;
        ++i;
        return true;
    }
    std::size_t length;
    char32_t value;
    unsigned char low = 0x80, high = 0xBF; // allowed range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        value = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        value = lead & 0x0F;
        if (lead == 0xE0)
            low = 0xA0; // overlong
        if (lead == 0xED)
            high = 0x9F; // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        value = lead & 0x07;
        if (lead == 0xF0)
            low = 0x90; // overlong
        if (lead == 0xF4)
            high = 0x8F; // above U+10FFFF
    } else {
        ++i;
        return false;
    }
    std::size_t j = i + 1;
    for (std::size_t k = 1; k < length; ++k, ++j) {
        if (j >= text.size()) {
            i = j;
            return false;
        }
        const auto byte = static_cast<unsigned char>(text[j]);
        const unsigned char min = k == 1 ? low : 0x80;
        const unsigned char max = k == 1 ? high : 0xBF;
        if (byte < min || byte > max) {
            i = j;
            return false;
        }
        value = (value << 6) | (byte & 0x3F);
    }
    i = j;
    out = value;
    return true;
}

void appendUtf8(std::string& out, char32_t c)
{
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (c >> 18)));
        out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

void appendUtf16(ustring& out, char32_t c)
{
    if (c < 0x10000) {
        out.push_back(static_cast<char16_t>(c));
    } else {
        c -= 0x10000;
        out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
    }
}

} // namespace

conversion_error::conversion_error(const std::string& what, std::size_t offset)
    : std::runtime_error(what + " at code unit " + std::to_string(offset)), m_offset(offset)
{
}

namespace {

#if defined(__SSE2__)
// Calls `convertEight(at)` for the units at, at + 8, ... while it converts them (all ASCII) and there
// are eight left, then once for the last eight when fewer remain, overlapping units already known to
// be ASCII. Returns the length of the ASCII run converted from `from`.
template <class ConvertEight>
std::size_t convertByEights(std::size_t from, std::size_t size, ConvertEight convertEight)
{
    std::size_t i = from;
    while (i + 8 <= size && convertEight(i))
        i += 8;
    if (size >= 8 && size - i < 8 && i != size && convertEight(size - 8))
        i = size;
    return i;
}
#endif

// Narrows the leading ASCII run of `text` into `to` (room for all of it); returns its length.
std::size_t narrowAsciiPrefix(std::u16string_view text, char* to) noexcept
{
    const char16_t* from = text.data();
    const std::size_t size = text.size();
    std::size_t i = 0;
#if defined(__SSE2__)
    // Eight units at a time: none has a bit above the lowest seven, and packing keeps the low bytes.
    const __m128i beyondAscii = _mm_set1_epi16(static_cast<short>(0xFF80));
    const __m128i zero = _mm_setzero_si128();
    const auto narrowEight = [&](std::size_t at) {
        const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + at));
        if (_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(units, beyondAscii), zero)) != 0xFFFF)
            return false;
        _mm_storel_epi64(reinterpret_cast<__m128i*>(to + at), _mm_packus_epi16(units, units));
        return true;
    };
    i = convertByEights(i, size, narrowEight);
#endif
    for (; i < size && from[i] < 0x80; ++i)
        to[i] = static_cast<char>(from[i]);
    return i;
}

// UTF-8 of UTF-16 text; `onLoneSurrogate(out, unit, offset)` appends what stands for a lone
// surrogate, or throws.
template <class OnLoneSurrogate>
std::string narrow(std::u16string_view text, OnLoneSurrogate onLoneSurrogate)
{
    // The ASCII prefix (usually all of a path) narrows without a code point each.
    std::string out(text.size(), '\0');
    std::size_t i = narrowAsciiPrefix(text, out.data());
    out.resize(i);
    while (i < text.size()) {
        const std::size_t at = i;
        char32_t c;
        if (nextUtf16(text, i, c))
            appendUtf8(out, c);
        else
            onLoneSurrogate(out, text[at], at);
    }
    return out;
}

[[noreturn]] void throwLoneSurrogate(std::size_t at) { throw conversion_error("lone surrogate in UTF-16 text", at); }

} // namespace

std::string ustring_to_utf8(std::u16string_view text)
{
    return narrow(text, [](std::string&, char16_t, std::size_t at) { throwLoneSurrogate(at); });
}

std::string ustring_to_utf8_lossy(std::u16string_view text)
{
    return narrow(text, [](std::string& out, char16_t, std::size_t) { appendUtf8(out, replacement); });
}

namespace {

// Appends the leading ASCII run of `text` to `out`, sixteen or eight bytes at a time while it can;
// returns its length. Names and paths are mostly ASCII, so this is nearly all of a conversion.
std::size_t widenAsciiPrefix(std::string_view text, ustring& out)
{
    const std::size_t start = out.size();
    out.resize(start + text.size());
    char16_t* to = out.data() + start;
    const char* from = text.data();
    std::size_t i = 0;
#if defined(__SSE2__)
    // Interleaving the bytes with zeros widens them; a byte with its top bit set ends the run.
    const std::size_t size = text.size();
    const __m128i zero = _mm_setzero_si128();
    for (; i + 16 <= size; i += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i));
        if (_mm_movemask_epi8(bytes) != 0)
            break;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + i), _mm_unpacklo_epi8(bytes, zero));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + i + 8), _mm_unpackhi_epi8(bytes, zero));
    }
    const auto widenEight = [&](std::size_t at) {
        const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(from + at));
        if (_mm_movemask_epi8(bytes) != 0)
            return false;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + at), _mm_unpacklo_epi8(bytes, zero));
        return true;
    };
    i = convertByEights(i, size, widenEight);
#else
    for (std::uint64_t word; i + 8 <= text.size(); i += 8) {
        std::memcpy(&word, from + i, sizeof word);
        if ((word & 0x8080808080808080u) != 0)
            break;
        for (std::size_t k = i; k < i + 8; ++k)
            to[k] = static_cast<unsigned char>(from[k]);
    }
#endif
    for (; i < text.size() && static_cast<unsigned char>(from[i]) < 0x80; ++i)
        to[i] = static_cast<unsigned char>(from[i]);
    if (i != text.size())
        out.resize(start + i);
    return i;
}

} // namespace

void append_utf8(ustring& out, std::string_view text)
{
    const std::size_t start = out.size();
    for (std::size_t i = widenAsciiPrefix(text, out); i < text.size();) {
        const std::size_t at = i;
        char32_t c;
        if (!nextUtf8(text, i, c)) {
            out.resize(start);
            throw conversion_error("ill-formed UTF-8 sequence", at);
        }
        appendUtf16(out, c);
    }
}

ustring utf8_to_ustring(std::string_view text)
{
    ustring out;
    append_utf8(out, text);
    return out;
}

ustring utf8_to_ustring_lossy(std::string_view text)
{
    ustring out;
    for (std::size_t i = widenAsciiPrefix(text, out); i < text.size();) {
        char32_t c;
        appendUtf16(out, nextUtf8(text, i, c) ? c : replacement);
    }
    return out;
}

void append_native(ustring& out, std::string_view bytes)
{
    for (std::size_t i = widenAsciiPrefix(bytes, out); i < bytes.size();) {
        const std::size_t at = i;
        char32_t c;
        if (nextUtf8(bytes, i, c)) {
            appendUtf16(out, c);
            continue;
        }
        // Every byte of the ill-formed prefix is 0x80 or above: ASCII always decodes.
        for (std::size_t k = at; k < i; ++k)
            out.push_back(static_cast<char16_t>(0xDC00 + static_cast<unsigned char>(bytes[k])));
    }
}

ustring native_to_ustring(std::string_view bytes)
{
    ustring out;
    append_native(out, bytes);
    return out;
}

std::string ustring_to_native(std::u16string_view text)
{
    return narrow(text, [](std::string& out, char16_t unit, std::size_t at) {
        if (!is_escaped_byte(unit))
            throwLoneSurrogate(at);
        out.push_back(static_cast<char>(unit - 0xDC00));
    });
}

ustring canonical_native(std::u16string_view text) { return native_to_ustring(ustring_to_native(text)); }

bool is_valid_native_utf16(std::u16string_view text) noexcept
{
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t at = i;
        char32_t c;
        if (!nextUtf16(text, i, c) && !is_escaped_byte(text[at]))
            return false;
    }
    return true;
}

std::u32string to_u32string(std::u16string_view text)
{
    std::u32string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t at = i;
        char32_t c;
        if (!nextUtf16(text, i, c))
            throwLoneSurrogate(at);
        out.push_back(c);
    }
    return out;
}

ustring from_u32string(std::u32string_view text)
{
    ustring out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char32_t c = text[i];
        if (isSurrogate(c) || c > 0x10FFFF)
            throw conversion_error("invalid code point in UTF-32 text", i);
        appendUtf16(out, c);
    }
    return out;
}

bool is_valid_utf16(std::u16string_view text) noexcept
{
    for (std::size_t i = 0; i < text.size();) {
        char32_t c;
        if (!nextUtf16(text, i, c))
            return false;
    }
    return true;
}

} // namespace fl::i18n
