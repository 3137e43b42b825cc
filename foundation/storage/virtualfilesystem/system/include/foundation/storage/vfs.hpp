#pragma once

// The whole public interface of the vfs library.

#include <foundation/storage/vfs/AbsoluteIRI.hpp>
#include <foundation/storage/vfs/DefaultStorageSystem.hpp>
#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/IOException.hpp>
#include <foundation/storage/vfs/StorageSystem.hpp>
