// vfs-bench-streams [--rounds N] [--size-mib M] [--dir DIR]: reads and writes one large file under
// DIR through the library's streams and through what a user would write instead, in one run,
// alternating the candidates round by round (A B A B ...), each read run right after a warm-up pass
// over the file. Prints every round, the median per candidate in GB/s and the ratios of medians.
// The file (and the written copies) are removed at the end. Run it through bench/streams.

#include <foundation/storage/vfs.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace vfs = foundation::storage::vfs;

namespace {

// The library's stream buffer size, used by every candidate.
constexpr std::size_t kChunk = 131072;

struct FreeDeleter {
    void operator()(char* pointer) const noexcept { std::free(pointer); }
};
using Buffer = std::unique_ptr<char, FreeDeleter>;

Buffer alignedBuffer()
{
    Buffer buffer(static_cast<char*>(std::aligned_alloc(64, kChunk)));
    if (!buffer)
        throw std::bad_alloc();
    std::memset(buffer.get(), 'x', kChunk);
    return buffer;
}

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

std::uint64_t rawRead(const std::string& path, char* buffer)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        fail("open " + path);
    std::uint64_t total = 0;
    for (ssize_t got; (got = ::read(fd, buffer, kChunk)) > 0;)
        total += static_cast<std::uint64_t>(got);
    ::close(fd);
    return total;
}

template <class Stream>
std::uint64_t streamRead(Stream& in, char* buffer)
{
    std::uint64_t total = 0;
    while (in.read(buffer, kChunk) || in.gcount() > 0)
        total += static_cast<std::uint64_t>(in.gcount());
    return total;
}

std::uint64_t rawWrite(const std::string& path, const char* buffer, std::uint64_t size)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        fail("open " + path);
    for (std::uint64_t done = 0; done < size;) {
        const ssize_t put = ::write(fd, buffer, kChunk);
        if (put < 0)
            fail("write " + path);
        done += static_cast<std::uint64_t>(put);
    }
    if (::close(fd) != 0)
        fail("close " + path);
    return size;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = 5;
    std::uint64_t sizeMiB = 1024;
    std::string dir = "/tmp";
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string flag = argv[i];
        if (flag == "--rounds")
            rounds = std::stoi(argv[i + 1]);
        else if (flag == "--size-mib")
            sizeMiB = std::stoull(argv[i + 1]);
        else if (flag == "--dir")
            dir = argv[i + 1];
        else
            return std::cerr << "unknown flag " << flag << "\n", 2;
    }
    const std::uint64_t size = sizeMiB << 20;
    const std::filesystem::path work = std::filesystem::path(dir) / ("vfs-bench-streams-" + std::to_string(::getpid()));
    std::filesystem::create_directories(work);
    const std::string source = (work / "source.txt").string();

    auto system = std::make_shared<vfs::DefaultStorageSystem>();
    vfs::StorageSystemReference ref{std::weak_ptr<vfs::StorageSystem>(system)};
    const auto fileAt = [&](const std::string& path) { return vfs::File(vfs::toAbsoluteIRI(u"", path), ref); };

    Buffer buffer = alignedBuffer();
    {
        // Text lines of 78 characters and CR LF, so that text mode has line ends to translate.
        std::string line(78, 'a');
        line += "\r\n";
        for (std::size_t at = 0; at < kChunk; at += line.size())
            std::memcpy(buffer.get() + at, line.data(), std::min(line.size(), kChunk - at));
        rawWrite(source, buffer.get(), size);
    }

    using Run = std::function<std::uint64_t()>;
    struct Candidate {
        std::string name;
        bool reads;
        Run run;
    };
    int written = 0;
    const auto freshTarget = [&] { return (work / ("copy-" + std::to_string(written++))).string(); };
    const std::vector<Candidate> candidates = {
        {"read/raw_read", true, [&] { return rawRead(source, buffer.get()); }},
        {"read/vfs_ifstream_binary", true,
         [&] {
             vfs::ifstream in(fileAt(source), std::ios::binary);
             return streamRead(in, buffer.get());
         }},
        {"read/std_ifstream_binary", true,
         [&] {
             std::ifstream in(source, std::ios::binary);
             return streamRead(in, buffer.get());
         }},
        {"read/vfs_ifstream_text", true,
         [&] {
             vfs::ifstream in(fileAt(source), 0);
             return streamRead(in, buffer.get());
         }},
        {"write/raw_write", false, [&] { return rawWrite(freshTarget(), buffer.get(), size); }},
        {"write/vfs_ofstream_binary", false,
         [&] {
             vfs::ofstream out(fileAt(freshTarget()), std::ios::binary);
             for (std::uint64_t done = 0; done < size; done += kChunk)
                 out.write(buffer.get(), kChunk);
             out.close();
             if (!out)
                 throw std::runtime_error("ofstream failed");
             return size;
         }},
    };

    std::map<std::string, std::vector<double>> seconds;
    for (int round = 0; round < rounds; ++round) {
        for (const Candidate& candidate : candidates) {
            // Warm-up right before the timed run: the file in the page cache, the buffer touched.
            rawRead(source, buffer.get());
            const auto start = std::chrono::steady_clock::now();
            const std::uint64_t bytes = candidate.run();
            const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (candidate.reads && bytes == 0)
                throw std::runtime_error(candidate.name + " read nothing");
            seconds[candidate.name].push_back(elapsed);
            std::cout << "round " << round << "  " << candidate.name << "  " << elapsed * 1e3 << " ms\n";
        }
    }
    std::filesystem::remove_all(work);

    std::map<std::string, double> medians;
    std::cout << "\nmedian over " << rounds << " rounds, " << sizeMiB << " MiB:\n";
    for (const auto& [name, values] : seconds) {
        medians[name] = median(values);
        std::cout << "  " << name << "  " << medians[name] * 1e3 << " ms  " << double(size) / medians[name] / 1e9
                  << " GB/s\n";
    }
    const auto ratio = [&](const char* a, const char* b, const char* target) {
        std::cout << "  " << a << " / " << b << " = " << medians[a] / medians[b] << "x time (target " << target << ")\n";
    };
    ratio("read/vfs_ifstream_binary", "read/raw_read", "<= 1.15");
    ratio("read/vfs_ifstream_binary", "read/std_ifstream_binary", "<= 1.0");
    ratio("read/vfs_ifstream_text", "read/vfs_ifstream_binary", "<= 2.0");
    ratio("write/vfs_ofstream_binary", "write/raw_write", "<= 1.2");
    return 0;
}
