#include <foundation/storage/provider/StorageIRI.hpp>

#include <foundation/storage/provider/Exception.hpp>

#include <fl/i18n/append_utf8.hpp>

#include "UnitScan.hpp"

#include <boost/throw_exception.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::network {

IRI::IRI(fl::ustring scheme, fl::ustring hierarchicalPart, fl::ustring text, fl::ustring asciiText)
    : m_scheme(std::move(scheme)),
      m_hierarchicalPart(std::move(hierarchicalPart)),
      m_text(std::move(text)),
      m_asciiText(std::move(asciiText))
{
}

} // namespace foundation::network

namespace foundation::storage::provider {

// Immutable once published. `text` is the normalised IRI; the decoded parts are kept beside it so
// that accessors return references.
//
// A child made from a base and one plain segment (what every listing entry is) is published with
// its name, its base and the facts it shares with the base (scheme length, authority, inner IRI):
// its path is composed on first use, and its text and hash after that, when asked for, so that an
// entry nobody asks for its location costs no string building and one whose file is only looked
// at on the disk costs no encoding. `pathComposed` and `composed` guard those; `ascii` is filled
// lazily as well.
struct StorageIRI::Data {
    ustring text;
    ustring authority;
    ustring path; // decoded and normalised; empty without a path
    ustring name;
    std::shared_ptr<const Data> inner;
    std::size_t schemeLength = 0;
    // Where the encoded path starts in `text` (everything before it is shared by every IRI of the
    // same container); text.size() when there is no path.
    std::size_t pathOffset = 0;
    std::size_t hash = 0;
    bool hasAuthority = false;
    bool hasPath = false;

    std::shared_ptr<const Data> base; // set for children composed lazily
    mutable std::atomic<bool> pathComposed{true};
    mutable std::atomic<bool> composed{true};

    mutable std::once_flag asciiOnce;
    mutable ustring ascii;
};

namespace {

using Data = StorageIRI::Data;
using DataPtr = std::shared_ptr<Data>;

const Data& emptyData() noexcept
{
    static const Data data;
    return data;
}

// Composes a lazily made child (see Data): its path alone, or everything. Terminate on memory
// exhaustion, like the noexcept accessors that call them.
const Data& pathComposed(const Data& data) noexcept;
const Data& composed(const Data& data) noexcept;

const Data& dataOf(const std::shared_ptr<const Data>& data) noexcept
{
    return data ? composed(*data) : emptyData();
}

// For the facts a lazy child has from the start: name, inner IRI, authority, shape.
const Data& shapeOf(const std::shared_ptr<const Data>& data) noexcept { return data ? *data : emptyData(); }

const Data& withPath(const std::shared_ptr<const Data>& data) noexcept
{
    return data ? pathComposed(*data) : emptyData();
}

[[noreturn]] void throwInvalid(const StorageIRI& location, ustring message, ustring reason)
{
    boost::throw_exception(
        Exception(ErrorCode::InvalidLocation, location, std::move(message)).withContext(u"parse", std::move(reason)));
}

std::size_t hashText(std::u16string_view text) noexcept { return std::hash<std::u16string_view>{}(text); }

ustring nameOf(std::u16string_view path) { return ustring(path.substr(path.rfind(u'/') + 1)); }

// ---- encoding ----------------------------------------------------------------------------------

enum class Part { Authority, Path, Opaque };

constexpr char16_t hexDigits[] = u"0123456789ABCDEF";

void appendEscapedBytes(ustring& out, std::string_view bytes)
{
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        out.push_back(u'%');
        out.push_back(hexDigits[value >> 4]);
        out.push_back(hexDigits[value & 0xF]);
    }
}

// ASCII characters written as escapes: those that delimit IRI parts here or that an IRI forbids.
bool mustEscapeAscii(char16_t c, Part part) noexcept
{
    if (c < 0x20 || c == 0x7F)
        return true;
    switch (c) {
    case u' ':
    case u'!':
    case u'"':
    case u'#':
    case u'%':
    case u'<':
    case u'>':
    case u'?':
    case u'\\':
    case u'^':
    case u'`':
    case u'{':
    case u'|':
    case u'}':
        return true;
    case u'[':
    case u']':
        return part != Part::Authority; // IP literals
    case u'/':
        return part == Part::Authority;
    default:
        return false;
    }
}

// Whether a non-ASCII code point may appear unescaped in an IRI: the IRI character ranges, minus
// the bidirectional formatting characters an IRI must not hold.
bool isIriCodePoint(char32_t c) noexcept
{
    if (c < 0xA0)
        return false; // C1 controls
    if (c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E))
        return false;
    if (c <= 0xD7FF)
        return true;
    if (c < 0xF900)
        return false; // surrogates, private use
    if (c <= 0xFDCF)
        return true;
    if (c < 0xFDF0)
        return false; // non-characters
    if (c <= 0xFFEF)
        return true;
    if (c < 0x10000 || c >= 0xF0000)
        return false; // specials, private use planes
    return (c & 0xFFFF) <= 0xFFFD;
}

