#pragma once

// The number of threads of this process, for tests that show that no thread is left running.

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <thread>

namespace vfs_test {

inline std::size_t threadCount()
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(tasks, std::filesystem::directory_iterator()));
}

// Waits (at most 10 s) until the process runs at most `count` threads; true when it does.
inline bool threadsDropTo(std::size_t count)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (threadCount() > count) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

} // namespace vfs_test
