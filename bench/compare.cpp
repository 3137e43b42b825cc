// vfs-bench-compare: one timed run of one candidate, started by bench/compare as a process of its own
// so that the peak memory it reports belongs to that candidate alone.
//
//   vfs-bench-compare SCENARIO CANDIDATE ARGS...
//       warms the page cache for the data right before the timed run, times it and prints
//       "CANDIDATE SECONDS PEAK_RSS_KIB COUNT", COUNT being what the run saw (entries, files, bytes),
//       which bench/compare checks against the data. event-latency prints two such lines.
//   vfs-bench-compare generate tree|mixed|folder|file|noise PATH SIZE
//       makes PATH.partial (SIZE: top folders, files, files, MiB, MiB) and renames it to PATH when
//       complete.
//   vfs-bench-compare generate archive PATH.zip|PATH.tar.gz TREE
//       packs TREE the same way (zip through the library, tar.gz through tar).
//
// Command-line tools run as a child whose output lines are counted; their time is fork to exit and
// their peak memory the child's (RUSAGE_CHILDREN). The library's candidates build their storage
// system before the clock starts.

#include "EventLatency.hpp"

#include <foundation/storage/vfs.hpp>
#include <foundation/storage/vfs/FileStream.hpp>

#include <fl/i18n/ustring.hpp>

#include <boost/variant/get.hpp>

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace vfs = foundation::storage::vfs;
namespace fs = std::filesystem;
using Args = std::vector<std::string>;

namespace {

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

// The stream buffer size of the library, used by every stream candidate.
constexpr std::size_t kChunk = 128 * 1024;
constexpr std::size_t kDirentBufferSize = 64 * 1024;

// Where a run leaves what it computed but does not report, so that the work stays.
volatile std::uint64_t g_sink = 0;

struct FreeDeleter {
    void operator()(char* pointer) const noexcept { std::free(pointer); }
};
using Buffer = std::unique_ptr<char, FreeDeleter>;

// Page aligned: an unaligned buffer halves the kernel's copy speed from the page cache here.
Buffer alignedBuffer(std::size_t size)
{
    Buffer buffer(static_cast<char*>(std::aligned_alloc(4096, size)));
    if (!buffer)
        throw std::bad_alloc();
    std::memset(buffer.get(), 'x', size);
    return buffer;
}

class Descriptor {
public:
    explicit Descriptor(int fd, const std::string& what) : m_fd(fd)
    {
        if (m_fd < 0)
            fail(what);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { ::close(m_fd); }
    int get() const noexcept { return m_fd; }

private:
    int m_fd;
};

Descriptor openFolder(const std::string& path)
{
    return Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), "open " + path);
}

// The kernel's struct linux_dirent64, which glibc does not declare.
struct LinuxDirent64 {
    std::uint64_t d_ino;
    std::int64_t d_off;
    unsigned short d_reclen;
    unsigned char d_type;
    char d_name[1];
};

// Calls `visit(entry)` for the entries of one batch after another; false when the folder is done.
template <class Visit>
bool nextDirents(int folder, char* buffer, Visit visit)
{
    const long read = ::syscall(SYS_getdents64, folder, buffer, kDirentBufferSize);
    if (read < 0)
        fail("getdents64");
    for (long offset = 0; offset < read;) {
        const auto* entry = reinterpret_cast<const LinuxDirent64*>(buffer + offset);
        offset += entry->d_reclen;
        const char* name = entry->d_name;
        if (!(name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))))
            visit(*entry);
    }
    return read > 0;
}

