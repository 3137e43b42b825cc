#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>

#include <foundation/storage/provider/ExtendedAttributes.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/property_tree/ptree.hpp>

#include <stdexcept>
#include <utility>

namespace foundation::storage::provider::decorators {

const char* toString(ProviderOperation operation) noexcept
{
    switch (operation) {
#define VFS_PROVIDER_OPERATION_NAME(Enumerator, name)                                                                  \
    case ProviderOperation::Enumerator:                                                                                \
        return #name;
        VFS_PROVIDER_OPERATIONS(VFS_PROVIDER_OPERATION_NAME)
#undef VFS_PROVIDER_OPERATION_NAME
    case ProviderOperation::Count_:
        break;
    }
    return "Unhandled ProviderOperation";
}

ProviderDecorator::ProviderDecorator(std::shared_ptr<IProvider> wrapped) : m_wrapped(std::move(wrapped))
{
    if (!m_wrapped)
        throw std::invalid_argument("ProviderDecorator: the wrapped provider is null");
}

ProviderDecorator::~ProviderDecorator() { endPolling(); }

ProviderCapabilities ProviderDecorator::capabilities() const { return m_wrapped->capabilities(); }

void ProviderDecorator::invalidate(const StorageIRI& location)
{
    if (auto* capable = dynamic_cast<extensions::IInvalidatable*>(m_wrapped.get()))
        capable->invalidate(location);
}

void ProviderDecorator::flushFilesystem()
{
    if (auto* capable = dynamic_cast<extensions::IFlushableFilesystem*>(m_wrapped.get()))
        capable->flushFilesystem();
}

void ProviderDecorator::createFolderLike(const StorageIRI& location, const StorageIRI& model) const
{
    const auto* keeping = dynamic_cast<const extensions::IFolderModeKeeping*>(m_wrapped.get());
    if (!keeping || !capabilities().writable) {
        createFolder(location); // the front's checks and before()
        return;
    }
    checkLocation(location);
    before(ProviderOperation::CreateFolder, location);
    keeping->createFolderLike(location, model);
}

void ProviderDecorator::finishFolderLike(const StorageIRI& location, const StorageIRI& model) const
{
    if (const auto* keeping = dynamic_cast<const extensions::IFolderModeKeeping*>(m_wrapped.get()))
        keeping->finishFolderLike(location, model);
}

namespace {

const extensions::ILinkKeeping& linkKeeping(const IProvider& wrapped, const StorageIRI& location)
{
    const auto* keeping = dynamic_cast<const extensions::ILinkKeeping*>(&wrapped);
    if (!keeping)
        throwProviderError(ErrorCode::UnsupportedOperation, location, {ExceptionContext(u"symlink")});
    return *keeping;
}

} // namespace

fl::ustring ProviderDecorator::readLink(const StorageIRI& location) const
{
    checkLocation(location);
    const auto& keeping = linkKeeping(*m_wrapped, location);
    before(ProviderOperation::ExistsExtended, location);
    return keeping.readLink(location);
}

void ProviderDecorator::createLink(const StorageIRI& location, const fl::ustring& target, bool replace) const
{
    checkLocation(location);
    const auto& keeping = linkKeeping(*m_wrapped, location);
    if (!capabilities().writable)
        throwProviderError(ErrorCode::ReadOnlyProvider, location, {ExceptionContext(u"symlink"), ExceptionContext(u"read-only")});
    before(ProviderOperation::CreateFile, location);
    keeping.createLink(location, target, replace);
}

void ProviderDecorator::beginBatch(const StorageIRI& location) const
{
    if (const auto* batching = dynamic_cast<const extensions::IChangeBatching*>(m_wrapped.get()))
        batching->beginBatch(location);
}

void ProviderDecorator::endBatch(const StorageIRI& location) const
{
    if (const auto* batching = dynamic_cast<const extensions::IChangeBatching*>(m_wrapped.get()))
        batching->endBatch(location);
}

void ProviderDecorator::before(ProviderOperation, const StorageIRI&) const {}

#define VFS_PROVIDER_DECORATOR_FORWARD(Enumerator, name, Result, Parameters, Arguments)                               \
    Result ProviderDecorator::do##Enumerator Parameters const                                                          \
    {                                                                                                                  \
        before(ProviderOperation::Enumerator, location);                                                               \
        return m_wrapped->name Arguments;                                                                              \
    }
VFS_PROVIDER_FORWARDED_OPERATIONS(VFS_PROVIDER_DECORATOR_FORWARD)
#undef VFS_PROVIDER_DECORATOR_FORWARD

TransactionStatus ProviderDecorator::doCopyFile(const StorageIRI& location, const StorageIRI& destination,
                                                const CopyFileOptions& options) const
{
    before(ProviderOperation::CopyFile, location);
    return m_wrapped->copyFile(location, *m_wrapped, destination, options);
}

// A wrapped provider's stream that tells its decorator about every call.
template <class Stream>
class DecoratedStream : public Stream {
public:
    DecoratedStream(const ProviderDecorator& owner, StorageIRI location, std::unique_ptr<Stream> inner)
        : m_owner(&owner), m_keepAlive(owner.weak_from_this().lock()), m_location(std::move(location)),
          m_inner(std::move(inner))
    {
    }

