#include <foundation/core/except/ThrowInternal.hpp>
#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/StorageSystem.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <stdexcept>

namespace foundation::storage::vfs {

namespace {

using SharedFactory = std::shared_ptr<const std::function<std::shared_ptr<StorageSystem>()>>;

// A moved-from reference has no factory: calling it is calling an empty function object.
std::shared_ptr<StorageSystem> lockOrNull(const SharedFactory& factory)
{
    if (!factory)
        throw std::bad_function_call();
    return (*factory)();
}

std::shared_ptr<StorageSystem> resolve(const SharedFactory& factory)
{
    auto system = lockOrNull(factory);
    if (!system)
        core::except::throwInternal(std::runtime_error("StorageSystem has been destroyed"));
    return system;
}

} // namespace

Resource::~Resource() = default;

StorageSystem::~StorageSystem() = default;

boost::shared_ptr<msg_svc::eventmgr::EventMgr> StorageSystem::getEventMgr() const { return {}; }

StorageSystemDecorator::StorageSystemDecorator(std::shared_ptr<StorageSystem> wrapped) : m_wrapped(std::move(wrapped)) {}
StorageSystemDecorator::~StorageSystemDecorator() = default;

void StorageSystemDecorator::shutdown() const { m_wrapped->shutdown(); }

std::shared_ptr<provider::IProvider> StorageSystemDecorator::buildProvider(const provider::StorageIRI& location) const
{
    return detail::StorageSystemAccess::buildProvider(*m_wrapped, location);
}

StorageSystemReference::StorageSystemReference(std::weak_ptr<StorageSystem> system)
    : m_factory(std::make_shared<const Factory>([system = std::move(system)] { return system.lock(); }))
{
}

StorageSystemReference::StorageSystemReference(std::function<std::shared_ptr<StorageSystem>()> factory)
    : m_factory(std::make_shared<const Factory>(std::move(factory)))
{
}

StorageSystemReference::~StorageSystemReference() = default;

std::shared_ptr<StorageSystem> StorageSystemReference::lock() const { return resolve(m_factory); }

void StorageSystemReference::shutdown() const
{
    if (auto system = lockOrNull(m_factory))
        system->shutdown();
}

bool StorageSystemReference::operator==(const StorageSystemReference& other) const
{
    const auto theirs = lockOrNull(other.m_factory);
    const auto ours = lockOrNull(m_factory);
    return theirs.get() == ours.get();
}

std::shared_ptr<provider::IProvider> StorageSystemReference::buildProvider(const provider::StorageIRI& location) const
{
    return resolve(m_factory)->buildProvider(location);
}

boost::shared_ptr<msg_svc::eventmgr::EventMgr> StorageSystemReference::getEventMgr() const
{
    return resolve(m_factory)->getEventMgr();
}

namespace detail {

std::shared_ptr<provider::IProvider> bindProvider(const StorageSystemReference& system,
                                                  const provider::StorageIRI& location)
{
    return translated([&] { return StorageSystemAccess::buildProvider(system, location); });
}

} // namespace detail

namespace {

// Asks the provider serving `location`; a provider's ResourceNotFound answers `notFound`.
template <class Answer, class Ask>
Answer askExistence(const AbsoluteIRI& location, const StorageSystemReference& system, Answer notFound, Ask ask)
{
    const auto& iri = detail::IRIAccess::storageIRI(location);
    const auto provider = detail::bindProvider(system, iri);
    try {
        return ask(*provider, iri);
    } catch (const provider::Exception& error) {
        if (error.getErrorCode() == provider::ErrorCode::ResourceNotFound)
            return notFound;
        detail::translateProviderException();
    }
}

} // namespace

provider::ExistenceType exists(const AbsoluteIRI& location, const StorageSystemReference& system)
{
    return askExistence(location, system, provider::ExistenceType::NotFound,
                        [](const provider::IProvider& p, const provider::StorageIRI& iri) { return p.exists(iri); });
}

provider::ExistenceTypeExtended existsExtended(const AbsoluteIRI& location, const StorageSystemReference& system)
{
    return askExistence(location, system, provider::ExistenceTypeExtended::NotFound,
                        [](const provider::IProvider& p, const provider::StorageIRI& iri) {
                            return p.existsExtended(iri);
                        });
}

} // namespace foundation::storage::vfs