// What a careful user writes without the library: getdents64, d_type for the kind, fstatat only
// when asked. Counts regular files.
std::uint64_t rawList(const std::string& path, bool stat)
{
    const Buffer buffer = alignedBuffer(kDirentBufferSize);
    const Descriptor folder = openFolder(path);
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;
    while (nextDirents(folder.get(), buffer.get(), [&](const LinuxDirent64& entry) {
        if (entry.d_type != DT_REG)
            return;
        ++files;
        if (stat) {
            struct stat status {};
            if (::fstatat(folder.get(), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
                fail("fstatat");
            bytes += static_cast<std::uint64_t>(status.st_size);
        }
    })) {
    }
    g_sink = bytes;
    return files;
}

// Recursive getdents64 on descriptors opened relative to their parent; counts every entry below
// `folder` and calls `onFile(folder, name)` for each regular file.
template <class OnFile>
std::uint64_t rawWalk(int folder, char* buffer, OnFile& onFile)
{
    std::uint64_t count = 0;
    std::vector<std::string> subfolders;
    // Subfolders are walked after the folder's batches, which the recursion would overwrite.
    while (nextDirents(folder, buffer, [&](const LinuxDirent64& entry) {
        ++count;
        if (entry.d_type == DT_DIR)
            subfolders.emplace_back(entry.d_name);
        else if (entry.d_type == DT_REG)
            onFile(folder, entry.d_name);
    })) {
    }
    for (const std::string& name : subfolders) {
        const Descriptor sub(::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC),
                             "openat " + name);
        count += rawWalk(sub.get(), buffer, onFile);
    }
    return count;
}

std::uint64_t countEntries(const std::string& path)
{
    const Buffer buffer = alignedBuffer(kDirentBufferSize);
    auto ignore = [](int, const char*) {};
    return rawWalk(openFolder(path).get(), buffer.get(), ignore);
}

std::uint64_t rawRead(int fd, char* buffer)
{
    std::uint64_t total = 0;
    ssize_t got;
    while ((got = ::read(fd, buffer, kChunk)) > 0)
        total += static_cast<std::uint64_t>(got);
    if (got < 0)
        fail("read");
    return total;
}

std::uint64_t rawRead(const std::string& path, char* buffer)
{
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC), "open " + path);
    return rawRead(file.get(), buffer);
}

// Warms the names and contents of every file of a tree (what a copy reads).
void readTree(const std::string& path)
{
    const Buffer names = alignedBuffer(kDirentBufferSize);
    const Buffer contents = alignedBuffer(kChunk);
    auto readOne = [&](int folder, const char* name) {
        const Descriptor file(::openat(folder, name, O_RDONLY | O_CLOEXEC), std::string("open ") + name);
        rawRead(file.get(), contents.get());
    };
    rawWalk(openFolder(path).get(), names.get(), readOne);
}

std::uint64_t rawWrite(const std::string& path, const char* buffer, std::uint64_t size)
{
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), "open " + path);
    for (std::uint64_t done = 0; done < size;) {
        const ssize_t put = ::write(file.get(), buffer, static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, size - done)));
        if (put < 0)
            fail("write " + path);
        done += static_cast<std::uint64_t>(put);
    }
    return size;
}

template <class Stream>
std::uint64_t streamRead(Stream& in, char* buffer)
{
    std::uint64_t total = 0;
    while (in.read(buffer, kChunk) || in.gcount() > 0)
        total += static_cast<std::uint64_t>(in.gcount());
    return total;
}

template <class Stream>
std::uint64_t streamWrite(Stream& out, const char* buffer, std::uint64_t size)
{
    for (std::uint64_t done = 0; done < size; done += kChunk)
        out.write(buffer, static_cast<std::streamsize>(std::min<std::uint64_t>(kChunk, size - done)));
    out.close();
    if (!out)
        throw std::runtime_error("stream write failed");
    return size;
}

struct Timed {
    double seconds = 0;
    std::uint64_t count = 0;
    bool child = false; // the figures belong to a child process
};

using Clock = std::chrono::steady_clock;

template <class Run>
Timed timed(Run run)
{
    const auto start = Clock::now();
    const std::uint64_t count = run();
    return {std::chrono::duration<double>(Clock::now() - start).count(), count, false};
}

