#pragma once

#include <fl/export.hpp>

#include <atomic>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

namespace foundation::log {

// Severity values are category bits: a listener picks the categories it wants with a mask.
enum category : unsigned {
    category_error = 1,
    category_arguments = 2,
    category_results = 4,
    category_information = 8,
    category_exception = 16,
    category_function_entry = 32,
    category_function_exit = 64,
    category_all = 0x7f,
};

// Name of a single category bit ("entry", "exit", "arguments", ...); "mixed" for anything else.
VFS_EXPORT const char* category_name(unsigned severity) noexcept;

template <class CharT>
class basic_diagnostic_listener;

// A named diagnostic channel on top of Boost.Log. Records go to the Boost.Log core with the
// attributes "Channel" (std::string, the channel name), "Severity" (unsigned, the category bits),
// "Indent" (int, the writing thread's trace depth on this logger) and the usual "Message".
//
// A record is produced only for categories that some diagnostic_listener of this logger asks for;
// any other sink in the core sees those records too.
//
// Cost when nobody listens: enabled() is one relaxed atomic load, and callers test it before they
// compose a record. Thread-safe: any thread may write; listeners may come and go at any time.
//
// Lifetime: meant to live in static storage (a function-local static). The logger keeps the
// Boost.Log core alive, and once destroyed it reports every category as disabled, so a record
// written by a later static destructor is dropped instead of reaching freed state.
template <class CharT>
class basic_diagnostic_logger {
public:
    using string_type = std::basic_string<CharT>;
    using string_view_type = std::basic_string_view<CharT>;

    explicit basic_diagnostic_logger(std::string channel);
    ~basic_diagnostic_logger();
    basic_diagnostic_logger(const basic_diagnostic_logger&) = delete;
    basic_diagnostic_logger& operator=(const basic_diagnostic_logger&) = delete;

    const std::string& channel() const noexcept { return m_channel; }

    bool enabled(unsigned severity) const noexcept
    {
        return (m_enabled.load(std::memory_order_relaxed) & severity) != 0;
    }

    // Emits one record; a record for a category nobody listens to is dropped at the cost of
    // enabled(). Never throws: a failure inside the logging core is swallowed.
    void write(unsigned severity, string_view_type text) noexcept;

    // The calling thread's current indent (the number of open trace scopes on this logger).
    int indent() const noexcept;

private:
    struct state;
    friend class basic_diagnostic_listener<CharT>;
    friend class trace_scope;

    void raise_indent() noexcept;
    void lower_indent() noexcept;

    std::string m_channel;
    // The OR of the masks of the live listeners; written under the state's lock.
    std::atomic<unsigned> m_enabled{0};
    // Shared with the listeners, so that a listener may outlive its logger at process exit.
    std::shared_ptr<state> m_state;
};

// While alive, receives the records of one logger's channel whose severity has a bit of `mask` and
// hands them to a handler, from the writing thread, one call at a time. Raises the logger's enabled
// mask for its lifetime. The destructor waits for the writes in flight on the logger, so it returns
// only once no call of the handler is running, and none starts afterwards; hence a handler must not
// destroy a listener of its own logger. A handler that throws loses that record; the writer never
// sees it.
template <class CharT>
class basic_diagnostic_listener {
public:
    using string_type = std::basic_string<CharT>;
    // Receives the record's category bits, its indent and its message text.
    using line_handler = std::function<void(unsigned severity, int indent, const string_type& text)>;

    basic_diagnostic_listener(basic_diagnostic_logger<CharT>& logger, unsigned mask, line_handler handler);
    // Writes each record as "<category> <indent * 2 spaces><text>\n" to `out`, which must outlive
    // this listener.
    basic_diagnostic_listener(basic_diagnostic_logger<CharT>& logger, unsigned mask, std::basic_ostream<CharT>& out);
    ~basic_diagnostic_listener();
    basic_diagnostic_listener(const basic_diagnostic_listener&) = delete;
    basic_diagnostic_listener& operator=(const basic_diagnostic_listener&) = delete;

    unsigned mask() const noexcept { return m_mask; }

private:
    struct impl;
    unsigned m_mask;
    std::unique_ptr<impl> m_impl;
};

using diagnostic_logger = basic_diagnostic_logger<char>;
using diagnostic_listener = basic_diagnostic_listener<char>;

// Instantiated (and exported) once, in the library; the source that does it sees no declaration here,
// since GCC ignores the export attribute on a definition that follows one.
#ifndef FOUNDATION_LOG_INSTANTIATING
extern template class VFS_EXPORT basic_diagnostic_logger<char>;
extern template class VFS_EXPORT basic_diagnostic_listener<char>;
#endif

// A traced function: writes a function-entry record (the signature) when made and a function-exit
// record (the signature, plus " [throw]" when left by an exception) when destroyed; in between, the
// calling thread's indent on the logger is one deeper. The entry and exit records carry the outer
// indent. `signature` must outlive the scope (a literal or __func__ does). The indent is kept right
// even when nobody listens, at the cost of a thread-local lookup per end.
class VFS_EXPORT trace_scope {
public:
    trace_scope(diagnostic_logger& logger, std::string_view signature) noexcept;
    ~trace_scope();
    trace_scope(const trace_scope&) = delete;
    trace_scope& operator=(const trace_scope&) = delete;

private:
    diagnostic_logger& m_logger;
    std::string_view m_signature;
    int m_uncaught;
};

// The exception in flight, and each exception nested in it (std::nested_exception and
// boost::errinfo_nested_exception), one per line, outermost first: "<type>: <what()>". The type is
// the one the code threw, without the std::throw_with_nested and boost::throw_exception wrappers.
// Returns "no exception" when called outside a handler. Never throws.
VFS_EXPORT std::string current_exception_chain_as_string() noexcept;

} // namespace foundation::log
