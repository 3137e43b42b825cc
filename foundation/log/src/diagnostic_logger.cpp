#define FOUNDATION_LOG_INSTANTIATING
#include <foundation/log/diagnostic_logger.hpp>

#include <foundation/core/except/Exception.hpp>

#include <boost/core/demangle.hpp>
#include <boost/exception/errinfo_nested_exception.hpp>
#include <boost/exception/get_error_info.hpp>
#include <boost/exception_ptr.hpp>
#include <boost/log/attributes/attribute_value_impl.hpp>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/attributes/function.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sources/logger.hpp>
#include <boost/make_shared.hpp>

#include <cxxabi.h>

#include <array>
#include <exception>
#include <mutex>
#include <thread>
#include <type_traits>
#include <typeinfo>
#include <vector>

namespace foundation::log {

namespace bl = boost::log;

namespace {

struct attribute_names {
    bl::attribute_name channel{"Channel"};
    bl::attribute_name severity{"Severity"};
    bl::attribute_name indent{"Indent"};
    bl::attribute_name message{"Message"};
};

// Trivially destructible, so it stays usable from static destructors.
static_assert(std::is_trivially_destructible_v<attribute_names>);
const attribute_names& names()
{
    static const attribute_names instance;
    return instance;
}

// Trace depth of the calling thread, per logger. A logger's entry is dropped when its depth returns
// to zero, so the table holds only the loggers with open scopes on this thread (a handful).
struct indent_entry {
    const void* key;
    int depth;
};

// Set when the calling thread's table is destroyed; a bool needs no destructor, so it can be read
// by destructors of other thread-local or static objects that run later and still trace.
thread_local bool t_indents_gone = false;

struct indent_table {
    std::vector<indent_entry> entries;
    ~indent_table() { t_indents_gone = true; }
};

thread_local indent_table t_indents;

// Severity of the record the calling thread is opening. Boost.Log's severity loggers keep this in
// thread-specific storage that is torn down during exit, after which every record fails; a plain
// thread_local lives as long as the thread.
thread_local unsigned t_opening_severity = 0;

int current_indent(const void* key) noexcept
{
    if (t_indents_gone)
        return 0;
    for (const indent_entry& entry : t_indents.entries)
        if (entry.key == key)
            return entry.depth;
    return 0;
}

void raise_indent_of(const void* key) noexcept
{
    if (t_indents_gone)
        return;
    for (indent_entry& entry : t_indents.entries)
        if (entry.key == key) {
            ++entry.depth;
            return;
        }
    try {
        t_indents.entries.push_back({key, 1});
    } catch (...) {
        // Out of memory: this scope goes untracked and lower_indent_of() finds nothing to lower.
    }
}

void lower_indent_of(const void* key) noexcept
{
    if (t_indents_gone)
        return;
    auto& entries = t_indents.entries;
    for (std::size_t i = 0; i < entries.size(); ++i)
        if (entries[i].key == key) {
            if (--entries[i].depth <= 0) {
                entries[i] = entries.back();
                entries.pop_back();
            }
            return;
        }
}

// Calls the listener's handler. The sink frontend serialises consume() and detach() on one mutex,
// which is what lets the listener's destructor wait for a running call and shut out later ones.
template <class CharT>
class handler_backend : public bl::sinks::basic_sink_backend<bl::sinks::synchronized_feeding> {
public:
    using handler_type = typename basic_diagnostic_listener<CharT>::line_handler;
    using string_type = std::basic_string<CharT>;

    explicit handler_backend(handler_type handler) : m_handler(std::move(handler)) {}

    void consume(const bl::record_view& record)
    {
        if (!m_handler)
            return;
        try {
            const auto& values = record.attribute_values();
            const unsigned severity = bl::extract_or_default<unsigned>(names().severity, values, 0u);
            const int indent = bl::extract_or_default<int>(names().indent, values, 0);
            const auto message = bl::extract<string_type>(names().message, values);
            if (message)
                m_handler(severity, indent, message.get());
            else
                m_handler(severity, indent, string_type());
        } catch (...) {
            // A failing handler loses its record; the writer and the other sinks carry on.
        }
    }

