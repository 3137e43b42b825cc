// The README's scheme registration, as a program that ctest builds and runs: an application serves
// "scratch:" from a memory provider of its own, with a quota set through configure.

#include <foundation/storage/provider/memory/MemoryProvider.hpp>
#include <foundation/storage/vfs.hpp>

#include <boost/property_tree/ptree.hpp>

#include <iostream>
#include <memory>

namespace vfs = foundation::storage::vfs;
namespace provider = foundation::storage::provider;

int main()
{
    auto system = std::make_shared<vfs::DefaultStorageSystem>();
    vfs::StorageSystemReference ref{system};
    system->registerScheme(u"scratch", [](const provider::ProviderContext&) {
        return provider::memory::makeMemoryProvider({.scheme = u"scratch"});  // any IProvider
    });
    boost::property_tree::ptree settings;
    settings.put("quotaBytes", "1048576");
    system->configure(u"scratch", settings);
    vfs::Folder(vfs::AbsoluteIRI{u"scratch://tmp/a"}, ref).createFolderRecursive();

    const auto answer = vfs::exists(vfs::AbsoluteIRI{u"scratch://tmp/a"}, ref);
    std::cout << "scratch://tmp/a: " << answer << "\n";
    return answer == provider::ExistenceType::Folder ? 0 : 1;
}
