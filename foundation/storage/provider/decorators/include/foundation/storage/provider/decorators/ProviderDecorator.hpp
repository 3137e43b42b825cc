#pragma once

#include <foundation/storage/provider/IProvider.hpp>
#include <foundation/storage/provider/decorators/Operations.hpp>

#include <memory>

namespace foundation::storage::provider::decorators {

// Forwards every operation to the wrapped provider. A decorator overrides what it changes and
// calls the base for the rest; before() is called ahead of every forwarded operation, which is
// where cross-cutting concerns (faults, counting) hook in without overriding each operation.
//
// before() sees the operation's subject: the source of a move or copy, the listed folder, and the
// empty IRI for configure() and shutdown(). A copy within the decorator is a copy within the
// wrapped provider; a copy into any other provider goes through the streams. Listings are checked
// when they are made; their iterators come from the wrapped provider unchanged. Streams are
// wrapped, so that before() also sees each read, write, seek, flush and close (Stream*
// operations); a stream keeps its decorator alive when the decorator is owned by a shared_ptr, and
// must not outlive it otherwise. The capabilities are the wrapped provider's.
//
// The optional interfaces (extensions::IInvalidatable, extensions::IFlushableFilesystem,
// extensions::IFolderModeKeeping) are passed through to the wrapped provider when it has them; when
// it has not they do nothing (a folder is then made by createFolder()), so a decorated provider
// offers exactly what the wrapped one does; extensions::IChangeBatching likewise (without it, every
// change is durable on its own). A folder made like another counts as a CreateFolder.
// extensions::ILinkKeeping is passed through too; over a provider without it, it fails with
// UnsupportedOperation. A link read counts as an ExistsExtended, a link made as a CreateFile.
class VFS_EXPORT ProviderDecorator : public IProvider,
                                     public extensions::IInvalidatable,
                                     public extensions::IFlushableFilesystem,
                                     public extensions::IFolderModeKeeping,
                                     public extensions::ILinkKeeping,
                                     public extensions::IChangeBatching,
                                     public std::enable_shared_from_this<ProviderDecorator> {
public:
    // Throws std::invalid_argument when `wrapped` is null.
    explicit ProviderDecorator(std::shared_ptr<IProvider> wrapped);
    ~ProviderDecorator() override;

    const std::shared_ptr<IProvider>& getWrapped() const noexcept { return m_wrapped; }

    ProviderCapabilities capabilities() const override;
    void invalidate(const StorageIRI& location) override;
    void flushFilesystem() override;
    using IProvider::flushFilesystem;
    void createFolderLike(const StorageIRI& location, const StorageIRI& model) const override;
    void finishFolderLike(const StorageIRI& location, const StorageIRI& model) const override;
    fl::ustring readLink(const StorageIRI& location) const override;
    void createLink(const StorageIRI& location, const fl::ustring& target, bool replace) const override;
    void beginBatch(const StorageIRI& location) const override;
    void endBatch(const StorageIRI& location) const override;

protected:
    // Called before each operation is forwarded; may throw to make the operation fail.
    virtual void before(ProviderOperation operation, const StorageIRI& location) const;

#define VFS_PROVIDER_DECORATOR_DECLARE(Enumerator, name, Result, Parameters, Arguments) Result do##Enumerator Parameters const override;
    VFS_PROVIDER_FORWARDED_OPERATIONS(VFS_PROVIDER_DECORATOR_DECLARE)
#undef VFS_PROVIDER_DECORATOR_DECLARE
    TransactionStatus doCopyFile(const StorageIRI& location, const StorageIRI& destination,
                                 const CopyFileOptions& options) const override;
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const override;
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const override;
    std::unique_ptr<TransactionalByteStream> doOpenTransactionalStream(const StorageIRI& location,
                                                                       const ByteStreamOpenOptions& options) const override;
    void doConfigure(const boost::property_tree::ptree& settings) const override;
    void doShutdown() const override;

private:
    template <class Stream>
    friend class DecoratedStream;
    friend class DecoratedTransactionalStream;

    std::shared_ptr<IProvider> m_wrapped;
};

} // namespace foundation::storage::provider::decorators

// The decorators of the library, each in its own header; included here for the users of this one.
#include <foundation/storage/provider/decorators/CallCountingProvider.hpp>
#include <foundation/storage/provider/decorators/FaultInjectingProvider.hpp>
#include <foundation/storage/provider/decorators/FeatureMaskingProvider.hpp>
