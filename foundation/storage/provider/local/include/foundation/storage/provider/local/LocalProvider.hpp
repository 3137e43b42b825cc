#pragma once

#include <foundation/storage/provider/IProvider.hpp>

#include <memory>

namespace foundation::storage::provider::local {

// The provider of the local POSIX disk, serving file:/// IRIs (empty or "localhost" authority;
// any other authority is refused with InvalidLocation). Thread-safe and stateless apart from
// watchers, so one instance can serve a whole process.
VFS_EXPORT std::shared_ptr<IProvider> makeLocalProvider();

} // namespace foundation::storage::provider::local
