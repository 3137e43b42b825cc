#include <foundation/storage/provider/ProviderResolver.hpp>

namespace foundation::storage::provider {

std::unique_ptr<ByteStream> openContainer(const ProviderResolver& resolve, const StorageIRI& nested)
{
    if (!nested.hasInnerIRI())
        throwProviderError(ErrorCode::InvalidLocation, nested, {ExceptionContext(u"container"), ExceptionContext(u"no-inner-iri")});
    const StorageIRI container = nested.getInnerIRI();
    const std::shared_ptr<IProvider> provider = resolve(container);
    switch (provider->exists(container)) {
    case ExistenceType::File:
        break;
    case ExistenceType::Folder:
        throwProviderError(ErrorCode::ResourceNotFound, container, {ExceptionContext(u"container"), ExceptionContext(u"not-a-file")});
    case ExistenceType::NotFound:
        throwProviderError(ErrorCode::ResourceNotFound, container, {ExceptionContext(u"container")});
    }
    return provider->openReadOnlyStream(container);
}

} // namespace foundation::storage::provider
