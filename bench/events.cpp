// vfs-bench-events [CHANGES [ROUNDS [FOLDER]]]: latency from a change to the subscriber's callback.
//
// Each change is made only after the previous one was delivered, so every sample is one change's
// whole way: kernel (or memory provider) -> watcher thread -> Event built with its handle -> event
// manager queue -> dispatcher thread -> callback. Candidates, alternated A B C A B C with a warm-up
// right before each timed run:
//   raw inotify  what a user would write instead: one inotify watch read on a thread of its own
//   vfs file://  the library on the local disk (FOLDER, default: a fresh folder under /tmp)
//   vfs mem://   the library on the memory provider
// A change on disk is a one-byte pwrite (IN_MODIFY); on memory, a truncation to another size. A
// change not delivered within a second counts as lost.

#include <foundation/storage/vfs.hpp>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace vfs = foundation::storage::vfs;
namespace eventmgr = foundation::msg_svc::eventmgr;
using Clock = std::chrono::steady_clock;

namespace {

// What the callback side records: when the change arrived, and how many have.
class Arrivals {
public:
    void arrived()
    {
        const auto now = Clock::now();
        std::lock_guard lock(m_mutex);
        m_last = now;
        ++m_count;
        m_changed.notify_all();
    }
    // Waits until more than `seen` changes arrived; the arrival time, or nothing after a second.
    bool waitBeyond(std::uint64_t seen, Clock::time_point& at)
    {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, std::chrono::seconds(1), [&] { return m_count > seen; }))
            return false;
        at = m_last;
        return true;
    }
    std::uint64_t count()
    {
        std::lock_guard lock(m_mutex);
        return m_count;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::uint64_t m_count = 0;
    Clock::time_point m_last;
};

struct Result {
    std::vector<double> micros;
    std::size_t lost = 0;
};

// Makes `changes` changes with `change`, each after the previous one arrived.
Result measure(std::size_t changes, Arrivals& arrivals, const std::function<void(std::size_t)>& change)
{
    Result result;
    result.micros.reserve(changes);
    for (std::size_t i = 0; i < changes; ++i) {
        const std::uint64_t seen = arrivals.count();
        const auto start = Clock::now();
        change(i);
        Clock::time_point at;
        if (!arrivals.waitBeyond(seen, at)) {
            ++result.lost;
            continue;
        }
        result.micros.push_back(std::chrono::duration<double, std::micro>(at - start).count());
    }
    return result;
}

// A candidate: prepares its watch, makes one change, tears the watch down.
struct Candidate {
    std::string name;
    std::function<void(Arrivals&)> start;
    std::function<void(std::size_t)> change;
    std::function<void()> stop;
};

class RawInotify {
public:
    void start(const std::string& folder, Arrivals& arrivals)
    {
        m_inotify = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        m_wakeup = ::eventfd(0, EFD_CLOEXEC);
        if (m_inotify < 0 || m_wakeup < 0 || ::inotify_add_watch(m_inotify, folder.c_str(), IN_MODIFY | IN_CREATE | IN_DELETE) < 0)
            throw std::system_error(errno, std::generic_category(), "inotify");
        m_thread = std::thread([this, &arrivals] {
            alignas(inotify_event) char buffer[64 * 1024];
            pollfd fds[2] = {{m_inotify, POLLIN, 0}, {m_wakeup, POLLIN, 0}};
            for (;;) {
                ::poll(fds, 2, -1);
                if (fds[1].revents)
                    return;
                for (ssize_t got; (got = ::read(m_inotify, buffer, sizeof buffer)) > 0;)
                    for (ssize_t offset = 0; offset < got;) {
                        const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
                        offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
                        if (event->mask & IN_MODIFY)
                            arrivals.arrived();
                    }
            }
        });
    }
    void stop()
    {
        const std::uint64_t one = 1;
        static_cast<void>(::write(m_wakeup, &one, sizeof one));
        m_thread.join();
        ::close(m_inotify);
        ::close(m_wakeup);
    }

private:
    int m_inotify = -1;
    int m_wakeup = -1;
    std::thread m_thread;
};

double percentile(std::vector<double> values, double fraction)
{
    if (values.empty())
        return 0;
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index), values.end());
    return values[index];
}

} // namespace

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
    const std::filesystem::path target = folder / "target";
    const int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        throw std::system_error(errno, std::generic_category(), "open " + target.string());
    const auto writeOneByte = [fd](std::size_t i) {
        const char byte = static_cast<char>('a' + i % 26);
        if (::pwrite(fd, &byte, 1, 0) != 1)
            throw std::system_error(errno, std::generic_category(), "pwrite");
    };

    auto system = std::make_shared<vfs::DefaultStorageSystem>();
    const vfs::StorageSystemReference ref{std::weak_ptr<vfs::StorageSystem>(system)};
    const vfs::Folder localFolder(vfs::toAbsoluteIRI(u"", folder), ref);
    const vfs::Folder memoryFolder(vfs::AbsoluteIRI(u"mem://bench/"), ref);
    const vfs::File memoryFile(vfs::AbsoluteIRI(u"mem://bench/target"), ref);
    memoryFile.createFile();

    RawInotify raw;
    std::unique_ptr<eventmgr::Connection> connection;
    const auto subscribeTo = [&](const vfs::Folder& watched, Arrivals& arrivals) {
        eventmgr::EventMgr& manager =
            vfs::detail::publishEventsFor(watched, {foundation::storage::events::Kind::Modified}, vfs::WithRecursiveChangeEvents::No);
        connection = manager.subscribe({vfs::Event::EventType(), foundation::storage::events::eventTypePrefix(watched.getLocation().toString()), true},
                                       [&arrivals](const auto&) { arrivals.arrived(); });
    };
    const std::vector<Candidate> candidates{
        {"raw inotify", [&](Arrivals& a) { raw.start(folder.string(), a); }, writeOneByte, [&] { raw.stop(); }},
        {"vfs file://", [&](Arrivals& a) { subscribeTo(localFolder, a); }, writeOneByte,
         [&] { vfs::unsubscribe(localFolder, connection); }},
        {"vfs mem://", [&](Arrivals& a) { subscribeTo(memoryFolder, a); },
         [&, sizes = std::make_shared<std::size_t>(0)](std::size_t) { memoryFile.truncateToSize(1 + ++*sizes % 2); },
         [&] { vfs::unsubscribe(memoryFolder, connection); }},
    };

    std::printf("%zu changes per run, each made after the previous one was delivered\n", changes);
    std::printf("%-12s %5s %11s %11s %11s %6s\n", "candidate", "round", "median(us)", "p99(us)", "max(us)", "lost");
    for (int round = 1; round <= rounds; ++round) {
        for (const Candidate& candidate : candidates) {
            Arrivals arrivals;
            candidate.start(arrivals);
            measure(changes / 20 + 1, arrivals, candidate.change); // warm-up
            const Result result = measure(changes, arrivals, candidate.change);
            candidate.stop();
            std::printf("%-12s %5d %11.1f %11.1f %11.1f %6zu\n", candidate.name.c_str(), round,
                        percentile(result.micros, 0.5), percentile(result.micros, 0.99),
                        percentile(result.micros, 1.0), result.lost);
        }
    }
    ::close(fd);
    system->shutdown();
    if (argc <= 3)
        std::filesystem::remove_all(folder);
    return 0;
}
