#pragma once

// One call of each IProvider operation, for tests that must show a decorator handles every one.

#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>

#include <ProviderHarness.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/property_tree/ptree.hpp>

#include <functional>
#include <vector>

namespace vfs_test {

struct OperationCall {
    foundation::storage::provider::decorators::ProviderOperation operation;
    // What before() is told: the operation's subject; the empty IRI for configure() and shutdown().
    StorageIRI subject;
    std::function<void(const provider::IProvider&)> call;
    // Calls the decorator sees in all: a stream call needs its stream opened first.
    std::uint64_t total = 1;
};

// The calls work on `root`, which must hold the file "file.txt" and the folders "folder" and
// "doomed". Made in this order, every call can succeed; shutdown() comes last since it may drop
// everything the provider holds. A copy names the provider it is called on as its destination.
inline std::vector<OperationCall> everyOperation(const StorageIRI& root)
{
    using Operation = foundation::storage::provider::decorators::ProviderOperation;
    using P = const provider::IProvider&;
    const StorageIRI file(root, u"file.txt");
    const StorageIRI folder(root, u"folder");
    const StorageIRI fresh(root, u"fresh.txt");
    const StorageIRI freshFolder(root, u"fresh-folder");
    const StorageIRI nested(root, u"a/b");
    const StorageIRI doomed(root, u"doomed");
    const StorageIRI copy(root, u"copy.txt");
    const StorageIRI movedFile(root, u"moved.txt");
    const StorageIRI movedFolder(root, u"moved-folder");
    const auto time = boost::posix_time::from_time_t(1'600'000'000);
    const provider::ChangeEventCallback ignoreChanges = [](auto&&...) {};
    return {
        {Operation::Exists, file, [=](P p) { p.exists(file); }},
        {Operation::ExistsExtended, file, [=](P p) { p.existsExtended(file); }},
        {Operation::HasFeature, root, [=](P p) { p.hasFeature(root, provider::ExtendedFeature::RecursiveRemoval); }},
        {Operation::FileExists, file, [=](P p) { p.fileExists(file); }},
        {Operation::FolderExists, folder, [=](P p) { p.folderExists(folder); }},
        {Operation::GetCanonicalLocation, file, [=](P p) { p.getCanonicalLocation(file); }},
        {Operation::GetFileAttributes, file, [=](P p) { p.getFileAttributes(file); }},
        {Operation::GetFolderAttributes, folder, [=](P p) { p.getFolderAttributes(folder); }},
        {Operation::GetExtendedAttributes, file, [=](P p) { p.getExtendedAttributes(file); }},
        {Operation::SetLastModified, file, [=](P p) { p.setLastModified(file, time); }},
        {Operation::SetWritable, file, [=](P p) { p.setWritable(file, true); }},
        {Operation::TruncateToSize, file, [=](P p) { p.truncateToSize(file, 3); }},
        {Operation::CreateFile, fresh, [=](P p) { p.createFile(fresh); }},
        {Operation::RemoveFile, fresh, [=](P p) { p.removeFile(fresh); }},
        {Operation::CreateFolder, freshFolder, [=](P p) { p.createFolder(freshFolder); }},
        {Operation::CreateFolderRecursive, nested, [=](P p) { p.createFolderRecursive(nested); }},
        {Operation::RemoveFolder, freshFolder, [=](P p) { p.removeFolder(freshFolder); }},
        {Operation::RemoveFolderRecursively, doomed, [=](P p) { p.removeFolderRecursively(doomed); }},
        {Operation::CopyFile, file, [=](P p) { p.copyFile(file, p, copy, provider::CopyFileOptions{}); }},
        {Operation::List, root, [=](P p) { p.list(root, provider::ListOptions{}); }},
        {Operation::MoveFile, copy, [=](P p) { p.moveFile(copy, movedFile, provider::ReplacementPolicy::FailIfExists); }},
        {Operation::MoveFolder, folder, [=](P p) { p.moveFolder(folder, movedFolder, provider::ReplacementPolicy::FailIfExists); }},
        {Operation::FlushFilesystem, root, [=](P p) { p.flushFilesystem(root); }},
        {Operation::GetFilenameSensitivity, root, [=](P p) { p.getFilenameSensitivity(root); }},
        {Operation::GetPathComparator, root, [=](P p) { p.getPathComparator(root); }},
        {Operation::GetProviderStorageInfo, root, [=](P p) { p.getProviderStorageInfo(root); }},
        {Operation::OpenReadOnlyStream, file, [=](P p) { p.openReadOnlyStream(file); }},
        {Operation::OpenStream, fresh, [=](P p) { p.openStream(fresh, {}); }},
        {Operation::OpenTransactionalStream, fresh, [=](P p) { p.openTransactionalStream(fresh, {}); }},
        {Operation::StreamRead, file, [=](P p) { char c; p.openReadOnlyStream(file)->read(&c, 1); }, 2},
        {Operation::StreamWrite, fresh, [=](P p) { p.openStream(fresh, {})->write("x", 1); }, 2},
        {Operation::StreamSeek, file, [=](P p) { p.openReadOnlyStream(file)->seek(0, std::ios_base::end); }, 2},
        {Operation::StreamFlush, fresh, [=](P p) { p.openStream(fresh, {})->flush(); }, 2},
        {Operation::StreamClose, fresh, [=](P p) { p.openTransactionalStream(fresh, {})->close(provider::StreamClosePolicy::Commit); }, 2},
        {Operation::PublishFileEvents, file, [=](P p) { p.publishFileEvents(file, ignoreChanges, {}); }},
        {Operation::PublishFolderEvents, root,
         [=](P p) { p.publishFolderEvents(root, ignoreChanges, {}, provider::RecursiveFileWatching::NonRecursive); }},
        {Operation::StopPublishingFileEvents, file, [=](P p) { p.stopPublishingFileEvents(file); }},
        {Operation::StopPublishingFolderEvents, root, [=](P p) { p.stopPublishingFolderEvents(root); }},
        {Operation::StartChangePollingMechanism, root,
         [=](P p) {
             p.startChangePollingMechanism(root, ignoreChanges, {}, std::chrono::hours(1),
                                           provider::RecursiveChangePolling::NonRecursive);
         }},
        {Operation::StopChangePollingMechanism, root, [=](P p) { p.stopChangePollingMechanism(root); }},
        {Operation::Configure, StorageIRI(), [](P p) { p.configure(boost::property_tree::ptree()); }},
        {Operation::Shutdown, StorageIRI(), [](P p) { p.shutdown(); }},
    };
}

// The front refuses a watch on storage that cannot watch, before any decorator sees it.
inline bool watchOnly(foundation::storage::provider::decorators::ProviderOperation operation)
{
    using Operation = foundation::storage::provider::decorators::ProviderOperation;
    return operation == Operation::PublishFileEvents || operation == Operation::PublishFolderEvents;
}

} // namespace vfs_test