bool isHighSurrogate(char16_t c) noexcept { return c >= 0xD800 && c <= 0xDBFF; }

// Appends decoded `text` (valid UTF-16) in its IRI form.
void encode(ustring& out, std::u16string_view text, Part part)
{
    for (std::size_t i = 0; i < text.size();) {
        const char16_t unit = text[i];
        if (unit < 0x80) {
            if (mustEscapeAscii(unit, part) || (part == Part::Opaque && i == 0 && unit == u'/')) {
                const char byte = static_cast<char>(unit);
                appendEscapedBytes(out, std::string_view(&byte, 1));
            } else {
                out.push_back(unit);
            }
            ++i;
            continue;
        }
        if (fl::i18n::is_escaped_byte(unit)) {
            // A byte of a name that is not UTF-8 is written as its escape, which parses back to it.
            const char byte = static_cast<char>(unit - 0xDC00);
            appendEscapedBytes(out, std::string_view(&byte, 1));
            ++i;
            continue;
        }
        const std::size_t length = isHighSurrogate(unit) && i + 1 < text.size() ? 2 : 1;
        const char32_t c = length == 2 ? 0x10000 + ((char32_t(unit) - 0xD800) << 10) + (char32_t(text[i + 1]) - 0xDC00)
                                       : char32_t(unit);
        if (isIriCodePoint(c))
            out.append(text.substr(i, length));
        else
            appendEscapedBytes(out, fl::i18n::ustring_to_utf8(text.substr(i, length)));
        i += length;
    }
}

// The URI form: every non-ASCII character of the IRI form as escaped UTF-8.
ustring toAscii(std::u16string_view text)
{
    ustring out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] < 0x80) {
            out.push_back(text[i++]);
            continue;
        }
        std::size_t end = i;
        while (end < text.size() && text[end] >= 0x80)
            ++end;
        appendEscapedBytes(out, fl::i18n::ustring_to_native(text.substr(i, end - i)));
        i = end;
    }
    return out;
}

// ---- decoding and normalisation ----------------------------------------------------------------

// Units that stand for bytes (U+DC80..U+DCFF) and together spell UTF-8 become that character, so
// that one native name has one IRI.
void canonicaliseBytes(ustring& text)
{
    if (std::any_of(text.begin(), text.end(), fl::i18n::is_escaped_byte))
        text = fl::i18n::canonical_native(text);
}

int hexValue(char16_t c) noexcept
{
    if (c >= u'0' && c <= u'9')
        return c - u'0';
    if (c >= u'a' && c <= u'f')
        return c - u'a' + 10;
    if (c >= u'A' && c <= u'F')
        return c - u'A' + 10;
    return -1;
}

ustring offsetText(std::size_t offset) { return fl::i18n::utf8_to_ustring(std::to_string(offset)); }

