// Latency from a change to a subscriber's callback, shared by vfs-bench-events (which compares the
// library with a raw inotify loop and the memory provider) and vfs-bench-compare (one timed run).
//
// Each change is made only after the previous one was delivered, so every sample is one change's
// whole way: kernel (or memory provider) -> watcher thread -> Event built with its handle -> event
// manager queue -> dispatcher thread -> callback. A change not delivered within a second counts as
// lost.
#pragma once

#include <foundation/msg_svc/eventmgr/EventMgr.hpp>
#include <foundation/storage/vfs.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace bench {

namespace vfs = foundation::storage::vfs;
using Clock = std::chrono::steady_clock;

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

struct LatencyResult {
    std::vector<double> micros;
    std::size_t lost = 0;
};

// Makes `changes` changes with `change`, each after the previous one arrived.
inline LatencyResult measure(std::size_t changes, Arrivals& arrivals, const std::function<void(std::size_t)>& change)
{
    LatencyResult result;
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
struct LatencyCandidate {
    std::string name;
    std::function<void(Arrivals&)> start;
    std::function<void(std::size_t)> change;
    std::function<void()> stop;
};

// One timed run: the watch, a warm-up of a twentieth of the changes right before, the changes.
inline LatencyResult runLatency(const LatencyCandidate& candidate, std::size_t changes)
{
    Arrivals arrivals;
    candidate.start(arrivals);
    measure(changes / 20 + 1, arrivals, candidate.change);
    LatencyResult result = measure(changes, arrivals, candidate.change);
    candidate.stop();
    return result;
}

inline double percentile(std::vector<double> values, double fraction)
{
    if (values.empty())
        return 0;
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index), values.end());
    return values[index];
}

// A change on disk: a one-byte pwrite (IN_MODIFY) to `path`, created when missing.
class ByteWriter {
public:
    explicit ByteWriter(const std::string& path) : m_fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644))
    {
        if (m_fd < 0)
            throw std::system_error(errno, std::generic_category(), "open " + path);
    }
    ByteWriter(const ByteWriter&) = delete;
    ByteWriter& operator=(const ByteWriter&) = delete;
    ~ByteWriter() { ::close(m_fd); }
    void operator()(std::size_t i) const
    {
        const char byte = static_cast<char>('a' + i % 26);
        if (::pwrite(m_fd, &byte, 1, 0) != 1)
            throw std::system_error(errno, std::generic_category(), "pwrite");
    }

private:
    int m_fd;
};

// The library's side: Modified events of one folder (not its subfolders) through its event manager.
class VfsWatch {
public:
    void start(const vfs::Folder& folder, Arrivals& arrivals)
    {
        m_folder = folder;
        auto& manager = vfs::detail::publishEventsFor(folder, {foundation::storage::events::Kind::Modified},
                                                      vfs::WithRecursiveChangeEvents::No);
        m_connection = manager.subscribe(
            {vfs::Event::EventType(), foundation::storage::events::eventTypePrefix(folder.getLocation().toString()), true},
            [&arrivals](const auto&) { arrivals.arrived(); });
    }
    void stop() { vfs::unsubscribe(*m_folder, m_connection); }

private:
    std::optional<vfs::Folder> m_folder;
    std::unique_ptr<foundation::msg_svc::eventmgr::Connection> m_connection;
};

// What a user would write instead of the library: one inotify watch read on a thread of its own.
class RawInotify {
public:
    void start(const std::string& folder, Arrivals& arrivals)
    {
        m_inotify = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        m_wakeup = ::eventfd(0, EFD_CLOEXEC);
        if (m_inotify < 0 || m_wakeup < 0 ||
            ::inotify_add_watch(m_inotify, folder.c_str(), IN_MODIFY | IN_CREATE | IN_DELETE) < 0)
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

} // namespace bench
