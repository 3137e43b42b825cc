#pragma once

// The whole public interface of the vfs library.

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
#include <foundation/storage/vfs/FileStream.hpp>
#include <foundation/storage/vfs/IODevice.hpp>
#include <foundation/storage/vfs/OpenMode.hpp>
#include <foundation/storage/vfs/PosixFILE.hpp>
#include <foundation/storage/vfs/IOException.hpp>
#include <foundation/storage/vfs/ProviderExtensions.hpp>
#include <foundation/storage/vfs/StorageSystem.hpp>
