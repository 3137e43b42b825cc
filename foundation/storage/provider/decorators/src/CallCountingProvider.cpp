#include <foundation/storage/provider/decorators/CallCountingProvider.hpp>


namespace foundation::storage::provider::decorators {

std::uint64_t CallCountingProvider::count(ProviderOperation operation) const noexcept
{
    const auto index = static_cast<std::size_t>(operation);
    return index < m_counts.size() ? m_counts[index].load(std::memory_order_relaxed) : 0;
}

std::uint64_t CallCountingProvider::count(ProviderOperation operation, const StorageIRI& location) const
{
    std::lock_guard lock(m_mutex);
    const auto found = m_byLocation.find(Key(operation, location));
    return found == m_byLocation.end() ? 0 : found->second;
}

std::uint64_t CallCountingProvider::total() const noexcept
{
    std::uint64_t sum = 0;
    for (const auto& counter : m_counts)
        sum += counter.load(std::memory_order_relaxed);
    return sum;
}

void CallCountingProvider::reset()
{
    std::lock_guard lock(m_mutex);
    for (auto& counter : m_counts)
        counter.store(0, std::memory_order_relaxed);
    m_byLocation.clear();
}

void CallCountingProvider::before(ProviderOperation operation, const StorageIRI& location) const
{
    m_counts[static_cast<std::size_t>(operation)].fetch_add(1, std::memory_order_relaxed);
    std::lock_guard lock(m_mutex);
    ++m_byLocation[Key(operation, location)];
}

} // namespace foundation::storage::provider::decorators
