#pragma once

#include <foundation/storage/vfs/StorageSystem.hpp>

#include <memory>
#include <utility>

namespace vfs_test {

// A storage system made for one test and the reference the library's functions take. The
// reference never keeps the system alive: resetting `system` shows what references do once it is
// gone.
template <class System>
struct SystemUnderTest {
    std::shared_ptr<System> system;
    foundation::storage::vfs::StorageSystemReference ref;
};

//   auto [system, ref] = makeSystem<DefaultStorageSystem>(options);
template <class System, class... Args>
SystemUnderTest<System> makeSystem(Args&&... args)
{
    auto system = std::make_shared<System>(std::forward<Args>(args)...);
    foundation::storage::vfs::StorageSystemReference ref{
        std::weak_ptr<foundation::storage::vfs::StorageSystem>(system)};
    return {std::move(system), std::move(ref)};
}

} // namespace vfs_test