// Runs `command` with its output counted in lines (in bytes with `bytes`); fails unless it exits
// with 0.
Timed runTool(const Args& command, bool bytes = false)
{
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0)
        fail("pipe2");
    std::vector<char*> argv;
    for (const std::string& arg : command)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    const auto start = Clock::now();
    const pid_t pid = ::fork();
    if (pid < 0)
        fail("fork");
    if (pid == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    std::uint64_t lines = 0;
    char buffer[64 * 1024];
    for (ssize_t got; (got = ::read(out[0], buffer, sizeof buffer)) != 0;) {
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            fail("read from " + command[0]);
        if (bytes) {
            lines += static_cast<std::uint64_t>(got);
            continue;
        }
        for (const char* at = buffer; (at = static_cast<const char*>(std::memchr(at, '\n', buffer + got - at))); ++at)
            ++lines;
    }
    ::close(out[0]);
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid)
        fail("waitpid");
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error(command[0] + " failed with status " + std::to_string(status));
    return {seconds, lines, true};
}

// The library's handles on the local disk, made before any clock starts.
struct Library {
    std::shared_ptr<vfs::DefaultStorageSystem> system = std::make_shared<vfs::DefaultStorageSystem>();
    vfs::StorageSystemReference ref{std::weak_ptr<vfs::StorageSystem>(system)};

    vfs::Folder folder(const std::string& path) const { return vfs::Folder(vfs::toAbsoluteIRI(u"", fs::absolute(path)), ref); }
    vfs::File file(const std::string& path) const { return vfs::File(vfs::toAbsoluteIRI(u"", fs::absolute(path)), ref); }
};

[[noreturn]] void unknownCandidate(const std::string& scenario, const std::string& candidate)
{
    throw std::invalid_argument("no candidate " + candidate + " in scenario " + scenario);
}

Timed listNames(const std::string& candidate, const Args& args)
{
    const std::string& path = args.at(0);
    rawList(path, true);
    if (candidate == "vfs") {
        const Library library;
        const vfs::Folder folder = library.folder(path);
        return timed([&] {
            std::uint64_t count = 0;
            for (const vfs::File& file : folder.listFiles(u"")) {
                static_cast<void>(file);
                ++count;
            }
            return count;
        });
    }
    if (candidate == "getdents64")
        return timed([&] { return rawList(path, false); });
    // is_regular_file() answers from the type the directory read delivered: no stat.
    if (candidate == "std-filesystem")
        return timed([&] {
            std::uint64_t count = 0;
            for (const auto& entry : fs::directory_iterator(path))
                count += entry.is_regular_file();
            return count;
        });
    unknownCandidate("list-names", candidate);
}

Timed listAttributes(const std::string& candidate, const Args& args)
{
    const std::string& path = args.at(0);
    rawList(path, true);
    std::uint64_t bytes = 0;
    if (candidate == "vfs") {
        const Library library;
        const vfs::Folder folder = library.folder(path);
        return timed([&] {
            std::uint64_t count = 0;
            for (const vfs::FileEntry& entry : folder.listFileEntries(u"")) {
                bytes += entry.getAttributes().getSize();
                ++count;
            }
            g_sink = bytes;
            return count;
        });
    }
    if (candidate == "fstatat")
        return timed([&] { return rawList(path, true); });
    // status() and file_size() stat the path.
    if (candidate == "std-filesystem")
        return timed([&] {
            std::uint64_t count = 0;
            for (const auto& entry : fs::directory_iterator(path)) {
                if (fs::is_regular_file(entry.status())) {
                    bytes += entry.file_size();
                    ++count;
                }
            }
            g_sink = bytes;
            return count;
        });
    unknownCandidate("list-attrs", candidate);
}

