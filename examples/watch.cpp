// The README's watch, as a program that ctest builds and runs: a recursive watch of a folder whose
// handle ends it, fed by a change made here.

#include <foundation/storage/vfs.hpp>

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>

namespace vfs = foundation::storage::vfs;

int main()
{
    auto storage = std::make_shared<vfs::DefaultStorageSystem>();
    vfs::Folder inbox(vfs::AbsoluteIRI{"mem://demo/inbox"}, storage);
    inbox.createFolderRecursive();                                 // a watch needs its folder

    std::mutex mutex;
    std::condition_variable arrived;
    bool seen = false;
    auto watch = vfs::watch(inbox, [&](const vfs::Event& change) {  // on the provider's thread
        std::lock_guard lock(mutex);
        std::cout << change.getEventData().getKind() << " " << change.getLocation().toUtf8() << "\n";
        seen = true;
        arrived.notify_all();
    }, {.recursive = true});

    vfs::writeAll(vfs::File(inbox, u"letter.txt"), "hello\n");
    std::unique_lock lock(mutex);
    arrived.wait_for(lock, std::chrono::seconds(10), [&] { return seen; });
    return seen ? 0 : 1;                                           // `watch` ends as it goes
}