    void detach() noexcept { m_handler = nullptr; }

private:
    handler_type m_handler;
};

constexpr std::string_view wrapper_prefixes[] = {
    "std::_Nested_exception<",
    "boost::wrapexcept<",
    "boost::exception_detail::clone_impl<",
};

// The demangled name of the type the code threw, without the wrappers that std::throw_with_nested,
// boost::throw_exception and boost's cloning add around it.
std::string thrown_type_name(const std::type_info* type)
{
    if (!type)
        return "unknown exception";
    std::string name = boost::core::demangle(type->name());
    for (bool stripped = true; stripped;) {
        stripped = false;
        for (std::string_view prefix : wrapper_prefixes)
            if (name.size() > prefix.size() && name.compare(0, prefix.size(), prefix) == 0 && name.back() == '>') {
                name = name.substr(prefix.size(), name.size() - prefix.size() - 1);
                while (!name.empty() && name.back() == ' ')
                    name.pop_back();
                stripped = true;
            }
    }
    return name;
}

// Appends one line describing `current` and returns the exception nested in it, if any.
std::exception_ptr describe_level(const std::exception_ptr& current, std::string& out)
{
    std::exception_ptr next;
    try {
        std::rethrow_exception(current);
    } catch (...) {
        out += thrown_type_name(abi::__cxa_current_exception_type());
        std::string text;
        bool has_text = true;
        const std::nested_exception* std_nested = nullptr;
        const boost::exception* boost_nested = nullptr;
        try {
            throw;
        } catch (const std::exception& e) {
            text = e.what();
            std_nested = dynamic_cast<const std::nested_exception*>(&e);
            boost_nested = dynamic_cast<const boost::exception*>(&e);
        } catch (const core::except::IException& e) {
            text = fl::i18n::ustring_to_utf8_lossy(e.ToUstring());
            std_nested = dynamic_cast<const std::nested_exception*>(&e);
            boost_nested = dynamic_cast<const boost::exception*>(&e);
        } catch (const boost::exception& e) {
            has_text = false;
            std_nested = dynamic_cast<const std::nested_exception*>(&e);
            boost_nested = &e;
        } catch (const std::nested_exception& e) {
            has_text = false;
            std_nested = &e;
        } catch (const char* e) {
            text = e ? e : "";
        } catch (const std::string& e) {
            text = e;
        } catch (...) {
            has_text = false;
        }
        if (has_text)
            out.append(": ").append(text);

        if (std_nested && std_nested->nested_ptr()) {
            next = std_nested->nested_ptr();
        } else if (boost_nested) {
            if (const boost::exception_ptr* inner = boost::get_error_info<boost::errinfo_nested_exception>(*boost_nested);
                inner && *inner) {
                try {
                    boost::rethrow_exception(*inner);
                } catch (...) {
                    next = std::current_exception();
                }
            }
        }
    }
    return next;
}

} // namespace

const char* category_name(unsigned severity) noexcept
{
    switch (severity) {
    case category_error: return "error";
    case category_arguments: return "arguments";
    case category_results: return "results";
    case category_information: return "information";
    case category_exception: return "exception";
    case category_function_entry: return "entry";
    case category_function_exit: return "exit";
    default: return "mixed";
    }
}

template <class CharT>
struct basic_diagnostic_logger<CharT>::state {
    state(const std::string& channel_name, std::atomic<unsigned>* owner_mask)
        : core(bl::core::get()), channel(channel_name), enabled(owner_mask)
    {
        source.add_attribute(names().channel, bl::attributes::constant<std::string>(channel_name));
        source.add_attribute(names().severity, bl::attributes::make_function([] { return t_opening_severity; }));
        source.add_attribute(names().indent, bl::attributes::make_function([this] { return current_indent(this); }));
    }

