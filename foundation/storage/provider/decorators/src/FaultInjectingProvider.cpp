#include <foundation/storage/provider/decorators/FaultInjectingProvider.hpp>

#include <fl/i18n/ustring.hpp>

#include <algorithm>

namespace foundation::storage::provider::decorators {

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
    case FaultInjectingProvider::Trigger::Nth:
        return matchingCall == calls + 1;
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

std::optional<StorageIRI> FaultInjectingProvider::lastFailureLocation(std::size_t id) const
{
    std::lock_guard lock(m_mutex);
    const auto entry = std::find_if(m_faults.begin(), m_faults.end(), [id](const Entry& e) { return e.id == id; });
    return entry == m_faults.end() ? std::nullopt : entry->lastFailed;
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
                entry.lastFailed = location;
                code = entry.fault.code;
            }
        }
    }
    if (!code)
        return;
    ExceptionContexts contexts{ExceptionContext(u"fault-injection"), ExceptionContext(fl::i18n::utf8_to_ustring(toString(operation)))};
    const auto streamOperation = [operation]() -> std::optional<StreamOperation> {
        switch (operation) {
        case ProviderOperation::StreamRead:
            return StreamOperation::Read;
        case ProviderOperation::StreamWrite:
            return StreamOperation::Write;
        case ProviderOperation::StreamSeek:
            return StreamOperation::Seek;
        case ProviderOperation::StreamFlush:
            return StreamOperation::Flush;
        case ProviderOperation::StreamClose:
            return StreamOperation::Close;
        default:
            return std::nullopt;
        }
    }();
    if (streamOperation)
        throwByteStreamFailure(*streamOperation, std::string("injected fault: ") + toString(operation), *code,
                               std::move(contexts));
    throwProviderError(*code, location, std::move(contexts));
}

} // namespace foundation::storage::provider::decorators
