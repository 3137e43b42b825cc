#pragma once

// The public interface of the vfs library. The standard iostreams on files
// (<foundation/storage/vfs/FileStream.hpp>) and the stream devices (<foundation/storage/vfs/IODevice.hpp>)
// are built on Boost.Iostreams, which costs every includer much compile time: files that use them
// include those headers too.

#include <foundation/storage/vfs/AbsoluteIRI.hpp>
#include <foundation/storage/vfs/DefaultStorageSystem.hpp>
#include <foundation/storage/vfs/Events.hpp>
#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/File.hpp>
#include <foundation/storage/vfs/FileOrFolder.hpp>
#include <foundation/storage/vfs/Folder.hpp>
#include <foundation/storage/vfs/FolderEntries.hpp>
#include <foundation/storage/vfs/FolderListing.hpp>
#include <foundation/storage/vfs/FolderVisitor.hpp>
#include <foundation/storage/vfs/OpenMode.hpp>
#include <foundation/storage/vfs/PosixFILE.hpp>
#include <foundation/storage/vfs/IOException.hpp>
#include <foundation/storage/vfs/ProviderExtensions.hpp>
#include <foundation/storage/vfs/StorageSystem.hpp>
