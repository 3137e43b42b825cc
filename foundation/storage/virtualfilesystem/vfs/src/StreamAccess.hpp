#pragma once

// How the devices, streams and FILE adapters of this library open a File's provider streams.
// Internal.

#include <foundation/storage/vfs/File.hpp>

namespace foundation::storage::vfs::detail {

struct StreamAccess {
    static provider::ByteStreamDevice open(const File& file, const provider::ByteStreamOpenOptions& options)
    {
        return file.open(options);
    }
    static provider::ByteStreamDevice openReadOnly(const File& file) { return file.openReadOnly(); }
    static provider::TransactionalStreamDevice openTransactionalStream(const File& file,
                                                                       const provider::ByteStreamOpenOptions& options)
    {
        return file.openTransactionalStream(options);
    }
};

} // namespace foundation::storage::vfs::detail
