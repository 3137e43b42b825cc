#pragma once

#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace foundation::storage::provider::decorators {

// Counts calls per operation (and per operation and location), for tests that must show that a call
// did or did not happen. Thread-safe.
class VFS_EXPORT CallCountingProvider : public ProviderDecorator {
public:
    using ProviderDecorator::ProviderDecorator;

    std::uint64_t count(ProviderOperation operation) const noexcept;
    std::uint64_t count(ProviderOperation operation, const StorageIRI& location) const;
    std::uint64_t total() const noexcept;
    // Sets every count to zero; calls running meanwhile may be counted either way.
    void reset();

protected:
    void before(ProviderOperation operation, const StorageIRI& location) const override;

private:
    using Key = std::pair<ProviderOperation, StorageIRI>;
    struct KeyHash {
        std::size_t operator()(const Key& key) const noexcept
        {
            return key.second.hashValue() * 31 + static_cast<std::size_t>(key.first);
        }
    };
    mutable std::array<std::atomic<std::uint64_t>, providerOperationCount> m_counts{};
    mutable std::mutex m_mutex;
    mutable std::unordered_map<Key, std::uint64_t, KeyHash> m_byLocation;
};

} // namespace foundation::storage::provider::decorators