// Decodes every escape of `raw` (valid UTF-16) into `out`; runs of escapes must form well-formed
// UTF-8. `offset` is raw's position in the whole text, for the reason. A path is stored decoded, so
// in a path an escaped '/' would turn into a separator and name something other than what was
// written; no storage allows '/' inside a name, so it is refused there.
enum class Escapes { Anything, NoSlash };
bool decode(std::u16string_view raw, std::size_t offset, ustring& out, ustring& reason,
            Escapes allowed = Escapes::Anything)
{
    out.reserve(raw.size());
    std::string bytes;
    for (std::size_t i = 0; i < raw.size();) {
        if (raw[i] != u'%') {
            out.push_back(raw[i++]);
            continue;
        }
        bytes.clear();
        while (i < raw.size() && raw[i] == u'%') {
            const int high = i + 1 < raw.size() ? hexValue(raw[i + 1]) : -1;
            const int low = i + 2 < raw.size() ? hexValue(raw[i + 2]) : -1;
            if (high < 0 || low < 0) {
                reason = u"'%' not followed by two hex digits at offset " + offsetText(offset + i);
                return false;
            }
            if (high * 16 + low == '/' && allowed == Escapes::NoSlash) {
                reason = u"an escaped '/' at offset " + offsetText(offset + i) + u" cannot be part of a name";
                return false;
            }
            bytes.push_back(static_cast<char>(high * 16 + low));
            i += 3;
        }
        // Escapes that are not UTF-8 stand for bytes of a name that is not UTF-8 either.
        fl::i18n::append_native(out, bytes);
    }
    canonicaliseBytes(out);
    return true;
}

// An absolute path without empty or dot segments; ".." at the root stays at the root.
ustring normalisePath(std::u16string_view in)
{
    ustring out;
    out.reserve(in.size() + 1);
    std::size_t begin = 0;
    while (true) {
        std::size_t end = in.find(u'/', begin);
        if (end == std::u16string_view::npos)
            end = in.size();
        const std::u16string_view segment = in.substr(begin, end - begin);
        if (segment == u"..") {
            const std::size_t slash = out.rfind(u'/');
            if (slash != ustring::npos)
                out.resize(slash);
        } else if (!segment.empty() && segment != u".") {
            out.push_back(u'/');
            out.append(segment);
        }
        if (end == in.size())
            break;
        begin = end + 1;
    }
    if (out.empty())
        out.push_back(u'/');
    return out;
}

bool isSchemeChar(char16_t c, bool first) noexcept
{
    if (fl::i18n::isalpha_ascii(c))
        return true;
    return !first && (fl::i18n::isdigit_ascii(c) || c == u'+' || c == u'-' || c == u'.');
}

bool isValidScheme(std::u16string_view scheme) noexcept
{
    if (scheme.empty())
        return false;
    for (std::size_t i = 0; i < scheme.size(); ++i)
        if (!isSchemeChar(scheme[i], i == 0))
            return false;
    return true;
}

ustring lowerAscii(std::u16string_view text)
{
    ustring out(text);
    for (auto& c : out)
        c = static_cast<char16_t>(fl::i18n::tolower_ascii(c));
    return out;
}

void finish(Data& data)
{
    if (data.hasPath)
        data.name = nameOf(data.path);
    data.hash = hashText(data.text);
}

DataPtr build(std::u16string_view scheme, bool hasAuthority, std::u16string_view authority,
              std::shared_ptr<const Data> inner, bool hasPath, ustring path, std::u16string_view opaque)
{
    auto data = std::make_shared<Data>();
    ustring& text = data->text;
    text.reserve(scheme.size() + 3 + authority.size() + (inner ? dataOf(inner).text.size() + 1 : 0) + path.size() +
                 opaque.size());
    text.append(scheme);
    text.push_back(u':');
    if (hasAuthority) {
        text.append(u"//");
        encode(text, authority, Part::Authority);
    }
    if (inner) {
        text.append(dataOf(inner).text);
        text.push_back(u'!');
    }
    data->pathOffset = text.size();
    if (hasPath)
        encode(text, path, Part::Path);
    else
        encode(text, opaque, Part::Opaque);
    if (!hasPath)
        data->pathOffset = text.size();
    data->schemeLength = scheme.size();
    data->hasAuthority = hasAuthority;
    data->authority = authority;
    data->inner = std::move(inner);
    data->hasPath = hasPath;
    data->path = std::move(path);
    finish(*data);
    return data;
}

