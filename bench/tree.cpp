// vfs-bench-tree MODE PATH [TARGET]: one timed pass of one candidate over a folder tree on the local
// disk, printed as "MODE SECONDS COUNT". Run through bench/tree, which makes the tree, warms the
// cache, alternates the candidates and adds the command-line tools to the comparison.
//
//   list     Folder::listAllRecursive, names only          raw      recursive getdents64, d_type
//   stdfs    std::filesystem::recursive_directory_iterator
//   walk     walkFolder counting files                     pwalk    walkFolderParallel on 2 threads
//   copy     Folder::copyFolder PATH -> TARGET             remove   removeFolder(Recursive) PATH

#include <foundation/storage/vfs.hpp>

#include <oneapi/tbb/global_control.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace vfs = foundation::storage::vfs;

namespace {

// The kernel's struct linux_dirent64, which glibc does not declare.
struct LinuxDirent64 {
    std::uint64_t d_ino;
    std::int64_t d_off;
    unsigned short d_reclen;
    unsigned char d_type;
    char d_name[1];
};

constexpr std::size_t direntBufferSize = 64 * 1024;

// What a careful user would write without the library: getdents64 on descriptors opened relative to
// their parent, d_type for the kind, no stat.
std::uint64_t rawWalk(int folder, char* buffer)
{
    std::uint64_t count = 0;
    for (;;) {
        const long read = ::syscall(SYS_getdents64, folder, buffer, direntBufferSize);
        if (read < 0)
            throw std::system_error(errno, std::generic_category(), "getdents64");
        if (read == 0)
            break;
        // Subfolders are walked after the batch, which the recursion would otherwise overwrite.
        std::vector<std::string> subfolders;
        for (long offset = 0; offset < read;) {
            const auto* entry = reinterpret_cast<const LinuxDirent64*>(buffer + offset);
            offset += entry->d_reclen;
            const char* name = entry->d_name;
            if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
                continue;
            ++count;
            if (entry->d_type == DT_DIR)
                subfolders.emplace_back(name);
        }
        for (const std::string& name : subfolders) {
            const int sub = ::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (sub < 0)
                throw std::system_error(errno, std::generic_category(), "openat " + name);
            count += rawWalk(sub, buffer);
            ::close(sub);
        }
    }
    return count;
}

struct CountFiles : vfs::FolderVisitor {
    std::atomic<std::uint64_t> files{0};
    vfs::FolderVisitResult visitEntry(const vfs::FileEntry&) override
    {
        files.fetch_add(1, std::memory_order_relaxed);
        return vfs::FolderVisitResult::Continue;
    }
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: vfs-bench-tree list|raw|stdfs|walk|pwalk|copy|remove PATH [TARGET]\n");
        return 2;
    }
    const std::string mode = argv[1];
    const std::filesystem::path path = std::filesystem::absolute(argv[2]);
    auto system = std::make_shared<vfs::DefaultStorageSystem>();
    const vfs::StorageSystemReference ref{std::weak_ptr<vfs::StorageSystem>(system)};
    const vfs::Folder folder(vfs::toAbsoluteIRI(u"", path), ref);
    tbb::global_control threads(tbb::global_control::max_allowed_parallelism, 2);

    const auto start = std::chrono::steady_clock::now();
    std::uint64_t count = 0;
    if (mode == "list") {
        for (const vfs::ListEntry& entry : folder.listAllRecursive(u"")) {
            static_cast<void>(entry);
            ++count;
        }
    } else if (mode == "raw") {
        const int root = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        std::unique_ptr<char, decltype(&std::free)> buffer(
            static_cast<char*>(std::aligned_alloc(4096, direntBufferSize)), &std::free);
        count = rawWalk(root, buffer.get());
        ::close(root);
    } else if (mode == "stdfs") {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
            static_cast<void>(entry);
            ++count;
        }
    } else if (mode == "walk" || mode == "pwalk") {
        CountFiles visitor;
        if (mode == "walk")
            vfs::walkFolder(folder, visitor);
        else
            vfs::walkFolderParallel(folder, visitor);
        count = visitor.files;
    } else if (mode == "copy" && argc > 3) {
        folder.copyFolder(vfs::Folder(vfs::toAbsoluteIRI(u"", std::filesystem::absolute(argv[3])), ref),
                          foundation::storage::provider::ReplacementPolicy::FailIfExists);
    } else if (mode == "remove") {
        folder.removeFolder(vfs::FolderRemovalPolicy::Recursive);
    } else {
        std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
        return 2;
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::printf("%s %.4f %llu\n", mode.c_str(), took.count(), static_cast<unsigned long long>(count));
    return 0;
}
