#pragma once

#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace foundation::storage::provider::decorators {

// Makes chosen operations fail with a chosen provider error code, over any provider.
class VFS_EXPORT FaultInjectingProvider : public ProviderDecorator {
public:
    enum class Trigger {
        Once,     // the next matching call fails, later ones succeed
        Always,   // every matching call fails
        AfterN,   // the first `calls` matching calls succeed, every later one fails
        Nth,      // only the matching call after the first `calls` ones fails
    };

    struct Fault {
        ProviderOperation operation;
        // Which locations match: none = every location; otherwise the location itself and, with
        // `includeDescendants`, every location below it.
        std::optional<StorageIRI> location = std::nullopt;
        ErrorCode code = ErrorCode::IOError;
        Trigger trigger = Trigger::Always;
        std::uint64_t calls = 0; // for AfterN and Nth
        bool includeDescendants = false;
    };

    using ProviderDecorator::ProviderDecorator;

    // Adds a fault; returns its id for removeFault(). Every fault that matches a call counts it;
    // when several would make it fail, the one added first gives the code. All members are
    // thread-safe and may run while other threads call the provider.
    std::size_t addFault(Fault fault);
    // Unknown ids are ignored.
    void removeFault(std::size_t id);
    void clearFaults();
    // How many calls fault `id` has made fail so far; 0 for an unknown or removed id.
    std::uint64_t failuresInjected(std::size_t id) const;
    // The location of the last call fault `id` made fail (a stream's own location for Stream*
    // operations); nullopt while it has made none fail, or for an unknown or removed id.
    std::optional<StorageIRI> lastFailureLocation(std::size_t id) const;

protected:
    // Throws Exception(code, location) with contexts "fault-injection" and the operation's name; for
    // the Stream* operations the matching ByteStreamFailure instead (a flush fails as a write).
    void before(ProviderOperation operation, const StorageIRI& location) const override;

private:
    struct Entry {
        std::size_t id;
        Fault fault;
        std::uint64_t seen = 0;   // matching calls so far
        std::uint64_t failed = 0; // of which made to fail
        std::optional<StorageIRI> lastFailed = std::nullopt;
    };
    mutable std::mutex m_mutex;
    mutable std::vector<Entry> m_faults;
    std::size_t m_nextId = 1;
};

} // namespace foundation::storage::provider::decorators
