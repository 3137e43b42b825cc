#include <foundation/storage/provider/local/LocalProvider.hpp>

#include <foundation/storage/provider/PosixError.hpp>

#include <cerrno>
#include <sys/stat.h>

namespace foundation::storage::provider::local {

namespace {

bool isNotFound(int error) noexcept
{
    // ENOTDIR: some prefix of the path is a file, so nothing can exist below it.
    return error == ENOENT || error == ENOTDIR;
}

// The provider keeps no state: every operation converts the IRI and asks the kernel, so any number
// of threads may call it at once.
class LocalProvider final : public IProvider {
public:
    ExistenceType exists(const StorageIRI& location) const override
    {
        const fl::filesystem::path path = nativePath(location);
        struct stat info {};
        if (::stat(path.c_str(), &info) != 0) {
            const int error = errno;
            if (isNotFound(error))
                return ExistenceType::NotFound;
            throwPosixError(error, "stat", location);
        }
        return S_ISDIR(info.st_mode) ? ExistenceType::Folder : ExistenceType::File;
    }

    ExistenceTypeExtended existsExtended(const StorageIRI& location) const override
    {
        const fl::filesystem::path path = nativePath(location);
        struct stat info {};
        if (::lstat(path.c_str(), &info) != 0) {
            const int error = errno;
            if (isNotFound(error))
                return ExistenceTypeExtended::NotFound;
            throwPosixError(error, "lstat", location);
        }
        if (S_ISLNK(info.st_mode)) {
            struct stat target {};
            if (::stat(path.c_str(), &target) != 0) {
                const int error = errno;
                // A loop of links resolves to nothing, just like a dangling one.
                if (isNotFound(error) || error == ELOOP)
                    return ExistenceTypeExtended::BrokenLink;
                throwPosixError(error, "stat", location);
            }
            return S_ISDIR(target.st_mode) ? ExistenceTypeExtended::LinkToFolder : ExistenceTypeExtended::LinkToFile;
        }
        if (S_ISDIR(info.st_mode))
            return ExistenceTypeExtended::Folder;
        if (S_ISREG(info.st_mode))
            return ExistenceTypeExtended::File;
        return ExistenceTypeExtended::Special;
    }

    // No optional feature is implemented natively yet; the location is still checked, so that a
    // foreign IRI is refused the same way by every operation.
    bool hasFeature(const StorageIRI& location, ExtendedFeature) const override
    {
        static_cast<void>(nativePath(location));
        return false;
    }

private:
    // The one way from an IRI to a local path. fromStorageIRI refuses other schemes, remote
    // authorities and NUL; an IRI without a path ("file:") names nothing on disk.
    static fl::filesystem::path nativePath(const StorageIRI& location)
    {
        if (!location.hasPath())
            throwProviderError(ErrorCode::InvalidLocation, location, {ExceptionContext(u"no-path")});
        return fromStorageIRI(location);
    }
};

} // namespace

std::shared_ptr<IProvider> makeLocalProvider()
{
    return std::make_shared<LocalProvider>();
}

} // namespace foundation::storage::provider::local