// An IRI in the same container as `base` (same scheme, authority and inner IRI) with another path;
// `text` is already the full normalised text. No parsing involved.
DataPtr derive(const Data& base, ustring path, ustring text, ustring name)
{
    auto data = std::make_shared<Data>();
    data->text = std::move(text);
    data->authority = base.authority;
    data->path = std::move(path);
    data->name = std::move(name);
    data->inner = base.inner;
    data->schemeLength = base.schemeLength;
    data->pathOffset = base.pathOffset;
    data->hash = hashText(data->text);
    data->hasAuthority = base.hasAuthority;
    data->hasPath = true;
    return data;
}

DataPtr derive(const Data& base, ustring path)
{
    ustring text;
    text.reserve(base.pathOffset + path.size() + 8);
    text.append(base.text, 0, base.pathOffset);
    encode(text, path, Part::Path);
    ustring name = nameOf(path);
    return derive(base, std::move(path), std::move(text), std::move(name));
}

// A child of `base` named by the plain segment `name`, composed on first use.
DataPtr lazyChild(const std::shared_ptr<const Data>& base, ustring name)
{
    auto data = std::make_shared<Data>();
    data->name = std::move(name);
    data->inner = base->inner;
    data->authority = base->authority;
    data->schemeLength = base->schemeLength;
    data->pathOffset = base->pathOffset;
    data->hasAuthority = base->hasAuthority;
    data->hasPath = true;
    data->base = base;
    data->pathComposed.store(false, std::memory_order_relaxed);
    data->composed.store(false, std::memory_order_relaxed);
    return data;
}

// Runs `compose(out, base)` once for the lazy child `data`, under a lock of its own, unless `done`
// says it has run: `base` is the child's base as `ready` makes it, first and outside any lock (it
// may be a lazy child itself). `compose` sets `done` when it has finished.
template <class Ready, class Compose>
const Data& composeOnce(const Data& data, const std::atomic<bool>& done, Ready ready, Compose compose) noexcept
{
    if (done.load(std::memory_order_acquire))
        return data;
    const Data& base = ready(*data.base);
    static std::array<std::mutex, 16> locks;
    std::lock_guard lock(locks[std::hash<const void*>{}(&data) % locks.size()]);
    if (done.load(std::memory_order_relaxed))
        return data;
    // Only ever made by lazyChild(), as a non-const object: writing before publication is sound.
    compose(const_cast<Data&>(data), base);
    return data;
}

// Starts a child's path or text: the base's, then a separator unless the base is the root.
void beginChild(ustring& out, const ustring& ofBase, const Data& base, std::size_t nameSize)
{
    out.reserve(ofBase.size() + 1 + nameSize);
    out.append(ofBase);
    if (base.path.size() != 1)
        out.push_back(u'/');
}

const Data& pathComposed(const Data& data) noexcept
{
    return composeOnce(data, data.pathComposed, pathComposed, [](Data& out, const Data& base) {
        beginChild(out.path, base.path, base, out.name.size());
        out.path.append(out.name);
        out.pathComposed.store(true, std::memory_order_release);
    });
}

const Data& composed(const Data& data) noexcept
{
    pathComposed(data);
    return composeOnce(data, data.composed, composed, [](Data& out, const Data& base) {
        beginChild(out.text, base.text, base, out.name.size());
        encode(out.text, out.name, Part::Path);
        out.hash = hashText(out.text);
        out.composed.store(true, std::memory_order_release);
    });
}

bool equalsIgnoringCase(std::u16string_view a, std::u16string_view b) noexcept
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (fl::i18n::tolower_ascii(a[i]) != fl::i18n::tolower_ascii(b[i]))
            return false;
    return true;
}

