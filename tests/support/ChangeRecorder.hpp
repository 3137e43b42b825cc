#pragma once

#include <algorithm>

// Collecting the change reports of a provider watch, and waiting for them without sleeping.

#include <foundation/storage/provider/ChangeEvents.hpp>

#include <fl/i18n/ustring.hpp>

#include <boost/property_tree/ptree.hpp>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace vfs_test {

// One report, reduced to what tests compare: kind, changed location relative to the subscription
// ("" for the subscription itself), entry type.
struct Change {
    foundation::storage::events::Kind kind;
    std::string relative;
    bool folder;
    bool operator==(const Change&) const = default;
};

inline void PrintTo(const Change& change, std::ostream* out)
{
    *out << "{" << change.kind << ", \"" << change.relative << "\", " << (change.folder ? "folder" : "file") << "}";
}

class ChangeRecorder {
public:
    // The callback to hand a provider; the recorder must outlive the watch.
    foundation::storage::provider::ChangeEventCallback callback()
    {
        return [this](const foundation::storage::events::Kind& kind, const foundation::storage::provider::StorageIRI& subscription,
                      const foundation::storage::provider::StorageIRI& changed,
                      const foundation::storage::events::EntryType& type, boost::property_tree::ptree extra) {
            std::lock_guard lock(m_mutex);
            m_changes.push_back({kind, fl::i18n::ustring_to_utf8(changed.makePathRelativeTo(subscription)),
                                 type == foundation::storage::events::EntryType::Folder});
            m_extras.push_back(std::move(extra));
            m_arrived.notify_all();
        };
    }

    // Waits (at most 10 s) until `expected` appears among the changes in this order, other changes
    // allowed in between.
    bool waitForSequence(const std::vector<Change>& expected)
    {
        return waitUntil([&] {
            std::size_t next = 0;
            for (const Change& change : m_changes)
                if (next < expected.size() && change == expected[next])
                    ++next;
            return next == expected.size();
        });
    }

    // Waits (at most 10 s) until one of `candidates` has arrived.
    bool waitForAnyOf(const std::vector<Change>& candidates)
    {
        return waitUntil([&] {
            for (const Change& change : m_changes)
                if (std::find(candidates.begin(), candidates.end(), change) != candidates.end())
                    return true;
            return false;
        });
    }

    // `condition` runs with the recorder locked: it may read the changes, not call changes().
    bool waitUntil(const std::function<bool()>& condition)
    {
        std::unique_lock lock(m_mutex);
        return m_arrived.wait_for(lock, std::chrono::seconds(10), condition);
    }

    std::vector<Change> changes()
    {
        std::lock_guard lock(m_mutex);
        return m_changes;
    }
    std::vector<boost::property_tree::ptree> extras()
    {
        std::lock_guard lock(m_mutex);
        return m_extras;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::vector<Change> m_changes;
    std::vector<boost::property_tree::ptree> m_extras;
};

} // namespace vfs_test
