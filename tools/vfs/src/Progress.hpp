#pragma once

// The progress line long work draws on a terminal: items and bytes done, and the rate. Drawn on
// stderr, at most ten times a second, only when stderr is a terminal; erased when the work ends.
// Thread-safe: a parallel walk counts from several threads.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace vfs_tool {

class Progress {
public:
    // `verb` says what is counted ("copied", "removed", "scanned", ...).
    explicit Progress(std::string verb);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    void add(std::uint64_t items, std::uint64_t bytes = 0);
    std::uint64_t items() const noexcept { return m_items.load(std::memory_order_relaxed); }
    std::uint64_t bytes() const noexcept { return m_bytes.load(std::memory_order_relaxed); }
    // Erases the line (before the command prints its result).
    void finish();

private:
    void draw(bool force);

    const std::string m_verb;
    const bool m_enabled;
    const std::chrono::steady_clock::time_point m_start;
    std::atomic<std::uint64_t> m_items{0};
    std::atomic<std::uint64_t> m_bytes{0};
    std::atomic<std::int64_t> m_nextDrawMs{0};
    std::mutex m_drawing;
    bool m_drawn = false;
};

} // namespace vfs_tool
