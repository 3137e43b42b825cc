// vfs-bench-events [CHANGES [ROUNDS [FOLDER]]]: latency from a change to the subscriber's callback
// (see EventLatency.hpp). Candidates, alternated A B C A B C with a warm-up right before each run:
//   raw inotify  what a user would write instead: one inotify watch read on a thread of its own
//   vfs file://  the library on the local disk (FOLDER, default: a fresh folder under /tmp)
//   vfs mem://   the library on the memory provider
// A change on disk is a one-byte pwrite (IN_MODIFY); on memory, a truncation to another size.
// bench/compare reports the library's file:// figures; this program adds the other two.

#include "EventLatency.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace vfs = foundation::storage::vfs;

int main(int argc, char** argv)
{
    const std::size_t changes = argc > 1 ? std::stoul(argv[1]) : 10000;
    const int rounds = argc > 2 ? std::stoi(argv[2]) : 2;
    std::filesystem::path folder;
    if (argc > 3) {
        folder = argv[3];
    } else {
        std::string pattern = (std::filesystem::temp_directory_path() / "vfs-bench-events-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::system_error(errno, std::generic_category(), "mkdtemp");
        folder = pattern;
    }
    auto writer = std::make_shared<bench::ByteWriter>((folder / "target").string());

    auto system = std::make_shared<vfs::DefaultStorageSystem>();
    const vfs::StorageSystemReference ref{std::weak_ptr<vfs::StorageSystem>(system)};
    const vfs::Folder localFolder(vfs::toAbsoluteIRI(u"", folder), ref);
    const vfs::Folder memoryFolder(vfs::AbsoluteIRI(u"mem://bench/"), ref);
    const vfs::File memoryFile(vfs::AbsoluteIRI(u"mem://bench/target"), ref);
    memoryFile.createFile();

    bench::RawInotify raw;
    bench::VfsWatch watch;
    const auto writeOneByte = [writer](std::size_t i) { (*writer)(i); };
    const std::vector<bench::LatencyCandidate> candidates{
        {"raw inotify", [&](bench::Arrivals& a) { raw.start(folder.string(), a); }, writeOneByte, [&] { raw.stop(); }},
        {"vfs file://", [&](bench::Arrivals& a) { watch.start(localFolder, a); }, writeOneByte, [&] { watch.stop(); }},
        {"vfs mem://", [&](bench::Arrivals& a) { watch.start(memoryFolder, a); },
         [&, sizes = std::make_shared<std::size_t>(0)](std::size_t) { memoryFile.truncateToSize(1 + ++*sizes % 2); },
         [&] { watch.stop(); }},
    };

    std::printf("%zu changes per run, each made after the previous one was delivered\n", changes);
    std::printf("%-12s %5s %11s %11s %11s %6s\n", "candidate", "round", "median(us)", "p99(us)", "max(us)", "lost");
    for (int round = 1; round <= rounds; ++round) {
        for (const bench::LatencyCandidate& candidate : candidates) {
            const bench::LatencyResult result = bench::runLatency(candidate, changes);
            std::printf("%-12s %5d %11.1f %11.1f %11.1f %6zu\n", candidate.name.c_str(), round,
                        bench::percentile(result.micros, 0.5), bench::percentile(result.micros, 0.99),
                        bench::percentile(result.micros, 1.0), result.lost);
        }
    }
    writer.reset();
    system->shutdown();
    if (argc <= 3)
        std::filesystem::remove_all(folder);
    return 0;
}
