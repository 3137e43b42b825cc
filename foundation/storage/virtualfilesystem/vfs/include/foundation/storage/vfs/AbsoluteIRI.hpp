#pragma once

#include <fl/filesystem/path_fwd.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <ostream>
#include <string>
#include <string_view>

namespace foundation::storage::vfs {

using fl::i18n::ustring;

class AbsoluteIRI;
class CanonicalAbsoluteIRI;
class File;
class Folder;
namespace detail {
struct IRIAccess;
}

// An absolute IRI naming a resource: a scheme, a path and, for nested storage, an inner IRI. A thin
// value over the provider's StorageIRI (which alone knows the syntax); it adds validation (an
// absolute IRI always has a path) and reports bad input as InvalidIRIException.
class VFS_EXPORT AbsoluteIRI {
public:
    // Parses `iri`. Throws InvalidIRIException(iri) with the parser's exception nested when the text
    // does not parse, and InvalidIRIException(normalised text) when it parses but has no path.
    explicit AbsoluteIRI(const ustring& iri);
    // As above, from UTF-8 text; text that is not UTF-8 throws InvalidIRIException.
    explicit AbsoluteIRI(std::string_view utf8);
    // `relative` resolved against `base` taken as a folder. Provider exceptions pass unchanged.
    AbsoluteIRI(const AbsoluteIRI& base, const ustring& relative);
    // `path` inside the container named by `inner`, under `scheme`. Provider exceptions pass unchanged.
    AbsoluteIRI(const ustring& scheme, const AbsoluteIRI& inner, ustring path);

    AbsoluteIRI(const AbsoluteIRI&) = default;
    AbsoluteIRI(AbsoluteIRI&&) noexcept = default;
    AbsoluteIRI& operator=(const AbsoluteIRI&) = default;
    AbsoluteIRI& operator=(AbsoluteIRI&&) noexcept = default;
    ~AbsoluteIRI() = default;

    ustring getScheme() const { return m_iri.getScheme(); }
    const ustring& getPath() const noexcept { return m_iri.getPath(); }
    const ustring& getResolvedPath() const noexcept { return m_iri.getResolvedPath(); }
    // This IRI resolved against its own resolved path; any failure becomes InvalidIRIException.
    AbsoluteIRI getResolvedIRI() const;
    const ustring& getName() const noexcept { return m_iri.getName(); }
    // The parent folder; check hasParent() first (the root's parent is the root).
    AbsoluteIRI getParent() const;
    bool hasParent() const noexcept { return m_iri.hasParent(); }
    bool hasInnerIRI() const noexcept { return m_iri.hasInnerIRI(); }
    // Throws InvalidIRIException when the inner IRI has no path (or there is none).
    AbsoluteIRI getInnerIRI() const;
    provider::PathView getPathView() const { return m_iri.getPathView(); }
    bool isAncestorOf(const AbsoluteIRI& other) const { return m_iri.isAncestorOf(other.m_iri); }
    ustring makePathRelativeTo(const AbsoluteIRI& base) const { return m_iri.makePathRelativeTo(base.m_iri); }
    const ustring& toString() const noexcept { return m_iri.toString(); }
    const ustring& toAsciiString() const { return m_iri.toAsciiString(); }
    // toString() in UTF-8, for printing.
    std::string toUtf8() const;
    network::IRI toIRI() const { return m_iri.toIRI(); }
    std::size_t hashValue() const noexcept { return m_iri.hashValue(); }

    friend bool operator==(const AbsoluteIRI& a, const AbsoluteIRI& b) noexcept { return a.m_iri == b.m_iri; }
    friend bool operator!=(const AbsoluteIRI& a, const AbsoluteIRI& b) noexcept { return a.m_iri != b.m_iri; }
    friend bool operator<(const AbsoluteIRI& a, const AbsoluteIRI& b) noexcept { return a.m_iri < b.m_iri; }
    // Code-unit comparison with the printed form: no parsing, no case folding.
    bool operator==(const ustring& text) const noexcept { return toString() == text; }
    bool operator!=(const ustring& text) const noexcept { return toString() != text; }

private:
    friend struct detail::IRIAccess;
    friend class File;
    friend class Folder;
    friend class CanonicalAbsoluteIRI;

