#pragma once

#include <fl/export.hpp>
#include <fl/filesystem/path_fwd.hpp>
#include <fl/i18n/ustring.hpp>

#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>

namespace foundation::network {

// A general IRI as the network layer sees it: the components of an IRI in their encoded text
// form. Made from a StorageIRI (which alone parses); holds no syntax knowledge of its own.
class VFS_EXPORT IRI {
public:
    IRI() = default;
    IRI(fl::ustring scheme, fl::ustring hierarchicalPart, fl::ustring text, fl::ustring asciiText);

    const fl::ustring& getScheme() const noexcept { return m_scheme; }
    // Everything after "scheme:", encoded as in toString().
    const fl::ustring& getHierarchicalPart() const noexcept { return m_hierarchicalPart; }
    const fl::ustring& toString() const noexcept { return m_text; }
    const fl::ustring& toAsciiString() const noexcept { return m_asciiText; }

    friend bool operator==(const IRI& a, const IRI& b) noexcept { return a.m_text == b.m_text; }

private:
    fl::ustring m_scheme;
    fl::ustring m_hierarchicalPart;
    fl::ustring m_text;
    fl::ustring m_asciiText;
};

} // namespace foundation::network

namespace foundation::storage::provider {

using fl::i18n::ustring;

class StorageIRI;

// The segments of an absolute path, front to back; the root has none. Keeps the IRI's data alive,
// so a view stays valid after the StorageIRI it came from is gone.
class VFS_EXPORT PathView {
public:
    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = std::u16string_view;
        using difference_type = std::ptrdiff_t;
        using pointer = const std::u16string_view*;
        using reference = std::u16string_view;

        const_iterator() = default;
        std::u16string_view operator*() const noexcept { return m_path.substr(m_begin, m_end - m_begin); }
        const_iterator& operator++() noexcept;
        const_iterator operator++(int) noexcept
        {
            auto copy = *this;
            ++*this;
            return copy;
        }
        friend bool operator==(const const_iterator& a, const const_iterator& b) noexcept
        {
            return a.m_begin == b.m_begin;
        }

    private:
        friend class PathView;
        const_iterator(std::u16string_view path, std::size_t begin) noexcept;
        std::u16string_view m_path;
        std::size_t m_begin = 0;
        std::size_t m_end = 0;
    };

    PathView() = default;
    const_iterator begin() const noexcept;
    const_iterator end() const noexcept;
    std::size_t size() const noexcept;
    bool empty() const noexcept { return begin() == end(); }
    // The whole decoded path ("/" for the root, empty when the IRI has no path).
    std::u16string_view path() const noexcept { return m_path; }

private:
    friend class StorageIRI;
    PathView(std::shared_ptr<const void> keepAlive, std::u16string_view path) noexcept
        : m_keepAlive(std::move(keepAlive)), m_path(path)
    {
    }
    std::shared_ptr<const void> m_keepAlive;
    std::u16string_view m_path;
};

// The one place that knows the IRI syntax.
//
//   iri       = scheme ":" hier
//   hier      = "//" authority [ path ] | path | inner "!" path | opaque
//   scheme    = ALPHA *( ALPHA / DIGIT / "+" / "-" / "." ), kept in lower case
//   path      = "/" segments, absolute; an IRI without one (e.g. "mem://vol") has no path
//   inner     = a whole IRI naming a container; the last "!/" separates nesting levels
//               (a part starting with "/" is never nested: an inner IRI starts with its scheme)
//
// Parsing normalises: escapes are decoded (the path is stored decoded, Unicode), dot segments are
// resolved and never climb above the root, repeated slashes collapse, "file://localhost/" becomes
// "file:///". Printing percent-encodes only what would break the syntax (space, "%", "?", "#",
// "!", controls and the characters an IRI forbids) with upper-case hex. So parse(print(x)) == x,
// and equality, ordering and hashing work on the normalised text.
//
// A value is immutable and shares its data between copies; copies are a reference-count increment
// and const use from several threads is safe.
class VFS_EXPORT StorageIRI {
public:
    // The empty IRI: no scheme, no path; only ever assigned to.
    StorageIRI() noexcept;
    // Parses `text`. Throws provider::Exception (ErrorCode::InvalidLocation) naming the text and the
    // reason on a syntax error (no scheme, bad escape, lone surrogate, malformed inner IRI, ...).
    explicit StorageIRI(ustring text);
    // Resolves `relative`, a decoded path (no escapes are interpreted), against `base` taken as a
    // folder: a relative path is appended to base's path, an absolute one replaces it; dot segments
    // are then resolved without climbing above the root. Throws provider::Exception
    // (InvalidLocation) when `base` has no path or `relative` holds a lone surrogate.
    StorageIRI(const StorageIRI& base, ustring relative);
    // The child of `folder` named `name` when `name` is one plain segment: not empty, "." or "..",
    // and free of '/', NUL and lone surrogates; then `name` has been moved into it. Nothing (and
    // `name` untouched) otherwise, or when `folder` has no path. One pass over the name: listings
    // make a handle per entry this way.
    static std::optional<StorageIRI> plainChild(const StorageIRI& folder, ustring& name);
    // The IRI of `path` (decoded, made absolute and normalised) inside the container named by `inner`,
    // under the outer `scheme`: scheme ":" inner "!" path. Throws provider::Exception
    // (InvalidLocation) for an invalid scheme or an inner IRI without a path.
    StorageIRI(const ustring& scheme, const StorageIRI& inner, ustring path);

