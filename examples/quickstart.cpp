// The first steps of the README, as a program that ctest builds and runs: a storage system, a
// reference to it, a few files in memory, a listing.

#include <foundation/storage/vfs.hpp>

#include <iostream>
#include <memory>

namespace vfs = foundation::storage::vfs;

int main()
{
    auto storage = std::make_shared<vfs::DefaultStorageSystem>();
    vfs::StorageSystemReference ref{storage};                     // never keeps `storage` alive
    auto answer = vfs::exists(vfs::AbsoluteIRI{"file:///tmp"}, ref);   // ExistenceType::Folder
    std::cout << "file:///tmp: " << answer << "\n";

    vfs::Folder scratch(vfs::AbsoluteIRI{"mem://scratch/notes"}, ref);
    scratch.createFolderRecursive();
    vfs::writeAll(vfs::File(scratch, u"todo.txt"), "milk\nbread\n");
    for (const auto& entry : scratch.listFileEntries(u"*.txt"))   // attributes come with the listing
        std::cout << entry.getNameUtf8() << " " << entry.getAttributes().getSize() << "\n";
    std::cout << vfs::readAll(vfs::File(scratch, u"todo.txt"));
    scratch.removeFolder(vfs::FolderRemovalPolicy::Recursive);

    try {
        vfs::File(vfs::AbsoluteIRI{"mem://scratch/missing"}, ref).getAttributes();
    } catch (const vfs::Exception& error) {                       // every failure names its location
        std::cout << error.code().message() << " at " << error.getLocation().toUtf8() << "\n";
    }
    return answer == vfs::ExistenceType::Folder ? 0 : 1;
}