    // Registers (delta 1) or unregisters (delta -1) a listener's mask and republishes the OR of the
    // live listeners' masks to the logger, if it is still alive.
    void adjust(unsigned mask, int delta)
    {
        std::lock_guard<std::mutex> guard(lock);
        unsigned bits = 0;
        for (unsigned bit = 0; bit < listeners_per_bit.size(); ++bit) {
            if (mask & (1u << bit))
                listeners_per_bit[bit] += delta;
            if (listeners_per_bit[bit] > 0)
                bits |= 1u << bit;
        }
        if (enabled)
            enabled->store(bits, std::memory_order_seq_cst);
    }

    void detach_owner()
    {
        std::lock_guard<std::mutex> guard(lock);
        enabled = nullptr;
    }

    // Returns once every write that may have seen the enabled mask as it was before the last
    // adjust() has finished. Writers count themselves in the slot of the epoch they started in; the
    // epoch moves on here, so later writers never hold the wait up.
    void wait_for_writers()
    {
        std::lock_guard<std::mutex> guard(quiesce_lock);
        const unsigned old_slot = epoch.fetch_add(1, std::memory_order_seq_cst) & 1u;
        while (writers[old_slot].load(std::memory_order_acquire) != 0)
            std::this_thread::yield();
    }

    // Held so that the core outlives every logger and listener, static ones included.
    bl::core_ptr core;
    // A plain source: the attributes above carry channel, severity and indent.
    bl::sources::logger_mt source;
    const std::string channel;

    std::mutex lock;
    std::array<int, 32> listeners_per_bit{};
    std::atomic<unsigned>* enabled;

    std::mutex quiesce_lock;
    std::atomic<unsigned> epoch{0};
    std::array<std::atomic<int>, 2> writers{};
};

template <class CharT>
basic_diagnostic_logger<CharT>::basic_diagnostic_logger(std::string channel)
    : m_channel(std::move(channel)), m_state(std::make_shared<state>(m_channel, &m_enabled))
{
}

template <class CharT>
basic_diagnostic_logger<CharT>::~basic_diagnostic_logger()
{
    m_state->detach_owner();
    m_enabled.store(0, std::memory_order_relaxed);
}

template <class CharT>
void basic_diagnostic_logger<CharT>::write(unsigned severity, string_view_type text) noexcept
{
    if (!enabled(severity))
        return;
    state& s = *m_state;
    // Counted before the mask is read again, so that a listener going away either sees this write
    // in wait_for_writers() or this write sees the lowered mask (both sides are seq_cst).
    std::atomic<int>& slot = s.writers[s.epoch.load(std::memory_order_seq_cst) & 1u];
    slot.fetch_add(1, std::memory_order_seq_cst);
    if (m_enabled.load(std::memory_order_seq_cst) & severity) {
        try {
            t_opening_severity = severity;
            bl::record record = s.source.open_record();
            if (record) {
                record.attribute_values().insert(names().message,
                                                 bl::attributes::make_attribute_value(string_type(text)));
                s.source.push_record(std::move(record));
            }
        } catch (...) {
            // Diagnostics never break the code they observe.
        }
    }
    slot.fetch_sub(1, std::memory_order_release);
}

template <class CharT>
int basic_diagnostic_logger<CharT>::indent() const noexcept
{
    return current_indent(m_state.get());
}

template <class CharT>
void basic_diagnostic_logger<CharT>::raise_indent() noexcept
{
    raise_indent_of(m_state.get());
}

template <class CharT>
void basic_diagnostic_logger<CharT>::lower_indent() noexcept
{
    lower_indent_of(m_state.get());
}

template <class CharT>
struct basic_diagnostic_listener<CharT>::impl {
    using backend_type = handler_backend<CharT>;
    using sink_type = bl::sinks::synchronous_sink<backend_type>;

