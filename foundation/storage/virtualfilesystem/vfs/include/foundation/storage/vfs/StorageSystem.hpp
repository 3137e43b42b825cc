#pragma once

#include <foundation/storage/provider/IProvider.hpp>
#include <foundation/storage/vfs/AbsoluteIRI.hpp>

#include <boost/shared_ptr.hpp>

#include <functional>
#include <memory>
#include <type_traits>

namespace foundation::msg_svc::eventmgr {
class EventMgr;
}

namespace foundation::storage::vfs {

// The provider's vocabulary that the library's operations take and return, under the library's
// own namespace (the library's ErrorCode and PathComparator are its own types).
using provider::ByteStreamAccess;
using provider::ByteStreamCreation;
using provider::ByteStreamOpenOptions;
using provider::CaseModifier;
using provider::CopyFileOptions;
using provider::ExceptionContext;
using provider::ExistenceType;
using provider::ExistenceTypeExtended;
using provider::ExtendedAttributes;
using provider::ExtendedFeature;
using provider::FileAttributes;
using provider::FilenameSensitivity;
using provider::FolderAttributes;
using provider::matchesWildcard;
using provider::ProviderStorageInfo;
using provider::ReplacementPolicy;
using provider::StreamClosePolicy;
using provider::TransactionStatus;

class StorageSystemReference;
namespace detail {
struct StorageSystemAccess;
}

// Something that has a location. File is one.
class VFS_EXPORT Resource {
public:
    Resource() = default;
    Resource(const Resource&) = default;
    Resource& operator=(const Resource&) = default;
    virtual AbsoluteIRI getLocation() const = 0;
    virtual ~Resource();
};

// Knows how to reach storage: builds the provider that serves a location, can be shut down, and may
// own an event manager for change notifications. Applications own storage systems (as
// std::shared_ptr) and hand out StorageSystemReferences; the library never keeps one alive.
class VFS_EXPORT StorageSystem {
public:
    StorageSystem() = default;
    StorageSystem(const StorageSystem&) = default;
    StorageSystem& operator=(const StorageSystem&) = default;
    virtual ~StorageSystem();

    // Tells the storage system to release its resources; handles are not notified.
    virtual void shutdown() const = 0;

protected:
    // The provider serving `location`. A storage system that does not serve the location's scheme
    // throws UnsupportedIRISchemeException.
    virtual std::shared_ptr<provider::IProvider> buildProvider(const provider::StorageIRI& location) const = 0;

private:
    friend class StorageSystemReference;
    friend struct detail::StorageSystemAccess;
    // The event manager change events are published to; none by default.
    virtual boost::shared_ptr<msg_svc::eventmgr::EventMgr> getEventMgr() const;
};

// Wraps another storage system and forwards to it; subclasses override what they change. Reports no
// event manager unless a subclass overrides getEventMgr.
class VFS_EXPORT StorageSystemDecorator : public StorageSystem {
public:
    explicit StorageSystemDecorator(std::shared_ptr<StorageSystem> wrapped);
    StorageSystemDecorator(const StorageSystemDecorator&) = default;
    StorageSystemDecorator(StorageSystemDecorator&&) noexcept = default;
    StorageSystemDecorator& operator=(const StorageSystemDecorator&) = default;
    StorageSystemDecorator& operator=(StorageSystemDecorator&&) noexcept = default;
    ~StorageSystemDecorator() override;

    void shutdown() const override;

protected:
    std::shared_ptr<provider::IProvider> buildProvider(const provider::StorageIRI& location) const override;
    const std::shared_ptr<StorageSystem>& getWrapped() const noexcept { return m_wrapped; }

private:
    std::shared_ptr<StorageSystem> m_wrapped;
};

// How handles reach their storage system: a factory called anew for every operation, so that no
// handle keeps a storage system alive and one that has gone fails cleanly with std::runtime_error
// "StorageSystem has been destroyed". Usable from any thread.
class VFS_EXPORT StorageSystemReference : public StorageSystem {
public:
    // The normal form: never extends the system's lifetime.
    StorageSystemReference(std::weak_ptr<StorageSystem> system);
    // Refers to the system `system` owns, as the weak form does; the caller keeps owning it.
    template <class System, class = std::enable_if_t<std::is_convertible_v<System*, StorageSystem*>>>
    StorageSystemReference(const std::shared_ptr<System>& system)
        : StorageSystemReference(std::weak_ptr<StorageSystem>(system))
    {
    }
    // A system owned by a temporary would be gone before the first operation: refused.
    template <class System>
    StorageSystemReference(std::shared_ptr<System>&&) = delete;
    // A system created or looked up on demand.
    StorageSystemReference(std::function<std::shared_ptr<StorageSystem>()> factory);
    StorageSystemReference(const StorageSystemReference&) = default;
    StorageSystemReference(StorageSystemReference&&) noexcept = default;
    StorageSystemReference& operator=(const StorageSystemReference&) = default;
    StorageSystemReference& operator=(StorageSystemReference&&) noexcept = default;
    ~StorageSystemReference() override;

    // The system, or std::runtime_error "StorageSystem has been destroyed" (also an
    // IInternalException). A moved-from reference throws std::bad_function_call.
    std::shared_ptr<StorageSystem> lock() const;
    // Shuts the system down; does nothing when it is gone.
    void shutdown() const override;

    // Equal when both resolve to the same system object now (two gone systems are equal).
    bool operator==(const StorageSystemReference& other) const;
    bool operator!=(const StorageSystemReference& other) const { return !(*this == other); }

private:
    std::shared_ptr<provider::IProvider> buildProvider(const provider::StorageIRI& location) const override;
    boost::shared_ptr<msg_svc::eventmgr::EventMgr> getEventMgr() const override;

    using Factory = std::function<std::shared_ptr<StorageSystem>()>;
    // Shared, so that copying a reference (every handle holds one) is a reference-count increment.
    std::shared_ptr<const Factory> m_factory;
};

// What is at `location`: File, Folder or NotFound (a provider's ResourceNotFound also answers
// NotFound). Other failures throw Exception.
VFS_EXPORT provider::ExistenceType exists(const AbsoluteIRI& location, const StorageSystemReference& system);
// As exists, links reported as links; NotFound is the extended value 6.
VFS_EXPORT provider::ExistenceTypeExtended existsExtended(const AbsoluteIRI& location,
                                                          const StorageSystemReference& system);

namespace detail {

struct StorageSystemAccess {
    static std::shared_ptr<provider::IProvider> buildProvider(const StorageSystem& system,
                                                              const provider::StorageIRI& location)
    {
        return system.buildProvider(location);
    }
    static boost::shared_ptr<msg_svc::eventmgr::EventMgr> getEventMgr(const StorageSystem& system)
    {
        return system.getEventMgr();
    }
};

// Builds the provider for `location` through `system`, provider failures translated; the
// "StorageSystem has been destroyed" error and UnsupportedIRISchemeException pass as they are.
VFS_EXPORT std::shared_ptr<provider::IProvider> bindProvider(const StorageSystemReference& system,
                                                             const provider::StorageIRI& location);

} // namespace detail

} // namespace foundation::storage::vfs