// Parses valid UTF-16 `text` (at `offset` of the whole input). Returns null and sets `reason` on a
// syntax error.
DataPtr parse(std::u16string_view text, std::size_t offset, ustring& reason)
{
    if (text.empty()) {
        reason = u"empty text";
        return nullptr;
    }
    const std::size_t colon = text.find(u':');
    if (colon == std::u16string_view::npos || colon == 0) {
        reason = u"no scheme";
        return nullptr;
    }
    for (std::size_t i = 0; i < colon; ++i) {
        if (!isSchemeChar(text[i], i == 0)) {
            reason = u"invalid character in scheme at offset " + offsetText(offset + i);
            return nullptr;
        }
    }
    const ustring scheme = lowerAscii(text.substr(0, colon));
    const std::u16string_view rest = text.substr(colon + 1);
    const std::size_t restOffset = offset + colon + 1;

    // An inner IRI starts with its scheme, so a hierarchical part starting with "/" is never nested
    // and a "!" inside it is literal.
    if (!rest.empty() && rest.front() == u'/') {
        const bool hasAuthority = rest.size() >= 2 && rest[1] == u'/';
        std::u16string_view rawAuthority;
        std::u16string_view rawPath = rest;
        std::size_t pathOffset = restOffset;
        bool hasPath = true;
        if (hasAuthority) {
            const std::u16string_view afterSlashes = rest.substr(2);
            const std::size_t slash = afterSlashes.find(u'/');
            rawAuthority = afterSlashes.substr(0, slash);
            hasPath = slash != std::u16string_view::npos;
            rawPath = hasPath ? afterSlashes.substr(slash) : std::u16string_view();
            pathOffset = restOffset + 2 + rawAuthority.size();
        }
        ustring authority;
        ustring decodedPath;
        if (!decode(rawAuthority, restOffset + 2, authority, reason) || !decode(rawPath, pathOffset, decodedPath, reason, Escapes::NoSlash))
            return nullptr;
        if (scheme == u"file" && equalsIgnoringCase(authority, u"localhost"))
            authority.clear();
        return build(scheme, hasAuthority || scheme == u"file", authority, nullptr, hasPath,
                     hasPath ? normalisePath(decodedPath) : ustring(), {});
    }

    const std::size_t separator = rest.rfind(u"!/");
    if (separator != std::u16string_view::npos) {
        ustring innerReason;
        auto inner = parse(rest.substr(0, separator), restOffset, innerReason);
        if (!inner) {
            reason = u"malformed inner IRI: " + innerReason;
            return nullptr;
        }
        if (!inner->hasPath) {
            reason = u"inner IRI \"" + dataOf(inner).text + u"\" has no path";
            return nullptr;
        }
        ustring decodedPath;
        if (!decode(rest.substr(separator + 1), restOffset + separator + 1, decodedPath, reason, Escapes::NoSlash))
            return nullptr;
        return build(scheme, false, {}, std::move(inner), true, normalisePath(decodedPath), {});
    }

    ustring opaque;
    if (!decode(rest, restOffset, opaque, reason))
        return nullptr;
    return build(scheme, false, {}, nullptr, false, {}, opaque);
}

// A single path segment without surrogates: valid UTF-16 that needs no normalisation, told in one
// pass (the names listings hand to handles are nearly all of this kind).
bool isSimpleName(std::u16string_view name) noexcept
{
    return !name.empty() && name != u"." && name != u".." && !detail::holdsAny(name, u'/', u'/', true);
}

// A single path segment that needs no normalisation.
bool isPlainName(std::u16string_view name) noexcept
{
    return !name.empty() && name != u"." && name != u".." && name.find(u'/') == std::u16string_view::npos;
}

std::vector<std::u16string_view> segments(const PathView& view)
{
    std::vector<std::u16string_view> out;
    out.reserve(view.size());
    for (const auto segment : view)
        out.push_back(segment);
    return out;
}

} // namespace

// ---- PathView ----------------------------------------------------------------------------------

PathView::const_iterator::const_iterator(std::u16string_view path, std::size_t begin) noexcept
    : m_path(path), m_begin(begin)
{
    const std::size_t slash = path.find(u'/', begin);
    m_end = slash == std::u16string_view::npos ? path.size() : slash;
}

PathView::const_iterator& PathView::const_iterator::operator++() noexcept
{
    if (m_end >= m_path.size()) {
        m_begin = m_end = m_path.size();
        return *this;
    }
    *this = const_iterator(m_path, m_end + 1);
    return *this;
}

PathView::const_iterator PathView::begin() const noexcept
{
    return m_path.size() <= 1 ? end() : const_iterator(m_path, 1);
}

PathView::const_iterator PathView::end() const noexcept { return const_iterator(m_path, m_path.size()); }

