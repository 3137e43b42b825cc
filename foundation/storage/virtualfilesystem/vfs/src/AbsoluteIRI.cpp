#include <foundation/storage/vfs/AbsoluteIRI.hpp>
#include <foundation/core/except/ThrowInternal.hpp>
#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/detail/Logger.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <boost/exception_ptr.hpp>

#include <filesystem>

namespace foundation::storage::vfs {

namespace {

[[noreturn]] void throwInvalid(const ustring& text)
{
    core::except::throwInternal(InvalidIRIException(text));
}

// InvalidIRIException(text) with the exception in flight attached as the nested cause.
[[noreturn]] void throwInvalidNestingCurrent(const ustring& text)
{
    core::except::throwInternalWithCause(InvalidIRIException(text), boost::current_exception());
}

} // namespace

AbsoluteIRI::AbsoluteIRI(const ustring& iri)
{
    provider::StorageIRI parsed;
    try {
        parsed = provider::StorageIRI(ustring(iri));
    } catch (...) {
        throwInvalidNestingCurrent(iri);
    }
    if (!parsed.hasPath())
        throwInvalid(parsed.toString());
    m_iri = std::move(parsed);
}

// Text that is not UTF-8 is reported as it reads with replacement characters.
AbsoluteIRI::AbsoluteIRI(std::string_view utf8)
    : AbsoluteIRI([&] {
          try {
              return fl::i18n::utf8_to_ustring(utf8);
          } catch (...) {
              throwInvalidNestingCurrent(fl::i18n::utf8_to_ustring_lossy(utf8));
          }
      }())
{
}

std::string AbsoluteIRI::toUtf8() const { return fl::i18n::ustring_to_utf8_lossy(toString()); }

AbsoluteIRI::AbsoluteIRI(const AbsoluteIRI& base, const ustring& relative) : m_iri(base.m_iri, relative) {}

AbsoluteIRI::AbsoluteIRI(const ustring& scheme, const AbsoluteIRI& inner, ustring path)
    : m_iri(scheme, inner.m_iri, std::move(path))
{
}

AbsoluteIRI::AbsoluteIRI(provider::StorageIRI iri, bool validate)
{
    if (validate && !iri.hasPath())
        throwInvalid(iri.toString());
    m_iri = std::move(iri);
}

AbsoluteIRI AbsoluteIRI::getResolvedIRI() const
{
    try {
        return AbsoluteIRI(*this, getResolvedPath());
    } catch (...) {
        throwInvalid(toString());
    }
}

AbsoluteIRI AbsoluteIRI::getParent() const { return AbsoluteIRI(m_iri.getParent(), false); }

AbsoluteIRI AbsoluteIRI::getInnerIRI() const { return AbsoluteIRI(m_iri.getInnerIRI(), true); }

bool operator==(const ustring& text, const AbsoluteIRI& iri) noexcept { return iri == text; }
bool operator!=(const ustring& text, const AbsoluteIRI& iri) noexcept { return iri != text; }

std::ostream& operator<<(std::ostream& out, const AbsoluteIRI& iri)
{
    return out << fl::i18n::ustring_to_utf8_lossy(iri.toString());
}

std::size_t hash_value(const AbsoluteIRI& iri) noexcept { return iri.hashValue(); }

CanonicalAbsoluteIRI::CanonicalAbsoluteIRI(const ustring& iri) : AbsoluteIRI(iri) {}

CanonicalAbsoluteIRI::CanonicalAbsoluteIRI(const AbsoluteIRI& base, const ustring& relative)
    : AbsoluteIRI(base, relative)
{
}

CanonicalAbsoluteIRI CanonicalAbsoluteIRI::getParent() const { return CanonicalAbsoluteIRI(AbsoluteIRI::getParent()); }

AbsoluteIRI toAbsoluteIRI(const ustring& scheme, const fl::filesystem::path& path)
{
    try {
        return detail::IRIAccess::make(provider::toStorageIRI(scheme, path), true);
    } catch (...) {
        throwInvalidNestingCurrent(fl::i18n::utf8_to_ustring_lossy(path.native()));
    }
}

CanonicalAbsoluteIRI toCanonicalAbsoluteIRI(const ustring& scheme, const fl::filesystem::path& path)
{
    provider::StorageIRI canonical;
    try {
        canonical = provider::toCanonicalizedStorageIRI(scheme, path);
    } catch (const provider::Exception& error) {
        // A failure that names a location (a missing or inaccessible path) is the provider's to
        // report; one without (a path that is no valid text) is bad input.
        if (error.getStorageIRI().hasPath())
            detail::translateProviderException();
        throwInvalidNestingCurrent(fl::i18n::utf8_to_ustring_lossy(path.native()));
    } catch (...) {
        throwInvalidNestingCurrent(fl::i18n::utf8_to_ustring_lossy(path.native()));
    }
    try {
        return detail::IRIAccess::makeCanonical(std::move(canonical));
    } catch (...) {
        throwInvalidNestingCurrent(fl::i18n::utf8_to_ustring_lossy(path.native()));
    }
}

fl::filesystem::path fromAbsoluteIRI(const AbsoluteIRI& iri) { return provider::fromStorageIRI(detail::IRIAccess::storageIRI(iri)); }

namespace {

bool isSchemeChar(char32_t c) noexcept { return fl::i18n::isalnum_ascii(c) || c == U'+' || c == U'-' || c == U'.'; }

// Scheme characters are ASCII, so UTF-16 units serve; recursion handles an outer scheme followed by an
// inner scheme-prefixed IRI.
bool hasIRIPrefixAt(std::u16string_view text, std::size_t start) noexcept
{
    const std::size_t size = text.size() - start;
    if (size < 4)
        return false;
    if (!fl::i18n::isalpha_ascii(text[start]) || !isSchemeChar(text[start + 1]))
        return false;
    std::size_t i = start + 2;
    while (i < text.size() && isSchemeChar(text[i]))
        ++i;
    if (i == text.size() || text[i] != U':')
        return false;
    if (i + 1 == text.size())
        return false;
    if (text[i + 1] == U'/')
        return true;
    return hasIRIPrefixAt(text, i + 1);
}

} // namespace

bool hasIRIPrefix(const ustring& text) noexcept
{
    try {
        // Units that stand for bytes of a name are text like any other; a lone surrogate of another
        // kind fails the conversion, and that failure is reported below.
        if (!fl::i18n::is_valid_native_utf16(text))
            static_cast<void>(fl::i18n::to_u32string(text));
        return hasIRIPrefixAt(text, 0);
    } catch (...) {
        auto& log = detail::logger();
        if (log.enabled(foundation::log::category_exception))
            log.write(foundation::log::category_exception,
                      "Exception caught: " + foundation::log::current_exception_chain_as_string());
        return false;
    }
}

bool locationsAreEquivalent(const AbsoluteIRI& a, const AbsoluteIRI& b)
{
    const provider::StorageIRI second(b.toString());
    const provider::StorageIRI first(a.toString());
    return provider::locationsAreEquivalent(first, second);
}

} // namespace foundation::storage::vfs
