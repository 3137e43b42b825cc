#pragma once

#include <foundation/storage/provider/Attributes.hpp>
#include <foundation/storage/vfs/AbsoluteIRI.hpp>
#include <foundation/storage/vfs/Folder.hpp>
#include <foundation/storage/vfs/StorageSystem.hpp>

#include <map>
#include <string>

// Provider facilities beyond everyday file and folder work. Each reaches the provider behind a
// folder or location; provider failures arrive as Exception.
namespace foundation::storage::vfs {

// Hands the provider serving `folder` its settings. Keys are the provider's own and may be paths
// ("a.b" names child b of node a); the provider refuses keys or values it does not know.
VFS_EXPORT void configureProvider(Folder& folder, std::map<std::string, std::string> settings);
// Releases what the provider serving `folder` holds; every handle on that provider is affected.
VFS_EXPORT void shutdownProvider(Folder& folder);
VFS_EXPORT provider::ProviderStorageInfo getStorageInfo(const Folder& folder);
// Tells the provider to forget what it caches about `folder`; nothing happens for a provider that
// caches nothing.
VFS_EXPORT void invalidateFolder(const Folder& folder);

namespace extensions {

// Flushes the whole file system behind the provider serving `location`; nothing happens for a
// provider that cannot. Folder::flushFilesystem() is the folder-bound form.
VFS_EXPORT void flushFilesystem(const AbsoluteIRI& location, const StorageSystemReference& system);

} // namespace extensions

} // namespace foundation::storage::vfs
