#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/IProvider.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/throw_exception.hpp>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace foundation::storage::provider {

void throwByteStreamFailure(StreamOperation operation, std::string message, ErrorCode code, ExceptionContexts contexts)
{
    switch (operation) {
    case StreamOperation::Read:
        boost::throw_exception(ByteStreamReadFailure(std::move(message), code, std::move(contexts)));
    case StreamOperation::Seek:
        boost::throw_exception(ByteStreamSeekFailure(std::move(message), code, std::move(contexts)));
    case StreamOperation::Close:
        boost::throw_exception(ByteStreamCloseFailure(std::move(message), code, std::move(contexts)));
    case StreamOperation::Write:
    case StreamOperation::Flush:
        break;
    }
    boost::throw_exception(ByteStreamWriteFailure(std::move(message), code, std::move(contexts)));
}

ByteStream::~ByteStream() = default;

std::optional<FileAttributes> ByteStream::attributesAtOpen() const { return std::nullopt; }

void TransactionalByteStream::close()
{
    close(StreamClosePolicy::Discard);
}

namespace {

// Large and page-aligned: the kernel copies from and into such buffers fastest.
constexpr std::size_t copyBufferSize = 1024 * 1024;
constexpr std::size_t smallCopyBufferSize = 128 * 1024;
constexpr std::size_t copyBufferAlignment = 4096;

struct FreeDeleter {
    void operator()(char* memory) const noexcept { std::free(memory); }
};

// A stream failure met by a copy becomes the provider Exception a copy reports.
template <class Call>
decltype(auto) asProviderError(const StorageIRI& location, Call&& call)
{
    try {
        return call();
    } catch (const ByteStreamFailure& failure) {
        throwProviderError(failure.getErrorCode(), location, failure.getAllExceptionContexts(),
                           fl::i18n::utf8_to_ustring_lossy(failure.what()));
    }
}

} // namespace

TransactionStatus copyFileThroughStreams(const IProvider& source, const StorageIRI& from, const IProvider& target,
                                         const StorageIRI& to, const CopyFileOptions& options)
{
    // The source is opened first: a stream that learnt the file's attributes with the open spares
    // asking for them, which is a round trip per file on a remote storage.
    const std::unique_ptr<ByteStream> in = source.openReadOnlyStream(from);
    const FileAttributes attributes = [&] {
        auto known = in->attributesAtOpen();
        return known ? std::move(*known) : source.getFileAttributes(from);
    }();
    switch (target.exists(to)) {
    case ExistenceType::Folder:
        throwProviderError(ErrorCode::ResourceAlreadyExists, to, {ExceptionContext(u"copyFile"), ExceptionContext(u"not-a-file")});
    case ExistenceType::File:
        if (options.replacementPolicy == ReplacementPolicy::FailIfExists)
            throwProviderError(ErrorCode::ResourceAlreadyExists, to, {ExceptionContext(u"copyFile"), ExceptionContext(u"EEXIST")});
        if (options.replacementPolicy == ReplacementPolicy::ReplaceIfNewer &&
            !(attributes.getLastModified() > target.getFileAttributes(to).getLastModified()))
            return TransactionStatus::NothingDone;
        break;
    case ExistenceType::NotFound:
        break;
    }

    // Every write goes to the end: a target that knows no write will come back can send what it
    // has while the copy goes on (an object store's multipart upload).
    const std::unique_ptr<TransactionalByteStream> out =
        target.openTransactionalStream(to, ByteStreamOpenOptions{ByteStreamAccess::Write, ByteStreamCreation::CreateIfMissing, 0, 0,
                                                                 options.durable ? 1u : 0u});
    // A small file gets a smaller buffer: a fresh megabyte for each file of a tree copy would be
    // mapped and unmapped each time, which stalls every thread of the copy.
    const std::size_t bufferSize = static_cast<std::size_t>(std::clamp<std::uint64_t>(
        (attributes.getSize() + copyBufferAlignment - 1) / copyBufferAlignment * copyBufferAlignment, smallCopyBufferSize,
        copyBufferSize));
    const std::unique_ptr<char, FreeDeleter> buffer(static_cast<char*>(std::aligned_alloc(copyBufferAlignment, bufferSize)));
    if (!buffer)
        throw std::bad_alloc();
    std::uint64_t copied = 0;
    for (;;) {
        const std::streamsize got =
            asProviderError(from, [&] { return in->read(buffer.get(), static_cast<std::streamsize>(bufferSize)); });
        if (got <= 0)
            break;
        asProviderError(to, [&] { return out->write(buffer.get(), got); });
        copied += static_cast<std::uint64_t>(got);
        // The stream discards on destruction, so a cancelled copy leaves nothing behind.
        if (options.progress && !options.progress(copied, std::max(copied, attributes.getSize())))
            return TransactionStatus::NothingDone;
    }
    asProviderError(to, [&] { out->close(StreamClosePolicy::Commit); });
    if (options.keepLastModified)
        target.setLastModified(to, attributes.getLastModified());
    if (!attributes.isWritable())
        target.setWritable(to, false);
    return TransactionStatus::Completed;
}

} // namespace foundation::storage::provider
