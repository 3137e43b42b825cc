#pragma once

#include <foundation/log/diagnostic_logger.hpp>

#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace vfs_test {

// One record as a diagnostic listener receives it.
struct LogRecord {
    unsigned severity;
    int indent;
    std::string text;
    bool operator==(const LogRecord&) const = default;
};

inline void PrintTo(const LogRecord& record, std::ostream* out)
{
    *out << "{" << foundation::log::category_name(record.severity) << ", " << record.indent << ", \"" << record.text
         << "\"}";
}

// A diagnostic listener that keeps what it receives for the test to take. Listening starts with
// construction and stops with destruction; records may arrive from several writing threads.
class RecordingListener {
public:
    RecordingListener(foundation::log::diagnostic_logger& logger, unsigned categories)
        : m_listener(logger, categories, [this](unsigned severity, int indent, const std::string& text) {
              std::lock_guard lock(m_mutex);
              m_records.push_back({severity, indent, text});
          })
    {
    }

    // The records received since the last take, oldest first.
    std::vector<LogRecord> take()
    {
        std::lock_guard lock(m_mutex);
        return std::exchange(m_records, {});
    }

private:
    std::mutex m_mutex;
    std::vector<LogRecord> m_records;
    // Last, so that it stops delivering before the records go.
    foundation::log::diagnostic_listener m_listener;
};

} // namespace vfs_test
