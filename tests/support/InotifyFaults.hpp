#pragma once

// A fault-injecting seam at the kernel boundary of the local provider's watcher: this program's
// own inotify_add_watch, which the library's calls reach before the C library's (an executable's
// exported definitions come first in symbol lookup). It forwards to the real call until a test sets a budget;
// once the budget of successful calls is spent, every call fails with the chosen errno, as the
// kernel does when fs.inotify.max_user_watches is reached. Include this in ONE source of a test
// program.

#include <atomic>
#include <cerrno>
#include <cstdint>

#include <dlfcn.h>
#include <sys/inotify.h>

namespace vfs_test::inotify_faults {

inline std::atomic<long> budget{-1}; // successful calls left; negative: no fault
inline std::atomic<int> error{ENOSPC};
inline std::atomic<long> added{0};   // successful calls so far
inline std::atomic<long> removed{0}; // inotify_rm_watch calls so far

// Lets `calls` more watches succeed, then fails with `errnoValue`; restores on destruction.
class Limit {
public:
    explicit Limit(long calls, int errnoValue = ENOSPC)
    {
        error = errnoValue;
        budget = calls;
    }
    ~Limit() { budget = -1; }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;
};

} // namespace vfs_test::inotify_faults

extern "C" __attribute__((visibility("default"))) int inotify_add_watch(int fd, const char* path, std::uint32_t mask) noexcept
{
    using namespace vfs_test::inotify_faults;
    using Real = int (*)(int, const char*, std::uint32_t);
    static const Real real = reinterpret_cast<Real>(::dlsym(RTLD_NEXT, "inotify_add_watch"));
    for (long left = budget.load(); left >= 0;) {
        if (left == 0) {
            errno = error.load();
            return -1;
        }
        if (budget.compare_exchange_weak(left, left - 1))
            break;
    }
    const int wd = real(fd, path, mask);
    if (wd >= 0)
        ++added;
    return wd;
}

extern "C" __attribute__((visibility("default"))) int inotify_rm_watch(int fd, int wd) noexcept
{
    using Real = int (*)(int, int);
    static const Real real = reinterpret_cast<Real>(::dlsym(RTLD_NEXT, "inotify_rm_watch"));
    ++vfs_test::inotify_faults::removed;
    return real(fd, wd);
}
