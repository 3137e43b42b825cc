#include <foundation/core/except/ThrowInternal.hpp>
#include <foundation/msg_svc/eventmgr/EventMgr.hpp>
#include <foundation/storage/provider/local/LocalProvider.hpp>
#ifdef VFS_WITH_ARCHIVE_PROVIDER
#include <foundation/storage/provider/archive/ArchiveProvider.hpp>
#endif
#ifdef VFS_WITH_SFTP
#include <foundation/storage/provider/sftp/SftpProvider.hpp>
#endif
#ifdef VFS_WITH_S3
#include <foundation/storage/provider/s3/S3Provider.hpp>
#endif
#include <foundation/storage/vfs/DefaultStorageSystem.hpp>
#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <fl/i18n/ustring.hpp>

#include <boost/make_shared.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/throw_exception.hpp>

#include <map>
#include <mutex>
#include <stdexcept>
#include <string>

namespace foundation::storage::vfs {

namespace {

bool isSchemeName(const ustring& scheme)
{
    const auto letter = [](char16_t c) { return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z'); };
    if (scheme.empty() || !letter(scheme.front()))
        return false;
    for (const char16_t c : scheme)
        if (!letter(c) && !(c >= u'0' && c <= u'9') && c != u'+' && c != u'-' && c != u'.')
            return false;
    return true;
}

ustring lowerCase(ustring text)
{
    for (char16_t& c : text)
        c = fl::i18n::tolower_ascii(c);
    return text;
}

// A caller's mistake that needs no provider: a standard exception, as for the library's others.
[[noreturn]] void refuseRegistration(const std::string& why)
{
    boost::throw_exception(std::invalid_argument("registerScheme: " + why));
}

} // namespace

struct DefaultStorageSystem::State {
    struct Scheme {
        ProviderFactory factory;
        std::shared_ptr<provider::IProvider> built;
        // Held while the provider is built: one build per scheme, and other schemes stay reachable.
        std::shared_ptr<std::mutex> building = std::make_shared<std::mutex>();
    };

    DefaultStorageSystemOptions options;
    mutable std::mutex mutex;
    bool shutDown = false;
    std::map<ustring, Scheme> schemes;
    const boost::shared_ptr<msg_svc::eventmgr::EventMgr> eventMgr = boost::make_shared<msg_svc::eventmgr::EventMgr>();

    // The provider of `scheme`, built once, on first use. The factory runs without the system's lock,
    // so that it may resolve locations of other schemes.
    static std::shared_ptr<provider::IProvider> providerOf(const std::shared_ptr<State>& self, const ustring& scheme,
                                                           const provider::StorageIRI& location)
    {
        ProviderFactory factory;
        std::shared_ptr<std::mutex> building;
        {
            std::lock_guard lock(self->mutex);
            const auto found = self->schemes.find(scheme);
            if (found == self->schemes.end())
                core::except::throwInternal(UnsupportedIRISchemeException(scheme));
            self->checkRunning(location);
            if (found->second.built)
                return found->second.built;
            factory = found->second.factory;
            building = found->second.building;
        }
        std::lock_guard buildingLock(*building);
        {
            std::lock_guard lock(self->mutex);
            self->checkRunning(location);
            if (const auto& built = self->schemes[scheme].built)
                return built; // made by another thread meanwhile
        }
        const std::weak_ptr<State> weak = self;
        provider::ProviderContext context{[weak](const provider::StorageIRI& other) {
            const std::shared_ptr<State> state = weak.lock();
            if (!state)
                provider::throwProviderError(provider::ErrorCode::UnsupportedOperation, other,
                                             {provider::ExceptionContext(u"shutdown")},
                                             u"the storage system has been destroyed");
            return providerOf(state, other.getScheme(), other);
        }};
        std::shared_ptr<provider::IProvider> made = factory(context);
        if (!made)
            provider::throwProviderError(provider::ErrorCode::InternalError, location, {provider::ExceptionContext(u"no-provider", scheme)});
        if (self->options.decorateProvider)
            made = self->options.decorateProvider(scheme, std::move(made));
        std::lock_guard lock(self->mutex);
        self->checkRunning(location);
        return self->schemes[scheme].built = std::move(made);
    }