    bool hasPath() const noexcept;
    bool empty() const noexcept;

    const ustring& toString() const noexcept;
    // The URI form: as toString(), with every non-ASCII character percent-encoded as UTF-8.
    const ustring& toAsciiString() const;
    ustring getScheme() const;
    // The decoded authority ("" for file:///, the volume for mem://volume/).
    const ustring& getAuthority() const noexcept;
    bool hasAuthority() const noexcept;
    // The decoded, normalised absolute path ("/" for the root); empty when there is none.
    const ustring& getPath() const noexcept;
    // Parsing already resolves every dot segment, so this is the same text as getPath().
    const ustring& getResolvedPath() const noexcept;
    // The last path segment; empty for the root and for an IRI without a path.
    const ustring& getName() const noexcept;
    // The IRI of the parent folder. The root's parent is the root itself (hasParent() is false).
    StorageIRI getParent() const;
    bool hasParent() const noexcept;
    bool hasInnerIRI() const noexcept;
    // The container's IRI; the empty IRI when there is none.
    StorageIRI getInnerIRI() const;
    PathView getPathView() const;
    // True when `other` lies strictly below this IRI: same scheme, authority and inner IRI, and
    // this path is a proper prefix of other's at a segment boundary.
    bool isAncestorOf(StorageIRI other) const;
    // The path of this IRI relative to `base` ("a/b"; "" when equal; with ".." segments where this
    // is not below base). Throws provider::Exception (InvalidLocation) when the two differ in scheme,
    // authority or inner IRI, or either has no path.
    ustring makePathRelativeTo(StorageIRI base) const;
    network::IRI toIRI() const;

    std::size_t hashValue() const noexcept;

    friend VFS_EXPORT bool operator==(const StorageIRI& a, const StorageIRI& b) noexcept;
    friend VFS_EXPORT bool operator<(const StorageIRI& a, const StorageIRI& b) noexcept;
    friend bool operator!=(const StorageIRI& a, const StorageIRI& b) noexcept { return !(a == b); }

    struct Data;

private:
    explicit StorageIRI(std::shared_ptr<const Data> data) noexcept;
    std::shared_ptr<const Data> m_data;
};

VFS_EXPORT std::size_t hash_value(const StorageIRI& iri) noexcept;

// Local paths and IRIs. `scheme` names the scheme of the result; empty means "file", the only scheme
// backed by the local disk. A relative path is made absolute against the current directory
// (lexically; the disk is not consulted). Throws provider::Exception (InvalidLocation) for a path
// that is not valid UTF-8, or a scheme that has no local paths.
VFS_EXPORT StorageIRI toStorageIRI(const ustring& scheme, const fl::filesystem::path& path);
// As toStorageIRI, with symbolic links, "." and ".." resolved against the disk (realpath). Throws
// provider::Exception with the errno's code and contexts ("realpath", "ENOENT") when the path
// cannot be resolved.
VFS_EXPORT StorageIRI toCanonicalizedStorageIRI(const ustring& scheme, const fl::filesystem::path& path);
// The local path of a file IRI. Throws provider::Exception (InvalidLocation) for any other scheme,
// for a non-local authority, and for a path holding NUL.
VFS_EXPORT fl::filesystem::path fromStorageIRI(const StorageIRI& iri);
// As fromStorageIRI, as the bytes a system call takes: a filesystem::path splits itself into
// components as it is made, which costs more than the call for a stat of a cached file.
VFS_EXPORT std::string localPathText(const StorageIRI& iri);
// Whether two IRIs name the same resource: equal IRIs always do; two file IRIs also do when both
// exist and are the same file on disk (same device and inode, links followed).
VFS_EXPORT bool locationsAreEquivalent(const StorageIRI& a, const StorageIRI& b);

} // namespace foundation::storage::provider

template <>
struct std::hash<foundation::storage::provider::StorageIRI> {
    std::size_t operator()(const foundation::storage::provider::StorageIRI& iri) const noexcept
    {
        return iri.hashValue();
    }
};
