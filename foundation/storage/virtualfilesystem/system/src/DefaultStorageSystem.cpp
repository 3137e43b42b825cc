#include <foundation/msg_svc/eventmgr/EventMgr.hpp>
#include <foundation/storage/provider/local/LocalProvider.hpp>
#include <foundation/storage/vfs/DefaultStorageSystem.hpp>
#include <foundation/storage/vfs/Exception.hpp>

#include <boost/make_shared.hpp>
#include <boost/throw_exception.hpp>

namespace foundation::storage::vfs {

struct DefaultStorageSystem::State {
    DefaultStorageSystemOptions options;
    std::mutex mutex;
    bool shutDown = false;
    std::shared_ptr<provider::IProvider> local;
    std::shared_ptr<provider::IProvider> memory;
    const boost::shared_ptr<msg_svc::eventmgr::EventMgr> eventMgr = boost::make_shared<msg_svc::eventmgr::EventMgr>();

    std::shared_ptr<provider::IProvider> decorate(const ustring& scheme, std::shared_ptr<provider::IProvider> built) const
    {
        return options.decorateProvider ? options.decorateProvider(scheme, std::move(built)) : built;
    }
};

DefaultStorageSystem::DefaultStorageSystem() : DefaultStorageSystem(DefaultStorageSystemOptions{}) {}

DefaultStorageSystem::DefaultStorageSystem(DefaultStorageSystemOptions options) : m_state(std::make_unique<State>())
{
    m_state->options = std::move(options);
}

DefaultStorageSystem::~DefaultStorageSystem() = default;

void DefaultStorageSystem::shutdown() const
{
    std::shared_ptr<provider::IProvider> local, memory;
    {
        std::lock_guard lock(m_state->mutex);
        m_state->shutDown = true;
        local = std::move(m_state->local);
        memory = std::move(m_state->memory);
    }
    // Outside the lock: ending watches waits for their callbacks, which build handles through this
    // system; and the providers' destructors may join watcher threads.
    for (const auto& released : {local, memory})
        if (released)
            released->shutdown();
}

boost::shared_ptr<msg_svc::eventmgr::EventMgr> DefaultStorageSystem::getEventMgr() const { return m_state->eventMgr; }

std::shared_ptr<provider::IProvider> DefaultStorageSystem::buildProvider(const provider::StorageIRI& location) const
{
    const ustring scheme = location.getScheme();
    const bool isFile = scheme == u"file";
    if (!isFile && scheme != u"mem")
        core::except::throwInternal(UnsupportedIRISchemeException(scheme));

    std::lock_guard lock(m_state->mutex);
    if (m_state->shutDown)
        provider::throwProviderError(provider::ErrorCode::UnsupportedOperation, location,
                                     {provider::ExceptionContext(u"shutdown")},
                                     u"the storage system has been shut down");
    auto& slot = isFile ? m_state->local : m_state->memory;
    if (!slot)
        slot = m_state->decorate(scheme, isFile ? provider::local::makeLocalProvider()
                                                : provider::memory::makeMemoryProvider(m_state->options.memory));
    return slot;
}

} // namespace foundation::storage::vfs
