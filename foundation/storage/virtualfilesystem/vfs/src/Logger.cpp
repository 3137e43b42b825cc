#include <foundation/storage/vfs/detail/Logger.hpp>

namespace foundation::storage::vfs::detail {

foundation::log::diagnostic_logger& logger() noexcept
{
    // Never destroyed: records may still be written from static destructors and other threads
    // during shutdown.
    static auto* instance = new foundation::log::diagnostic_logger("foundation::storage::vfs");
    return *instance;
}

} // namespace foundation::storage::vfs::detail