Timed recursiveNames(const std::string& candidate, const Args& args)
{
    // An IRI names a remote folder (bench/compare-remote): no cache to warm, the library alone.
    const std::string& path = args.at(0);
    const bool remote = path.find("://") != std::string::npos;
    if (!remote)
        countEntries(path);
    if (candidate == "vfs") {
        const Library library;
        const vfs::Folder folder = remote ? vfs::Folder(vfs::AbsoluteIRI(path), library.ref) : library.folder(path);
        return timed([&] {
            std::uint64_t count = 0;
            for (const vfs::ListEntry& entry : folder.listAllRecursive(u"")) {
                static_cast<void>(entry);
                ++count;
            }
            return count;
        });
    }
    if (candidate == "getdents64")
        return timed([&] { return countEntries(path); });
    if (candidate == "std-filesystem")
        return timed([&] {
            std::uint64_t count = 0;
            for (const auto& entry : fs::recursive_directory_iterator(path)) {
                static_cast<void>(entry);
                ++count;
            }
            return count;
        });
    if (candidate == "find")
        return runTool({"find", path, "-mindepth", "1"});
    unknownCandidate("recursive-names", candidate);
}

struct CountFiles : vfs::FolderVisitor {
    std::atomic<std::uint64_t> files{0};
    vfs::FolderVisitResult visitEntry(const vfs::FileEntry&) override
    {
        files.fetch_add(1, std::memory_order_relaxed);
        return vfs::FolderVisitResult::Continue;
    }
};

Timed walk(const std::string& candidate, const Args& args)
{
    const std::string& path = args.at(0);
    countEntries(path);
    if (candidate == "vfs" || candidate == "vfs-parallel") {
        const Library library;
        const vfs::Folder folder = library.folder(path);
        return timed([&] {
            CountFiles visitor;
            if (candidate == "vfs")
                vfs::walkFolder(folder, visitor);
            else
                vfs::walkFolderParallel(folder, visitor);
            return visitor.files.load();
        });
    }
    if (candidate == "fdfind")
        return runTool({"fdfind", "-uu", "--type", "f", ".", path});
    if (candidate == "find")
        return runTool({"find", path, "-type", "f"});
    unknownCandidate("walk", candidate);
}

Timed readFile(const std::string& candidate, const Args& args)
{
    const std::string& path = args.at(0);
    const Buffer buffer = alignedBuffer(kChunk);
    rawRead(path, buffer.get());
    if (candidate == "vfs" || candidate == "vfs-text") {
        const Library library;
        const vfs::File file = library.file(path);
        const int mode = candidate == "vfs" ? int(std::ios::binary) : 0;
        return timed([&] {
            vfs::ifstream in(file, mode);
            return streamRead(in, buffer.get());
        });
    }
    if (candidate == "read")
        return timed([&] { return rawRead(path, buffer.get()); });
    if (candidate == "std-ifstream")
        return timed([&] {
            std::ifstream in(path, std::ios::binary);
            return streamRead(in, buffer.get());
        });
    unknownCandidate("read", candidate);
}

// Writes TARGET (removed afterwards) and counts the bytes that reached it.
Timed writeFile(const std::string& candidate, const Args& args)
{
    const std::string& path = args.at(0);
    const std::uint64_t size = std::stoull(args.at(1));
    const Buffer buffer = alignedBuffer(kChunk);
    Timed result;
    if (candidate == "vfs") {
        const Library library;
        const vfs::File file = library.file(path);
        result = timed([&] {
            vfs::ofstream out(file, std::ios::binary);
            return streamWrite(out, buffer.get(), size);
        });
    } else if (candidate == "write") {
        result = timed([&] { return rawWrite(path, buffer.get(), size); });
    } else if (candidate == "std-ofstream") {
        result = timed([&] {
            std::ofstream out(path, std::ios::binary);
            return streamWrite(out, buffer.get(), size);
        });
    } else {
        unknownCandidate("write", candidate);
    }
    result.count = fs::file_size(path);
    fs::remove(path);
    return result;
}

