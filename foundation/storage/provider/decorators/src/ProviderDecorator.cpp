#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>

#include <fl/i18n/ustring.hpp>

#include <algorithm>
#include <stdexcept>

namespace foundation::storage::provider::decorators {

const char* toString(ProviderOperation operation) noexcept
{
    switch (operation) {
    case ProviderOperation::Exists:
        return "exists";
    case ProviderOperation::ExistsExtended:
        return "existsExtended";
    case ProviderOperation::HasFeature:
        return "hasFeature";
    case ProviderOperation::Count_:
        break;
    }
    return "Unhandled ProviderOperation";
}

// ---------------------------------------------------------------------------------------------
// ProviderDecorator

ProviderDecorator::ProviderDecorator(std::shared_ptr<IProvider> wrapped) : m_wrapped(std::move(wrapped))
{
    if (!m_wrapped)
        throw std::invalid_argument("ProviderDecorator: the wrapped provider is null");
}

ProviderDecorator::~ProviderDecorator() = default;

void ProviderDecorator::before(ProviderOperation, const StorageIRI&) const {}

ExistenceType ProviderDecorator::exists(const StorageIRI& location) const
{
    before(ProviderOperation::Exists, location);
    return m_wrapped->exists(location);
}

ExistenceTypeExtended ProviderDecorator::existsExtended(const StorageIRI& location) const
{
    before(ProviderOperation::ExistsExtended, location);
    return m_wrapped->existsExtended(location);
}

bool ProviderDecorator::hasFeature(const StorageIRI& location, ExtendedFeature feature) const
{
    before(ProviderOperation::HasFeature, location);
    return m_wrapped->hasFeature(location, feature);
}

// ---------------------------------------------------------------------------------------------
// FaultInjectingProvider

namespace {

bool matches(const FaultInjectingProvider::Fault& fault, ProviderOperation operation, const StorageIRI& location)
{
    if (fault.operation != operation)
        return false;
    if (!fault.location || *fault.location == location)
        return true;
    return fault.includeDescendants && fault.location->isAncestorOf(location);
}

// Whether the `matchingCall`-th call matching a fault must fail.
bool fires(FaultInjectingProvider::Trigger trigger, std::uint64_t calls, std::uint64_t failedSoFar,
           std::uint64_t matchingCall)
{
    switch (trigger) {
    case FaultInjectingProvider::Trigger::Once:
        return failedSoFar == 0;
    case FaultInjectingProvider::Trigger::Always:
        return true;
    case FaultInjectingProvider::Trigger::AfterN:
        return matchingCall > calls;
    }
    return false;
}

} // namespace

std::size_t FaultInjectingProvider::addFault(Fault fault)
{
    std::lock_guard lock(m_mutex);
    const std::size_t id = m_nextId++;
    m_faults.push_back(Entry{id, std::move(fault)});
    return id;
}

void FaultInjectingProvider::removeFault(std::size_t id)
{
    std::lock_guard lock(m_mutex);
    std::erase_if(m_faults, [id](const Entry& entry) { return entry.id == id; });
}

void FaultInjectingProvider::clearFaults()
{
    std::lock_guard lock(m_mutex);
    m_faults.clear();
}

std::uint64_t FaultInjectingProvider::failuresInjected(std::size_t id) const
{
    std::lock_guard lock(m_mutex);
    const auto entry = std::find_if(m_faults.begin(), m_faults.end(), [id](const Entry& e) { return e.id == id; });
    return entry == m_faults.end() ? 0 : entry->failed;
}

void FaultInjectingProvider::before(ProviderOperation operation, const StorageIRI& location) const
{
    std::optional<ErrorCode> code;
    {
        std::lock_guard lock(m_mutex);
        for (Entry& entry : m_faults) {
            if (!matches(entry.fault, operation, location))
                continue;
            ++entry.seen;
            if (!code && fires(entry.fault.trigger, entry.fault.calls, entry.failed, entry.seen)) {
                ++entry.failed;
                code = entry.fault.code;
            }
        }
    }
    if (code)
        throwProviderError(*code, location,
                           {ExceptionContext(u"fault-injection"), ExceptionContext(fl::i18n::utf8_to_ustring(toString(operation)))});
}

// ---------------------------------------------------------------------------------------------
// FeatureMaskingProvider

FeatureMaskingProvider::FeatureMaskingProvider(std::shared_ptr<IProvider> wrapped, std::set<ExtendedFeature> hidden)
    : ProviderDecorator(std::move(wrapped)), m_hidden(std::move(hidden))
{
}

bool FeatureMaskingProvider::hasFeature(const StorageIRI& location, ExtendedFeature feature) const
{
    if (m_hidden.contains(feature))
        return false;
    return ProviderDecorator::hasFeature(location, feature);
}

// ---------------------------------------------------------------------------------------------
// CallCountingProvider

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
