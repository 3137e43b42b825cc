// A program written against the installed package only: asks whether /tmp exists.

#include <foundation/storage/vfs.hpp>

#include <iostream>
#include <memory>

int main()
{
    namespace vfs = foundation::storage::vfs;
    namespace provider = foundation::storage::provider;
    try {
        auto system = std::make_shared<vfs::DefaultStorageSystem>();
        vfs::StorageSystemReference ref{std::weak_ptr<vfs::StorageSystem>(system)};
        vfs::AbsoluteIRI home{u"file:///tmp"};
        const auto answer = vfs::exists(home, ref);
        std::cout << "file:///tmp: " << answer << '\n';
        return answer == provider::ExistenceType::Folder ? 0 : 1;
    } catch (const std::exception& e) {
        std::cerr << "failed: " << e.what() << '\n';
        return 2;
    }
}