// Copies TREE to TARGET (a fresh name); the count is the entries of the copy.
Timed copyTree(const std::string& candidate, const Args& args)
{
    const std::string& source = args.at(0);
    const std::string& target = args.at(1);
    readTree(source);
    Timed result;
    if (candidate == "vfs") {
        const Library library;
        const vfs::Folder from = library.folder(source);
        const vfs::Folder to = library.folder(target);
        result = timed([&] {
            from.copyFolder(to, foundation::storage::provider::ReplacementPolicy::FailIfExists);
            return 0;
        });
    } else if (candidate == "cp") {
        result = runTool({"cp", "-r", source, target});
    } else if (candidate == "std-filesystem") {
        result = timed([&] {
            fs::copy(source, target, fs::copy_options::recursive);
            return 0;
        });
    } else {
        unknownCandidate("copy-tree", candidate);
    }
    result.count = countEntries(target);
    return result;
}

// Removes TARGET; the count is the entries it held.
Timed removeTree(const std::string& candidate, const Args& args)
{
    const std::string& target = args.at(0);
    const std::uint64_t entries = countEntries(target);
    Timed result;
    if (candidate == "vfs") {
        const Library library;
        const vfs::Folder folder = library.folder(target);
        result = timed([&] {
            folder.removeFolder(vfs::FolderRemovalPolicy::Recursive);
            return 0;
        });
    } else if (candidate == "rm") {
        result = runTool({"rm", "-rf", target});
    } else if (candidate == "std-filesystem") {
        result = timed([&] { return fs::remove_all(target); });
    } else {
        unknownCandidate("remove-tree", candidate);
    }
    if (fs::symlink_status(target).type() != fs::file_type::not_found)
        throw std::runtime_error(candidate + " left " + target + " behind");
    result.count = entries;
    return result;
}

// One existence or attribute question per file of FOLDER, each for a handle made from its name.
Timed statFiles(const std::string& candidate, const Args& args)
{
    const std::string& path = args.at(0);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(path))
        names.push_back(entry.path().filename().string());
    rawList(path, true);
    if (candidate == "vfs" || candidate == "vfs-attrs") {
        std::vector<fl::i18n::ustring> wide;
        for (const std::string& name : names)
            wide.emplace_back(name.begin(), name.end());
        const Library library;
        const vfs::Folder folder = library.folder(path);
        if (candidate == "vfs")
            return timed([&] {
                std::uint64_t count = 0;
                for (const auto& name : wide)
                    count += vfs::File(folder, name).fileExists();
                return count;
            });
        return timed([&] {
            std::uint64_t count = 0;
            std::uint64_t bytes = 0;
            for (const auto& name : wide) {
                bytes += vfs::File(folder, name).getAttributes().getSize();
                ++count;
            }
            g_sink = bytes;
            return count;
        });
    }
    if (candidate == "stat")
        return timed([&] {
            std::uint64_t count = 0;
            struct stat status {};
            for (const std::string& name : names)
                count += ::stat((path + '/' + name).c_str(), &status) == 0;
            return count;
        });
    unknownCandidate("stat", candidate);
}

// ---- archives: the library's zip: and tar: storages against the archive tools ----------------------

vfs::Folder archiveRoot(const Library& library, const char16_t* scheme, const std::string& path)
{
    return vfs::Folder(vfs::AbsoluteIRI(scheme, vfs::toAbsoluteIRI(u"", fs::absolute(path)), u"/"), library.ref);
}

// The files of the zip at PATH, as the library lists them (with their sizes).
std::uint64_t zipFiles(const Library& library, const std::string& path)
{
    std::uint64_t files = 0, bytes = 0;
    for (const auto& entry : archiveRoot(library, u"zip", path).listAllEntriesRecursive())
        if (const auto* file = boost::get<vfs::FileEntry>(&entry)) {
            bytes += file->getAttributes().getSize();
            ++files;
        }
    g_sink = bytes;
    return files;
}

void warm(const std::string& path)
{
    const Buffer buffer = alignedBuffer(kChunk);
    rawRead(path, buffer.get());
}