    void checkRunning(const provider::StorageIRI& location) const
    {
        if (shutDown)
            provider::throwProviderError(provider::ErrorCode::UnsupportedOperation, location,
                                         {provider::ExceptionContext(u"shutdown")},
                                         u"the storage system has been shut down");
    }
};

DefaultStorageSystem::DefaultStorageSystem() : DefaultStorageSystem(DefaultStorageSystemOptions{}) {}

DefaultStorageSystem::DefaultStorageSystem(DefaultStorageSystemOptions options) : m_state(std::make_shared<State>())
{
    m_state->options = std::move(options);
    const provider::memory::MemoryProviderOptions memory = m_state->options.memory;
    m_state->schemes[u"file"].factory = [](const provider::ProviderContext&) { return provider::local::makeLocalProvider(); };
    m_state->schemes[u"mem"].factory = [memory](const provider::ProviderContext&) {
        return provider::memory::makeMemoryProvider(memory);
    };
#ifdef VFS_WITH_ARCHIVE_PROVIDER
    m_state->schemes[u"zip"].factory = [](const provider::ProviderContext& context) { return provider::archive::makeZipProvider(context); };
    m_state->schemes[u"tar"].factory = [](const provider::ProviderContext& context) { return provider::archive::makeTarProvider(context); };
#endif
#ifdef VFS_WITH_SFTP
    m_state->schemes[u"sftp"].factory = [](const provider::ProviderContext&) { return provider::sftp::makeSftpProvider(); };
#endif
#ifdef VFS_WITH_S3
    m_state->schemes[u"s3"].factory = [](const provider::ProviderContext&) { return provider::s3::makeS3Provider(); };
#endif
}

DefaultStorageSystem::~DefaultStorageSystem() = default;

void DefaultStorageSystem::registerScheme(const ustring& scheme, ProviderFactory factory)
{
    const std::string text = fl::i18n::ustring_to_utf8_lossy(scheme);
    if (!isSchemeName(scheme))
        refuseRegistration("\"" + text + "\" is not a scheme name (a letter, then letters, digits, '+', '-', '.')");
    if (!factory)
        refuseRegistration("the scheme \"" + text + "\" needs a provider factory");
    const ustring name = lowerCase(scheme);
    std::lock_guard lock(m_state->mutex);
    if (m_state->schemes.contains(name))
        refuseRegistration("the scheme \"" + text + "\" is served already");
    m_state->schemes[name].factory = std::move(factory);
}

void DefaultStorageSystem::configure(const ustring& scheme, const boost::property_tree::ptree& settings)
{
    detail::translated([&] {
        const ustring name = lowerCase(scheme);
        const auto served = State::providerOf(m_state, name, provider::StorageIRI());
        try {
            served->configure(settings);
        } catch (const provider::Exception& refused) {
            // A setting belongs to no location: the refusal names the scheme's root.
            provider::throwProviderError(refused.getErrorCode(), provider::StorageIRI(name + u":///"),
                                         refused.getAllExceptionContexts(), fl::i18n::utf8_to_ustring_lossy(refused.what()));
        }
    });
}

std::vector<ustring> DefaultStorageSystem::schemes() const
{
    std::lock_guard lock(m_state->mutex);
    std::vector<ustring> names;
    for (const auto& [name, scheme] : m_state->schemes)
        names.push_back(name);
    return names;
}

void DefaultStorageSystem::shutdown() const
{
    std::vector<std::shared_ptr<provider::IProvider>> released;
    {
        std::lock_guard lock(m_state->mutex);
        m_state->shutDown = true;
        for (auto& [name, scheme] : m_state->schemes)
            if (scheme.built)
                released.push_back(std::move(scheme.built));
    }
    // Outside the lock: ending watches waits for their callbacks, which build handles through this
    // system; and the providers' destructors may join watcher threads.
    for (const auto& provider : released)
        provider->shutdown();
}

boost::shared_ptr<msg_svc::eventmgr::EventMgr> DefaultStorageSystem::getEventMgr() const { return m_state->eventMgr; }

std::shared_ptr<provider::IProvider> DefaultStorageSystem::buildProvider(const provider::StorageIRI& location) const
{
    return State::providerOf(m_state, location.getScheme(), location);
}

} // namespace foundation::storage::vfs