    std::shared_ptr<typename basic_diagnostic_logger<CharT>::state> state;
    boost::shared_ptr<sink_type> sink;
};

template <class CharT>
basic_diagnostic_listener<CharT>::basic_diagnostic_listener(basic_diagnostic_logger<CharT>& logger, unsigned mask,
                                                            line_handler handler)
    : m_mask(mask), m_impl(std::make_unique<impl>())
{
    m_impl->state = logger.m_state;
    m_impl->sink = boost::make_shared<typename impl::sink_type>(
        boost::make_shared<typename impl::backend_type>(std::move(handler)));
    m_impl->sink->set_filter([channel = logger.channel(), mask](const bl::attribute_value_set& values) {
        const auto severity = bl::extract<unsigned>(names().severity, values);
        if (!severity || (severity.get() & mask) == 0)
            return false;
        const auto record_channel = bl::extract<std::string>(names().channel, values);
        return record_channel && record_channel.get() == channel;
    });
    m_impl->state->core->add_sink(m_impl->sink);
    m_impl->state->adjust(mask, 1);
}

template <class CharT>
basic_diagnostic_listener<CharT>::basic_diagnostic_listener(basic_diagnostic_logger<CharT>& logger, unsigned mask,
                                                            std::basic_ostream<CharT>& out)
    : basic_diagnostic_listener(logger, mask, [&out](unsigned severity, int indent, const string_type& text) {
          out << category_name(severity) << out.widen(' ')
              << string_type(static_cast<std::size_t>(indent > 0 ? indent : 0) * 2, out.widen(' ')) << text
              << out.widen('\n');
      })
{
}

template <class CharT>
basic_diagnostic_listener<CharT>::~basic_diagnostic_listener()
{
    try {
        m_impl->state->adjust(m_mask, -1);
        // Boost.Log sends records that find no sink in the core to its fallback sink (std::clog). A
        // write that saw our categories enabled may still be on its way; it must find this sink there.
        m_impl->state->wait_for_writers();
    } catch (...) {
        // Only a mutex can fail here; the sink goes anyway.
    }
    m_impl->state->core->remove_sink(m_impl->sink);
    // Records of categories that other listeners keep may still hold this sink; they are dropped.
    m_impl->sink->locked_backend()->detach();
}

template class VFS_EXPORT basic_diagnostic_logger<char>;
template class VFS_EXPORT basic_diagnostic_listener<char>;

trace_scope::trace_scope(diagnostic_logger& logger, std::string_view signature) noexcept
    : m_logger(logger), m_signature(signature), m_uncaught(std::uncaught_exceptions())
{
    if (logger.enabled(category_function_entry))
        logger.write(category_function_entry, signature);
    logger.raise_indent();
}

trace_scope::~trace_scope()
{
    m_logger.lower_indent();
    if (!m_logger.enabled(category_function_exit))
        return;
    if (std::uncaught_exceptions() <= m_uncaught) {
        m_logger.write(category_function_exit, m_signature);
        return;
    }
    try {
        std::string text;
        text.reserve(m_signature.size() + 8);
        text.append(m_signature).append(" [throw]");
        m_logger.write(category_function_exit, text);
    } catch (...) {
        // No memory for the text: the exit record is lost, the indent is already right.
    }
}

std::string current_exception_chain_as_string() noexcept
{
    try {
        std::exception_ptr current = std::current_exception();
        if (!current)
            return "no exception";
        std::string out;
        // A bound on the depth protects against an exception that (indirectly) nests itself.
        constexpr int max_levels = 64;
        for (int level = 0; current; ++level) {
            if (level == max_levels) {
                out += "\n...";
                break;
            }
            if (level > 0)
                out += '\n';
            current = describe_level(current, out);
        }
        return out;
    } catch (...) {
        return "exception chain unavailable";
    }
}

} // namespace foundation::log