// Lists the zip ZIP (names and sizes); the count is its files.
Timed zipList(const std::string& candidate, const Args& args)
{
    const std::string& zip = args.at(0);
    warm(zip);
    if (candidate == "vfs") {
        const Library library;
        return timed([&] { return zipFiles(library, zip); });
    }
    Timed result;
    if (candidate == "unzip-l") {
        result = runTool({"unzip", "-l", zip});
        result.count -= 5; // three lines of header, two of total
    } else if (candidate == "bsdtar-tvf") {
        result = runTool({"bsdtar", "-tvf", zip});
    } else {
        unknownCandidate("zip-list", candidate);
    }
    return result;
}

// Extracts the archive ARCHIVE (zip or tar.gz) into TARGET (a fresh name); the count is the entries
// extracted.
Timed extractArchive(const std::string& scenario, const std::string& candidate, const Args& args)
{
    const std::string& archive = args.at(0);
    const std::string& target = args.at(1);
    warm(archive);
    Timed result;
    if (candidate == "vfs") {
        const Library library;
        const vfs::Folder from = archiveRoot(library, scenario == "zip-extract" ? u"zip" : u"tar", archive);
        const vfs::Folder to = library.folder(target);
        result = timed([&] {
            from.copyFolder(to, foundation::storage::provider::ReplacementPolicy::FailIfExists);
            return 0;
        });
    } else {
        fs::create_directory(target);
        if (candidate == "unzip")
            result = runTool({"unzip", "-q", archive, "-d", target});
        else if (candidate == "bsdtar")
            result = runTool({"bsdtar", "-xf", archive, "-C", target});
        else if (candidate == "tar")
            result = runTool({"tar", "-xzf", archive, "-C", target});
        else
            unknownCandidate(scenario, candidate);
    }
    result.count = countEntries(target);
    return result;
}

Timed zipExtract(const std::string& candidate, const Args& args) { return extractArchive("zip-extract", candidate, args); }
Timed targzExtract(const std::string& candidate, const Args& args) { return extractArchive("targz-extract", candidate, args); }

// Packs the tree TREE into the zip TARGET (a fresh name) at the default compression level of each;
// the count is the files the zip holds.
Timed zipCreate(const std::string& candidate, const Args& args)
{
    const std::string& tree = args.at(0);
    const std::string& target = args.at(1);
    readTree(tree);
    Timed result;
    const Library library;
    if (candidate == "vfs") {
        const vfs::Folder from = library.folder(tree);
        const vfs::Folder to = archiveRoot(library, u"zip", target);
        result = timed([&] {
            from.copyFolder(to, foundation::storage::provider::ReplacementPolicy::FailIfExists);
            return 0;
        });
    } else if (candidate == "zip") {
        // zip names entries as it is given them: it runs in the tree, as a user packing it would.
        const fs::path back = fs::current_path();
        const std::string zip = fs::absolute(target).string();
        fs::current_path(tree);
        result = runTool({"zip", "-q", "-r", zip, "."});
        fs::current_path(back);
    } else if (candidate == "bsdtar") {
        result = runTool({"bsdtar", "-a", "-cf", target, "-C", tree, "."});
    } else {
        unknownCandidate("zip-create", candidate);
    }
    result.count = zipFiles(library, target);
    return result;
}

// Reads the entry ENTRY of the zip ZIP whole; the count is its bytes.
Timed zipEntryRead(const std::string& candidate, const Args& args)
{
    const std::string& zip = args.at(0);
    const std::string& entry = args.at(1);
    warm(zip);
    if (candidate == "vfs") {
        const Library library;
        const vfs::File file(vfs::AbsoluteIRI(archiveRoot(library, u"zip", zip).getLocation(), fl::i18n::utf8_to_ustring(entry)),
                             library.ref);
        const Buffer buffer = alignedBuffer(kChunk);
        return timed([&] {
            vfs::ifstream in(file, std::ios::binary);
            return streamRead(in, buffer.get());
        });
    }
    if (candidate == "unzip-p")
        return runTool({"unzip", "-p", zip, entry}, true);
    unknownCandidate("zip-entry-read", candidate);
}