std::size_t PathView::size() const noexcept
{
    if (m_path.size() <= 1)
        return 0;
    std::size_t count = 0;
    for (const char16_t c : m_path)
        count += c == u'/';
    return count;
}

// ---- StorageIRI --------------------------------------------------------------------------------

StorageIRI::StorageIRI() noexcept = default;

StorageIRI::StorageIRI(std::shared_ptr<const Data> data) noexcept : m_data(std::move(data)) {}

StorageIRI::StorageIRI(ustring text)
{
    ustring reason;
    if (!fl::i18n::is_valid_native_utf16(text))
        reason = u"lone surrogate";
    else
        m_data = parse(text, 0, reason);
    if (!m_data)
        throwInvalid(StorageIRI(), u"invalid IRI \"" + text + u"\": " + reason, reason);
}

std::optional<StorageIRI> StorageIRI::plainChild(const StorageIRI& folder, ustring& name)
{
    if (name.empty() || name == u"." || name == u".." || detail::holdsAny(name, u'/', u'\0', true) ||
        !dataOf(folder.m_data).hasPath)
        return std::nullopt;
    StorageIRI child;
    child.m_data = lazyChild(folder.m_data, std::move(name));
    return child;
}

StorageIRI::StorageIRI(const StorageIRI& base, ustring relative)
{
    const Data& b = dataOf(base.m_data);
    if (!b.hasPath)
        throwInvalid(base, u"cannot resolve \"" + relative + u"\" against \"" + b.text + u"\", which has no path",
                     u"base has no path");
    if (isSimpleName(relative)) {
        m_data = lazyChild(base.m_data, std::move(relative));
        return;
    }
    if (!fl::i18n::is_valid_native_utf16(relative))
        throwInvalid(base, u"cannot resolve \"" + relative + u"\": lone surrogate", u"lone surrogate");
    canonicaliseBytes(relative);
    if (relative.empty()) {
        m_data = base.m_data;
        return;
    }
    if (isPlainName(relative)) {
        m_data = lazyChild(base.m_data, std::move(relative));
        return;
    }
    ustring combined;
    if (relative.front() != u'/') {
        combined.reserve(b.path.size() + 1 + relative.size());
        combined.append(b.path);
        combined.push_back(u'/');
    }
    combined.append(relative);
    ustring path = normalisePath(combined);
    if (path == b.path)
        m_data = base.m_data;
    else
        m_data = derive(b, std::move(path));
}

StorageIRI::StorageIRI(const ustring& scheme, const StorageIRI& inner, ustring path)
{
    if (!isValidScheme(scheme))
        throwInvalid(StorageIRI(), u"invalid scheme \"" + scheme + u"\"", u"invalid scheme");
    const Data& in = dataOf(inner.m_data);
    if (!in.hasPath)
        throwInvalid(inner, u"inner IRI \"" + in.text + u"\" has no path", u"inner IRI has no path");
    if (!fl::i18n::is_valid_native_utf16(path))
        throwInvalid(inner, u"invalid path \"" + path + u"\": lone surrogate", u"lone surrogate");
    canonicaliseBytes(path);
    m_data = build(lowerAscii(scheme), false, {}, inner.m_data, true, normalisePath(path), {});
}

bool StorageIRI::hasPath() const noexcept { return shapeOf(m_data).hasPath; }
bool StorageIRI::empty() const noexcept { return !m_data; }
const ustring& StorageIRI::toString() const noexcept { return dataOf(m_data).text; }

const ustring& StorageIRI::toAsciiString() const
{
    const Data& data = dataOf(m_data);
    std::call_once(data.asciiOnce, [&data] { data.ascii = toAscii(data.text); });
    return data.ascii;
}

ustring StorageIRI::getScheme() const
{
    // A lazy child's scheme is its base's: the first composed one up the chain has it in its text.
    const Data* data = &shapeOf(m_data);
    while (!data->composed.load(std::memory_order_acquire))
        data = data->base.get();
    return data->text.substr(0, data->schemeLength);
}

