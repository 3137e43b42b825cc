// vfs-bench-listing [benchmark flags] FOLDER: lists FOLDER (a local path holding plain files) through
// the library and through what a user would write instead, in one run. Each benchmark iteration is
// one complete pass; the "entries/s" counter is the rate of entries seen. Run it through
// bench/listing, which prepares the data, warms the cache and interleaves the repetitions.

#include <foundation/storage/vfs.hpp>

#include <benchmark/benchmark.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

namespace vfs = foundation::storage::vfs;

namespace {

// Mirrors the kernel's struct linux_dirent64, which glibc does not declare.
struct LinuxDirent64 {
    std::uint64_t d_ino;
    std::int64_t d_off;
    unsigned short d_reclen;
    unsigned char d_type;
    char d_name[1];
};

constexpr std::size_t kDirentBufferSize = 64 * 1024;

struct FreeDeleter {
    void operator()(void* pointer) const noexcept { std::free(pointer); }
};

class Descriptor {
public:
    explicit Descriptor(const std::string& path) : m_fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        if (m_fd < 0) {
            throw std::system_error(errno, std::generic_category(), "open " + path);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { ::close(m_fd); }
    int get() const noexcept { return m_fd; }

private:
    int m_fd;
};

bool isDotOrDotDot(const char* name) noexcept
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Calls `visit(fd, entry)` for every regular file of `path`; the buffer is page aligned.
template <class Visit>
void walkGetdents(const std::string& path, char* buffer, Visit visit)
{
    const Descriptor dir(path);
    for (;;) {
        const long read = ::syscall(SYS_getdents64, dir.get(), buffer, kDirentBufferSize);
        if (read < 0) {
            throw std::system_error(errno, std::generic_category(), "getdents64 " + path);
        }
        if (read == 0) {
            return;
        }
        for (long offset = 0; offset < read;) {
            const auto* entry = reinterpret_cast<const LinuxDirent64*>(buffer + offset);
            offset += entry->d_reclen;
            if (isDotOrDotDot(entry->d_name)) {
                continue;
            }
            if (entry->d_type == DT_REG || entry->d_type == DT_UNKNOWN) {
                visit(dir.get(), entry);
            }
        }
    }
}

std::string g_folderPath;

vfs::Folder makeFolder(const std::shared_ptr<vfs::DefaultStorageSystem>& system)
{
    return vfs::Folder(vfs::toAbsoluteIRI(u"", g_folderPath),
                       vfs::StorageSystemReference{std::weak_ptr<vfs::StorageSystem>(system)});
}

void setRate(benchmark::State& state, std::int64_t entries)
{
    state.counters["entries/s"] = benchmark::Counter(static_cast<double>(entries), benchmark::Counter::kIsRate);
    state.counters["entries"] =
        benchmark::Counter(static_cast<double>(entries), benchmark::Counter::kAvgIterations);
}

void vfsNames(benchmark::State& state)
{
    auto system = std::make_shared<vfs::DefaultStorageSystem>();
    const vfs::Folder folder = makeFolder(system);
    std::int64_t entries = 0;
    for (auto _ : state) {
        for (const vfs::File& file : folder.listFiles(u"")) {
            benchmark::DoNotOptimize(&file);
            ++entries;
        }
    }
    setRate(state, entries);
}

void vfsAttributes(benchmark::State& state)
{
    auto system = std::make_shared<vfs::DefaultStorageSystem>();
    const vfs::Folder folder = makeFolder(system);
    std::int64_t entries = 0;
    std::uint64_t bytes = 0;
    for (auto _ : state) {
        for (const vfs::FileEntry& entry : folder.listFileEntries(u"")) {
            bytes += entry.getAttributes().getSize();
            ++entries;
        }
    }
    benchmark::DoNotOptimize(bytes);
    setRate(state, entries);
}

// is_regular_file() answers from the type the directory read delivered: no stat.
void stdNames(benchmark::State& state)
{
    std::int64_t entries = 0;
    for (auto _ : state) {
        for (const auto& entry : std::filesystem::directory_iterator(g_folderPath)) {
            if (entry.is_regular_file()) {
                benchmark::DoNotOptimize(&entry);
                ++entries;
            }
        }
    }
    setRate(state, entries);
}

// file_size() stats the path: one stat per entry.
void stdStatus(benchmark::State& state)
{
    std::int64_t entries = 0;
    std::uint64_t bytes = 0;
    for (auto _ : state) {
        for (const auto& entry : std::filesystem::directory_iterator(g_folderPath)) {
            if (entry.is_regular_file()) {
                bytes += entry.file_size();
                ++entries;
            }
        }
    }
    benchmark::DoNotOptimize(bytes);
    setRate(state, entries);
}

std::unique_ptr<char, FreeDeleter> alignedDirentBuffer()
{
    std::unique_ptr<char, FreeDeleter> buffer(static_cast<char*>(std::aligned_alloc(4096, kDirentBufferSize)));
    if (!buffer) {
        throw std::bad_alloc();
    }
    return buffer;
}

void rawGetdents(benchmark::State& state)
{
    const auto buffer = alignedDirentBuffer();
    std::int64_t entries = 0;
    for (auto _ : state) {
        walkGetdents(g_folderPath, buffer.get(), [&](int, const LinuxDirent64* entry) {
            benchmark::DoNotOptimize(entry);
            ++entries;
        });
    }
    setRate(state, entries);
}

void rawGetdentsFstatat(benchmark::State& state)
{
    const auto buffer = alignedDirentBuffer();
    std::int64_t entries = 0;
    std::uint64_t bytes = 0;
    for (auto _ : state) {
        walkGetdents(g_folderPath, buffer.get(), [&](int fd, const LinuxDirent64* entry) {
            struct stat status {};
            if (::fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
                throw std::system_error(errno, std::generic_category(), "fstatat");
            }
            bytes += static_cast<std::uint64_t>(status.st_size);
            ++entries;
        });
    }
    benchmark::DoNotOptimize(bytes);
    setRate(state, entries);
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (argc != 2) {
        std::cerr << "usage: vfs-bench-listing [benchmark flags] FOLDER\n";
        return 2;
    }
    g_folderPath = argv[1];

    // Names first, then attributes; --benchmark_enable_random_interleaving mixes the repetitions.
    const struct {
        const char* name;
        void (*function)(benchmark::State&);
    } benchmarks[] = {
        {"list/vfs_names", vfsNames},
        {"list/std_fs_names", stdNames},
        {"list/raw_getdents", rawGetdents},
        {"list/vfs_attributes", vfsAttributes},
        {"list/std_fs_status", stdStatus},
        {"list/raw_getdents_fstatat", rawGetdentsFstatat},
    };
    for (const auto& candidate : benchmarks) {
        benchmark::RegisterBenchmark(candidate.name, candidate.function)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
