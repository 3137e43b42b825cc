#include "Progress.hpp"

#include "Output.hpp"

#include <fmt/core.h>

#include <cstdio>

#include <unistd.h>

namespace vfs_tool {

namespace {

constexpr std::int64_t kDrawIntervalMs = 100;

} // namespace

Progress::Progress(std::string verb)
    : m_verb(std::move(verb)), m_enabled(::isatty(STDERR_FILENO) == 1), m_start(std::chrono::steady_clock::now())
{
}

Progress::~Progress() { finish(); }

void Progress::add(std::uint64_t items, std::uint64_t bytes)
{
    m_items.fetch_add(items, std::memory_order_relaxed);
    m_bytes.fetch_add(bytes, std::memory_order_relaxed);
    if (m_enabled)
        draw(false);
}

void Progress::draw(bool force)
{
    const auto elapsedMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - m_start).count();
    std::int64_t due = m_nextDrawMs.load(std::memory_order_relaxed);
    if (!force && (elapsedMs < due || !m_nextDrawMs.compare_exchange_strong(due, elapsedMs + kDrawIntervalMs)))
        return;
    std::lock_guard lock(m_drawing);
    const double seconds = static_cast<double>(elapsedMs) / 1000.0;
    const std::uint64_t items = this->items();
    const std::uint64_t bytes = this->bytes();
    std::string line = fmt::format("{} {} items", m_verb, items);
    if (bytes != 0)
        line += fmt::format(", {}B", humanSize(bytes));
    if (seconds > 0.05) {
        line += fmt::format(" ({:.0f} items/s", static_cast<double>(items) / seconds);
        if (bytes != 0)
            line += fmt::format(", {}B/s", humanSize(static_cast<std::uint64_t>(static_cast<double>(bytes) / seconds)));
        line += ")";
    }
    fmt::print(stderr, "\r\033[K{}", line);
    std::fflush(stderr);
    m_drawn = true;
}

void Progress::finish()
{
    std::lock_guard lock(m_drawing);
    if (m_drawn) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        m_drawn = false;
    }
}

} // namespace vfs_tool
