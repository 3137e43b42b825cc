#pragma once

// Running test bodies on several threads at once, for tests of what must be thread-safe.

#include <atomic>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace vfs_test {

// Runs each task on a thread of its own and returns when all have finished. No task starts before
// every thread is running, so that the calls overlap as much as the machine allows. An exception
// that leaves a task is rethrown here once all have finished (the first, when several do).
inline void runTogether(const std::vector<std::function<void()>>& tasks)
{
    std::atomic<std::size_t> started{0};
    std::mutex mutex;
    std::exception_ptr firstError;
    std::vector<std::thread> threads;
    threads.reserve(tasks.size());
    for (const auto& task : tasks)
        threads.emplace_back([&] {
            started.fetch_add(1);
            while (started.load() < tasks.size())
                std::this_thread::yield();
            try {
                task();
            } catch (...) {
                std::lock_guard lock(mutex);
                if (!firstError)
                    firstError = std::current_exception();
            }
        });
    for (auto& thread : threads)
        thread.join();
    if (firstError)
        std::rethrow_exception(firstError);
}

// Runs body(0) ... body(count - 1) together, as runTogether does.
template <class Body>
void runOnThreads(int count, Body&& body)
{
    std::vector<std::function<void()>> tasks;
    for (int index = 0; index < count; ++index)
        tasks.emplace_back([&body, index] { body(index); });
    runTogether(tasks);
}

} // namespace vfs_test
