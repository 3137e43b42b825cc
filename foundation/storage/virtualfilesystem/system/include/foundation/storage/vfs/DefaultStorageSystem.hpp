#pragma once

#include <foundation/storage/provider/ProviderResolver.hpp>
#include <foundation/storage/provider/memory/MemoryProvider.hpp>
#include <foundation/storage/vfs/StorageSystem.hpp>

#include <boost/property_tree/ptree_fwd.hpp>

#include <functional>
#include <memory>
#include <vector>

namespace foundation::storage::vfs {

struct DefaultStorageSystemOptions {
    // Settings of this system's in-memory provider (quota, read-only).
    provider::memory::MemoryProviderOptions memory;
    // Wraps each provider once, when the system builds it (for fault injection, feature masking,
    // call counting, ...): receives the scheme ("file" or "mem") and the provider, returns the
    // provider the system hands out. Empty: providers are handed out as they are.
    std::function<std::shared_ptr<provider::IProvider>(const ustring& scheme, std::shared_ptr<provider::IProvider>)>
        decorateProvider;
};

// Builds the provider of a scheme; `context.resolve` finds the provider of any location the system
// serves (for a provider that reads its container through another provider).
using ProviderFactory = std::function<std::shared_ptr<provider::IProvider>(const provider::ProviderContext& context)>;

// A ready storage system: file:/// on the local disk, mem://VOLUME/ in process memory (each
// instance has its own volumes), sftp://user@host/ over SSH when the library is built with it, and
// whatever scheme an application registers. Any other scheme
// throws UnsupportedIRISchemeException. Providers are built once, on first use, and shared by every
// handle. It owns an event manager, into which the change events of its files and folders are
// published (see Events.hpp). Thread-safe.
//
//   auto system = std::make_shared<DefaultStorageSystem>();
//   StorageSystemReference ref{std::weak_ptr<StorageSystem>(system)};
class VFS_EXPORT DefaultStorageSystem : public StorageSystem {
public:
    DefaultStorageSystem();
    explicit DefaultStorageSystem(DefaultStorageSystemOptions options);
    ~DefaultStorageSystem() override;

    // Shuts the providers down and releases them (so the content of every memory volume goes and
    // every watch and polling ends). Later operations fail with UnsupportedOperation.
    void shutdown() const override;

    // Serves `scheme` (compared without case) with the provider `factory` builds on first use.
    // Refused with std::invalid_argument (a caller's mistake, as elsewhere in the library): a name
    // that is not a letter followed by letters, digits, '+', '-' or '.', an empty factory, and a
    // scheme already served.
    void registerScheme(const ustring& scheme, ProviderFactory factory);
    // Settings for the provider of `scheme` (its own keys, see IProvider::configure): applied at once
    // (building it first if need be). The provider's refusal is a vfs::Exception naming the scheme's
    // root ("mem:///") and keeps nothing; an unserved scheme throws UnsupportedIRISchemeException.
    void configure(const ustring& scheme, const boost::property_tree::ptree& settings);
    // The schemes served, in order.
    std::vector<ustring> schemes() const;

protected:
    std::shared_ptr<provider::IProvider> buildProvider(const provider::StorageIRI& location) const override;

private:
    boost::shared_ptr<msg_svc::eventmgr::EventMgr> getEventMgr() const override;

    struct State;
    std::shared_ptr<State> m_state;
};

} // namespace foundation::storage::vfs
