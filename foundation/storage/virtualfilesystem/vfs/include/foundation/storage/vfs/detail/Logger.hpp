#pragma once

#include <foundation/log/diagnostic_logger.hpp>

namespace foundation::storage::vfs::detail {

// The library's diagnostic trace, channel "foundation::storage::vfs"; lives as long as the library.
VFS_EXPORT foundation::log::diagnostic_logger& logger() noexcept;

} // namespace foundation::storage::vfs::detail