const ustring& StorageIRI::getAuthority() const noexcept { return shapeOf(m_data).authority; }
bool StorageIRI::hasAuthority() const noexcept { return shapeOf(m_data).hasAuthority; }
const ustring& StorageIRI::getPath() const noexcept { return withPath(m_data).path; }
const ustring& StorageIRI::getResolvedPath() const noexcept { return withPath(m_data).path; }
const ustring& StorageIRI::getName() const noexcept { return shapeOf(m_data).name; }

bool StorageIRI::hasParent() const noexcept
{
    const Data& data = withPath(m_data);
    return data.hasPath && data.path.size() > 1;
}

StorageIRI StorageIRI::getParent() const
{
    if (!hasParent())
        return *this;
    const Data& data = dataOf(m_data);
    const std::size_t slash = data.path.rfind(u'/');
    ustring path = slash == 0 ? ustring(u"/") : data.path.substr(0, slash);
    // Encoded segments never hold a raw "/", so the text's last "/" is the same separator.
    const std::size_t textSlash = data.text.rfind(u'/');
    ustring text = data.text.substr(0, textSlash == data.pathOffset ? textSlash + 1 : textSlash);
    ustring name = nameOf(path);
    return StorageIRI(derive(data, std::move(path), std::move(text), std::move(name)));
}

bool StorageIRI::hasInnerIRI() const noexcept { return shapeOf(m_data).inner != nullptr; }

StorageIRI StorageIRI::getInnerIRI() const { return StorageIRI(shapeOf(m_data).inner); }

PathView StorageIRI::getPathView() const
{
    const Data& data = dataOf(m_data);
    return PathView(m_data, data.path);
}

bool StorageIRI::isAncestorOf(StorageIRI other) const
{
    const Data& a = dataOf(m_data);
    const Data& b = dataOf(other.m_data);
    if (!a.hasPath || !b.hasPath || a.pathOffset != b.pathOffset ||
        a.text.compare(0, a.pathOffset, b.text, 0, b.pathOffset) != 0)
        return false;
    if (a.path.size() == 1)
        return b.path.size() > 1;
    return b.path.size() > a.path.size() && b.path[a.path.size()] == u'/' && b.path.starts_with(a.path);
}

ustring StorageIRI::makePathRelativeTo(StorageIRI base) const
{
    const Data& self = dataOf(m_data);
    const Data& other = dataOf(base.m_data);
    if (!self.hasPath || !other.hasPath)
        throwInvalid(*this, u"\"" + self.text + u"\" and \"" + other.text + u"\" must both have a path",
                     u"no path");
    if (self.pathOffset != other.pathOffset || self.text.compare(0, self.pathOffset, other.text, 0, other.pathOffset) != 0)
        throwInvalid(*this, u"\"" + self.text + u"\" and \"" + other.text + u"\" are in different containers",
                     u"different containers");
    const auto mine = segments(getPathView());
    const auto theirs = segments(base.getPathView());
    std::size_t common = 0;
    while (common < mine.size() && common < theirs.size() && mine[common] == theirs[common])
        ++common;
    ustring out;
    for (std::size_t i = common; i < theirs.size(); ++i)
        out.append(out.empty() ? u".." : u"/..");
    for (std::size_t i = common; i < mine.size(); ++i) {
        if (!out.empty())
            out.push_back(u'/');
        out.append(mine[i]);
    }
    return out;
}

network::IRI StorageIRI::toIRI() const
{
    if (!m_data)
        return {};
    const Data& data = dataOf(m_data);
    return network::IRI(getScheme(), data.text.substr(data.schemeLength + 1), data.text, toAsciiString());
}

std::size_t StorageIRI::hashValue() const noexcept { return dataOf(m_data).hash; }

bool operator==(const StorageIRI& a, const StorageIRI& b) noexcept
{
    if (a.m_data == b.m_data)
        return true;
    const Data& x = dataOf(a.m_data);
    const Data& y = dataOf(b.m_data);
    return x.hash == y.hash && x.text == y.text;
}

bool operator<(const StorageIRI& a, const StorageIRI& b) noexcept
{
    return dataOf(a.m_data).text < dataOf(b.m_data).text;
}

std::size_t hash_value(const StorageIRI& iri) noexcept { return iri.hashValue(); }

} // namespace foundation::storage::provider