    AbsoluteIRI() = default;
    // The bridge from provider values; with `validate`, an IRI without a path throws
    // InvalidIRIException(iri.toString()).
    AbsoluteIRI(provider::StorageIRI iri, bool validate);
    provider::StorageIRI toStorageIRI() const { return m_iri; }

    provider::StorageIRI m_iri;
};

static_assert(sizeof(AbsoluteIRI) == sizeof(provider::StorageIRI));

VFS_EXPORT bool operator==(const ustring& text, const AbsoluteIRI& iri) noexcept;
VFS_EXPORT bool operator!=(const ustring& text, const AbsoluteIRI& iri) noexcept;
VFS_EXPORT std::ostream& operator<<(std::ostream& out, const AbsoluteIRI& iri);
VFS_EXPORT std::size_t hash_value(const AbsoluteIRI& iri) noexcept;

// An AbsoluteIRI that the provider has canonicalised (links, case and relative segments resolved as
// the provider defines). Only the library makes one from provider results; the string constructor
// trusts its caller.
class VFS_EXPORT CanonicalAbsoluteIRI : public AbsoluteIRI {
public:
    explicit CanonicalAbsoluteIRI(const ustring& iri);
    CanonicalAbsoluteIRI(const AbsoluteIRI& base, const ustring& relative);
    CanonicalAbsoluteIRI(const CanonicalAbsoluteIRI&) = default;
    CanonicalAbsoluteIRI(CanonicalAbsoluteIRI&&) noexcept = default;
    CanonicalAbsoluteIRI& operator=(const CanonicalAbsoluteIRI&) = default;
    CanonicalAbsoluteIRI& operator=(CanonicalAbsoluteIRI&&) noexcept = default;

    CanonicalAbsoluteIRI getParent() const;

private:
    friend struct detail::IRIAccess;
    explicit CanonicalAbsoluteIRI(AbsoluteIRI iri) : AbsoluteIRI(std::move(iri)) {}
};

// The IRI of a local path; `scheme` is handed to the provider (empty means file). Any failure becomes
// InvalidIRIException(path text) with the cause nested.
VFS_EXPORT AbsoluteIRI toAbsoluteIRI(const ustring& scheme, const fl::filesystem::path& path);
// As toAbsoluteIRI, canonicalised against the disk. A path that cannot be resolved (missing,
// inaccessible) throws Exception with the provider's code and contexts; other failures
// InvalidIRIException.
VFS_EXPORT CanonicalAbsoluteIRI toCanonicalAbsoluteIRI(const ustring& scheme, const fl::filesystem::path& path);
// The local path of a file IRI; provider exceptions pass unchanged.
VFS_EXPORT fl::filesystem::path fromAbsoluteIRI(const AbsoluteIRI& iri);
// Whether the text starts with an IRI scheme ("file:/...", "zip:file:/..."), as opposed to a local
// path (a drive letter such as "c:/" is not a scheme). Never throws.
VFS_EXPORT bool hasIRIPrefix(const ustring& text) noexcept;
// Whether two locations name the same resource (weaker than ==; may consult the storage). Parse
// failures pass unchanged.
VFS_EXPORT bool locationsAreEquivalent(const AbsoluteIRI& a, const AbsoluteIRI& b);

namespace detail {

// The library's access to the provider value inside a location, and its bridge back.
struct IRIAccess {
    static const provider::StorageIRI& storageIRI(const AbsoluteIRI& iri) noexcept { return iri.m_iri; }
    static AbsoluteIRI make(provider::StorageIRI iri, bool validate) { return AbsoluteIRI(std::move(iri), validate); }
    static CanonicalAbsoluteIRI makeCanonical(provider::StorageIRI iri)
    {
        return CanonicalAbsoluteIRI(AbsoluteIRI(std::move(iri), true));
    }
};

} // namespace detail

} // namespace foundation::storage::vfs

template <>
struct std::hash<foundation::storage::vfs::AbsoluteIRI> {
    std::size_t operator()(const foundation::storage::vfs::AbsoluteIRI& iri) const noexcept { return iri.hashValue(); }
};
template <>
struct std::hash<foundation::storage::vfs::CanonicalAbsoluteIRI> : std::hash<foundation::storage::vfs::AbsoluteIRI> {
};