// Makes the zip (or with DEST ending in .tar.gz, the gzipped tar) DEST of the tree SOURCE through
// the library (tar: through tar), under a temporary name renamed once complete.
void generateArchive(const fs::path& dest, const fs::path& source)
{
    const fs::path partial = dest.string() + ".partial";
    fs::remove(partial);
    if (dest.string().ends_with(".tar.gz")) {
        runTool({"tar", "-czf", partial.string(), "-C", source.string(), "."});
    } else {
        const Library library;
        library.folder(source).copyFolder(archiveRoot(library, u"zip", partial),
                                          foundation::storage::provider::ReplacementPolicy::FailIfExists);
    }
    fs::rename(partial, dest);
}

long peakKiB(bool child)
{
    rusage usage{};
    ::getrusage(child ? RUSAGE_CHILDREN : RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

void print(const std::string& candidate, double seconds, long kib, std::uint64_t count)
{
    std::printf("%s %.9f %ld %llu\n", candidate.c_str(), seconds, kib, static_cast<unsigned long long>(count));
}

// Latency of a one-byte write in FOLDER to the library's callback: median and 99th percentile.
void eventLatency(const std::string& candidate, const Args& args)
{
    if (candidate != "vfs")
        unknownCandidate("event-latency", candidate);
    const std::string& path = args.at(0);
    const std::size_t changes = std::stoul(args.at(1));
    bench::LatencyResult result;
    {
        const Library library;
        const vfs::Folder folder = library.folder(path);
        const bench::ByteWriter writer(path + "/target");
        bench::VfsWatch watch;
        result = bench::runLatency({"vfs", [&](bench::Arrivals& arrivals) { watch.start(folder, arrivals); },
                                    [&](std::size_t i) { writer(i); }, [&] { watch.stop(); }},
                                   changes);
        library.system->shutdown();
    }
    const long kib = peakKiB(false);
    print("vfs", bench::percentile(result.micros, 0.5) / 1e6, kib, result.micros.size());
    print("vfs-p99", bench::percentile(result.micros, 0.99) / 1e6, kib, result.micros.size());
}

void writeSmallFile(const fs::path& path, std::size_t size)
{
    const std::string contents(size, 'x');
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644), "open " + path.string());
    if (::write(file.get(), contents.data(), size) != static_cast<ssize_t>(size))
        fail("write " + path.string());
}

