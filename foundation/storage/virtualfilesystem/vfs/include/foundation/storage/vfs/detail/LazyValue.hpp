#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <type_traits>
#include <utility>
#include <variant>

namespace foundation::storage::vfs::detail {

// A value computed on first demand, once, then kept: the cache slot of listing entries.
//
// Thread-safe: any number of threads may call get() at once. One of them runs the generator while
// the others wait on the slot's mutex; once the value is stored it is published through an atomic
// pointer, after which get() is one acquire load and takes no lock. A generator that throws leaves
// the slot as it was (the next get() runs it again) and the exception reaches the caller unchanged.
// Storing the value destroys the generator and whatever it captured.
//
// A generator may force another slot (an entry's attributes need its handle); slots that do so must
// always be taken in the same order, or two threads could deadlock.
template <class T>
class LazyValue {
    // Storing the value replaces the generator in place; a throwing move would lose both.
    static_assert(std::is_nothrow_move_constructible_v<T>);

public:
    using Generator = std::function<T()>;

    explicit LazyValue(Generator generator) : m_source(std::in_place_index<0>, std::move(generator)) {}
    explicit LazyValue(T value)
        : m_source(std::in_place_index<1>, std::move(value)), m_published(&std::get<1>(m_source))
    {
    }

    // The published pointer refers into this object.
    LazyValue(const LazyValue&) = delete;
    LazyValue& operator=(const LazyValue&) = delete;

    const T& get() const
    {
        if (const T* value = m_published.load(std::memory_order_acquire))
            return *value;
        std::lock_guard lock(m_mutex);
        if (const T* value = std::get_if<1>(&m_source))
            return *value;
        T computed = std::get<0>(m_source)();
        const T* stored = &m_source.template emplace<1>(std::move(computed));
        m_published.exchange(stored, std::memory_order_acq_rel);
        return *stored;
    }

    // The value when it is there already; nullptr otherwise (never runs the generator).
    const T* ifKnown() const noexcept { return m_published.load(std::memory_order_acquire); }

private:
    // Indexed, not typed: T may itself be callable.
    mutable std::variant<Generator, T> m_source;
    mutable std::atomic<const T*> m_published{nullptr};
    mutable std::mutex m_mutex;
};

} // namespace foundation::storage::vfs::detail