    std::streamsize read(char* s, std::streamsize n) override
    {
        m_owner->before(ProviderOperation::StreamRead, m_location);
        return m_inner->read(s, n);
    }
    std::streamsize write(const char* s, std::streamsize n) override
    {
        m_owner->before(ProviderOperation::StreamWrite, m_location);
        return m_inner->write(s, n);
    }
    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override
    {
        m_owner->before(ProviderOperation::StreamSeek, m_location);
        return m_inner->seek(off, way);
    }
    void flush() override
    {
        m_owner->before(ProviderOperation::StreamFlush, m_location);
        m_inner->flush();
    }
    void close() override
    {
        m_owner->before(ProviderOperation::StreamClose, m_location);
        m_inner->close();
    }

protected:
    const ProviderDecorator* m_owner;
    std::shared_ptr<const ProviderDecorator> m_keepAlive;
    StorageIRI m_location;
    std::unique_ptr<Stream> m_inner;
};

// The transactional form adds the close that commits or discards.
class DecoratedTransactionalStream final : public DecoratedStream<TransactionalByteStream> {
public:
    using DecoratedStream::DecoratedStream;
    using DecoratedStream::close;
    void close(StreamClosePolicy policy) override
    {
        m_owner->before(ProviderOperation::StreamClose, m_location);
        m_inner->close(policy);
    }
};

std::unique_ptr<ByteStream> ProviderDecorator::doOpenReadOnlyStream(const StorageIRI& location) const
{
    before(ProviderOperation::OpenReadOnlyStream, location);
    return std::make_unique<DecoratedStream<ByteStream>>(*this, location, m_wrapped->openReadOnlyStream(location));
}

std::unique_ptr<ByteStream> ProviderDecorator::doOpenStream(const StorageIRI& location,
                                                            const ByteStreamOpenOptions& options) const
{
    before(ProviderOperation::OpenStream, location);
    return std::make_unique<DecoratedStream<ByteStream>>(*this, location, m_wrapped->openStream(location, options));
}

std::unique_ptr<TransactionalByteStream> ProviderDecorator::doOpenTransactionalStream(
    const StorageIRI& location, const ByteStreamOpenOptions& options) const
{
    before(ProviderOperation::OpenTransactionalStream, location);
    return std::make_unique<DecoratedTransactionalStream>(*this, location,
                                                          m_wrapped->openTransactionalStream(location, options));
}

void ProviderDecorator::doConfigure(const boost::property_tree::ptree& settings) const
{
    before(ProviderOperation::Configure, StorageIRI());
    m_wrapped->configure(settings);
}

void ProviderDecorator::doShutdown() const
{
    before(ProviderOperation::Shutdown, StorageIRI());
    m_wrapped->shutdown();
}

} // namespace foundation::storage::provider::decorators