// Makes the data under a temporary name, renamed once complete: an interrupted run leaves only the
// temporary, which the next run starts over.
void generateData(const std::string& kind, const fs::path& path, std::uint64_t size)
{
    const fs::path partial = path.string() + ".partial";
    fs::remove_all(partial);
    if (kind == "tree") {
        // size x size folders of 20 files, under size top folders.
        char name[64];
        for (std::uint64_t top = 0; top < size; ++top) {
            for (std::uint64_t sub = 0; sub < size; ++sub) {
                std::snprintf(name, sizeof name, "d%03llu/s%02llu", static_cast<unsigned long long>(top),
                              static_cast<unsigned long long>(sub));
                const fs::path folder = partial / name;
                fs::create_directories(folder);
                for (std::uint64_t i = 0; i < 20; ++i) {
                    std::snprintf(name, sizeof name, "file-%02llu.dat", static_cast<unsigned long long>(i));
                    writeSmallFile(folder / name, (top * 31 + sub * 7 + i) % 200 + 1);
                }
            }
        }
    } else if (kind == "mixed") {
        // `size` files of mixed sizes in folders of 50: mostly 100 bytes to 100 KiB, and one file
        // in a hundred of 4 MiB, as a build's output or a site's tree has them.
        char name[64];
        for (std::uint64_t i = 0; i < size; ++i) {
            std::snprintf(name, sizeof name, "d%02llu/f%04llu.bin", static_cast<unsigned long long>(i / 50),
                          static_cast<unsigned long long>(i));
            fs::create_directories((partial / name).parent_path());
            writeSmallFile(partial / name, i % 100 == 99 ? std::size_t(4) << 20 : std::size_t(100) << (2 * (i % 6)));
        }
    } else if (kind == "noise") {
        // Bytes that deflate to about half: random bytes over a small alphabet.
        std::uint64_t state = 88172645463325252ull;
        const Buffer buffer = alignedBuffer(kChunk);
        const Descriptor file(::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), "open " + partial.string());
        for (std::uint64_t done = 0; done < size << 20; done += kChunk) {
            for (std::size_t i = 0; i < kChunk; ++i) {
                state ^= state << 13, state ^= state >> 7, state ^= state << 17;
                buffer.get()[i] = static_cast<char>('a' + state % 16);
            }
            if (::write(file.get(), buffer.get(), kChunk) != static_cast<ssize_t>(kChunk))
                fail("write " + partial.string());
        }
    } else if (kind == "folder") {
        fs::create_directories(partial);
        char name[64];
        for (std::uint64_t i = 0; i < size; ++i) {
            std::snprintf(name, sizeof name, "file-%06llu.txt", static_cast<unsigned long long>(i));
            writeSmallFile(partial / name, i % 97 + 1);
        }
    } else if (kind == "file") {
        // Text lines of 62 characters and CR LF, so that text mode has line ends to translate.
        const std::string line = std::string(62, 'a') + "\r\n";
        const Buffer buffer = alignedBuffer(kChunk);
        for (std::size_t at = 0; at < kChunk; at += line.size())
            std::memcpy(buffer.get() + at, line.data(), line.size());
        rawWrite(partial.string(), buffer.get(), size << 20);
    } else {
        throw std::invalid_argument("no data kind " + kind);
    }
    fs::rename(partial, path);
}

} // namespace

int main(int argc, char** argv)
try {
    if (argc < 4) {
        std::fprintf(stderr, "usage: vfs-bench-compare SCENARIO CANDIDATE ARGS...\n"
                             "       vfs-bench-compare generate tree|mixed|folder|file|noise PATH SIZE\n"
                             "       vfs-bench-compare generate archive PATH.zip|PATH.tar.gz TREE\n");
        return 2;
    }
    const std::string scenario = argv[1];
    const std::string candidate = argv[2];
    const Args args(argv + 3, argv + argc);
    if (scenario == "generate" && candidate == "archive") {
        generateArchive(args.at(0), args.at(1));
        return 0;
    }
    if (scenario == "generate") {
        generateData(candidate, args.at(0), std::stoull(args.at(1)));
        return 0;
    }
    if (scenario == "event-latency") {
        eventLatency(candidate, args);
        return 0;
    }
    using Scenario = Timed (*)(const std::string&, const Args&);
    const struct {
        const char* id;
        Scenario run;
    } scenarios[] = {
        {"list-names", listNames}, {"list-attrs", listAttributes}, {"recursive-names", recursiveNames},
        {"walk", walk},           {"read", readFile},                 {"write", writeFile},
        {"copy-tree", copyTree},  {"remove-tree", removeTree},    {"stat", statFiles},
        {"zip-list", zipList},    {"zip-extract", zipExtract},    {"targz-extract", targzExtract},
        {"zip-create", zipCreate}, {"zip-entry-read", zipEntryRead},
    };
    for (const auto& known : scenarios) {
        if (scenario == known.id) {
            const Timed result = known.run(candidate, args);
            print(candidate, result.seconds, peakKiB(result.child), result.count);
            return 0;
        }
    }
    throw std::invalid_argument("no scenario " + scenario);
} catch (const std::exception& error) {
    std::fprintf(stderr, "vfs-bench-compare: %s\n", error.what());
    return 1;
}
