#pragma once

// Byte streams over SFTP file handles. Internal.

#include "Session.hpp"

#include <random>

namespace foundation::storage::provider::sftp::detail {

// A hidden name beside `location` for a temporary or a file set aside ("<folder>/.vfs-<what>-<random>").
std::string siblingName(const StorageIRI& location, const char* what);

// Gives `to` the name `from` has, replacing whatever file is at `to`: OpenSSH refuses a rename over
// an existing file, and libssh2 cannot ask for POSIX semantics, so the old target goes aside first,
// comes back when the rename fails, and is removed after it. Readers may meet no file at `to` for
// a moment, never a mixed one. Failures are `fail`'s of the rename.
void renameReplacing(Connection& connection, const std::string& from, const std::string& to, const StorageIRI& target,
                     bool folder);

std::unique_ptr<ByteStream> openPlainStream(Pool::Lease lease, const StorageIRI& location, bool writable,
                                            const ByteStreamOpenOptions& options);
std::unique_ptr<TransactionalByteStream> openTransactionalStream(Pool::Lease lease, const StorageIRI& location,
                                                                 const ByteStreamOpenOptions& options);

} // namespace foundation::storage::provider::sftp::detail
