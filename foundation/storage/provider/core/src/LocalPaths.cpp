#include <foundation/storage/provider/StorageIRI.hpp>

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/PosixError.hpp>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include <sys/stat.h>

namespace foundation::storage::provider {

namespace {

const StorageIRI& fileRoot()
{
    static const StorageIRI root(u"file:///");
    return root;
}

[[noreturn]] void refuse(const StorageIRI& location, ustring message, ustring reason)
{
    throwProviderError(ErrorCode::InvalidLocation, location, {ExceptionContext(u"local-path", std::move(reason))},
                       std::move(message));
}

void checkScheme(const ustring& scheme)
{
    if (scheme.empty() || scheme == u"file")
        return;
    if (scheme.size() == 4) {
        ustring lower = scheme;
        for (auto& c : lower)
            c = static_cast<char16_t>(fl::i18n::tolower_ascii(c));
        if (lower == u"file")
            return;
    }
    refuse(StorageIRI(), u"the scheme \"" + scheme + u"\" has no local paths", u"scheme without local paths");
}

// The file IRI of an absolute native path (bytes; names that are not UTF-8 keep their bytes).
StorageIRI fileIRI(const std::string& native) { return StorageIRI(fileRoot(), fl::i18n::native_to_ustring(native)); }

std::optional<std::string> localPath(const StorageIRI& iri)
{
    // Asked in an order that leaves a child made by a listing uncomposed until its path is needed.
    if (iri.hasInnerIRI() || iri.getScheme() != u"file" || !iri.hasPath() || !iri.getAuthority().empty() ||
        iri.getPath().find(u'\0') != ustring::npos)
        return std::nullopt;
    return fl::i18n::ustring_to_native(iri.getPath());
}

} // namespace

StorageIRI toStorageIRI(const ustring& scheme, const fl::filesystem::path& path)
{
    checkScheme(scheme);
    if (path.empty())
        refuse(StorageIRI(), u"empty local path", u"empty path");
    if (path.native().find('\0') != std::string::npos)
        refuse(StorageIRI(), u"local path holds NUL: " + fl::i18n::utf8_to_ustring_lossy(path.native()), u"NUL");
    if (path.is_absolute())
        return fileIRI(path.native());
    std::error_code error;
    const fl::filesystem::path absolute = std::filesystem::absolute(path, error);
    if (error)
        throwPosixError(error.value(), "getcwd", StorageIRI());
    return fileIRI(absolute.native());
}

StorageIRI toCanonicalizedStorageIRI(const ustring& scheme, const fl::filesystem::path& path)
{
    const StorageIRI location = toStorageIRI(scheme, path);
    const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
    if (!resolved)
        throwPosixError(errno, "realpath", location);
    return fileIRI(resolved.get());
}

fl::filesystem::path fromStorageIRI(const StorageIRI& iri)
{
    return fl::filesystem::path(localPathText(iri));
}

std::string localPathText(const StorageIRI& iri)
{
    if (auto path = localPath(iri))
        return *std::move(path);
    if (iri.getScheme() != u"file" || iri.hasInnerIRI())
        refuse(iri, u"\"" + iri.toString() + u"\" is not a file IRI", u"not a file IRI");
    if (!iri.hasPath())
        refuse(iri, u"\"" + iri.toString() + u"\" has no path", u"no path");
    if (!iri.getAuthority().empty())
        refuse(iri, u"\"" + iri.toString() + u"\" names another host", u"non-local authority");
    refuse(iri, u"\"" + iri.toString() + u"\" holds NUL in its path", u"NUL");
}

bool locationsAreEquivalent(const StorageIRI& a, const StorageIRI& b)
{
    if (a == b)
        return true;
    const auto first = localPath(a);
    const auto second = localPath(b);
    if (!first || !second)
        return false;
    struct stat x {};
    struct stat y {};
    if (::stat(first->c_str(), &x) != 0 || ::stat(second->c_str(), &y) != 0)
        return false;
    return x.st_dev == y.st_dev && x.st_ino == y.st_ino;
}

} // namespace foundation::storage::provider
